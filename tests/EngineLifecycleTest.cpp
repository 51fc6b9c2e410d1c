// The generation engine's life: its defaults, what Init builds in each mode,
// and that teardown releases all of it, cycle after cycle.
#include "EglTestEnv.h"
#include "EngineTestSupport.h"
#include "Faults.h"
#include "HdrContext.h"
#include "HdrGenerate.h"
#include "HdrRender.h"
#include "LogCapture.h"
#include "TSShaderManager.h"

#include <gtest/gtest.h>
#include <tbm_surface_standin.h>

#include <cstring>

using hdrtest::LogCapture;
using hdrtest::Parse;
namespace faults = hdrtest::faults;

namespace {

class EngineLifecycle : public hdrtest::EglTest {
protected:
    void SetUp() override
    {
        EglTest::SetUp();
        faults::Reset();
        HdrGenerate::DestroyInstance();
        HdrRender::DestroyInstance();
        surfacesBefore_ = tbm_standin_live_surface_count();
    }
    void TearDown() override
    {
        HdrGenerate::DestroyInstance();
        HdrRender::DestroyInstance();
        faults::Reset();
        tbm_standin_fail_next_create(0);
        EXPECT_EQ(tbm_standin_live_surface_count(), surfacesBefore_);
    }
    // The thread's context made and bound, as the public initialisation does.
    void BindRegistry()
    {
        HdrRender* render = HdrRender::GetInstance();
        render->SetEGLDisplay(display_);
        ASSERT_EQ(render->Init(), 0);
        ASSERT_TRUE(render->Bind());
    }
    HdrGenerate* Engine(bool streaming, int width = 33, int height = 19)
    {
        HdrGenerate* engine = HdrGenerate::GetInstance();
        engine->initOption = GpuGenerateHdrInitOption{width, height, display_, false, streaming};
        return engine;
    }
    int surfacesBefore_ = 0;
};

// One instance until destroyed; a new one starts from the defaults again.
TEST_F(EngineLifecycle, SingletonStartsFromDefaults)
{
    HdrGenerate* first = HdrGenerate::GetInstance();
    EXPECT_EQ(HdrGenerate::GetInstance(), first);
    first->apl = 77;
    first->initOption.usePBO = true;
    HdrGenerate::DestroyInstance();
    EXPECT_EQ(HdrGenerate::pInstance, nullptr);
    HdrGenerate* e = HdrGenerate::GetInstance();

    EXPECT_FALSE(e->isGenerated);
    EXPECT_FALSE(e->isAplPending);
    EXPECT_EQ(e->initOption.surfaceWidth, 1920);
    EXPECT_EQ(e->initOption.surfaceHeight, 1080);
    EXPECT_EQ(e->initOption.eglDisplay, nullptr);
    EXPECT_TRUE(e->initOption.outputYUV);
    EXPECT_FALSE(e->initOption.usePBO);
    EXPECT_FALSE(e->hasTextureStorage);
    for (int size : e->textureSizes) {
        EXPECT_EQ(size, 0);
    }
    EXPECT_EQ(e->shaderManager, nullptr);
    EXPECT_EQ(e->outputTexture, 0u);
    EXPECT_EQ(e->vertexBuffer, 0u);
    EXPECT_EQ(e->vertexArray, 0u);
    EXPECT_EQ(e->indexBuffer, 0u);
    EXPECT_EQ(e->framebuffer, 0u);
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(e->inputTextures[i], 0u);
        EXPECT_EQ(e->mappedPlanes[i], nullptr);
        EXPECT_EQ(e->pixelBuffers[i], 0u);
    }
    EXPECT_TRUE(e->planeTable.empty());
    EXPECT_EQ(e->uploadFence, nullptr);
    EXPECT_EQ(e->tbmSurface, nullptr);
    EXPECT_EQ(e->eglImage, nullptr);
    EXPECT_EQ(e->apl, 0);
    EXPECT_TRUE(e->outputYUV);
    EXPECT_FALSE(e->isInfoReady);
    EXPECT_TRUE(e->isPboIdle);

