// The output target as the host sees it: EGL images over tbm surfaces (their
// creation, destruction and attachment, with every message), the engine's
// output surface and framebuffer made by updateTBM, and the copy of a
// finished picture into the surface's memory in the byte order of its format.
#include "EglTestEnv.h"
#include "Faults.h"
#include "HdrContext.h"
#include "HdrGenerate.h"
#include "HdrRender.h"
#include "LogCapture.h"

#include <GLES3/gl31.h>
#include <dlog.h>
#include <gtest/gtest.h>
#include <tbm_surface.h>
#include <tbm_surface_standin.h>

#include <array>
#include <climits>
#include <cstdint>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

using hdrtest::LogCapture;
using hdrtest::LoggedLine;
using hdrtest::Parse;
namespace faults = hdrtest::faults;

namespace {

const char kSurfaceMessage[] = "Create new tbm surface {%d x %d} >>>>>>>>>>>>>>>>>>>>>>>>>";
const char kPboSurfaceMessage[] = "Create new tbm surface PBO {%d x %d} >>>>>>>>>>>>>>>>>>>>>>>>>";
const char kAttachSuccess[] = "glEGLImageTargetTexture2DOES success >>>>>>>>>>";
const char kCreateBadParameter[] =
    "%d ERROR: EGL_BAD_PARAMETER: Invalid target parameter or attribute in attrib_list\n";

// The "%d" of the message at index is the line in that message's own prefix.
std::string WithLine(const LogCapture& capture, size_t index, const char* fmt)
{
    const auto lines = capture.Lines();
    if (index >= lines.size()) {
        return "<no line " + std::to_string(index) + ">";
    }
    return hdrtest::Format(fmt, Parse(lines[index].text).line);
}

// Each message followed by the separately printed line break.
std::string AsStdout(const std::vector<std::string>& messages)
{
    std::string text;
    for (const std::string& message : messages) {
        text += message + "\n";
    }
    return text;
}

bool Contains(const std::vector<std::string>& messages, const std::string& message)
{
    for (const std::string& m : messages) {
        if (m == message) {
            return true;
        }
    }
    return false;
}

// Stand-ins for the three EGL-image entry points of an EGLInfo, recording
// how they were called. Images are distinct tokens, counted while alive.
struct FakeImageProcs {
    static int creates;
    static int destroys;
    static int targets;
    static EGLDisplay display;
    static EGLContext context;
    static EGLenum target;
    static EGLClientBuffer buffer;
    static const EGLint* attribs;
    static GLenum textureTarget;
    static void* attached;
    static std::set<void*> live;
    static bool giveStorage;  // the attach gives the bound texture 4 x 4 RGBA8 storage

    static void Clear()
    {
        creates = destroys = targets = 0;
        display = nullptr;
        context = reinterpret_cast<EGLContext>(1);
        target = 0;
        buffer = nullptr;
        attribs = reinterpret_cast<const EGLint*>(1);
        textureTarget = 0;
        attached = nullptr;
        live.clear();
        giveStorage = false;
    }

    static EGLImageKHR EGLAPIENTRY Create(EGLDisplay d, EGLContext c, EGLenum t, EGLClientBuffer b,
                                          const EGLint* a)
    {
        ++creates;
        display = d;
        context = c;
        target = t;
        buffer = b;
        attribs = a;
        // Never dereferenced, and never the same token twice.
        void* image = reinterpret_cast<void*>(static_cast<uintptr_t>(0x5EED0000) + 16u * creates);
        live.insert(image);
        return image;
    }

    static EGLBoolean EGLAPIENTRY Destroy(EGLDisplay, EGLImageKHR image)
    {
        ++destroys;
        return live.erase(image) == 0 ? EGL_FALSE : EGL_TRUE;
    }

    static void GL_APIENTRY Target(GLenum t, GLeglImageOES image)
    {
        ++targets;
        textureTarget = t;
        attached = image;
        if (giveStorage) {
            glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA8, 4, 4, 0, GL_RGBA, GL_UNSIGNED_BYTE, nullptr);
        }
    }

    static void Install(EGLInfo& info)
    {
        info.eglCreateImageKHRProc = Create;
        info.eglDestroyImageKHRProc = Destroy;
        info.glEGLImageTargetTexture2DOESProc = Target;
    }
};

