// The draw pass: its result, the generated mark, and what reaches the surface.
#include "EglTestEnv.h"
#include "EngineHarness.h"
#include "EngineTestSupport.h"
#include "Faults.h"
#include "HdrGainMapVariant.h"
#include "HdrGenerate.h"
#include "HdrGenerateShaders.h"
#include "HdrOutputImages.h"
#include "HdrRender.h"
#include "LogCapture.h"
#include "TSShaderManager.h"

#include <GLES3/gl31.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <vector>

using hdrtest::EngineHarness;
using hdrtest::LogCapture;
using hdrtest::Parse;
namespace faults = hdrtest::faults;

namespace {

class DrawPass : public hdrtest::EglTest {
protected:
    void SetUp() override
    {
        EglTest::SetUp();
        faults::Reset();
        harness_ = std::make_unique<EngineHarness>(11, 7, display_);
        ASSERT_TRUE(harness_->ok());
        ASSERT_EQ(harness_->Upload(hdrtest::MakePlanes(11, 7, 11, 7, 1)), 0);
        e_ = HdrGenerate::GetInstance();
        e_->hdrInfo.hdrCapacityMax = 2.0f;
        ASSERT_TRUE(HdrRender::GetInstance()->Bind());
    }
    void TearDown() override
    {
        HdrRender::GetInstance()->Unbind();
        harness_.reset();
        faults::Reset();
    }
    // The variant's program prepared from the registered program, as the
    // draw prepares it.
    GLuint PrepareVariant(const GainMapVariant& variant, const GainMapVariantValues& values)
    {
        const GLuint registered = e_->shaderManager->GetProgram();
        return e_->variantPrograms.Prepare(variant, registered, kGainMapVertexShader,
                                           glGetAttribLocation(registered, "aPosition"),
                                           glGetAttribLocation(registered, "aTexcoord"), values);
    }
    std::unique_ptr<EngineHarness> harness_;
    HdrGenerate* e_ = nullptr;
};

// A successful draw sets the generated mark, logs its steps and fills the whole surface.
TEST_F(DrawPass, SuccessMarksTheSurfaceGenerated)
{
    LogCapture capture;
    EXPECT_EQ(e_->Draw(), 0);
    EXPECT_TRUE(e_->isGenerated);
    const auto messages = capture.Messages();
    EXPECT_EQ(messages.front(), "HdrGenerate::Draw start");
    EXPECT_NE(std::find(messages.begin(), messages.end(), "HdrGenerate::Draw Draw finish"), messages.end());
    EXPECT_EQ(messages.back(), "HdrGenerate::Draw end");
    ASSERT_TRUE(HdrRender::GetInstance()->Unbind());
    const auto pixels = harness_->ReadSurface();
    ASSERT_EQ(pixels.size(), 77u);
    for (const auto& p : pixels) {
        ASSERT_EQ(p.a, 255);
    }
    ASSERT_TRUE(HdrRender::GetInstance()->Bind());
}

// Without a program the draw returns 9 and clears the generated mark.
TEST_F(DrawPass, NoProgramGivesNine)
{
    ASSERT_EQ(e_->Draw(), 0);
    const GLuint program = e_->shaderManager->program;
    e_->shaderManager->program = 0;
    EXPECT_EQ(e_->Draw(), 9);
    EXPECT_FALSE(e_->isGenerated);
    e_->shaderManager->program = program;
}

// A draw whose constants fail leaves the mark false although an earlier draw succeeded.
TEST_F(DrawPass, FailedConstantsClearTheMark)
{
    ASSERT_EQ(e_->Draw(), 0);
    ASSERT_TRUE(e_->isGenerated);
    e_->hdrInfo.gamut = static_cast<hdr_color_gamut>(3);
    EXPECT_EQ(e_->Draw(), 13);
    EXPECT_FALSE(e_->isGenerated);
}

// A GL error after the draw gives 11 and leaves the mark false.
TEST_F(DrawPass, GlErrorAfterTheDrawGivesEleven)
{
    // UpdateUniform's check takes the first error; the one after the draw the second.
    faults::QueueGlError(GL_NO_ERROR);
    faults::QueueGlError(GL_OUT_OF_MEMORY);
    LogCapture capture;
    EXPECT_EQ(e_->Draw(), 11);
    EXPECT_FALSE(e_->isGenerated);
    const auto parsed = Parse(capture.Lines().back().text);
    EXPECT_EQ(parsed.message, hdrtest::Format("%d ERROR: GL_error\n", parsed.line));
}

// The viewport is the metadata's output size, not the surface's: the rest
// keeps the draw's clear colour (alpha 0).
TEST_F(DrawPass, ViewportIsTheMetadataOutputSize)
{
    e_->hdrInfo.outputWidth = 5;
    e_->hdrInfo.outputHeight = 7;
    ASSERT_EQ(e_->Draw(), 0);
    ASSERT_TRUE(HdrRender::GetInstance()->Unbind());
    const auto pixels = harness_->ReadSurface();
    ASSERT_EQ(pixels.size(), 77u);
    for (int y = 0; y < 7; ++y) {
        for (int x = 0; x < 11; ++x) {
            EXPECT_EQ(pixels[y * 11 + x].a, x < 5 ? 255 : 0) << x << "," << y;
        }
    }
    ASSERT_TRUE(HdrRender::GetInstance()->Bind());
}


// Drawn in bands of 3 rows (3, 3 and 1), the surface holds the same bytes
// as drawn in one pass, also with a viewport narrower than the surface.
using DrawBands = hdrtest::EglTest;

TEST_F(DrawBands, BandedDrawEqualsOnePass)
{
    const EGLDisplay display = display_;
    const hdrtest::Planes planes = hdrtest::MakePlanes(11, 7, 11, 7, 2);
    std::vector<hdrtest::Rgba8> drawn[2];
    for (int pass = 0; pass < 2; ++pass) {
        SCOPED_TRACE(pass == 0 ? "one pass" : "bands");
        const int rows = pass == 0 ? SurfaceCopyImages::kWholeSurface : 3;
        EngineHarness harness(11, 7, display, false, std::make_unique<SurfaceCopyImages>(rows));
        ASSERT_TRUE(harness.ok());
        ASSERT_EQ(harness.Upload(planes), 0);
        HdrGenerate* engine = HdrGenerate::GetInstance();
        engine->hdrInfo.hdrCapacityMax = 2.0f;
        engine->hdrInfo.outputWidth = 9;
        ASSERT_TRUE(HdrRender::GetInstance()->Bind());
        ASSERT_EQ(engine->Draw(), 0);
        ASSERT_TRUE(HdrRender::GetInstance()->Unbind());
        drawn[pass] = harness.ReadSurface();
        ASSERT_EQ(drawn[pass].size(), 77u);
    }
    for (size_t i = 0; i < drawn[0].size(); ++i) {
        const auto& a = drawn[0][i];
        const auto& b = drawn[1][i];
        ASSERT_TRUE(a.r == b.r && a.g == b.g && a.b == b.b && a.a == b.a) << "pixel " << i % 11 << ", " << i / 11;
        ASSERT_EQ(a.a, i % 11 < 9 ? 255 : 0) << "pixel " << i % 11 << ", " << i / 11;
    }
}


// The engine's picture of an 11 x 7 output drawn with images, as the host
// reads it; empty when a step failed.
std::vector<hdrtest::Rgba8> DrawnWith(EGLDisplay display, std::unique_ptr<const OutputImages> images)
{
    EngineHarness harness(11, 7, display, false, std::move(images));
    HdrGenerate* engine = HdrGenerate::GetInstance();
    if (!harness.ok() || harness.Upload(hdrtest::MakePlanes(11, 7, 11, 7, 4)) != 0) {
        return {};
    }
    engine->hdrInfo.hdrCapacityMax = 2.0f;
    if (!HdrRender::GetInstance()->Bind()) {
        return {};
    }
    const int drawn = engine->Draw();
    HdrRender::GetInstance()->Unbind();
    return drawn == 0 ? harness.ReadSurface() : std::vector<hdrtest::Rgba8>{};
}

void ExpectSamePixels(const std::vector<hdrtest::Rgba8>& a, const std::vector<hdrtest::Rgba8>& b)
{
    ASSERT_EQ(a.size(), 77u);
    ASSERT_EQ(b.size(), 77u);
    for (size_t i = 0; i < a.size(); ++i) {
        ASSERT_TRUE(a[i].r == b[i].r && a[i].g == b[i].g && a[i].b == b[i].b && a[i].a == b[i].a)
            << "pixel " << i % 11 << ", " << i / 11;
    }
}

// Bands of 1, 2 and 4 rows (7, 4 and 2 bands: the last one in either of the
// two band textures) give the one-pass bytes.
TEST_F(DrawBands, EveryBandCountEqualsOnePass)
{
    const auto onePass = DrawnWith(display_, std::make_unique<SurfaceCopyImages>(SurfaceCopyImages::kWholeSurface));
    for (const int rows : {1, 2, 4}) {
        SCOPED_TRACE(rows);
        ExpectSamePixels(DrawnWith(display_, std::make_unique<SurfaceCopyImages>(rows)), onePass);
    }
}

// Several bands are drawn into two band textures in turn; one band has only
// the output texture.
TEST_F(DrawBands, SeveralBandsHaveASecondBandTexture)
{
    for (const int rows : {3, SurfaceCopyImages::kWholeSurface}) {
        SCOPED_TRACE(rows);
        EngineHarness harness(11, 7, display_, false, std::make_unique<SurfaceCopyImages>(rows));
        ASSERT_TRUE(harness.ok());
        HdrGenerate* engine = HdrGenerate::GetInstance();
        if (rows == SurfaceCopyImages::kWholeSurface) {
            EXPECT_EQ(engine->bandFramebuffer, 0u);
            EXPECT_EQ(engine->bandTexture, 0u);
            continue;
        }
        ASSERT_NE(engine->bandFramebuffer, 0u);
        ASSERT_TRUE(HdrRender::GetInstance()->Bind());
        glBindFramebuffer(GL_FRAMEBUFFER, engine->bandFramebuffer);
        EXPECT_EQ(glCheckFramebufferStatus(GL_FRAMEBUFFER), static_cast<GLenum>(GL_FRAMEBUFFER_COMPLETE));
        glBindFramebuffer(GL_FRAMEBUFFER, 0);
        glBindTexture(GL_TEXTURE_2D, engine->bandTexture);
        GLint width = 0;
        GLint height = 0;
        glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, GL_TEXTURE_WIDTH, &width);
        glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, GL_TEXTURE_HEIGHT, &height);
        glBindTexture(GL_TEXTURE_2D, 0);
        EXPECT_EQ(width, 11);
        EXPECT_EQ(height, 3);
        ASSERT_TRUE(HdrRender::GetInstance()->Unbind());
    }
}

