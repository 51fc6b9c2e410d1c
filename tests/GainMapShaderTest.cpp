// Pixel tests of the gain-map program on llvmpipe: the engine draws synthetic
// planes with chosen uniforms, and every pixel of the output surface is
// compared with the CPU model of the fragment stage (support/GainMapModel).
//
// Main image, gain map and output have the same odd size, so output pixel
// (x, y) samples texel (x, y) of each plane and the model sees exactly the
// codes the GPU sampled. A pixel passes when each of its four codes lies in
// the model's interval (the codes the sampler error and the conversion to
// 8 bits explain) widened by one code for the GPU's single-precision
// arithmetic. Alpha must be 255 everywhere and no pixel may keep the
// surface's sentinel.
#include "EglTestEnv.h"
#include "EngineHarness.h"
#include "GainMapModel.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace {

using hdrtest::EngineHarness;
using hdrtest::GainMapUniforms;
using hdrtest::ModelPixel;
using hdrtest::PixelSamples;
using hdrtest::Planes;
using hdrtest::Rgba8;

constexpr int kWidth = 37;
constexpr int kHeight = 23;

// How far a value sampled through a mediump sampler may be from code / 255.
constexpr double kSamplerError = 2.5e-3;
// Codes allowed beyond the model's interval, for single-precision arithmetic.
constexpr int kArithmeticCodes = 1;

const std::array<float, 7> kHlgDecode{
    {-3.0f, 2.0f, 2.0f, 5.5918164f, 0.28466892f, 0.55991071f, 0.0f}};
const std::array<float, 7> kPqDecode{
    {-2.0f, -0.8359375f, 1.0f, 0.012683313f, 18.8515625f, -18.6875f, 6.2773948f}};
const std::array<float, 7> kSrgbDecode{
    {2.4f, 0.94786727f, 0.0521327f, 0.07739938f, 0.04045f, 0.0f, 0.0f}};
const std::array<float, 7> kSrgbEncode{
    {0.41666666f, 1.1372833f, -0.0f, 12.92f, 0.0031308f, -0.054969788f, -0.0f}};

// The inverse sRGB encoding of an output whose peak is `boost` times SDR white.
std::array<float, 7> BoostedEncode(float boost)
{
    return {{0.41666666f, 1.1372833f / boost, 0.0f, 12.92f / boost, 0.0031308f * boost,
             -0.054969788f, 0.0f}};
}

std::array<float, 4> Rgb1(float r, float g, float b)
{
    return {{r, g, b, 1.0f}};
}

// ---------------------------------------------------------------------------
// Plane patterns
// ---------------------------------------------------------------------------

using Plane = std::vector<uint8_t>;

// Pixel i (row-major) gets (i * step + offset) mod 256; an odd step visits
// every code.
Plane Ramp(int step, int offset)
{
    Plane p(static_cast<size_t>(kWidth) * kHeight);
    for (size_t i = 0; i < p.size(); ++i) {
        p[i] = static_cast<uint8_t>((static_cast<int>(i) * step + offset) & 0xFF);
    }
    return p;
}

// Codes drawn evenly from [lo, hi] by a fixed-seed Mersenne twister.
Plane Random(uint32_t seed, int lo = 0, int hi = 255)
{
    std::mt19937 rng(seed);
    Plane p(static_cast<size_t>(kWidth) * kHeight);
    for (auto& v : p) {
        v = static_cast<uint8_t>(lo + static_cast<int>(rng() % static_cast<uint32_t>(hi - lo + 1)));
    }
    return p;
}

Plane Constant(uint8_t code)
{
    return Plane(static_cast<size_t>(kWidth) * kHeight, code);
}

Planes MakePlanes(Plane mainY, Plane mainU, Plane mainV, Plane gainY, Plane gainU, Plane gainV)
{
    Planes p;
    p.mainWidth = p.gainWidth = kWidth;
    p.mainHeight = p.gainHeight = kHeight;
    p.main[0] = std::move(mainY);
    p.main[1] = std::move(mainU);
    p.main[2] = std::move(mainV);
    p.gain[0] = std::move(gainY);
    p.gain[1] = std::move(gainU);
    p.gain[2] = std::move(gainV);
    return p;
}

