// The specialised fragment texts and the flat-plane check, without a GPU:
// which pieces each picture class keeps, how classes are numbered, and the
// flat chroma's contribution worked out by hand.
#include "HdrGainMapVariant.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

namespace {

bool Has(const std::string& text, const std::string& piece)
{
    return text.find(piece) != std::string::npos;
}

GainMapVariant Variant(int curve, bool gamma, bool yuv, bool flat)
{
    GainMapVariant v;
    v.inputCurve = curve;
    v.applyGamma = gamma;
    v.outputYuv = yuv;
    v.flatGainChroma = flat;
    return v;
}

TEST(GainMapVariant, EveryClassHasItsOwnIndex)
{
    std::set<int> seen;
    for (int curve = 0; curve < 4; ++curve) {
        for (int bits = 0; bits < 8; ++bits) {
            const int index = GainMapVariantIndex(Variant(curve, bits & 1, bits & 2, bits & 4));
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

TEST(GainMapVariant, EveryTextIsGlslEs300WithTheSameOutput)
{
    for (int index = 0; index < kGainMapVariantCount; ++index) {
        const GainMapVariant v = Variant(index / 8, index & 4, index & 2, index & 1);
        const std::string text = GainMapVariantFragmentSource(v);
        EXPECT_EQ(text.rfind("#version 300 es\nprecision highp float;\n", 0), 0u) << index;
        EXPECT_TRUE(Has(text, "fragColor = vec4(result, 1.0);")) << index;
        EXPECT_TRUE(Has(text, "exp(logGain * W)")) << index;
    }
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
