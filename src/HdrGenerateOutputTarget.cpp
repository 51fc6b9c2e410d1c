// The generation engine's output target: the surface the picture goes to,
// the image that backs the output texture with it, and the framebuffer the
// draw renders into.
#define HDR_LOG_FILE "HdrGenerate.cpp"

#include "HdrCommon.h"
#include "HdrGenerate.h"
#include "HdrOutputImages.h"
#include "HdrThreadContext.h"

void HdrGenerate::ReleaseOutputSurface(EGLInfo& egl)
{
    DestroyImageKHR(*outputImages, egl, eglImage);
    eglImage = nullptr;
    tbm_surface_destroy(tbmSurface);
    tbmSurface = nullptr;
}

// A new framebuffer over the output texture, left bound for the status check.
void HdrGenerate::AttachOutputFramebuffer()
{
    if (framebuffer != 0) {
        glDeleteFramebuffers(1, &framebuffer);
    }
    glGenFramebuffers(1, &framebuffer);
    glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
    glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, outputTexture, 0);
}

int HdrGenerate::updateTBM()
{
    HDR_LOG("updateTBM start");
    EGLInfo* egl = FindThreadContext();
    if (egl == nullptr) {
        HDR_LOG("%d ERROR: no context\n", __LINE__);
        return GPU_GENERATE_ERROR_NO_CONTEXT;
    }
    ReleaseOutputSurface(*egl);

    glActiveTexture(OUTPUT_TEXTURE_UNIT);
    glBindTexture(GL_TEXTURE_2D, outputTexture);
    int width;
    int height;
    if (initOption.usePBO) {
        width = hdrInfo.outputWidth;
        height = hdrInfo.outputHeight;
        HDR_LOG("Create new tbm surface PBO {%d x %d} >>>>>>>>>>>>>>>>>>>>>>>>>", width, height);
    } else {
        width = initOption.surfaceWidth;
        height = initOption.surfaceHeight;
        HDR_LOG("Create new tbm surface {%d x %d} >>>>>>>>>>>>>>>>>>>>>>>>>", width, height);
    }
    tbmSurface = tbm_surface_create(width, height, TBM_FORMAT_RGBA8888);
    if (tbmSurface == nullptr) {
        return GPU_GENERATE_ERROR_SURFACE;
    }

    eglImage = PrepareTBMEglTexture(*outputImages, *egl, static_cast<void*>(tbmSurface), nullptr);
    if (eglImage == nullptr) {
        HDR_LOG("%d ERROR: PrepareTBMEglTexture fail\n", __LINE__);
        return GPU_GENERATE_ERROR_EGL_IMAGE;
    }
    HDR_LOG("EGL image handle = %p>>.", eglImage);

    glBindTexture(GL_TEXTURE_2D, 0);
    AttachOutputFramebuffer();
    switch (glCheckFramebufferStatus(GL_FRAMEBUFFER)) {
    case GL_FRAMEBUFFER_COMPLETE:
        glClearColor(0.0f, 0.0f, 0.0f, 1.0f);
        glBindFramebuffer(GL_FRAMEBUFFER, 0);
        HDR_LOG("updateTBM end");
        return GPU_GENERATE_SUCCESS;
    case GL_FRAMEBUFFER_UNDEFINED:
        HDR_SECURE_LOG("[SECURE_LOG] GL_FRAMEBUFFER_UNDEFINED");
        break;
    case GL_FRAMEBUFFER_INCOMPLETE_ATTACHMENT:
        HDR_SECURE_LOG("[SECURE_LOG] GL_FRAMEBUFFER_INCOMPLETE_ATTACHMENT");
        break;
    case GL_FRAMEBUFFER_INCOMPLETE_MISSING_ATTACHMENT:
        HDR_SECURE_LOG("[SECURE_LOG] GL_FRAMEBUFFER_INCOMPLETE_MISSING_ATTACHMENT");
        break;
    case GL_FRAMEBUFFER_UNSUPPORTED:
        HDR_SECURE_LOG("[SECURE_LOG] GL_FRAMEBUFFER_UNSUPPORTED");
        break;
    case GL_FRAMEBUFFER_INCOMPLETE_MULTISAMPLE:
        HDR_SECURE_LOG("[SECURE_LOG] GL_FRAMEBUFFER_INCOMPLETE_MULTISAMPLE");
        break;
    default:
        HDR_SECURE_LOG("[SECURE_LOG] GL_FRAMEBUFFER_ERROR_UNKNOWN");
        break;
    }
    return GPU_GENERATE_ERROR_GL;
}

bool HdrGenerate::DrawIntoSurface(int viewportWidth, int viewportHeight)
{
    // Band i holds the surface's rows from i * rows: drawing the viewport
    // that many rows lower puts exactly those rows into the band.
    const OutputBands bands = outputImages->Bands(eglImage);
    bool stored = bands.count > 0;
    glBindVertexArray(vertexArray);
    for (int band = 0; band < bands.count && stored; ++band) {
        glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
        glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
        glViewport(0, -band * bands.rows, viewportWidth, viewportHeight);
        glDrawElements(GL_TRIANGLES, 6, GL_UNSIGNED_INT, nullptr);
        glBindFramebuffer(GL_FRAMEBUFFER, 0);
        stored = outputImages->StoreBand(eglImage, framebuffer, band);
    }
    if (!stored && bands.count == 0) {
        HDR_LOG("%d ERROR: no output image\n", __LINE__);
    }
    return stored;
}
