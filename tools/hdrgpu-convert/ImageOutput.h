// Writing a rendered picture: 8-bit RGBA PNG (libpng), or plain RGBA bytes.
// The HDR formats (16-bit PQ PNG, 10-bit PQ AVIF) are in HdrOutput.h.
#ifndef HDRGPU_CONVERT_IMAGE_OUTPUT_H
#define HDRGPU_CONVERT_IMAGE_OUTPUT_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace hdrconvert {

enum class OutputFormat {
    Png,    // 8-bit RGBA PNG
    Raw,    // width * height * 4 bytes: R, G, B, A per pixel, row 0 first, no header
    PqPng,  // 16-bit RGB PNG, PQ, cICP / cLLi / mDCv (HdrOutput.h)
    Avif,   // 10-bit 4:4:4 AVIF, PQ (HdrOutput.h)
};

// zlib level of the PNG writer: 1 favours speed (a 12.5-megapixel picture
// takes well under a second), 9 size.
constexpr int kDefaultPngLevel = 1;

// The file name extension of a format, with the dot.
const char* OutputExtension(OutputFormat format);

// The format's name on the command line and in the JSON report.
const char* OutputFormatName(OutputFormat format);

// The format of that name; false for none.
bool OutputFormatNamed(const std::string& name, OutputFormat* format);

// True for the formats written in PQ for HDR viewers (HdrOutput.h).
bool IsHdrFormat(OutputFormat format);

// Writes rgba (width * height * 4 bytes, R, G, B, A, rows tightly packed) to
// path as Png or Raw. pngLevel (0..9) is the zlib level of a PNG. A PNG of
// RGB output (yuv false) carries an sRGB chunk, so viewers need not guess
// the colour space; YUV output carries none. False with a reason.
bool WriteImage(const std::string& path, OutputFormat format, const uint8_t* rgba, int width, int height, int pngLevel,
                std::string* reason, bool yuv = false);

// Gives row y of a picture (width * 4 bytes, R, G, B, A), rows asked for in
// order: either a pointer to the row where it already is, or `scratch`
// (width * 4 bytes, owned by the writer) filled with it.
using RowSource = std::function<const uint8_t*(int y, uint8_t* scratch)>;

// WriteImage with the rows taken from rows, one at a time, so that a picture
// can go to the file without a whole copy of it in between (the same sRGB
// chunk rule).
bool WriteImageRows(const std::string& path, OutputFormat format, int width, int height, int pngLevel,
                    const RowSource& rows, std::string* reason, bool yuv = false);

}  // namespace hdrconvert

#endif
