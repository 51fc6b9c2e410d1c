// The gain-map constants as a pure computation: hand-worked values for each
// rule, and agreement with the tests' own constants model over a grid of
// pictures, tunings and levels. Runs without EGL or GL.
#include "ConstantsModel.h"
#include "HdrGenerateConstants.h"
#include "LogCapture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>

namespace {

using hdrtest::PictureMetadata;
using hdrtest::TuningValues;

// Relative tolerance for single-precision results against double-precision
// expectations: a few units in the last place.
constexpr double kTolerance = 2e-6;

::testing::AssertionResult Near(double got, double expected)
{
    if (std::isnan(expected) ? std::isnan(got)
                             : std::fabs(got - expected) <= kTolerance * std::max(1.0, std::fabs(expected))) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << "got " << got << ", expected " << expected;
}

HdrInfo Info(const PictureMetadata& md)
{
    HdrInfo info;
    std::memset(&info, 0, sizeof info);
    for (int c = 0; c < 3; ++c) {
        info.gainMapMin[c] = md.gainMapMin[c];
        info.gainMapMax[c] = md.gainMapMax[c];
        info.gamma[c] = md.gamma[c];
    }
    info.gainMapMin[3] = 1.0f;
    info.gainMapMax[3] = 1.0f;
    info.gamma[3] = 1.0f;
    std::memcpy(info.offsetSdr, md.offsetSdr.data(), sizeof info.offsetSdr);
    std::memcpy(info.offsetHdr, md.offsetHdr.data(), sizeof info.offsetHdr);
    info.hdrCapacityMin = md.hdrCapacityMin;
    info.hdrCapacityMax = md.hdrCapacityMax;
    info.gamut = static_cast<hdr_color_gamut>(md.gamut);
    info.trfn = static_cast<hdr_transfer_function>(md.trfn);
    info.outputRotate = md.outputRotate;
    info.outputMirror = md.outputMirror;
    return info;
}

HdrFactorySettings::Parameter Tuning(const TuningValues& t)
{
    HdrFactorySettings::Parameter p;
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
    return p;
}

GainMapConstants Compute(const PictureMetadata& md, const TuningValues& t, int32_t apl, bool yuv = false)
{
    return ComputeGainMapConstants(Info(md), Tuning(t), apl, yuv);
}

// Tuning levels 1.0 (128) and 2.0 (256) between levels 10 and 100.
TEST(GainMapConstants, DisplayBoostBelowTheLowThresholdIsTheLowLevel)
{
    EXPECT_EQ(Compute({}, {}, 9).mdb, 1.0f);
}

TEST(GainMapConstants, DisplayBoostAboveTheHighThresholdIsTheHighLevel)
{
    EXPECT_EQ(Compute({}, {}, 101).mdb, 2.0f);
}

TEST(GainMapConstants, DisplayBoostBlendsLinearlyBetweenTheThresholds)
{
    // (55 - 10) / (100 - 10) of the way from 1.0 to 2.0.
    EXPECT_EQ(Compute({}, {}, 55).mdb, 1.5f);
    EXPECT_EQ(Compute({}, {}, 10).mdb, 1.0f);
    EXPECT_EQ(Compute({}, {}, 100).mdb, 2.0f);
}

TEST(GainMapConstants, EqualThresholdsGiveTheHighLevel)
{
    TuningValues t;
    t.MDB_T1 = 50;
    t.MDB_T2 = 50;
    EXPECT_EQ(Compute({}, t, 50).mdb, 2.0f);
}

TEST(GainMapConstants, TuningLevelsAreFixedPointEighthsOfSixteen)
{
    TuningValues t;
    t.MDB_V1 = 160;
    t.MDB_V2 = 1023;
    const GainMapConstants k = Compute({}, t, 0);
    EXPECT_EQ(k.mdbV1, 1.25f);
    EXPECT_EQ(k.mdbV2, 1023.0f / 128.0f);
}

TEST(GainMapConstants, GainRatiosAreNaturalLogarithmsOfTheLog2Metadata)
{
    PictureMetadata md;
    md.gainMapMin = {{-1.0f, 0.0f, 0.5f}};
    md.gainMapMax = {{1.0f, 2.0f, 3.0f}};
    const GainMapConstants k = Compute(md, {}, 0);
    const double ln2 = 0.6931472;
    EXPECT_TRUE(Near(k.logRatioMin[0], -ln2));
    EXPECT_TRUE(Near(k.logRatioMin[1], 0.0));
    EXPECT_TRUE(Near(k.logRatioMin[2], 0.5 * ln2));
    EXPECT_TRUE(Near(k.logRatioMax[0], ln2));
    EXPECT_TRUE(Near(k.logRatioMax[1], 2 * ln2));
    EXPECT_TRUE(Near(k.logRatioMax[2], 3 * ln2));
    EXPECT_EQ(k.logRatioMin[3], 1.0f);
    EXPECT_EQ(k.logRatioMax[3], 1.0f);
}

TEST(GainMapConstants, GammaIsInvertedAndScaledByTheMultiplier)
{
    PictureMetadata md;
    md.gamma = {{2.0f, 1.0f, 0.5f}};
    TuningValues t;
    t.GAMMA_MUL = 256;  // 2.0
    const GainMapConstants k = Compute(md, t, 0);
    EXPECT_EQ(k.gainmapGamma[0], 0.25f);
    EXPECT_EQ(k.gainmapGamma[1], 0.5f);
    EXPECT_EQ(k.gainmapGamma[2], 1.0f);
    EXPECT_EQ(k.gainmapGamma[3], 1.0f);
}

TEST(GainMapConstants, NoGammaOnlyWhenEveryChannelIsOne)
{
    PictureMetadata md;
    EXPECT_EQ(Compute(md, {}, 0).noGamma, 1);
    md.gamma[2] = 1.5f;
    EXPECT_EQ(Compute(md, {}, 0).noGamma, 0);
}

TEST(GainMapConstants, OffsetsPassThroughWithTheirFourthValue)
{
    PictureMetadata md;
    md.offsetSdr = {{0.015625f, 0.25f, 0.5f, 0.75f}};
    md.offsetHdr = {{0.125f, 0.0f, 1.0f, 2.0f}};
    const GainMapConstants k = Compute(md, {}, 0);
    for (int c = 0; c < 4; ++c) {
        EXPECT_EQ(k.epsilonSdr[c], md.offsetSdr[c]) << c;
        EXPECT_EQ(k.epsilonHdr[c], md.offsetHdr[c]) << c;
    }
}

TEST(GainMapConstants, WeightIsTheBoostsShareOfTheCapacityRange)
{
    PictureMetadata md;
    md.hdrCapacityMin = 0.0f;
    md.hdrCapacityMax = 2.0f;  // up to 4x
    const GainMapConstants k = Compute(md, {}, 255);  // boost 2x
    EXPECT_EQ(k.boost, 2.0f);
    EXPECT_TRUE(Near(k.weight, 0.5));
}

TEST(GainMapConstants, BoostIsCappedByTheCapacity)
{
    PictureMetadata md;
    md.hdrCapacityMax = 0.5f;  // 2^0.5 below the 2x boost
    const GainMapConstants k = Compute(md, {}, 255);
    EXPECT_TRUE(Near(k.boost, std::sqrt(2.0)));
    EXPECT_EQ(k.weight, 1.0f);
}

TEST(GainMapConstants, WeightIsClampedAtZero)
{
    PictureMetadata md;
    md.hdrCapacityMin = 1.5f;  // above the 2x boost
    md.hdrCapacityMax = 3.0f;
    EXPECT_EQ(Compute(md, {}, 255).weight, 0.0f);
}

TEST(GainMapConstants, OutputCurveInvertsSrgbScaledToTheBoost)
{
    PictureMetadata md;
    md.hdrCapacityMax = 3.0f;
    const GainMapConstants k = Compute(md, {}, 0);  // boost 1: plain sRGB
    EXPECT_EQ(k.outputCurveInversion, CurveInversion::kInverted);
    // g' = 1/g, a' = a^-g, c' = 1/c, d' = c·d, and e' pins the inverse of
    // src(1) = (a + b)^g to exactly 1.
    const double a = 0.94786733;
    const double b = 0.052132703;
    const double scale = std::pow(a, -2.4);
    const double atOne = std::pow(a + b, 2.4);
    const double expected[7] = {1.0 / 2.4, scale, 0.0, 1.0 / 0.07739938, 0.07739938 * 0.04045,
                                1.0 - std::pow(scale * atOne, 1.0 / 2.4), 0.0};
    for (int i = 0; i < 7; ++i) {
        EXPECT_NEAR(k.trfnInv[i], expected[i], 2e-6 * std::max(1.0, std::fabs(expected[i]))) << i;
    }
}

TEST(GainMapConstants, OutputCurveOfAZeroBoostFallsBackToInverseSrgb)
{
    TuningValues t;
    t.MDB_V1 = 0;
    const GainMapConstants k = Compute({}, t, 0);
    EXPECT_EQ(k.boost, 0.0f);
    EXPECT_NE(k.outputCurveInversion, CurveInversion::kInverted);
    const float fallback[7] = {0.41666666f, 1.1372833f, -0.0f, 12.92f, 0.0031308f, -0.054969788f, -0.0f};
    EXPECT_EQ(std::memcmp(k.trfnInv, fallback, sizeof fallback), 0);
}

TEST(GainMapConstants, GainCurveIsFixedPoint)
{
    TuningValues t;
    t.GAIN_CURVE_P0 = 256;
    t.GAIN_CURVE_P1 = 512;
    t.GAIN_CURVE_P2 = 1024;
    t.GAIN_CURVE_G0 = 128;
    t.GAIN_CURVE_G1 = 512;
    t.GAIN_CURVE_G2 = 1023;
    const GainMapConstants k = Compute({}, t, 0);
    EXPECT_EQ(k.curveGainPoint[0], 0.25f);
    EXPECT_EQ(k.curveGainPoint[1], 0.5f);
    EXPECT_EQ(k.curveGainPoint[2], 1.0f);
    EXPECT_EQ(k.curveGainGrad[0], 0.25f);
    EXPECT_EQ(k.curveGainGrad[1], 1.0f);
    EXPECT_EQ(k.curveGainGrad[2], 1023.0f / 512.0f);
}

TEST(GainMapConstants, OutputChoiceAndInputTransferAreCopied)
{
    PictureMetadata md;
    md.trfn = 2;
    const GainMapConstants k = Compute(md, {}, 0, true);
    EXPECT_EQ(k.outputYUV, 1);
    EXPECT_EQ(k.inputTrfnType, 2);
    EXPECT_EQ(Compute(md, {}, 0, false).outputYUV, 0);
}

TEST(GainMapConstants, InputCurveFollowsTheTransferFunction)
{
    for (int32_t trfn = 0; trfn < 4; ++trfn) {
        PictureMetadata md;
        md.trfn = trfn;
        const GainMapConstants k = Compute(md, {}, 0);
        const std::array<float, 7> expected = hdrtest::InputCurve(trfn);
        for (int i = 0; i < 7; ++i) {
            EXPECT_EQ(k.inTrfn[i], expected[i]) << "trfn " << trfn << " [" << i << "]";
        }
    }
}

TEST(GainMapConstants, CodesOutOfRangeAreFlaggedAndGetTheIdentityInputCurve)
{
    PictureMetadata md;
    md.gamut = 3;
    md.trfn = -1;
    const GainMapConstants k = Compute(md, {}, 0);
    EXPECT_FALSE(k.gamutValid);
    EXPECT_FALSE(k.trfnValid);
    const float identity[7] = {1.0f, 1.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f};
    EXPECT_EQ(std::memcmp(k.inTrfn, identity, sizeof identity), 0);
    md.gamut = 2;
    md.trfn = 3;
    EXPECT_TRUE(Compute(md, {}, 0).gamutValid);
    EXPECT_TRUE(Compute(md, {}, 0).trfnValid);
}

TEST(GainMapConstants, RotationCodesOutsideOneToThreeMeanNone)
{
    PictureMetadata md;
    md.outputRotate = 4;
    const GainMapConstants k = Compute(md, {}, 0);
    EXPECT_EQ(k.rotateDegrees, 0.0f);
    const float identity[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
    EXPECT_EQ(std::memcmp(k.rotateMatrix, identity, sizeof identity), 0);
}

TEST(GainMapConstants, RotationAndMirrorMatchTheModel)
{
    for (int32_t rotate = 0; rotate <= 3; ++rotate) {
        for (bool mirror : {false, true}) {
            PictureMetadata md;
            md.outputRotate = rotate;
            md.outputMirror = mirror;
            const GainMapConstants k = Compute(md, {}, 0);
            EXPECT_EQ(k.rotateDegrees, rotate == 0 ? 0.0f : -90.0f * static_cast<float>(rotate));
            EXPECT_EQ(k.mirror, mirror);
            const std::array<double, 16> expected = hdrtest::RotationMatrix(rotate, mirror);
            for (int i = 0; i < 16; ++i) {
                EXPECT_NEAR(k.rotateMatrix[i], expected[i], 1e-6) << "rotate " << rotate << " mirror " << mirror;
            }
        }
    }
}

// Every uploaded value against the model, over pictures like the shared
// samples' and tunings at and beyond their legal range.
TEST(GainMapConstants, AgreesWithTheConstantsModel)
{
    PictureMetadata seine;
    seine.gainMapMin = {{-0.256907f, -0.261365f, -0.280284f}};
    seine.gainMapMax = {{1.277177f, 1.277203f, 1.277969f}};
    seine.gamma = {{0.953784f, 0.941095f, 0.919422f}};
    seine.offsetSdr = {{0.015625f, 0.015625f, 0.015625f, 1.0f}};
    seine.offsetHdr = {{0.015625f, 0.015625f, 0.015625f, 1.0f}};
    seine.hdrCapacityMax = 1.3f;
    PictureMetadata pixel;
    pixel.gainMapMax = {{2.656715f, 2.656715f, 2.656715f}};
    pixel.hdrCapacityMax = 2.656715f;
    pixel.outputRotate = 1;
    pixel.outputMirror = true;
    PictureMetadata hlg;
    hlg.trfn = 1;
    hlg.hdrCapacityMin = 0.5f;
    hlg.hdrCapacityMax = 4.0f;
    TuningValues bright;
    bright.MDB_V1 = 300;
    bright.MDB_V2 = 1023;
    bright.GAMMA_MUL = 100;
    TuningValues flat;
    flat.MDB_T1 = 200;
    flat.MDB_T2 = 200;
    int cases = 0;
    for (const PictureMetadata& md : {seine, pixel, hlg}) {
        for (const TuningValues& t : {TuningValues{}, bright, flat}) {
            for (int32_t apl : {0, 10, 37, 100, 200, 255}) {
                for (bool yuv : {false, true}) {
                    SCOPED_TRACE("case " + std::to_string(cases++));
                    const GainMapConstants k = Compute(md, t, apl, yuv);
                    const hdrtest::GainMapUniforms u = hdrtest::ComputeConstants(md, t, apl, yuv);
                    for (int c = 0; c < 4; ++c) {
                        EXPECT_TRUE(Near(k.logRatioMin[c], u.logRatioMin[c]));
                        EXPECT_TRUE(Near(k.logRatioMax[c], u.logRatioMax[c]));
                        EXPECT_TRUE(Near(k.gainmapGamma[c], u.gainmapGamma[c]));
                        EXPECT_TRUE(Near(k.epsilonSdr[c], u.epsilonSdr[c]));
                        EXPECT_TRUE(Near(k.epsilonHdr[c], u.epsilonHdr[c]));
                    }
                    EXPECT_TRUE(Near(k.weight, u.W));
                    EXPECT_EQ(k.noGamma, u.noGamma);
                    for (int i = 0; i < 9; ++i) {
                        EXPECT_EQ(k.outputGamutTransform[i], u.outputGamutTransform[i]);
                    }
                    for (int i = 0; i < 7; ++i) {
                        EXPECT_NEAR(k.trfnInv[i], u.trfn_inv[i], 2e-5 * std::max(1.0f, std::fabs(u.trfn_inv[i])));
                        EXPECT_EQ(k.inTrfn[i], u.in_trfn[i]);
                    }
                    for (int i = 0; i < 3; ++i) {
                        EXPECT_EQ(k.curveGainPoint[i], u.curve_gain_point[i]);
                        EXPECT_EQ(k.curveGainGrad[i], u.curve_gain_grad[i]);
                    }
                    EXPECT_EQ(k.outputYUV, u.bOutputYUV);
                    EXPECT_EQ(k.inputTrfnType, u.inputTrfnType);
                    for (int i = 0; i < 16; ++i) {
                        EXPECT_NEAR(k.rotateMatrix[i], u.rotateMatrix[i], 1e-6);
                    }
                }
            }
        }
    }
}

// The computation itself says nothing, even for a curve it cannot invert.
TEST(GainMapConstants, LogsNothing)
{
    TuningValues t;
    t.MDB_V1 = -128;  // a negative boost: the output curve is NaN
    hdrtest::LogCapture capture;
    const GainMapConstants k = Compute({}, t, 0);
    EXPECT_NE(k.outputCurveInversion, CurveInversion::kInverted);
    EXPECT_TRUE(capture.Lines().empty());
    EXPECT_TRUE(capture.Stdout().empty());
}

}  // namespace
