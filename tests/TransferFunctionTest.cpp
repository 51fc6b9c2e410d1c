// The seven-parameter transfer curves: evaluation, inversion, and the cases
// the inversion refuses.
#include "HdrGenerateTransferFunction.h"
#include "LogCapture.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>

using hdrtest::LogCapture;
using hdrtest::Parse;

namespace {

const float kSrgb[7] = {2.4f, 1.0f / 1.055f, 0.055f / 1.055f, 1.0f / 12.92f, 0.04045f, 0.0f, 0.0f};

// Hand-computed points of the piecewise form, exact in float.
TEST(TransferFunction, EvaluatesBothSegmentsExactly)
{
    const float tf[7] = {2.0f, 0.5f, 0.25f, 4.0f, 0.5f, 0.125f, 0.0625f};
    EXPECT_EQ(skcms_TransferFunction_eval(tf, 0.25f), 4.0f * 0.25f + 0.0625f);       // linear: 1.0625
    EXPECT_EQ(skcms_TransferFunction_eval(tf, 0.5f), 0.25f + 0.125f);                // (0.25 + 0.25)^2 + 0.125
    EXPECT_EQ(skcms_TransferFunction_eval(tf, 1.5f), 1.0f + 0.125f);                 // (0.75 + 0.25)^2 + 0.125
    EXPECT_EQ(skcms_TransferFunction_eval(tf, -1.5f), -1.125f);
    EXPECT_EQ(skcms_TransferFunction_eval(tf, 0.0f), 0.0625f);
}

// eval(tf, -x) = -eval(tf, x) for every x; -0.0 evaluates like +0.0.
TEST(TransferFunction, OddSymmetry)
{
    for (int i = 0; i <= 1000; ++i) {
        const float x = static_cast<float>(i) / 250.0f;
        EXPECT_EQ(skcms_TransferFunction_eval(kSrgb, -x), -skcms_TransferFunction_eval(kSrgb, x)) << x;
    }
    EXPECT_EQ(skcms_TransferFunction_eval(kSrgb, -0.0f), skcms_TransferFunction_eval(kSrgb, 0.0f));
}

// sRGB inverts to the familiar inverse curve. The usual published figures for
// a and e (1.1372833, -0.054969788) carry the error of a fast pow
// approximation; with the C library's powf, a is 1.055^2.4 = 1.1371188 and e
// is -0.055, so those two are checked within 2e-4, the rest within 2e-6.
TEST(TransferFunction, SrgbInvertsToTheInverseSrgbCurve)
{
    float inv[7];
    ASSERT_TRUE(skcms_TransferFunction_invert(kSrgb, inv));
    const float expected[7] = {0.41666666f, 1.1372833f, -0.0f, 12.92f, 0.0031308f, -0.054969788f, -0.0f};
    const float tolerance[7] = {2e-6f, 2e-4f, 2e-6f, 2e-5f, 2e-6f, 2e-4f, 2e-6f};
    for (int i = 0; i < 7; ++i) {
        EXPECT_NEAR(inv[i], expected[i], tolerance[i]) << "index " << i;
    }
    EXPECT_NEAR(inv[1], std::pow(1.055f, 2.4f), 1e-6f);
    EXPECT_NEAR(inv[5], -0.055f, 1e-6f);
}

// The inverse undoes the curve within 1e-5 over [0, 1], and maps src(1) back to 1.
TEST(TransferFunction, SrgbRoundTrip)
{
    float inv[7];
    ASSERT_TRUE(skcms_TransferFunction_invert(kSrgb, inv));
    for (int i = 0; i <= 4096; ++i) {
        const float x = static_cast<float>(i) / 4096.0f;
        EXPECT_NEAR(skcms_TransferFunction_eval(inv, skcms_TransferFunction_eval(kSrgb, x)), x, 1e-5f) << x;
    }
    EXPECT_EQ(skcms_TransferFunction_eval(inv, skcms_TransferFunction_eval(kSrgb, 1.0f)), 1.0f);
}

// Inversion step by step on a curve whose every value is exact in float.
TEST(TransferFunction, InversionFollowsItsSteps)
{
    // Power segment (x + 0)^2 meets the linear segment 0.5·x + 0 at d = 0.5 (both 0.25).
    const float tf[7] = {2.0f, 1.0f, 0.0f, 0.5f, 0.5f, 0.0f, 0.0f};
    float inv[7];
    ASSERT_TRUE(skcms_TransferFunction_invert(tf, inv));
    EXPECT_EQ(inv[0], 0.5f);   // 1 / g
    EXPECT_EQ(inv[1], 1.0f);   // a^-g
    EXPECT_EQ(inv[2], -0.0f);  // -k·e
    EXPECT_EQ(inv[3], 2.0f);   // 1 / c
    EXPECT_EQ(inv[4], 0.25f);  // c·d + f
    EXPECT_EQ(inv[5], 0.0f);   // 1 - (1·1 + 0)^0.5, keeping inv(src(1)) = 1
    EXPECT_EQ(inv[6], -0.0f);  // -f / c
}

// d = 0 collapses the linear segment: inv.c = inv.f = 0 and inv.d = f.
TEST(TransferFunction, ZeroThresholdCollapsesTheLinearSegment)
{
    const float tf[7] = {2.0f, 1.0f, 0.0f, 3.0f, 0.0f, 0.0f, 0.0f};
    float inv[7];
    ASSERT_TRUE(skcms_TransferFunction_invert(tf, inv));
    EXPECT_EQ(inv[3], 0.0f);
    EXPECT_EQ(inv[4], 0.0f);
    EXPECT_EQ(inv[6], 0.0f);
    EXPECT_EQ(inv[0], 0.5f);
}

// Segments that miss each other at d by more than 1/512 are refused; dst untouched.
TEST(TransferFunction, DiscontinuousCurveIsRefused)
{
    float tf[7];
    std::memcpy(tf, kSrgb, sizeof tf);
    tf[6] = 0.002f;  // lifts the linear segment by more than 1/512
    float inv[7] = {9, 9, 9, 9, 9, 9, 9};
    LogCapture capture;
    EXPECT_FALSE(skcms_TransferFunction_invert(tf, inv));
    for (float v : inv) {
        EXPECT_EQ(v, 9.0f);
    }
    EXPECT_TRUE(capture.Lines().empty());
    tf[6] = 0.0019f;  // within 1/512: accepted
    EXPECT_TRUE(skcms_TransferFunction_invert(tf, inv));
}

// A curve whose value at 1.0 is infinite is refused.
TEST(TransferFunction, InfiniteValueAtOneIsRefused)
{
    const float tf[7] = {2.0f, 1.0f, 0.0f, 1.0f, 0.0f, std::numeric_limits<float>::infinity(), 0.0f};
    float inv[7] = {9, 9, 9, 9, 9, 9, 9};
    // e = inf makes the segments miss each other already; use a finite e and a huge g instead.
    EXPECT_FALSE(skcms_TransferFunction_invert(tf, inv));
    const float steep[7] = {1e30f, 2.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f};  // 2^(1e30) at 1.0
    EXPECT_FALSE(skcms_TransferFunction_invert(steep, inv));
    EXPECT_EQ(inv[0], 9.0f);
}

// A negative scale of the inverse is refused.
TEST(TransferFunction, NegativeInverseScaleIsRefused)
{
    // a = -1, g = 1: k = (-1)^-1 = -1.
    const float tf[7] = {1.0f, -1.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f};
    float inv[7] = {9, 9, 9, 9, 9, 9, 9};
    EXPECT_FALSE(skcms_TransferFunction_invert(tf, inv));
    EXPECT_EQ(inv[1], 9.0f);
}

// A NaN scale fails the first assertion, with its message.
TEST(TransferFunction, NanScaleReportsTheFirstAssertion)
{
    // a = NaN: the segments still "meet" (NaN comparisons are false) and k is NaN.
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float tf[7] = {2.0f, nan, 0.0f, 1.0f, 0.0f, 0.0f, 0.0f};
    float inv[7] = {9, 9, 9, 9, 9, 9, 9};
    LogCapture capture;
    EXPECT_FALSE(skcms_TransferFunction_invert(tf, inv));
    ASSERT_EQ(capture.Lines().size(), 1u);
    const auto parsed = Parse(capture.Lines()[0].text);
    EXPECT_EQ(parsed.function, "skcms_TransferFunction_invert");
    EXPECT_EQ(parsed.message,
              hdrtest::Format("HDR_ASSERT[skcms_TransferFunction_invert:%d] : inv[1] >= 0", parsed.line));
    EXPECT_EQ(inv[0], 9.0f);
}

// A curve scaled to nothing (a = b = c = 0) gives an infinite scale and a NaN
// offset: the second assertion reports it.
TEST(TransferFunction, NanOffsetReportsTheSecondAssertion)
{
    const float tf[7] = {2.4f, 0.0f, 0.0f, 0.0f, 0.04045f, 0.0f, 0.0f};
    float inv[7] = {9, 9, 9, 9, 9, 9, 9};
    LogCapture capture;
    EXPECT_FALSE(skcms_TransferFunction_invert(tf, inv));
    ASSERT_EQ(capture.Lines().size(), 1u);
    const auto parsed = Parse(capture.Lines()[0].text);
    EXPECT_EQ(parsed.message, hdrtest::Format("HDR_ASSERT[skcms_TransferFunction_invert:%d] : inv[1] * inv[4] + inv[2] >= 0",
                                              parsed.line));
    EXPECT_EQ(capture.Stdout(), parsed.message + "\n");
}

// A base that would go negative at d is pulled back to 0 there.
TEST(TransferFunction, NegativeBaseAtThresholdIsRescued)
{
    // Linear x below d = 0.5, power (x - 1) + 1 above: both 0.5 at d.
    // inv.a = 1, inv.d = 0.5, inv.b = -e = -1: 1·0.5 - 1 < 0, so inv.b becomes -0.5;
    // then inv.e = 1 - (1·src(1) + inv.b)^1 = 1 - (1 - 0.5) = 0.5.
    const float tf[7] = {1.0f, 1.0f, -1.0f, 1.0f, 0.5f, 1.0f, 0.0f};
    float inv[7];
    ASSERT_TRUE(skcms_TransferFunction_invert(tf, inv));
    const float expected[7] = {1.0f, 1.0f, -0.5f, 1.0f, 0.5f, 0.5f, -0.0f};
    for (int i = 0; i < 7; ++i) {
        EXPECT_EQ(inv[i], expected[i]) << "index " << i;
    }
}

}  // namespace
