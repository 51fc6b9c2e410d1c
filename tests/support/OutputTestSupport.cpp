#include "OutputTestSupport.h"

namespace hdrtest {

std::string WithLine(const LogCapture& capture, size_t index, const char* fmt)
{
    const auto lines = capture.Lines();
    if (index >= lines.size()) {
        return "<no line " + std::to_string(index) + ">";
    }
    return Format(fmt, Parse(lines[index].text).line);
}

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

int Handle(tbm_surface_h surface)
{
    return static_cast<int>(reinterpret_cast<intptr_t>(surface));
}

namespace {

EGLImageKHR EGLAPIENTRY FakeCreate(EGLDisplay d, EGLContext c, EGLenum t, EGLClientBuffer b, const EGLint* a)
{
    ++FakeImageProcs::creates;
    FakeImageProcs::display = d;
    FakeImageProcs::context = c;
    FakeImageProcs::target = t;
    FakeImageProcs::buffer = b;
    FakeImageProcs::attribs = a;
    // Never dereferenced, and never the same token twice.
    void* image = reinterpret_cast<void*>(static_cast<uintptr_t>(0x5EED0000) + 16u * FakeImageProcs::creates);
    FakeImageProcs::live.insert(image);
    return image;
}

EGLBoolean EGLAPIENTRY FakeDestroy(EGLDisplay, EGLImageKHR image)
{
    ++FakeImageProcs::destroys;
    return FakeImageProcs::live.erase(image) == 0 ? EGL_FALSE : EGL_TRUE;
}

void GL_APIENTRY FakeTarget(GLenum t, GLeglImageOES image)
{
    ++FakeImageProcs::targets;
    FakeImageProcs::textureTarget = t;
    FakeImageProcs::attached = image;
    if (FakeImageProcs::giveStorage) {
        glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA8, 4, 4, 0, GL_RGBA, GL_UNSIGNED_BYTE, nullptr);
    }
}

}  // namespace

void FakeImageProcs::Clear()
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

void FakeImageProcs::Install(EGLInfo& info)
{
    info.eglCreateImageKHRProc = FakeCreate;
    info.eglDestroyImageKHRProc = FakeDestroy;
    info.glEGLImageTargetTexture2DOESProc = FakeTarget;
}

void OutputTest::SetUp()
{
    EglTest::SetUp();
    faults::Reset();
    FakeImageProcs::Clear();
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

void OutputTest::TearDown()
{
    faults::Reset();
    tbm_standin_fail_next_create(0);
    for (tbm_surface_h surface : surfaces_) {
        tbm_surface_destroy(surface);
    }
    // The engine goes while its context is current.
    HdrGenerate::DestroyInstance();
    if (info_ != nullptr && info_->isBound) {
        HdrRender::GetInstance()->Unbind();
    }
    HdrRender::DestroyInstance();
    FakeImageProcs::Clear();
    for (int i = 0; i < 16 && eglGetError() != EGL_SUCCESS; ++i) {
    }
}

tbm_surface_h OutputTest::Surface(int width, int height, tbm_format format)
{
    tbm_surface_h surface = tbm_surface_create(width, height, format);
    EXPECT_NE(surface, nullptr);
    surfaces_.push_back(surface);
    return surface;
}

GLuint OutputTest::BoundTexture()
{
    GLuint texture = 0;
    glActiveTexture(GL_TEXTURE0);
    glGenTextures(1, &texture);
    glBindTexture(GL_TEXTURE_2D, texture);
    return texture;
}

HdrGenerate* OutputTest::Engine(int width, int height, bool streaming, std::unique_ptr<const OutputImages> images)
{
    HdrGenerate* engine =
        images != nullptr ? HdrGenerate::CreateInstance(std::move(images)) : HdrGenerate::GetInstance();
    EXPECT_NE(engine, nullptr);
    if (engine == nullptr) {
        return HdrGenerate::GetInstance();
    }
    engine->initOption = GpuGenerateHdrInitOption{width, height, display_, false, streaming};
    glGenTextures(1, &engine->outputTexture);
    return engine;
}

}  // namespace hdrtest
