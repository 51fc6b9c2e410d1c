// Walking a JPEG codestream segment by segment, from SOI to EOI, without
// ever searching for marker bytes: header segments are skipped by their
// length fields and entropy-coded data is scanned marker-aware (stuffed
// FF 00, restarts and fill bytes). Thumbnails inside APP segments are thus
// never mistaken for the image's own end.
#ifndef HDRGPU_CONVERT_JPEG_SEGMENTS_H
#define HDRGPU_CONVERT_JPEG_SEGMENTS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace hdrconvert {

// Marker bytes (the byte after FF).
constexpr uint8_t kMarkerSoi = 0xD8;
constexpr uint8_t kMarkerEoi = 0xD9;
constexpr uint8_t kMarkerSos = 0xDA;
constexpr uint8_t kMarkerApp0 = 0xE0;
constexpr uint8_t kMarkerApp1 = 0xE1;
constexpr uint8_t kMarkerApp2 = 0xE2;

// Largest payload a segment can carry (the length field counts itself).
constexpr size_t kMaxSegmentPayload = 65533;

// A segment with a length field: APPn, DQT, DHT, SOFn, SOS, DRI, COM...
struct JpegSegment {
    uint8_t marker = 0;        // e.g. 0xE1 for APP1
    size_t markerOffset = 0;   // offset of the FF byte of the marker
    size_t payloadOffset = 0;  // first byte after the length field
    size_t payloadSize = 0;    // length field minus 2
};

enum class JpegWalkStatus {
    Ok,
    NotJpeg,    // does not start with FF D8
    Truncated,  // the data ends before EOI
    Corrupt,    // a marker or length that cannot be right
};

struct JpegWalk {
    std::vector<JpegSegment> segments;  // in file order, every segment with a length field
    size_t end = 0;                     // offset just past EOI
};

// Walks the codestream that starts at data[start]. On Ok, out->end is the
// offset after its EOI. *detail receives a short explanation on failure.
JpegWalkStatus WalkJpeg(const uint8_t* data, size_t size, size_t start, JpegWalk* out, std::string* detail);

// True when the segment's payload starts with the given identifier bytes
// (including any terminating NULs, which the caller counts in idSize).
bool SegmentHasIdentifier(const uint8_t* data, const JpegSegment& segment, const char* id, size_t idSize);

// Appends FF <marker> <length> <payload>. Returns false (appending nothing)
// when the payload exceeds kMaxSegmentPayload.
bool AppendSegment(std::vector<uint8_t>* out, uint8_t marker, const uint8_t* payload, size_t payloadSize);

}  // namespace hdrconvert

#endif