// Full-range main image (ramps and noise) and a gain map whose luma covers
// every code with moderate chroma.
Planes VariedPlanes(uint32_t seed)
{
    return MakePlanes(Ramp(7, 3), Random(seed + 1, 40, 216), Random(seed + 2, 40, 216), Ramp(11, 5),
                      Random(seed + 3, 96, 160), Random(seed + 4, 96, 160));
}

// Every plane pseudo-random over the whole code range: saturated chroma and
// negative RGB included.
Planes RandomPlanes(uint32_t seed)
{
    return MakePlanes(Random(seed), Random(seed + 1), Random(seed + 2), Random(seed + 3),
                      Random(seed + 4), Random(seed + 5));
}

// ---------------------------------------------------------------------------
// Comparison
// ---------------------------------------------------------------------------

struct Summary {
    int pixels = 0;
    int largestFromNominal = 0;    // |got - round(255 nominal)|
    int largestBeyondNominal = 0;  // codes outside [floor, ceil] of 255 nominal
    int largestBeyondInterval = 0;  // codes outside [codeLo, codeHi]
    int needingWidening = 0;        // pixels outside the zero-error codes +-1
    int differingFromNominal = 0;   // pixels with some code != nominal code
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
        std::cout << "[gain-map pixels] all tests: " << s.pixels << " pixels, largest difference "
                  << s.largestFromNominal << " code(s) from the nominal value ("
                  << s.largestBeyondNominal << " beyond its two neighbouring codes), largest "
                  << s.largestBeyondInterval << " code(s) beyond the sampler-error interval, "
                  << s.needingWidening << " pixel(s) needed the sampler-error widening, "
                  << s.differingFromNominal << " pixel(s) differ from the nominal code\n";
    }
};

[[maybe_unused]] ::testing::Environment* const kSummaryPrinter =
    ::testing::AddGlobalTestEnvironment(new SummaryPrinter);

const char* const kChannelNames[2][4] = {{"R", "G", "B", "A"}, {"Y", "U", "V", "A"}};

