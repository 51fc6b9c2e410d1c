#include "JpegSegments.h"

#include <cstring>

namespace hdrconvert {

namespace {

bool IsStandalone(uint8_t marker)
{
    return (marker >= 0xD0 && marker <= 0xD7) || marker == 0x01;
}

// Scans entropy-coded data from pos; returns the offset of the FF of the
// next real marker, or size when the data ends first.
size_t ScanEntropyCodedData(const uint8_t* data, size_t size, size_t pos)
{
    while (pos < size) {
        const void* found = std::memchr(data + pos, 0xFF, size - pos);
        if (found == nullptr)
            return size;
        pos = static_cast<size_t>(static_cast<const uint8_t*>(found) - data);
        if (pos + 1 >= size)
            return size;
        const uint8_t next = data[pos + 1];
        if (next == 0x00 || (next >= 0xD0 && next <= 0xD7)) {
            pos += 2;  // stuffed data byte, or a restart marker
        } else if (next == 0xFF) {
            pos += 1;  // fill byte before a marker
        } else {
            return pos;
        }
    }
    return size;
}

}  // namespace

JpegWalkStatus WalkJpeg(const uint8_t* data, size_t size, size_t start, JpegWalk* out, std::string* detail)
{
    out->segments.clear();
    out->end = 0;
    if (start > size || size - start < 2 || data[start] != 0xFF || data[start + 1] != kMarkerSoi) {
        *detail = "not a JPEG file";
        return JpegWalkStatus::NotJpeg;
    }
    size_t pos = start + 2;
    bool seenScan = false;
    for (;;) {
        if (pos >= size) {
            *detail = "truncated file";
            return JpegWalkStatus::Truncated;
        }
        if (data[pos] != 0xFF) {
            *detail = "corrupt JPEG (no marker at offset " + std::to_string(pos) + ")";
            return JpegWalkStatus::Corrupt;
        }
        // Fill bytes: the marker is the last FF of a run.
        size_t markerOffset = pos;
        while (markerOffset + 1 < size && data[markerOffset + 1] == 0xFF)
            ++markerOffset;
        if (markerOffset + 1 >= size) {
            *detail = "truncated file";
            return JpegWalkStatus::Truncated;
        }
        const uint8_t marker = data[markerOffset + 1];
        pos = markerOffset + 2;
        if (marker == kMarkerEoi) {
            if (!seenScan) {
                *detail = "corrupt JPEG (no image data before EOI)";
                return JpegWalkStatus::Corrupt;
            }
            out->end = pos;
            return JpegWalkStatus::Ok;
        }
        if (marker == kMarkerSoi || marker == 0x00) {
            *detail = "corrupt JPEG (unexpected marker at offset " + std::to_string(markerOffset) + ")";
            return JpegWalkStatus::Corrupt;
        }
        if (IsStandalone(marker))
            continue;
        if (size - pos < 2) {
            *detail = "truncated file";
            return JpegWalkStatus::Truncated;
        }
        const size_t length = (size_t{data[pos]} << 8) | data[pos + 1];
        if (length < 2) {
            *detail = "corrupt JPEG (segment length " + std::to_string(length) + " at offset " +
                      std::to_string(markerOffset) + ")";
            return JpegWalkStatus::Corrupt;
        }
        if (length > size - pos) {
            *detail = "truncated file";
            return JpegWalkStatus::Truncated;
        }
        JpegSegment segment;
        segment.marker = marker;
        segment.markerOffset = markerOffset;
        segment.payloadOffset = pos + 2;
        segment.payloadSize = length - 2;
        out->segments.push_back(segment);
        pos += length;
        if (marker == kMarkerSos) {
            seenScan = true;
            pos = ScanEntropyCodedData(data, size, pos);
        }
    }
}

bool SegmentHasIdentifier(const uint8_t* data, const JpegSegment& segment, const char* id, size_t idSize)
{
    return segment.payloadSize >= idSize && std::memcmp(data + segment.payloadOffset, id, idSize) == 0;
}

bool AppendSegment(std::vector<uint8_t>* out, uint8_t marker, const uint8_t* payload, size_t payloadSize)
{
    if (payloadSize > kMaxSegmentPayload)
        return false;
    const size_t length = payloadSize + 2;
    out->push_back(0xFF);
    out->push_back(marker);
    out->push_back(static_cast<uint8_t>(length >> 8));
    out->push_back(static_cast<uint8_t>(length));
    out->insert(out->end(), payload, payload + payloadSize);
    return true;
}

}  // namespace hdrconvert
