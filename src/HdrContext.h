// The library's thin EGL layer: one record per render context, with the
// binding that was current before the library bound its own context, and
// the EGL-image entry points looked up at run time.
#ifndef HDR_CONTEXT_H
#define HDR_CONTEXT_H

#include <EGL/egl.h>
#include <EGL/eglext.h>
#include <GLES2/gl2.h>
#include <GLES2/gl2ext.h>

struct EGLInfo {
    EGLDisplay display;        // not owned; null means "no display"
    EGLSurface drawSurface;    // not owned
    EGLSurface readSurface;    // not owned
    EGLContext context;        // the library's own context
    EGLSurface prevDrawSurface;
    EGLSurface prevReadSurface;
    EGLContext prevContext;
    PFNEGLCREATEIMAGEKHRPROC eglCreateImageKHRProc;
    PFNEGLDESTROYIMAGEKHRPROC eglDestroyImageKHRProc;
    PFNGLEGLIMAGETARGETTEXTURE2DOESPROC glEGLImageTargetTexture2DOESProc;
    bool isBound;
};

bool SetEGLInfo(EGLInfo& info, void* display, void* drawSurface, void* readSurface, void* context);
bool CreateEGLContext(EGLInfo& info);
bool BindEGLContext(EGLInfo& info);
bool UnbindEGLContext(EGLInfo& info);
bool DeleteEGLContext(EGLInfo& info);

#endif
