#include "SampleMaker.h"

#include "JpegPlanes.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>

namespace hdrconvert {

namespace {

using Rgb = std::array<double, 3>;

constexpr double kHorizon = 0.62;  // fraction of the height where the water starts
constexpr double kSunX = 0.74;
constexpr double kSunY = 0.24;

Rgb Mix(const Rgb& a, const Rgb& b, double t)
{
    return {{a[0] + (b[0] - a[0]) * t, a[1] + (b[1] - a[1]) * t, a[2] + (b[2] - a[2]) * t}};
}

// A small deterministic hash in [0, 1) for the glints' placement.
double Hash(int i, int salt)
{
    uint32_t h = static_cast<uint32_t>(i) * 2654435761u ^ static_cast<uint32_t>(salt) * 2246822519u;
    h ^= h >> 15;
    h *= 2246822519u;
    h ^= h >> 13;
    return static_cast<double>(h & 0xFFFFFF) / 16777216.0;
}

// The scene in linear light, SDR white = 1, at (fx, fy) in [0, 1) of the
// picture, with the picture's aspect ratio for round shapes.
Rgb Scene(double fx, double fy, double aspect)
{
    Rgb c;
    const double sx = (fx - kSunX) * aspect;  // distances in units of the height
    const double sy = fy - kSunY;
    const double sunDistance = std::sqrt(sx * sx + sy * sy);
    if (fy < kHorizon) {
        const double t = std::pow(fy / kHorizon, 0.8);
        c = Mix(Rgb{{0.08, 0.18, 0.55}}, Rgb{{0.75, 0.72, 0.80}}, t);
        // The sun's glow and disc: far above SDR white at the centre.
        const double glow = 1.6 * std::exp(-std::pow(sunDistance / 0.10, 2.0));
        c = {{c[0] + glow * 1.0, c[1] + glow * 0.85, c[2] + glow * 0.6}};
        if (sunDistance < 0.05) {
            const double edge = std::min(1.0, (0.05 - sunDistance) / 0.01);
            const Rgb disc{{7.2, 6.6, 5.3}};
            c = Mix(c, disc, edge);
        }
    } else {
        const double t = (fy - kHorizon) / (1.0 - kHorizon);
        c = Mix(Rgb{{0.10, 0.16, 0.22}}, Rgb{{0.03, 0.07, 0.09}}, t);
        // The sun's reflection: a column of glints widening towards the viewer.
        const double halfWidth = 0.015 + 0.09 * t;
        const double across = (fx - kSunX) * aspect / halfWidth;
        if (std::fabs(across) < 1.0) {
            const double band = std::floor(fy * 160.0);
            const double ripple = 0.5 + 0.5 * std::sin(fx * 260.0 + band * 1.7);
            const double strength = (1.0 - across * across) * ripple * ripple;
            if (Hash(static_cast<int>(band), 7) > 0.35) {
                c = Mix(c, Rgb{{6.0, 5.4, 4.4}}, std::min(1.0, strength * 1.3));
            }
        }
        // A few round specular glints at the lower left.
        for (int i = 0; i < 9; ++i) {
            const double gx = 0.05 + 0.30 * Hash(i, 11);
            const double gy = kHorizon + 0.12 + 0.30 * Hash(i, 13);
            const double r = 0.006 + 0.012 * Hash(i, 17);
            const double dx = (fx - gx) * aspect;
            const double dy = fy - gy;
            const double d = std::sqrt(dx * dx + dy * dy) / r;
            if (d < 1.0) {
                c = Mix(c, Rgb{{5.5, 5.8, 6.2}}, 1.0 - d * d);
            }
        }
    }
    return c;
}

uint8_t SrgbCode(double linear)
{
    const double v = linear <= 0.0031308 ? 12.92 * linear : 1.055 * std::pow(linear, 1.0 / 2.4) - 0.055;
    return static_cast<uint8_t>(std::lround(std::clamp(v, 0.0, 1.0) * 255.0));
}

}  // namespace

GainMapMetadata SampleMetadata()
{
    GainMapMetadata md;
    md.gainMapMin = {{0.0, 0.0, 0.0}};
    md.gainMapMax = {{2.8, 2.7, 2.5}};
    md.gamma = {{1.0, 1.0, 1.0}};
    md.offsetSdr = {{1.0 / 64, 1.0 / 64, 1.0 / 64}};
    md.offsetHdr = {{1.0 / 64, 1.0 / 64, 1.0 / 64}};
    md.hdrCapacityMin = 0.0;
    md.hdrCapacityMax = 3.0;
    md.baseRenditionIsHdr = false;
    return md;
}

Sample MakeSample(const SampleOptions& options)
{
    Sample sample;
    const int w = options.width;
    const int h = options.height;
    const int d = std::max(1, options.gainMapDivisor);
    if (w < 1 || h < 1 || w > 8192 || h > 8192) {
        return sample;
    }
    const GainMapMetadata md = SampleMetadata();
    const double aspect = static_cast<double>(w) / h;

    // The SDR rendition clips each channel at white; the gain is the log2
    // ratio of the HDR and SDR renditions with their offsets, which is 0
    // wherever nothing clipped.
    std::vector<uint8_t> sdr(static_cast<size_t>(w) * h * 3);
    std::vector<double> logGain(static_cast<size_t>(w) * h * 3);
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            const Rgb hdr = Scene((x + 0.5) / w, (y + 0.5) / h, aspect);
            const size_t i = (static_cast<size_t>(y) * w + x) * 3;
            for (int c = 0; c < 3; ++c) {
                const double s = std::clamp(hdr[c], 0.0, 1.0);
                sdr[i + c] = SrgbCode(s);
                const double gain = std::log2((hdr[c] + md.offsetHdr[c]) / (s + md.offsetSdr[c]));
                logGain[i + c] = std::clamp(gain, md.gainMapMin[c], md.gainMapMax[c]);
            }
        }
    }

    // The map at 1/d of the size: each texel the mean log gain of its block.
    const int gw = (w + d - 1) / d;
    const int gh = (h + d - 1) / d;
    std::vector<uint8_t> map(static_cast<size_t>(gw) * gh * 3);
    for (int gy = 0; gy < gh; ++gy) {
        for (int gx = 0; gx < gw; ++gx) {
            for (int c = 0; c < 3; ++c) {
                double sum = 0;
                int n = 0;
                for (int y = gy * d; y < std::min(h, gy * d + d); ++y) {
                    for (int x = gx * d; x < std::min(w, gx * d + d); ++x) {
                        sum += logGain[(static_cast<size_t>(y) * w + x) * 3 + c];
                        ++n;
                    }
                }
                const double range = md.gainMapMax[c] - md.gainMapMin[c];
                const double v = std::pow((sum / n - md.gainMapMin[c]) / range, md.gamma[c]);
                map[(static_cast<size_t>(gy) * gw + gx) * 3 + c] =
                    static_cast<uint8_t>(std::lround(std::clamp(v, 0.0, 1.0) * 255.0));
            }
        }
    }

    const std::vector<uint8_t> primary = EncodeRgbJpeg(sdr.data(), w, h, options.quality, ChromaSampling::Yuv420);
    const std::vector<uint8_t> gainMap = EncodeRgbJpeg(map.data(), gw, gh, options.quality, ChromaSampling::Yuv444);
    if (primary.empty() || gainMap.empty()) {
        return sample;
    }
    sample.file = WriteGainMapJpeg(primary, gainMap, md, options.orientation);
    sample.metadata = md;
    sample.gainMapWidth = gw;
    sample.gainMapHeight = gh;
    return sample;
}

bool WriteSampleFile(const std::string& path, const SampleOptions& options, std::string* reason)
{
    const Sample sample = MakeSample(options);
    if (sample.file.empty()) {
        *reason = "cannot make the sample picture";
        return false;
    }
    FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) {
        *reason = "cannot create " + path + ": " + std::strerror(errno);
        return false;
    }
    const bool written = std::fwrite(sample.file.data(), 1, sample.file.size(), file) == sample.file.size();
    const bool closed = std::fclose(file) == 0;
    if (!written || !closed) {
        *reason = "cannot write " + path;
        std::remove(path.c_str());
        return false;
    }
    return true;
}

}  // namespace hdrconvert
