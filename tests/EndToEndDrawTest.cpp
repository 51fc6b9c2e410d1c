// End-to-end pixel tests of the generation engine on llvmpipe: planes and
// metadata go in, HdrGenerate::Draw() computes the shader constants itself
// and draws, and the surface's bytes are read back through the buffer
// manager's map. Every pixel is compared with the CPU model of the fragment
// stage (support/GainMapModel), driven by constants that the test computes
// on its own from the metadata, the tuning values and the picture level
// (support/ConstantsModel) -- never by the engine's constant code.
//
// Main image, gain map and output have the same size, so each output pixel
// samples exactly one texel of each plane: texel (x, y) without rotation, and
// the texel worked out from the rotation and mirror matrix on square
// pictures. A pixel passes when each of its four codes lies in the model's
// interval (what the samplers' error and the conversion to 8 bits explain)
// widened by one code for the GPU's single-precision arithmetic; alpha must
// be 255 and no pixel may keep the sentinel written before the draw.
//
// The uniforms the engine sent are also read back from the program and
// compared with the test's constants, so that a difference in the picture
// can be traced to the constant that caused it.
#include "ConstantsModel.h"
#include "EglTestEnv.h"
#include "EngineHarness.h"
#include "GainMapModel.h"
#include "HdrGainMapVariant.h"
#include "HdrGenerate.h"
#include "HdrOutputImages.h"
#include "HdrRender.h"
#include "TSShaderManager.h"

#include <GLES3/gl3.h>
#include <gtest/gtest.h>
#include <tbm_surface.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

