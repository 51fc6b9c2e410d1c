// EGL images over platform surfaces as the host sees them: their creation,
// destruction and attachment with every message, through this build's kind
// of image (surface copies on Mesa) and through the platform's native-surface
// kind with the driver's entry points stood in for.
#include "OutputTestSupport.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <string>
#include <vector>

using hdrtest::AsStdout;
using hdrtest::Contains;
using hdrtest::FakeImageProcs;
using hdrtest::Handle;
using hdrtest::kAttachSuccess;
using hdrtest::kCreateBadParameter;
using hdrtest::LogCapture;
using hdrtest::OutputTest;
using hdrtest::Parse;
using hdrtest::WithLine;
namespace faults = hdrtest::faults;

namespace {

using EglImageTest = OutputTest;

// Buffer 0: null, nothing created, only the start and end lines.
TEST_F(EglImageTest, PrepareWithBufferZeroCreatesNothing)
{
    const GLuint texture = BoundTexture();
    const int glErrorCalls = faults::GlGetErrorCalls();
    LogCapture capture;
    EXPECT_EQ(PrepareTBMEglTexture(*info_, 0, nullptr), nullptr);
    const std::vector<std::string> expected = {"PrepareTBMEglTexture start", "PrepareTBMEglTexture end"};
    EXPECT_EQ(capture.Messages(), expected);
    EXPECT_EQ(capture.Stdout(), AsStdout(expected));
    EXPECT_EQ(faults::GlGetErrorCalls(), glErrorCalls);
    glDeleteTextures(1, &texture);
}

// Buffer 0 with native images: the driver's create entry point is never called.
TEST_F(EglImageTest, PrepareWithBufferZeroCallsNoDriverEntryPoint)
{
    const NativeSurfaceImages native;
    EGLInfo fake = *info_;
    FakeImageProcs::Install(fake);
    LogCapture capture;
    EXPECT_EQ(PrepareTBMEglTexture(native, fake, 0, nullptr), nullptr);
    EXPECT_EQ(FakeImageProcs::creates, 0);
    EXPECT_EQ(FakeImageProcs::targets, 0);
    EXPECT_EQ(capture.Messages(),
              (std::vector<std::string>{"PrepareTBMEglTexture start", "PrepareTBMEglTexture end"}));
}

// Buffer 0 wins over a given image: null, and the image is not attached.
TEST_F(EglImageTest, PrepareWithBufferZeroIgnoresAGivenImage)
{
    tbm_surface_h surface = Surface(8, 4);
    void* image = CreateImageKHR(*info_, surface, nullptr);
    ASSERT_NE(image, nullptr);
    LogCapture capture;
    EXPECT_EQ(PrepareTBMEglTexture(*info_, 0, image), nullptr);
    EXPECT_EQ(capture.Messages(),
              (std::vector<std::string>{"PrepareTBMEglTexture start", "PrepareTBMEglTexture end"}));
    DestroyImageKHR(*info_, image);
}

// A given image is attached and returned; no second image is made.
TEST_F(EglImageTest, PrepareWithAGivenImageCreatesNoSecond)
{
    tbm_surface_h surface = Surface(8, 4);
    void* image = CreateImageKHR(*info_, surface, nullptr);
    ASSERT_NE(image, nullptr);
    const GLuint texture = BoundTexture();
    LogCapture capture;
    EXPECT_EQ(PrepareTBMEglTexture(*info_, Handle(surface), image), image);
    const std::vector<std::string> expected = {"PrepareTBMEglTexture start", "TargetTextureKHR start",
                                               kAttachSuccess, "TargetTextureKHR end", "Call success end"};
    EXPECT_EQ(capture.Messages(), expected);
    EXPECT_FALSE(Contains(capture.Messages(), "CreateImageKHR start"));
    DestroyImageKHR(*info_, image);
    glDeleteTextures(1, &texture);
}

// With native images a given image reaches the attach entry point unchanged
// and the create entry point is never called.
TEST_F(EglImageTest, PrepareWithAGivenNativeImageOnlyAttaches)
{
    const NativeSurfaceImages native;
    EGLInfo fake = *info_;
    FakeImageProcs::Install(fake);
    int token = 0;
    void* given = &token;
    EXPECT_EQ(PrepareTBMEglTexture(native, fake, 1234, given), given);
    EXPECT_EQ(FakeImageProcs::creates, 0);
    EXPECT_EQ(FakeImageProcs::targets, 1);
    EXPECT_EQ(FakeImageProcs::textureTarget, static_cast<GLenum>(GL_TEXTURE_2D));
    EXPECT_EQ(FakeImageProcs::attached, given);
}

// A new image over a live surface: create, attach, "Call success end".
TEST_F(EglImageTest, PrepareCreatesAndAttaches)
{
    tbm_surface_h surface = Surface(8, 4);
    const GLuint texture = BoundTexture();
    LogCapture capture;
    void* image = PrepareTBMEglTexture(*info_, Handle(surface), nullptr);
    ASSERT_NE(image, nullptr);
    const std::vector<std::string> expected = {
        "PrepareTBMEglTexture start", "CreateImageKHR start", "CreateImageKHR end", "TargetTextureKHR start",
        kAttachSuccess,               "TargetTextureKHR end", "Call success end"};
    EXPECT_EQ(capture.Messages(), expected);
    EXPECT_EQ(capture.Stdout(), AsStdout(expected));
    DestroyImageKHR(*info_, image);
    glDeleteTextures(1, &texture);
}

// The attach gives the bound texture storage of the surface's size.
TEST_F(EglImageTest, AttachGivesTheTextureTheSurfaceSize)
{
    tbm_surface_h surface = Surface(37, 5);
    const GLuint texture = BoundTexture();
    void* image = PrepareTBMEglTexture(*info_, Handle(surface), nullptr);
    ASSERT_NE(image, nullptr);
    GLint width = 0;
    GLint height = 0;
    GLint format = 0;
    glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, GL_TEXTURE_WIDTH, &width);
    glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, GL_TEXTURE_HEIGHT, &height);
    glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, GL_TEXTURE_INTERNAL_FORMAT, &format);
    EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
    EXPECT_EQ(width, 37);
    EXPECT_EQ(height, 5);
    EXPECT_EQ(format, GL_RGBA8);
    DestroyImageKHR(*info_, image);
    glDeleteTextures(1, &texture);
}