int FakeImageProcs::creates = 0;
int FakeImageProcs::destroys = 0;
int FakeImageProcs::targets = 0;
EGLDisplay FakeImageProcs::display = nullptr;
EGLContext FakeImageProcs::context = nullptr;
EGLenum FakeImageProcs::target = 0;
EGLClientBuffer FakeImageProcs::buffer = nullptr;
const EGLint* FakeImageProcs::attribs = nullptr;
GLenum FakeImageProcs::textureTarget = 0;
void* FakeImageProcs::attached = nullptr;
std::set<void*> FakeImageProcs::live;
bool FakeImageProcs::giveStorage = false;

int Handle(tbm_surface_h surface)
{
    return static_cast<int>(reinterpret_cast<intptr_t>(surface));
}

// The calling thread's render context, made and bound as the public calls
// do it, with the generator available for the engine's own steps.
class OutputTest : public hdrtest::EglTest {
protected:
    void SetUp() override
    {
        EglTest::SetUp();
        faults::Reset();
        FakeImageProcs::Clear();
        SetNativeSurfaceImages(false);
        tbm_standin_fail_next_create(0);
        HdrGenerate::DestroyInstance();
        HdrRender::DestroyInstance();
        HdrRender* render = HdrRender::GetInstance();
        render->SetEGLDisplay(display_);
        ASSERT_EQ(render->Init(), 0);
        ASSERT_TRUE(render->Bind());
        HdrRender::HdrContext* record = render->findContext();
        ASSERT_NE(record, render->ContextsEnd());
        info_ = &record->egl;
        liveSurfaces_ = tbm_standin_live_surface_count();
    }

    void TearDown() override
    {
        faults::Reset();
        tbm_standin_fail_next_create(0);
        for (tbm_surface_h surface : surfaces_) {
            tbm_surface_destroy(surface);
        }
        // The engine goes while its context is current and the image kind
        // it was made with is still in force.
        HdrGenerate::DestroyInstance();
        if (info_ != nullptr && info_->isBound) {
            HdrRender::GetInstance()->Unbind();
        }
        HdrRender::DestroyInstance();
        SetNativeSurfaceImages(false);
        FakeImageProcs::Clear();
        for (int i = 0; i < 16 && eglGetError() != EGL_SUCCESS; ++i) {
        }
    }

    // A surface owned by the test, destroyed in TearDown unless released.
    tbm_surface_h Surface(int width, int height, tbm_format format = TBM_FORMAT_RGBA8888)
    {
        tbm_surface_h surface = tbm_surface_create(width, height, format);
        EXPECT_NE(surface, nullptr);
        surfaces_.push_back(surface);
        return surface;
    }

    // A texture bound to GL_TEXTURE_2D on unit 0, owned by the test.
    GLuint BoundTexture()
    {
        GLuint texture = 0;
        glActiveTexture(GL_TEXTURE0);
        glGenTextures(1, &texture);
        glBindTexture(GL_TEXTURE_2D, texture);
        return texture;
    }

    // The generator with an output texture and the option record's sizes,
    // not yet initialised.
    HdrGenerate* Engine(int width, int height, bool streaming = false)
    {
        HdrGenerate* engine = HdrGenerate::GetInstance();
        engine->initOption = GpuGenerateHdrInitOption{width, height, display_, false, streaming};
        glGenTextures(1, &engine->outputTexture);
        return engine;
    }

    EGLInfo* info_ = nullptr;
    int liveSurfaces_ = 0;
    std::vector<tbm_surface_h> surfaces_;
};