namespace {

using hdrtest::ConstantsTrace;
using hdrtest::EngineHarness;
using hdrtest::GainMapUniforms;
using hdrtest::ModelPixel;
using hdrtest::PictureMetadata;
using hdrtest::PixelSamples;
using hdrtest::Planes;
using hdrtest::Rgba8;
using hdrtest::TuningValues;

// An odd size for the unrotated pictures, a square one for the rotations.
constexpr int kWidth = 37;
constexpr int kHeight = 23;
constexpr int kSquare = 29;

// How far a value sampled through a mediump sampler may be from code / 255.
constexpr double kSamplerError = 2.5e-3;
// Codes allowed beyond the model's interval, for single-precision arithmetic.
constexpr int kArithmeticCodes = 1;
// Distinct codes each colour channel of a picture must show at least.
constexpr int kMinimumDistinctCodes = 64;

// ---------------------------------------------------------------------------
// Plane patterns
// ---------------------------------------------------------------------------

using Plane = std::vector<uint8_t>;

// Pixel i (row-major) gets (i * step + offset) mod 256; an odd step visits
// every code.
Plane Ramp(int w, int h, int step, int offset)
{
    Plane p(static_cast<size_t>(w) * h);
    for (size_t i = 0; i < p.size(); ++i) {
        p[i] = static_cast<uint8_t>((static_cast<int>(i) * step + offset) & 0xFF);
    }
    return p;
}

// Codes drawn evenly from [lo, hi] by a fixed-seed Mersenne twister.
Plane Random(int w, int h, uint32_t seed, int lo = 0, int hi = 255)
{
    std::mt19937 rng(seed);
    Plane p(static_cast<size_t>(w) * h);
    for (auto& v : p) {
        v = static_cast<uint8_t>(lo + static_cast<int>(rng() % static_cast<uint32_t>(hi - lo + 1)));
    }
    return p;
}

// A full-range main image (a luma ramp, moderate chroma) and a gain map whose
// luma covers every code with chroma that makes the three channels' gains
// differ.
Planes VariedPlanes(int w, int h, uint32_t seed)
{
    Planes p;
    p.mainWidth = p.gainWidth = w;
    p.mainHeight = p.gainHeight = h;
    p.main[0] = Ramp(w, h, 7, 3);
    p.main[1] = Random(w, h, seed + 1, 40, 216);
    p.main[2] = Random(w, h, seed + 2, 40, 216);
    p.gain[0] = Ramp(w, h, 11, 5);
    p.gain[1] = Random(w, h, seed + 3, 96, 160);
    p.gain[2] = Random(w, h, seed + 4, 96, 160);
    return p;
}

// Every plane pseudo-random over the whole code range: saturated chroma and
// negative RGB included, and no two neighbouring texels alike, so that a
// pixel sampling the wrong texel shows.
Planes RandomPlanes(int w, int h, uint32_t seed)
{
    Planes p;
    p.mainWidth = p.gainWidth = w;
    p.mainHeight = p.gainHeight = h;
    for (int i = 0; i < 3; ++i) {
        p.main[i] = Random(w, h, seed + i);
        p.gain[i] = Random(w, h, seed + 3 + i);
    }
    return p;
}

// ---------------------------------------------------------------------------
// One job: the metadata, the set's tuning and the output form
// ---------------------------------------------------------------------------

struct Job {
    PictureMetadata metadata;
    TuningValues tuning;
    bool outputYUV = false;
    bool overrideApl = false;  // replace the level the upload computed
    int32_t apl = 0;
    bool generalProgram = false;  // draw with the registered program, not the picture's specialised one
    bool checkVariant = false;    // the specialised program built must be expectedVariant's
    GainMapVariant expectedVariant;
};

// Defaults: a 0..3 stop capacity, a display boost of 8 (both thresholds'
// values alike), sRGB input, no rotation.
Job DefaultJob()
{
    Job job;
    job.metadata.gainMapMin = {{0.0f, 0.0f, 0.0f}};
    job.metadata.gainMapMax = {{2.0f, 2.0f, 2.0f}};
    job.metadata.hdrCapacityMin = 0.0f;
    job.metadata.hdrCapacityMax = 3.0f;
    job.tuning.MDB_V1 = 1023;
    job.tuning.MDB_V2 = 1023;
    return job;
}

// ---------------------------------------------------------------------------
// Reading the uniforms back
// ---------------------------------------------------------------------------

bool Near(double got, double expected)
{
    if (std::isnan(expected)) {
        return std::isnan(got);
    }
    return std::fabs(got - expected) <= 2e-5 * std::max(1.0, std::fabs(expected));
}

// Compares each value of the program's uniforms with the test's constants.
void ExpectUniforms(GLuint program, const GainMapUniforms& u)
{
    const auto floats = [program](const std::string& name, const float* expected, int count) {
        const GLint location = glGetUniformLocation(program, name.c_str());
        ASSERT_NE(location, -1) << name;
        float got[16] = {};
        glGetUniformfv(program, location, got);
        for (int i = 0; i < count; ++i) {
            EXPECT_TRUE(Near(got[i], expected[i]))
                << "uniform " << name << " component " << i << ": expected " << expected[i]
                << ", the engine sent " << got[i];
        }
    };
    const auto array = [program](const std::string& name, const float* expected, int count) {
        for (int i = 0; i < count; ++i) {
            const std::string element = name + "[" + std::to_string(i) + "]";
            const GLint location = glGetUniformLocation(program, element.c_str());
            ASSERT_NE(location, -1) << element;
            float got = 0;
            glGetUniformfv(program, location, &got);
            EXPECT_TRUE(Near(got, expected[i])) << "uniform " << element << ": expected "
                                                << expected[i] << ", the engine sent " << got;
        }
    };
    const auto integer = [program](const std::string& name, int expected) {
        const GLint location = glGetUniformLocation(program, name.c_str());
        ASSERT_NE(location, -1) << name;
        GLint got = -12345;
        glGetUniformiv(program, location, &got);
        EXPECT_EQ(got, expected) << "uniform " << name;
    };
    floats("logRatioMin", u.logRatioMin.data(), 4);
    floats("logRatioMax", u.logRatioMax.data(), 4);
    floats("gainmapGamma", u.gainmapGamma.data(), 4);
    floats("epsilonSdr", u.epsilonSdr.data(), 4);
    floats("epsilonHdr", u.epsilonHdr.data(), 4);
    floats("W", &u.W, 1);
    integer("noGamma", u.noGamma);
    array("trfn_inv", u.trfn_inv.data(), 7);
    floats("curve_gain_point", u.curve_gain_point.data(), 3);
    floats("curve_gain_grad", u.curve_gain_grad.data(), 3);
    integer("bOutputYUV", u.bOutputYUV);
    integer("inputTrfnType", u.inputTrfnType);
    if (u.inputTrfnType != 0) {
        // Linear input is not decoded: what in_trfn holds then is free.
        array("in_trfn", u.in_trfn.data(), 7);
    }
    floats("rotateMatrix", u.rotateMatrix.data(), 16);
    EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
}

// ---------------------------------------------------------------------------
// The draw and the comparison
// ---------------------------------------------------------------------------

struct Summary {
    int pixels = 0;
    int largestFromNominal = 0;     // |got - round(255 nominal)|
    int largestBeyondNominal = 0;   // codes outside [floor, ceil] of 255 nominal
    int largestBeyondInterval = 0;  // codes outside [codeLo, codeHi]
    int fewestDistinct = 256;       // distinct codes of the least varied channel
};

Summary& Total()
{
    static Summary total;
    return total;
}

class SummaryPrinter : public ::testing::Environment {
public:
    void TearDown() override
    {
        const Summary& s = Total();
        std::cout << "[end-to-end] all tests: " << s.pixels << " pixels, largest difference "
                  << s.largestFromNominal << " code(s) from the nominal value, "
                  << s.largestBeyondNominal << " beyond its two neighbouring codes, "
                  << s.largestBeyondInterval << " beyond the sampler-error interval\n";
    }
};

[[maybe_unused]] ::testing::Environment* const kSummaryPrinter =
    ::testing::AddGlobalTestEnvironment(new SummaryPrinter);

const char* const kChannelNames[2][4] = {{"R", "G", "B", "A"}, {"Y", "U", "V", "A"}};

std::string CurrentTestName()
{
    const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
    return info != nullptr ? std::string(info->test_suite_name()) + "." + info->name() : "?";
}

class EndToEndDraw : public hdrtest::EglTest {
protected:
    // Uploads the planes, sets the job's metadata, tuning and output form on
    // the engine, draws with HdrGenerate::Draw() and compares every pixel
    // with the model under the test's own constants.
    void DrawAndCompare(const Planes& planes, const Job& job, const std::string& label = "")
    {
        const int w = planes.mainWidth;
        const int h = planes.mainHeight;
        ASSERT_EQ(planes.gainWidth, w);
        ASSERT_EQ(planes.gainHeight, h);
        const PictureMetadata& md = job.metadata;
        const bool rotated = !(md.outputRotate < 1 || md.outputRotate > 3) || md.outputMirror;
        ASSERT_TRUE(!rotated || w == h) << "rotations are checked on square pictures";

        EngineHarness harness(w, h, display_, false,
                              bandRows_ != 0 ? std::make_unique<SurfaceCopyImages>(bandRows_) : nullptr);
        ASSERT_TRUE(harness.ok());
        ASSERT_EQ(harness.Upload(planes), 0);
        HdrGenerate* engine = HdrGenerate::GetInstance();

        // The picture level: the truncated mean of the main image's luma.
        int32_t apl = hdrtest::AveragePictureLevel(planes.main[0].data(), w, h);
        EXPECT_EQ(engine->apl, apl) << "picture level computed by the upload";
        if (job.overrideApl) {
            apl = job.apl;
            engine->apl = apl;
        }

        // A sentinel in every byte of the surface, so unwritten pixels show.
        {
            tbm_surface_info_s info;
            ASSERT_EQ(tbm_surface_map(engine->tbmSurface, TBM_SURF_OPTION_WRITE, &info), 0);
            std::memset(info.planes[0].ptr, EngineHarness::kSentinel, info.planes[0].size);
            tbm_surface_unmap(engine->tbmSurface);
        }

        ConstantsTrace trace;
        const GainMapUniforms u =
            hdrtest::ComputeConstants(md, job.tuning, apl, job.outputYUV, &trace);

        HdrRender* render = HdrRender::GetInstance();
        ASSERT_TRUE(render->Bind());
        HdrInfo& info = engine->hdrInfo;
        for (int c = 0; c < 3; ++c) {
            info.gainMapMin[c] = md.gainMapMin[c];
            info.gainMapMax[c] = md.gainMapMax[c];
            info.gamma[c] = md.gamma[c];
        }
        // The fourth components are not read; values that would show if they were.
        info.gainMapMin[3] = 5.0f;
        info.gainMapMax[3] = -5.0f;
        info.gamma[3] = 0.0f;
        for (int c = 0; c < 4; ++c) {
            info.offsetSdr[c] = md.offsetSdr[c];
            info.offsetHdr[c] = md.offsetHdr[c];
        }
        info.hdrCapacityMin = md.hdrCapacityMin;
        info.hdrCapacityMax = md.hdrCapacityMax;
        info.gamut = static_cast<hdr_color_gamut>(md.gamut);
        info.trfn = static_cast<hdr_transfer_function>(md.trfn);
        info.outputRotate = md.outputRotate;
        info.outputMirror = md.outputMirror;
        info.outputWidth = w;
        info.outputHeight = h;
        // The record's own tuning fields are not the ones used: make them
        // differ from the set's.
        info.MDB_V1 = info.MDB_V2 = 1;
        info.GAMMA_MUL = 1;

        HdrFactorySettings::Parameter& p = engine->factoryParameter;
        const TuningValues& t = job.tuning;
        p.MDB_V1 = t.MDB_V1;
        p.MDB_V2 = t.MDB_V2;
        p.MDB_T1 = t.MDB_T1;
        p.MDB_T2 = t.MDB_T2;
        p.GAMMA_MUL = t.GAMMA_MUL;
        p.GAIN_CURVE_P0 = t.GAIN_CURVE_P0;
        p.GAIN_CURVE_P1 = t.GAIN_CURVE_P1;
        p.GAIN_CURVE_P2 = t.GAIN_CURVE_P2;
        p.GAIN_CURVE_G0 = t.GAIN_CURVE_G0;
        p.GAIN_CURVE_G1 = t.GAIN_CURVE_G1;
        p.GAIN_CURVE_G2 = t.GAIN_CURVE_G2;
        engine->outputYUV = job.outputYUV;
        engine->useSpecialisedPrograms = !job.generalProgram;

        const int drawResult = engine->Draw();
        EXPECT_EQ(drawResult, 0);
        EXPECT_TRUE(engine->isGenerated);
        // The upload saw whether the gain map's chroma is flat.
        const auto flatPlane = [](const std::vector<uint8_t>& p) {
            return std::all_of(p.begin(), p.end(), [&p](uint8_t v) { return v == p.front(); });
        };
        EXPECT_EQ(engine->gainChroma.Flat(), flatPlane(planes.gain[1]) && flatPlane(planes.gain[2]));
        // One specialised program for the picture's class, or none.
        EXPECT_EQ(engine->variantPrograms.BuiltCount(), job.generalProgram ? 0 : 1);
        if (job.checkVariant && !job.generalProgram) {
            EXPECT_TRUE(engine->variantPrograms.Built(job.expectedVariant)) << "not the expected class's program";
        }
        GLint current = 0;
        glGetIntegerv(GL_CURRENT_PROGRAM, &current);
        EXPECT_EQ(static_cast<GLuint>(current), engine->shaderManager->GetProgram())
            << "the registered program is current again after the draw";
        ExpectUniforms(engine->shaderManager->GetProgram(), u);
        ASSERT_TRUE(render->Unbind());
        ASSERT_EQ(drawResult, 0);

        const std::vector<Rgba8> px = harness.ReadSurface();
        ASSERT_EQ(px.size(), static_cast<size_t>(w) * h);

        Summary s;
        int mismatches = 0;
        int sentinels = 0;
        int alphas = 0;
        const int yuv = u.bOutputYUV == 1 ? 1 : 0;
        for (int y = 0; y < h; ++y) {
            for (int x = 0; x < w; ++x) {
                std::array<int, 2> texel{{x, y}};
                if (w == h) {
                    texel = hdrtest::SampledTexel(md.outputRotate, md.outputMirror, w, x, y);
                }
                const size_t i = static_cast<size_t>(texel[1]) * w + texel[0];
                const PixelSamples samples = PixelSamples::FromCodes(
                    planes.main[0][i], planes.main[1][i], planes.main[2][i], planes.gain[0][i],
                    planes.gain[1][i], planes.gain[2][i]);
                const ModelPixel m = hdrtest::Evaluate(samples, u, kSamplerError);
                const Rgba8& q = px[static_cast<size_t>(y) * w + x];
                if (q.r == EngineHarness::kSentinel && q.g == EngineHarness::kSentinel &&
                    q.b == EngineHarness::kSentinel && q.a == EngineHarness::kSentinel) {
                    ++sentinels;
                }
                if (q.a != 255 && ++alphas <= 5) {
                    ADD_FAILURE() << "alpha " << int(q.a) << " at surface pixel (" << x << ", "
                                  << y << ")";
                }
                const int got[4] = {q.r, q.g, q.b, q.a};
                for (int c = 0; c < 4; ++c) {
                    const hdrtest::ChannelBound& b = m.channel[c];
                    s.largestFromNominal =
                        std::max(s.largestFromNominal, std::abs(got[c] - b.nominalCode));
                    s.largestBeyondNominal = std::max(
                        s.largestBeyondNominal,
                        std::max({0, b.nominalCodeLo - got[c], got[c] - b.nominalCodeHi}));
                    const int beyond = std::max({0, b.codeLo - got[c], got[c] - b.codeHi});
                    s.largestBeyondInterval = std::max(s.largestBeyondInterval, beyond);
                    if (beyond > kArithmeticCodes && ++mismatches <= 20) {
                        ADD_FAILURE()
                            << "surface pixel (" << x << ", " << y << ") sampling texel ("
                            << texel[0] << ", " << texel[1] << ") channel "
                            << kChannelNames[yuv][c] << ": got " << got[c] << ", expected codes ["
                            << b.codeLo << ", " << b.codeHi << "] +-" << kArithmeticCodes
                            << " (nominal " << b.nominal << " = code " << b.nominalCode
                            << ", value range [" << b.value.lo << ", " << b.value.hi
                            << "]); planes main " << int(planes.main[0][i]) << "/"
                            << int(planes.main[1][i]) << "/" << int(planes.main[2][i])
                            << " gain " << int(planes.gain[0][i]) << "/"
                            << int(planes.gain[1][i]) << "/" << int(planes.gain[2][i]);
                    }
                }
                ++s.pixels;
            }
        }
        // The picture must carry information in every channel, or a wrong
        // constant could hide in black or saturated pixels.
        for (int c = 0; c < 3; ++c) {
            std::vector<bool> seen(256, false);
            int distinct = 0;
            for (const Rgba8& q : px) {
                const uint8_t v = c == 0 ? q.r : c == 1 ? q.g : q.b;
                distinct += seen[v] ? 0 : 1;
                seen[v] = true;
            }
            EXPECT_GE(distinct, kMinimumDistinctCodes)
                << "channel " << kChannelNames[yuv][c] << " shows too few codes to test anything";
            s.fewestDistinct = std::min(s.fewestDistinct, distinct);
        }
        EXPECT_EQ(mismatches, 0) << "pixels outside the model's interval (MDB " << trace.mdb
                                 << ", boost " << trace.boost << ", W " << u.W << ", APL " << apl
                                 << ")";
        EXPECT_EQ(sentinels, 0) << "pixels still holding the sentinel";
        EXPECT_EQ(alphas, 0) << "pixels whose alpha is not 255";

        Summary& total = Total();
        total.pixels += s.pixels;
        total.largestFromNominal = std::max(total.largestFromNominal, s.largestFromNominal);
        total.largestBeyondNominal = std::max(total.largestBeyondNominal, s.largestBeyondNominal);
        total.largestBeyondInterval =
            std::max(total.largestBeyondInterval, s.largestBeyondInterval);
        RecordProperty("largest_difference_from_nominal_codes", s.largestFromNominal);
        RecordProperty("largest_codes_beyond_nominal_neighbours", s.largestBeyondNominal);
        RecordProperty("largest_codes_beyond_interval", s.largestBeyondInterval);
        std::cout << "[end-to-end] " << CurrentTestName() << label << ": " << s.pixels
                  << " pixels, APL " << apl << ", MDB " << trace.mdb << ", boost " << trace.boost
                  << ", W " << u.W << (trace.outputCurveFallback ? ", fixed sRGB curve" : "")
                  << "; largest difference " << s.largestFromNominal
                  << " code(s) from nominal, " << s.largestBeyondNominal
                  << " beyond its two neighbouring codes, " << s.largestBeyondInterval
                  << " beyond the sampler-error interval; at least " << s.fewestDistinct
                  << " distinct codes per channel\n";
    }