// The 32-bit buffer is widened by sign extension; the driver gets the
// native-surface target, no context and no attribute list.
TEST_F(EglImageTest, PrepareWidensTheBufferBySignExtension)
{
    const NativeSurfaceImages native;
    EGLInfo fake = *info_;
    FakeImageProcs::Install(fake);
    const int buffers[] = {-2, INT_MIN, 0x7fffffff, 0x12345678, -1};
    for (const int buffer : buffers) {
        SCOPED_TRACE(buffer);
        void* image = PrepareTBMEglTexture(native, fake, buffer, nullptr);
        ASSERT_NE(image, nullptr);
        const intptr_t widened = buffer;
        EXPECT_EQ(FakeImageProcs::buffer, reinterpret_cast<EGLClientBuffer>(widened));
        EXPECT_EQ(FakeImageProcs::display, info_->display);
        EXPECT_EQ(FakeImageProcs::context, EGL_NO_CONTEXT);
        EXPECT_EQ(FakeImageProcs::target, static_cast<EGLenum>(0x32A1));
        EXPECT_EQ(FakeImageProcs::attribs, nullptr);
        EXPECT_EQ(FakeImageProcs::attached, image);
        DestroyImageKHR(native, fake, image);
    }
    EXPECT_EQ(reinterpret_cast<uintptr_t>(FakeImageProcs::buffer), UINTPTR_MAX);
    EXPECT_TRUE(FakeImageProcs::live.empty());
}

// The attribute argument is never forwarded: the driver always gets a null list.
TEST_F(EglImageTest, CreateNeverForwardsAttributes)
{
    const NativeSurfaceImages native;
    EGLInfo fake = *info_;
    FakeImageProcs::Install(fake);
    const int attribs[] = {EGL_IMAGE_PRESERVED_KHR, EGL_TRUE, EGL_NONE};
    int token = 0;
    void* image = CreateImageKHR(native, fake, &token, attribs);
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(FakeImageProcs::attribs, nullptr);
    EXPECT_EQ(FakeImageProcs::buffer, static_cast<EGLClientBuffer>(&token));
    DestroyImageKHR(native, fake, image);
}

