#include "GainMapModel.h"

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <limits>
#include <vector>

namespace hdrtest {

namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// Rows of the YUV-to-RGB matrix: coefficients of y, (u - 0.5), (v - 0.5).
constexpr double kYuvToRgb[3][3] = {
    {1.0, 0.0, 1.402},
    {1.0, -0.344136, -0.714136},
    {1.0, 1.772, 0.0},
};

// Rows of the output's RGB-to-YUV matrix and the offsets added to each row.
constexpr double kRgbToYuv[3][3] = {
    {0.229, 0.587, 0.114},
    {-0.169, -0.331, 0.500},
    {0.500, -0.439, -0.081},
};
constexpr double kRgbToYuvOffset[3] = {0.0, 0.5, 0.5};

// sum_i w[i] * x[i] + offset over independent intervals x[i]: exact.
Interval LinearCombination(const double* w, const Interval* x, int n, double offset)
{
    double lo = offset;
    double hi = offset;
    for (int i = 0; i < n; ++i) {
        if (!x[i].Bounded()) {
            return Interval::Everything();
        }
        if (w[i] >= 0) {
            lo += w[i] * x[i].lo;
            hi += w[i] * x[i].hi;
        } else {
            lo += w[i] * x[i].hi;
            hi += w[i] * x[i].lo;
        }
    }
    return {lo, hi};
}

// Product of two independent intervals: exact.
Interval Multiply(const Interval& a, const Interval& b)
{
    if (!a.Bounded() || !b.Bounded()) {
        return Interval::Everything();
    }
    const double p[4] = {a.lo * b.lo, a.lo * b.hi, a.hi * b.lo, a.hi * b.hi};
    Interval r{kInf, -kInf};
    for (double v : p) {
        if (!std::isfinite(v)) {
            return Interval::Everything();
        }
        r.lo = std::min(r.lo, v);
        r.hi = std::max(r.hi, v);
    }
    return r;
}

// The image of x under a function that is continuous and monotone between
// consecutive points of `points` (points outside x are ignored, extra points
// are harmless): the hull of its values at the ends of x and at every point
// inside x together with the values just left and right of it (the one-sided
// limits, to within one double ulp). A non-finite value anywhere means the
// result may be anything.
template <typename F>
Interval ImageOf(F&& f, const Interval& x, const std::vector<double>& points)
{
    if (!x.Bounded()) {
        return Interval::Everything();
    }
    Interval r{kInf, -kInf};
    bool undefined = false;
    auto take = [&](double at) {
        const double v = f(at);
        if (!std::isfinite(v)) {
            undefined = true;
            return;
        }
        r.lo = std::min(r.lo, v);
        r.hi = std::max(r.hi, v);
    };
    take(x.lo);
    take(x.hi);
    for (double p : points) {
        if (!(p >= x.lo && p <= x.hi)) {
            continue;
        }
        take(p);
        const double below = std::nextafter(p, -kInf);
        if (below >= x.lo) {
            take(below);
        }
        const double above = std::nextafter(p, kInf);
        if (above <= x.hi) {
            take(above);
        }
    }
    return undefined ? Interval::Everything() : r;
}

// Points of an odd extension sign(x) * h(|x|): 0 and +-p for every point p of h.
std::vector<double> OddPoints(std::initializer_list<double> halfLinePoints)
{
    std::vector<double> points{0.0};
    for (double p : halfLinePoints) {
        if (std::isfinite(p) && p > 0) {
            points.push_back(p);
            points.push_back(-p);
        }
    }
    return points;
}

// The values where the derivative of one Hermite segment vanishes, mapped
// from t to the curve's input (value = offset + t / 2).
void AddHermiteExtrema(double p0, double m0, double p1, double m1, double offset,
                       std::vector<double>& points)
{
    // result(t) = A t^3 + B t^2 + m0 t + p0
    const double A = 2 * p0 + m0 - 2 * p1 + m1;
    const double B = -3 * p0 - 2 * m0 + 3 * p1 - m1;
    // result'(t) = 3A t^2 + 2B t + m0
    const double qa = 3 * A;
    const double qb = 2 * B;
    const double qc = m0;
    std::vector<double> roots;
    if (qa == 0) {
        if (qb != 0) {
            roots.push_back(-qc / qb);
        }
    } else {
        const double disc = qb * qb - 4 * qa * qc;
        if (disc >= 0) {
            const double s = std::sqrt(disc);
            roots.push_back((-qb - s) / (2 * qa));
            roots.push_back((-qb + s) / (2 * qa));
        }
    }
    for (double t : roots) {
        if (std::isfinite(t)) {
            points.push_back(offset + t / 2);
        }
    }
}

Interval Clamp01(const Interval& x)
{
    if (!x.Bounded()) {
        return Interval::Everything();
    }
    return {std::clamp(x.lo, 0.0, 1.0), std::clamp(x.hi, 0.0, 1.0)};
}

int FloorCode(double x)
{
    if (!(x > 0)) {
        return 0;  // also -inf and NaN
    }
    if (x >= 1) {
        return 255;
    }
    return static_cast<int>(std::floor(x * 255.0));
}

int CeilCode(double x)
{
    if (std::isnan(x) || x >= 1) {
        return 255;
    }
    if (x <= 0) {
        return 0;
    }
    return static_cast<int>(std::ceil(x * 255.0));
}

}  // namespace