    const HdrFactorySettings::Parameter& p = e->factoryParameter;
    const int32_t expected[11] = {128, 256, 10, 100, 128, 0, 512, 1024, 256, 256, 256};
    const int32_t actual[11] = {p.MDB_V1,        p.MDB_V2,        p.MDB_T1,        p.MDB_T2,
                                p.GAMMA_MUL,     p.GAIN_CURVE_P0, p.GAIN_CURVE_P1, p.GAIN_CURVE_P2,
                                p.GAIN_CURVE_G0, p.GAIN_CURVE_G1, p.GAIN_CURVE_G2};
    const HdrInfo& h = e->hdrInfo;
    const int32_t carried[11] = {h.MDB_V1,        h.MDB_V2,        h.MDB_T1,        h.MDB_T2,
                                 h.GAMMA_MUL,     h.GAIN_CURVE_P0, h.GAIN_CURVE_P1, h.GAIN_CURVE_P2,
                                 h.GAIN_CURVE_G0, h.GAIN_CURVE_G1, h.GAIN_CURVE_G2};
    for (int i = 0; i < 11; ++i) {
        EXPECT_EQ(actual[i], expected[i]) << "factory parameter " << i;
        EXPECT_EQ(carried[i], expected[i]) << "metadata tuning field " << i;
    }

    const float gainMapMin[4] = {1, 1, 1, 1};
    const float gainMapMax[4] = {2, 2, 2, 1};
    const float gamma[4] = {1, 1, 1, 1};
    const float offset[4] = {0, 0, 0, 1};
    EXPECT_EQ(std::memcmp(h.gainMapMin, gainMapMin, sizeof gainMapMin), 0);
    EXPECT_EQ(std::memcmp(h.gainMapMax, gainMapMax, sizeof gainMapMax), 0);
    EXPECT_EQ(std::memcmp(h.gamma, gamma, sizeof gamma), 0);
    EXPECT_EQ(std::memcmp(h.offsetSdr, offset, sizeof offset), 0);
    EXPECT_EQ(std::memcmp(h.offsetHdr, offset, sizeof offset), 0);
    EXPECT_EQ(static_cast<int32_t>(h.gamut), 0);
    EXPECT_EQ(static_cast<int32_t>(h.trfn), 3);
    EXPECT_EQ(h.outputWidth, 1920);
    EXPECT_EQ(h.outputHeight, 1080);
    EXPECT_EQ(h.nMainImageWidth, 0);
    EXPECT_EQ(h.nGainMapHeight, 0);
    EXPECT_EQ(h.hdrCapacityMin, 0.0f);
    EXPECT_EQ(h.hdrCapacityMax, 0.0f);
    EXPECT_EQ(h.outputRotate, 0);
    EXPECT_FALSE(h.outputMirror);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(h.mainImagePlanes[i], nullptr);
        EXPECT_EQ(h.gainMapPlanes[i], nullptr);
    }

    const std::vector<float> quad = {-1, 1, 0, 0, 1, -1, -1, 0, 0, 0, 1, -1, 0, 1, 0,
                                     -1, 1, 0, 0, 1, 1,  -1, 0, 1, 0, 1, 1,  0, 1, 1};
    EXPECT_EQ(e->quadVertices, quad);
    const uint32_t indices[6] = {0, 1, 2, 3, 4, 5};
    EXPECT_EQ(std::memcmp(e->quadIndices, indices, sizeof indices), 0);
}

// Destroying without an instance does nothing.
TEST_F(EngineLifecycle, DestroyWithoutInstanceDoesNothing)
{
    LogCapture capture;
    HdrGenerate::DestroyInstance();
    EXPECT_EQ(HdrGenerate::pInstance, nullptr);
    EXPECT_TRUE(capture.Lines().empty());
}