class GainMapShaderTest : public hdrtest::EglTest {
protected:
    // Draws the planes with the uniforms and checks every pixel against the
    // model. The models of the pixels are returned for further checks.
    std::vector<ModelPixel> DrawAndCompare(const Planes& planes, const GainMapUniforms& u,
                                           std::vector<Rgba8>* picture = nullptr)
    {
        std::vector<ModelPixel> models;
        EngineHarness h(kWidth, kHeight, display_);
        EXPECT_TRUE(h.ok());
        if (!h.ok()) {
            return models;
        }
        EXPECT_EQ(h.Upload(planes), 0);
        EXPECT_EQ(h.Draw(u), 0);
        const std::vector<Rgba8> px = h.ReadSurface();
        EXPECT_EQ(px.size(), static_cast<size_t>(kWidth) * kHeight);
        if (px.size() != static_cast<size_t>(kWidth) * kHeight) {
            return models;
        }
        if (picture != nullptr) {
            *picture = px;
        }

        Summary s;
        int mismatches = 0;
        int sentinels = 0;
        const int yuv = u.bOutputYUV == 1 ? 1 : 0;
        for (int y = 0; y < kHeight; ++y) {
            for (int x = 0; x < kWidth; ++x) {
                const size_t i = static_cast<size_t>(y) * kWidth + x;
                const PixelSamples samples = PixelSamples::FromCodes(
                    planes.main[0][i], planes.main[1][i], planes.main[2][i], planes.gain[0][i],
                    planes.gain[1][i], planes.gain[2][i]);
                const ModelPixel m = hdrtest::Evaluate(samples, u, kSamplerError);
                models.push_back(m);
                const Rgba8& p = px[i];
                if (p.r == EngineHarness::kSentinel && p.g == EngineHarness::kSentinel &&
                    p.b == EngineHarness::kSentinel && p.a == EngineHarness::kSentinel) {
                    ++sentinels;
                }
                const int got[4] = {p.r, p.g, p.b, p.a};
                bool widened = false;
                bool differs = false;
                for (int c = 0; c < 4; ++c) {
                    const hdrtest::ChannelBound& b = m.channel[c];
                    s.largestFromNominal =
                        std::max(s.largestFromNominal, std::abs(got[c] - b.nominalCode));
                    differs = differs || got[c] != b.nominalCode;
                    s.largestBeyondNominal = std::max(
                        s.largestBeyondNominal,
                        std::max({0, b.nominalCodeLo - got[c], got[c] - b.nominalCodeHi}));
                    const int beyond = std::max({0, b.codeLo - got[c], got[c] - b.codeHi});
                    s.largestBeyondInterval = std::max(s.largestBeyondInterval, beyond);
                    widened = widened || got[c] < b.nominalCodeLo - kArithmeticCodes ||
                              got[c] > b.nominalCodeHi + kArithmeticCodes;
                    if (beyond > kArithmeticCodes && ++mismatches <= 20) {
                        ADD_FAILURE() << "pixel (" << x << ", " << y << ") channel "
                                      << kChannelNames[yuv][c] << ": got " << got[c]
                                      << ", expected codes [" << b.codeLo << ", " << b.codeHi
                                      << "] +-" << kArithmeticCodes << " (nominal " << b.nominal
                                      << " = code " << b.nominalCode << ", value range ["
                                      << b.value.lo << ", " << b.value.hi << "]); planes main "
                                      << int(planes.main[0][i]) << "/" << int(planes.main[1][i])
                                      << "/" << int(planes.main[2][i]) << " gain "
                                      << int(planes.gain[0][i]) << "/" << int(planes.gain[1][i])
                                      << "/" << int(planes.gain[2][i]);
                    }
                }
                EXPECT_EQ(p.a, 255) << "alpha at (" << x << ", " << y << ")";
                if (widened && s.needingWidening < 5) {
                    // Legitimate where a value sits at a curve's branch
                    // point; shown so that such pixels can be inspected.
                    std::cout << "[gain-map pixels] pixel (" << x << ", " << y
                              << ") is explained only by the sampler error: got " << got[0] << "/"
                              << got[1] << "/" << got[2] << ", nominal " << m.channel[0].nominal
                              << "/" << m.channel[1].nominal << "/" << m.channel[2].nominal
                              << ", codes [" << m.channel[0].codeLo << ", " << m.channel[0].codeHi
                              << "]/[" << m.channel[1].codeLo << ", " << m.channel[1].codeHi
                              << "]/[" << m.channel[2].codeLo << ", " << m.channel[2].codeHi
                              << "]; planes main " << int(planes.main[0][i]) << "/"
                              << int(planes.main[1][i]) << "/" << int(planes.main[2][i]) << " gain "
                              << int(planes.gain[0][i]) << "/" << int(planes.gain[1][i]) << "/"
                              << int(planes.gain[2][i]) << "\n";
                }
                s.needingWidening += widened ? 1 : 0;
                s.differingFromNominal += differs ? 1 : 0;
                ++s.pixels;
            }
        }
        EXPECT_EQ(mismatches, 0) << "pixels outside the model's interval";
        EXPECT_EQ(sentinels, 0) << "pixels still holding the sentinel";

        Summary& t = Total();
        t.pixels += s.pixels;
        t.largestFromNominal = std::max(t.largestFromNominal, s.largestFromNominal);
        t.largestBeyondNominal = std::max(t.largestBeyondNominal, s.largestBeyondNominal);
        t.largestBeyondInterval = std::max(t.largestBeyondInterval, s.largestBeyondInterval);
        t.needingWidening += s.needingWidening;
        t.differingFromNominal += s.differingFromNominal;
        RecordProperty("largest_difference_from_nominal_codes", s.largestFromNominal);
        RecordProperty("largest_codes_beyond_nominal_neighbours", s.largestBeyondNominal);
        RecordProperty("largest_codes_beyond_interval", s.largestBeyondInterval);
        RecordProperty("pixels_needing_sampler_widening", s.needingWidening);
        std::cout << "[gain-map pixels] " << s.pixels << " pixels: largest difference "
                  << s.largestFromNominal << " code(s) from nominal ("
                  << s.largestBeyondNominal << " beyond its two neighbours), "
                  << s.largestBeyondInterval
                  << " beyond the interval, " << s.needingWidening
                  << " needed the sampler-error widening, " << s.differingFromNominal
                  << " differ from the nominal code\n";
        return models;
    }
};

// ---------------------------------------------------------------------------
// Sampling, conversion and the weight
// ---------------------------------------------------------------------------

// Default uniforms give the BT.601 conversion of each pixel's own texel, alpha 1.
TEST_F(GainMapShaderTest, DefaultUniformsGiveTheYuvToRgbConversion)
{
    GainMapUniforms u;
    DrawAndCompare(RandomPlanes(11), u);
}