PixelSamples PixelSamples::FromCodes(uint8_t mainY, uint8_t mainU, uint8_t mainV, uint8_t gainY,
                                     uint8_t gainU, uint8_t gainV)
{
    PixelSamples s;
    s.main = {{mainY / 255.0, mainU / 255.0, mainV / 255.0}};
    s.gain = {{gainY / 255.0, gainU / 255.0, gainV / 255.0}};
    return s;
}

Interval Interval::Everything()
{
    return {-kInf, kInf};
}

Interval Interval::Hull(const Interval& a, const Interval& b)
{
    if (!a.Bounded() || !b.Bounded()) {
        return Everything();
    }
    return {std::min(a.lo, b.lo), std::max(a.hi, b.hi)};
}

bool Interval::Bounded() const
{
    return std::isfinite(lo) && std::isfinite(hi);
}

namespace gainmap {

double Pow(double base, double exponent)
{
    if (std::isnan(base) || std::isnan(exponent) || base < 0) {
        return kNaN;
    }
    if (base == 0) {
        return exponent > 0 ? 0.0 : kNaN;
    }
    return std::pow(base, exponent);
}

Vec3 YuvToRgb(double y, double u, double v)
{
    const double in[3] = {y, u - 0.5, v - 0.5};
    Vec3 rgb{};
    for (int r = 0; r < 3; ++r) {
        rgb[r] = kYuvToRgb[r][0] * in[0] + kYuvToRgb[r][1] * in[1] + kYuvToRgb[r][2] * in[2];
    }
    return rgb;
}

Interval3 YuvToRgb(const Interval& y, const Interval& u, const Interval& v)
{
    const Interval in[3] = {y, {u.lo - 0.5, u.hi - 0.5}, {v.lo - 0.5, v.hi - 0.5}};
    Interval3 rgb;
    for (int r = 0; r < 3; ++r) {
        rgb[r] = LinearCombination(kYuvToRgb[r], in, 3, 0.0);
    }
    return rgb;
}

double DecodeInput(int type, const std::array<float, 7>& p, double x)
{
    if (type == 0) {
        return x;
    }
    const double g = p[0], a = p[1], b = p[2], c = p[3], d = p[4], e = p[5], f = p[6];
    const double sign = x < 0 ? -1.0 : 1.0;
    x = std::fabs(x);
    switch (type) {
    case 1: {
        // HLG-like: a power segment up to x a = 1, an exponential above.
        const double K = f + 1;
        return K * sign * (x * a <= 1 ? Pow(x * a, b) : std::exp((x - e) * c + d));
    }
    case 2: {
        // PQ-like.
        const double K = Pow(x, c);
        return sign * Pow(std::max(a + b * K, 0.0) / (d + e * K), f);
    }
    case 3:
        // sRGB-like: the piecewise form.
        return sign * (x < d ? c * x + f : Pow(a * x + b, g) + e);
    default:
        return kNaN;
    }
}

Interval DecodeInput(int type, const std::array<float, 7>& p, const Interval& x)
{
    const double a = p[1], b = p[2], c = p[3], d = p[4], e = p[5];
    std::vector<double> points;
    switch (type) {
    case 0:
        return x;
    case 1:
        // The branch changes at x a = 1.
        points = OddPoints({a != 0 ? 1 / a : kNaN});
        break;
    case 2: {
        // K = x^c is monotone; (a + b K) / (d + e K) is monotone between its
        // pole (d + e K = 0) and the max() has its kink at a + b K = 0.
        const double pole = e != 0 ? -d / e : kNaN;
        const double kink = b != 0 ? -a / b : kNaN;
        const auto toX = [c](double K) { return K > 0 && c != 0 ? std::pow(K, 1 / c) : kNaN; };
        points = OddPoints({toX(pole), toX(kink)});
        break;
    }
    case 3:
        points = OddPoints({d});
        break;
    default:
        return Interval::Everything();
    }
    return ImageOf([&](double v) { return DecodeInput(type, p, v); }, x, points);
}

double GainCurve(const std::array<float, 3>& points, const std::array<float, 3>& grads,
                 double value)
{
    double t, p0, m0, p1, m1;
    if (value < 0.5) {
        t = value * 2;
        p0 = points[0];
        m0 = grads[0];
        p1 = points[1];
        m1 = grads[1];
    } else {
        t = (value - 0.5) * 2;
        p0 = points[1];
        m0 = grads[1];
        p1 = points[2];
        m1 = grads[2];
    }
    const double t2 = t * t;
    const double t3 = t2 * t;
    return (2 * t3 - 3 * t2 + 1) * p0 + (t3 - 2 * t2 + t) * m0 + (3 * t2 - 2 * t3) * p1 -
           (t2 - t3) * m1;
}

Interval GainCurve(const std::array<float, 3>& points, const std::array<float, 3>& grads,
                   const Interval& value)
{
    std::vector<double> breaks{0.5};
    AddHermiteExtrema(points[0], grads[0], points[1], grads[1], 0.0, breaks);
    AddHermiteExtrema(points[1], grads[1], points[2], grads[2], 0.5, breaks);
    return ImageOf([&](double v) { return GainCurve(points, grads, v); }, value, breaks);
}

double EncodeOutput(const std::array<float, 7>& p, double x)
{
    const double g = p[0], a = p[1], b = p[2], c = p[3], d = p[4], e = p[5], f = p[6];
    const double sign = x < 0 ? -1.0 : 1.0;
    x = std::fabs(x);
    return sign * (x < d ? c * x + f : Pow(a * x + b, g) + e);
}

Interval EncodeOutput(const std::array<float, 7>& p, const Interval& x)
{
    return ImageOf([&](double v) { return EncodeOutput(p, v); }, x, OddPoints({double(p[4])}));
}

Vec3 RgbToOutputYuv(const Vec3& t)
{
    Vec3 yuv{};
    for (int r = 0; r < 3; ++r) {
        yuv[r] = kRgbToYuv[r][0] * t[0] + kRgbToYuv[r][1] * t[1] + kRgbToYuv[r][2] * t[2] +
                 kRgbToYuvOffset[r];
    }
    return yuv;
}

Interval3 RgbToOutputYuv(const Interval3& t)
{
    // The three channels are treated as independent: an enclosure.
    Interval3 yuv;
    for (int r = 0; r < 3; ++r) {
        yuv[r] = LinearCombination(kRgbToYuv[r], t.data(), 3, kRgbToYuvOffset[r]);
    }
    return yuv;
}

}  // namespace gainmap