// A second band framebuffer that cannot be completed leaves none: the bands
// are then drawn into the output texture alone, with the same bytes.
TEST_F(DrawBands, IncompleteSecondBandFallsBackToOneTexture)
{
    const auto onePass = DrawnWith(display_, std::make_unique<SurfaceCopyImages>(SurfaceCopyImages::kWholeSurface));
    EngineHarness harness(11, 7, display_, false, std::make_unique<SurfaceCopyImages>(2));
    ASSERT_TRUE(harness.ok());
    ASSERT_EQ(harness.Upload(hdrtest::MakePlanes(11, 7, 11, 7, 4)), 0);
    HdrGenerate* engine = HdrGenerate::GetInstance();
    engine->hdrInfo.hdrCapacityMax = 2.0f;
    ASSERT_TRUE(HdrRender::GetInstance()->Bind());
    faults::QueueFramebufferStatus(GL_FRAMEBUFFER_COMPLETE);
    faults::QueueFramebufferStatus(GL_FRAMEBUFFER_INCOMPLETE_ATTACHMENT);
    ASSERT_EQ(engine->updateTBM(), 0);
    EXPECT_EQ(engine->bandFramebuffer, 0u);
    EXPECT_EQ(engine->bandTexture, 0u);
    ASSERT_EQ(engine->Draw(), 0);
    ASSERT_TRUE(HdrRender::GetInstance()->Unbind());
    ExpectSamePixels(harness.ReadSurface(), onePass);
}

