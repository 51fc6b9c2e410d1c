// What a file may claim before anything is allocated for it: a picture's
// declared size against the data that is supposed to hold it, and against
// a megapixel cap.
#ifndef HDRGPU_CONVERT_DECLARED_SIZE_H
#define HDRGPU_CONVERT_DECLARED_SIZE_H

#include "GainMapJpeg.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace hdrconvert {

// Default of --max-megapixels: the largest phone photographs (108 MP) with
// room to spare; about 2 GB at peak through the whole pipeline.
constexpr int kDefaultMaxMegapixels = 120;

// The fewest bytes a Huffman-coded (baseline or progressive) codestream of
// width x height can have: every 8 x 8 block of the first component costs
// at least one bit (a DC code, and in a baseline scan also an end-of-block
// code), before any header is counted.
uint64_t MinimumHuffmanCodestreamBytes(uint32_t width, uint32_t height);

// Refuses, with *reason, a width x height picture above maxMegapixels.
bool CheckMegapixels(const char* which, int width, int height, int maxMegapixels, std::string* reason);

// Reads the frame headers of both pictures of a parsed file (no decoding,
// no plane allocated) and refuses the file when either picture is larger
// than its compressed data can hold or than maxMegapixels.
bool CheckDeclaredSizes(const uint8_t* file, const GainMapJpeg& parsed, int maxMegapixels, std::string* reason);

}  // namespace hdrconvert

#endif
