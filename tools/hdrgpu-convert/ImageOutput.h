// Writing a rendered picture: 8-bit RGBA PNG (libpng), or plain RGBA bytes.
#ifndef HDRGPU_CONVERT_IMAGE_OUTPUT_H
#define HDRGPU_CONVERT_IMAGE_OUTPUT_H

#include <cstdint>
#include <string>
#include <vector>

namespace hdrconvert {

enum class OutputFormat {
    Png,  // 8-bit RGBA PNG
    Raw,  // width * height * 4 bytes: R, G, B, A per pixel, row 0 first, no header
};

// zlib level of the PNG writer: 1 favours speed (a 12.5-megapixel picture
// takes well under a second), 9 size.
constexpr int kDefaultPngLevel = 1;

// The file name extension of a format, with the dot.
const char* OutputExtension(OutputFormat format);

// Writes rgba (width * height * 4 bytes, R, G, B, A, rows tightly packed) to
// path. pngLevel (0..9) is the zlib level of a PNG. False with a reason.
bool WriteImage(const std::string& path, OutputFormat format, const uint8_t* rgba, int width, int height, int pngLevel,
                std::string* reason);

}  // namespace hdrconvert

#endif
