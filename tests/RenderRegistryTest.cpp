// The per-thread render-context registry: one EGL context per host thread,
// bound and released around the library's work, with every message at its
// own source line.
#include "EglTestEnv.h"
#include "Faults.h"
#include "HdrRender.h"
#include "LogCapture.h"

#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <tuple>

using hdrtest::Binding;
using hdrtest::CurrentBinding;
using hdrtest::HostContext;
using hdrtest::LogCapture;
using hdrtest::Parse;
namespace faults = hdrtest::faults;

namespace {

using Line = std::tuple<std::string, int, std::string>;  // function, source line, message

// The registry's own lines (HdrRender.cpp), in order.
std::vector<Line> RegistryLines(const LogCapture& capture)
{
    std::vector<Line> lines;
    for (const auto& logged : capture.Lines()) {
        const auto parsed = Parse(logged.text);
        if (parsed.file == "HdrRender.cpp") {
            EXPECT_EQ(logged.logId, 0);
            EXPECT_EQ(logged.priority, 6);
            EXPECT_EQ(logged.tag, "TSS");
            lines.emplace_back(parsed.function, parsed.line, parsed.message);
        }
    }
    return lines;
}

unsigned LowId(pthread_t id)
{
    return static_cast<unsigned>(static_cast<uint64_t>(id));
}

std::string ThreadIdLine()
{
    return hdrtest::Format("Current thread id: %u", LowId(pthread_self()));
}

// The lines of a lookup that finds the calling thread.
std::vector<Line> Hit()
{
    return {Line{"findContext", 154, "HdrRender::findContext start"},
            Line{"findContext", 159, "HdrRender::findContext end"}};
}

// The lines of a lookup that misses, with the registered thread ids.
std::vector<Line> Miss(const std::vector<pthread_t>& registered)
{
    std::vector<Line> lines = {
        Line{"findContext", 154, "HdrRender::findContext start"},
        Line{"findContext", 164,
             hdrtest::Format("Failed to find a valid context. Current thread id: %u\n", LowId(pthread_self()))}};
    for (pthread_t id : registered) {
        lines.emplace_back("findContext", 167, hdrtest::Format("\tbuffer thread id: %u\n", LowId(id)));
    }
    lines.emplace_back("findContext", 170, "170 ERROR: Fail to find EGL context.\n");
    return lines;
}

std::vector<Line> Concat(std::initializer_list<std::vector<Line>> parts)
{
    std::vector<Line> all;
    for (const auto& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

class RenderRegistry : public hdrtest::EglTest {
protected:
    void SetUp() override
    {
        EglTest::SetUp();
        faults::Reset();
        HdrRender::DestroyInstance();
        eglMakeCurrent(display_, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
    }
    void TearDown() override
    {
        faults::Reset();
        HdrRender::DestroyInstance();
        eglMakeCurrent(display_, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
    }
    HdrRender* Registry()
    {
        HdrRender* render = HdrRender::GetInstance();
        render->SetEGLDisplay(display_);
        return render;
    }
};

// One instance until it is destroyed; afterwards a fresh one with its defaults.
TEST_F(RenderRegistry, SingletonAndDefaults)
{
    HdrRender* first = HdrRender::GetInstance();
    EXPECT_EQ(HdrRender::GetInstance(), first);
    EXPECT_EQ(HdrRender::pInstance, first);
    first->SetEGLDisplay(display_);
    first->screenWidth = 1;
    HdrRender::DestroyInstance();
    EXPECT_EQ(HdrRender::pInstance, nullptr);
    HdrRender* second = HdrRender::GetInstance();
    EXPECT_TRUE(second->contexts.empty());
    EXPECT_EQ(second->eglDisplay, nullptr);
    EXPECT_EQ(second->shaderManager, nullptr);
    EXPECT_TRUE(second->attributeLocations.empty());
    EXPECT_TRUE(second->uniformLocations.empty());
    EXPECT_EQ(second->vertexBuffer, 0u);
    EXPECT_EQ(second->vertexArray, 0u);
    EXPECT_EQ(second->indexBuffer, 0u);
    const uint32_t indices[6] = {0, 1, 2, 3, 4, 5};
    EXPECT_EQ(std::memcmp(second->indices, indices, sizeof indices), 0);
    EXPECT_FALSE(second->flagA);
    EXPECT_FALSE(second->initialised);
    EXPECT_EQ(second->intA, 0);
    EXPECT_EQ(second->intB, -1);
    EXPECT_EQ(second->intC, 0);
    EXPECT_EQ(second->screenWidth, 1920);
    EXPECT_EQ(second->screenHeight, 1080);
}

// Before any UpdateAttribs the quad is the unit full-screen quad.
TEST_F(RenderRegistry, DefaultVerticesAreTheFullScreenQuad)
{
    const std::vector<float> expected = {-1, 1, 0, 0, 1, -1, -1, 0, 0, 0, 1, -1, 0, 1, 0,
                                         -1, 1, 0, 0, 1, 1,  -1, 0, 1, 0, 1, 1,  0, 1, 1};
    EXPECT_EQ(HdrRender::GetInstance()->vertices, expected);
}

// Destroying without an instance does nothing.
TEST_F(RenderRegistry, DestroyWithoutInstanceDoesNothing)
{
    LogCapture capture;
    HdrRender::DestroyInstance();
    EXPECT_EQ(HdrRender::pInstance, nullptr);
    EXPECT_TRUE(capture.Lines().empty());
}

// A successful Init logs every step at its own line and leaves nothing bound.
TEST_F(RenderRegistry, InitLogsEveryStepAtItsLine)
{
    HdrRender* render = Registry();
    LogCapture capture;
    EXPECT_EQ(render->Init(), 0);
    EXPECT_EQ(render->contexts.size(), 1u);
    EXPECT_TRUE(render->initialised);
    EXPECT_EQ(eglGetCurrentContext(), EGL_NO_CONTEXT);
    const auto expected = Concat({
        {Line{"Init", 263, "HdrRender::Init start"}, Line{"InitContext", 115, "HdrRender::InitContext start"},
         Line{"InitContext", 118, ThreadIdLine()},
         Line{"InitContext", 135, "Successfully initialized a EGL context (1).\n"},
         Line{"InitContext", 145, "HdrRender::InitContext end"}, Line{"Bind", 176, "HdrRender::Bind start"}},
        Hit(),
        {Line{"Bind", 181, "HdrRender::Bind end"}, Line{"Unbind", 191, "HdrRender::Unbind start"}},
        Hit(),
        {Line{"Unbind", 196, "HdrRender::Unbind end"}, Line{"Init", 310, "HdrRender::Init end"}},
    });
    EXPECT_EQ(RegistryLines(capture), expected);
}

// The record holds the calling thread's id, a zero reserved word and an unbound context.
TEST_F(RenderRegistry, RecordDescribesTheThread)
{
    HdrRender* render = Registry();
    ASSERT_EQ(render->Init(), 0);
    const HdrRender::HdrContext& record = render->contexts.at(0);
    EXPECT_EQ(record.reserved, 0u);
    EXPECT_TRUE(pthread_equal(record.threadId, pthread_self()));
    EXPECT_EQ(record.egl.display, display_);
    EXPECT_NE(record.egl.context, nullptr);
    EXPECT_FALSE(record.egl.isBound);
    EXPECT_EQ(render->findContext(), &render->contexts[0]);
    EXPECT_TRUE(render->IsInited());
}

// Bind and Unbind around work restore the host's context and both surfaces.
TEST_F(RenderRegistry, BindUnbindRestoreTheHostBinding)
{
    HostContext host(display_);
    ASSERT_TRUE(host.ok());
    HdrRender* render = Registry();
    ASSERT_EQ(render->Init(), 0);
    const Binding before = CurrentBinding();
    EXPECT_EQ(before.context, host.context());
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(render->Bind());
        EXPECT_EQ(eglGetCurrentContext(), render->contexts[0].egl.context);
        // The library draws with the surfaces that were current when it initialised.
        EXPECT_EQ(eglGetCurrentSurface(EGL_DRAW), host.draw());
        EXPECT_EQ(eglGetCurrentSurface(EGL_READ), host.read());
        ASSERT_TRUE(render->Unbind());
        EXPECT_EQ(CurrentBinding(), before);
    }
}

// Bind from a thread that never initialised lists every registered thread and fails.
TEST_F(RenderRegistry, BindFromAnotherThreadMisses)
{
    HdrRender* render = Registry();
    ASSERT_EQ(render->Init(), 0);
    const pthread_t owner = pthread_self();
    std::vector<Line> lines;
    bool bound = true;
    bool inited = true;
    std::vector<Line> expected;
    std::thread other([&] {
        LogCapture capture;
        bound = render->Bind();
        inited = render->IsInited();
        lines = RegistryLines(capture);
        expected = Concat({{Line{"Bind", 176, "HdrRender::Bind start"}},
                           Miss({owner}),
                           {Line{"Bind", 185, "185 ERROR: Fail to bind egl context.\n"}},
                           Miss({owner})});
    });
    other.join();
    EXPECT_FALSE(bound);
    EXPECT_FALSE(inited);
    EXPECT_EQ(lines, expected);
    EXPECT_TRUE(render->IsInited());
}

// Unbind without a record fails with its own message.
TEST_F(RenderRegistry, UnbindWithoutRecordFails)
{
    HdrRender* render = Registry();
    LogCapture capture;
    EXPECT_FALSE(render->Unbind());
    const auto expected = Concat({{Line{"Unbind", 191, "HdrRender::Unbind start"}},
                                  Miss({}),
                                  {Line{"Unbind", 200, "200 ERROR: Fail to Unbind EGL context.\n"}}});
    EXPECT_EQ(RegistryLines(capture), expected);
}

// A thread without a record is not initialised even while other threads hold contexts.
TEST_F(RenderRegistry, IsInitedIsPerThread)
{
    HdrRender* render = Registry();
    EXPECT_FALSE(render->IsInited());
    bool otherInited = false;
    std::thread other([&] {
        otherInited = render->Init() == 0 && render->IsInited();
    });
    other.join();
    EXPECT_TRUE(otherInited);
    EXPECT_EQ(render->contexts.size(), 1u);
    EXPECT_FALSE(render->IsInited());
}

// A missing image entry point: InitContext answers 0 and sets initialised but
// records nothing, so Init's bind fails with 5.
TEST_F(RenderRegistry, DescriptionFailureIsASilentSuccessThenBindFails)
{
    faults::HideProc("eglDestroyImageKHR");
    HdrRender* render = Registry();
    EXPECT_EQ(render->InitContext(), 0);
    EXPECT_TRUE(render->initialised);
    EXPECT_TRUE(render->contexts.empty());
    HdrRender::DestroyInstance();
    render = Registry();
    LogCapture capture;
    EXPECT_EQ(render->Init(), 5);
    EXPECT_TRUE(render->contexts.empty());
    const auto lines = RegistryLines(capture);
    ASSERT_GE(lines.size(), 4u);
    EXPECT_EQ(lines[3], (Line{"InitContext", 145, "HdrRender::InitContext end"}));
    EXPECT_EQ(lines.back(), (Line{"Bind", 185, "185 ERROR: Fail to bind egl context.\n"}));
}

// No display given and none current: 2, with its message, and an empty registry.
TEST_F(RenderRegistry, NoDisplayGivesTwo)
{
    HdrRender* render = HdrRender::GetInstance();
    LogCapture capture;
    EXPECT_EQ(render->Init(), 2);
    EXPECT_TRUE(render->contexts.empty());
    EXPECT_FALSE(render->initialised);
    EXPECT_EQ(render->eglDisplay, nullptr);
    const std::vector<Line> expected = {
        Line{"Init", 263, "HdrRender::Init start"}, Line{"InitContext", 115, "HdrRender::InitContext start"},
        Line{"InitContext", 118, ThreadIdLine()},
        Line{"InitContext", 125, "125 ERROR: Failed to get current EGL display.\n"}};
    EXPECT_EQ(RegistryLines(capture), expected);
}

// With no display given, the display current on the thread is taken.
TEST_F(RenderRegistry, CurrentDisplayIsTakenWhenNoneWasGiven)
{
    HostContext host(display_);
    ASSERT_TRUE(host.ok());
    HdrRender* render = HdrRender::GetInstance();
    EXPECT_EQ(render->Init(), 0);
    EXPECT_EQ(render->eglDisplay, display_);
}

// A new instance after DestroyInstance has no display: it takes the current one, or fails with 2.
TEST_F(RenderRegistry, NewInstanceForgetsTheDisplay)
{
    ASSERT_EQ(Registry()->Init(), 0);
    HdrRender::DestroyInstance();
    HdrRender* render = HdrRender::GetInstance();
    EXPECT_EQ(render->eglDisplay, nullptr);
    EXPECT_EQ(render->Init(), 2);
    HostContext host(display_);
    ASSERT_TRUE(host.ok());
    EXPECT_EQ(render->Init(), 0);
    EXPECT_EQ(render->eglDisplay, display_);
}

// A refused context: 4 with its message, nothing appended, the display kept.
TEST_F(RenderRegistry, ContextCreationFailureGivesFour)
{
    HdrRender* render = Registry();
    faults::FailCreateContext();
    LogCapture capture;
    EXPECT_EQ(render->Init(), 4);
    EXPECT_TRUE(render->contexts.empty());
    EXPECT_FALSE(render->initialised);
    EXPECT_EQ(render->eglDisplay, display_);
    const auto lines = RegistryLines(capture);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), (Line{"InitContext", 139, "139 ERROR: Fail to create EGL context.\n"}));
}

// A failed restore at the end of Init gives 6; the record stays, still bound.
TEST_F(RenderRegistry, UnbindFailureGivesSix)
{
    HdrRender* render = Registry();
    // Init's bind is its first eglMakeCurrent and goes through; the unbind is refused.
    faults::FailMakeCurrent(1, 1);
    LogCapture capture;
    EXPECT_EQ(render->Init(), 6);
    ASSERT_EQ(render->contexts.size(), 1u);
    EXPECT_TRUE(render->contexts[0].egl.isBound);
    const auto lines = RegistryLines(capture);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), (Line{"Unbind", 196, "HdrRender::Unbind end"}));
    EXPECT_TRUE(render->Unbind());
    EXPECT_EQ(eglGetCurrentContext(), EGL_NO_CONTEXT);
}

