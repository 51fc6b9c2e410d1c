#include "GainMapJpeg.h"

#include "ExifOrientation.h"
#include "FloatMetadata.h"
#include "HdrgmXmp.h"
#include "IsoGainMap.h"
#include "JpegSegments.h"
#include "Mpf.h"
#include "XmpPacket.h"

#include <cmath>
#include <cstring>
#include <limits>

namespace hdrconvert {

namespace {

constexpr size_t kNotFound = std::numeric_limits<size_t>::max();

// The APP segments of one codestream that matter here.
struct ImageSegments {
    JpegWalk walk;
    const JpegSegment* exif = nullptr;  // first APP1 "Exif\0\0"
    const JpegSegment* xmp = nullptr;   // first standard XMP packet
    const JpegSegment* mpf = nullptr;   // first APP2 "MPF\0"
    std::vector<const JpegSegment*> iso;
};

bool IsExif(const uint8_t* data, const JpegSegment& s)
{
    return s.marker == kMarkerApp1 && SegmentHasIdentifier(data, s, kExifIdentifier, kExifIdentifierSize);
}
bool IsXmp(const uint8_t* data, const JpegSegment& s)
{
    return s.marker == kMarkerApp1 && SegmentHasIdentifier(data, s, kXmpIdentifier, kXmpIdentifierSize);
}
bool IsExtendedXmp(const uint8_t* data, const JpegSegment& s)
{
    return s.marker == kMarkerApp1 && SegmentHasIdentifier(data, s, kExtendedXmpIdentifier, kExtendedXmpIdentifierSize);
}
bool IsMpf(const uint8_t* data, const JpegSegment& s)
{
    return s.marker == kMarkerApp2 && SegmentHasIdentifier(data, s, kMpfIdentifier, kMpfIdentifierSize);
}
bool IsIso(const uint8_t* data, const JpegSegment& s)
{
    return s.marker == kMarkerApp2 && SegmentHasIdentifier(data, s, kIsoIdentifier, kIsoIdentifierSize);
}

void Classify(const uint8_t* data, ImageSegments* image)
{
    for (const JpegSegment& s : image->walk.segments) {
        if (image->exif == nullptr && IsExif(data, s))
            image->exif = &s;
        if (image->xmp == nullptr && IsXmp(data, s))
            image->xmp = &s;
        if (image->mpf == nullptr && IsMpf(data, s))
            image->mpf = &s;
        if (IsIso(data, s))
            image->iso.push_back(&s);
    }
}

// The standard packet and, when it links one, the extended packet.
struct ImageXmp {
    XmpProperties properties;
    bool present = false;
    bool malformed = false;
};

ImageXmp ReadImageXmp(const uint8_t* data, const ImageSegments& image)
{
    ImageXmp xmp;
    if (image.xmp == nullptr)
        return xmp;
    xmp.present = true;
    const uint8_t* packet = data + image.xmp->payloadOffset + kXmpIdentifierSize;
    if (!ParseXmpPacket(packet, image.xmp->payloadSize - kXmpIdentifierSize, &xmp.properties)) {
        xmp.malformed = true;
        return xmp;
    }
    if (!xmp.properties.extendedXmpGuid.empty()) {
        std::vector<uint8_t> extended;
        if (AssembleExtendedXmp(data, image.walk.segments, xmp.properties.extendedXmpGuid, &extended)) {
            ParseXmpPacket(extended.data(), extended.size(), &xmp.properties);
        }
    }
    return xmp;
}

bool StartsJpeg(const uint8_t* data, size_t size, size_t offset)
{
    return offset <= size && size - offset >= 3 && data[offset] == 0xFF && data[offset + 1] == kMarkerSoi &&
           data[offset + 2] == 0xFF;
}

// The first FF D8 FF at or after `from`: the secondary image's SOI when the
// index points elsewhere.
size_t FindSoi(const uint8_t* data, size_t size, size_t from)
{
    while (from < size) {
        const void* found = std::memchr(data + from, 0xFF, size - from);
        if (found == nullptr)
            return kNotFound;
        const size_t at = static_cast<size_t>(static_cast<const uint8_t*>(found) - data);
        if (StartsJpeg(data, size, at))
            return at;
        from = at + 1;
    }
    return kNotFound;
}

// A candidate start for the gain map: accepted when it begins a JPEG at or
// after the primary's end; *beyondEnd notes one that lies past the data.
size_t CheckTarget(const uint8_t* data, size_t size, size_t primaryEnd, uint64_t target, bool* beyondEnd)
{
    if (target > size || size - target < 3) {
        *beyondEnd = true;
        return kNotFound;
    }
    const size_t at = static_cast<size_t>(target);
    if (at < primaryEnd || !StartsJpeg(data, size, at))
        return kNotFound;
    return at;
}

size_t LocateByMpf(const uint8_t* data, size_t size, size_t primaryEnd, const MpfIndex& index, bool* beyondEnd)
{
    for (size_t i = 1; i < index.entries.size(); ++i) {
        const MpfEntry& entry = index.entries[i];
        if (!IsGainMapCandidate(entry) || entry.offset == 0)
            continue;
        return CheckTarget(data, size, primaryEnd, uint64_t{index.base} + entry.offset, beyondEnd);
    }
    return kNotFound;
}

size_t LocateByContainer(const uint8_t* data, size_t size, size_t primaryEnd, const std::vector<ContainerItem>& items,
                         bool* beyondEnd)
{
    if (items.size() < 2)
        return kNotFound;
    // Every step is checked against the data's size, so the sum cannot wrap.
    auto advance = [size](uint64_t* offset, uint64_t by) {
        if (by > size || *offset + by > size)
            return false;
        *offset += by;
        return true;
    };
    uint64_t offset = primaryEnd;
    if (items[0].hasPadding && !advance(&offset, items[0].padding)) {
        *beyondEnd = true;
        return kNotFound;
    }
    for (size_t i = 1; i < items.size(); ++i) {
        if (items[i].semantic == "GainMap")
            return CheckTarget(data, size, primaryEnd, offset, beyondEnd);
        if (!items[i].hasLength)
            return kNotFound;
        if (!advance(&offset, items[i].length) || (items[i].hasPadding && !advance(&offset, items[i].padding))) {
            *beyondEnd = true;
            return kNotFound;
        }
    }
    return kNotFound;
}

bool Refuse(std::string* reason, const std::string& why)
{
    if (reason != nullptr)
        *reason = why;
    return false;
}

std::string WalkFailure(JpegWalkStatus status, const std::string& detail, const char* which)
{
    if (status == JpegWalkStatus::Truncated)
        return "truncated file";
    if (status == JpegWalkStatus::NotJpeg)
        return std::string(which) + " is not a JPEG image";
    return detail;
}

// The first full ISO block among the segments.
IsoParseStatus ReadIso(const uint8_t* data, const std::vector<const JpegSegment*>& segments, IsoGainMapBlock* block,
                       std::string* reason)
{
    IsoParseStatus result = IsoParseStatus::VersionOnly;
    std::string firstReason;
    for (const JpegSegment* s : segments) {
        std::string why;
        const IsoParseStatus status = ParseIsoGainMap(data + s->payloadOffset + kIsoIdentifierSize,
                                                      s->payloadSize - kIsoIdentifierSize, block, &why);
        if (status == IsoParseStatus::Full)
            return status;
        if (status != IsoParseStatus::VersionOnly && result == IsoParseStatus::VersionOnly) {
            result = status;
            firstReason = why;
        }
    }
    *reason = firstReason;
    return result;
}

}  // namespace

bool ValidateGainMapMetadata(const GainMapMetadata& m, std::string* reason)
{
    for (int c = 0; c < 3; ++c) {
        const double values[] = {m.gainMapMin[c], m.gainMapMax[c], m.gamma[c], m.offsetSdr[c], m.offsetHdr[c]};
        for (double v : values) {
            if (!std::isfinite(v))
                return Refuse(reason, "gain map metadata has a value that is not finite");
        }
        if (!(m.gamma[c] > 0.0))
            return Refuse(reason, "gain map metadata has Gamma <= 0");
        if (m.gainMapMin[c] > m.gainMapMax[c])
            return Refuse(reason, "gain map metadata has GainMapMin > GainMapMax");
    }
    if (!std::isfinite(m.hdrCapacityMin) || !std::isfinite(m.hdrCapacityMax)) {
        return Refuse(reason, "gain map metadata has a value that is not finite");
    }
    if (!(m.hdrCapacityMax > m.hdrCapacityMin)) {
        return Refuse(reason, "gain map metadata has HDRCapacityMax <= HDRCapacityMin");
    }
    // The library receives floats.
    return CheckMetadataAsFloat(m, reason);
}

// NOLINTNEXTLINE(readability-function-size): the container's steps in file order
bool ParseGainMapJpeg(const uint8_t* data, size_t size, GainMapJpeg* out, std::string* reason)
{
    std::string scratch;
    if (reason == nullptr)
        reason = &scratch;
    GainMapJpeg result;
    if (data == nullptr || size == 0)
        return Refuse(reason, "empty file");

    // The primary, walked to its EOI.
    ImageSegments primary;
    std::string detail;
    JpegWalkStatus status = WalkJpeg(data, size, 0, &primary.walk, &detail);
    if (status == JpegWalkStatus::NotJpeg)
        return Refuse(reason, "not a JPEG file");
    if (status != JpegWalkStatus::Ok)
        return Refuse(reason, WalkFailure(status, detail, "primary image"));
    Classify(data, &primary);
    const size_t primaryEnd = primary.walk.end;
    result.primaryOffset = 0;
    result.primarySize = primaryEnd;
    if (primary.exif != nullptr) {
        result.orientation = ReadExifOrientation(data + primary.exif->payloadOffset + kExifIdentifierSize,
                                                 primary.exif->payloadSize - kExifIdentifierSize);
    }
    const ImageXmp primaryXmp = ReadImageXmp(data, primary);

    // The gain map: the MPF index, else the GContainer directory, else the
    // first SOI after the primary.
    bool beyondEnd = false;
    size_t mapStart = kNotFound;
    if (primary.mpf != nullptr) {
        MpfIndex index;
        if (!ParseMpf(data, *primary.mpf, &index, &detail))
            return Refuse(reason, detail);
        mapStart = LocateByMpf(data, size, primaryEnd, index, &beyondEnd);
    }
    if (mapStart == kNotFound) {
        mapStart = LocateByContainer(data, size, primaryEnd, primaryXmp.properties.containerItems, &beyondEnd);
    }
    if (mapStart == kNotFound)
        mapStart = FindSoi(data, size, primaryEnd);
    if (mapStart == kNotFound)
        return Refuse(reason, beyondEnd ? "truncated file" : "no gain map");

    ImageSegments map;
    status = WalkJpeg(data, size, mapStart, &map.walk, &detail);
    if (status != JpegWalkStatus::Ok)
        return Refuse(reason, WalkFailure(status, detail, "gain map"));
    Classify(data, &map);
    result.gainMapOffset = mapStart;
    result.gainMapSize = map.walk.end - mapStart;

    // The metadata: an ISO block (the map's, else a full one in the primary)
    // wins over hdrgm XMP (the map's packets, else the primary's).
    IsoGainMapBlock iso;
    std::string isoReason;
    IsoParseStatus isoStatus = ReadIso(data, map.iso, &iso, &isoReason);
    if (isoStatus != IsoParseStatus::Full) {
        std::string primaryReason;
        const IsoParseStatus primaryStatus = ReadIso(data, primary.iso, &iso, &primaryReason);
        if (primaryStatus == IsoParseStatus::Full || isoStatus == IsoParseStatus::VersionOnly) {
            isoStatus = primaryStatus;
            isoReason = primaryReason;
        }
    }
    const ImageXmp mapXmp = ReadImageXmp(data, map);
    const HdrgmProperties* hdrgm = nullptr;
    if (HasHdrgmValues(mapXmp.properties.hdrgm)) {
        hdrgm = &mapXmp.properties.hdrgm;
    } else if (HasHdrgmValues(primaryXmp.properties.hdrgm)) {
        hdrgm = &primaryXmp.properties.hdrgm;
    }
    result.hadXmp = hdrgm != nullptr;
    result.hadIso = isoStatus == IsoParseStatus::Full;

    if (isoStatus == IsoParseStatus::Full) {
        const IsoDirection direction = IsoToMetadata(iso, &result.metadata);
        if (direction == IsoDirection::EqualHeadrooms) {
            return Refuse(reason, "gain map not to be applied (equal headrooms)");
        }
        if (direction == IsoDirection::HdrBase)
            return Refuse(reason, "base rendition is HDR (unsupported)");
        result.source = MetadataSource::Iso;
    } else if (hdrgm != nullptr) {
        if (!HdrgmToMetadata(*hdrgm, &result.metadata, reason))
            return false;
        if (result.metadata.baseRenditionIsHdr)
            return Refuse(reason, "base rendition is HDR (unsupported)");
        result.source = MetadataSource::Xmp;
    } else if (mapXmp.properties.appleGainMap) {
        return Refuse(reason, "Apple gain map, unsupported");
    } else if (isoStatus != IsoParseStatus::VersionOnly) {
        return Refuse(reason, isoReason);
    } else if (mapXmp.malformed) {
        return Refuse(reason, "no gain map metadata (the gain map's XMP is not well-formed)");
    } else {
        return Refuse(reason, "no gain map (the second image has no gain map metadata)");
    }
    if (!ValidateGainMapMetadata(result.metadata, reason))
        return false;
    if (out != nullptr)
        *out = result;
    return true;
}

namespace {

bool IsReplacedSegment(const uint8_t* data, const JpegSegment& s)
{
    return IsExif(data, s) || IsXmp(data, s) || IsExtendedXmp(data, s) || IsMpf(data, s) || IsIso(data, s);
}

// A codestream with new APP segments inserted after SOI (and after any
// leading APP0), and the segments they replace left out.
class Rewriter {
public:
    bool Open(const std::vector<uint8_t>& jpeg)
    {
        jpeg_ = &jpeg;
        std::string detail;
        if (jpeg.empty() || WalkJpeg(jpeg.data(), jpeg.size(), 0, &walk_, &detail) != JpegWalkStatus::Ok) {
            return false;
        }
        // Keep a leading run of APP0 (JFIF) segments first.
        cursor_ = 2;
        while (next_ < walk_.segments.size() && walk_.segments[next_].marker == kMarkerApp0 &&
               walk_.segments[next_].markerOffset == cursor_) {
            cursor_ = walk_.segments[next_].payloadOffset + walk_.segments[next_].payloadSize;
            ++next_;
        }
        return true;
    }