// The direct mode builds the program, the quad, six textures, the output
// texture, the surface with its image and the framebuffer; no upload buffers.
TEST_F(EngineLifecycle, DirectInitBuildsEverything)
{
    BindRegistry();
    HdrGenerate* e = Engine(false);
    LogCapture capture;
    ASSERT_EQ(e->Init(), 0);
    const auto messages = capture.Messages();
    ASSERT_FALSE(messages.empty());
    EXPECT_EQ(messages.front(), "HdrGenerate::Init start");
    EXPECT_EQ(messages.back(), "HdrGenerate::Init end");

    EXPECT_NE(e->shaderManager->GetProgram(), 0u);
    EXPECT_TRUE(glIsProgram(e->shaderManager->GetProgram()));
    EXPECT_TRUE(glIsVertexArray(e->vertexArray));
    EXPECT_TRUE(glIsBuffer(e->vertexBuffer));
    EXPECT_TRUE(glIsBuffer(e->indexBuffer));
    for (int i = 0; i < 6; ++i) {
        EXPECT_TRUE(glIsTexture(e->inputTextures[i])) << i;
        EXPECT_EQ(e->pixelBuffers[i], 0u) << i;
    }
    EXPECT_TRUE(glIsTexture(e->outputTexture));
    EXPECT_TRUE(glIsFramebuffer(e->framebuffer));
    ASSERT_NE(e->tbmSurface, nullptr);
    EXPECT_EQ(tbm_surface_get_width(e->tbmSurface), 33);
    EXPECT_EQ(tbm_surface_get_height(e->tbmSurface), 19);
    EXPECT_EQ(tbm_surface_get_format(e->tbmSurface), static_cast<tbm_format>(TBM_FORMAT_RGBA8888));
    EXPECT_NE(e->eglImage, nullptr);
    EXPECT_EQ(tbm_standin_live_surface_count(), surfacesBefore_ + 1);
    EXPECT_EQ(e->getHdrTBMSurface(), static_cast<int>(reinterpret_cast<intptr_t>(e->tbmSurface)));

    // The quad's attribute layout: positions at 0, texture coordinates at 12, stride 20.
    GLint enabled = 0;
    GLint stride = 0;
    void* offset = nullptr;
    const GLuint texcoord = static_cast<GLuint>(glGetAttribLocation(e->shaderManager->GetProgram(), "aTexcoord"));
    glGetVertexAttribiv(texcoord, GL_VERTEX_ATTRIB_ARRAY_ENABLED, &enabled);
    glGetVertexAttribiv(texcoord, GL_VERTEX_ATTRIB_ARRAY_STRIDE, &stride);
    glGetVertexAttribPointerv(texcoord, GL_VERTEX_ATTRIB_ARRAY_POINTER, &offset);
    EXPECT_EQ(enabled, 1);
    EXPECT_EQ(stride, 20);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(offset), 12u);
    GLint alignment = 0;
    glGetIntegerv(GL_UNPACK_ALIGNMENT, &alignment);
    EXPECT_EQ(alignment, 1);
    EXPECT_TRUE(HdrRender::GetInstance()->Unbind());
}

// With usePBO set, Init makes the upload buffers and no surface at all.
TEST_F(EngineLifecycle, StreamingInitMakesNoSurface)
{
    BindRegistry();
    HdrGenerate* e = Engine(true);
    ASSERT_EQ(e->Init(), 0);
    EXPECT_EQ(e->tbmSurface, nullptr);
    EXPECT_EQ(e->eglImage, nullptr);
    EXPECT_EQ(e->framebuffer, 0u);
    EXPECT_EQ(tbm_standin_live_surface_count(), surfacesBefore_);
    for (int i = 0; i < 6; ++i) {
        EXPECT_TRUE(glIsBuffer(e->pixelBuffers[i])) << i;
        EXPECT_TRUE(glIsTexture(e->inputTextures[i])) << i;
        EXPECT_EQ(e->mappedPlanes[i], nullptr) << i;
    }
    EXPECT_TRUE(e->isPboIdle);
    EXPECT_TRUE(HdrRender::GetInstance()->Unbind());
}

