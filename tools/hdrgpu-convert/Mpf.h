// The Multi-Picture Format index (APP2 "MPF\0") that locates the gain map:
// reading it in either byte order, and writing the two-image index.
#ifndef HDRGPU_CONVERT_MPF_H
#define HDRGPU_CONVERT_MPF_H

#include "JpegSegments.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace hdrconvert {

constexpr char kMpfIdentifier[] = "MPF";  // with its NUL: 4 bytes
constexpr size_t kMpfIdentifierSize = 4;
constexpr size_t kMpfPayloadSize = 86;  // the segment's length field is 88
constexpr uint32_t kMpfTypeMask = 0x00FFFFFF;
constexpr uint32_t kMpfFormatMask = 0x07000000;  // 0 = JPEG
constexpr uint32_t kMpfTypeBaselinePrimary = 0x030000;
constexpr uint32_t kMpfTypeUndefined = 0x000000;
constexpr uint32_t kMpfTypeGainMap = 0x050000;

struct MpfEntry {
    uint32_t attribute = 0;
    uint32_t size = 0;
    uint32_t offset = 0;  // relative to MpfIndex::base; 0 for the first image
    uint16_t dependent1 = 0;
    uint16_t dependent2 = 0;
};

struct MpfIndex {
    bool bigEndian = true;
    size_t base = 0;  // file offset of the byte-order field: APP2 marker offset + 8
    std::vector<MpfEntry> entries;
};

// Reads an APP2 segment whose payload starts with "MPF\0". Returns false
// with a reason when the index is malformed.
bool ParseMpf(const uint8_t* data, const JpegSegment& segment, MpfIndex* out, std::string* reason);

// True for an entry that can be a gain map: a JPEG of type undefined (0) or
// gain map (0x050000).
bool IsGainMapCandidate(const MpfEntry& entry);

// The payload (identifier included) of an MPF segment for a primary of
// primarySize bytes followed by a gain map of gainMapSize bytes, with the MPF
// segment's marker at mpfMarkerOffset within the primary.
std::vector<uint8_t> BuildMpfPayload(uint32_t primarySize, uint32_t gainMapSize, size_t mpfMarkerOffset,
                                     bool bigEndian);

}  // namespace hdrconvert

#endif
