// The gain-map program's uniforms computed by the tests themselves from a
// picture's metadata, the set's eleven tuning values, the picture's average
// level and the output-YUV flag, following the behaviour the engine
// documents for its constant computation (display boost, gain-map ratios,
// gamma, offsets, weight, boost-scaled output curve, gain curve, input curve,
// rotation). Written independently of the library's own code: nothing here
// calls into the library, and the output curve's inverse is worked out
// analytically for the one curve form the engine inverts.
//
// Arithmetic is in double where the behaviour allows; the results are
// rounded to float only where they become uniforms. The engine itself works
// in single precision, so the two agree to a few units in the last place,
// far below what one 8-bit code of the output can show.
#ifndef HDRGPU_TEST_CONSTANTS_MODEL_H
#define HDRGPU_TEST_CONSTANTS_MODEL_H

#include "GainMapUniforms.h"

#include <array>
#include <cstdint>

namespace hdrtest {

// The metadata fields the constant computation reads, as a host gives them.
struct PictureMetadata {
    std::array<float, 3> gainMapMin{{0, 0, 0}};  // log2 units
    std::array<float, 3> gainMapMax{{1, 1, 1}};  // log2 units
    std::array<float, 3> gamma{{1, 1, 1}};
    std::array<float, 4> offsetSdr{{0, 0, 0, 1}};
    std::array<float, 4> offsetHdr{{0, 0, 0, 1}};
    float hdrCapacityMin = 0.0f;  // log2 units
    float hdrCapacityMax = 1.0f;  // log2 units
    int32_t gamut = 0;            // 0 BT709, 1 P3, 2 BT2100
    int32_t trfn = 3;             // 0 linear, 1 HLG, 2 PQ, 3 sRGB
    int32_t outputRotate = 0;     // 1, 2, 3: -90, -180, -270 degrees
    bool outputMirror = false;
};

// The set's tuning values, in fixed point: MDB_V1, MDB_V2 and GAMMA_MUL with
// 128 = 1.0, the gain-curve points with 1024 = 1.0 and its slopes with
// 512 = 1.0; the thresholds compare with the APL (0..255).
struct TuningValues {
    int32_t MDB_V1 = 128;
    int32_t MDB_V2 = 256;
    int32_t MDB_T1 = 10;
    int32_t MDB_T2 = 100;
    int32_t GAMMA_MUL = 128;
    int32_t GAIN_CURVE_P0 = 0;
    int32_t GAIN_CURVE_P1 = 512;
    int32_t GAIN_CURVE_P2 = 1024;
    int32_t GAIN_CURVE_G0 = 256;
    int32_t GAIN_CURVE_G1 = 256;
    int32_t GAIN_CURVE_G2 = 256;
};

// The intermediate quantities, for messages.
struct ConstantsTrace {
    double mdb = 0;            // maximum display boost, a linear ratio
    double boost = 0;          // min(2^capacityMax, mdb)
    double weightUnclamped = 0;
    bool outputCurveFallback = false;  // the fixed inverse sRGB curve was used
};

// The fixed inverse sRGB curve (g, a, b, c, d, e, f) that stands in when the
// boost-scaled curve cannot be inverted.
extern const std::array<float, 7> kInverseSrgbCurve;

// The input curves by transfer function (g, a, b, c, d, e, f); linear gets
// the identity curve, which the program does not evaluate.
std::array<float, 7> InputCurve(int32_t trfn);

// The maximum display boost for a picture level.
double MaximumDisplayBoost(const TuningValues& tuning, int32_t apl);

// The average picture level of a luma plane: the truncated mean of its bytes.
int32_t AveragePictureLevel(const uint8_t* luma, int width, int height);

// The inverse of the sRGB curve whose output is scaled by boost, as a
// seven-parameter curve with its value at the source's 1.0 pinned to 1.
// False when the two segments of the scaled curve miss each other by more
// than 1/512 or the boost is not positive: the engine then sends
// kInverseSrgbCurve.
bool InvertBoostedSrgb(double boost, std::array<double, 7>& inverse);

// Every uniform of the gain-map program for one draw. rotateMatrix is the
// 4x4 matrix (column-major, as uploaded) for the vertex stage's row-vector
// product.
GainMapUniforms ComputeConstants(const PictureMetadata& metadata, const TuningValues& tuning,
                                 int32_t apl, bool outputYUV, ConstantsTrace* trace = nullptr);

// The rotation and mirror matrix alone (column-major).
std::array<double, 16> RotationMatrix(int32_t outputRotate, bool outputMirror);

// The texel (column, row) of an n x n plane that surface pixel (x, y) samples
// when the quad's positions go through the row-vector product with the
// rotation and mirror matrix. Row 0 of the surface is framebuffer row 0 and
// texture row 0; the quad maps clip (-1, -1) to texture (0, 0) and (1, 1) to
// (1, 1).
std::array<int, 2> SampledTexel(int32_t outputRotate, bool outputMirror, int n, int x, int y);

}  // namespace hdrtest

#endif