// A surface-copy image over a live surface logs only the start and end lines.
TEST_F(EglImageTest, CreateOverALiveSurfaceLogsStartAndEnd)
{
    tbm_surface_h surface = Surface(8, 4);
    LogCapture capture;
    void* image = CreateImageKHR(*info_, surface, nullptr);
    EXPECT_NE(image, nullptr);
    const std::vector<std::string> expected = {"CreateImageKHR start", "CreateImageKHR end"};
    EXPECT_EQ(capture.Messages(), expected);
    EXPECT_EQ(capture.Stdout(), AsStdout(expected));
    DestroyImageKHR(*info_, image);
}

// An image over a destroyed surface handle is refused like EGL's EGL_BAD_PARAMETER.
TEST_F(EglImageTest, CreateOverADestroyedSurfaceIsBadParameter)
{
    tbm_surface_h surface = tbm_surface_create(8, 4, TBM_FORMAT_RGBA8888);
    ASSERT_NE(surface, nullptr);
    ASSERT_EQ(tbm_surface_destroy(surface), 0);
    LogCapture capture;
    EXPECT_EQ(CreateImageKHR(*info_, surface, nullptr), nullptr);
    const auto messages = capture.Messages();
    ASSERT_EQ(messages.size(), 3u);
    EXPECT_EQ(messages[0], "CreateImageKHR start");
    EXPECT_EQ(messages[1], WithLine(capture, 1, kCreateBadParameter));
    EXPECT_EQ(messages[2], "CreateImageKHR end");
    EXPECT_EQ(Parse(capture.Lines()[1].text).file, "HdrContext.cpp");
    EXPECT_EQ(capture.Stdout(), AsStdout(messages));
}

// A handle that was never a surface (null, or a forged id) is refused the same way.
TEST_F(EglImageTest, CreateOverANonSurfaceIsBadParameter)
{
    for (void* buffer : {static_cast<void*>(nullptr), reinterpret_cast<void*>(0x7ffffff0)}) {
        SCOPED_TRACE(buffer);
        LogCapture capture;
        EXPECT_EQ(CreateImageKHR(*info_, buffer, nullptr), nullptr);
        const auto messages = capture.Messages();
        ASSERT_EQ(messages.size(), 3u);
        EXPECT_EQ(messages[1], WithLine(capture, 1, kCreateBadParameter));
    }
}

// A failed creation inside Prepare returns null at once: no attach, no end line.
TEST_F(EglImageTest, PrepareStopsAfterAFailedCreation)
{
    tbm_surface_h surface = tbm_surface_create(8, 4, TBM_FORMAT_RGBA8888);
    ASSERT_NE(surface, nullptr);
    tbm_surface_destroy(surface);
    const GLuint texture = BoundTexture();
    LogCapture capture;
    EXPECT_EQ(PrepareTBMEglTexture(*info_, Handle(surface), nullptr), nullptr);
    const auto messages = capture.Messages();
    ASSERT_EQ(messages.size(), 4u);
    EXPECT_EQ(messages[0], "PrepareTBMEglTexture start");
    EXPECT_EQ(messages[1], "CreateImageKHR start");
    EXPECT_EQ(messages[2], WithLine(capture, 2, kCreateBadParameter));
    EXPECT_EQ(messages[3], "CreateImageKHR end");
    glDeleteTextures(1, &texture);
}

// A negative 32-bit buffer is widened to a handle no surface has: refused.
TEST_F(EglImageTest, PrepareWithANegativeBufferFindsNoSurface)
{
    const GLuint texture = BoundTexture();
    LogCapture capture;
    EXPECT_EQ(PrepareTBMEglTexture(*info_, -1, nullptr), nullptr);
    const auto messages = capture.Messages();
    ASSERT_EQ(messages.size(), 4u);
    EXPECT_EQ(messages[2], WithLine(capture, 2, kCreateBadParameter));
    glDeleteTextures(1, &texture);
}

// With the native-surface target, Mesa's own answer is EGL_BAD_PARAMETER.
TEST_F(EglImageTest, NativeTargetIsRefusedByMesa)
{
    const NativeSurfaceImages native;
    tbm_surface_h surface = Surface(8, 4);
    LogCapture capture;
    EXPECT_EQ(CreateImageKHR(native, *info_, surface, nullptr), nullptr);
    const auto messages = capture.Messages();
    ASSERT_EQ(messages.size(), 3u);
    EXPECT_EQ(messages[0], "CreateImageKHR start");
    EXPECT_EQ(messages[1], WithLine(capture, 1, kCreateBadParameter));
    EXPECT_EQ(messages[2], "CreateImageKHR end");
}

