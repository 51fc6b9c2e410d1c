// Single precision throughout, in the order the program's reference values
// were defined in: the draw's pixels depend on every rounding step here.
#include "HdrGenerateConstants.h"

#include <glm/gtc/matrix_transform.hpp>
#include <glm/gtc/type_ptr.hpp>
#include <glm/mat4x4.hpp>

#include <algorithm>
#include <cmath>
#include <cstring>

namespace {

constexpr float kLn2 = 0.6931472f;

// Fixed-point scales of the tuning values.
constexpr float kBoostUnit = 0.0078125f;          // 128 = 1.0
constexpr float kCurvePointUnit = 0.0009765625f;  // 1024 = 1.0
constexpr float kCurveGradUnit = 0.001953125f;    // 512 = 1.0

// Stands in when the boost-scaled curve cannot be inverted.
constexpr float kInverseSrgb[7] = {0.41666666f, 1.1372833f, -0.0f, 12.92f, 0.0031308f, -0.054969788f, -0.0f};

// The input curves by transfer function; a negative g marks the HLG-like
// (-3) and PQ-like (-2) forms. Linear input is not decoded: it gets the
// identity.
constexpr float kInputCurves[4][7] = {
    {1.0f, 1.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f},
    {-3.0f, 2.0f, 2.0f, 5.5918164f, 0.28466892f, 0.55991071f, 0.0f},
    {-2.0f, -0.8359375f, 1.0f, 0.012683313f, 18.8515625f, -18.6875f, 6.2773948f},
    {2.4f, 0.94786727f, 0.0521327f, 0.07739938f, 0.04045f, 0.0f, 0.0f},
};

constexpr float kRotationDegrees[3] = {-90.0f, -180.0f, -270.0f};

// Blended between the two levels by the picture's level between the two
// thresholds.
float DisplayBoost(const HdrFactorySettings::Parameter& p, int32_t apl, float v1, float v2)
{
    if (apl < p.MDB_T1) {
        return v1;
    }
    if (apl > p.MDB_T2 || p.MDB_T1 == p.MDB_T2) {
        return v2;
    }
    // 32-bit differences, wrapping instead of overflowing on illegal tuning.
    const int32_t rise = static_cast<int32_t>(static_cast<uint32_t>(apl) - static_cast<uint32_t>(p.MDB_T1));
    const int32_t run = static_cast<int32_t>(static_cast<uint32_t>(p.MDB_T2) - static_cast<uint32_t>(p.MDB_T1));
    return static_cast<float>(rise) * (v2 - v1) / static_cast<float>(run) + v1;
}

// The log2 metadata in natural logarithms, through the linear ratio.
void GainMapRatios(const HdrInfo& info, const HdrFactorySettings::Parameter& p, GainMapConstants& k)
{
    const float gammaMul = static_cast<float>(p.GAMMA_MUL);
    for (int c = 0; c < 3; ++c) {
        k.logRatioMin[c] = std::log(std::exp(kLn2 * info.gainMapMin[c]));
        k.logRatioMax[c] = std::log(std::exp(kLn2 * info.gainMapMax[c]));
        k.gainmapGamma[c] = 1.0f / (info.gamma[c] * gammaMul * kBoostUnit);
    }
    k.logRatioMin[3] = 1.0f;
    k.logRatioMax[3] = 1.0f;
    k.gainmapGamma[3] = 1.0f;
    std::memcpy(k.epsilonSdr, info.offsetSdr, sizeof k.epsilonSdr);
    std::memcpy(k.epsilonHdr, info.offsetHdr, sizeof k.epsilonHdr);
    k.noGamma = k.gainmapGamma[0] == 1.0f && k.gainmapGamma[1] == 1.0f && k.gainmapGamma[2] == 1.0f ? 1 : 0;
}

void GainWeight(const HdrInfo& info, GainMapConstants& k)
{
    const float capMinLin = std::exp(kLn2 * info.hdrCapacityMin);
    const float capMaxLin = std::exp(kLn2 * info.hdrCapacityMax);
    k.boost = std::min(std::exp2(info.hdrCapacityMax), k.mdb);
    const float weight = (std::log(k.boost) - std::log(capMinLin)) / (std::log(capMaxLin) - std::log(capMinLin));
    k.weight = weight > 1.0f ? 1.0f : (weight < 0.0f ? 0.0f : weight);
}

// The inverse of sRGB scaled to the display boost (scaling the output by K
// multiplies a and b by K^(1/2.4), c, e and f by K).
void OutputCurve(GainMapConstants& k)
{
    const float boost = k.boost;
    const float boostRoot = std::pow(boost, 0.41666666f);
    const float scaled[7] = {
        2.4f,        boostRoot * 0.94786733f, boostRoot * 0.052132703f, 0.07739938f * boost, 0.04045f, 0.0f * boost,
        0.0f * boost};
    std::memcpy(k.outputCurve, scaled, sizeof k.outputCurve);
    float inverse[7];
    k.outputCurveInversion = InvertTransferCurve(scaled, inverse);
    std::memcpy(k.trfnInv, k.outputCurveInversion == CurveInversion::kInverted ? inverse : kInverseSrgb,
                sizeof k.trfnInv);
}

// Rotation about the screen normal, then the optional mirror.
void Rotation(const HdrInfo& info, GainMapConstants& k)
{
    k.rotateDegrees = info.outputRotate >= 1 && info.outputRotate <= 3 ? kRotationDegrees[info.outputRotate - 1] : 0.0f;
    k.mirror = info.outputMirror;
    glm::mat4 rotation = glm::rotate(glm::mat4(1.0f), k.rotateDegrees * 0.017453292f, glm::vec3(0.0f, 0.0f, 1.0f));
    if (k.mirror) {
        rotation = rotation * glm::rotate(glm::mat4(1.0f), 3.1415927f, glm::vec3(0.0f, 1.0f, 0.0f));
    }
    std::memcpy(k.rotateMatrix, glm::value_ptr(rotation), sizeof k.rotateMatrix);
}

}  // namespace

