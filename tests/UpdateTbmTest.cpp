// The engine's output target: the surface, image and framebuffer that
// updateTBM makes, with every message and result code.
#include "OutputTestSupport.h"

#include <dlog.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <thread>
#include <vector>

using hdrtest::AsStdout;
using hdrtest::Contains;
using hdrtest::FakeImageProcs;
using hdrtest::kAttachSuccess;
using hdrtest::kCreateBadParameter;
using hdrtest::kPboSurfaceMessage;
using hdrtest::kSurfaceMessage;
using hdrtest::LogCapture;
using hdrtest::LoggedLine;
using hdrtest::OutputTest;
using hdrtest::Parse;
using hdrtest::WithLine;
namespace faults = hdrtest::faults;

namespace {

using UpdateTbmTest = OutputTest;

// Direct mode: the whole sequence of messages, with the option record's size.
TEST_F(UpdateTbmTest, DirectModeLogsItsSteps)
{
    HdrGenerate* engine = Engine(37, 5);
    engine->hdrInfo.outputWidth = 64;
    engine->hdrInfo.outputHeight = 32;
    LogCapture capture;
    ASSERT_EQ(engine->updateTBM(), 0);
    const std::vector<std::string> expected = {
        "updateTBM start",
        "HdrRender::findContext start",
        "HdrRender::findContext end",
        "DestroyImageKHR start",
        "DestroyImageKHR end",
        hdrtest::Format(kSurfaceMessage, 37, 5),
        "PrepareTBMEglTexture start",
        "CreateImageKHR start",
        "CreateImageKHR end",
        "TargetTextureKHR start",
        kAttachSuccess,
        "TargetTextureKHR end",
        "Call success end",
        hdrtest::Format("EGL image handle = %p>>.", engine->eglImage),
        "updateTBM end",
    };
    EXPECT_EQ(capture.Messages(), expected);
    EXPECT_EQ(capture.Stdout(), AsStdout(expected));
    for (const LoggedLine& line : capture.Lines()) {
        EXPECT_EQ(line.logId, LOG_ID_MAIN) << line.text;
        EXPECT_EQ(line.priority, DLOG_ERROR) << line.text;
        EXPECT_EQ(line.tag, "TSS") << line.text;
    }
    EXPECT_EQ(tbm_surface_get_width(engine->tbmSurface), 37);
    EXPECT_EQ(tbm_surface_get_height(engine->tbmSurface), 5);
}

// Streaming mode: the metadata's output size and the "PBO" message.
TEST_F(UpdateTbmTest, StreamingModeTakesTheMetadataSize)
{
    HdrGenerate* engine = Engine(1920, 1080, true);
    engine->hdrInfo.outputWidth = 33;
    engine->hdrInfo.outputHeight = 17;
    LogCapture capture;
    ASSERT_EQ(engine->updateTBM(), 0);
    EXPECT_TRUE(Contains(capture.Messages(), hdrtest::Format(kPboSurfaceMessage, 33, 17)));
    EXPECT_FALSE(Contains(capture.Messages(), hdrtest::Format(kSurfaceMessage, 33, 17)));
    EXPECT_EQ(tbm_surface_get_width(engine->tbmSurface), 33);
    EXPECT_EQ(tbm_surface_get_height(engine->tbmSurface), 17);
}

// The surface is made in the RA24 format.
TEST_F(UpdateTbmTest, SurfaceIsRgba8888)
{
    HdrGenerate* engine = Engine(16, 8);
    ASSERT_EQ(engine->updateTBM(), 0);
    EXPECT_EQ(tbm_surface_get_format(engine->tbmSurface), static_cast<tbm_format>(TBM_FORMAT_RGBA8888));
}

// The image line names the stored image.
TEST_F(UpdateTbmTest, ImageHandleLineNamesTheImage)
{
    HdrGenerate* engine = Engine(16, 8);
    LogCapture capture;
    ASSERT_EQ(engine->updateTBM(), 0);
    ASSERT_NE(engine->eglImage, nullptr);
    const auto messages = capture.Messages();
    ASSERT_GE(messages.size(), 2u);
    EXPECT_EQ(messages[messages.size() - 2], hdrtest::Format("EGL image handle = %p>>.", engine->eglImage));
}

// Success: clear colour (0, 0, 0, 1), framebuffer 0 bound, a complete
// framebuffer over the output texture.
TEST_F(UpdateTbmTest, SuccessLeavesClearColourAndNoFramebufferBound)
{
    HdrGenerate* engine = Engine(16, 8);
    glClearColor(0.5f, 0.25f, 0.125f, 0.0f);
    ASSERT_EQ(engine->updateTBM(), 0);
    GLfloat clear[4] = {-1, -1, -1, -1};
    glGetFloatv(GL_COLOR_CLEAR_VALUE, clear);
    EXPECT_EQ(clear[0], 0.0f);
    EXPECT_EQ(clear[1], 0.0f);
    EXPECT_EQ(clear[2], 0.0f);
    EXPECT_EQ(clear[3], 1.0f);
    GLint bound = -1;
    glGetIntegerv(GL_FRAMEBUFFER_BINDING, &bound);
    EXPECT_EQ(bound, 0);
    ASSERT_NE(engine->framebuffer, 0u);
    glBindFramebuffer(GL_FRAMEBUFFER, engine->framebuffer);
    EXPECT_EQ(glCheckFramebufferStatus(GL_FRAMEBUFFER), static_cast<GLenum>(GL_FRAMEBUFFER_COMPLETE));
    GLint attached = 0;
    glGetFramebufferAttachmentParameteriv(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0,
                                          GL_FRAMEBUFFER_ATTACHMENT_OBJECT_NAME, &attached);
    EXPECT_EQ(static_cast<GLuint>(attached), engine->outputTexture);
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
}

// A failed surface creation: 7, nothing logged after the size line, no
// surface and no image, the old ones released.
TEST_F(UpdateTbmTest, FailedSurfaceCreationIsSeven)
{
    HdrGenerate* engine = Engine(16, 8);
    ASSERT_EQ(engine->updateTBM(), 0);
    const GLuint oldFramebuffer = engine->framebuffer;
    tbm_standin_fail_next_create(1);
    LogCapture capture;
    EXPECT_EQ(engine->updateTBM(), 7);
    const auto messages = capture.Messages();
    ASSERT_FALSE(messages.empty());
    EXPECT_EQ(messages.back(), hdrtest::Format(kSurfaceMessage, 16, 8));
    EXPECT_EQ(capture.Stdout(), AsStdout(messages));
    EXPECT_EQ(engine->tbmSurface, nullptr);
    EXPECT_EQ(engine->eglImage, nullptr);
    EXPECT_EQ(tbm_standin_live_surface_count(), liveSurfaces_);
    EXPECT_EQ(engine->framebuffer, oldFramebuffer);
}

// After a failed creation the next call rebuilds everything.
TEST_F(UpdateTbmTest, NextCallAfterAFailureRebuilds)
{
    HdrGenerate* engine = Engine(16, 8);
    tbm_standin_fail_next_create(1);
    ASSERT_EQ(engine->updateTBM(), 7);
    ASSERT_EQ(engine->updateTBM(), 0);
    EXPECT_NE(engine->tbmSurface, nullptr);
    EXPECT_NE(engine->eglImage, nullptr);
    EXPECT_EQ(tbm_standin_live_surface_count(), liveSurfaces_ + 1);
    EXPECT_TRUE(glIsFramebuffer(engine->framebuffer));
}

// Two calls leave one surface and one framebuffer; the old ones are gone.
TEST_F(UpdateTbmTest, TwoCallsLeaveOneSurfaceAndOneFramebuffer)
{
    HdrGenerate* engine = Engine(16, 8);
    ASSERT_EQ(engine->updateTBM(), 0);
    const tbm_surface_h oldSurface = engine->tbmSurface;
    const GLuint oldFramebuffer = engine->framebuffer;
    ASSERT_TRUE(glIsFramebuffer(oldFramebuffer));
    ASSERT_EQ(engine->updateTBM(), 0);
    EXPECT_EQ(tbm_standin_live_surface_count(), liveSurfaces_ + 1);
    EXPECT_NE(engine->tbmSurface, oldSurface);
    EXPECT_LT(tbm_surface_get_width(oldSurface), 0);  // no longer a live surface
    EXPECT_NE(engine->framebuffer, oldFramebuffer);
    EXPECT_FALSE(glIsFramebuffer(oldFramebuffer));
    EXPECT_TRUE(glIsFramebuffer(engine->framebuffer));
}

// Two calls with native images leave exactly one image: the first is destroyed.
TEST_F(UpdateTbmTest, TwoCallsLeaveOneImage)
{
    FakeImageProcs::Install(*info_);
    FakeImageProcs::giveStorage = true;
    HdrGenerate* engine = Engine(16, 8, false, std::make_unique<NativeSurfaceImages>());
    ASSERT_EQ(engine->updateTBM(), 0);
    void* first = engine->eglImage;
    ASSERT_EQ(engine->updateTBM(), 0);
    EXPECT_EQ(FakeImageProcs::creates, 2);
    EXPECT_EQ(FakeImageProcs::destroys, 1);
    EXPECT_EQ(FakeImageProcs::live.size(), 1u);
    EXPECT_EQ(FakeImageProcs::live.count(engine->eglImage), 1u);
    EXPECT_EQ(FakeImageProcs::live.count(first), 0u);
    EXPECT_EQ(FakeImageProcs::buffer, static_cast<EGLClientBuffer>(engine->tbmSurface));
}

// A thread with no render context: 3, "no context", the old target kept.
TEST_F(UpdateTbmTest, ThreadWithoutContextIsThree)
{
    HdrGenerate* engine = Engine(16, 8);
    ASSERT_EQ(engine->updateTBM(), 0);
    const tbm_surface_h surface = engine->tbmSurface;
    void* image = engine->eglImage;
    const GLuint framebuffer = engine->framebuffer;
    LogCapture capture;
    int result = -100;
    std::thread other([&] { result = engine->updateTBM(); });
    other.join();
    EXPECT_EQ(result, 3);
    EXPECT_EQ(engine->tbmSurface, surface);
    EXPECT_EQ(engine->eglImage, image);
    EXPECT_EQ(engine->framebuffer, framebuffer);
    EXPECT_EQ(tbm_surface_get_width(surface), 16);
    EXPECT_EQ(tbm_standin_live_surface_count(), liveSurfaces_ + 1);
    EXPECT_TRUE(glIsFramebuffer(framebuffer));
    const auto lines = capture.Lines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(Parse(lines.front().text).message, "updateTBM start");
    const auto last = Parse(lines.back().text);
    EXPECT_EQ(last.file, "HdrGenerate.cpp");
    EXPECT_EQ(last.function, "updateTBM");
    EXPECT_EQ(last.message, hdrtest::Format("%d ERROR: no context\n", last.line));
    EXPECT_FALSE(Contains(capture.Messages(), "DestroyImageKHR start"));
}

// With the native target on Mesa no image can be made: 8, the surface kept.
TEST_F(UpdateTbmTest, RefusedImageIsEight)
{
    HdrGenerate* engine = Engine(16, 8, false, std::make_unique<NativeSurfaceImages>());
    LogCapture capture;
    EXPECT_EQ(engine->updateTBM(), 8);
    EXPECT_EQ(engine->eglImage, nullptr);
    EXPECT_NE(engine->tbmSurface, nullptr);
    EXPECT_EQ(tbm_standin_live_surface_count(), liveSurfaces_ + 1);
    const auto lines = capture.Lines();
    ASSERT_FALSE(lines.empty());
    const auto last = Parse(lines.back().text);
    EXPECT_EQ(last.file, "HdrGenerate.cpp");
    EXPECT_EQ(last.function, "updateTBM");
    EXPECT_EQ(last.message, hdrtest::Format("%d ERROR: PrepareTBMEglTexture fail\n", last.line));
    EXPECT_TRUE(Contains(capture.Messages(), WithLine(capture, lines.size() - 3, kCreateBadParameter)));
}

// Each incomplete framebuffer status: 11 and its one "[SECURE_LOG]" line,
// on the system buffer only, never on standard output; the new framebuffer
// stays bound.
TEST_F(UpdateTbmTest, EveryFramebufferStatusHasItsSecureLine)
{
    struct Case {
        GLenum status;
        const char* message;
    };
    const Case cases[] = {
        {GL_FRAMEBUFFER_UNDEFINED, "[SECURE_LOG] GL_FRAMEBUFFER_UNDEFINED"},
        {GL_FRAMEBUFFER_INCOMPLETE_ATTACHMENT, "[SECURE_LOG] GL_FRAMEBUFFER_INCOMPLETE_ATTACHMENT"},
        {GL_FRAMEBUFFER_INCOMPLETE_MISSING_ATTACHMENT, "[SECURE_LOG] GL_FRAMEBUFFER_INCOMPLETE_MISSING_ATTACHMENT"},
        {GL_FRAMEBUFFER_UNSUPPORTED, "[SECURE_LOG] GL_FRAMEBUFFER_UNSUPPORTED"},
        {GL_FRAMEBUFFER_INCOMPLETE_MULTISAMPLE, "[SECURE_LOG] GL_FRAMEBUFFER_INCOMPLETE_MULTISAMPLE"},
        {0x1234, "[SECURE_LOG] GL_FRAMEBUFFER_ERROR_UNKNOWN"},
    };
    HdrGenerate* engine = Engine(16, 8);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.message);
        faults::QueueFramebufferStatus(c.status);
        LogCapture capture;
        EXPECT_EQ(engine->updateTBM(), 11);
        std::vector<LoggedLine> secure;
        std::vector<std::string> mainMessages;
        for (const LoggedLine& line : capture.Lines()) {
            if (line.logId == LOG_ID_SYSTEM) {
                secure.push_back(line);
            } else {
                EXPECT_EQ(line.logId, LOG_ID_MAIN) << line.text;
                mainMessages.push_back(Parse(line.text).message);
            }
        }
        ASSERT_EQ(secure.size(), 1u);
        EXPECT_EQ(secure[0].priority, DLOG_ERROR);
        EXPECT_EQ(secure[0].tag, "TSS");
        const auto parsed = Parse(secure[0].text);
        EXPECT_EQ(parsed.file, "HdrGenerate.cpp");
        EXPECT_EQ(parsed.function, "updateTBM");
        EXPECT_GT(parsed.line, 0);
        EXPECT_EQ(parsed.message, c.message);
        EXPECT_EQ(capture.Lines().back().logId, LOG_ID_SYSTEM);  // the last line of the call
        ASSERT_FALSE(mainMessages.empty());
        EXPECT_EQ(mainMessages.back(), hdrtest::Format("EGL image handle = %p>>.", engine->eglImage));
        EXPECT_EQ(capture.Stdout(), AsStdout(mainMessages));
        EXPECT_EQ(capture.Stdout().find("SECURE_LOG"), std::string::npos);
        GLint bound = 0;
        glGetIntegerv(GL_FRAMEBUFFER_BINDING, &bound);
        EXPECT_EQ(static_cast<GLuint>(bound), engine->framebuffer);
        EXPECT_NE(engine->framebuffer, 0u);
        glBindFramebuffer(GL_FRAMEBUFFER, 0);
    }
}

}  // namespace
