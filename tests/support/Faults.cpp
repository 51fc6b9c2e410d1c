// Interposed EGL and GL entry points (see Faults.h). The real functions are
// found with dlsym(RTLD_NEXT), i.e. in the libraries loaded after the test
// executable.
#include "Faults.h"

#include <dlfcn.h>

#include <atomic>
#include <deque>
#include <mutex>
#include <set>

namespace hdrtest::faults {
namespace {

std::mutex mutex;
std::set<std::string> hiddenProcs;
std::deque<GLenum> glErrors;
std::deque<EGLint> eglErrors;
std::deque<GLenum> framebufferStatuses;
std::vector<GLsync> waitedSyncs;
GLenum clientWaitResult = GL_NONE;
int clientWaitOverrides = 0;
std::atomic<int> makeCurrentFailures{0};
std::atomic<int> makeCurrentSkips{0};
std::atomic<int> destroyContextFailures{0};
std::atomic<int> chooseConfigFailures{0};
std::atomic<int> createContextFailures{0};
std::atomic<int> readMappingFailures{0};
std::atomic<bool> currentDisplayHidden{false};
std::atomic<int> makeCurrentCalls{0};
std::atomic<int> destroyContextCalls{0};
std::atomic<int> glGetErrorCalls{0};

bool TakeOne(std::atomic<int>& counter)
{
    int value = counter.load();
    while (value > 0) {
        if (counter.compare_exchange_weak(value, value - 1)) {
            return true;
        }
    }
    return false;
}

template <typename Function>
Function Real(const char* name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

void HideProc(const std::string& name)
{
    std::lock_guard<std::mutex> lock(mutex);
    hiddenProcs.insert(name);
}
void FailMakeCurrent(int count, int skip)
{
    makeCurrentSkips = skip;
    makeCurrentFailures = count;
}
void FailDestroyContext(int count) { destroyContextFailures = count; }
void FailChooseConfig(int count) { chooseConfigFailures = count; }
void FailCreateContext(int count) { createContextFailures = count; }
void FailReadMappings(int count) { readMappingFailures = count; }
void HideCurrentDisplay(bool hide) { currentDisplayHidden = hide; }
void QueueGlError(GLenum error)
{
    std::lock_guard<std::mutex> lock(mutex);
    glErrors.push_back(error);
}
void QueueEglError(EGLint error)
{
    std::lock_guard<std::mutex> lock(mutex);
    eglErrors.push_back(error);
}
void SetClientWaitResult(GLenum result, int count)
{
    std::lock_guard<std::mutex> lock(mutex);
    clientWaitResult = result;
    clientWaitOverrides = count;
}
std::vector<GLsync> WaitedSyncs()
{
    std::lock_guard<std::mutex> lock(mutex);
    return waitedSyncs;
}
void QueueFramebufferStatus(GLenum status)
{
    std::lock_guard<std::mutex> lock(mutex);
    framebufferStatuses.push_back(status);
}
int MakeCurrentCalls() { return makeCurrentCalls; }
int DestroyContextCalls() { return destroyContextCalls; }
int GlGetErrorCalls() { return glGetErrorCalls; }

void Reset()
{
    std::lock_guard<std::mutex> lock(mutex);
    hiddenProcs.clear();
    glErrors.clear();
    eglErrors.clear();
    framebufferStatuses.clear();
    waitedSyncs.clear();
    clientWaitResult = GL_NONE;
    clientWaitOverrides = 0;
    makeCurrentFailures = 0;
    makeCurrentSkips = 0;
    destroyContextFailures = 0;
    chooseConfigFailures = 0;
    createContextFailures = 0;
    readMappingFailures = 0;
    currentDisplayHidden = false;
    makeCurrentCalls = 0;
    destroyContextCalls = 0;
    glGetErrorCalls = 0;
}

}  // namespace hdrtest::faults

using namespace hdrtest::faults;

extern "C" {

__eglMustCastToProperFunctionPointerType eglGetProcAddress(const char* name)
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (name != nullptr && hiddenProcs.count(name) != 0) {
            return nullptr;
        }
    }
    static const auto real =
        Real<__eglMustCastToProperFunctionPointerType (*)(const char*)>("eglGetProcAddress");
    return real(name);
}

EGLBoolean eglMakeCurrent(EGLDisplay display, EGLSurface draw, EGLSurface read, EGLContext context)
{
    ++makeCurrentCalls;
    if (!TakeOne(makeCurrentSkips) && TakeOne(makeCurrentFailures)) {
        return EGL_FALSE;
    }
    static const auto real =
        Real<EGLBoolean (*)(EGLDisplay, EGLSurface, EGLSurface, EGLContext)>("eglMakeCurrent");
    return real(display, draw, read, context);
}

EGLBoolean eglDestroyContext(EGLDisplay display, EGLContext context)
{
    ++destroyContextCalls;
    if (TakeOne(destroyContextFailures)) {
        return EGL_FALSE;
    }
    static const auto real = Real<EGLBoolean (*)(EGLDisplay, EGLContext)>("eglDestroyContext");
    return real(display, context);
}

EGLBoolean eglChooseConfig(EGLDisplay display, const EGLint* attributes, EGLConfig* configs,
                           EGLint size, EGLint* count)
{
    if (TakeOne(chooseConfigFailures)) {
        return EGL_FALSE;
    }
    static const auto real =
        Real<EGLBoolean (*)(EGLDisplay, const EGLint*, EGLConfig*, EGLint, EGLint*)>("eglChooseConfig");
    return real(display, attributes, configs, size, count);
}

EGLContext eglCreateContext(EGLDisplay display, EGLConfig config, EGLContext share,
                            const EGLint* attributes)
{
    if (TakeOne(createContextFailures)) {
        return EGL_NO_CONTEXT;
    }
    static const auto real =
        Real<EGLContext (*)(EGLDisplay, EGLConfig, EGLContext, const EGLint*)>("eglCreateContext");
    return real(display, config, share, attributes);
}

EGLDisplay eglGetCurrentDisplay(void)
{
    if (currentDisplayHidden) {
        return EGL_NO_DISPLAY;
    }
    static const auto real = Real<EGLDisplay (*)(void)>("eglGetCurrentDisplay");
    return real();
}

EGLint eglGetError(void)
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (!eglErrors.empty()) {
            const EGLint error = eglErrors.front();
            eglErrors.pop_front();
            return error;
        }
    }
    static const auto real = Real<EGLint (*)(void)>("eglGetError");
    return real();
}

