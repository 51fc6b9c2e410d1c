#include "PanelModel.h"

#include <algorithm>
#include <cmath>

namespace hdrconvert {

Cicp CicpFor(Primaries primaries)
{
    Cicp c;
    switch (primaries) {
    case Primaries::Bt709:
        c.colourPrimaries = 1;
        break;
    case Primaries::DisplayP3:
        c.colourPrimaries = 12;
        break;
    case Primaries::Bt2020:
        c.colourPrimaries = 9;
        break;
    }
    return c;
}

Chromaticities ChromaticitiesOf(Primaries primaries)
{
    switch (primaries) {
    case Primaries::DisplayP3:
        return {{0.680, 0.320}, {0.265, 0.690}, {0.150, 0.060}, {0.3127, 0.3290}};
    case Primaries::Bt2020:
        return {{0.708, 0.292}, {0.170, 0.797}, {0.131, 0.046}, {0.3127, 0.3290}};
    case Primaries::Bt709:
        break;
    }
    return {{0.640, 0.330}, {0.300, 0.600}, {0.150, 0.060}, {0.3127, 0.3290}};
}

double SrgbEotf(double e)
{
    return e <= 0.04045 ? e / 12.92 : std::pow((e + 0.055) / 1.055, 2.4);
}

namespace {
constexpr double kM1 = 2610.0 / 16384.0;
constexpr double kM2 = 2523.0 / 4096.0 * 128.0;
constexpr double kC1 = 3424.0 / 4096.0;
constexpr double kC2 = 2413.0 / 4096.0 * 32.0;
constexpr double kC3 = 2392.0 / 4096.0 * 32.0;
}  // namespace

double PqInverseEotf(double nits)
{
    const double y = std::clamp(nits / 10000.0, 0.0, 1.0);
    const double p = std::pow(y, kM1);
    return std::pow((kC1 + kC2 * p) / (1.0 + kC3 * p), kM2);
}

double PqEotf(double signal)
{
    const double e = std::pow(std::clamp(signal, 0.0, 1.0), 1.0 / kM2);
    const double y = std::pow(std::max(e - kC1, 0.0) / (kC2 - kC3 * e), 1.0 / kM1);
    return y * 10000.0;
}

PanelModel::PanelModel(int peakNits) : peak_(std::clamp(peakNits, 1, kMaxPanelNits))
{
    for (int c = 0; c < 256; ++c) {
        nits_[c] = peak_ * SrgbEotf(c / 255.0);
        const double e = PqInverseEotf(nits_[c]);
        pq16_[c] = static_cast<uint16_t>(std::lround(e * 65535.0));
        pq10_[c] = static_cast<uint16_t>(std::lround(e * 1023.0));
    }
}

LightLevels MeasureLightLevels(const PanelModel& panel, const uint8_t* rgba, size_t pixels)
{
    // Per-code counts of each pixel's brightest channel: the light is a
    // monotonic function of the code, so the brightest code is the brightest light.
    std::array<uint64_t, 256> histogram{};
    for (size_t i = 0; i < pixels; ++i) {
        const uint8_t* p = rgba + i * 4;
        ++histogram[std::max({p[0], p[1], p[2]})];
    }
    LightLevels levels;
    double sum = 0;
    for (int c = 0; c < 256; ++c) {
        if (histogram[c] != 0) {
            levels.maxCll = panel.Nits(static_cast<uint8_t>(c));
            sum += panel.Nits(static_cast<uint8_t>(c)) * static_cast<double>(histogram[c]);
        }
    }
    levels.maxFall = pixels == 0 ? 0.0 : sum / static_cast<double>(pixels);
    return levels;
}

}  // namespace hdrconvert