// Each sampler uniform names its plane's unit, and each unit holds its plane's texture.
TEST_F(EngineLifecycle, EachPlaneSitsOnItsOwnUnit)
{
    for (bool streaming : {false, true}) {
        SCOPED_TRACE(streaming ? "streaming" : "direct");
        BindRegistry();
        HdrGenerate* e = Engine(streaming);
        ASSERT_EQ(e->Init(), 0);
        const GLuint program = e->shaderManager->GetProgram();
        for (int i = 0; i < 6; ++i) {
            GLint unit = -1;
            const char* const samplers[6] = {"u_MainYSampler",    "u_MainUSampler",    "u_MainVSampler",
                                             "u_gainmapYSampler", "u_gainmapUSampler", "u_gainmapVSampler"};
            glGetUniformiv(program, glGetUniformLocation(program, samplers[i]), &unit);
            EXPECT_EQ(unit, i);
            glActiveTexture(GL_TEXTURE0 + i);
            GLint bound = 0;
            glGetIntegerv(GL_TEXTURE_BINDING_2D, &bound);
            EXPECT_EQ(static_cast<GLuint>(bound), e->inputTextures[i]) << "unit " << i;
        }
        EXPECT_TRUE(HdrRender::GetInstance()->Unbind());
        HdrGenerate::DestroyInstance();
        HdrRender::DestroyInstance();
    }
}

// Teardown deletes every GL object it owns (the output texture is left to the
// context), the image and the surface.
TEST_F(EngineLifecycle, TeardownReleasesItsObjects)
{
    for (bool streaming : {false, true}) {
        SCOPED_TRACE(streaming ? "streaming" : "direct");
        BindRegistry();
        HdrGenerate* e = Engine(streaming);
        ASSERT_EQ(e->Init(), 0);
        if (streaming) {
            e->hdrInfo.nMainImageWidth = e->hdrInfo.nGainMapWidth = 7;
            e->hdrInfo.nMainImageHeight = e->hdrInfo.nGainMapHeight = 5;
            e->hdrInfo.outputWidth = 9;
            e->hdrInfo.outputHeight = 4;
            ASSERT_EQ(e->updateTBM(), 0);
            ASSERT_EQ(e->UpdateTextures(), 0);  // maps the buffers and issues a fence
        }
        const GLuint program = e->shaderManager->GetProgram();
        const GLuint vertexArray = e->vertexArray;
        const GLuint buffers[2] = {e->vertexBuffer, e->indexBuffer};
        const GLuint framebuffer = e->framebuffer;
        const GLuint outputTexture = e->outputTexture;
        GLuint textures[6];
        GLuint pixelBuffers[6];
        std::memcpy(textures, e->inputTextures, sizeof textures);
        std::memcpy(pixelBuffers, e->pixelBuffers, sizeof pixelBuffers);
        EXPECT_EQ(tbm_standin_live_surface_count(), surfacesBefore_ + 1);

        HdrGenerate::DestroyInstance();
        // Still current, so only flagged for deletion until the context lets it go.
        GLint deleted = GL_FALSE;
        glGetProgramiv(program, GL_DELETE_STATUS, &deleted);
        EXPECT_EQ(deleted, GL_TRUE);
        EXPECT_FALSE(glIsVertexArray(vertexArray));
        EXPECT_FALSE(glIsBuffer(buffers[0]));
        EXPECT_FALSE(glIsBuffer(buffers[1]));
        EXPECT_FALSE(glIsFramebuffer(framebuffer));
        for (int i = 0; i < 6; ++i) {
            EXPECT_FALSE(glIsTexture(textures[i])) << i;
            EXPECT_FALSE(glIsBuffer(pixelBuffers[i])) << i;
        }
        EXPECT_TRUE(glIsTexture(outputTexture));
        EXPECT_EQ(tbm_standin_live_surface_count(), surfacesBefore_);
        EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
        EXPECT_TRUE(HdrRender::GetInstance()->Unbind());
        HdrRender::DestroyInstance();
    }
}