// With W 0 the gain map has no effect: output is S + epsilonSdr - epsilonHdr, encoded.
TEST_F(GainMapShaderTest, WeightZeroGivesOffsetsOnly)
{
    GainMapUniforms u;
    u.W = 0.0f;
    u.logRatioMin = Rgb1(-0.5f, 0.2f, -1.0f);
    u.logRatioMax = Rgb1(2.0f, 1.5f, 2.5f);
    u.epsilonSdr = Rgb1(0.05f, 0.1f, 0.02f);
    u.epsilonHdr = Rgb1(0.02f, 0.15f, 0.01f);
    u.trfn_inv = kSrgbEncode;
    DrawAndCompare(VariedPlanes(21), u);
}

// With W 1 the whole log gain of the curve-mapped gain map applies.
TEST_F(GainMapShaderTest, WeightOneAppliesTheWholeGain)
{
    GainMapUniforms u;
    u.W = 1.0f;
    u.logRatioMin = Rgb1(0.0f, 0.0f, 0.0f);
    u.logRatioMax = Rgb1(1.3862944f, 1.3862944f, 1.3862944f);  // ln 4
    u.trfn_inv = BoostedEncode(4.0f);
    DrawAndCompare(VariedPlanes(31), u);
}

// A W between 0 and 1 scales the log gain.
TEST_F(GainMapShaderTest, PartialWeightScalesTheLogGain)
{
    GainMapUniforms u;
    u.W = 0.37f;
    u.logRatioMin = Rgb1(-0.3f, -0.3f, -0.3f);
    u.logRatioMax = Rgb1(2.0794415f, 2.0794415f, 2.0794415f);  // ln 8
    u.trfn_inv = BoostedEncode(2.2f);
    DrawAndCompare(VariedPlanes(41), u);
}

// Per-channel log ranges and offsets act on their own channel only.
TEST_F(GainMapShaderTest, PerChannelRangesAndOffsets)
{
    GainMapUniforms u;
    u.W = 0.8f;
    u.logRatioMin = Rgb1(-0.7f, 0.1f, 0.4f);
    u.logRatioMax = Rgb1(2.5f, 0.9f, 1.7f);
    u.epsilonSdr = Rgb1(0.015625f, 0.05f, 0.0f);
    u.epsilonHdr = Rgb1(0.03f, 0.0f, 0.08f);
    u.trfn_inv = BoostedEncode(6.0f);
    DrawAndCompare(VariedPlanes(51), u);
}

// ---------------------------------------------------------------------------
// Gamma
// ---------------------------------------------------------------------------

// noGamma 1 ignores gainmapGamma even when it is not 1.
TEST_F(GainMapShaderTest, NoGammaOneIgnoresTheGamma)
{
    GainMapUniforms u;
    u.W = 1.0f;
    u.logRatioMax = Rgb1(1.6094379f, 1.6094379f, 1.6094379f);  // ln 5
    u.gainmapGamma = Rgb1(2.2f, 0.45f, 1.6f);
    u.noGamma = 1;
    u.trfn_inv = BoostedEncode(5.0f);
    DrawAndCompare(VariedPlanes(61), u);
}

// noGamma 0 raises the clamped gain map to gainmapGamma per channel.
TEST_F(GainMapShaderTest, NoGammaZeroAppliesTheGamma)
{
    GainMapUniforms u;
    u.W = 1.0f;
    u.logRatioMax = Rgb1(1.6094379f, 1.6094379f, 1.6094379f);
    u.gainmapGamma = Rgb1(2.2f, 0.45f, 1.6f);
    u.noGamma = 0;
    u.trfn_inv = BoostedEncode(5.0f);
    DrawAndCompare(VariedPlanes(61), u);
}

// Any noGamma other than 1 (here 2) applies the gamma too.
TEST_F(GainMapShaderTest, NoGammaTwoAppliesTheGamma)
{
    GainMapUniforms u;
    u.W = 1.0f;
    u.logRatioMax = Rgb1(1.6094379f, 1.6094379f, 1.6094379f);
    u.gainmapGamma = Rgb1(2.2f, 0.45f, 1.6f);
    u.noGamma = 2;
    u.trfn_inv = BoostedEncode(5.0f);
    DrawAndCompare(VariedPlanes(61), u);
}

// ---------------------------------------------------------------------------
// Input decoding
// ---------------------------------------------------------------------------

