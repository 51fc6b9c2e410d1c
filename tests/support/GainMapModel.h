// A CPU model of the gain-map program's fragment stage, in double precision,
// written from the stage's behavioural description and independently of the
// shader text, so that comparing the two catches mistakes in either.
//
// The model takes the six values the samplers return for one pixel and the
// program's uniforms, and gives the four channels of fragColor. Evaluate()
// also bounds what the GPU may legitimately store for the pixel:
//
// * Sampler error. The planes are sampled through mediump samplers, which a
//   driver may evaluate at half precision, so every sampled value can be off
//   by a small amount (samplerError) from code/255. The model propagates the
//   box [v - samplerError, v + samplerError] of all six values through every
//   step with interval arithmetic. Each scalar step is piecewise continuous
//   and monotone between known points (the odd extension's 0, the branch
//   thresholds of the curves, the extrema of the Hermite cubic, the poles of
//   the PQ-form ratio), so its exact image of an interval is the hull of its
//   values at the interval's ends and at those points (one-sided limits
//   included). Every RGB channel is a chain of such scalar steps on variables
//   that are independent of each other (one linear combination of the main
//   image's samples, one of the gain map's, joined by one product), so its
//   interval is the exact range of the channel over the box, not merely an
//   enclosure. The YUV output mixes the three channels, which share their
//   inputs; there interval arithmetic over-estimates, and the box is split
//   into sub-boxes (yuvSplits per axis) whose images are joined, which stays
//   sound and tightens the bound. Interval ends are computed in double
//   without outward rounding; that error (about 1e-15) is far below a code.
// * Conversion to the RGBA8 attachment. GL stores one of the two codes next
//   to clamp(x, 0, 1) * 255 (to nearest preferred), so the possible codes of
//   a value interval [lo, hi] are floor(255 lo) .. ceil(255 hi) after the
//   clamp.
//
// Where the stage's result is undefined (pow of a negative base, a zero
// denominator, an unknown input curve type) the channel's interval is the
// whole line and every code is allowed.
#ifndef HDRGPU_TEST_GAIN_MAP_MODEL_H
#define HDRGPU_TEST_GAIN_MAP_MODEL_H

#include "EngineHarness.h"

#include <array>
#include <cstdint>

namespace hdrtest {

using Vec3 = std::array<double, 3>;
using Vec4 = std::array<double, 4>;

// The six values the samplers return for one pixel.
struct PixelSamples {
    Vec3 main{{0, 0, 0}};  // Y, U, V of the main image
    Vec3 gain{{0, 0, 0}};  // Y, U, V of the gain map

    // The values of 8-bit codes: code / 255.
    static PixelSamples FromCodes(uint8_t mainY, uint8_t mainU, uint8_t mainV, uint8_t gainY,
                                  uint8_t gainU, uint8_t gainV);
};

// A closed interval of reals; [-inf, +inf] where a result is undefined.
struct Interval {
    double lo = 0;
    double hi = 0;

    static Interval Point(double v) { return {v, v}; }
    static Interval Everything();
    static Interval Hull(const Interval& a, const Interval& b);
    bool Contains(double v) const { return lo <= v && v <= hi; }
    bool Bounded() const;
    double Width() const { return hi - lo; }
};

using Interval3 = std::array<Interval, 3>;

// The stage's steps, each on one value and on an interval of values.
namespace gainmap {

// GLSL pow: NaN where it is undefined (negative base; zero base with a
// non-positive exponent).
double Pow(double base, double exponent);

// Full-range BT.601 YUV to RGB of three sampled values (u and v as sampled,
// 0.5 is subtracted here).
Vec3 YuvToRgb(double y, double u, double v);
Interval3 YuvToRgb(const Interval& y, const Interval& u, const Interval& v);

// Input decoding of one value by curve type 1, 2 or 3 with parameters
// g, a, b, c, d, e, f; type 0 returns the value; any other type is undefined
// (NaN).
double DecodeInput(int type, const std::array<float, 7>& p, double x);
Interval DecodeInput(int type, const std::array<float, 7>& p, const Interval& x);

// The two-segment cubic Hermite gain curve through (0, P.x), (0.5, P.y),
// (1, P.z) with slopes per unit of each segment's t.
double GainCurve(const std::array<float, 3>& points, const std::array<float, 3>& grads,
                 double value);
Interval GainCurve(const std::array<float, 3>& points, const std::array<float, 3>& grads,
                   const Interval& value);

// Output encoding: the odd extension of c x + f below d, (a x + b)^g + e above.
double EncodeOutput(const std::array<float, 7>& p, double x);
Interval EncodeOutput(const std::array<float, 7>& p, const Interval& x);

// The output's YUV form of encoded RGB (with its 0.229 red luma weight).
Vec3 RgbToOutputYuv(const Vec3& t);
Interval3 RgbToOutputYuv(const Interval3& t);

}  // namespace gainmap

// fragColor for one pixel, at exactly the given sampled values.
Vec4 EvaluateNominal(const PixelSamples& samples, const GainMapUniforms& uniforms);

// The encoded RGB (before the optional YUV form) over a box of sampled values.
Interval3 EvaluateEncodedRgb(const std::array<Interval, 6>& box, const GainMapUniforms& uniforms);

// The code round(clamp(x, 0, 1) * 255); 0 for NaN.
int ToCode(double x);

struct ChannelBound {
    double nominal = 0;       // the model's value at the sampled values
    Interval value;           // its range over the sampler-error box
    int nominalCode = 0;      // ToCode(nominal)
    int codeLo = 0;           // floor(255 clamp(value.lo)); 0 when unbounded
    int codeHi = 0;           // ceil(255 clamp(value.hi)); 255 when unbounded
    // The codes that the conversion alone allows for the nominal value.
    int nominalCodeLo = 0;    // floor(255 clamp(nominal))
    int nominalCodeHi = 0;    // ceil(255 clamp(nominal))
};

struct ModelPixel {
    std::array<ChannelBound, 4> channel;  // R, G, B, A (or Y, U, V, A)
};

// The model's value for one pixel and the codes the GPU may store for it when
// every sampled value may be off by up to samplerError.
ModelPixel Evaluate(const PixelSamples& samples, const GainMapUniforms& uniforms,
                    double samplerError, int yuvSplits = 2);

}  // namespace hdrtest

#endif
