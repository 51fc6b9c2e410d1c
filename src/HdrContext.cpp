#include "HdrContext.h"

#include "HdrCommon.h"
#include "HdrOutputImages.h"

#include <cstdint>

namespace {

// Names of the EGL error codes 0x3000..0x300E, indexed by code - 0x3000.
const char* const eglErrorNames[] = {
    "EGL_SUCCESS",           "EGL_NOT_INITIALIZED",   "EGL_BAD_ACCESS",          "EGL_BAD_ALLOC",   "EGL_BAD_ATTRIBUTE",
    "EGL_BAD_CONFIG",        "EGL_BAD_CONTEXT",       "EGL_BAD_CURRENT_SURFACE", "EGL_BAD_DISPLAY", "EGL_BAD_MATCH",
    "EGL_BAD_NATIVE_PIXMAP", "EGL_BAD_NATIVE_WINDOW", "EGL_BAD_PARAMETER",       "EGL_BAD_SURFACE", "EGL_CONTEXT_LOST",
};

}  // namespace

static const char* eglGetErrorString(int code)
{
    const unsigned index = static_cast<unsigned>(code) - 0x3000u;
    if (index >= sizeof eglErrorNames / sizeof eglErrorNames[0]) {
        return "Unknown";
    }
    return eglErrorNames[index];
}

bool SetEGLInfo(EGLInfo& info, void* display, void* drawSurface, void* readSurface, void* context)
{
    HDR_LOG("SetEGLInfo start");
    if (display == nullptr) {
        HDR_LOG("%d not a valid egl display.", __LINE__);
        return false;
    }
    info.display = display;
    info.drawSurface = drawSurface;
    info.readSurface = readSurface;
    info.context = context;
    info.prevDrawSurface = nullptr;
    info.prevReadSurface = nullptr;
    info.prevContext = nullptr;

    // Each pointer is stored before it is tested: a failed lookup leaves a
    // null in its own field and the later fields as they were.
    info.eglCreateImageKHRProc = reinterpret_cast<PFNEGLCREATEIMAGEKHRPROC>(eglGetProcAddress("eglCreateImageKHR"));
    if (info.eglCreateImageKHRProc == nullptr) {
        HDR_LOG("%d ERROR: eglCreateImageKHRProc == null.\n", __LINE__);
        return false;
    }
    info.eglDestroyImageKHRProc = reinterpret_cast<PFNEGLDESTROYIMAGEKHRPROC>(eglGetProcAddress("eglDestroyImageKHR"));
    if (info.eglDestroyImageKHRProc == nullptr) {
        HDR_LOG("%d ERROR: eglDestroyImageKHRProc == null.\n", __LINE__);
        return false;
    }
    info.glEGLImageTargetTexture2DOESProc =
        reinterpret_cast<PFNGLEGLIMAGETARGETTEXTURE2DOESPROC>(eglGetProcAddress("glEGLImageTargetTexture2DOES"));
    if (info.glEGLImageTargetTexture2DOESProc == nullptr) {
        HDR_LOG("%d ERROR: glEGLImageTargetTexture2DOESProc == null.\n", __LINE__);
        return false;
    }
    HDR_LOG("SetEGLInfo end\n");
    return true;
}

bool CreateEGLContext(EGLInfo& info)
{
    HDR_LOG("CreateEGLContext start");
    if (info.display == nullptr) {
        HDR_LOG("%d ERROR: no egl display.", __LINE__);
        return false;
    }
    HDR_LOG("CreateEGLContext 1.");
    if (info.context != nullptr) {
        HDR_LOG("%d ERROR: egl context is not empty.", __LINE__);
        return false;
    }
    HDR_LOG("CreateEGLContext 2.");
    // clang-format off: one attribute and its value per line
    const EGLint configAttribs[] = {
        EGL_RED_SIZE,
        8,
        EGL_GREEN_SIZE,
        8,
        EGL_BLUE_SIZE,
        8,
        EGL_ALPHA_SIZE,
        EGL_DONT_CARE,
        EGL_DEPTH_SIZE,
        16,
        EGL_STENCIL_SIZE,
        0,
        EGL_SURFACE_TYPE,
        EGL_PBUFFER_BIT,
        EGL_RENDERABLE_TYPE,
        EGL_OPENGL_ES2_BIT,
        EGL_SAMPLE_BUFFERS,
        1,
        EGL_SAMPLES,
        4,
        EGL_NONE,
    };
    // clang-format on
    HDR_LOG("CreateEGLContext 3.");
    EGLConfig config = nullptr;
    EGLint numConfigs = 1;
    if (eglChooseConfig(info.display, configAttribs, &config, 1, &numConfigs) != EGL_TRUE) {
        HDR_LOG("%d ERROR: eglChooseConfig : %s.", __LINE__, eglGetErrorString(eglGetError()));
        return false;
    }
    HDR_LOG("CreateEGLContext 4.");
    // A version-2 request: drivers answer it with a backward-compatible 3.x
    // context, which the GLSL ES 3.00 programs need.
    const EGLint contextAttribs[] = {EGL_CONTEXT_CLIENT_VERSION, 2, EGL_NONE};
    info.context = eglCreateContext(info.display, config, EGL_NO_CONTEXT, contextAttribs);
    HDR_LOG("CreateEGLContext 5.");
    HDR_LOG("%d CreateContext : %s.", __LINE__, eglGetErrorString(eglGetError()));
    HDR_LOG("CreateEGLContext end");
    return info.context != nullptr;
}