// ---------------------------------------------------------------------------
// EGL images over platform buffers.

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
    SetNativeSurfaceImages(true);
    EGLInfo fake = *info_;
    FakeImageProcs::Install(fake);
    LogCapture capture;
    EXPECT_EQ(PrepareTBMEglTexture(fake, 0, nullptr), nullptr);
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
    SetNativeSurfaceImages(true);
    EGLInfo fake = *info_;
    FakeImageProcs::Install(fake);
    int token = 0;
    void* given = &token;
    EXPECT_EQ(PrepareTBMEglTexture(fake, 1234, given), given);
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
    SetNativeSurfaceImages(true);
    EGLInfo fake = *info_;
    FakeImageProcs::Install(fake);
    const int buffers[] = {-2, INT_MIN, 0x7fffffff, 0x12345678, -1};
    for (const int buffer : buffers) {
        SCOPED_TRACE(buffer);
        void* image = PrepareTBMEglTexture(fake, buffer, nullptr);
        ASSERT_NE(image, nullptr);
        const intptr_t widened = buffer;
        EXPECT_EQ(FakeImageProcs::buffer, reinterpret_cast<EGLClientBuffer>(widened));
        EXPECT_EQ(FakeImageProcs::display, info_->display);
        EXPECT_EQ(FakeImageProcs::context, EGL_NO_CONTEXT);
        EXPECT_EQ(FakeImageProcs::target, static_cast<EGLenum>(0x32A1));
        EXPECT_EQ(FakeImageProcs::attribs, nullptr);
        EXPECT_EQ(FakeImageProcs::attached, image);
        DestroyImageKHR(fake, image);
    }
    EXPECT_EQ(reinterpret_cast<uintptr_t>(FakeImageProcs::buffer), UINTPTR_MAX);
    EXPECT_TRUE(FakeImageProcs::live.empty());
}

// The attribute argument is never forwarded: the driver always gets a null list.
TEST_F(EglImageTest, CreateNeverForwardsAttributes)
{
    SetNativeSurfaceImages(true);
    EGLInfo fake = *info_;
    FakeImageProcs::Install(fake);
    const int attribs[] = {EGL_IMAGE_PRESERVED_KHR, EGL_TRUE, EGL_NONE};
    int token = 0;
    void* image = CreateImageKHR(fake, &token, attribs);
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(FakeImageProcs::attribs, nullptr);
    EXPECT_EQ(FakeImageProcs::buffer, static_cast<EGLClientBuffer>(&token));
    DestroyImageKHR(fake, image);
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
    SetNativeSurfaceImages(true);
    tbm_surface_h surface = Surface(8, 4);
    LogCapture capture;
    EXPECT_EQ(CreateImageKHR(*info_, surface, nullptr), nullptr);
    const auto messages = capture.Messages();
    ASSERT_EQ(messages.size(), 3u);
    EXPECT_EQ(messages[0], "CreateImageKHR start");
    EXPECT_EQ(messages[1], WithLine(capture, 1, kCreateBadParameter));
    EXPECT_EQ(messages[2], "CreateImageKHR end");
}

// Each EGL error of the creation table has its own message.
TEST_F(EglImageTest, EveryCreationErrorHasItsMessage)
{
    SetNativeSurfaceImages(true);
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
        EXPECT_EQ(CreateImageKHR(*info_, surface, nullptr), nullptr);
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
    SetNativeSurfaceImages(true);
    tbm_surface_h surface = Surface(8, 4);
    faults::QueueEglError(EGL_BAD_ATTRIBUTE);
    LogCapture capture;
    EXPECT_EQ(CreateImageKHR(*info_, surface, nullptr), nullptr);
    const std::vector<std::string> expected = {"CreateImageKHR start", "CreateImageKHR end"};
    EXPECT_EQ(capture.Messages(), expected);
    EXPECT_EQ(capture.Stdout(), AsStdout(expected));
}

