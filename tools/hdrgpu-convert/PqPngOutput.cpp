#include "HdrOutput.h"

#include <png.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <utility>
#include <vector>

namespace hdrconvert {

namespace {

struct PngError {
    char message[256];
};

[[noreturn]] void OnPngError(png_structp png, png_const_charp message)
{
    PngError* e = static_cast<PngError*>(png_get_error_ptr(png));
    std::snprintf(e->message, sizeof e->message, "%s", message != nullptr ? message : "PNG error");
    png_longjmp(png, 1);
}

void OnPngWarning(png_structp, png_const_charp)
{}

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

bool WriteRows(png_structp png, png_infop info, FILE* file, const PanelPicture& picture, const PanelModel& panel,
               int level, Chunks* chunks, std::vector<uint8_t>* row)
{
    if (setjmp(png_jmpbuf(png)) != 0) {
        return false;
    }
    png_init_io(png, file);
    png_set_compression_level(png, level);
    if (level <= 3) {
        png_set_filter(png, PNG_FILTER_TYPE_BASE, level == 0 ? PNG_FILTER_NONE : PNG_FILTER_SUB);
    }
    png_set_IHDR(png, info, static_cast<png_uint_32>(picture.width), static_cast<png_uint_32>(picture.height), 16,
                 PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    // libpng 1.6.39 knows none of the three chunks: they go in as unknown
    // chunks, placed before PLTE/IDAT, and must be kept although cICP is not
    // safe to copy.
    static const png_byte kNames[] = {'c', 'I', 'C', 'P', '\0', 'c', 'L', 'L', 'i', '\0', 'm', 'D', 'C', 'v', '\0'};
    png_set_keep_unknown_chunks(png, PNG_HANDLE_CHUNK_ALWAYS, kNames, 3);
    png_unknown_chunk unknown[3];
    std::memset(unknown, 0, sizeof unknown);
    const std::pair<const char*, std::vector<uint8_t>*> list[3] = {
        {"cICP", &chunks->cicp}, {"cLLi", &chunks->clli}, {"mDCv", &chunks->mdcv}};
    for (int i = 0; i < 3; ++i) {
        std::memcpy(unknown[i].name, list[i].first, 5);
        unknown[i].data = list[i].second->data();
        unknown[i].size = list[i].second->size();
        unknown[i].location = PNG_HAVE_IHDR;
    }
    png_set_unknown_chunks(png, info, unknown, 3);
    png_write_info(png, info);
    const size_t width = static_cast<size_t>(picture.width);
    for (int y = 0; y < picture.height; ++y) {
        const uint8_t* src = picture.rgba + static_cast<size_t>(y) * width * 4;
        uint8_t* dst = row->data();
        for (size_t x = 0; x < width; ++x, src += 4) {
            for (int c = 0; c < 3; ++c) {
                const uint16_t v = panel.Pq16(src[c]);
                *dst++ = static_cast<uint8_t>(v >> 8);  // PNG samples are big-endian
                *dst++ = static_cast<uint8_t>(v);
            }
        }
        png_write_row(png, row->data());
    }
    png_write_end(png, info);
    return true;
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
    Chunks chunks = MakeChunks(picture, panel, written);
    std::vector<uint8_t> row(static_cast<size_t>(picture.width) * 6);

    FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) {
        *reason = "cannot create " + path + ": " + std::strerror(errno);
        return false;
    }
    PngError error{};
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &error, OnPngError, OnPngWarning);
    png_infop pngInfo = png != nullptr ? png_create_info_struct(png) : nullptr;
    bool ok = png != nullptr && pngInfo != nullptr;
    if (!ok) {
        *reason = "cannot start the PNG writer";
    } else if (!WriteRows(png, pngInfo, file, picture, panel, std::clamp(pngLevel, 0, 9), &chunks, &row)) {
        *reason = std::string("PNG writer: ") + error.message;
        ok = false;
    }
    png_destroy_write_struct(&png, pngInfo != nullptr ? &pngInfo : nullptr);
    if (std::fclose(file) != 0 && ok) {
        *reason = "cannot write " + path + ": " + std::strerror(errno);
        ok = false;
    }
    if (!ok) {
        std::remove(path.c_str());
        return false;
    }
    if (info != nullptr) {
        *info = written;
    }
    return true;
}

}  // namespace hdrconvert