GLenum glGetError(void)
{
    ++glGetErrorCalls;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (!glErrors.empty()) {
            const GLenum error = glErrors.front();
            glErrors.pop_front();
            return error;
        }
    }
    static const auto real = Real<GLenum (*)(void)>("glGetError");
    return real();
}

GLenum glClientWaitSync(GLsync sync, GLbitfield flags, GLuint64 timeout)
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        waitedSyncs.push_back(sync);
        if (clientWaitOverrides > 0) {
            --clientWaitOverrides;
            return clientWaitResult;
        }
    }
    static const auto real = Real<GLenum (*)(GLsync, GLbitfield, GLuint64)>("glClientWaitSync");
    return real(sync, flags, timeout);
}

void* glMapBufferRange(GLenum target, GLintptr offset, GLsizeiptr length, GLbitfield access)
{
    if ((access & GL_MAP_READ_BIT) != 0 && TakeOne(readMappingFailures)) {
        QueueGlError(GL_OUT_OF_MEMORY);
        return nullptr;
    }
    static const auto real = Real<void* (*)(GLenum, GLintptr, GLsizeiptr, GLbitfield)>("glMapBufferRange");
    return real(target, offset, length, access);
}

GLenum glCheckFramebufferStatus(GLenum target)
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (!framebufferStatuses.empty()) {
            const GLenum status = framebufferStatuses.front();
            framebufferStatuses.pop_front();
            return status;
        }
    }
    static const auto real = Real<GLenum (*)(GLenum)>("glCheckFramebufferStatus");
    return real(target);
}

}  // extern "C"
