#include "DeclaredSize.h"

#include "JpegPlanes.h"

#include <cstdio>

namespace hdrconvert {

uint64_t MinimumHuffmanCodestreamBytes(uint32_t width, uint32_t height)
{
    const uint64_t blocks = ((static_cast<uint64_t>(width) + 7) / 8) * ((static_cast<uint64_t>(height) + 7) / 8);
    return (blocks + 7) / 8;
}

bool CheckMegapixels(const char* which, int width, int height, int maxMegapixels, std::string* reason)
{
    const uint64_t pixels = static_cast<uint64_t>(width) * static_cast<uint64_t>(height);
    if (pixels > static_cast<uint64_t>(maxMegapixels) * 1000000u) {
        char text[160];
        std::snprintf(text, sizeof text, "%s of %dx%d (%.1f megapixels) is above the %d-megapixel limit", which, width,
                      height, static_cast<double>(pixels) / 1e6, maxMegapixels);
        *reason = text;
        return false;
    }
    return true;
}

bool CheckDeclaredSizes(const uint8_t* file, const GainMapJpeg& parsed, int maxMegapixels, std::string* reason)
{
    const struct {
        const char* name;
        size_t offset;
        size_t size;
    } pictures[] = {{"primary image", parsed.primaryOffset, parsed.primarySize},
                    {"gain map", parsed.gainMapOffset, parsed.gainMapSize}};
    for (const auto& p : pictures) {
        int width = 0;
        int height = 0;
        std::string why;
        if (!ReadJpegHeader(file + p.offset, p.size, &width, &height, &why)) {
            *reason = std::string(p.name) + ": " + why;
            return false;
        }
        if (!CheckMegapixels(p.name, width, height, maxMegapixels, reason)) {
            return false;
        }
    }
    return true;
}

}  // namespace hdrconvert