// inputTrfnType 0 skips decoding even when in_trfn holds a real curve.
TEST_F(GainMapShaderTest, InputType0SkipsDecoding)
{
    GainMapUniforms u;
    u.inputTrfnType = 0;
    u.in_trfn = kSrgbDecode;
    u.W = 0.5f;
    u.logRatioMax = Rgb1(0.6931472f, 0.6931472f, 0.6931472f);
    DrawAndCompare(VariedPlanes(71), u);
}

// inputTrfnType 1 decodes with the HLG form.
TEST_F(GainMapShaderTest, InputType1DecodesTheHlgForm)
{
    GainMapUniforms u;
    u.inputTrfnType = 1;
    u.in_trfn = kHlgDecode;
    u.W = 0.5f;
    u.logRatioMax = Rgb1(0.6931472f, 0.6931472f, 0.6931472f);
    u.trfn_inv = BoostedEncode(16.0f);
    DrawAndCompare(VariedPlanes(81), u);
}

// inputTrfnType 2 decodes with the PQ form.
TEST_F(GainMapShaderTest, InputType2DecodesThePqForm)
{
    GainMapUniforms u;
    u.inputTrfnType = 2;
    u.in_trfn = kPqDecode;
    u.W = 0.5f;
    u.logRatioMax = Rgb1(0.6931472f, 0.6931472f, 0.6931472f);
    u.trfn_inv = kSrgbEncode;
    DrawAndCompare(VariedPlanes(91), u);
}

// inputTrfnType 3 decodes with the sRGB form.
TEST_F(GainMapShaderTest, InputType3DecodesTheSrgbForm)
{
    GainMapUniforms u;
    u.inputTrfnType = 3;
    u.in_trfn = kSrgbDecode;
    u.W = 0.5f;
    u.logRatioMax = Rgb1(0.6931472f, 0.6931472f, 0.6931472f);
    u.trfn_inv = BoostedEncode(1.5f);
    DrawAndCompare(VariedPlanes(101), u);
}

// The sRGB-form decoding uses each of its seven parameters in its own place.
TEST_F(GainMapShaderTest, InputType3UsesEveryParameter)
{
    // All distinct, and the segments apart at d, so a swap or a wrong branch shows.
    GainMapUniforms u;
    u.inputTrfnType = 3;
    u.in_trfn = {{2.2f, 0.8f, 0.15f, 0.3f, 0.1f, 0.04f, 0.01f}};
    DrawAndCompare(RandomPlanes(201), u);
}

// The HLG-form decoding uses a, b, c, d, e and its f + 1 scale in their own places.
TEST_F(GainMapShaderTest, InputType1UsesEveryParameter)
{
    // All distinct (a differs from b, f is not 0), so a swap shows.
    GainMapUniforms u;
    u.inputTrfnType = 1;
    u.in_trfn = {{-3.0f, 1.6f, 2.4f, 4.0f, 0.2f, 0.5f, 0.25f}};
    u.trfn_inv = BoostedEncode(12.0f);
    DrawAndCompare(VariedPlanes(211), u);
}

// ---------------------------------------------------------------------------
// Gain curve
// ---------------------------------------------------------------------------

// A non-identity gain curve shapes the gain, then the result is clamped to [0, 1].
TEST_F(GainMapShaderTest, NonIdentityGainCurve)
{
    // Full-range gain-map chroma drives values outside [0, 1] into the curve.
    GainMapUniforms u;
    u.curve_gain_point = {{0.1f, 0.3f, 0.9f}};
    u.curve_gain_grad = {{0.2f, 0.8f, 0.4f}};
    u.W = 1.0f;
    u.logRatioMin = Rgb1(-0.5f, -0.5f, -0.5f);
    u.logRatioMax = Rgb1(2.7725887f, 2.7725887f, 2.7725887f);  // ln 16
    u.trfn_inv = BoostedEncode(8.0f);
    DrawAndCompare(MakePlanes(Ramp(5, 9), Random(111, 64, 192), Random(112, 64, 192), Random(113),
                              Random(114), Random(115)),
                   u);
}

