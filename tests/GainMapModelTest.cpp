// Tests of the CPU model of the gain-map fragment stage against values worked
// out by hand, and of its error bound. No GPU is involved.
#include "GainMapModel.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>

namespace {

using hdrtest::EvaluateNominal;
using hdrtest::GainMapUniforms;
using hdrtest::Interval;
using hdrtest::PixelSamples;
using hdrtest::ToCode;
using hdrtest::Vec3;
namespace gm = hdrtest::gainmap;

// Parameters are float uniforms, so hand values hold to about 1e-7 relative.
constexpr double kTol = 1e-6;

const std::array<float, 7> kSrgbDecode{
    {2.4f, 0.94786727f, 0.0521327f, 0.07739938f, 0.04045f, 0.0f, 0.0f}};
const std::array<float, 7> kPqDecode{
    {-2.0f, -0.8359375f, 1.0f, 0.012683313f, 18.8515625f, -18.6875f, 6.2773948f}};
const std::array<float, 7> kHlgDecode{
    {-3.0f, 2.0f, 2.0f, 5.5918164f, 0.28466892f, 0.55991071f, 0.0f}};
const std::array<float, 7> kSrgbEncode{
    {0.41666666f, 1.1372833f, -0.0f, 12.92f, 0.0031308f, -0.054969788f, -0.0f}};
const std::array<float, 3> kCurvePoints{{0.1f, 0.3f, 0.9f}};
const std::array<float, 3> kCurveGrads{{0.2f, 0.8f, 0.4f}};

PixelSamples Samples(double y, double u, double v, double gy, double gu, double gv)
{
    PixelSamples s;
    s.main = {{y, u, v}};
    s.gain = {{gy, gu, gv}};
    return s;
}

// Neutral chroma is 0.5 for both U and V.
PixelSamples Grey(double y, double gainY)
{
    return Samples(y, 0.5, 0.5, gainY, 0.5, 0.5);
}

// ---------------------------------------------------------------------------
// Single steps
// ---------------------------------------------------------------------------

// Neutral chroma leaves luma in every channel.
TEST(GainMapModelSteps, YuvToRgbOfNeutralChromaIsGrey)
{
    const Vec3 rgb = gm::YuvToRgb(0.3, 0.5, 0.5);
    EXPECT_DOUBLE_EQ(rgb[0], 0.3);
    EXPECT_DOUBLE_EQ(rgb[1], 0.3);
    EXPECT_DOUBLE_EQ(rgb[2], 0.3);
}

// Full U and full V move R, G and B by the BT.601 columns.
TEST(GainMapModelSteps, YuvToRgbUsesTheBt601Columns)
{
    // Full U and full V use the BT.601 columns: U adds 1.772/2 to B and takes
    // 0.344136/2 from G; V adds 1.402/2 to R and takes 0.714136/2 from G.
    const Vec3 u = gm::YuvToRgb(0.0, 1.0, 0.5);
    EXPECT_NEAR(u[0], 0.0, 1e-12);
    EXPECT_NEAR(u[1], -0.172068, 1e-12);
    EXPECT_NEAR(u[2], 0.886, 1e-12);
    const Vec3 v = gm::YuvToRgb(0.0, 0.5, 1.0);
    EXPECT_NEAR(v[0], 0.701, 1e-12);
    EXPECT_NEAR(v[1], -0.357068, 1e-12);
    EXPECT_NEAR(v[2], 0.0, 1e-12);
}

// Mid-grey in the YUV form is (0.465, 0.5, 0.49).
TEST(GainMapModelSteps, MidGreyYuvOutputUsesTheOutputWeights)
{
    // Mid-grey through the output's YUV form: Y = 0.5 * (0.229 + 0.587 + 0.114)
    // = 0.465, U = 0.5 * 0 + 0.5 = 0.5, V = 0.5 * (0.5 - 0.439 - 0.081) + 0.5 = 0.49.
    const Vec3 yuv = gm::RgbToOutputYuv(Vec3{{0.5, 0.5, 0.5}});
    EXPECT_NEAR(yuv[0], 0.465, 1e-12);
    EXPECT_NEAR(yuv[1], 0.5, 1e-12);
    EXPECT_NEAR(yuv[2], 0.49, 1e-12);
}

// A gain-map value of exactly 0.5 starts the second segment at t = 0: P.y.
TEST(GainMapModelSteps, GainCurveAtHalfIsTheMiddlePoint)
{
    EXPECT_NEAR(gm::GainCurve(kCurvePoints, kCurveGrads, 0.5), 0.3, kTol);
}

// The curve passes through P.x at 0, P.y at 0.5 (from both sides) and P.z at 1.
TEST(GainMapModelSteps, GainCurveHitsItsPointsAtTheEnds)
{
    // t = 0 of the first segment gives P.x, t = 1 of the second gives P.z, and the
    // first segment reaches P.y at its own t = 1 (continuity at 0.5).
    EXPECT_NEAR(gm::GainCurve(kCurvePoints, kCurveGrads, 0.0), 0.1, kTol);
    EXPECT_NEAR(gm::GainCurve(kCurvePoints, kCurveGrads, 1.0), 0.9, kTol);
    EXPECT_NEAR(gm::GainCurve(kCurvePoints, kCurveGrads, std::nextafter(0.5, 0.0)), 0.3, kTol);
}

// Mid-segment values use the slopes per unit of t, not per unit of value.
TEST(GainMapModelSteps, GainCurveMidSegmentUsesSlopesPerUnitT)
{
    // At t = 0.5 the Hermite weights are 1/2, 1/8, 1/2, -1/8:
    // value 0.25: 0.5*0.1 + 0.125*0.2 + 0.5*0.3 - 0.125*0.8 = 0.125;
    // value 0.75: 0.5*0.3 + 0.125*0.8 + 0.5*0.9 - 0.125*0.4 = 0.65.
    // The slopes count per unit of t, not per unit of value.
    EXPECT_NEAR(gm::GainCurve(kCurvePoints, kCurveGrads, 0.25), 0.125, kTol);
    EXPECT_NEAR(gm::GainCurve(kCurvePoints, kCurveGrads, 0.75), 0.65, kTol);
}

// The default points and slopes make the curve the identity, also outside [0, 1].
TEST(GainMapModelSteps, DefaultGainCurveIsTheIdentity)
{
    // Points 0, 0.5, 1 with slope 0.5 per t make the curve the identity, also
    // outside [0, 1] (the segments extrapolate).
    const GainMapUniforms u;
    for (double v : {-0.7, -0.1, 0.0, 0.13, 0.49, 0.5, 0.61, 0.99, 1.0, 1.4}) {
        EXPECT_NEAR(gm::GainCurve(u.curve_gain_point, u.curve_gain_grad, v), v, 1e-12) << v;
    }
}

// Type 3 is the sRGB form: the line below d, the power above.
TEST(GainMapModelSteps, InputType3IsTheSrgbForm)
{
    // sRGB form: below d = 0.04045 the line c x: 0.07739938 * 0.02 = 0.0015479876;
    // above, (0.94786727 * 0.5 + 0.0521327)^2.4 = 0.526066335^2.4 = 0.21404113.
    EXPECT_NEAR(gm::DecodeInput(3, kSrgbDecode, 0.02), 0.0015479876, kTol);
    EXPECT_NEAR(gm::DecodeInput(3, kSrgbDecode, 0.5), 0.21404113, kTol);
    EXPECT_NEAR(gm::DecodeInput(3, kSrgbDecode, 1.0), 1.0, 1e-5);
}

// Type 2 is the PQ form: 0 at 0, 1 at 1, 0.0092246 at 0.5.
TEST(GainMapModelSteps, InputType2IsThePqForm)
{
    // PQ form: x = 0: K = 0, max(-0.8359375, 0) / 18.8515625 = 0, 0^6.28 = 0.
    // x = 1: K = 1, (1 - 0.8359375) / (18.8515625 - 18.6875) = 0.1640625 / 0.1640625
    // = 1, 1^6.28 = 1. x = 0.5: K = 0.5^0.012683313 = 0.9912471, ratio
    // 0.1553096 / 0.3276318 = 0.4740371, ^6.2773948 = 0.0092246.
    EXPECT_NEAR(gm::DecodeInput(2, kPqDecode, 0.0), 0.0, kTol);
    EXPECT_NEAR(gm::DecodeInput(2, kPqDecode, 1.0), 1.0, 1e-5);
    EXPECT_NEAR(gm::DecodeInput(2, kPqDecode, 0.5), 0.0092246, 1e-6);
}

// Type 1 is the HLG form: the square up to x a = 1, the exponential above.
TEST(GainMapModelSteps, InputType1IsTheHlgForm)
{
    // HLG form (K = f + 1 = 1): x a <= 1 gives (2x)^2: 0.25 -> 0.25, 0.5 -> 1;
    // above, exp((x - 0.55991071) * 5.5918164 + 0.28466892):
    // 0.75 -> exp(1.3476133) = 3.8482301, 1 -> exp(2.7455674) = 15.573448.
    EXPECT_NEAR(gm::DecodeInput(1, kHlgDecode, 0.25), 0.25, kTol);
    EXPECT_NEAR(gm::DecodeInput(1, kHlgDecode, 0.5), 1.0, kTol);
    EXPECT_NEAR(gm::DecodeInput(1, kHlgDecode, 0.75), 3.8482301, 1e-5);
    EXPECT_NEAR(gm::DecodeInput(1, kHlgDecode, 1.0), 15.573448, 1e-4);
}

// f scales the HLG form by f + 1.
TEST(GainMapModelSteps, InputType1ScalesByFPlusOne)
{
    std::array<float, 7> p = kHlgDecode;
    p[6] = 2.0f;
    EXPECT_NEAR(gm::DecodeInput(1, p, 0.25), 0.75, kTol);
}

// Type 0 passes the value through; an unknown type has no defined value.
TEST(GainMapModelSteps, InputType0IsIdentityAndOthersUndefined)
{
    EXPECT_EQ(gm::DecodeInput(0, kSrgbDecode, -0.37), -0.37);
    EXPECT_TRUE(std::isnan(gm::DecodeInput(4, kSrgbDecode, 0.5)));
}

// All three input forms and the output encoding are odd: f(-x) = -f(x).
TEST(GainMapModelSteps, CurvesAreOdd)
{
    for (double x : {0.001, 0.02, 0.04045, 0.2, 0.5, 0.73, 1.0, 1.3}) {
        EXPECT_DOUBLE_EQ(gm::DecodeInput(1, kHlgDecode, -x), -gm::DecodeInput(1, kHlgDecode, x))
            << x;
        EXPECT_DOUBLE_EQ(gm::DecodeInput(2, kPqDecode, -x), -gm::DecodeInput(2, kPqDecode, x)) << x;
        EXPECT_DOUBLE_EQ(gm::DecodeInput(3, kSrgbDecode, -x), -gm::DecodeInput(3, kSrgbDecode, x))
            << x;
        EXPECT_DOUBLE_EQ(gm::EncodeOutput(kSrgbEncode, -x), -gm::EncodeOutput(kSrgbEncode, x)) << x;
    }
}

// The output encoding is the piecewise form (line below d, power above).
TEST(GainMapModelSteps, EncodingIsThePiecewiseForm)
{
    // Output encoding with the inverse sRGB curve: 0.002 < d gives 12.92 * 0.002
    // = 0.02584; 0.5 gives (1.1372833 * 0.5)^0.41666666 - 0.054969788 = 0.7354348.
    EXPECT_NEAR(gm::EncodeOutput(kSrgbEncode, 0.002), 0.02584, kTol);
    EXPECT_NEAR(gm::EncodeOutput(kSrgbEncode, 0.5), 0.7354348, kTol);
    const GainMapUniforms identity;
    EXPECT_DOUBLE_EQ(gm::EncodeOutput(identity.trfn_inv, 0.0), 0.0);
    EXPECT_DOUBLE_EQ(gm::EncodeOutput(identity.trfn_inv, 0.37), 0.37);
}

// pow is undefined for a negative base and for 0 with a non-positive exponent.
TEST(GainMapModelSteps, PowFollowsGlslDomain)
{
    EXPECT_TRUE(std::isnan(gm::Pow(-0.5, 2.0)));
    EXPECT_TRUE(std::isnan(gm::Pow(0.0, 0.0)));
    EXPECT_EQ(gm::Pow(0.0, 2.4), 0.0);
    EXPECT_DOUBLE_EQ(gm::Pow(0.25, 0.5), 0.5);
}

// ---------------------------------------------------------------------------
// The whole stage
// ---------------------------------------------------------------------------

// With W 0 the output is (S + epsilonSdr - epsilonHdr) encoded, whatever the gain map.
TEST(GainMapModelStage, WeightZeroIgnoresTheGainMap)
{
    // With W = 0 the output is (S + epsilonSdr - epsilonHdr) encoded, whatever the
    // gain map holds: S = 0.4 grey; (0.45, 0.5, 0.15) with the identity encoding.
    GainMapUniforms u;
    u.W = 0.0f;
    u.logRatioMin = {{0.1f, -0.4f, 0.3f, 1.0f}};
    u.logRatioMax = {{2.0f, 1.5f, 3.0f, 1.0f}};
    u.epsilonSdr = {{0.1f, 0.2f, 0.05f, 1.0f}};
    u.epsilonHdr = {{0.05f, 0.1f, 0.3f, 1.0f}};
    for (double gy : {0.0, 0.3, 1.0}) {
        const auto out = EvaluateNominal(Samples(0.4, 0.5, 0.5, gy, 0.1, 0.9), u);
        EXPECT_NEAR(out[0], 0.45, kTol);
        EXPECT_NEAR(out[1], 0.5, kTol);
        EXPECT_NEAR(out[2], 0.15, kTol);
        EXPECT_EQ(out[3], 1.0);
    }
    // And with the inverse sRGB encoding: enc(0.45) = 0.7014865, enc(0.5) =
    // 0.7354348, enc(0.15) = 0.4236419.
    u.trfn_inv = kSrgbEncode;
    const auto out = EvaluateNominal(Samples(0.4, 0.5, 0.5, 0.8, 0.5, 0.5), u);
    EXPECT_NEAR(out[0], 0.7014865, kTol);
    EXPECT_NEAR(out[1], 0.7354348, kTol);
    EXPECT_NEAR(out[2], 0.4236419, kTol);
}

// W = 1, log range [0, ln 4], full gain map: the gain is 4, S 0.1 -> 0.4.
TEST(GainMapModelStage, FullWeightMultipliesByTheMaximumGain)
{
    GainMapUniforms u;
    u.W = 1.0f;
    u.logRatioMax = {{float(std::log(4.0)), float(std::log(4.0)), float(std::log(4.0)), 1.0f}};
    const auto out = EvaluateNominal(Grey(0.1, 1.0), u);
    for (int c = 0; c < 3; ++c) {
        EXPECT_NEAR(out[c], 0.4, kTol) << c;
    }
}

// noGamma 1 skips the gamma; 0 and 2 both apply it.
TEST(GainMapModelStage, NoGammaOneIsTheOnlyValueWithoutGamma)
{
    // Gain map 0.5 with gamma 2 and log range [0, ln 8], W 1: noGamma 1 gives
    // 8^0.5 = 2.8284271, noGamma 0 and 2 give 8^(0.5^2) = 8^0.25 = 1.6817928;
    // times S = 0.1.
    GainMapUniforms u;
    u.W = 1.0f;
    u.logRatioMax = {{float(std::log(8.0)), float(std::log(8.0)), float(std::log(8.0)), 1.0f}};
    u.gainmapGamma = {{2.0f, 2.0f, 2.0f, 1.0f}};
    u.noGamma = 1;
    EXPECT_NEAR(EvaluateNominal(Grey(0.1, 0.5), u)[0], 0.28284271, kTol);
    u.noGamma = 0;
    EXPECT_NEAR(EvaluateNominal(Grey(0.1, 0.5), u)[0], 0.16817928, kTol);
    u.noGamma = 2;
    EXPECT_NEAR(EvaluateNominal(Grey(0.1, 0.5), u)[0], 0.16817928, kTol);
}

// A W between 0 and 1 scales the mixed log gain.
TEST(GainMapModelStage, PartialWeightScalesTheLogGain)
{
    // mix(min, max, G) for W between 0 and 1: min ln 0.5, max ln 4, G 0.5, W 0.5:
    // L = (ln 0.5 + ln 4) / 2 = ln 2 / 2 = 0.34657359, exp(0.5 L) = 2^0.25.
    GainMapUniforms u;
    u.W = 0.5f;
    u.logRatioMin = {{float(std::log(0.5)), float(std::log(0.5)), float(std::log(0.5)), 1.0f}};
    u.logRatioMax = {{float(std::log(4.0)), float(std::log(4.0)), float(std::log(4.0)), 1.0f}};
    EXPECT_NEAR(EvaluateNominal(Grey(0.2, 0.5), u)[1], 0.2 * std::pow(2.0, 0.25), kTol);
}

// The gain map is clamped to [0, 1] after the curve.
TEST(GainMapModelStage, GainIsClampedAfterTheCurve)
{
    // The gain map is clamped to [0, 1] after the curve: a red gain of 1.701 acts
    // as 1, a blue gain of -0.786 as 0 (log range [0, ln 2], W 1, S 0.1).
    GainMapUniforms u;
    u.W = 1.0f;
    u.logRatioMax = {{float(std::log(2.0)), float(std::log(2.0)), float(std::log(2.0)), 1.0f}};
    const auto out = EvaluateNominal(Samples(0.1, 0.5, 0.5, 1.0, 0.5, 1.0), u);
    EXPECT_NEAR(out[0], 0.2, kTol);  // G.r = 1 + 0.701 -> 1
    const auto low = EvaluateNominal(Samples(0.1, 0.5, 0.5, 0.1, 0.0, 0.5), u);
    EXPECT_NEAR(low[2], 0.1, kTol);  // G.b = 0.1 - 0.886 -> 0
}

// A gain map of 0.5 acts through the curve value P.y.
TEST(GainMapModelStage, GainCurveValueAtHalfDrivesTheGain)
{
    // The gain curve drives the gain: gain-map 0.5 becomes P.y = 0.3, so with log
    // range [0, ln 16] and W 1 the gain is 16^0.3 = 2.2973967.
    GainMapUniforms u;
    u.W = 1.0f;
    u.logRatioMax = {{float(std::log(16.0)), float(std::log(16.0)), float(std::log(16.0)), 1.0f}};
    u.curve_gain_point = kCurvePoints;
    u.curve_gain_grad = kCurveGrads;
    EXPECT_NEAR(EvaluateNominal(Grey(0.1, 0.5), u)[0], 0.22973967, kTol);
}

// Input decoding acts on the main image before the gain.
TEST(GainMapModelStage, InputDecodingAppliesToTheMainImage)
{
    // Input decoding runs on S before the gain: sRGB-form of 0.5 = 0.21404113,
    // with W 0 and identity encoding.
    GainMapUniforms u;
    u.inputTrfnType = 3;
    u.in_trfn = kSrgbDecode;
    EXPECT_NEAR(EvaluateNominal(Grey(0.5, 0.9), u)[2], 0.21404113, kTol);
}

// A negative S keeps its sign through the input decoding.
TEST(GainMapModelStage, NegativeValuesKeepTheirSignThroughDecoding)
{
    // A negative S keeps its sign through decoding: V = 0 with Y 0.3 gives
    // R = 0.3 - 0.701 = -0.401; decoded sRGB-form -(0.94786727 * 0.401 +
    // 0.0521327)^2.4 = -0.1335702; plus epsilonSdr 0.5 gives 0.3664298.
    GainMapUniforms u;
    u.inputTrfnType = 3;
    u.in_trfn = kSrgbDecode;
    u.epsilonSdr = {{0.5f, 0.5f, 0.5f, 1.0f}};
    EXPECT_NEAR(EvaluateNominal(Samples(0.3, 0.5, 0.0, 0.5, 0.5, 0.5), u)[0],
                0.5 - std::pow(0.94786727 * 0.401 + 0.0521327, 2.4), kTol);
}

// A negative H keeps its sign through the encoding (visible in the YUV form).
TEST(GainMapModelStage, NegativeValuesKeepTheirSignThroughEncoding)
{
    // With YUV output a negative encoded channel keeps its sign: H = 0.2 - 0.7 =
    // -0.5 in every channel, encoded -0.7354348; Y = 0.93 * -0.7354348 =
    // -0.6839544, U = 0.5, V = 0.5 - 0.02 * -0.7354348 = 0.5147087.
    GainMapUniforms u;
    u.trfn_inv = kSrgbEncode;
    u.epsilonHdr = {{0.7f, 0.7f, 0.7f, 1.0f}};
    u.bOutputYUV = 1;
    const auto out = EvaluateNominal(Grey(0.2, 0.5), u);
    EXPECT_NEAR(out[0], -0.6839544, kTol);
    EXPECT_NEAR(out[1], 0.5, kTol);
    EXPECT_NEAR(out[2], 0.5147087, kTol);
}

// Mid-grey S = 0.5 with W 0 and YUV output: (0.465, 0.5, 0.49).
TEST(GainMapModelStage, MidGreyYuvOutput)
{
    GainMapUniforms u;
    u.bOutputYUV = 1;
    const auto out = EvaluateNominal(Grey(0.5, 0.2), u);
    EXPECT_NEAR(out[0], 0.465, 1e-12);
    EXPECT_NEAR(out[1], 0.5, 1e-12);
    EXPECT_NEAR(out[2], 0.49, 1e-12);
    EXPECT_EQ(out[3], 1.0);
}

// Only bOutputYUV == 1 selects the YUV form.
TEST(GainMapModelStage, OtherOutputFlagsGiveRgb)
{
    GainMapUniforms u;
    u.bOutputYUV = 2;
    const auto out = EvaluateNominal(Grey(0.5, 0.2), u);
    EXPECT_NEAR(out[0], 0.5, 1e-12);
}

// ---------------------------------------------------------------------------
// Codes and the error bound
// ---------------------------------------------------------------------------

// round(clamp(x) * 255).
TEST(GainMapModelBound, ToCodeRoundsAndClamps)
{
    EXPECT_EQ(ToCode(-0.3), 0);
    EXPECT_EQ(ToCode(0.0), 0);
    EXPECT_EQ(ToCode(0.465), 119);  // 118.575
    EXPECT_EQ(ToCode(0.49), 125);   // 124.95
    EXPECT_EQ(ToCode(1.0), 255);
    EXPECT_EQ(ToCode(7.0), 255);
}

// Without sampler error the codes are the two next to 255 x, and alpha is 255.
TEST(GainMapModelBound, ZeroErrorGivesTheConversionCodes)
{
    GainMapUniforms u;
    u.bOutputYUV = 1;
    const auto px = hdrtest::Evaluate(Grey(0.5, 0.2), u, 0.0);
    EXPECT_EQ(px.channel[0].codeLo, 118);
    EXPECT_EQ(px.channel[0].codeHi, 119);
    EXPECT_EQ(px.channel[2].codeLo, 124);
    EXPECT_EQ(px.channel[2].codeHi, 125);
    EXPECT_EQ(px.channel[3].codeLo, 255);
    EXPECT_EQ(px.channel[3].codeHi, 255);
    EXPECT_EQ(px.channel[3].nominalCode, 255);
}

// The interval is wider where the encoding is steep.
TEST(GainMapModelBound, IntervalWidensWhereTheCurveIsSteep)
{
    // The interval is wider where the curve is steep: the inverse sRGB encoding
    // has slope 12.92 near 0 and about 0.45 near 1.
    GainMapUniforms u;
    u.trfn_inv = kSrgbEncode;
    const double err = 2.5e-3;
    const auto dark = hdrtest::Evaluate(Grey(0.0025, 0.5), u, err);
    const auto bright = hdrtest::Evaluate(Grey(0.95, 0.5), u, err);
    EXPECT_GT(dark.channel[1].value.Width(), 10 * bright.channel[1].value.Width());
    EXPECT_GE(dark.channel[1].codeHi - dark.channel[1].codeLo, 16);
    EXPECT_LE(bright.channel[1].codeHi - bright.channel[1].codeLo, 3);
}

// The Hermite curve's extremum inside the interval is part of its image.
TEST(GainMapModelBound, GainCurveIntervalIncludesItsExtremum)
{
    const std::array<float, 3> points{{0.0f, 0.5f, 0.5f}};
    const std::array<float, 3> grads{{3.0f, 0.0f, 0.0f}};
    // First segment: 0 -> 0.5 with slope 3 then 0 overshoots 0.5 in between.
    double peak = -1;
    double peakAt = 0;
    for (int i = 0; i <= 5000; ++i) {
        const double v = 0.5 * i / 5000;
        const double r = gm::GainCurve(points, grads, v);
        if (r > peak) {
            peak = r;
            peakAt = v;
        }
    }
    ASSERT_GT(peak, 0.55);
    const Interval image = gm::GainCurve(points, grads, Interval{peakAt - 0.01, peakAt + 0.01});
    EXPECT_GE(image.hi, peak);
    EXPECT_LT(gm::GainCurve(points, grads, peakAt - 0.01), peak);
    EXPECT_LT(gm::GainCurve(points, grads, peakAt + 0.01), peak);
}

// An interval across the HLG form's jump at 0.5 includes both sides.
TEST(GainMapModelBound, DecodingIntervalIncludesBothSidesOfAJump)
{
    // The HLG form drops from 1 to exp(-0.0502) = 0.951 at x = 0.5; an interval
    // across the jump includes the left-hand value 1.
    const Interval image = gm::DecodeInput(1, kHlgDecode, Interval{0.499, 0.5005});
    EXPECT_GE(image.hi, 1.0 - 1e-9);
    EXPECT_LT(gm::DecodeInput(1, kHlgDecode, 0.5005), 0.96);
}

// A negative base in the encoding's power is undefined: every code allowed.
TEST(GainMapModelBound, UndefinedResultAllowsEveryCode)
{
    GainMapUniforms u;
    u.trfn_inv = {{0.5f, 1.0f, -0.8f, 1.0f, 0.0f, 0.0f, 0.0f}};  // (x - 0.8)^0.5
    const auto px = hdrtest::Evaluate(Grey(0.3, 0.5), u, 2.5e-3);
    EXPECT_EQ(px.channel[0].codeLo, 0);
    EXPECT_EQ(px.channel[0].codeHi, 255);
}

// Every point of the sampler-error box evaluates inside the model's interval.
TEST(GainMapModelBound, IntervalContainsEveryPointOfTheBox)
{
    // Soundness: for random pixels and uniforms, every point of the sampler-error
    // box (corners and random points) evaluates inside the model's interval.
    std::mt19937 rng(20240611u);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    const double err = 2.5e-3;
    for (int trial = 0; trial < 400; ++trial) {
        GainMapUniforms u;
        u.W = float(unit(rng));
        for (int c = 0; c < 3; ++c) {
            u.logRatioMin[c] = float(-1.0 + unit(rng));
            u.logRatioMax[c] = float(unit(rng) * 3.0);
            u.gainmapGamma[c] = float(0.4 + unit(rng) * 2.0);
            u.epsilonSdr[c] = float(unit(rng) * 0.1);
            u.epsilonHdr[c] = float(unit(rng) * 0.1);
        }
        u.noGamma = int(rng() % 3);
        u.inputTrfnType = int(rng() % 4);
        u.in_trfn = u.inputTrfnType == 1   ? kHlgDecode
                    : u.inputTrfnType == 2 ? kPqDecode
                                           : kSrgbDecode;
        u.trfn_inv = kSrgbEncode;
        if (trial % 2) {
            u.curve_gain_point = kCurvePoints;
            u.curve_gain_grad = kCurveGrads;
        }
        u.bOutputYUV = trial % 3 == 0 ? 1 : 0;
        uint8_t codes[6];
        for (auto& k : codes) {
            k = uint8_t(rng() & 0xFF);
        }
        const PixelSamples s =
            PixelSamples::FromCodes(codes[0], codes[1], codes[2], codes[3], codes[4], codes[5]);
        const auto px = hdrtest::Evaluate(s, u, err);
        auto check = [&](const PixelSamples& at) {
            const auto out = EvaluateNominal(at, u);
            for (int c = 0; c < 3; ++c) {
                const Interval& iv = px.channel[c].value;
                EXPECT_TRUE(iv.lo - 1e-9 <= out[c] && out[c] <= iv.hi + 1e-9)
                    << "trial " << trial << " channel " << c << " value " << out[c] << " not in ["
                    << iv.lo << ", " << iv.hi << "]";
            }
        };
        check(s);
        for (int corner = 0; corner < 64; ++corner) {
            PixelSamples at = s;
            for (int i = 0; i < 6; ++i) {
                double& v = i < 3 ? at.main[i] : at.gain[i - 3];
                v += (corner >> i & 1) ? err : -err;
            }
            check(at);
        }
        for (int k = 0; k < 64; ++k) {
            PixelSamples at = s;
            for (int i = 0; i < 6; ++i) {
                double& v = i < 3 ? at.main[i] : at.gain[i - 3];
                v += (2 * unit(rng) - 1) * err;
            }
            check(at);
        }
        for (int c = 0; c < 4; ++c) {
            EXPECT_LE(px.channel[c].codeLo, px.channel[c].nominalCode);
            EXPECT_GE(px.channel[c].codeHi, px.channel[c].nominalCode);
        }
    }
}

// Splitting the box for the YUV form tightens the bound and stays sound.
TEST(GainMapModelBound, SplittingTightensTheYuvBound)
{
    GainMapUniforms u;
    u.bOutputYUV = 1;
    u.trfn_inv = kSrgbEncode;
    const PixelSamples s = PixelSamples::FromCodes(90, 140, 100, 128, 128, 128);
    const auto coarse = hdrtest::Evaluate(s, u, 2.5e-3, 1);
    const auto fine = hdrtest::Evaluate(s, u, 2.5e-3, 3);
    for (int c = 0; c < 3; ++c) {
        EXPECT_LE(fine.channel[c].value.Width(), coarse.channel[c].value.Width() + 1e-12) << c;
        EXPECT_TRUE(fine.channel[c].value.Contains(fine.channel[c].nominal)) << c;
    }
    // U barely depends on the luma, which moves all three channels together.
    EXPECT_LT(fine.channel[1].value.Width(), coarse.channel[1].value.Width());
}

}  // namespace
