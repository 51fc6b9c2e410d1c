// Reading and writing gain-map JPEG files: a primary JPEG followed by a
// second JPEG, the gain map, located through the Multi-Picture Format index,
// with the map's parameters in Adobe "hdrgm" XMP and/or an ISO 21496-1 block.
#ifndef HDRGPU_CONVERT_GAIN_MAP_JPEG_H
#define HDRGPU_CONVERT_GAIN_MAP_JPEG_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace hdrconvert {

// The gain map's parameters in the XMP vocabulary: log2 units for the gains
// and capacities, linear offsets. One value per channel (R, G, B); a file
// that gives one value fills all three.
struct GainMapMetadata {
    std::array<double, 3> gainMapMin{{0.0, 0.0, 0.0}};
    std::array<double, 3> gainMapMax{{0.0, 0.0, 0.0}};
    std::array<double, 3> gamma{{1.0, 1.0, 1.0}};
    std::array<double, 3> offsetSdr{{1.0 / 64, 1.0 / 64, 1.0 / 64}};
    std::array<double, 3> offsetHdr{{1.0 / 64, 1.0 / 64, 1.0 / 64}};
    double hdrCapacityMin = 0.0;
    double hdrCapacityMax = 0.0;
    bool baseRenditionIsHdr = false;
};

// Where the metadata came from.
enum class MetadataSource {
    None,
    Xmp,  // hdrgm XMP only
    Iso,  // ISO 21496-1 block (wins over XMP when both are present)
};

// A parsed file: byte ranges into the caller's buffer, never copies.
struct GainMapJpeg {
    size_t primaryOffset = 0;
    size_t primarySize = 0;  // SOI through EOI
    size_t gainMapOffset = 0;
    size_t gainMapSize = 0;  // SOI through EOI (a map that ends before its EOI is refused as truncated)
    GainMapMetadata metadata;
    MetadataSource source = MetadataSource::None;
    bool hadXmp = false;  // hdrgm values were found in an XMP packet
    bool hadIso = false;  // a full ISO block was found
    int orientation = 1;  // EXIF orientation of the primary (IFD0), 1 when absent or invalid
};

// Parses data[0..size). On failure returns false and sets *reason to one
// short line for the user, e.g. "no gain map", "base rendition is HDR
// (unsupported)", "Apple gain map, unsupported", "truncated file",
// "corrupt MPF index", "gain map metadata missing GainMapMax". Never reads
// outside the buffer, whatever the bytes.
bool ParseGainMapJpeg(const uint8_t* data, size_t size, GainMapJpeg* out, std::string* reason);

// Writes a gain-map JPEG from two complete JPEG codestreams (each SOI..EOI,
// as an encoder produces them): the primary gets an hdrgm XMP packet with
// Version and a GContainer directory, the ISO version block, an MPF index and
// an EXIF orientation (when orientation != 1); the gain map gets the hdrgm
// XMP with every value and the full ISO block. Returns the file's bytes.
//
// Any APP1 EXIF/XMP/extended XMP and APP2 MPF/ISO segments already in the two
// codestreams are replaced; other segments (JFIF, ICC...) are kept, a
// leading JFIF APP0 staying first. Returns an empty vector when either input
// is not a complete JPEG codestream or the result would exceed 4 GiB.
std::vector<uint8_t> WriteGainMapJpeg(const std::vector<uint8_t>& primaryJpeg, const std::vector<uint8_t>& gainMapJpeg,
                                      const GainMapMetadata& metadata, int orientation = 1);

// Choices of the writer beyond the defaults above, mostly for tests.
struct GainMapWriteOptions {
    int orientation = 1;           // 1..8; 1 (or anything else) writes no EXIF
    bool writeXmp = true;          // the hdrgm values in the gain map's XMP
    bool writeIso = true;          // the full ISO block (skipped when the values do not fit its rationals)
    bool littleEndianMpf = false;  // MPF byte order; big-endian by default, readers must accept both
};

std::vector<uint8_t> WriteGainMapJpeg(const std::vector<uint8_t>& primaryJpeg, const std::vector<uint8_t>& gainMapJpeg,
                                      const GainMapMetadata& metadata, const GainMapWriteOptions& options);

// Checks what the reader requires of any metadata: finite values, Gamma > 0,
// GainMapMin <= GainMapMax, HDRCapacityMax > HDRCapacityMin. On failure sets
// *reason, e.g. "gain map metadata has Gamma <= 0".
bool ValidateGainMapMetadata(const GainMapMetadata& metadata, std::string* reason);

}  // namespace hdrconvert

#endif