// Surface-copy images in bands of one row whose store of band 3 fails the
// first time, as a surface that cannot be written would.
class FailingBandImages final : public OutputImages {
public:
    void* Create(EGLInfo& info, void* buffer, EGLint& error) const override
    {
        return copy_.Create(info, buffer, error);
    }
    bool Destroy(EGLInfo& info, void* image, EGLint& error) const override
    {
        return copy_.Destroy(info, image, error);
    }
    void Attach(EGLInfo& info, void* image) const override { copy_.Attach(info, image); }
    OutputBands Bands(const void* image) const override { return copy_.Bands(image); }
    bool StoreBand(void* image, GLuint framebuffer, int index) const override
    {
        if (index == 3 && !failed_) {
            failed_ = true;
            return false;
        }
        return copy_.StoreBand(image, framebuffer, index);
    }

private:
    const SurfaceCopyImages copy_{1};
    mutable bool failed_ = false;
};

// A band failing midway fails the draw and leaves nothing behind: no GL
// error, no framebuffer bound, and the next draw gives the one-pass bytes.
TEST_F(DrawBands, FailedBandLeavesTheEngineUsable)
{
    const auto onePass = DrawnWith(display_, std::make_unique<SurfaceCopyImages>(SurfaceCopyImages::kWholeSurface));
    EngineHarness harness(11, 7, display_, false, std::make_unique<FailingBandImages>());
    ASSERT_TRUE(harness.ok());
    ASSERT_EQ(harness.Upload(hdrtest::MakePlanes(11, 7, 11, 7, 4)), 0);
    HdrGenerate* engine = HdrGenerate::GetInstance();
    engine->hdrInfo.hdrCapacityMax = 2.0f;
    ASSERT_TRUE(HdrRender::GetInstance()->Bind());
    EXPECT_EQ(engine->Draw(), 11);
    EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
    GLint bound = -1;
    glGetIntegerv(GL_FRAMEBUFFER_BINDING, &bound);
    EXPECT_EQ(bound, 0);
    ASSERT_EQ(engine->Draw(), 0);
    ASSERT_TRUE(HdrRender::GetInstance()->Unbind());
    ExpectSamePixels(harness.ReadSurface(), onePass);
}