// 200 init/teardown cycles in each mode leave no surface, image, context or registry record behind.
TEST_F(EngineLifecycle, TwoHundredCyclesLeaveNothingBehind)
{
    const int destroysBefore = faults::DestroyContextCalls();
    for (int cycle = 0; cycle < 200; ++cycle) {
        const bool streaming = cycle % 2 == 1;
        HdrRender* render = HdrRender::GetInstance();
        render->SetEGLDisplay(display_);
        ASSERT_EQ(render->Init(), 0);
        ASSERT_TRUE(render->Bind());
        HdrGenerate* e = Engine(streaming, 64 + cycle % 7, 32 + cycle % 5);
        ASSERT_EQ(e->Init(), 0);
        if (streaming) {
            e->hdrInfo.nMainImageWidth = e->hdrInfo.nGainMapWidth = 8;
            e->hdrInfo.nMainImageHeight = e->hdrInfo.nGainMapHeight = 6;
            ASSERT_EQ(e->updateTBM(), 0);
            ASSERT_EQ(e->UpdateTextures(), 0);
        }
        ASSERT_EQ(tbm_standin_live_surface_count(), surfacesBefore_ + 1);
        // As the public teardown does: the engine, then the registry, unbound.
        ASSERT_TRUE(render->Unbind());
        HdrGenerate::DestroyInstance();
        HdrRender::DestroyInstance();
        ASSERT_EQ(tbm_standin_live_surface_count(), surfacesBefore_);
    }
    EXPECT_EQ(faults::DestroyContextCalls() - destroysBefore, 200);
    EXPECT_EQ(eglGetCurrentContext(), EGL_NO_CONTEXT);
}

// A surface that cannot be made fails the direct-mode Init with 7 and its message.
TEST_F(EngineLifecycle, DirectInitWithoutSurfaceGivesSeven)
{
    BindRegistry();
    HdrGenerate* e = Engine(false);
    tbm_standin_fail_next_create(1);
    LogCapture capture;
    EXPECT_EQ(e->Init(), 7);
    EXPECT_EQ(e->tbmSurface, nullptr);
    const auto lines = capture.Lines();
    ASSERT_FALSE(lines.empty());
    const auto last = Parse(lines.back().text);
    EXPECT_EQ(last.function, "Init");
    EXPECT_EQ(last.message, hdrtest::Format("%d ERROR: updateTBM error\n", last.line));
    EXPECT_TRUE(HdrRender::GetInstance()->Unbind());
}

// A GL error pending after the textures were made fails Init with 11.
TEST_F(EngineLifecycle, PendingGlErrorGivesEleven)
{
    BindRegistry();
    HdrGenerate* e = Engine(false);
    // The first glGetError of Init is its check after the textures.
    faults::QueueGlError(GL_INVALID_OPERATION);
    LogCapture capture;
    EXPECT_EQ(e->Init(), 11);
    const auto lines = capture.Lines();
    ASSERT_FALSE(lines.empty());
    const auto last = Parse(lines.back().text);
    EXPECT_EQ(last.message, hdrtest::Format("%d ERROR: GL_error\n", last.line));
    EXPECT_EQ(e->tbmSurface, nullptr);
    EXPECT_TRUE(HdrRender::GetInstance()->Unbind());
}

// saveToFile is an empty hook.
TEST_F(EngineLifecycle, SaveToFileDoesNothing)
{
    HdrGenerate* e = HdrGenerate::GetInstance();
    LogCapture capture;
    e->saveToFile();
    EXPECT_TRUE(capture.Lines().empty());
    EXPECT_EQ(capture.Stdout(), "");
}

}  // namespace