// Gain-map values just below and from 0.5 on take the first and the second segment.
TEST_F(GainMapShaderTest, GainCurveSegmentsMeetAtHalf)
{
    // Gain-map luma codes 126 to 129 with chroma near neutral straddle 0.5
    // (127.5 / 255 itself is not a code).
    GainMapUniforms u;
    // The segments' far ends lie far from the middle point, so evaluating the
    // wrong segment (or the right one at the wrong t) moves the gain a lot.
    u.curve_gain_point = {{0.9f, 0.5f, 0.05f}};
    u.curve_gain_grad = {{-3.0f, 2.5f, -3.0f}};
    u.W = 1.0f;
    u.logRatioMax = Rgb1(2.7725887f, 2.7725887f, 2.7725887f);
    u.trfn_inv = BoostedEncode(16.0f);
    DrawAndCompare(MakePlanes(Random(121, 60, 200), Random(122, 110, 146), Random(123, 110, 146),
                              Random(124, 126, 129), Random(125, 126, 130), Random(126, 126, 130)),
                   u);
}

// The gamma applies to the clamped output of the gain curve, not to its input.
TEST_F(GainMapShaderTest, GammaAppliesAfterTheGainCurve)
{
    GainMapUniforms u;
    u.curve_gain_point = {{0.1f, 0.3f, 0.9f}};
    u.curve_gain_grad = {{0.2f, 0.8f, 0.4f}};
    u.noGamma = 0;
    u.gainmapGamma = Rgb1(2.2f, 0.45f, 1.6f);
    u.W = 1.0f;
    u.logRatioMax = Rgb1(2.0794415f, 2.0794415f, 2.0794415f);  // ln 8
    u.trfn_inv = BoostedEncode(8.0f);
    DrawAndCompare(VariedPlanes(221), u);
}

// The output encoding takes the line below d and the power from d on, odd for negatives.
TEST_F(GainMapShaderTest, EncodingSelectsItsSegmentAtD)
{
    // Seven distinct parameters with the segments apart at d; random planes
    // give negative values too.
    GainMapUniforms u;
    u.trfn_inv = {{0.6f, 0.9f, 0.05f, 1.5f, 0.2f, -0.03f, 0.02f}};
    u.bOutputYUV = 0;
    DrawAndCompare(RandomPlanes(231), u);
}

// ---------------------------------------------------------------------------
// Signs
// ---------------------------------------------------------------------------

// Negative S from saturated chroma keeps its sign through the sRGB-form decoding.
TEST_F(GainMapShaderTest, NegativeValuesKeepTheirSignThroughSrgbDecoding)
{
    // epsilonSdr lifts the decoded negatives into the visible range.
    GainMapUniforms u;
    u.inputTrfnType = 3;
    u.in_trfn = kSrgbDecode;
    u.epsilonSdr = Rgb1(0.6f, 0.6f, 0.6f);
    u.W = 0.0f;
    u.trfn_inv = BoostedEncode(2.0f);
    DrawAndCompare(RandomPlanes(131), u);
}

// Negative S keeps its sign through the HLG-form decoding.
TEST_F(GainMapShaderTest, NegativeValuesKeepTheirSignThroughHlgDecoding)
{
    GainMapUniforms u;
    u.inputTrfnType = 1;
    u.in_trfn = kHlgDecode;
    u.epsilonSdr = Rgb1(1.0f, 1.0f, 1.0f);
    u.W = 0.0f;
    u.trfn_inv = BoostedEncode(16.0f);
    DrawAndCompare(RandomPlanes(141), u);
}

// Negative S keeps its sign through the PQ-form decoding.
TEST_F(GainMapShaderTest, NegativeValuesKeepTheirSignThroughPqDecoding)
{
    GainMapUniforms u;
    u.inputTrfnType = 2;
    u.in_trfn = kPqDecode;
    u.epsilonSdr = Rgb1(0.5f, 0.5f, 0.5f);
    u.W = 0.0f;
    u.trfn_inv = BoostedEncode(2.0f);
    // |S| stays below 1.89, short of the PQ form's pole near 1.99.
    DrawAndCompare(RandomPlanes(151), u);
}

// A negative H (epsilonHdr above the gained value) keeps its sign through the encoding.
TEST_F(GainMapShaderTest, NegativeValuesKeepTheirSignThroughEncoding)
{
    // The YUV form mixes the channels, which makes negative encoded values visible.
    GainMapUniforms u;
    u.epsilonHdr = Rgb1(0.45f, 0.3f, 0.6f);
    u.W = 0.5f;
    u.logRatioMax = Rgb1(0.6931472f, 0.6931472f, 0.6931472f);
    u.trfn_inv = kSrgbEncode;
    u.bOutputYUV = 1;
    DrawAndCompare(VariedPlanes(161), u);
}