// The draw leaves no sampler object bound on any plane's unit, whichever
// planes it sampled texel for texel.
TEST_F(DrawPass, NoSamplerStaysBound)
{
    ASSERT_EQ(e_->Draw(), 0);
    for (int unit = 0; unit < 6; ++unit) {
        glActiveTexture(GL_TEXTURE0 + unit);
        GLint sampler = -1;
        glGetIntegerv(GL_SAMPLER_BINDING, &sampler);
        EXPECT_EQ(sampler, 0) << "unit " << unit;
    }
}

// A specialised program takes the registered program's values anew every
// time it is prepared for a draw, not only when it is first built: scalars
// and array elements alike.
TEST_F(DrawPass, SpecialisedProgramTakesEveryDrawsValues)
{
    const GLuint registered = e_->shaderManager->GetProgram();
    ASSERT_NE(registered, 0u);
    GainMapVariant variant;
    variant.inputCurve = 3;
    variant.flatGainChroma = true;
    const GainMapVariantValues values;
    const auto readOn = [](GLuint program, const char* name) {
        GLfloat value = -1.0f;
        glGetUniformfv(program, glGetUniformLocation(program, name), &value);
        return value;
    };
    for (const float weight : {0.25f, 0.75f, 0.5f}) {
        SCOPED_TRACE(weight);
        glUseProgram(registered);
        glUniform1f(glGetUniformLocation(registered, "W"), weight);
        glUniform1f(glGetUniformLocation(registered, "trfn_inv[3]"), weight / 8.0f);
        const GLuint program = PrepareVariant(variant, values);
        ASSERT_NE(program, 0u);
        ASSERT_NE(program, registered);
        EXPECT_EQ(readOn(program, "W"), weight);
        EXPECT_EQ(readOn(program, "trfn_inv[3]"), weight / 8.0f);
    }
    EXPECT_EQ(e_->variantPrograms.BuiltCount(), 1);
    glUseProgram(registered);
}