bool BindEGLContext(EGLInfo& info)
{
    HDR_LOG("BindEGLContext start");
    if (info.display == nullptr) {
        HDR_LOG("%d ERROR: no egl display.", __LINE__);
        return false;
    }
    if (info.context == nullptr) {
        HDR_LOG("%d ERROR: no egl context.", __LINE__);
        return false;
    }
    if (info.isBound) {
        HDR_LOG("%d ERROR: binded aleady.", __LINE__);
        return false;
    }
    info.prevContext = eglGetCurrentContext();
    info.prevReadSurface = eglGetCurrentSurface(EGL_READ);
    info.prevDrawSurface = eglGetCurrentSurface(EGL_DRAW);
    if (eglMakeCurrent(info.display, info.drawSurface, info.readSurface, info.context) != EGL_TRUE) {
        HDR_LOG("%d ERROR: fail to bind egl context.", __LINE__);
        return false;
    }
    info.isBound = true;
    HDR_LOG("BindEGLContext end");
    return true;
}

bool UnbindEGLContext(EGLInfo& info)
{
    HDR_LOG("UnbindEGLContext start");
    if (info.display == nullptr) {
        HDR_LOG("%d ERROR: no egl display.", __LINE__);
        return false;
    }
    if (!info.isBound) {
        HDR_LOG("%d ERROR: bind first.", __LINE__);
        return false;
    }
    // Restored on the library's display whatever display the saved binding
    // belonged to; with nothing saved this releases the thread's binding.
    if (eglMakeCurrent(info.display, info.prevDrawSurface, info.prevReadSurface, info.prevContext) != EGL_TRUE) {
        HDR_LOG("%d ERROR: fail to unbind egl context.", __LINE__);
        return false;
    }
    info.isBound = false;
    info.prevDrawSurface = nullptr;
    info.prevReadSurface = nullptr;
    info.prevContext = nullptr;
    HDR_LOG("UnbindEGLContext end");
    return true;
}

bool DeleteEGLContext(EGLInfo& info)
{
    if (info.display == nullptr) {
        HDR_LOG("%d ERROR: no egl display.", __LINE__);
        return false;
    }
    if (info.context == nullptr) {
        HDR_LOG("%d ERROR: no egl context.", __LINE__);
        return false;
    }
    if (info.isBound) {
        UnbindEGLContext(info);  // a failure here does not stop the teardown
    }
    if (eglDestroyContext(info.display, info.context) == EGL_TRUE) {
        HDR_LOG("DestroyContext Success...[%p]\n", info.context);
        info.context = nullptr;
        return true;
    }
    HDR_LOG("%d ERROR: DestroyContext Fail...[%p]\n", __LINE__, info.context);
    return false;
}

// ---------------------------------------------------------------------------
// EGL images over platform buffers: each call logs what the kind of image
// it is given reports.

namespace {

void LogCreateImageError(EGLint error)
{
    switch (error) {
    case EGL_BAD_DISPLAY:
        HDR_LOG("%d ERROR: EGL_BAD_DISPLAY: Invalid EGLDisplay object\n", __LINE__);
        break;
    case EGL_BAD_CONTEXT:
        HDR_LOG("%d ERROR: EGL_BAD_CONTEXT: Invalid EGLContext object\n", __LINE__);
        break;
    case EGL_BAD_PARAMETER:
        HDR_LOG("%d ERROR: EGL_BAD_PARAMETER: Invalid target parameter or attribute in attrib_list\n", __LINE__);
        break;
    case EGL_BAD_MATCH:
        HDR_LOG("%d ERROR: EGL_BAD_MATCH: attrib_list does not match target\n", __LINE__);
        break;
    case EGL_BAD_ACCESS:
        HDR_LOG("%d ERROR: EGL_BAD_ACCESS: Previously bound off-screen, or EGLImage sibling error\n", __LINE__);
        break;
    case EGL_BAD_ALLOC:
        HDR_LOG("%d ERROR: EGL_BAD_ALLOC: Insufficient memory is available\n", __LINE__);
        break;
    default:
        break;
    }
}

// The kind the calls without one use: this build's.
// Never destroyed: a host's own static destructors may still make or free
// images after this file's statics are gone.
const OutputImages& BuildOutputImages()
{
    static const OutputImages* const kind = MakeBuildOutputImages().release();
    return *kind;
}

}  // namespace

