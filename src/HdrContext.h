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
    EGLDisplay display;      // not owned; null means "no display"
    EGLSurface drawSurface;  // not owned
    EGLSurface readSurface;  // not owned
    EGLContext context;      // the library's own context
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

// EGL images over platform buffers (tbm surfaces). Ownership of a non-null
// image passes to the caller, who frees it with DestroyImageKHR of the same
// kind.
//
// Each call comes twice: with the kind of image it makes (HdrOutputImages.h:
// the platform's native-surface images, or surface copies where the driver
// lacks that target), and without, for this build's kind.
constexpr EGLenum NATIVE_SURFACE_IMAGE_TARGET = 0x32A1;

class OutputImages;

void* CreateImageKHR(EGLInfo& info, void* buffer, const int* attribs);
void* CreateImageKHR(const OutputImages& kind, EGLInfo& info, void* buffer, const int* attribs);
void DestroyImageKHR(EGLInfo& info, void* image);
void DestroyImageKHR(const OutputImages& kind, EGLInfo& info, void* image);
void TargetTextureKHR(EGLInfo& info, void* image);
void TargetTextureKHR(const OutputImages& kind, EGLInfo& info, void* image);
// buffer is the surface handle narrowed to 32 bits, widened back by sign
// extension: that loses a 64-bit handle that does not fit in 31 bits.
void* PrepareTBMEglTexture(EGLInfo& info, int buffer, const void* image);
void* PrepareTBMEglTexture(const OutputImages& kind, EGLInfo& info, int buffer, const void* image);
// The same at full width; the engine uses these, so that a platform whose
// handles are 64-bit pointers keeps them whole.
void* PrepareTBMEglTexture(EGLInfo& info, void* buffer, const void* image);
void* PrepareTBMEglTexture(const OutputImages& kind, EGLInfo& info, void* buffer, const void* image);

#endif