GainMapConstants ComputeGainMapConstants(const HdrInfo& info, const HdrFactorySettings::Parameter& tuning, int32_t apl,
                                         bool outputYUV)
{
    GainMapConstants k{};
    k.mdbV1 = static_cast<float>(tuning.MDB_V1) * kBoostUnit;
    k.mdbV2 = static_cast<float>(tuning.MDB_V2) * kBoostUnit;
    k.mdb = DisplayBoost(tuning, apl, k.mdbV1, k.mdbV2);
    GainMapRatios(info, tuning, k);
    GainWeight(info, k);

    // Unsigned comparisons: negative codes are out of range too.
    k.gamutValid = static_cast<uint32_t>(info.gamut) <= 2u;
    k.trfnValid = static_cast<uint32_t>(info.trfn) <= 3u;

    // Every accepted gamut renders unconverted.
    const float identity3[9] = {1.0f, 0.0f, 0.0f, 0.0f, 1.0f, 0.0f, 0.0f, 0.0f, 1.0f};
    std::memcpy(k.outputGamutTransform, identity3, sizeof identity3);
    OutputCurve(k);

    const int32_t points[3] = {tuning.GAIN_CURVE_P0, tuning.GAIN_CURVE_P1, tuning.GAIN_CURVE_P2};
    const int32_t grads[3] = {tuning.GAIN_CURVE_G0, tuning.GAIN_CURVE_G1, tuning.GAIN_CURVE_G2};
    for (int i = 0; i < 3; ++i) {
        k.curveGainPoint[i] = static_cast<float>(points[i]) * kCurvePointUnit;
        k.curveGainGrad[i] = static_cast<float>(grads[i]) * kCurveGradUnit;
    }

    k.outputYUV = outputYUV ? 1 : 0;
    k.inputTrfnType = static_cast<int32_t>(info.trfn);
    std::memcpy(k.inTrfn, kInputCurves[k.trfnValid ? k.inputTrfnType : 0], sizeof k.inTrfn);
    Rotation(info, k);
    return k;
}