    // Rows per pass of surface-copy output images; 0 builds the engine with
    // this build's kind.
    int bandRows_ = 0;
};

// ---------------------------------------------------------------------------
// Gain-map metadata
// ---------------------------------------------------------------------------

// Each channel takes its own gain range from the per-channel minimum and maximum.
TEST_F(EndToEndDraw, PerChannelGainMapRanges)
{
    Job job = DefaultJob();
    job.metadata.gainMapMin = {{-0.5f, 0.0f, 0.25f}};
    job.metadata.gainMapMax = {{2.5f, 1.5f, 3.0f}};
    job.tuning.MDB_V1 = job.tuning.MDB_V2 = 768;  // boost 6 of a 0..3 stop capacity
    DrawAndCompare(VariedPlanes(kWidth, kHeight, 101), job);
}

// A per-channel gamma, scaled by a multiplier other than 1.0, shapes the gain map.
TEST_F(EndToEndDraw, GammaWithMultiplier)
{
    Job job = DefaultJob();
    job.metadata.gamma = {{2.2f, 0.6f, 1.3f}};
    job.metadata.gainMapMin = {{-0.25f, -0.25f, -0.25f}};
    job.metadata.gainMapMax = {{2.75f, 2.75f, 2.75f}};
    job.tuning.GAMMA_MUL = 160;  // 1.25
    DrawAndCompare(VariedPlanes(kWidth, kHeight, 111), job);
}

// A gamma that the multiplier cancels exactly leaves the gain map unshaped.
TEST_F(EndToEndDraw, GammaCancelledByMultiplier)
{
    Job job = DefaultJob();
    job.metadata.gamma = {{0.5f, 0.5f, 0.5f}};
    job.tuning.GAMMA_MUL = 256;  // 2.0
    DrawAndCompare(VariedPlanes(kWidth, kHeight, 121), job);
}

// SDR and HDR offsets are added before and taken off after the gain, per channel.
TEST_F(EndToEndDraw, Offsets)
{
    Job job = DefaultJob();
    job.metadata.offsetSdr = {{0.015625f, 0.03f, 0.0f, 1.0f}};
    job.metadata.offsetHdr = {{0.02f, 0.0f, 0.05f, 1.0f}};
    job.metadata.gainMapMin = {{-1.0f, -0.5f, 0.0f}};
    job.metadata.gainMapMax = {{2.0f, 2.5f, 1.5f}};
    DrawAndCompare(VariedPlanes(kWidth, kHeight, 131), job);
}

// ---------------------------------------------------------------------------
// Display boost and the weight
// ---------------------------------------------------------------------------

// A boost at or below the content's minimum capacity clamps the weight to 0: the SDR rendition.
TEST_F(EndToEndDraw, WeightClampedToZero)
{
    Job job = DefaultJob();
    job.metadata.hdrCapacityMin = 2.0f;
    job.metadata.hdrCapacityMax = 4.0f;
    job.tuning.MDB_V1 = job.tuning.MDB_V2 = 384;  // boost 3 < 2^2
    job.metadata.gainMapMax = {{3.0f, 3.0f, 3.0f}};
    DrawAndCompare(VariedPlanes(kWidth, kHeight, 141), job);
}

// A display boost above the content's maximum capacity gives the weight 1: the full HDR rendition.
TEST_F(EndToEndDraw, WeightClampedToOne)
{
    Job job = DefaultJob();
    job.metadata.hdrCapacityMin = 0.5f;
    job.metadata.hdrCapacityMax = 1.5f;
    job.tuning.MDB_V1 = job.tuning.MDB_V2 = 640;  // MDB 5 > 2^1.5
    job.metadata.gainMapMin = {{0.0f, 0.0f, 0.0f}};
    job.metadata.gainMapMax = {{1.5f, 1.5f, 1.5f}};
    DrawAndCompare(VariedPlanes(kWidth, kHeight, 151), job);
}

// A picture level between the thresholds blends the display boost; the weight lies in between.
TEST_F(EndToEndDraw, WeightBetweenFromBlendedBoost)
{
    Job job = DefaultJob();
    job.metadata.hdrCapacityMin = 0.5f;
    job.metadata.hdrCapacityMax = 3.5f;
    job.tuning.MDB_V1 = 256;  // 2.0
    job.tuning.MDB_V2 = 896;  // 7.0
    job.tuning.MDB_T1 = 20;
    job.tuning.MDB_T2 = 220;  // the luma ramp's level lies between
    DrawAndCompare(VariedPlanes(kWidth, kHeight, 161), job);
}

// A picture level below the low threshold takes the first boost value.
TEST_F(EndToEndDraw, LevelBelowLowThresholdTakesFirstBoost)
{
    Job job = DefaultJob();
    job.tuning.MDB_V1 = 320;  // 2.5
    job.tuning.MDB_V2 = 1000;
    job.tuning.MDB_T1 = 60;
    job.tuning.MDB_T2 = 180;
    job.overrideApl = true;
    job.apl = 59;
    DrawAndCompare(VariedPlanes(kWidth, kHeight, 171), job);
}

// A picture level above the high threshold takes the second boost value.
TEST_F(EndToEndDraw, LevelAboveHighThresholdTakesSecondBoost)
{
    Job job = DefaultJob();
    job.tuning.MDB_V1 = 1000;
    job.tuning.MDB_V2 = 200;  // 1.5625
    job.tuning.MDB_T1 = 60;
    job.tuning.MDB_T2 = 180;
    job.overrideApl = true;
    job.apl = 181;
    DrawAndCompare(VariedPlanes(kWidth, kHeight, 181), job);
}

// A zero display boost gives the weight 0 and the fixed inverse sRGB output curve.
TEST_F(EndToEndDraw, ZeroBoostFallsBackToFixedCurve)
{
    Job job = DefaultJob();
    job.tuning.MDB_V1 = 0;
    job.tuning.MDB_T1 = 100;
    job.overrideApl = true;
    job.apl = 10;
    job.metadata.offsetSdr = {{0.01f, 0.02f, 0.03f, 1.0f}};
    DrawAndCompare(VariedPlanes(kWidth, kHeight, 191), job);
}

// ---------------------------------------------------------------------------
// Input curves and output form
// ---------------------------------------------------------------------------

// Linear input is used as it is, without decoding.
TEST_F(EndToEndDraw, LinearInput)
{
    Job job = DefaultJob();
    job.metadata.trfn = 0;
    job.metadata.gainMapMin = {{-0.5f, -0.5f, -0.5f}};
    job.metadata.gainMapMax = {{1.5f, 2.0f, 2.5f}};
    DrawAndCompare(VariedPlanes(kWidth, kHeight, 201), job);
}

// HLG input is decoded with the HLG-form curve.
TEST_F(EndToEndDraw, HlgInput)
{
    Job job = DefaultJob();
    job.metadata.trfn = 1;
    job.metadata.gainMapMin = {{-3.0f, -3.0f, -3.0f}};
    job.metadata.gainMapMax = {{0.5f, 0.0f, 1.0f}};
    DrawAndCompare(VariedPlanes(kWidth, kHeight, 211), job);
}

// PQ input is decoded with the PQ-form curve.
TEST_F(EndToEndDraw, PqInput)
{
    Job job = DefaultJob();
    job.metadata.trfn = 2;
    job.metadata.gainMapMin = {{2.0f, 2.0f, 2.0f}};
    job.metadata.gainMapMax = {{5.0f, 5.5f, 6.0f}};
    DrawAndCompare(VariedPlanes(kWidth, kHeight, 221), job);
}

// sRGB input is decoded with the sRGB curve, over the whole code range of every plane.
TEST_F(EndToEndDraw, SrgbInput)
{
    Job job = DefaultJob();
    job.metadata.trfn = 3;
    job.metadata.gainMapMin = {{-1.0f, -1.0f, -1.0f}};
    job.metadata.gainMapMax = {{2.0f, 2.5f, 3.0f}};
    DrawAndCompare(RandomPlanes(kWidth, kHeight, 231), job);
}

// YUV output writes the encoded picture as Y, U, V with the output's own weights.
TEST_F(EndToEndDraw, YuvOutput)
{
    Job job = DefaultJob();
    job.outputYUV = true;
    job.metadata.gainMapMin = {{-0.5f, 0.0f, 0.5f}};
    job.metadata.gainMapMax = {{2.0f, 2.5f, 3.0f}};
    DrawAndCompare(VariedPlanes(kWidth, kHeight, 241), job);
}

// Wide gamuts are accepted and rendered unconverted, like BT709.
TEST_F(EndToEndDraw, WideGamutsRenderUnconverted)
{
    for (int gamut : {1, 2}) {
        SCOPED_TRACE("gamut " + std::to_string(gamut));
        Job job = DefaultJob();
        job.metadata.gamut = gamut;
        job.metadata.gainMapMax = {{1.5f, 2.0f, 2.5f}};
        DrawAndCompare(VariedPlanes(kWidth, kHeight, 251), job,
                       " (gamut " + std::to_string(gamut) + ")");
    }
}

// The tuning's gain curve: points in 1024ths, gradients in 512ths.
void SetGainCurve(TuningValues* tuning, const std::array<int32_t, 3>& points, const std::array<int32_t, 3>& grads)
{
    tuning->GAIN_CURVE_P0 = points[0];
    tuning->GAIN_CURVE_P1 = points[1];
    tuning->GAIN_CURVE_P2 = points[2];
    tuning->GAIN_CURVE_G0 = grads[0];
    tuning->GAIN_CURVE_G1 = grads[1];
    tuning->GAIN_CURVE_G2 = grads[2];
}

// A factory gain curve other than the identity reshapes the gain map before the gain.
TEST_F(EndToEndDraw, FactoryGainCurve)
{
    Job job = DefaultJob();
    SetGainCurve(&job.tuning, {100, 400, 900}, {700, 100, 300});
    job.metadata.gainMapMin = {{-1.0f, -1.0f, -1.0f}};
    job.metadata.gainMapMax = {{3.0f, 3.0f, 3.0f}};
    DrawAndCompare(VariedPlanes(kWidth, kHeight, 261), job);
}

// A gain curve that is a straight line other than the identity takes the
// program whose curve is one multiply-add, and matches the model; the same
// line bent by one step of its last gradient takes the cubic curve.
TEST_F(EndToEndDraw, StraightGainCurveTakesTheMultiplyAddProgram)
{
    for (const bool bent : {false, true}) {
        SCOPED_TRACE(bent ? "bent" : "straight");
        Job job = DefaultJob();
        SetGainCurve(&job.tuning, {100, 400, 700}, {150, 150, bent ? 151 : 150});
        job.metadata.gainMapMin = {{-1.0f, -1.0f, -1.0f}};
        job.metadata.gainMapMax = {{3.0f, 3.0f, 3.0f}};
        job.checkVariant = true;
        job.expectedVariant.inputCurve = 3;
        job.expectedVariant.logDomain = true;
        job.expectedVariant.affineGainCurve = !bent;
        DrawAndCompare(VariedPlanes(kWidth, kHeight, 263), job);
    }
}

// Everything at once: per-channel ranges, gamma, offsets, a blended boost, a gain curve, YUV out.
TEST_F(EndToEndDraw, EverythingCombined)
{
    Job job = DefaultJob();
    job.metadata.gainMapMin = {{-0.75f, 0.25f, -0.25f}};
    job.metadata.gainMapMax = {{2.25f, 1.75f, 3.0f}};
    job.metadata.gamma = {{1.8f, 0.9f, 1.1f}};
    job.metadata.offsetSdr = {{0.01f, 0.02f, 0.005f, 1.0f}};
    job.metadata.offsetHdr = {{0.015f, 0.01f, 0.02f, 1.0f}};
    job.metadata.hdrCapacityMin = 0.25f;
    job.metadata.hdrCapacityMax = 2.75f;
    job.tuning.MDB_V1 = 200;
    job.tuning.MDB_V2 = 700;
    job.tuning.MDB_T1 = 30;
    job.tuning.MDB_T2 = 230;
    job.tuning.GAMMA_MUL = 100;
    SetGainCurve(&job.tuning, {30, 560, 1000}, {400, 200, 150});
    job.outputYUV = true;
    DrawAndCompare(VariedPlanes(kWidth, kHeight, 271), job);
}

// ---------------------------------------------------------------------------
// Specialised programs
// ---------------------------------------------------------------------------

// Gain-map chroma that holds one value everywhere (u, v), as a single-channel
// gain map decodes to.
Planes FlatChromaPlanes(int w, int h, uint32_t seed, uint8_t u, uint8_t v)
{
    Planes p = VariedPlanes(w, h, seed);
    p.gain[1].assign(p.gain[1].size(), u);
    p.gain[2].assign(p.gain[2].size(), v);
    return p;
}

// Input curve, gamma applied, YUV output, flat gain-map chroma, offsets.
using PictureClass = std::tuple<int, bool, bool, bool, bool>;

class EndToEndPictureClass : public EndToEndDraw, public ::testing::WithParamInterface<PictureClass> {};

// Each picture class drawn with its specialised program and with the
// registered general program: both within the model's tolerance, so the
// two agree to it as well. Without offsets the specialised program works
// in logarithms; with them, it multiplies.
TEST_P(EndToEndPictureClass, SpecialisedAndGeneralProgramsBothMatchTheModel)
{
    const auto [trfn, gamma, yuv, flat, offsets] = GetParam();
    Job job = DefaultJob();
    job.metadata.trfn = trfn;
    job.metadata.gainMapMin = {{-0.5f, 0.0f, 0.25f}};
    job.metadata.gainMapMax = {{1.5f, 2.0f, 2.5f}};
    if (gamma) {
        job.metadata.gamma = {{1.6f, 0.8f, 1.2f}};
    }
    if (offsets) {
        job.metadata.offsetSdr = {{0.015625f, 0.0f, 0.03f, 1.0f}};
        job.metadata.offsetHdr = {{0.0f, 0.02f, 0.015625f, 1.0f}};
    }
    job.outputYUV = yuv;
    job.checkVariant = true;
    job.expectedVariant.inputCurve = trfn;
    job.expectedVariant.applyGamma = gamma;
    job.expectedVariant.outputYuv = yuv;
    job.expectedVariant.flatGainChroma = flat;
    job.expectedVariant.logDomain = !offsets;
    job.expectedVariant.affineGainCurve = true;  // the factory curve
    const Planes planes = flat ? FlatChromaPlanes(kWidth, kHeight, 311, 128, 128)
                               : VariedPlanes(kWidth, kHeight, 311);
    DrawAndCompare(planes, job, " (specialised)");
    job.generalProgram = true;
    DrawAndCompare(planes, job, " (general)");
}

std::string PictureClassName(const ::testing::TestParamInfo<PictureClass>& info)
{
    static const char* const kCurves[4] = {"Linear", "Hlg", "Pq", "Srgb"};
    return std::string(kCurves[std::get<0>(info.param)]) + (std::get<1>(info.param) ? "Gamma" : "NoGamma") +
           (std::get<2>(info.param) ? "Yuv" : "Rgb") + (std::get<3>(info.param) ? "FlatChroma" : "Chroma") +
           (std::get<4>(info.param) ? "Offsets" : "NoOffsets");
}

INSTANTIATE_TEST_SUITE_P(Classes, EndToEndPictureClass,
                         ::testing::Combine(::testing::Values(0, 1, 2, 3), ::testing::Bool(),
                                            ::testing::Bool(), ::testing::Bool(), ::testing::Bool()),
                         PictureClassName);

// In logarithms the main image's sign is kept apart: channels below zero,
// at zero and on the input curve's linear segment still come out as the
// model has them. Every code of every plane, each input curve, no offsets.
TEST_F(EndToEndDraw, LogDomainKeepsNegativeAndDarkChannels)
{
    for (int trfn = 0; trfn < 4; ++trfn) {
        SCOPED_TRACE(trfn);
        Job job = DefaultJob();
        job.metadata.trfn = trfn;
        job.metadata.gainMapMin = {{-0.5f, 0.0f, 0.25f}};
        job.metadata.gainMapMax = {{1.5f, 2.0f, 2.5f}};
        job.checkVariant = true;
        job.expectedVariant.inputCurve = trfn;
        job.expectedVariant.logDomain = true;
        job.expectedVariant.affineGainCurve = true;
        DrawAndCompare(RandomPlanes(kWidth, kHeight, 341 + static_cast<uint32_t>(trfn)), job, " (log domain)");
    }
}

// Flat chroma off the centre (a gain map whose U and V are not 128) still
// gives each channel its own gain on the single-channel path.
TEST_F(EndToEndDraw, FlatChromaOffCentreKeepsPerChannelGains)
{
    Job job = DefaultJob();
    job.metadata.gainMapMax = {{2.0f, 2.5f, 3.0f}};
    DrawAndCompare(FlatChromaPlanes(kWidth, kHeight, 321, 100, 170), job);
}

// A gain map whose chroma is flat but for one texel takes the three-channel
// path, and that texel's pixel is right.
TEST_F(EndToEndDraw, ChromaFlatButOneTexelTakesTheThreeChannelPath)
{
    Job job = DefaultJob();
    job.metadata.gainMapMax = {{2.0f, 2.5f, 3.0f}};
    for (int plane : {1, 2}) {
        SCOPED_TRACE(plane == 1 ? "U" : "V");
        Planes planes = FlatChromaPlanes(kWidth, kHeight, 331, 128, 128);
        planes.gain[plane][static_cast<size_t>(kWidth) * kHeight - 1] = 255;  // the last texel
        DrawAndCompare(planes, job, plane == 1 ? " (odd U texel)" : " (odd V texel)");
    }
}

// ---------------------------------------------------------------------------
// Rotation and mirror
// ---------------------------------------------------------------------------

class EndToEndRotation : public EndToEndDraw,
                         public ::testing::WithParamInterface<std::tuple<int, bool>> {};

// Each rotation code (1, 2, 3 turn by -90, -180, -270 degrees; 0, 4 and -1 do not), with and
// without the mirror, puts every texel where the rotation and mirror matrix sends it.
TEST_P(EndToEndRotation, EveryPixelSamplesItsRotatedTexel)
{
    Job job = DefaultJob();
    job.metadata.outputRotate = std::get<0>(GetParam());
    job.metadata.outputMirror = std::get<1>(GetParam());
    job.metadata.gainMapMin = {{-0.5f, 0.0f, 0.25f}};
    job.metadata.gainMapMax = {{1.5f, 2.0f, 2.5f}};
    DrawAndCompare(RandomPlanes(kSquare, kSquare, 301), job);
}

INSTANTIATE_TEST_SUITE_P(Codes, EndToEndRotation,
                         ::testing::Combine(::testing::Values(0, 1, 2, 3, 4, -1), ::testing::Bool()),
                         [](const ::testing::TestParamInfo<std::tuple<int, bool>>& info) {
                             const int code = std::get<0>(info.param);
                             return std::string("Rotate") + (code < 0 ? "Minus" : "") +
                                    std::to_string(std::abs(code)) +
                                    (std::get<1>(info.param) ? "Mirrored" : "");
                         });

// Drawn in bands of 7 rows (the last one shorter), every rotation and mirror
// still matches the model pixel for pixel: each band's rows are the
// picture's own.
class EndToEndBandedRotation : public EndToEndRotation {
protected:
    void SetUp() override
    {
        EndToEndRotation::SetUp();
        bandRows_ = 7;
    }
};

TEST_P(EndToEndBandedRotation, EveryBandHoldsItsOwnRows)
{
    Job job = DefaultJob();
    job.metadata.outputRotate = std::get<0>(GetParam());
    job.metadata.outputMirror = std::get<1>(GetParam());
    job.metadata.gainMapMin = {{-0.5f, 0.0f, 0.25f}};
    job.metadata.gainMapMax = {{1.5f, 2.0f, 2.5f}};
    DrawAndCompare(RandomPlanes(kSquare, kSquare, 302), job);
}

INSTANTIATE_TEST_SUITE_P(Codes, EndToEndBandedRotation,
                         ::testing::Combine(::testing::Values(0, 1, 2, 3), ::testing::Bool()),
                         [](const ::testing::TestParamInfo<std::tuple<int, bool>>& info) {
                             return std::string("Rotate") + std::to_string(std::get<0>(info.param)) +
                                    (std::get<1>(info.param) ? "Mirrored" : "");
                         });

// The texel mapping itself: a quarter turn, a half turn with the mirror, and no turn.
TEST(EndToEndTexelMapping, FollowsTheRowVectorProduct)
{
    const int n = 5;
    // No rotation: the pixel's own texel.
    for (int code : {0, 4, -1}) {
        EXPECT_EQ(hdrtest::SampledTexel(code, false, n, 1, 3), (std::array<int, 2>{{1, 3}}));
    }
    // Mirror alone swaps left and right.
    EXPECT_EQ(hdrtest::SampledTexel(0, true, n, 1, 3), (std::array<int, 2>{{3, 3}}));
    // Half turn with mirror: the vertical flip.
    EXPECT_EQ(hdrtest::SampledTexel(2, true, n, 1, 3), (std::array<int, 2>{{1, 1}}));
    // Half turn: both axes reversed.
    EXPECT_EQ(hdrtest::SampledTexel(2, false, n, 1, 3), (std::array<int, 2>{{3, 1}}));
    // Code 1 (-90 degrees in the matrix) turns the positions by +90 degrees
    // through the row-vector product: position (px, py) lands at (-py, px),
    // so pixel (x, y) samples texel (y, n - 1 - x).
    EXPECT_EQ(hdrtest::SampledTexel(1, false, n, 1, 3), (std::array<int, 2>{{3, 3}}));
    EXPECT_EQ(hdrtest::SampledTexel(1, false, n, 0, 0), (std::array<int, 2>{{0, 4}}));
    EXPECT_EQ(hdrtest::SampledTexel(3, false, n, 0, 0), (std::array<int, 2>{{4, 0}}));
}

// The test's own output curve inverts the boosted sRGB curve and pins 1 to 1.
TEST(EndToEndConstants, OutputCurveInvertsTheBoostedSrgbCurve)
{
    for (double boost : {0.5, 1.0, 2.0, 4.7, 7.9921875}) {
        std::array<double, 7> inv{};
        ASSERT_TRUE(hdrtest::InvertBoostedSrgb(boost, inv)) << boost;
        const auto encode = [&inv](double x) {
            return x < inv[4] ? inv[3] * x + inv[6] : std::pow(inv[1] * x + inv[2], inv[0]) + inv[5];
        };
        // sRGB scaled by the boost, from the standard curve.
        const auto decode = [boost](double v) {
            return boost * (v < 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4));
        };
        for (double v : {0.0, 0.01, 0.04045, 0.1, 0.5, 0.9, 1.0}) {
            EXPECT_NEAR(encode(decode(v)), v, 2e-6) << "boost " << boost << " value " << v;
        }
        EXPECT_NEAR(encode(boost * 1.0), 1.0, 1e-6);
    }
    std::array<double, 7> unused{};
    EXPECT_FALSE(hdrtest::InvertBoostedSrgb(0.0, unused));
    // At boost 1 the inverse is close to the fixed inverse sRGB curve (which
    // was rounded on its own: its a and e differ by about 1.6e-4 and 3e-5).
    std::array<double, 7> inv{};
    ASSERT_TRUE(hdrtest::InvertBoostedSrgb(1.0, inv));
    for (int i = 0; i < 7; ++i) {
        EXPECT_NEAR(inv[i], hdrtest::kInverseSrgbCurve[i], 2e-4) << i;
    }
}

}  // namespace
