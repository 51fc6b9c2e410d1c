// Native-surface images: the driver imports the surface itself, so the
// texture the image backs is the surface and the draw needs no copy.
#include "HdrOutputImages.h"

void* NativeSurfaceImages::Create(EGLInfo& info, void* buffer, EGLint& error) const
{
    void* image = info.eglCreateImageKHRProc(info.display, EGL_NO_CONTEXT, NATIVE_SURFACE_IMAGE_TARGET,
                                             static_cast<EGLClientBuffer>(buffer), nullptr);
    error = image == nullptr ? eglGetError() : EGL_SUCCESS;
    return image;
}

bool NativeSurfaceImages::Destroy(EGLInfo& info, void* image, EGLint& error) const
{
    if (info.eglDestroyImageKHRProc(info.display, image) == EGL_FALSE) {
        error = eglGetError();
        return false;
    }
    error = EGL_SUCCESS;
    return true;
}

void NativeSurfaceImages::Attach(EGLInfo& info, void* image) const
{
    info.glEGLImageTargetTexture2DOESProc(GL_TEXTURE_2D, static_cast<GLeglImageOES>(image));
}

OutputBands NativeSurfaceImages::Bands(const void* /*image*/) const
{
    return {1, 0};  // one pass over the whole surface
}

bool NativeSurfaceImages::StoreBand(void* /*image*/, GLuint /*framebuffer*/, int /*index*/) const
{
    return true;  // the surface is the texture's storage
}