// A refused first bind gives 5; the record stays registered.
TEST_F(RenderRegistry, BindFailureGivesFive)
{
    HdrRender* render = Registry();
    faults::FailMakeCurrent(1);
    EXPECT_EQ(render->Init(), 5);
    EXPECT_EQ(render->contexts.size(), 1u);
    EXPECT_FALSE(render->contexts[0].egl.isBound);
    EXPECT_TRUE(render->IsInited());
}

// A GL error pending on the fresh context gives 11, the context left bound.
TEST_F(RenderRegistry, PendingGlErrorGivesEleven)
{
    HdrRender* render = Registry();
    faults::QueueGlError(GL_INVALID_OPERATION);
    EXPECT_EQ(render->Init(), 11);
    ASSERT_EQ(render->contexts.size(), 1u);
    EXPECT_TRUE(render->contexts[0].egl.isBound);
    EXPECT_EQ(eglGetCurrentContext(), render->contexts[0].egl.context);
    EXPECT_TRUE(render->Unbind());
}

// Two InitContext calls make two records; Terminate removes the first and the second is found.
TEST_F(RenderRegistry, TwoRecordsOnOneThread)
{
    HdrRender* render = Registry();
    ASSERT_EQ(render->InitContext(), 0);
    ASSERT_EQ(render->InitContext(), 0);
    ASSERT_EQ(render->contexts.size(), 2u);
    EGLContext first = render->contexts[0].egl.context;
    EGLContext second = render->contexts[1].egl.context;
    EXPECT_NE(first, second);
    EXPECT_EQ(render->findContext()->egl.context, first);
    LogCapture capture;
    EXPECT_EQ(render->Terminate(), 0);
    ASSERT_EQ(render->contexts.size(), 1u);
    EXPECT_EQ(render->findContext()->egl.context, second);
    EGLint value = 0;
    EXPECT_EQ(eglQueryContext(display_, first, EGL_CONFIG_ID, &value), EGL_FALSE);
    EXPECT_EQ(eglQueryContext(display_, second, EGL_CONFIG_ID, &value), EGL_TRUE);
    const auto lines = RegistryLines(capture);
    const auto expected = Concat({Hit(), {Line{"Terminate", 323, "Successfully terminated a EGL context (1).\n"}}});
    EXPECT_EQ(std::vector<Line>(lines.begin(), lines.begin() + 3), expected);
}

