#include "HdrGenerateTransferFunction.h"

#include "HdrCommon.h"

#include <cmath>
#include <cstring>

float skcms_TransferFunction_eval(const float* tf, float x)
{
    const float g = tf[0], a = tf[1], b = tf[2], c = tf[3], d = tf[4], e = tf[5], f = tf[6];
    const float sign = x < 0.0f ? -1.0f : 1.0f;  // -0.0 and NaN count as positive
    x = std::fabs(x);
    if (x < d) {
        return (c * x + f) * sign;
    }
    return (std::pow(a * x + b, g) + e) * sign;
}

CurveInversion InvertTransferCurve(const float* src, float* inv)
{
    const float g = src[0], a = src[1], b = src[2], c = src[3], d = src[4], e = src[5], f = src[6];
    for (int i = 0; i < 7; ++i) {
        inv[i] = 0.0f;
    }

    // The two segments must meet at d (within 1/512).
    const float dLeft = c * d + f;
    const float dRight = std::pow(a * d + b, g) + e;
    if (std::fabs(dLeft - dRight) > 0.001953125f) {
        return CurveInversion::kRefused;
    }
    inv[4] = dLeft;

    // A linear segment of zero width collapses to the point d.
    if (inv[4] > 0.0f) {
        inv[3] = 1.0f / c;
        inv[6] = -f / c;
    }

    const float k = std::pow(a, -g);
    inv[0] = 1.0f / g;
    inv[1] = k;
    inv[2] = -k * e;
    inv[5] = -b / a;

    if (inv[1] < 0.0f) {
        return CurveInversion::kRefused;
    }
    if (inv[1] * inv[4] + inv[2] < 0.0f) {
        inv[2] = -(inv[1] * inv[4]);  // pull the power segment's base back to 0 at d
    } else if (!(inv[1] >= 0)) {
        return CurveInversion::kScaleNotANumber;
    }
    if (!(inv[1] * inv[4] + inv[2] >= 0)) {
        return CurveInversion::kOffsetNotANumber;
    }

    // The inverse maps src(1) back to exactly 1.
    float s = skcms_TransferFunction_eval(src, 1.0f);
    if (!(s * 0.0f == 0.0f)) {
        return CurveInversion::kRefused;  // not finite
    }
    const float sign = s < 0.0f ? -1.0f : 1.0f;
    s = std::fabs(s);
    if (s < inv[4]) {
        inv[6] = 1.0f - sign * inv[3] * s;
    } else {
        inv[5] = 1.0f - sign * std::pow(inv[1] * s + inv[2], inv[0]);
    }
    return CurveInversion::kInverted;
}

bool skcms_TransferFunction_invert(const float* src, float* dst)
{
    float inv[7];
    const CurveInversion result = InvertTransferCurve(src, inv);
    // The assertions see the same values the inversion stopped at.
    if (result == CurveInversion::kScaleNotANumber) {
        HDR_ASSERT(inv[1] >= 0, false);
    }
    if (result == CurveInversion::kOffsetNotANumber) {
        HDR_ASSERT(inv[1] * inv[4] + inv[2] >= 0, false);
    }
    if (result != CurveInversion::kInverted) {
        return false;
    }
    std::memcpy(dst, inv, sizeof inv);
    return true;
}