Vec4 EvaluateNominal(const PixelSamples& samples, const GainMapUniforms& u)
{
    using namespace gainmap;
    // 1. Main image to RGB.
    Vec3 S = YuvToRgb(samples.main[0], samples.main[1], samples.main[2]);
    // 2. Input decoding.
    if (u.inputTrfnType != 0) {
        for (double& s : S) {
            s = DecodeInput(u.inputTrfnType, u.in_trfn, s);
        }
    }
    // 3. Gain map to RGB.
    Vec3 G = YuvToRgb(samples.gain[0], samples.gain[1], samples.gain[2]);
    Vec3 t{};
    for (int c = 0; c < 3; ++c) {
        // 4. Gain curve; 5. clamp.
        double g = std::clamp(GainCurve(u.curve_gain_point, u.curve_gain_grad, G[c]), 0.0, 1.0);
        // 6. Log gain, with the gain map's gamma unless noGamma is 1.
        if (u.noGamma != 1) {
            g = Pow(g, u.gainmapGamma[c]);
        }
        const double L = u.logRatioMin[c] + (double(u.logRatioMax[c]) - u.logRatioMin[c]) * g;
        // 7. Gain application.
        const double H = (S[c] + u.epsilonSdr[c]) * std::exp(L * u.W) - u.epsilonHdr[c];
        // 8. Output encoding.
        t[c] = EncodeOutput(u.trfn_inv, H);
    }
    // 9. Optional YUV output.
    if (u.bOutputYUV == 1) {
        t = RgbToOutputYuv(t);
    }
    // 10. Alpha 1.
    return {{t[0], t[1], t[2], 1.0}};
}

