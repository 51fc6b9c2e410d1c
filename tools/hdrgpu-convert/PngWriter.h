// libpng's write path, shared by the 8-bit PNG (ImageOutput.cpp) and the
// 16-bit PQ PNG (PqPngOutput.cpp): the write and info structs, the error
// jump, the zlib level and filter, the header, optional sRGB and ancillary
// chunks, the rows.
#ifndef HDRGPU_CONVERT_PNG_WRITER_H
#define HDRGPU_CONVERT_PNG_WRITER_H

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace hdrconvert {

// A chunk libpng does not know itself, written before the image data.
struct PngChunk {
    const char* name;  // four letters
    const std::vector<uint8_t>* data;
};

struct PngLayout {
    int width = 0;
    int height = 0;
    int bitDepth = 8;
    bool alpha = true;  // RGBA, else RGB
    bool srgb = false;  // an sRGB chunk (perceptual intent)
    std::vector<PngChunk> chunks;
};

// Gives row y (rows asked for in order), in PNG sample order: big-endian
// for 16-bit samples.
using PngRowSource = std::function<const uint8_t*(int y)>;

// Writes the PNG to file (left open). level is the zlib level, clamped to
// 0..9. False with a reason ("cannot start the PNG writer", or "PNG writer:"
// and libpng's message).
bool WritePngFile(FILE* file, const PngLayout& layout, int level, const PngRowSource& rows, std::string* reason);

}  // namespace hdrconvert

#endif
