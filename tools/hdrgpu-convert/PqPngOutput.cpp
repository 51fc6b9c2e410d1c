#include "HdrOutput.h"

#include "OutputFile.h"
#include "PngWriter.h"

#include <cmath>
#include <cstdio>
#include <vector>

namespace hdrconvert {

namespace {

void PutU16(std::vector<uint8_t>* out, uint32_t v)
{
    out->push_back(static_cast<uint8_t>(v >> 8));
    out->push_back(static_cast<uint8_t>(v));
}

void PutU32(std::vector<uint8_t>* out, uint32_t v)
{
    PutU16(out, v >> 16);
    PutU16(out, v & 0xFFFF);
}

// A value in the chunk's fixed-point unit, saturated to 32 bits.
uint32_t Units(double value, double unit)
{
    const double v = std::round(value / unit);
    return v <= 0 ? 0u : v >= 4294967295.0 ? 0xFFFFFFFFu : static_cast<uint32_t>(v);
}

struct Chunks {
    std::vector<uint8_t> cicp;
    std::vector<uint8_t> clli;
    std::vector<uint8_t> mdcv;
};

Chunks MakeChunks(const PanelPicture& picture, const PanelModel& panel, const HdrWriteInfo& info)
{
    Chunks c;
    c.cicp = {info.cicp.colourPrimaries, info.cicp.transferCharacteristics, info.cicp.matrixCoefficients,
              info.cicp.fullRange};
    PutU32(&c.clli, Units(info.levels.maxCll, 0.0001));
    PutU32(&c.clli, Units(info.levels.maxFall, 0.0001));
    const Chromaticities xy = ChromaticitiesOf(picture.primaries);
    for (const double* p : {xy.red, xy.green, xy.blue, xy.white}) {
        PutU16(&c.mdcv, Units(p[0], 0.00002));
        PutU16(&c.mdcv, Units(p[1], 0.00002));
    }
    PutU32(&c.mdcv, Units(panel.PeakNits(), 0.0001));
    PutU32(&c.mdcv, 0);  // code 0 is no light at all
    return c;
}

}  // namespace

bool WritePqPng(const std::string& path, const PanelPicture& picture, const PanelModel& panel, int pngLevel,
                HdrWriteInfo* info, std::string* reason)
{
    if (picture.rgba == nullptr || picture.width < 1 || picture.height < 1) {
        *reason = "no picture to write";
        return false;
    }
    HdrWriteInfo written;
    written.cicp = CicpFor(picture.primaries);
    written.levels = MeasureLightLevels(panel, picture.rgba,
                                        static_cast<size_t>(picture.width) * static_cast<size_t>(picture.height));
    const Chunks chunks = MakeChunks(picture, panel, written);
    PngLayout layout;
    layout.width = picture.width;
    layout.height = picture.height;
    layout.bitDepth = 16;
    layout.alpha = false;
    layout.chunks = {{"cICP", &chunks.cicp}, {"cLLi", &chunks.clli}, {"mDCv", &chunks.mdcv}};
    const size_t width = static_cast<size_t>(picture.width);
    std::vector<uint8_t> row(width * 6);
    const auto pqRow = [&](int y) {
        const uint8_t* src = picture.rgba + static_cast<size_t>(y) * width * 4;
        uint8_t* dst = row.data();
        for (size_t x = 0; x < width; ++x, src += 4) {
            for (int c = 0; c < 3; ++c) {
                const uint16_t v = panel.Pq16(src[c]);
                *dst++ = static_cast<uint8_t>(v >> 8);  // PNG samples are big-endian
                *dst++ = static_cast<uint8_t>(v);
            }
        }
        return static_cast<const uint8_t*>(row.data());
    };
    if (!WriteOutputFile(
            path, [&](FILE* file, std::string* why) { return WritePngFile(file, layout, pngLevel, pqRow, why); },
            reason)) {
        return false;
    }
    if (info != nullptr) {
        *info = written;
    }
    return true;
}

}  // namespace hdrconvert