// ---------------------------------------------------------------------------
// YUV output
// ---------------------------------------------------------------------------

// The YUV form of the encoded RGB, over varied content with a gain applied.
TEST_F(GainMapShaderTest, YuvOutput)
{
    GainMapUniforms u;
    u.W = 0.6f;
    u.logRatioMin = Rgb1(-0.2f, 0.0f, 0.1f);
    u.logRatioMax = Rgb1(1.8f, 1.4f, 2.1f);
    u.noGamma = 0;
    u.gainmapGamma = Rgb1(1.3f, 0.8f, 1.0f);
    u.trfn_inv = BoostedEncode(3.0f);
    u.bOutputYUV = 1;
    DrawAndCompare(VariedPlanes(171), u);
}

// The S that main codes Y = U = V = 128 give, in single precision.
std::array<float, 3> GreyS()
{
    const float y = 128.0f / 255.0f;
    const float c = 128.0f / 255.0f - 0.5f;
    return {{y + 1.402f * c, y - 0.344136f * c - 0.714136f * c, y + 1.772f * c}};
}

// Encoded RGB of exactly `level` in every channel: epsilonSdr cancels the
// main image's S, W is 0.
GainMapUniforms GreyLevelYuv(float level)
{
    GainMapUniforms u;
    const auto s = GreyS();
    u.epsilonSdr = Rgb1(level - s[0], level - s[1], level - s[2]);
    u.W = 0.0f;
    u.bOutputYUV = 1;
    return u;
}

// Codes within `slack` of 255 * value, rounding either way.
::testing::AssertionResult NearCode(int got, double value, double slack)
{
    const double target = value * 255.0;
    if (got >= std::floor(target - slack) && got <= std::ceil(target + slack)) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << "code " << got << " is not within " << slack
                                         << " of " << target;
}

// Mid-grey encoded RGB gives Y 0.465, U 0.5, V 0.49 (red weight 0.229, V row sum -0.02).
TEST_F(GainMapShaderTest, MidGreyYuvUsesTheOutputWeights)
{
    const GainMapUniforms u = GreyLevelYuv(0.5f);
    const Planes planes =
        MakePlanes(Constant(128), Constant(128), Constant(128), Random(181), Random(182),
                   Random(183));
    std::vector<Rgba8> px;
    const auto models = DrawAndCompare(planes, u, &px);
    ASSERT_EQ(models.size(), px.size());
    ASSERT_FALSE(models.empty());
    EXPECT_NEAR(models[0].channel[0].nominal, 0.465, 1e-6);
    EXPECT_NEAR(models[0].channel[1].nominal, 0.5, 1e-6);
    EXPECT_NEAR(models[0].channel[2].nominal, 0.49, 1e-6);
    // One code of sampler error and one of arithmetic on top of the rounding;
    // the usual 0.299 weight would give Y 127.5.
    for (const Rgba8& p : px) {
        EXPECT_TRUE(NearCode(p.r, 0.465, 2.0));
        EXPECT_TRUE(NearCode(p.g, 0.5, 2.0));
        EXPECT_TRUE(NearCode(p.b, 0.49, 2.0));
    }
}

// White encoded RGB gives Y 0.93, U 0.5, V 0.48: the V row sums to -0.02, not 0.
TEST_F(GainMapShaderTest, WhiteYuvShowsTheVRowSum)
{
    // A V row summing to 0 would give V 0.5, 2.5 codes further than the tolerance.
    const GainMapUniforms u = GreyLevelYuv(1.0f);
    const Planes planes =
        MakePlanes(Constant(128), Constant(128), Constant(128), Random(191), Random(192),
                   Random(193));
    std::vector<Rgba8> px;
    const auto models = DrawAndCompare(planes, u, &px);
    ASSERT_EQ(models.size(), px.size());
    ASSERT_FALSE(models.empty());
    EXPECT_NEAR(models[0].channel[0].nominal, 0.93, 1e-6);
    EXPECT_NEAR(models[0].channel[2].nominal, 0.48, 1e-6);
    for (const Rgba8& p : px) {
        EXPECT_TRUE(NearCode(p.r, 0.93, 2.0));
        EXPECT_TRUE(NearCode(p.g, 0.5, 2.0));
        EXPECT_TRUE(NearCode(p.b, 0.48, 2.0));
    }
}

}  // namespace