// Terminate without a record answers 3 with only the lookup's lines.
TEST_F(RenderRegistry, TerminateWithoutRecord)
{
    HdrRender* render = Registry();
    bool otherInited = false;
    pthread_t otherId{};
    std::thread other([&] {
        otherId = pthread_self();
        otherInited = render->Init() == 0;
    });
    other.join();
    ASSERT_TRUE(otherInited);
    const auto before = render->contexts[0].egl.context;
    LogCapture capture;
    EXPECT_EQ(render->Terminate(), 3);
    ASSERT_EQ(render->contexts.size(), 1u);
    EXPECT_EQ(render->contexts[0].egl.context, before);
    EXPECT_EQ(RegistryLines(capture), Miss({otherId}));
}

// Destroying the registry on one thread tears down only that thread's context.
TEST_F(RenderRegistry, DestroyDropsOtherThreadsContextsWithoutDeletingThem)
{
    HdrRender* render = Registry();
    EGLContext otherContext = EGL_NO_CONTEXT;
    std::thread other([&] {
        ASSERT_EQ(render->Init(), 0);
        otherContext = render->findContext()->egl.context;
    });
    other.join();
    ASSERT_EQ(render->Init(), 0);
    EGLContext ownContext = render->findContext()->egl.context;
    const int destroysBefore = faults::DestroyContextCalls();
    HdrRender::DestroyInstance();
    EXPECT_EQ(faults::DestroyContextCalls() - destroysBefore, 1);
    EGLint value = 0;
    EXPECT_EQ(eglQueryContext(display_, ownContext, EGL_CONFIG_ID, &value), EGL_FALSE);
    EXPECT_EQ(eglQueryContext(display_, otherContext, EGL_CONFIG_ID, &value), EGL_TRUE);
    eglDestroyContext(display_, otherContext);
}

