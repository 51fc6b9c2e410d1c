// The EGL layer: describing, creating, binding, unbinding and deleting the
// library's context, with the host's binding restored and every message as
// the host sees it.
#include "EglTestEnv.h"
#include "Faults.h"
#include "HdrContext.h"
#include "LogCapture.h"

#include <gtest/gtest.h>

#include <cstring>

using hdrtest::Binding;
using hdrtest::CurrentBinding;
using hdrtest::HostContext;
using hdrtest::LogCapture;
using hdrtest::Parse;
namespace faults = hdrtest::faults;

namespace {

class ContextTest : public hdrtest::EglTest {
protected:
    void SetUp() override
    {
        EglTest::SetUp();
        faults::Reset();
        std::memset(&info_, 0, sizeof info_);
    }
    void TearDown() override
    {
        faults::Reset();
        if (info_.context != nullptr) {
            eglMakeCurrent(display_, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
            eglDestroyContext(display_, info_.context);
        }
    }
    // A described record with a context of its own, drawing surfaceless.
    void MakeContext()
    {
        ASSERT_TRUE(SetEGLInfo(info_, display_, EGL_NO_SURFACE, EGL_NO_SURFACE, nullptr));
        ASSERT_TRUE(CreateEGLContext(info_));
    }
    EGLInfo info_;
};

// Message parts of HdrContext.cpp lines, with the leading "%d" line numbers
// checked against the prefix's own line.
std::vector<std::string> Messages(const LogCapture& capture)
{
    std::vector<std::string> messages;
    for (const auto& line : capture.Lines()) {
        const auto parsed = Parse(line.text);
        EXPECT_EQ(parsed.file, "HdrContext.cpp") << line.text;
        messages.push_back(parsed.message);
    }
    return messages;
}

// The "%d" of a message is the line in its own prefix.
std::string WithLine(const LogCapture& capture, size_t index, const char* fmt)
{
    const auto lines = capture.Lines();
    if (index >= lines.size()) {
        return "<no line " + std::to_string(index) + ">";
    }
    return hdrtest::Format(fmt, Parse(lines[index].text).line);
}

// A null display is refused and nothing in the record is written.
TEST_F(ContextTest, SetEGLInfoWithNullDisplayWritesNothing)
{
    std::memset(&info_, 0xA5, sizeof info_);
    EGLInfo before;
    std::memcpy(&before, &info_, sizeof info_);
    LogCapture capture;
    EXPECT_FALSE(SetEGLInfo(info_, nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(std::memcmp(&before, &info_, sizeof info_), 0);
    const auto messages = Messages(capture);
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[0], "SetEGLInfo start");
    EXPECT_EQ(messages[1], WithLine(capture, 1, "%d not a valid egl display."));
    EXPECT_EQ(capture.Stdout(), "SetEGLInfo start\n" + messages[1] + "\n");
    std::memset(&info_, 0, sizeof info_);
}

// A successful description stores the handles, clears the saved binding,
// finds the three entry points and leaves the bound flag alone.
TEST_F(ContextTest, SetEGLInfoStoresAndLooksUp)
{
    std::memset(&info_, 0xA5, sizeof info_);
    info_.isBound = true;
    void* draw = reinterpret_cast<void*>(0x10);
    void* read = reinterpret_cast<void*>(0x20);
    void* context = reinterpret_cast<void*>(0x30);
    LogCapture capture;
    EXPECT_TRUE(SetEGLInfo(info_, display_, draw, read, context));
    EXPECT_EQ(info_.display, display_);
    EXPECT_EQ(info_.drawSurface, draw);
    EXPECT_EQ(info_.readSurface, read);
    EXPECT_EQ(info_.context, context);
    EXPECT_EQ(info_.prevDrawSurface, nullptr);
    EXPECT_EQ(info_.prevReadSurface, nullptr);
    EXPECT_EQ(info_.prevContext, nullptr);
    EXPECT_NE(info_.eglCreateImageKHRProc, nullptr);
    EXPECT_NE(info_.eglDestroyImageKHRProc, nullptr);
    EXPECT_NE(info_.glEGLImageTargetTexture2DOESProc, nullptr);
    EXPECT_TRUE(info_.isBound);
    EXPECT_EQ(Messages(capture), (std::vector<std::string>{"SetEGLInfo start", "SetEGLInfo end\n"}));
    EXPECT_EQ(capture.Stdout(), "SetEGLInfo start\nSetEGLInfo end\n\n");
    std::memset(&info_, 0, sizeof info_);
}

// A missing entry point stops the lookup: its field is null, later fields keep their values.
TEST_F(ContextTest, SetEGLInfoStopsAtAMissingEntryPoint)
{
    struct Case {
        const char* name;
        const char* message;
    };
    const Case cases[] = {
        {"eglCreateImageKHR", "%d ERROR: eglCreateImageKHRProc == null.\n"},
        {"eglDestroyImageKHR", "%d ERROR: eglDestroyImageKHRProc == null.\n"},
        {"glEGLImageTargetTexture2DOES", "%d ERROR: glEGLImageTargetTexture2DOESProc == null.\n"},
    };
    for (size_t i = 0; i < 3; ++i) {
        SCOPED_TRACE(cases[i].name);
        faults::Reset();
        faults::HideProc(cases[i].name);
        EGLInfo info;
        std::memset(&info, 0x5A, sizeof info);
        EGLInfo before = info;
        LogCapture capture;
        EXPECT_FALSE(SetEGLInfo(info, display_, nullptr, nullptr, nullptr));
        void* procs[3] = {reinterpret_cast<void*>(info.eglCreateImageKHRProc),
                          reinterpret_cast<void*>(info.eglDestroyImageKHRProc),
                          reinterpret_cast<void*>(info.glEGLImageTargetTexture2DOESProc)};
        void* old[3] = {reinterpret_cast<void*>(before.eglCreateImageKHRProc),
                        reinterpret_cast<void*>(before.eglDestroyImageKHRProc),
                        reinterpret_cast<void*>(before.glEGLImageTargetTexture2DOESProc)};
        for (size_t j = 0; j < i; ++j) {
            EXPECT_NE(procs[j], nullptr);
            EXPECT_NE(procs[j], old[j]);
        }
        EXPECT_EQ(procs[i], nullptr);
        for (size_t j = i + 1; j < 3; ++j) {
            EXPECT_EQ(procs[j], old[j]);
        }
        const auto messages = Messages(capture);
        ASSERT_EQ(messages.size(), 2u);
        EXPECT_EQ(messages[1], WithLine(capture, 1, cases[i].message));
    }
}

// A successful creation logs its numbered steps and the EGL status "EGL_SUCCESS".
TEST_F(ContextTest, CreateEGLContextLogsItsSteps)
{
    ASSERT_TRUE(SetEGLInfo(info_, display_, nullptr, nullptr, nullptr));
    LogCapture capture;
    EXPECT_TRUE(CreateEGLContext(info_));
    EXPECT_NE(info_.context, nullptr);
    const auto messages = Messages(capture);
    ASSERT_EQ(messages.size(), 8u);
    const std::vector<std::string> expected = {
        "CreateEGLContext start", "CreateEGLContext 1.", "CreateEGLContext 2.", "CreateEGLContext 3.",
        "CreateEGLContext 4.",    "CreateEGLContext 5.", WithLine(capture, 6, "%d CreateContext : EGL_SUCCESS."),
        "CreateEGLContext end"};
    EXPECT_EQ(messages, expected);
}

// The creation asks for the library's config and a version-2 client, which
// the driver answers with a context that runs GLSL ES 3.00.
TEST_F(ContextTest, CreatedContextRunsGles3)
{
    MakeContext();
    ASSERT_TRUE(BindEGLContext(info_));
    const char* version = reinterpret_cast<const char*>(glGetString(GL_VERSION));
    ASSERT_NE(version, nullptr);
    EXPECT_EQ(std::string(version).rfind("OpenGL ES 3.", 0), 0u) << version;
    EGLint sampleBuffers = 0;
    EGLint configId = 0;
    eglQueryContext(display_, info_.context, EGL_CONFIG_ID, &configId);
    EGLConfig configs[256];
    EGLint count = 0;
    eglGetConfigs(display_, configs, 256, &count);
    for (EGLint i = 0; i < count; ++i) {
        EGLint id = 0;
        eglGetConfigAttrib(display_, configs[i], EGL_CONFIG_ID, &id);
        if (id == configId) {
            eglGetConfigAttrib(display_, configs[i], EGL_SAMPLE_BUFFERS, &sampleBuffers);
        }
    }
    EXPECT_EQ(sampleBuffers, 1);
    EXPECT_TRUE(UnbindEGLContext(info_));
}

// Creation without a display is refused.
TEST_F(ContextTest, CreateEGLContextWithoutDisplayFails)
{
    LogCapture capture;
    EXPECT_FALSE(CreateEGLContext(info_));
    const auto messages = Messages(capture);
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[0], "CreateEGLContext start");
    EXPECT_EQ(messages[1], WithLine(capture, 1, "%d ERROR: no egl display."));
}

// An existing context is never replaced: false, and the old one kept.
TEST_F(ContextTest, CreateEGLContextKeepsAnExistingContext)
{
    MakeContext();
    EGLContext first = info_.context;
    LogCapture capture;
    EXPECT_FALSE(CreateEGLContext(info_));
    EXPECT_EQ(info_.context, first);
    const auto messages = Messages(capture);
    ASSERT_EQ(messages.size(), 3u);
    EXPECT_EQ(messages[2], WithLine(capture, 2, "%d ERROR: egl context is not empty."));
}

// A failed config choice names the EGL error; the standard-output copy reads
// the error a second time (here a code with no name, "Unknown").
TEST_F(ContextTest, ChooseConfigFailureNamesTheErrorTwice)
{
    ASSERT_TRUE(SetEGLInfo(info_, display_, nullptr, nullptr, nullptr));
    faults::FailChooseConfig();
    faults::QueueEglError(EGL_BAD_ATTRIBUTE);
    faults::QueueEglError(0x300F);
    LogCapture capture;
    EXPECT_FALSE(CreateEGLContext(info_));
    EXPECT_EQ(info_.context, nullptr);
    const auto messages = Messages(capture);
    ASSERT_EQ(messages.size(), 5u);
    EXPECT_EQ(messages[4], WithLine(capture, 4, "%d ERROR: eglChooseConfig : EGL_BAD_ATTRIBUTE."));
    const std::string stdoutCopy = WithLine(capture, 4, "%d ERROR: eglChooseConfig : Unknown.") + "\n";
    const std::string out = capture.Stdout();
    EXPECT_EQ(out.substr(out.size() - stdoutCopy.size()), stdoutCopy);
}

// Error code 0 has no name either.
TEST_F(ContextTest, ErrorCodeZeroIsUnknown)
{
    ASSERT_TRUE(SetEGLInfo(info_, display_, nullptr, nullptr, nullptr));
    faults::FailCreateContext();
    faults::QueueEglError(0);
    LogCapture capture;
    EXPECT_FALSE(CreateEGLContext(info_));
    EXPECT_EQ(info_.context, EGL_NO_CONTEXT);
    const auto messages = Messages(capture);
    ASSERT_EQ(messages.size(), 8u);
    EXPECT_EQ(messages[6], WithLine(capture, 6, "%d CreateContext : Unknown."));
}

// Every named EGL error reaches the log under its own name.
TEST_F(ContextTest, EveryEglErrorHasItsName)
{
    const char* names[] = {"EGL_SUCCESS",          "EGL_NOT_INITIALIZED",   "EGL_BAD_ACCESS",
                           "EGL_BAD_ALLOC",        "EGL_BAD_ATTRIBUTE",     "EGL_BAD_CONFIG",
                           "EGL_BAD_CONTEXT",      "EGL_BAD_CURRENT_SURFACE", "EGL_BAD_DISPLAY",
                           "EGL_BAD_MATCH",        "EGL_BAD_NATIVE_PIXMAP", "EGL_BAD_NATIVE_WINDOW",
                           "EGL_BAD_PARAMETER",    "EGL_BAD_SURFACE",       "EGL_CONTEXT_LOST"};
    ASSERT_TRUE(SetEGLInfo(info_, display_, nullptr, nullptr, nullptr));
    for (int i = 0; i < 15; ++i) {
        faults::FailChooseConfig();
        faults::QueueEglError(0x3000 + i);
        faults::QueueEglError(0x2FFF);
        LogCapture capture;
        EXPECT_FALSE(CreateEGLContext(info_));
        const auto messages = Messages(capture);
        ASSERT_EQ(messages.size(), 5u);
        EXPECT_EQ(messages[4], WithLine(capture, 4, "%d ERROR: eglChooseConfig : ") + names[i] + ".");
        EXPECT_NE(capture.Stdout().find("eglChooseConfig : Unknown."), std::string::npos);
    }
}

// With nothing current, bind then unbind leaves nothing current.
TEST_F(ContextTest, BindUnbindWithNothingCurrentLeavesNothingCurrent)
{
    MakeContext();
    eglMakeCurrent(display_, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
    const Binding before = CurrentBinding();
    LogCapture capture;
    ASSERT_TRUE(BindEGLContext(info_));
    EXPECT_TRUE(info_.isBound);
    EXPECT_EQ(eglGetCurrentContext(), info_.context);
    ASSERT_TRUE(UnbindEGLContext(info_));
    EXPECT_FALSE(info_.isBound);
    EXPECT_EQ(CurrentBinding(), before);
    EXPECT_EQ(eglGetCurrentContext(), EGL_NO_CONTEXT);
    EXPECT_EQ(Messages(capture), (std::vector<std::string>{"BindEGLContext start", "BindEGLContext end",
                                                           "UnbindEGLContext start", "UnbindEGLContext end"}));
}

// The host's context and both of its surfaces are current again after the pair.
TEST_F(ContextTest, BindUnbindRestoresTheHostBinding)
{
    MakeContext();
    HostContext host(display_);
    ASSERT_TRUE(host.ok());
    const Binding before = CurrentBinding();
    ASSERT_EQ(before.context, host.context());
    ASSERT_EQ(before.draw, host.draw());
    ASSERT_EQ(before.read, host.read());
    ASSERT_TRUE(BindEGLContext(info_));
    EXPECT_EQ(info_.prevContext, host.context());
    EXPECT_EQ(info_.prevDrawSurface, host.draw());
    EXPECT_EQ(info_.prevReadSurface, host.read());
    EXPECT_EQ(eglGetCurrentContext(), info_.context);
    ASSERT_TRUE(UnbindEGLContext(info_));
    EXPECT_EQ(CurrentBinding(), before);
    EXPECT_EQ(info_.prevContext, nullptr);
    EXPECT_EQ(info_.prevDrawSurface, nullptr);
    EXPECT_EQ(info_.prevReadSurface, nullptr);
}

// A second bind is refused with "binded aleady." and the first binding stays.
TEST_F(ContextTest, SecondBindIsRefused)
{
    MakeContext();
    HostContext host(display_);
    ASSERT_TRUE(host.ok());
    ASSERT_TRUE(BindEGLContext(info_));
    LogCapture capture;
    EXPECT_FALSE(BindEGLContext(info_));
    EXPECT_TRUE(info_.isBound);
    EXPECT_EQ(eglGetCurrentContext(), info_.context);
    EXPECT_EQ(info_.prevContext, host.context());
    const auto messages = Messages(capture);
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[1], WithLine(capture, 1, "%d ERROR: binded aleady."));
    ASSERT_TRUE(UnbindEGLContext(info_));
    EXPECT_EQ(eglGetCurrentContext(), host.context());
}

// Binding needs a display and a context.
TEST_F(ContextTest, BindNeedsDisplayAndContext)
{
    {
        LogCapture capture;
        EXPECT_FALSE(BindEGLContext(info_));
        ASSERT_EQ(capture.Lines().size(), 2u);
        EXPECT_EQ(Messages(capture)[1], WithLine(capture, 1, "%d ERROR: no egl display."));
    }
    ASSERT_TRUE(SetEGLInfo(info_, display_, nullptr, nullptr, nullptr));
    LogCapture capture;
    EXPECT_FALSE(BindEGLContext(info_));
    ASSERT_EQ(capture.Lines().size(), 2u);
    EXPECT_EQ(Messages(capture)[1], WithLine(capture, 1, "%d ERROR: no egl context."));
    EXPECT_FALSE(info_.isBound);
}

// A refused eglMakeCurrent: false, not bound, the saved binding as it was read.
TEST_F(ContextTest, FailedBindKeepsTheSavedBinding)
{
    MakeContext();
    HostContext host(display_);
    ASSERT_TRUE(host.ok());
    faults::FailMakeCurrent();
    LogCapture capture;
    EXPECT_FALSE(BindEGLContext(info_));
    EXPECT_FALSE(info_.isBound);
    EXPECT_EQ(info_.prevContext, host.context());
    EXPECT_EQ(info_.prevDrawSurface, host.draw());
    EXPECT_EQ(info_.prevReadSurface, host.read());
    EXPECT_EQ(eglGetCurrentContext(), host.context());
    ASSERT_EQ(capture.Lines().size(), 2u);
    EXPECT_EQ(Messages(capture)[1], WithLine(capture, 1, "%d ERROR: fail to bind egl context."));
}

// Unbinding without a bind is refused with "bind first.".
TEST_F(ContextTest, UnbindWithoutBindIsRefused)
{
    MakeContext();
    const auto calls = faults::MakeCurrentCalls();
    LogCapture capture;
    EXPECT_FALSE(UnbindEGLContext(info_));
    EXPECT_EQ(faults::MakeCurrentCalls(), calls);
    const auto messages = Messages(capture);
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[0], "UnbindEGLContext start");
    EXPECT_EQ(messages[1], WithLine(capture, 1, "%d ERROR: bind first."));
}

// Unbinding needs a display.
TEST_F(ContextTest, UnbindNeedsDisplay)
{
    LogCapture capture;
    EXPECT_FALSE(UnbindEGLContext(info_));
    ASSERT_EQ(capture.Lines().size(), 2u);
    EXPECT_EQ(Messages(capture)[1], WithLine(capture, 1, "%d ERROR: no egl display."));
}

// A refused restore: false, still bound, the saved binding kept for a retry.
TEST_F(ContextTest, FailedUnbindStaysBound)
{
    MakeContext();
    HostContext host(display_);
    ASSERT_TRUE(host.ok());
    ASSERT_TRUE(BindEGLContext(info_));
    faults::FailMakeCurrent();
    LogCapture capture;
    EXPECT_FALSE(UnbindEGLContext(info_));
    EXPECT_TRUE(info_.isBound);
    EXPECT_EQ(info_.prevContext, host.context());
    ASSERT_EQ(capture.Lines().size(), 2u);
    EXPECT_EQ(Messages(capture)[1], WithLine(capture, 1, "%d ERROR: fail to unbind egl context."));
    ASSERT_TRUE(UnbindEGLContext(info_));
    EXPECT_EQ(eglGetCurrentContext(), host.context());
}

// Deleting a bound record restores the previous binding first, then destroys the context.
TEST_F(ContextTest, DeleteOfABoundRecordRestoresThenDestroys)
{
    MakeContext();
    HostContext host(display_);
    ASSERT_TRUE(host.ok());
    const Binding before = CurrentBinding();
    ASSERT_TRUE(BindEGLContext(info_));
    EGLContext context = info_.context;
    LogCapture capture;
    EXPECT_TRUE(DeleteEGLContext(info_));
    EXPECT_EQ(info_.context, nullptr);
    EXPECT_FALSE(info_.isBound);
    EXPECT_EQ(CurrentBinding(), before);
    EGLint value = 0;
    EXPECT_EQ(eglQueryContext(display_, context, EGL_CONFIG_ID, &value), EGL_FALSE);
    const auto messages = Messages(capture);
    ASSERT_EQ(messages.size(), 3u);
    EXPECT_EQ(messages[0], "UnbindEGLContext start");
    EXPECT_EQ(messages[1], "UnbindEGLContext end");
    EXPECT_EQ(messages[2], hdrtest::Format("DestroyContext Success...[%p]\n", context));
}

// A failed destroy keeps the context and names it.
TEST_F(ContextTest, FailedDeleteKeepsTheContext)
{
    MakeContext();
    EGLContext context = info_.context;
    faults::FailDestroyContext();
    LogCapture capture;
    EXPECT_FALSE(DeleteEGLContext(info_));
    EXPECT_EQ(info_.context, context);
    ASSERT_EQ(capture.Lines().size(), 1u);
    const auto parsed = Parse(capture.Lines()[0].text);
    EXPECT_EQ(parsed.message, hdrtest::Format("%d ERROR: DestroyContext Fail...[%p]\n", parsed.line, context));
}

// A restore that fails inside the delete is ignored: the context goes and the bound flag stays.
TEST_F(ContextTest, DeleteIgnoresAFailedUnbind)
{
    MakeContext();
    ASSERT_TRUE(BindEGLContext(info_));
    faults::FailMakeCurrent();
    EXPECT_TRUE(DeleteEGLContext(info_));
    EXPECT_EQ(info_.context, nullptr);
    EXPECT_TRUE(info_.isBound);
    eglMakeCurrent(display_, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
}

// Deleting needs a display and a context; it logs no start line.
TEST_F(ContextTest, DeleteNeedsDisplayAndContext)
{
    {
        LogCapture capture;
        EXPECT_FALSE(DeleteEGLContext(info_));
        ASSERT_EQ(capture.Lines().size(), 1u);
        EXPECT_EQ(Messages(capture)[0], WithLine(capture, 0, "%d ERROR: no egl display."));
    }
    ASSERT_TRUE(SetEGLInfo(info_, display_, nullptr, nullptr, nullptr));
    LogCapture capture;
    EXPECT_FALSE(DeleteEGLContext(info_));
    ASSERT_EQ(capture.Lines().size(), 1u);
    EXPECT_EQ(Messages(capture)[0], WithLine(capture, 0, "%d ERROR: no egl context."));
}

// After a delete the record takes a new context.
TEST_F(ContextTest, DeletedRecordTakesANewContext)
{
    MakeContext();
    ASSERT_TRUE(DeleteEGLContext(info_));
    EXPECT_TRUE(CreateEGLContext(info_));
    EXPECT_NE(info_.context, nullptr);
}

}  // namespace