// Each EGL error of the creation table has its own message.
TEST_F(EglImageTest, EveryCreationErrorHasItsMessage)
{
    const NativeSurfaceImages native;
    tbm_surface_h surface = Surface(8, 4);
    struct Case {
        EGLint error;
        const char* message;
    };
    const Case cases[] = {
        {EGL_BAD_DISPLAY, "%d ERROR: EGL_BAD_DISPLAY: Invalid EGLDisplay object\n"},
        {EGL_BAD_CONTEXT, "%d ERROR: EGL_BAD_CONTEXT: Invalid EGLContext object\n"},
        {EGL_BAD_PARAMETER, kCreateBadParameter},
        {EGL_BAD_MATCH, "%d ERROR: EGL_BAD_MATCH: attrib_list does not match target\n"},
        {EGL_BAD_ACCESS, "%d ERROR: EGL_BAD_ACCESS: Previously bound off-screen, or EGLImage sibling error\n"},
        {EGL_BAD_ALLOC, "%d ERROR: EGL_BAD_ALLOC: Insufficient memory is available\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.message);
        faults::QueueEglError(c.error);
        LogCapture capture;
        EXPECT_EQ(CreateImageKHR(native, *info_, surface, nullptr), nullptr);
        const auto messages = capture.Messages();
        ASSERT_EQ(messages.size(), 3u);
        EXPECT_EQ(messages[1], WithLine(capture, 1, c.message));
        EXPECT_EQ(capture.Stdout(), AsStdout(messages));
        while (eglGetError() != EGL_SUCCESS) {
        }
    }
}

// An EGL error outside the table logs only the start and end lines; null.
TEST_F(EglImageTest, UnlistedCreationErrorLogsOnlyStartAndEnd)
{
    const NativeSurfaceImages native;
    tbm_surface_h surface = Surface(8, 4);
    faults::QueueEglError(EGL_BAD_ATTRIBUTE);
    LogCapture capture;
    EXPECT_EQ(CreateImageKHR(native, *info_, surface, nullptr), nullptr);
    const std::vector<std::string> expected = {"CreateImageKHR start", "CreateImageKHR end"};
    EXPECT_EQ(capture.Messages(), expected);
    EXPECT_EQ(capture.Stdout(), AsStdout(expected));
}

// The creation reads the EGL error exactly once.
TEST_F(EglImageTest, CreationReadsTheErrorOnce)
{
    const NativeSurfaceImages native;
    tbm_surface_h surface = Surface(8, 4);
    faults::QueueEglError(EGL_BAD_MATCH);
    faults::QueueEglError(EGL_BAD_ALLOC);
    LogCapture capture;
    EXPECT_EQ(CreateImageKHR(native, *info_, surface, nullptr), nullptr);
    ASSERT_EQ(capture.Messages().size(), 3u);
    EXPECT_EQ(capture.Messages()[1],
              WithLine(capture, 1, "%d ERROR: EGL_BAD_MATCH: attrib_list does not match target\n"));
    EXPECT_EQ(eglGetError(), EGL_BAD_ALLOC);
}

// A null image is not destroyed: no EGL or GL call, only start and end.
TEST_F(EglImageTest, DestroyOfNullDoesNothing)
{
    const int glErrorCalls = faults::GlGetErrorCalls();
    LogCapture capture;
    DestroyImageKHR(*info_, nullptr);
    const std::vector<std::string> expected = {"DestroyImageKHR start", "DestroyImageKHR end"};
    EXPECT_EQ(capture.Messages(), expected);
    EXPECT_EQ(capture.Stdout(), AsStdout(expected));
    EXPECT_EQ(faults::GlGetErrorCalls(), glErrorCalls);
}

// With native images a null image never reaches the driver's destroy.
TEST_F(EglImageTest, NativeDestroyOfNullCallsNoDriverEntryPoint)
{
    const NativeSurfaceImages native;
    EGLInfo fake = *info_;
    FakeImageProcs::Install(fake);
    LogCapture capture;
    DestroyImageKHR(native, fake, nullptr);
    EXPECT_EQ(FakeImageProcs::destroys, 0);
    EXPECT_EQ(capture.Messages(), (std::vector<std::string>{"DestroyImageKHR start", "DestroyImageKHR end"}));
}

// A null image is not attached: no EGL or GL call, only start and end.
TEST_F(EglImageTest, AttachOfNullDoesNothing)
{
    const GLuint texture = BoundTexture();
    const int glErrorCalls = faults::GlGetErrorCalls();
    LogCapture capture;
    TargetTextureKHR(*info_, nullptr);
    const std::vector<std::string> expected = {"TargetTextureKHR start", "TargetTextureKHR end"};
    EXPECT_EQ(capture.Messages(), expected);
    EXPECT_EQ(capture.Stdout(), AsStdout(expected));
    EXPECT_EQ(faults::GlGetErrorCalls(), glErrorCalls);
    glDeleteTextures(1, &texture);
}

// With native images a null image never reaches the driver's attach.
TEST_F(EglImageTest, NativeAttachOfNullCallsNoDriverEntryPoint)
{
    const NativeSurfaceImages native;
    EGLInfo fake = *info_;
    FakeImageProcs::Install(fake);
    const int glErrorCalls = faults::GlGetErrorCalls();
    LogCapture capture;
    TargetTextureKHR(native, fake, nullptr);
    EXPECT_EQ(FakeImageProcs::targets, 0);
    EXPECT_EQ(faults::GlGetErrorCalls(), glErrorCalls);
    EXPECT_EQ(capture.Messages(), (std::vector<std::string>{"TargetTextureKHR start", "TargetTextureKHR end"}));
}

// A surface-copy image is freed quietly: start and end only.
TEST_F(EglImageTest, DestroyOfASurfaceCopyImageLogsStartAndEnd)
{
    tbm_surface_h surface = Surface(8, 4);
    void* image = CreateImageKHR(*info_, surface, nullptr);
    ASSERT_NE(image, nullptr);
    LogCapture capture;
    DestroyImageKHR(*info_, image);
    EXPECT_EQ(capture.Messages(), (std::vector<std::string>{"DestroyImageKHR start", "DestroyImageKHR end"}));
    EXPECT_EQ(tbm_surface_get_width(surface), 8);  // the surface is not the image's to free
}

// Mesa refuses to destroy an image it never made: the EGL_BAD_PARAMETER message.
TEST_F(EglImageTest, NativeDestroyOfABogusImageIsBadParameter)
{
    const NativeSurfaceImages native;
    int token = 0;
    LogCapture capture;
    DestroyImageKHR(native, *info_, &token);
    const auto messages = capture.Messages();
    ASSERT_EQ(messages.size(), 3u);
    EXPECT_EQ(messages[0], "DestroyImageKHR start");
    EXPECT_EQ(messages[1], WithLine(capture, 1,
                                    "%d ERROR: EGL_BAD_PARAMETER: eglImage is not a valid EGLImageKHR object "
                                    "created with respect to EGLDisplay\n"));
    EXPECT_EQ(messages[2], "DestroyImageKHR end");
    EXPECT_EQ(capture.Stdout(), AsStdout(messages));
}

// The other two destroy errors have their messages; an unlisted one logs nothing.
TEST_F(EglImageTest, EveryDestroyErrorHasItsMessage)
{
    const NativeSurfaceImages native;
    int token = 0;
    struct Case {
        EGLint error;
        const char* message;  // null: no message
    };
    const Case cases[] = {
        {EGL_BAD_DISPLAY, "%d ERROR: EGL_BAD_DISPLAY: Invalid EGLDisplay object\n"},
        {EGL_BAD_ACCESS, "%d ERROR: EGL_BAD_ACCESS: EGLImage sibling error\n"},
        {EGL_BAD_MATCH, nullptr},
        {EGL_BAD_ALLOC, nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.error);
        faults::QueueEglError(c.error);
        LogCapture capture;
        DestroyImageKHR(native, *info_, &token);
        const auto messages = capture.Messages();
        if (c.message == nullptr) {
            EXPECT_EQ(messages, (std::vector<std::string>{"DestroyImageKHR start", "DestroyImageKHR end"}));
        } else {
            ASSERT_EQ(messages.size(), 3u);
            EXPECT_EQ(messages[1], WithLine(capture, 1, c.message));
        }
        while (eglGetError() != EGL_SUCCESS) {
        }
    }
}

// A successful destroy through the driver logs only start and end.
TEST_F(EglImageTest, NativeDestroyThatSucceedsLogsStartAndEnd)
{
    const NativeSurfaceImages native;
    EGLInfo fake = *info_;
    FakeImageProcs::Install(fake);
    int token = 0;
    void* image = CreateImageKHR(native, fake, &token, nullptr);
    LogCapture capture;
    DestroyImageKHR(native, fake, image);
    EXPECT_EQ(FakeImageProcs::destroys, 1);
    EXPECT_TRUE(FakeImageProcs::live.empty());
    EXPECT_EQ(capture.Messages(), (std::vector<std::string>{"DestroyImageKHR start", "DestroyImageKHR end"}));
}

// A successful attach logs its success line between start and end.
TEST_F(EglImageTest, AttachSuccessLine)
{
    tbm_surface_h surface = Surface(8, 4);
    void* image = CreateImageKHR(*info_, surface, nullptr);
    ASSERT_NE(image, nullptr);
    const GLuint texture = BoundTexture();
    LogCapture capture;
    TargetTextureKHR(*info_, image);
    const std::vector<std::string> expected = {"TargetTextureKHR start", kAttachSuccess, "TargetTextureKHR end"};
    EXPECT_EQ(capture.Messages(), expected);
    EXPECT_EQ(capture.Stdout(), AsStdout(expected));
    DestroyImageKHR(*info_, image);
    glDeleteTextures(1, &texture);
}

// A GL error after the attach is printed as "%0x04x": plain hex, then "04x".
TEST_F(EglImageTest, AttachErrorIsPrintedWithItsOddConversion)
{
    tbm_surface_h surface = Surface(8, 4);
    void* image = CreateImageKHR(*info_, surface, nullptr);
    ASSERT_NE(image, nullptr);
    const GLuint texture = BoundTexture();
    faults::QueueGlError(GL_INVALID_VALUE);
    LogCapture capture;
    TargetTextureKHR(*info_, image);
    const auto messages = capture.Messages();
    ASSERT_EQ(messages.size(), 3u);
    EXPECT_EQ(messages[1], WithLine(capture, 1, "%d ERROR: glEGLImageTargetTexture2DOES returned error 50104x\n"));
    EXPECT_EQ(messages[2], "TargetTextureKHR end");
    EXPECT_EQ(capture.Stdout(), AsStdout(messages));
    DestroyImageKHR(*info_, image);
    glDeleteTextures(1, &texture);
}

// The native attach reads one GL error after calling the driver's entry point.
TEST_F(EglImageTest, NativeAttachReportsTheDriversError)
{
    const NativeSurfaceImages native;
    EGLInfo fake = *info_;
    FakeImageProcs::Install(fake);
    int token = 0;
    faults::QueueGlError(GL_INVALID_OPERATION);
    faults::QueueGlError(GL_INVALID_ENUM);
    LogCapture capture;
    TargetTextureKHR(native, fake, &token);
    EXPECT_EQ(FakeImageProcs::targets, 1);
    EXPECT_EQ(FakeImageProcs::textureTarget, static_cast<GLenum>(GL_TEXTURE_2D));
    EXPECT_EQ(FakeImageProcs::attached, static_cast<void*>(&token));
    const auto messages = capture.Messages();
    ASSERT_EQ(messages.size(), 3u);
    EXPECT_EQ(messages[1], WithLine(capture, 1, "%d ERROR: glEGLImageTargetTexture2DOES returned error 50204x\n"));
    EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_INVALID_ENUM));
}

// The driver's own error (an immutable texture cannot take new storage) is
// reported, and Prepare still hands out the image it made.
TEST_F(EglImageTest, PrepareReturnsTheImageEvenWhenTheAttachFails)
{
    tbm_surface_h surface = Surface(8, 4);
    const GLuint texture = BoundTexture();
    glTexStorage2D(GL_TEXTURE_2D, 1, GL_RGBA8, 2, 2);
    ASSERT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
    LogCapture capture;
    void* image = PrepareTBMEglTexture(*info_, Handle(surface), nullptr);
    EXPECT_NE(image, nullptr);
    const auto messages = capture.Messages();
    ASSERT_EQ(messages.size(), 7u);
    EXPECT_EQ(messages[4], WithLine(capture, 4, "%d ERROR: glEGLImageTargetTexture2DOES returned error 50204x\n"));
    EXPECT_EQ(messages[5], "TargetTextureKHR end");
    EXPECT_EQ(messages[6], "Call success end");
    DestroyImageKHR(*info_, image);
    glDeleteTextures(1, &texture);
}

}  // namespace
