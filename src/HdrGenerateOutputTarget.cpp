// The generation engine's output target: the surface the picture goes to,
// the image that backs the output texture with it, and the framebuffer the
// draw renders into.
#define HDR_LOG_FILE "HdrGenerate.cpp"

#include "HdrCommon.h"
#include "HdrGenerate.h"
#include "HdrOutputImages.h"
#include "HdrThreadContext.h"

namespace {

// One second, as for the upload fence.
constexpr GLuint64 kBandFenceTimeoutNs = 1000000000ull;

}  // namespace

void HdrGenerate::ReleaseOutputSurface(EGLInfo& egl)
{
    DeleteSecondBand();
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

void HdrGenerate::DeleteSecondBand()
{
    if (bandFramebuffer != 0) {
        glDeleteFramebuffers(1, &bandFramebuffer);
        bandFramebuffer = 0;
    }
    if (bandTexture != 0) {
        glDeleteTextures(1, &bandTexture);
        bandTexture = 0;
    }
}

// The second band texture, given the same storage as the output texture,
// and its framebuffer, when the image is drawn in several bands. False
// (and none) when the storage or the framebuffer cannot be had: the draw
// then uses the output texture alone.
bool HdrGenerate::AttachSecondBand(EGLInfo& egl)
{
    if (outputImages->Bands(eglImage).count < 2) {
        return false;
    }
    glGenTextures(1, &bandTexture);
    glGenFramebuffers(1, &bandFramebuffer);
    glBindTexture(GL_TEXTURE_2D, bandTexture);
    outputImages->Attach(egl, eglImage);
    const bool attached = GL_error_check();
    glBindTexture(GL_TEXTURE_2D, 0);
    glBindFramebuffer(GL_FRAMEBUFFER, bandFramebuffer);
    glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, bandTexture, 0);
    const bool complete = attached && glCheckFramebufferStatus(GL_FRAMEBUFFER) == GL_FRAMEBUFFER_COMPLETE;
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    if (!complete) {
        DeleteSecondBand();
    }
    return complete;
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
        AttachSecondBand(*egl);
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

// Band band of the viewport into target: drawing the viewport that many
// rows lower puts exactly the surface's rows from band * rows into it.
void HdrGenerate::DrawBand(GLuint target, int band, int rows, int viewportWidth, int viewportHeight)
{
    glBindFramebuffer(GL_FRAMEBUFFER, target);
    glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
    glViewport(0, -band * rows, viewportWidth, viewportHeight);
    glDrawElements(GL_TRIANGLES, 6, GL_UNSIGNED_INT, nullptr);
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
}

// Bands alternate between the two band textures. Band i + 1 is flushed to
// the rasteriser before band i is read back, so that a GPU draws it while
// band i is copied into the surface; band i's own fence is waited for
// first, because a read of a texture still being drawn waits for every
// command queued. (llvmpipe finishes every queued command before any read
// back, so there the bands only take turns; keeping it busy during the
// copy by queueing a band further ahead measured no faster.)
bool HdrGenerate::DrawBandsOverlapped(const OutputBands& bands, int viewportWidth, int viewportHeight)
{
    const GLuint targets[2] = {framebuffer, bandFramebuffer};
    GLsync drawn[2] = {nullptr, nullptr};
    bool stored = true;
    for (int band = 0; band <= bands.count && stored; ++band) {
        if (band < bands.count) {
            DrawBand(targets[band % 2], band, bands.rows, viewportWidth, viewportHeight);
            drawn[band % 2] = glFenceSync(GL_SYNC_GPU_COMMANDS_COMPLETE, 0);
            glFlush();
        }
        if (band > 0) {
            const int previous = band - 1;
            GLsync& fence = drawn[previous % 2];
            // Bounded like the upload fence's wait; whatever it answers, the
            // read back still waits for the band if it must.
            glClientWaitSync(fence, 0, kBandFenceTimeoutNs);
            glDeleteSync(fence);
            fence = nullptr;
            stored = outputImages->StoreBand(eglImage, targets[previous % 2], previous);
        }
    }
    // A band left drawing after a failed store: its fence goes unwaited.
    for (GLsync fence : drawn) {
        if (fence != nullptr) {
            glDeleteSync(fence);
        }
    }
    return stored;
}

bool HdrGenerate::DrawIntoSurface(int viewportWidth, int viewportHeight)
{
    const OutputBands bands = outputImages->Bands(eglImage);
    glBindVertexArray(vertexArray);
    if (bands.count > 1 && bandFramebuffer != 0) {
        return DrawBandsOverlapped(bands, viewportWidth, viewportHeight);
    }
    bool stored = bands.count > 0;
    for (int band = 0; band < bands.count && stored; ++band) {
        DrawBand(framebuffer, band, bands.rows, viewportWidth, viewportHeight);
        stored = outputImages->StoreBand(eglImage, framebuffer, band);
    }
    if (!stored && bands.count == 0) {
        HDR_LOG("%d ERROR: no output image\n", __LINE__);
    }
    return stored;
}