// A log-domain program takes the constants it is given with every draw, as
// it takes the registered program's values.
TEST_F(DrawPass, LogDomainProgramTakesItsConstantsEveryDraw)
{
    const GLuint registered = e_->shaderManager->GetProgram();
    ASSERT_NE(registered, 0u);
    GainMapVariant variant;
    variant.inputCurve = 3;
    variant.logDomain = true;
    for (const float scale : {0.5f, -2.0f}) {
        SCOPED_TRACE(scale);
        GainMapVariantValues values;
        for (int i = 0; i < 4; ++i) {
            values.logCurves[i] = scale * static_cast<float>(i + 1);
        }
        const GLuint program = PrepareVariant(variant, values);
        ASSERT_NE(program, 0u);
        ASSERT_NE(program, registered);
        GLfloat got[4] = {};
        glGetUniformfv(program, glGetUniformLocation(program, kLogCurveConstantsUniform), got);
        for (int i = 0; i < 4; ++i) {
            EXPECT_EQ(got[i], values.logCurves[i]) << i;
        }
    }
    EXPECT_TRUE(e_->variantPrograms.Built(variant));
    EXPECT_EQ(e_->variantPrograms.BuiltCount(), 1);
    glUseProgram(registered);
}

// The registered program's sRGB-like picture without offsets can be drawn
// in logarithms; an offset on one channel rules that out.
TEST_F(DrawPass, RegisteredValuesDecideTheLogDomain)
{
    const GLuint registered = e_->shaderManager->GetProgram();
    ASSERT_NE(registered, 0u);
    glUseProgram(registered);
    const float inputCurve[7] = {2.4f, 0.94786727f, 0.0521327f, 0.07739938f, 0.04045f, 0.0f, 0.0f};
    const float outputCurve[7] = {0.41666666f, 1.1372833f, 0.0f, 12.92f, 0.0031308f, -0.054969788f, 0.0f};
    glUniform1fv(glGetUniformLocation(registered, "in_trfn"), 7, inputCurve);
    glUniform1fv(glGetUniformLocation(registered, "trfn_inv"), 7, outputCurve);
    glUniform4f(glGetUniformLocation(registered, "epsilonSdr"), 0.0f, 0.0f, 0.0f, 1.0f);
    glUniform4f(glGetUniformLocation(registered, "epsilonHdr"), 0.0f, 0.0f, 0.0f, 1.0f);
    float constants[4] = {};
    ASSERT_TRUE(ReadLogDomainConstants(registered, 3, constants));
    EXPECT_NEAR(constants[0], 0.1855917f, 1e-6f);
    EXPECT_NEAR(constants[2], -3.6915342f, 1e-6f);
    glUniform4f(glGetUniformLocation(registered, "epsilonHdr"), 0.0f, 0.0f, 1.0f / 64.0f, 1.0f);
    EXPECT_FALSE(ReadLogDomainConstants(registered, 3, constants));
}

// The registered program's gain curve decides the straight-line programs:
// the factory curve is one, the same curve with one gradient bent is not.
TEST_F(DrawPass, RegisteredValuesDecideTheStraightGainCurve)
{
    const GLuint registered = e_->shaderManager->GetProgram();
    ASSERT_NE(registered, 0u);
    glUseProgram(registered);
    glUniform3f(glGetUniformLocation(registered, "curve_gain_point"), 0.0f, 0.5f, 1.0f);
    glUniform3f(glGetUniformLocation(registered, "curve_gain_grad"), 0.5f, 0.5f, 0.5f);
    EXPECT_TRUE(ReadAffineGainCurve(registered));
    glUniform3f(glGetUniformLocation(registered, "curve_gain_grad"), 0.5f, 0.5f, 0.5f + 1.0f / 512);
    EXPECT_FALSE(ReadAffineGainCurve(registered));
    EXPECT_FALSE(ReadAffineGainCurve(0)) << "no program, no curve";
    while (glGetError() != GL_NO_ERROR) {
    }
}