// Two host threads each initialise and use their own context at the same time.
TEST_F(RenderRegistry, TwoThreadsEachUseTheirOwnContext)
{
    HdrRender* render = Registry();
    ASSERT_EQ(render->Init(), 0);
    std::thread other([&] {
        std::vector<EGLContext> seen;
        // Registering is serialised with the main thread by join below; binding is per thread.
        ASSERT_EQ(render->Init(), 0);
        for (int i = 0; i < 20; ++i) {
            ASSERT_TRUE(render->Bind());
            seen.push_back(eglGetCurrentContext());
            ASSERT_TRUE(render->Unbind());
        }
        EXPECT_EQ(seen.front(), render->findContext()->egl.context);
        EXPECT_NE(seen.front(), render->contexts[0].egl.context);
    });
    other.join();
    ASSERT_TRUE(render->Bind());
    EXPECT_EQ(eglGetCurrentContext(), render->contexts[0].egl.context);
    ASSERT_TRUE(render->Unbind());
    // The other thread's record outlives it; drop it here.
    EGLContext otherContext = render->contexts[1].egl.context;
    render->contexts.pop_back();
    eglDestroyContext(display_, otherContext);
}

// Draw answers 0 and issues nothing.
TEST_F(RenderRegistry, DrawAnswersZero)
{
    HdrRender* render = Registry();
    ASSERT_EQ(render->Init(), 0);
    const int glCalls = faults::GlGetErrorCalls();
    EXPECT_EQ(render->Draw(), 0);
    EXPECT_EQ(faults::GlGetErrorCalls(), glCalls);
}

}  // namespace
