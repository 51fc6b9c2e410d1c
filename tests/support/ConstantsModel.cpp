#include "ConstantsModel.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace hdrtest {

namespace {

// ln 2 as the engine states it.
constexpr double kLn2 = 0.6931472;
constexpr double kPi = 3.14159265358979323846;

// The sRGB curve's parameters as the engine scales them: g, the power
// segment's scale and offset (before the boost), the linear slope and the
// threshold.
constexpr double kSrgbG = 2.4;
constexpr double kSrgbRootExponent = 0.41666666;  // 1 / 2.4 as the engine writes it
constexpr double kSrgbA = 0.94786733;
constexpr double kSrgbB = 0.052132703;
constexpr double kSrgbC = 0.07739938;
constexpr double kSrgbD = 0.04045;

// How far the two segments of a curve may miss each other at the threshold.
constexpr double kSegmentTolerance = 1.0 / 512.0;

std::array<float, 4> ToFloat4(const std::array<double, 4>& v)
{
    return {{static_cast<float>(v[0]), static_cast<float>(v[1]), static_cast<float>(v[2]),
             static_cast<float>(v[3])}};
}

// Column-major 4x4 product a * b.
std::array<double, 16> Multiply(const std::array<double, 16>& a, const std::array<double, 16>& b)
{
    std::array<double, 16> m{};
    for (int col = 0; col < 4; ++col) {
        for (int row = 0; row < 4; ++row) {
            double sum = 0;
            for (int k = 0; k < 4; ++k) {
                sum += a[k * 4 + row] * b[col * 4 + k];
            }
            m[col * 4 + row] = sum;
        }
    }
    return m;
}

std::array<double, 16> Identity4()
{
    return {{1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1}};
}

// Rotation by angle (radians) about z, for column vectors (counter-clockwise
// for a positive angle), column-major.
std::array<double, 16> RotationZ(double angle)
{
    const double c = std::cos(angle);
    const double s = std::sin(angle);
    std::array<double, 16> m = Identity4();
    m[0 * 4 + 0] = c;
    m[0 * 4 + 1] = s;
    m[1 * 4 + 0] = -s;
    m[1 * 4 + 1] = c;
    return m;
}

// Rotation by angle about y, for column vectors, column-major.
std::array<double, 16> RotationY(double angle)
{
    const double c = std::cos(angle);
    const double s = std::sin(angle);
    std::array<double, 16> m = Identity4();
    m[0 * 4 + 0] = c;
    m[0 * 4 + 2] = -s;
    m[2 * 4 + 0] = s;
    m[2 * 4 + 2] = c;
    return m;
}

}  // namespace

const std::array<float, 7> kInverseSrgbCurve{
    {0.41666666f, 1.1372833f, -0.0f, 12.92f, 0.0031308f, -0.054969788f, -0.0f}};

std::array<float, 7> InputCurve(int32_t trfn)
{
    switch (trfn) {
    case 1:  // HLG-like form
        return {{-3.0f, 2.0f, 2.0f, 5.5918164f, 0.28466892f, 0.55991071f, 0.0f}};
    case 2:  // PQ-like form
        return {{-2.0f, -0.8359375f, 1.0f, 0.012683313f, 18.8515625f, -18.6875f, 6.2773948f}};
    case 3:  // sRGB
        return {{2.4f, 0.94786727f, 0.0521327f, 0.07739938f, 0.04045f, 0.0f, 0.0f}};
    default:  // linear: not evaluated by the program
        return {{1.0f, 1.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f}};
    }
}

double MaximumDisplayBoost(const TuningValues& t, int32_t apl)
{
    const double v1 = t.MDB_V1 / 128.0;
    const double v2 = t.MDB_V2 / 128.0;
    if (apl < t.MDB_T1) {
        return v1;
    }
    if (apl > t.MDB_T2 || t.MDB_T1 == t.MDB_T2) {
        return v2;
    }
    const double rise = static_cast<double>(static_cast<int64_t>(apl) - t.MDB_T1);
    const double run = static_cast<double>(static_cast<int64_t>(t.MDB_T2) - t.MDB_T1);
    return rise * (v2 - v1) / run + v1;
}

int32_t AveragePictureLevel(const uint8_t* luma, int width, int height)
{
    const int64_t n = static_cast<int64_t>(width) * height;
    if (n < 1) {
        return 0;
    }
    uint64_t sum = 0;
    for (int64_t i = 0; i < n; ++i) {
        sum += luma[i];
    }
    return static_cast<int32_t>(static_cast<int64_t>(sum) / n);
}

bool InvertBoostedSrgb(double boost, std::array<double, 7>& inverse)
{
    if (!(boost > 0) || !std::isfinite(boost)) {
        return false;
    }
    // The scaled source curve: c x below d, (a x + b)^g above (e = f = 0).
    const double root = std::pow(boost, kSrgbRootExponent);
    const double g = kSrgbG;
    const double a = root * kSrgbA;
    const double b = root * kSrgbB;
    const double c = kSrgbC * boost;
    const double d = kSrgbD;
    const double left = c * d;
    const double right = std::pow(a * d + b, g);
    if (std::fabs(left - right) > kSegmentTolerance) {
        return false;
    }
    // Undo each segment: y = c x gives x = y / c below c d; y = (a x + b)^g
    // gives x = y^(1/g) / a - b / a = (a^-g y)^(1/g) - b / a above.
    double G = 1 / g;
    double A = std::pow(a, -g);
    double B = 0;
    double C = 1 / c;
    double D = left;
    double E = -b / a;
    double F = 0;
    // Pin the inverse of the source's value at 1.0 to exactly 1.
    const double s = 1.0 < d ? c : std::pow(a + b, g);
    if (s < D) {
        F = 1 - C * s;
    } else {
        E = 1 - std::pow(A * s + B, G);
    }
    inverse = {{G, A, B, C, D, E, F}};
    return true;
}