// The creation reads the EGL error exactly once.
TEST_F(EglImageTest, CreationReadsTheErrorOnce)
{
    SetNativeSurfaceImages(true);
    tbm_surface_h surface = Surface(8, 4);
    faults::QueueEglError(EGL_BAD_MATCH);
    faults::QueueEglError(EGL_BAD_ALLOC);
    LogCapture capture;
    EXPECT_EQ(CreateImageKHR(*info_, surface, nullptr), nullptr);
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
    SetNativeSurfaceImages(true);
    EGLInfo fake = *info_;
    FakeImageProcs::Install(fake);
    LogCapture capture;
    DestroyImageKHR(fake, nullptr);
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
    SetNativeSurfaceImages(true);
    EGLInfo fake = *info_;
    FakeImageProcs::Install(fake);
    const int glErrorCalls = faults::GlGetErrorCalls();
    LogCapture capture;
    TargetTextureKHR(fake, nullptr);
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
    SetNativeSurfaceImages(true);
    int token = 0;
    LogCapture capture;
    DestroyImageKHR(*info_, &token);
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
    SetNativeSurfaceImages(true);
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
        DestroyImageKHR(*info_, &token);
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
    SetNativeSurfaceImages(true);
    EGLInfo fake = *info_;
    FakeImageProcs::Install(fake);
    int token = 0;
    void* image = CreateImageKHR(fake, &token, nullptr);
    LogCapture capture;
    DestroyImageKHR(fake, image);
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
    SetNativeSurfaceImages(true);
    EGLInfo fake = *info_;
    FakeImageProcs::Install(fake);
    int token = 0;
    faults::QueueGlError(GL_INVALID_OPERATION);
    faults::QueueGlError(GL_INVALID_ENUM);
    LogCapture capture;
    TargetTextureKHR(fake, &token);
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

// ---------------------------------------------------------------------------
// The engine's output target.

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
    SetNativeSurfaceImages(true);
    FakeImageProcs::Install(*info_);
    FakeImageProcs::giveStorage = true;
    HdrGenerate* engine = Engine(16, 8);
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
    SetNativeSurfaceImages(true);
    HdrGenerate* engine = Engine(16, 8);
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

// ---------------------------------------------------------------------------
// The copy of the finished picture into the surface, as the host reads it.

class OutputCopyTest : public OutputTest {
protected:
    static constexpr uint8_t kSentinel = 0xA7;

    // The engine's target at width x height, every byte of the surface set
    // to the sentinel.
    HdrGenerate* Target(int width, int height)
    {
        HdrGenerate* engine = Engine(width, height);
        EXPECT_EQ(engine->updateTBM(), 0);
        Fill(engine->tbmSurface);
        return engine;
    }

    static void Fill(tbm_surface_h surface)
    {
        tbm_surface_info_s info;
        ASSERT_EQ(tbm_surface_map(surface, TBM_SURF_OPTION_WRITE, &info), 0);
        std::memset(info.planes[0].ptr, kSentinel, info.planes[0].size);
        tbm_surface_unmap(surface);
    }

    // The surface's raw bytes and its stride.
    static std::vector<uint8_t> Bytes(tbm_surface_h surface, uint32_t* stride)
    {
        tbm_surface_info_s info;
        if (tbm_surface_map(surface, TBM_SURF_OPTION_READ, &info) != 0) {
            return {};
        }
        std::vector<uint8_t> bytes(info.planes[0].ptr, info.planes[0].ptr + info.planes[0].size);
        *stride = info.planes[0].stride;
        tbm_surface_unmap(surface);
        return bytes;
    }

    static void Clear(GLuint framebuffer, std::array<uint8_t, 4> rgba)
    {
        glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
        glClearColor(rgba[0] / 255.0f, rgba[1] / 255.0f, rgba[2] / 255.0f, rgba[3] / 255.0f);
        glClear(GL_COLOR_BUFFER_BIT);
        glBindFramebuffer(GL_FRAMEBUFFER, 0);
    }

    // A distinct colour for every pixel position.
    static std::array<uint8_t, 4> PixelColour(int x, int y)
    {
        return {static_cast<uint8_t>(x * 6 + 1), static_cast<uint8_t>(y * 40 + 3),
                static_cast<uint8_t>(200 - x), static_cast<uint8_t>(255 - y)};
    }

    // Paints every pixel of framebuffer with PixelColour, in GL's coordinates.
    static void Paint(GLuint framebuffer, int width, int height)
    {
        glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
        glEnable(GL_SCISSOR_TEST);
        for (int y = 0; y < height; ++y) {
            for (int x = 0; x < width; ++x) {
                const auto c = PixelColour(x, y);
                glScissor(x, y, 1, 1);
                glClearColor(c[0] / 255.0f, c[1] / 255.0f, c[2] / 255.0f, c[3] / 255.0f);
                glClear(GL_COLOR_BUFFER_BIT);
            }
        }
        glDisable(GL_SCISSOR_TEST);
        glBindFramebuffer(GL_FRAMEBUFFER, 0);
    }
};

// Every pixel of an RA24 surface holds the bytes A, B, G, R.
TEST_F(OutputCopyTest, EveryPixelIsStoredAsABGR)
{
    const int width = 37;
    const int height = 5;
    HdrGenerate* engine = Target(width, height);
    Clear(engine->framebuffer, {0x11, 0x22, 0x33, 0x44});
    ASSERT_TRUE(engine->CopyOutputToSurface());
    uint32_t stride = 0;
    const auto bytes = Bytes(engine->tbmSurface, &stride);
    ASSERT_FALSE(bytes.empty());
    int wrong = 0;
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const uint8_t* p = &bytes[y * stride + 4 * x];
            if (p[0] != 0x44 || p[1] != 0x33 || p[2] != 0x22 || p[3] != 0x11) {
                ++wrong;
                ADD_FAILURE() << "pixel (" << x << ", " << y << "): " << int(p[0]) << " " << int(p[1]) << " "
                              << int(p[2]) << " " << int(p[3]);
            }
            if (wrong > 5) {
                return;
            }
        }
    }
}

