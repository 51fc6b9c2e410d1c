// The render path: GpuRender, and the quad of its texture pass, which has no
// public entry point, so those tests call the registry directly.
#include "PublicApiSupport.h"

// Reaches the library's own classes on purpose; see the tests below.
#include "HdrGenerate.h"
#include "HdrRender.h"

#include <gtest/gtest.h>

namespace {

using namespace apitest;

// ===========================================================================
// The render path
// ===========================================================================

// GpuRender returns 0, sets the clear colour (1, 1, 1, 0.1) on the host's current context and clears nothing.
TEST_F(PublicApiRender, RenderSetsTheClearColourAndDrawsNothing)
{
    hdrtest::HostContext host(display_);
    ASSERT_TRUE(host.ok());
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);

    // The host's draw surface, which the library's context also draws to, holds a colour of the host's.
    const auto readDrawSurface = [&] {
        std::array<uint8_t, 4> pixel{};
        eglMakeCurrent(display_, host.draw(), host.draw(), host.context());
        glReadPixels(3, 2, 1, 1, GL_RGBA, GL_UNSIGNED_BYTE, pixel.data());
        eglMakeCurrent(display_, host.draw(), host.read(), host.context());
        return pixel;
    };
    glClearColor(0.2f, 0.4f, 0.6f, 1.0f);
    glClear(GL_COLOR_BUFFER_BIT);
    glFinish();
    const std::array<uint8_t, 4> before = readDrawSurface();
    ASSERT_EQ(hdrtest::CurrentBinding(), HostBinding(host));

    EXPECT_EQ(rec_([] { return GpuRender(); }), 0);
    EXPECT_EQ(hdrtest::CurrentBinding(), HostBinding(host));
    GLfloat clear[4] = {};
    glGetFloatv(GL_COLOR_CLEAR_VALUE, clear);
    EXPECT_FLOAT_EQ(clear[0], 1.0f);
    EXPECT_FLOAT_EQ(clear[1], 1.0f);
    EXPECT_FLOAT_EQ(clear[2], 1.0f);
    EXPECT_FLOAT_EQ(clear[3], 0.1f);
    EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
    EXPECT_EQ(readDrawSurface(), before) << "GpuRender cleared or drew into the surface";
}

// GpuRender before any initialisation fails with 3 and logs nothing of its own.
TEST_F(PublicApiRender, RenderWithoutAContextFailsWith3)
{
    EXPECT_EQ(rec_([] { return GpuRender(); }), 3);
    for (const LogLine& l : rec_.lines()) {
        EXPECT_NE(l.parsed.function, "GpuRender") << l.parsed.message;
    }
}

void ExpectQuad(const std::vector<float>& v, float left, float right, float bottom, float top)
{
    const std::vector<float> expected = {left,  top,    0, 0, 1, left,  bottom, 0, 0, 0, right, bottom, 0, 1, 0,
                                         left,  top,    0, 0, 1, right, bottom, 0, 1, 0, right, top,    0, 1, 1};
    ASSERT_EQ(v.size(), expected.size());
    for (size_t i = 0; i < v.size(); ++i) {
        EXPECT_FLOAT_EQ(v[i], expected[i]) << "float " << i << " (vertex " << i / 5 << ")";
    }
}

// Initialises the direct mode with an output of width x height, sets a
// picture's metadata (which stores that output size), and fits the quad.
std::vector<float> FittedQuad(Recorder& rec, EGLDisplay display, int width, int height)
{
    std::vector<float> vertices;
    const Picture pic = MakePicture(4, 4, 26);
    HdrInfo info = Describe(pic, CycleMetadata());
    EXPECT_EQ(rec([&] { return GpuGenerateHdrInit(GpuGenerateHdrInitOption{width, height, display, false, false}); }),
              0);
    EXPECT_NE(rec([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    HdrRender* render = HdrRender::GetInstance();
    bool bound = false;
    bool programMade = false;
    GLenum firstError = GL_NO_ERROR;
    GLenum secondError = GL_NO_ERROR;
    bool unbound = false;
    rec([&] {
        bound = render->Bind();
        if (bound) {
            programMade = render->SetupShaders();
            render->UpdateAttribs();
            firstError = glGetError();
            secondError = glGetError();
            unbound = render->Unbind();
            vertices = render->vertices;
        }
    });
    EXPECT_TRUE(bound);
    EXPECT_TRUE(programMade);
    // The quad goes to buffer 0, which no operation creates: GL reports that, once.
    EXPECT_EQ(firstError, static_cast<GLenum>(GL_INVALID_OPERATION));
    EXPECT_EQ(secondError, static_cast<GLenum>(GL_NO_ERROR));
    EXPECT_TRUE(unbound);
    return vertices;
}

// Before any fitting, the render path's quad is the unit full-screen quad.
TEST_F(PublicApiRender, RenderQuadDefaultsToTheUnitQuad)
{
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
    ExpectQuad(HdrRender::GetInstance()->vertices, -1, 1, -1, 1);
}

// A 1920 x 1080 output fills clip space exactly.
TEST_F(PublicApiRender, RenderQuadForLandscapeOutput)
{
    ExpectQuad(FittedQuad(rec_, display_, 1920, 1080), -1, 1, -1, 1);
}

// A 1080 x 1920 output is pillar-boxed: left/right -+0.31640625, bottom/top -+1.
TEST_F(PublicApiRender, RenderQuadForPortraitOutput)
{
    ExpectQuad(FittedQuad(rec_, display_, 1080, 1920), -0.31640625f, 0.31640625f, -1, 1);
}

// A 2560 x 1080 output (wider than 16:9) is letter-boxed: bottom/top -+0.75.
TEST_F(PublicApiRender, RenderQuadForWideOutput)
{
    ExpectQuad(FittedQuad(rec_, display_, 2560, 1080), -1, 1, -0.75f, 0.75f);
}

}  // namespace
