#include "EglTestEnv.h"

#include <EGL/eglext.h>

#include <ostream>

namespace hdrtest {

EGLDisplay TestDisplay()
{
    static const EGLDisplay display = [] {
        EGLDisplay d = eglGetPlatformDisplay(EGL_PLATFORM_SURFACELESS_MESA, EGL_DEFAULT_DISPLAY, nullptr);
        if (d == EGL_NO_DISPLAY) {
            return EGL_NO_DISPLAY;
        }
        EGLint major = 0;
        EGLint minor = 0;
        if (eglInitialize(d, &major, &minor) != EGL_TRUE) {
            return EGL_NO_DISPLAY;
        }
        return d;
    }();
    return display;
}

EGLConfig LibraryLikeConfig(EGLDisplay display)
{
    const EGLint attributes[] = {EGL_RED_SIZE, 8, EGL_GREEN_SIZE, 8, EGL_BLUE_SIZE, 8,
                                 EGL_ALPHA_SIZE, EGL_DONT_CARE, EGL_DEPTH_SIZE, 16,
                                 EGL_STENCIL_SIZE, 0, EGL_SURFACE_TYPE, EGL_PBUFFER_BIT,
                                 EGL_RENDERABLE_TYPE, EGL_OPENGL_ES2_BIT, EGL_SAMPLE_BUFFERS, 1,
                                 EGL_SAMPLES, 4, EGL_NONE};
    EGLConfig config = nullptr;
    EGLint count = 0;
    if (eglChooseConfig(display, attributes, &config, 1, &count) != EGL_TRUE || count < 1) {
        return nullptr;
    }
    return config;
}

Binding CurrentBinding()
{
    return {eglGetCurrentDisplay(), eglGetCurrentContext(), eglGetCurrentSurface(EGL_DRAW),
            eglGetCurrentSurface(EGL_READ)};
}

bool operator==(const Binding& a, const Binding& b)
{
    return a.display == b.display && a.context == b.context && a.draw == b.draw && a.read == b.read;
}

std::ostream& operator<<(std::ostream& os, const Binding& b)
{
    return os << "{display " << b.display << ", context " << b.context << ", draw " << b.draw
              << ", read " << b.read << "}";
}

HostContext::HostContext(EGLDisplay display) : display_(display)
{
    EGLConfig config = LibraryLikeConfig(display);
    if (config == nullptr) {
        return;
    }
    const EGLint contextAttributes[] = {EGL_CONTEXT_CLIENT_VERSION, 3, EGL_NONE};
    context_ = eglCreateContext(display, config, EGL_NO_CONTEXT, contextAttributes);
    const EGLint drawAttributes[] = {EGL_WIDTH, 17, EGL_HEIGHT, 9, EGL_NONE};
    const EGLint readAttributes[] = {EGL_WIDTH, 5, EGL_HEIGHT, 3, EGL_NONE};
    draw_ = eglCreatePbufferSurface(display, config, drawAttributes);
    read_ = eglCreatePbufferSurface(display, config, readAttributes);
    ok_ = context_ != EGL_NO_CONTEXT && draw_ != EGL_NO_SURFACE && read_ != EGL_NO_SURFACE &&
          eglMakeCurrent(display, draw_, read_, context_) == EGL_TRUE;
}

HostContext::~HostContext()
{
    eglMakeCurrent(display_, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
    if (read_ != EGL_NO_SURFACE) {
        eglDestroySurface(display_, read_);
    }
    if (draw_ != EGL_NO_SURFACE) {
        eglDestroySurface(display_, draw_);
    }
    if (context_ != EGL_NO_CONTEXT) {
        eglDestroyContext(display_, context_);
    }
}

void EglTest::SetUp()
{
    display_ = TestDisplay();
    ASSERT_NE(display_, EGL_NO_DISPLAY)
        << "no EGL display: Mesa's surfaceless platform could not be initialised";
}

}  // namespace hdrtest
