// The calling thread's render context for the parts of the library that use
// contexts without keeping them (the generation engine): a narrow view of
// the render-context registry, so that the registry never needs the engine.
#ifndef HDR_THREAD_CONTEXT_H
#define HDR_THREAD_CONTEXT_H

#include "HdrContext.h"

// The calling thread's EGL record, or null when the thread has none.
EGLInfo* FindThreadContext();
// Make the calling thread's context current / give the host's binding back.
bool BindThreadContext();
bool UnbindThreadContext();

#endif