std::array<double, 16> RotationMatrix(int32_t outputRotate, bool outputMirror)
{
    double degrees = 0;
    if (outputRotate >= 1 && outputRotate <= 3) {
        degrees = -90.0 * outputRotate;
    }
    std::array<double, 16> m = Multiply(Identity4(), RotationZ(degrees * kPi / 180.0));
    if (outputMirror) {
        m = Multiply(m, RotationY(kPi));
    }
    return m;
}

std::array<int, 2> SampledTexel(int32_t outputRotate, bool outputMirror, int n, int x, int y)
{
    const std::array<double, 16> m = RotationMatrix(outputRotate, outputMirror);
    // The vertex stage computes (p, 1) * M, i.e. M^T (p, 1): clip x and y are
    // A (p.x, p.y) with A[r][c] = M[c][r] = m[r * 4 + c] (z is 0, no
    // translation, w stays 1).
    const double a00 = m[0 * 4 + 0], a01 = m[0 * 4 + 1];
    const double a10 = m[1 * 4 + 0], a11 = m[1 * 4 + 1];
    const double det = a00 * a11 - a01 * a10;
    // The pixel's centre in clip space.
    const double qx = (2.0 * x + 1.0) / n - 1.0;
    const double qy = (2.0 * y + 1.0) / n - 1.0;
    // The quad's own position there; the texture coordinate follows it
    // linearly from (-1, -1) -> (0, 0) to (1, 1) -> (1, 1).
    const double px = (a11 * qx - a01 * qy) / det;
    const double py = (-a10 * qx + a00 * qy) / det;
    const double u = (px + 1.0) / 2.0;
    const double v = (py + 1.0) / 2.0;
    const int tx = static_cast<int>(std::lround(u * n - 0.5));
    const int ty = static_cast<int>(std::lround(v * n - 0.5));
    return {{std::clamp(tx, 0, n - 1), std::clamp(ty, 0, n - 1)}};
}

GainMapUniforms ComputeConstants(const PictureMetadata& md, const TuningValues& t, int32_t apl,
                                 bool outputYUV, ConstantsTrace* trace)
{
    GainMapUniforms u;
    ConstantsTrace local;
    ConstantsTrace& tr = trace != nullptr ? *trace : local;

    // Display boost from the picture level.
    tr.mdb = MaximumDisplayBoost(t, apl);

    // Gain-map ratios in natural logarithms; gamma with the set's multiplier.
    std::array<double, 4> logMin{{0, 0, 0, 1}};
    std::array<double, 4> logMax{{0, 0, 0, 1}};
    std::array<double, 4> gamma{{1, 1, 1, 1}};
    for (int c = 0; c < 3; ++c) {
        logMin[c] = kLn2 * md.gainMapMin[c];
        logMax[c] = kLn2 * md.gainMapMax[c];
        gamma[c] = 1.0 / (static_cast<double>(md.gamma[c]) * t.GAMMA_MUL / 128.0);
    }
    u.logRatioMin = ToFloat4(logMin);
    u.logRatioMax = ToFloat4(logMax);
    u.gainmapGamma = ToFloat4(gamma);
    u.epsilonSdr = md.offsetSdr;
    u.epsilonHdr = md.offsetHdr;
    u.noGamma = u.gainmapGamma[0] == 1.0f && u.gainmapGamma[1] == 1.0f && u.gainmapGamma[2] == 1.0f
                    ? 1
                    : 0;

    // Weight of the gain: where the boost lies between the content's
    // capacity range, in log space, clamped to [0, 1].
    tr.boost = std::min(std::exp2(static_cast<double>(md.hdrCapacityMax)), tr.mdb);
    const double logCapMin = kLn2 * md.hdrCapacityMin;
    const double logCapMax = kLn2 * md.hdrCapacityMax;
    tr.weightUnclamped = (std::log(tr.boost) - logCapMin) / (logCapMax - logCapMin);
    double w = tr.weightUnclamped;
    if (w > 1) {
        w = 1;
    } else if (w < 0) {
        w = 0;
    }
    u.W = static_cast<float>(w);

    u.outputGamutTransform = {{1, 0, 0, 0, 1, 0, 0, 0, 1}};

    // Output curve: the inverse of sRGB scaled to the boost.
    std::array<double, 7> inverse{};
    tr.outputCurveFallback = !InvertBoostedSrgb(tr.boost, inverse);
    if (tr.outputCurveFallback) {
        u.trfn_inv = kInverseSrgbCurve;
    } else {
        for (int i = 0; i < 7; ++i) {
            u.trfn_inv[i] = static_cast<float>(inverse[i]);
        }
    }

    // Gain curve.
    u.curve_gain_point = {{static_cast<float>(t.GAIN_CURVE_P0 / 1024.0),
                           static_cast<float>(t.GAIN_CURVE_P1 / 1024.0),
                           static_cast<float>(t.GAIN_CURVE_P2 / 1024.0)}};
    u.curve_gain_grad = {{static_cast<float>(t.GAIN_CURVE_G0 / 512.0),
                          static_cast<float>(t.GAIN_CURVE_G1 / 512.0),
                          static_cast<float>(t.GAIN_CURVE_G2 / 512.0)}};

    u.bOutputYUV = outputYUV ? 1 : 0;
    u.inputTrfnType = md.trfn;
    u.in_trfn = InputCurve(md.trfn);

    const std::array<double, 16> m = RotationMatrix(md.outputRotate, md.outputMirror);
    for (int i = 0; i < 16; ++i) {
        u.rotateMatrix[i] = static_cast<float>(m[i]);
    }
    return u;
}

}  // namespace hdrtest