void* CreateImageKHR(EGLInfo& info, void* buffer, const int* attribs)
{
    return CreateImageKHR(BuildOutputImages(), info, buffer, attribs);
}

void* CreateImageKHR(const OutputImages& kind, EGLInfo& info, void* buffer, const int* attribs)
{
    (void)attribs;  // never forwarded: images are made with no attribute list
    HDR_LOG("CreateImageKHR start");
    EGLint error = EGL_SUCCESS;
    void* image = kind.Create(info, buffer, error);
    if (image == nullptr) {
        LogCreateImageError(error);
    }
    HDR_LOG("CreateImageKHR end");
    return image;
}

void DestroyImageKHR(EGLInfo& info, void* image)
{
    DestroyImageKHR(BuildOutputImages(), info, image);
}

void DestroyImageKHR(const OutputImages& kind, EGLInfo& info, void* image)
{
    HDR_LOG("DestroyImageKHR start");
    EGLint error = EGL_SUCCESS;
    if (image != nullptr && !kind.Destroy(info, image, error)) {
        switch (error) {
        case EGL_BAD_DISPLAY:
            HDR_LOG("%d ERROR: EGL_BAD_DISPLAY: Invalid EGLDisplay object\n", __LINE__);
            break;
        case EGL_BAD_PARAMETER:
            HDR_LOG(
                "%d ERROR: EGL_BAD_PARAMETER: eglImage is not a valid EGLImageKHR object created "
                "with respect to EGLDisplay\n",
                __LINE__);
            break;
        case EGL_BAD_ACCESS:
            HDR_LOG("%d ERROR: EGL_BAD_ACCESS: EGLImage sibling error\n", __LINE__);
            break;
        default:
            break;
        }
    }
    HDR_LOG("DestroyImageKHR end");
}

void TargetTextureKHR(EGLInfo& info, void* image)
{
    TargetTextureKHR(BuildOutputImages(), info, image);
}

void TargetTextureKHR(const OutputImages& kind, EGLInfo& info, void* image)
{
    HDR_LOG("TargetTextureKHR start");
    if (image != nullptr) {
        kind.Attach(info, image);
        const GLenum error = glGetError();
        if (error != GL_NO_ERROR) {
            // The conversion reads "%0x" then the characters "04x".
            HDR_LOG("%d ERROR: glEGLImageTargetTexture2DOES returned error %0x04x\n", __LINE__, error);
        } else {
            HDR_LOG("glEGLImageTargetTexture2DOES success >>>>>>>>>>");
        }
    }
    HDR_LOG("TargetTextureKHR end");
}

void* PrepareTBMEglTexture(EGLInfo& info, int buffer, const void* image)
{
    return PrepareTBMEglTexture(BuildOutputImages(), info, buffer, image);
}

void* PrepareTBMEglTexture(const OutputImages& kind, EGLInfo& info, int buffer, const void* image)
{
    const intptr_t widened = buffer;                        // sign extension back to pointer width
    void* const handle = reinterpret_cast<void*>(widened);  // NOLINT(performance-no-int-to-ptr)
    return PrepareTBMEglTexture(kind, info, handle, image);
}

void* PrepareTBMEglTexture(EGLInfo& info, void* buffer, const void* image)
{
    return PrepareTBMEglTexture(BuildOutputImages(), info, buffer, image);
}

void* PrepareTBMEglTexture(const OutputImages& kind, EGLInfo& info, void* buffer, const void* image)
{
    HDR_LOG("PrepareTBMEglTexture start");
    if (buffer == nullptr) {
        HDR_LOG("PrepareTBMEglTexture end");
        return nullptr;
    }
    void* result = const_cast<void*>(image);
    if (result == nullptr) {
        result = CreateImageKHR(kind, info, buffer, nullptr);
        if (result == nullptr) {
            return nullptr;
        }
    }
    TargetTextureKHR(kind, info, result);
    HDR_LOG("Call success end");
    return result;
}