Interval3 EvaluateEncodedRgb(const std::array<Interval, 6>& box, const GainMapUniforms& u)
{
    using namespace gainmap;
    Interval3 S = YuvToRgb(box[0], box[1], box[2]);
    if (u.inputTrfnType != 0) {
        for (Interval& s : S) {
            s = DecodeInput(u.inputTrfnType, u.in_trfn, s);
        }
    }
    const Interval3 G = YuvToRgb(box[3], box[4], box[5]);
    Interval3 t;
    for (int c = 0; c < 3; ++c) {
        Interval g = GainCurve(u.curve_gain_point, u.curve_gain_grad, G[c]);
        if (!g.Bounded() || !S[c].Bounded()) {
            t[c] = Interval::Everything();
            continue;
        }
        g = Clamp01(g);
        if (u.noGamma != 1) {
            const double gamma = u.gainmapGamma[c];
            g = ImageOf([gamma](double v) { return Pow(v, gamma); }, g, {});
        }
        const double lmin = u.logRatioMin[c];
        const double lmax = u.logRatioMax[c];
        const double span = lmax - lmin;
        const Interval L = LinearCombination(&span, &g, 1, lmin);
        const double w = u.W;
        const Interval E = ImageOf([w](double l) { return std::exp(l * w); }, L, {});
        const Interval sdr{S[c].lo + u.epsilonSdr[c], S[c].hi + u.epsilonSdr[c]};
        Interval H = Multiply(sdr, E);
        H.lo -= u.epsilonHdr[c];
        H.hi -= u.epsilonHdr[c];
        t[c] = EncodeOutput(u.trfn_inv, H);
    }
    return t;
}

int ToCode(double x)
{
    if (std::isnan(x)) {
        return 0;
    }
    return static_cast<int>(std::lround(std::clamp(x, 0.0, 1.0) * 255.0));
}

ModelPixel Evaluate(const PixelSamples& samples, const GainMapUniforms& u, double samplerError,
                    int yuvSplits)
{
    const Vec4 nominal = EvaluateNominal(samples, u);

    const double in[6] = {samples.main[0], samples.main[1], samples.main[2],
                          samples.gain[0], samples.gain[1], samples.gain[2]};
    std::array<Interval, 6> box;
    for (int i = 0; i < 6; ++i) {
        box[i] = {in[i] - samplerError, in[i] + samplerError};
    }

    Interval3 range;
    if (u.bOutputYUV != 1) {
        range = EvaluateEncodedRgb(box, u);
    } else {
        // Split every axis into n parts and join the images of the n^6 boxes.
        const int n = samplerError > 0 ? std::max(1, yuvSplits) : 1;
        int total = 1;
        for (int i = 0; i < 6; ++i) {
            total *= n;
        }
        bool first = true;
        for (int index = 0; index < total; ++index) {
            std::array<Interval, 6> sub;
            int rest = index;
            for (int i = 0; i < 6; ++i) {
                const int k = rest % n;
                rest /= n;
                const double step = (box[i].hi - box[i].lo) / n;
                const double hi = k + 1 == n ? box[i].hi : box[i].lo + step * (k + 1);
                sub[i] = {box[i].lo + step * k, hi};
            }
            const Interval3 yuv = gainmap::RgbToOutputYuv(EvaluateEncodedRgb(sub, u));
            for (int c = 0; c < 3; ++c) {
                range[c] = first ? yuv[c] : Interval::Hull(range[c], yuv[c]);
            }
            first = false;
        }
    }

    ModelPixel pixel;
    for (int c = 0; c < 4; ++c) {
        ChannelBound& b = pixel.channel[c];
        b.nominal = nominal[c];
        if (c == 3) {
            b.value = Interval::Point(1.0);
        } else if (std::isfinite(nominal[c])) {
            // The nominal point lies in the box; joining it only guards the
            // rounding of the interval's ends.
            b.value = Interval::Hull(range[c], Interval::Point(nominal[c]));
        } else {
            b.value = Interval::Everything();
        }
        b.nominalCode = ToCode(nominal[c]);
        b.nominalCodeLo = std::isfinite(nominal[c]) ? FloorCode(nominal[c]) : 0;
        b.nominalCodeHi = std::isfinite(nominal[c]) ? CeilCode(nominal[c]) : 255;
        b.codeLo = b.value.Bounded() ? FloorCode(b.value.lo) : 0;
        b.codeHi = b.value.Bounded() ? CeilCode(b.value.hi) : 255;
    }
    return pixel;
}

}  // namespace hdrtest