// An odd width leaves the row padding between width * 4 and the stride untouched.
TEST_F(OutputCopyTest, RowPaddingKeepsItsBytes)
{
    const int width = 37;
    const int height = 5;
    HdrGenerate* engine = Target(width, height);
    Clear(engine->framebuffer, {0x11, 0x22, 0x33, 0x44});
    ASSERT_TRUE(engine->CopyOutputToSurface());
    uint32_t stride = 0;
    const auto bytes = Bytes(engine->tbmSurface, &stride);
    ASSERT_EQ(stride, 192u);  // 148 bytes of pixels, rows padded to 64 bytes
    ASSERT_EQ(bytes.size(), static_cast<size_t>(stride) * height);
    for (int y = 0; y < height; ++y) {
        for (uint32_t i = width * 4; i < stride; ++i) {
            ASSERT_EQ(bytes[y * stride + i], kSentinel) << "row " << y << " byte " << i;
        }
    }
}

// Row 0 of the surface's memory is GL's row 0; each pixel lands at its own position.
TEST_F(OutputCopyTest, PixelPositionsAreKept)
{
    const int width = 37;
    const int height = 5;
    HdrGenerate* engine = Target(width, height);
    Paint(engine->framebuffer, width, height);
    ASSERT_TRUE(engine->CopyOutputToSurface());
    uint32_t stride = 0;
    const auto bytes = Bytes(engine->tbmSurface, &stride);
    ASSERT_FALSE(bytes.empty());
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const auto c = PixelColour(x, y);
            const uint8_t* p = &bytes[y * stride + 4 * x];
            ASSERT_EQ((std::array<uint8_t, 4>{p[3], p[2], p[1], p[0]}), c) << "pixel (" << x << ", " << y << ")";
        }
    }
}

// A second copy overwrites the first: the bytes are reordered once per copy.
TEST_F(OutputCopyTest, RepeatedCopiesKeepTheByteOrder)
{
    HdrGenerate* engine = Target(8, 2);
    Clear(engine->framebuffer, {0x10, 0x20, 0x30, 0x40});
    ASSERT_TRUE(engine->CopyOutputToSurface());
    Clear(engine->framebuffer, {0x01, 0x02, 0x03, 0x04});
    ASSERT_TRUE(engine->CopyOutputToSurface());
    uint32_t stride = 0;
    const auto bytes = Bytes(engine->tbmSurface, &stride);
    ASSERT_FALSE(bytes.empty());
    EXPECT_EQ((std::vector<uint8_t>(bytes.begin(), bytes.begin() + 4)), (std::vector<uint8_t>{4, 3, 2, 1}));
    EXPECT_EQ((std::vector<uint8_t>(bytes.begin() + stride + 28, bytes.begin() + stride + 32)),
              (std::vector<uint8_t>{4, 3, 2, 1}));
}

