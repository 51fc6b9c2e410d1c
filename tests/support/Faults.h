// Fault injection for EGL and GL calls. The test executables define the
// interposed entry points themselves, so the library's calls reach them first;
// each fault is armed by a test and fires on the next matching call(s), after
// which the real driver function runs again.
#ifndef HDRGPU_TEST_FAULTS_H
#define HDRGPU_TEST_FAULTS_H

#include <EGL/egl.h>
#include <GLES3/gl3.h>

#include <string>
#include <vector>

namespace hdrtest::faults {

// eglGetProcAddress(name) answers NULL while hidden.
void HideProc(const std::string& name);
// After skip more calls have gone through, the next count eglMakeCurrent
// calls fail (EGL_FALSE) without reaching the driver.
void FailMakeCurrent(int count = 1, int skip = 0);
// The next eglDestroyContext fails without destroying anything.
void FailDestroyContext(int count = 1);
// The next eglChooseConfig answers EGL_FALSE.
void FailChooseConfig(int count = 1);
// The next eglCreateContext answers EGL_NO_CONTEXT.
void FailCreateContext(int count = 1);
// eglGetCurrentDisplay answers EGL_NO_DISPLAY while set.
void HideCurrentDisplay(bool hide);
// Queues an error for glGetError to answer before the driver's own errors.
void QueueGlError(GLenum error);
// Queues an error for eglGetError to answer before the driver's own.
void QueueEglError(EGLint error);
// glClientWaitSync answers result (without waiting) for the next count calls.
void SetClientWaitResult(GLenum result, int count = 1);
// The sync handles glClientWaitSync was called with since the last Reset.
std::vector<GLsync> WaitedSyncs();
// The next count glMapBufferRange calls that ask to read answer NULL with
// GL_OUT_OF_MEMORY, as a driver that cannot map the buffer would.
void FailReadMappings(int count = 1);
// Queues a status for glCheckFramebufferStatus to answer instead of the driver.
void QueueFramebufferStatus(GLenum status);
// Number of calls that reached the interposed functions since the last Reset.
int MakeCurrentCalls();
int DestroyContextCalls();
int GlGetErrorCalls();
// Disarms every fault and clears the counters.
void Reset();

}  // namespace hdrtest::faults

#endif
