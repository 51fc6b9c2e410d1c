// Headless EGL for the tests: Mesa's surfaceless platform, no display server.
// A test that needs EGL fails (never skips) when no display can be had.
#ifndef HDRGPU_TEST_EGL_TEST_ENV_H
#define HDRGPU_TEST_EGL_TEST_ENV_H

#include <EGL/egl.h>
#include <gtest/gtest.h>

namespace hdrtest {

// The process's initialised surfaceless display, or EGL_NO_DISPLAY.
EGLDisplay TestDisplay();

// A config like the one the library asks for, so that a host's surfaces made
// with it can also be bound with the library's context.
EGLConfig LibraryLikeConfig(EGLDisplay display);

// What is current on the calling thread.
struct Binding {
    EGLDisplay display;
    EGLContext context;
    EGLSurface draw;
    EGLSurface read;
};
Binding CurrentBinding();
bool operator==(const Binding& a, const Binding& b);
std::ostream& operator<<(std::ostream& os, const Binding& b);

// A host's own context with draw and read pbuffers, made current on
// construction; releases the thread's binding and destroys them on destruction.
class HostContext {
public:
    explicit HostContext(EGLDisplay display);
    ~HostContext();
    HostContext(const HostContext&) = delete;
    HostContext& operator=(const HostContext&) = delete;

    EGLContext context() const { return context_; }
    EGLSurface draw() const { return draw_; }
    EGLSurface read() const { return read_; }
    bool ok() const { return ok_; }

private:
    EGLDisplay display_;
    EGLContext context_ = EGL_NO_CONTEXT;
    EGLSurface draw_ = EGL_NO_SURFACE;
    EGLSurface read_ = EGL_NO_SURFACE;
    bool ok_ = false;
};

// Fixture for tests that need the display; fails the test if there is none.
class EglTest : public ::testing::Test {
protected:
    void SetUp() override;
    EGLDisplay display_ = EGL_NO_DISPLAY;
};

}  // namespace hdrtest

#endif