// An AB24 surface gets the bytes R, G, B, A, as GL writes them.
TEST_F(OutputCopyTest, Abgr8888SurfaceGetsBytesRGBA)
{
    const int width = 13;
    const int height = 3;
    tbm_surface_h surface = Surface(width, height, TBM_FORMAT_ABGR8888);
    Fill(surface);
    void* image = CreateImageKHR(*info_, surface, nullptr);
    ASSERT_NE(image, nullptr);
    const GLuint texture = BoundTexture();
    TargetTextureKHR(*info_, image);
    glBindTexture(GL_TEXTURE_2D, 0);
    GLuint framebuffer = 0;
    glGenFramebuffers(1, &framebuffer);
    glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
    glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, texture, 0);
    ASSERT_EQ(glCheckFramebufferStatus(GL_FRAMEBUFFER), static_cast<GLenum>(GL_FRAMEBUFFER_COMPLETE));
    Paint(framebuffer, width, height);
    EXPECT_TRUE(CopyImageToSurface(image, framebuffer));
    uint32_t stride = 0;
    const auto bytes = Bytes(surface, &stride);
    ASSERT_FALSE(bytes.empty());
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const uint8_t* p = &bytes[y * stride + 4 * x];
            ASSERT_EQ((std::array<uint8_t, 4>{p[0], p[1], p[2], p[3]}), PixelColour(x, y))
                << "pixel (" << x << ", " << y << ")";
        }
        for (uint32_t i = width * 4; i < stride; ++i) {
            ASSERT_EQ(bytes[y * stride + i], kSentinel);
        }
    }
    DestroyImageKHR(*info_, image);
    glDeleteFramebuffers(1, &framebuffer);
    glDeleteTextures(1, &texture);
}

// The copy leaves no framebuffer bound for reading and the pack row length at 0.
TEST_F(OutputCopyTest, CopyRestoresReadState)
{
    HdrGenerate* engine = Target(37, 5);
    ASSERT_TRUE(engine->CopyOutputToSurface());
    GLint readFramebuffer = -1;
    GLint rowLength = -1;
    glGetIntegerv(GL_READ_FRAMEBUFFER_BINDING, &readFramebuffer);
    glGetIntegerv(GL_PACK_ROW_LENGTH, &rowLength);
    EXPECT_EQ(readFramebuffer, 0);
    EXPECT_EQ(rowLength, 0);
}

// Without an image there is nothing to copy into: false and a message.
TEST_F(OutputCopyTest, CopyWithoutImageFails)
{
    LogCapture capture;
    EXPECT_FALSE(CopyImageToSurface(nullptr, 0));
    const auto messages = capture.Messages();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0], WithLine(capture, 0, "%d ERROR: no output image\n"));
}

// A surface destroyed under its image cannot be mapped: false and a message.
TEST_F(OutputCopyTest, CopyIntoADestroyedSurfaceFails)
{
    tbm_surface_h surface = tbm_surface_create(8, 4, TBM_FORMAT_RGBA8888);
    ASSERT_NE(surface, nullptr);
    void* image = CreateImageKHR(*info_, surface, nullptr);
    ASSERT_NE(image, nullptr);
    tbm_surface_destroy(surface);
    LogCapture capture;
    EXPECT_FALSE(CopyImageToSurface(image, 0));
    const auto messages = capture.Messages();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0], WithLine(capture, 0, "%d ERROR: tbm_surface_map failed\n"));
    DestroyImageKHR(*info_, image);
}

// A GL error during the readback makes the copy fail.
TEST_F(OutputCopyTest, GlErrorDuringTheCopyFails)
{
    HdrGenerate* engine = Target(8, 2);
    faults::QueueGlError(GL_OUT_OF_MEMORY);
    LogCapture capture;
    EXPECT_FALSE(engine->CopyOutputToSurface());
    EXPECT_TRUE(Contains(capture.Messages(),
                         "There is not enough memory left to execute the function. 0x00000505"));
}

// Native images are the surface itself: nothing is read or written.
TEST_F(OutputCopyTest, NativeImagesNeedNoCopy)
{
    HdrGenerate* engine = Target(8, 2);
    Clear(engine->framebuffer, {1, 2, 3, 4});
    SetNativeSurfaceImages(true);
    const int glErrorCalls = faults::GlGetErrorCalls();
    EXPECT_TRUE(CopyImageToSurface(engine->eglImage, engine->framebuffer));
    EXPECT_EQ(faults::GlGetErrorCalls(), glErrorCalls);
    SetNativeSurfaceImages(false);
    uint32_t stride = 0;
    const auto bytes = Bytes(engine->tbmSurface, &stride);
    ASSERT_FALSE(bytes.empty());
    EXPECT_EQ(bytes[0], kSentinel);
}

}  // namespace