    // SOI and the leading APP0 segments.
    void WriteHead(std::vector<uint8_t>* out) const
    {
        out->insert(out->end(), jpeg_->begin(), jpeg_->begin() + static_cast<std::ptrdiff_t>(cursor_));
    }

    // Everything after the head, without the replaced segments, through EOI.
    void WriteRest(std::vector<uint8_t>* out) const
    {
        const uint8_t* data = jpeg_->data();
        size_t cursor = cursor_;
        for (size_t i = next_; i < walk_.segments.size(); ++i) {
            const JpegSegment& s = walk_.segments[i];
            if (!IsReplacedSegment(data, s))
                continue;
            out->insert(out->end(), data + cursor, data + s.markerOffset);
            cursor = s.payloadOffset + s.payloadSize;
        }
        out->insert(out->end(), data + cursor, data + walk_.end);
    }

private:
    const std::vector<uint8_t>* jpeg_ = nullptr;
    JpegWalk walk_;
    size_t cursor_ = 0;
    size_t next_ = 0;
};

bool AppendPayload(std::vector<uint8_t>* out, uint8_t marker, const std::vector<uint8_t>& payload)
{
    return AppendSegment(out, marker, payload.data(), payload.size());
}

std::vector<uint8_t> XmpPayload(const std::string& packet)
{
    // Sized once and filled by copies: GCC 12's -O3 misreads the bounds of a
    // range-construct followed by an insert here.
    std::vector<uint8_t> payload(kXmpIdentifierSize + packet.size());
    std::memcpy(payload.data(), kXmpIdentifier, kXmpIdentifierSize);
    if (!packet.empty()) {
        std::memcpy(payload.data() + kXmpIdentifierSize, packet.data(), packet.size());
    }
    return payload;
}

}  // namespace

std::vector<uint8_t> WriteGainMapJpeg(const std::vector<uint8_t>& primaryJpeg, const std::vector<uint8_t>& gainMapJpeg,
                                      const GainMapMetadata& metadata, int orientation)
{
    GainMapWriteOptions options;
    options.orientation = orientation;
    return WriteGainMapJpeg(primaryJpeg, gainMapJpeg, metadata, options);
}

std::vector<uint8_t> WriteGainMapJpeg(const std::vector<uint8_t>& primaryJpeg, const std::vector<uint8_t>& gainMapJpeg,
                                      const GainMapMetadata& metadata, const GainMapWriteOptions& options)
{
    Rewriter primary;
    Rewriter gainMap;
    if (!primary.Open(primaryJpeg) || !gainMap.Open(gainMapJpeg))
        return {};

    // The gain map first: the primary's directory and index need its length.
    std::vector<uint8_t> map;
    gainMap.WriteHead(&map);
    if (options.writeXmp && !AppendPayload(&map, kMarkerApp1, XmpPayload(BuildGainMapXmp(metadata))))
        return {};
    std::vector<uint8_t> iso;
    if (options.writeIso && BuildIsoGainMapPayload(metadata, &iso) && !AppendPayload(&map, kMarkerApp2, iso)) {
        return {};
    }
    gainMap.WriteRest(&map);

    std::vector<uint8_t> out;
    primary.WriteHead(&out);
    if (options.orientation >= 2 && options.orientation <= 8 &&
        !AppendPayload(&out, kMarkerApp1, BuildExifOrientationPayload(options.orientation))) {
        return {};
    }
    if (!AppendPayload(&out, kMarkerApp1, XmpPayload(BuildPrimaryXmp(map.size()))))
        return {};
    if (!AppendPayload(&out, kMarkerApp2, BuildIsoVersionPayload()))
        return {};
    // The MPF segment has a fixed size: reserve it, fill it in once the
    // primary's length is known.
    const size_t mpfMarker = out.size();
    if (!AppendPayload(&out, kMarkerApp2, std::vector<uint8_t>(kMpfPayloadSize, 0)))
        return {};
    primary.WriteRest(&out);

    const size_t primarySize = out.size();
    if (primarySize > std::numeric_limits<uint32_t>::max() || map.size() > std::numeric_limits<uint32_t>::max() ||
        map.size() > std::numeric_limits<size_t>::max() - primarySize) {
        return {};
    }
    const std::vector<uint8_t> mpf = BuildMpfPayload(
        static_cast<uint32_t>(primarySize), static_cast<uint32_t>(map.size()), mpfMarker, !options.littleEndianMpf);
    std::memcpy(out.data() + mpfMarker + 4, mpf.data(), mpf.size());
    out.insert(out.end(), map.begin(), map.end());
    return out;
}

}  // namespace hdrconvert
