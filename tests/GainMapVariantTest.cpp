// The specialised fragment texts and the flat-plane check, without a GPU:
// which pieces each picture class keeps, how classes are numbered, and the
// flat chroma's contribution worked out by hand.
#include "HdrGainMapVariant.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <set>
#include <string>
#include <vector>

namespace {

bool Has(const std::string& text, const std::string& piece)
{
    return text.find(piece) != std::string::npos;
}

GainMapVariant Variant(int curve, bool gamma, bool yuv, bool flat, bool log = false, bool packed = false,
                       bool affine = false)
{
    GainMapVariant v;
    v.affineGainCurve = affine;
    v.packedGain = packed;
    v.inputCurve = curve;
    v.applyGamma = gamma;
    v.outputYuv = yuv;
    v.flatGainChroma = flat;
    v.logDomain = log;
    return v;
}

size_t Count(const std::string& text, const std::string& piece)
{
    size_t count = 0;
    for (size_t at = text.find(piece); at != std::string::npos; at = text.find(piece, at + 1)) {
        ++count;
    }
    return count;
}

TEST(GainMapVariant, EveryClassHasItsOwnIndex)
{
    std::set<int> seen;
    for (int curve = 0; curve < 4; ++curve) {
        for (int bits = 0; bits < 64; ++bits) {
            const int index = GainMapVariantIndex(
                Variant(curve, bits & 1, bits & 2, bits & 4, bits & 8, bits & 16, bits & 32));
            EXPECT_GE(index, 0);
            EXPECT_LT(index, kGainMapVariantCount);
            seen.insert(index);
        }
    }
    EXPECT_EQ(seen.size(), static_cast<size_t>(kGainMapVariantCount));
}

TEST(GainMapVariant, CurvesOutsideTheFourFormsHaveNoVariant)
{
    EXPECT_EQ(GainMapVariantIndex(Variant(-1, false, false, false)), -1);
    EXPECT_EQ(GainMapVariantIndex(Variant(4, false, false, false)), -1);
}

TEST(GainMapVariant, LinearInputDecodesNothing)
{
    const std::string text = GainMapVariantFragmentSource(Variant(0, false, false, false));
    EXPECT_FALSE(Has(text, "OETF"));
    EXPECT_FALSE(Has(text, "in_trfn"));
    EXPECT_TRUE(Has(text, "EOTF(hdr.r)"));
}

TEST(GainMapVariant, EachInputCurveKeepsOnlyItsOwnForm)
{
    const char* const forms[4] = {nullptr, "exp((x - e) * c + d)", "pow(max(a + b * K, 0.0) / (d + e * K), f)",
                                  "x < d ? c * x + f : pow(a * x + b, g) + e"};
    for (int curve = 1; curve < 4; ++curve) {
        SCOPED_TRACE(curve);
        const std::string text = GainMapVariantFragmentSource(Variant(curve, false, false, false));
        EXPECT_TRUE(Has(text, "sdr = vec3(OETF(sdr.r), OETF(sdr.g), OETF(sdr.b));"));
        EXPECT_FALSE(Has(text, "inputTrfnType"));
        for (int other = 1; other < 4; ++other) {
            if (other == 3) {
                continue;  // the output curve has the parametric form too
            }
            EXPECT_EQ(Has(text, forms[other]), other == curve) << "form " << other;
        }
    }
}

TEST(GainMapVariant, GammaIsAppliedOnlyWhenAsked)
{
    EXPECT_TRUE(Has(GainMapVariantFragmentSource(Variant(3, true, false, false)), "pow(gain, gainmapGamma.rgb)"));
    const std::string without = GainMapVariantFragmentSource(Variant(3, false, false, false));
    EXPECT_FALSE(Has(without, "gainmapGamma"));
    EXPECT_FALSE(Has(without, "noGamma"));
    EXPECT_TRUE(Has(without, "mix(logRatioMin.rgb, logRatioMax.rgb, gain)"));
}

TEST(GainMapVariant, YuvOutputKeepsTheOutputWeights)
{
    const std::string yuv = GainMapVariantFragmentSource(Variant(3, false, true, false));
    EXPECT_TRUE(Has(yuv, "0.229 * result.r + 0.587 * result.g + 0.114 * result.b"));
    EXPECT_TRUE(Has(yuv, "0.500 * result.r - 0.439 * result.g - 0.081 * result.b + 0.5"));
    EXPECT_FALSE(Has(GainMapVariantFragmentSource(Variant(3, false, false, false)), "0.229"));
}

TEST(GainMapVariant, FlatChromaSamplesTheGainMapOnce)
{
    const std::string flat = GainMapVariantFragmentSource(Variant(3, false, false, true));
    EXPECT_FALSE(Has(flat, "u_gainmapUSampler"));
    EXPECT_FALSE(Has(flat, "u_gainmapVSampler"));
    EXPECT_TRUE(Has(flat, std::string("uniform vec3 ") + kFlatGainChromaUniform + ";"));
    const std::string full = GainMapVariantFragmentSource(Variant(3, false, false, false));
    EXPECT_TRUE(Has(full, "texture(u_gainmapUSampler, vTexcoord).r - 0.5"));
    EXPECT_FALSE(Has(full, kFlatGainChromaUniform));
}

// With the gain map packed, its Y, U and V come from one fetch of one
// sampler; with flat chroma there is nothing to pack and the text is the
// flat one.
TEST(GainMapVariant, PackedGainMapIsSampledOnce)
{
    const std::string packed = GainMapVariantFragmentSource(Variant(3, false, false, false, false, true));
    EXPECT_TRUE(Has(packed, std::string("uniform mediump sampler2D ") + kPackedGainMapSampler + ";"));
    EXPECT_EQ(Count(packed, "texture("), 4u) << "three main planes and the packed gain map";
    EXPECT_TRUE(Has(packed, "yuvToRgb * (texture(u_gainmapYuvSampler, vTexcoord).rgb - vec3(0.0, 0.5, 0.5))"));
    EXPECT_FALSE(Has(packed, "u_gainmapUSampler"));
    EXPECT_FALSE(Has(packed, "u_gainmapVSampler"));
    EXPECT_FALSE(Has(packed, "texture(u_gainmapYSampler"));
    EXPECT_EQ(Count(GainMapVariantFragmentSource(Variant(3, false, false, false)), "texture("), 6u);
    EXPECT_FALSE(Has(GainMapVariantFragmentSource(Variant(3, false, false, false)), kPackedGainMapSampler));
    for (const bool log : {false, true}) {
        EXPECT_EQ(GainMapVariantFragmentSource(Variant(2, true, false, true, log, true)),
                  GainMapVariantFragmentSource(Variant(2, true, false, true, log, false)));
    }
}

// A straight-line gain curve is one multiply-add of the same uniforms; the
// text is otherwise the cubic one's.
TEST(GainMapVariant, AffineGainCurveIsOneMultiplyAdd)
{
    const std::string affine = GainMapVariantFragmentSource(Variant(3, false, false, true, true, false, true));
    EXPECT_TRUE(Has(affine, "\treturn curve_gain_point.x + 2.0 * curve_gain_grad.x * value;\n"));
    EXPECT_FALSE(Has(affine, "float t3"));
    const std::string cubic = GainMapVariantFragmentSource(Variant(3, false, false, true, true));
    EXPECT_TRUE(Has(cubic, "float t3 = t2 * t;"));
    EXPECT_EQ(Count(affine, "pre_curve("), Count(cubic, "pre_curve("));
    const size_t start = cubic.find("float pre_curve(float value)");
    const size_t end = cubic.find("void main()");
    ASSERT_NE(start, std::string::npos);
    ASSERT_NE(end, std::string::npos);
    EXPECT_EQ(cubic.substr(0, start), affine.substr(0, start));
    EXPECT_EQ(cubic.substr(end), affine.substr(affine.find("void main()")));
}

TEST(GainMapVariant, EveryTextIsGlslEs300WithTheSameOutput)
{
    for (int index = 0; index < kGainMapVariantCount; ++index) {
        const int c = index / 2;  // the class but for the gain curve
        const GainMapVariant v = Variant(c / 16 % 4, c & 8, c & 4, c & 2, c & 1, c >= 64, index & 1);
        EXPECT_EQ(GainMapVariantIndex(v), index);
        const std::string text = GainMapVariantFragmentSource(v);
        EXPECT_EQ(text.rfind("#version 300 es\nprecision highp float;\n", 0), 0u) << index;
        EXPECT_TRUE(Has(text, "fragColor = vec4(result, 1.0);")) << index;
        EXPECT_EQ(Has(text, "exp(logGain * W)"), !v.logDomain) << index;
        EXPECT_EQ(Has(text, "logHdr = logSdr + logGain * (W * 1.442695041)"), v.logDomain) << index;
    }
}

// In logarithms each curve costs one transcendental function per channel
// (the PQ-like input curve two): no exp, and a power only where the form
// itself has one inside.
TEST(GainMapVariant, LogDomainTakesOneLogarithmAndOneExp2PerChannel)
{
    for (int curve = 0; curve < 4; ++curve) {
        SCOPED_TRACE(curve);
        const std::string text = GainMapVariantFragmentSource(Variant(curve, false, false, true, true));
        EXPECT_FALSE(Has(text, "exp(")) << text;
        EXPECT_EQ(Count(text, "exp2("), 1u) << text;
        EXPECT_EQ(Count(text, "log2("), 1u) << text;
        EXPECT_EQ(Count(text, "pow("), curve == 2 ? 1u : 0u) << text;
        EXPECT_FALSE(Has(text, "epsilonSdr"));
        EXPECT_FALSE(Has(text, "EOTF(hdr"));
        EXPECT_TRUE(Has(text, std::string("uniform vec4 ") + kLogCurveConstantsUniform + ";"));
        EXPECT_TRUE(Has(text, "result = sdrSign * vec3(logEOTF(logHdr.r), logEOTF(logHdr.g), logEOTF(logHdr.b));"));
    }
}

// The parametric input curve's two segments share its one logarithm: the
// segment picks the argument, not which logarithm to take.
TEST(GainMapVariant, LogDomainParametricCurvePicksTheLogarithmsArgument)
{
    const std::string text = GainMapVariantFragmentSource(Variant(3, false, false, false, true));
    EXPECT_TRUE(Has(text, "(linear ? 1.0 : g) * log2(max(linear ? x : a * x + b, 1.0e-30)) + "
                          "(linear ? logCurveConstants.z : 0.0)"));
    EXPECT_TRUE(Has(text, "exp2(linear ? l : trfn_inv[0] * (logCurveConstants.x + l))"));
    EXPECT_TRUE(Has(text, "pow(gain, gainmapGamma.rgb)") == false);
    EXPECT_TRUE(Has(GainMapVariantFragmentSource(Variant(3, true, false, false, true)), "pow(gain, gainmapGamma.rgb)"));
}

// The curves of an sRGB-like picture without offsets, as the engine sets
// them: the parametric input curve and the inverse of sRGB.
const float kSrgbInput[7] = {2.4f, 0.94786727f, 0.0521327f, 0.07739938f, 0.04045f, 0.0f, 0.0f};
const float kHlgInput[7] = {-3.0f, 2.0f, 2.0f, 5.5918164f, 0.28466892f, 0.55991071f, 0.0f};
const float kPqInput[7] = {-2.0f, -0.8359375f, 1.0f, 0.012683313f, 18.8515625f, -18.6875f, 6.2773948f};
const float kInverseSrgb[7] = {0.41666666f, 1.1372833f, -0.0f, 12.92f, 0.0031308f, -0.054969788f, -0.0f};
const float kNoOffsets[3] = {0.0f, 0.0f, 0.0f};

TEST(LogDomain, AppliesToEveryInputFormWithoutOffsets)
{
    const float identity[7] = {1.0f, 1.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f};
    EXPECT_TRUE(LogDomainApplies(0, identity, kInverseSrgb, kNoOffsets, kNoOffsets));
    EXPECT_TRUE(LogDomainApplies(1, kHlgInput, kInverseSrgb, kNoOffsets, kNoOffsets));
    EXPECT_TRUE(LogDomainApplies(2, kPqInput, kInverseSrgb, kNoOffsets, kNoOffsets));
    EXPECT_TRUE(LogDomainApplies(3, kSrgbInput, kInverseSrgb, kNoOffsets, kNoOffsets));
}

TEST(LogDomain, AnyOffsetOnAnyChannelRulesItOut)
{
    for (int c = 0; c < 3; ++c) {
        float offset[3] = {0.0f, 0.0f, 0.0f};
        offset[c] = 1.0f / 64.0f;
        EXPECT_FALSE(LogDomainApplies(3, kSrgbInput, kInverseSrgb, offset, kNoOffsets)) << c;
        EXPECT_FALSE(LogDomainApplies(3, kSrgbInput, kInverseSrgb, kNoOffsets, offset)) << c;
    }
}

TEST(LogDomain, CurvesThatAreNotProductsRuleItOut)
{
    float outputWithOffsetInside[7];
    std::copy(kInverseSrgb, kInverseSrgb + 7, outputWithOffsetInside);
    outputWithOffsetInside[2] = 0.01f;  // pow(a * x + b, g) with b != 0
    EXPECT_FALSE(LogDomainApplies(3, kSrgbInput, outputWithOffsetInside, kNoOffsets, kNoOffsets));
    float outputWithoutScale[7];
    std::copy(kInverseSrgb, kInverseSrgb + 7, outputWithoutScale);
    outputWithoutScale[1] = 0.0f;
    EXPECT_FALSE(LogDomainApplies(3, kSrgbInput, outputWithoutScale, kNoOffsets, kNoOffsets));
    float outputNotFinite[7];
    std::copy(kInverseSrgb, kInverseSrgb + 7, outputNotFinite);
    outputNotFinite[5] = std::numeric_limits<float>::infinity();
    EXPECT_FALSE(LogDomainApplies(3, kSrgbInput, outputNotFinite, kNoOffsets, kNoOffsets));

    float inputWithOffset[7];
    std::copy(kSrgbInput, kSrgbInput + 7, inputWithOffset);
    inputWithOffset[5] = 0.01f;  // e
    EXPECT_FALSE(LogDomainApplies(3, inputWithOffset, kInverseSrgb, kNoOffsets, kNoOffsets));
    std::copy(kSrgbInput, kSrgbInput + 7, inputWithOffset);
    inputWithOffset[6] = 0.01f;  // f
    EXPECT_FALSE(LogDomainApplies(3, inputWithOffset, kInverseSrgb, kNoOffsets, kNoOffsets));
    std::copy(kSrgbInput, kSrgbInput + 7, inputWithOffset);
    inputWithOffset[3] = 0.0f;  // no linear slope to take the logarithm of
    EXPECT_FALSE(LogDomainApplies(3, inputWithOffset, kInverseSrgb, kNoOffsets, kNoOffsets));
    float hlgScaled[7];
    std::copy(kHlgInput, kHlgInput + 7, hlgScaled);
    hlgScaled[6] = 0.5f;  // K = f + 1 != 1
    EXPECT_FALSE(LogDomainApplies(1, hlgScaled, kInverseSrgb, kNoOffsets, kNoOffsets));
    EXPECT_FALSE(LogDomainApplies(4, kSrgbInput, kInverseSrgb, kNoOffsets, kNoOffsets));
    EXPECT_FALSE(LogDomainApplies(-1, kSrgbInput, kInverseSrgb, kNoOffsets, kNoOffsets));
}

TEST(LogDomain, ConstantsOfTheSrgbCurvesByHand)
{
    float k[4] = {};
    LogDomainConstants(3, kSrgbInput, kInverseSrgb, k);
    EXPECT_NEAR(k[0], 0.1855917, 1e-6);   // log2(1.1372833) = log2(1.055^2.4)
    EXPECT_NEAR(k[1], -8.3192529, 1e-5);  // log2(0.0031308)
    EXPECT_NEAR(k[2], -3.6915342, 1e-6);  // log2(1 / 12.92)
    EXPECT_EQ(k[3], 0.0f);
}

TEST(LogDomain, ThresholdAtZeroIsMinusInfinityAndOtherFormsHaveNoSlope)
{
    float output[7];
    std::copy(kInverseSrgb, kInverseSrgb + 7, output);
    output[4] = 0.0f;  // no linear segment: every value takes the power
    float k[4] = {};
    LogDomainConstants(1, kHlgInput, output, k);
    EXPECT_TRUE(std::isinf(k[1]) && k[1] < 0.0f);
    EXPECT_EQ(k[2], 0.0f);
}

// The factory curve (points 0, 512, 1024 of 1024; gradients 256 of 512) is
// the identity; any straight line with equal chords and gradients is
// affine; a bend anywhere is not.
TEST(GainCurve, FactoryCurveIsAffine)
{
    const float points[3] = {0.0f, 0.5f, 1.0f};
    const float grads[3] = {0.5f, 0.5f, 0.5f};
    EXPECT_TRUE(GainCurveIsAffine(points, grads));
}

TEST(GainCurve, ShiftedStraightLineIsAffine)
{
    // Points 100, 400, 700 of 1024 and gradients 150 of 512: chords of
    // 300 / 1024 = 150 / 512.
    const float points[3] = {100.0f / 1024, 400.0f / 1024, 700.0f / 1024};
    const float grads[3] = {150.0f / 512, 150.0f / 512, 150.0f / 512};
    EXPECT_TRUE(GainCurveIsAffine(points, grads));
}

TEST(GainCurve, AnyBendIsNotAffine)
{
    const float points[3] = {0.0f, 0.5f, 1.0f};
    const float grads[3] = {0.5f, 0.5f, 0.5f};
    for (int i = 0; i < 3; ++i) {
        SCOPED_TRACE(i);
        float bentPoints[3] = {points[0], points[1], points[2]};
        bentPoints[i] += 1.0f / 1024;
        EXPECT_FALSE(GainCurveIsAffine(bentPoints, grads));
        float bentGrads[3] = {grads[0], grads[1], grads[2]};
        bentGrads[i] += 1.0f / 512;
        EXPECT_FALSE(GainCurveIsAffine(points, bentGrads));
    }
    // Two straight halves of different slopes.
    const float kinkedPoints[3] = {0.0f, 0.25f, 1.0f};
    const float kinkedGrads[3] = {0.25f, 0.25f, 0.75f};
    EXPECT_FALSE(GainCurveIsAffine(kinkedPoints, kinkedGrads));
}

TEST(PackedGainMap, OnlyRenderersSamplingOnTheCpuPack)
{
    EXPECT_TRUE(RendererSamplesOnTheCpu("llvmpipe (LLVM 15.0.6, 256 bits)"));
    EXPECT_TRUE(RendererSamplesOnTheCpu("softpipe"));
    EXPECT_TRUE(RendererSamplesOnTheCpu("ANGLE (Google, Vulkan 1.3.0 (SwiftShader Device (Subzero)), SwiftShader driver)"));
    EXPECT_FALSE(RendererSamplesOnTheCpu("Mali-G52"));
    EXPECT_FALSE(RendererSamplesOnTheCpu("NVIDIA GeForce RTX 3060/PCIe/SSE2"));
    EXPECT_FALSE(RendererSamplesOnTheCpu("Mesa Intel(R) UHD Graphics 620 (KBL GT2)"));
    EXPECT_FALSE(RendererSamplesOnTheCpu(""));
    EXPECT_FALSE(RendererSamplesOnTheCpu(nullptr));
}

TEST(PackedGainMap, PixelsAreTheThreePlanesBytesThenOpaque)
{
    const uint8_t y[3] = {0, 17, 255};
    const uint8_t u[3] = {128, 1, 254};
    const uint8_t v[3] = {200, 99, 3};
    uint8_t rgba[12] = {};
    InterleaveGainMapPixels(y, u, v, 3, rgba);
    const uint8_t expected[12] = {0, 128, 200, 255, 17, 1, 99, 255, 255, 254, 3, 255};
    EXPECT_EQ(std::vector<uint8_t>(rgba, rgba + 12), std::vector<uint8_t>(expected, expected + 12));
    uint8_t untouched[4] = {7, 7, 7, 7};
    InterleaveGainMapPixels(y, u, v, 0, untouched);
    EXPECT_EQ(untouched[0], 7);
}

TEST(FlatGainChroma, CentredBytesGiveTheHandWorkedOffsets)
{
    // 128 / 255 - 0.5 = 0.5 / 255 = 0.00196078...
    float rgb[3] = {};
    FlatGainChromaOffset(128, 128, rgb);
    const double c = 0.5 / 255.0;
    EXPECT_NEAR(rgb[0], 1.402 * c, 1e-7);
    EXPECT_NEAR(rgb[1], -(0.344136 + 0.714136) * c, 1e-7);
    EXPECT_NEAR(rgb[2], 1.772 * c, 1e-7);
}

TEST(FlatGainChroma, OffCentreBytes)
{
    float rgb[3] = {};
    FlatGainChromaOffset(0, 255, rgb);  // u = -0.5, v = +0.5
    EXPECT_NEAR(rgb[0], 0.701, 1e-6);
    EXPECT_NEAR(rgb[1], 0.172068 - 0.357068, 1e-6);
    EXPECT_NEAR(rgb[2], -0.886, 1e-6);
}

TEST(PlaneIsFlat, EmptyOrMissingPlanesAreNotFlat)
{
    const uint8_t one = 7;
    EXPECT_FALSE(PlaneIsFlat(nullptr, 10));
    EXPECT_FALSE(PlaneIsFlat(&one, 0));
    EXPECT_TRUE(PlaneIsFlat(&one, 1));
}

TEST(PlaneIsFlat, FindsADifferenceAnywhere)
{
    // Sizes around the check's block size, the difference at the first, a
    // middle and the last byte.
    for (size_t size : {2u, 4095u, 4096u, 4097u, 8192u, 3u * 4096u + 17u}) {
        std::vector<uint8_t> plane(size, 128);
        EXPECT_TRUE(PlaneIsFlat(plane.data(), plane.size())) << size;
        for (size_t at : {size_t{0}, size / 2, size - 1}) {
            plane[at] = 129;
            EXPECT_FALSE(PlaneIsFlat(plane.data(), plane.size())) << size << " at " << at;
            plane[at] = 128;
        }
    }
}

TEST(PlaneIsFlat, ReadsOnlyTheBytesItIsGiven)
{
    std::vector<uint8_t> plane(5000, 3);
    plane[4999] = 4;
    EXPECT_TRUE(PlaneIsFlat(plane.data(), 4999));
}

TEST(GainChromaContent, FlatOnlyWhenBothPlanesAre)
{
    GainChromaContent content;
    EXPECT_FALSE(content.Flat());
    const std::vector<uint8_t> u(64, 100);
    std::vector<uint8_t> v(64, 170);
    content.Note(0, u.data(), u.size());
    EXPECT_FALSE(content.Flat());
    content.Note(1, v.data(), v.size());
    EXPECT_TRUE(content.Flat());
    float got[3] = {};
    float expected[3] = {};
    content.Offset(got);
    FlatGainChromaOffset(100, 170, expected);
    for (int c = 0; c < 3; ++c) {
        EXPECT_EQ(got[c], expected[c]);
    }
    v[10] = 0;
    content.Note(1, v.data(), v.size());
    EXPECT_FALSE(content.Flat());
}

TEST(GainChromaContent, ForgottenPlaneIsNotFlat)
{
    GainChromaContent content;
    const std::vector<uint8_t> flat(16, 128);
    content.Note(0, flat.data(), flat.size());
    content.Note(1, flat.data(), flat.size());
    ASSERT_TRUE(content.Flat());
    content.Forget(0);
    EXPECT_FALSE(content.Flat());
    // Planes other than U (0) and V (1) change nothing.
    content.Note(0, flat.data(), flat.size());
    content.Forget(2);
    content.Note(-1, nullptr, 0);
    EXPECT_TRUE(content.Flat());
}


// A plane maps one to one onto the output when the output has its size, or
// its transposed size under a quarter turn (codes 1 and 3); codes 2, 0 and
// anything else keep the plane's orientation.
TEST(PlaneMapsOneToOne, SameSizeWithoutAQuarterTurn)
{
    for (const int rotate : {0, 2, 4, -1}) {
        SCOPED_TRACE(rotate);
        EXPECT_TRUE(PlaneMapsOneToOne(4080, 3072, 4080, 3072, rotate));
        EXPECT_FALSE(PlaneMapsOneToOne(4080, 3072, 3072, 4080, rotate));
    }
}

TEST(PlaneMapsOneToOne, TransposedSizeUnderAQuarterTurn)
{
    for (const int rotate : {1, 3}) {
        SCOPED_TRACE(rotate);
        EXPECT_TRUE(PlaneMapsOneToOne(4080, 3072, 3072, 4080, rotate));
        EXPECT_FALSE(PlaneMapsOneToOne(4080, 3072, 4080, 3072, rotate));
    }
    EXPECT_TRUE(PlaneMapsOneToOne(29, 29, 29, 29, 1));  // a square is its own transpose
}

// Any scaling, even by one pixel, and empty planes are not one to one.
TEST(PlaneMapsOneToOne, ScaledOrEmptyPlanesAreNot)
{
    EXPECT_FALSE(PlaneMapsOneToOne(1020, 768, 4080, 3072, 0));  // a quarter-size gain map
    EXPECT_FALSE(PlaneMapsOneToOne(4080, 3072, 3840, 2160, 0));
    EXPECT_FALSE(PlaneMapsOneToOne(4080, 3072, 4081, 3072, 0));
    EXPECT_FALSE(PlaneMapsOneToOne(4080, 3072, 4080, 3071, 0));
    EXPECT_FALSE(PlaneMapsOneToOne(0, 0, 0, 0, 0));
    EXPECT_FALSE(PlaneMapsOneToOne(-4, 3, -4, 3, 0));
}

}  // namespace