// An output twice the planes' size is filtered: the two output pixels over
// each texel differ where the neighbouring texels do (texel for texel they
// would be equal).
TEST_F(DrawBands, ScaledOutputIsFiltered)
{
    const hdrtest::Planes planes = hdrtest::MakePlanes(11, 7, 11, 7, 3);
    EngineHarness harness(22, 14, display_);
    ASSERT_TRUE(harness.ok());
    ASSERT_EQ(harness.Upload(planes), 0);
    HdrGenerate* engine = HdrGenerate::GetInstance();
    engine->hdrInfo.hdrCapacityMax = 2.0f;
    ASSERT_TRUE(HdrRender::GetInstance()->Bind());
    ASSERT_EQ(engine->Draw(), 0);
    ASSERT_TRUE(HdrRender::GetInstance()->Unbind());
    const auto pixels = harness.ReadSurface();
    ASSERT_EQ(pixels.size(), 22u * 14u);
    int differing = 0;
    int pairs = 0;
    for (int y = 1; y < 13; ++y) {
        for (int x = 2; x < 20; x += 2) {
            const auto& a = pixels[y * 22 + x];
            const auto& b = pixels[y * 22 + x + 1];
            differing += (a.r != b.r || a.g != b.g || a.b != b.b) ? 1 : 0;
            ++pairs;
        }
    }
    EXPECT_GT(differing, pairs / 2) << differing << " of " << pairs << " pairs differ";
}

// A gain map of half the output's size is filtered; read from the packed
// texture it gives the pixels its three planes give, to one code, with and
// without offsets (the multiplying and the logarithmic programs), packed by
// the direct mode's intake or as the streaming mode's planes came in.
TEST_F(DrawBands, PackedGainMapDrawsAsItsThreePlanes)
{
    const hdrtest::Planes planes = hdrtest::MakePlanes(44, 28, 22, 14, 5);
    for (int run = 0; run < 4; ++run) {
        const bool offsets = run < 2;
        const bool streaming = run % 2 == 1;
        SCOPED_TRACE(::testing::Message() << (offsets ? "offsets, " : "no offsets, ")
                                          << (streaming ? "streaming" : "direct"));
        EngineHarness harness(44, 28, display_, streaming);
        ASSERT_TRUE(harness.ok());
        if (streaming) {
            ASSERT_EQ(harness.Intake(planes, 44, 28), 0);
            ASSERT_TRUE(harness.Stream(planes));
            ASSERT_EQ(harness.Intake(planes, 44, 28), 0);
        } else {
            ASSERT_EQ(harness.Upload(planes), 0);
        }
        HdrGenerate* engine = HdrGenerate::GetInstance();
        engine->hdrInfo.hdrCapacityMax = 2.0f;
        for (int c = 0; c < 3; ++c) {
            engine->hdrInfo.offsetSdr[c] = offsets ? 0.015625f : 0.0f;
            engine->hdrInfo.offsetHdr[c] = offsets ? 0.03125f : 0.0f;
        }
        ASSERT_TRUE(engine->packedGain.Current());
        GainMapVariant variant;
        variant.inputCurve = 3;
        variant.logDomain = !offsets;
        variant.affineGainCurve = true;  // the factory gain curve
        std::vector<hdrtest::Rgba8> drawn[2];
        for (const bool packed : {true, false}) {
            if (!packed) {
                engine->packedGain.Invalidate();
            }
            ASSERT_TRUE(HdrRender::GetInstance()->Bind());
            ASSERT_EQ(engine->Draw(), 0);
            ASSERT_TRUE(HdrRender::GetInstance()->Unbind());
            variant.packedGain = packed;
            EXPECT_TRUE(engine->variantPrograms.Built(variant)) << (packed ? "packed" : "three planes");
            drawn[packed ? 0 : 1] = harness.ReadSurface();
        }
        ASSERT_EQ(drawn[0].size(), 44u * 28u);
        ASSERT_EQ(drawn[1].size(), drawn[0].size());
        int largest = 0;
        int differing = 0;
        for (size_t i = 0; i < drawn[0].size(); ++i) {
            const hdrtest::Rgba8& a = drawn[0][i];
            const hdrtest::Rgba8& b = drawn[1][i];
            const int d = std::max({std::abs(a.r - b.r), std::abs(a.g - b.g), std::abs(a.b - b.b)});
            largest = std::max(largest, d);
            differing += d > 0 ? 1 : 0;
        }
        EXPECT_LE(largest, 1) << differing << " pixels differ";
    }
}

}  // namespace
