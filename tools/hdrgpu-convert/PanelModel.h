// From the library's 8-bit output to absolute light, and on to SMPTE ST 2084
// (PQ) for HDR files.
//
// The library's output code is a panel signal: the sRGB curve scaled so that
// code 255 is the panel's peak. With a panel of peak P cd/m2, a code c in
// 0..255 therefore shows
//
//     L(c) = P * sRGB_EOTF(c / 255)                          (cd/m2)
//     sRGB_EOTF(e) = e / 12.92                    for e <= 0.04045
//                  = ((e + 0.055) / 1.055)^2.4    otherwise
//
// and the PQ signal of that light is the ST 2084 inverse EOTF of L / 10000:
//
//     E'(L) = ((c1 + c2 * Y^m1) / (1 + c3 * Y^m1))^m2,  Y = L / 10000
//     m1 = 2610/16384, m2 = 2523/4096 * 128,
//     c1 = 3424/4096, c2 = 2413/4096 * 32, c3 = 2392/4096 * 32
//
// stored as round(E' * 65535) in 16 bits or round(E' * 1023) in 10 bits,
// each channel separately (no gamut conversion: the picture keeps its
// primaries, which the file's colour signalling names).
#ifndef HDRGPU_CONVERT_PANEL_MODEL_H
#define HDRGPU_CONVERT_PANEL_MODEL_H

#include <array>
#include <cstddef>
#include <cstdint>

namespace hdrconvert {

constexpr int kDefaultPanelNits = 1000;
constexpr int kMaxPanelNits = 10000;  // PQ ends at 10000 cd/m2

// The picture's primaries, as the library was told them.
enum class Primaries {
    Bt709,
    DisplayP3,
    Bt2020,
};

// H.273 code points.
struct Cicp {
    uint8_t colourPrimaries = 1;           // 1 BT.709, 12 SMPTE EG 432-1 (Display P3), 9 BT.2020
    uint8_t transferCharacteristics = 16;  // SMPTE ST 2084 (PQ)
    uint8_t matrixCoefficients = 0;        // identity: the file holds R, G, B
    uint8_t fullRange = 1;
};

Cicp CicpFor(Primaries primaries);

// CIE 1931 x, y of red, green, blue and white (D65) for the primaries.
struct Chromaticities {
    double red[2];
    double green[2];
    double blue[2];
    double white[2];
};

Chromaticities ChromaticitiesOf(Primaries primaries);

double SrgbEotf(double e);
// ST 2084 inverse EOTF: light in cd/m2 (clamped to 0..10000) to a signal 0..1.
double PqInverseEotf(double nits);
// ST 2084 EOTF: signal 0..1 to cd/m2.
double PqEotf(double signal);

// The panel: code to light and code to PQ codes, as tables over the 256
// codes.
class PanelModel {
public:
    explicit PanelModel(int peakNits);

    int PeakNits() const { return peak_; }
    double Nits(uint8_t code) const { return nits_[code]; }
    uint16_t Pq16(uint8_t code) const { return pq16_[code]; }
    uint16_t Pq10(uint8_t code) const { return pq10_[code]; }

private:
    int peak_;
    std::array<double, 256> nits_{};
    std::array<uint16_t, 256> pq16_{};
    std::array<uint16_t, 256> pq10_{};
};

// CTA-861.3 light levels of one picture, in cd/m2: MaxCLL is the brightest
// pixel's brightest channel, MaxFALL the picture's average of each pixel's
// brightest channel.
struct LightLevels {
    double maxCll = 0;
    double maxFall = 0;
};

// rgba: width * height * 4 bytes, R, G, B, A.
LightLevels MeasureLightLevels(const PanelModel& panel, const uint8_t* rgba, size_t pixels);

}  // namespace hdrconvert

#endif
