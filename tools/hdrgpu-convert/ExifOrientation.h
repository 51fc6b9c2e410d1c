// The EXIF orientation tag (0x0112) of a primary image, read from IFD0 only
// (IFD1 belongs to the thumbnail), and a minimal EXIF segment carrying it.
#ifndef HDRGPU_CONVERT_EXIF_ORIENTATION_H
#define HDRGPU_CONVERT_EXIF_ORIENTATION_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace hdrconvert {

constexpr char kExifIdentifier[] = "Exif\0";  // with the array's NUL: "Exif\0\0", 6 bytes
constexpr size_t kExifIdentifierSize = 6;

// tiff points at the TIFF header that follows "Exif\0\0". Returns the
// orientation 1..8, or 1 when the tag is absent, malformed or out of range.
int ReadExifOrientation(const uint8_t* tiff, size_t size);

// An APP1 payload (identifier included): a big-endian TIFF header and an
// IFD0 holding only the orientation.
std::vector<uint8_t> BuildExifOrientationPayload(int orientation);

}  // namespace hdrconvert

#endif
