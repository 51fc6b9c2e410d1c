#include "Mpf.h"

#include "ByteReader.h"

namespace hdrconvert {

namespace {

constexpr uint16_t kTagMpfVersion = 0xB000;
constexpr uint16_t kTagNumberOfImages = 0xB001;
constexpr uint16_t kTagMpEntry = 0xB002;
constexpr uint16_t kTypeLong = 4;
constexpr uint16_t kTypeUndefined = 7;
constexpr size_t kEntrySize = 16;

bool Fail(std::string* reason, const char* what)
{
    *reason = std::string("corrupt MPF index (") + what + ")";
    return false;
}

}  // namespace

bool ParseMpf(const uint8_t* data, const JpegSegment& segment, MpfIndex* out, std::string* reason)
{
    out->entries.clear();
    if (!SegmentHasIdentifier(data, segment, kMpfIdentifier, kMpfIdentifierSize)) {
        return Fail(reason, "identifier");
    }
    out->base = segment.payloadOffset + kMpfIdentifierSize;
    ByteReader mpf(data + out->base, segment.payloadSize - kMpfIdentifierSize);
    if (!mpf.Has(0, 8))
        return Fail(reason, "header");
    const uint8_t* header = mpf.Data();
    if (header[0] == 'I' && header[1] == 'I' && header[2] == 0x2A && header[3] == 0x00) {
        out->bigEndian = false;
    } else if (header[0] == 'M' && header[1] == 'M' && header[2] == 0x00 && header[3] == 0x2A) {
        out->bigEndian = true;
    } else {
        return Fail(reason, "byte order");
    }
    mpf.SetBigEndian(out->bigEndian);

    uint32_t ifdOffset = 0;
    uint16_t count = 0;
    if (!mpf.U32(4, &ifdOffset) || !mpf.U16(ifdOffset, &count))
        return Fail(reason, "IFD offset");
    if (!mpf.Has(size_t{ifdOffset} + 2, size_t{count} * 12))
        return Fail(reason, "IFD entries");

    bool haveEntries = false;
    uint32_t entriesOffset = 0;
    uint32_t entriesBytes = 0;
    for (uint16_t i = 0; i < count; ++i) {
        const size_t at = size_t{ifdOffset} + 2 + size_t{i} * 12;
        uint16_t tag = 0;
        uint16_t type = 0;
        uint32_t valueCount = 0;
        uint32_t value = 0;
        mpf.U16(at, &tag);
        mpf.U16(at + 2, &type);
        mpf.U32(at + 4, &valueCount);
        mpf.U32(at + 8, &value);
        if (tag == kTagMpEntry) {
            if (type != kTypeUndefined)
                return Fail(reason, "MP entry type");
            if (valueCount == 0 || valueCount % kEntrySize != 0)
                return Fail(reason, "MP entry size");
            haveEntries = true;
            entriesOffset = value;
            entriesBytes = valueCount;
        } else if (tag == kTagNumberOfImages) {
            if (type != kTypeLong || valueCount != 1)
                return Fail(reason, "number of images");
        } else if (tag == kTagMpfVersion) {
            // Version "0100"; other versions are read the same way.
        }
    }
    if (!haveEntries)
        return Fail(reason, "no MP entries");
    if (!mpf.Has(entriesOffset, entriesBytes))
        return Fail(reason, "MP entries outside the segment");

    const size_t entryCount = entriesBytes / kEntrySize;
    out->entries.reserve(entryCount);
    for (size_t i = 0; i < entryCount; ++i) {
        const size_t at = size_t{entriesOffset} + i * kEntrySize;
        MpfEntry entry;
        mpf.U32(at, &entry.attribute);
        mpf.U32(at + 4, &entry.size);
        mpf.U32(at + 8, &entry.offset);
        mpf.U16(at + 12, &entry.dependent1);
        mpf.U16(at + 14, &entry.dependent2);
        out->entries.push_back(entry);
    }
    return true;
}

bool IsGainMapCandidate(const MpfEntry& entry)
{
    const uint32_t type = entry.attribute & kMpfTypeMask;
    return (entry.attribute & kMpfFormatMask) == 0 && (type == kMpfTypeUndefined || type == kMpfTypeGainMap);
}

std::vector<uint8_t> BuildMpfPayload(uint32_t primarySize, uint32_t gainMapSize, size_t mpfMarkerOffset, bool bigEndian)
{
    std::vector<uint8_t> out(kMpfIdentifier, kMpfIdentifier + kMpfIdentifierSize);
    const bool be = bigEndian;
    if (be) {
        out.insert(out.end(), {'M', 'M', 0x00, 0x2A});
    } else {
        out.insert(out.end(), {'I', 'I', 0x2A, 0x00});
    }
    PutU32(&out, 8, be);  // MP Index IFD right after the header
    PutU16(&out, 3, be);  // three tags
    // MPFVersion: 4 ASCII bytes inline.
    PutU16(&out, kTagMpfVersion, be);
    PutU16(&out, kTypeUndefined, be);
    PutU32(&out, 4, be);
    out.insert(out.end(), {'0', '1', '0', '0'});
    // NumberOfImages: 2.
    PutU16(&out, kTagNumberOfImages, be);
    PutU16(&out, kTypeLong, be);
    PutU32(&out, 1, be);
    PutU32(&out, 2, be);
    // MPEntry: two 16-byte entries after the IFD (8 + 2 + 36 + 4 = 50).
    const uint32_t entriesOffset = 50;
    PutU16(&out, kTagMpEntry, be);
    PutU16(&out, kTypeUndefined, be);
    PutU32(&out, 2 * kEntrySize, be);
    PutU32(&out, entriesOffset, be);
    PutU32(&out, 0, be);  // no MP Attribute IFD
    // Entry 0: the primary, offset 0 by definition.
    PutU32(&out, kMpfTypeBaselinePrimary, be);
    PutU32(&out, primarySize, be);
    PutU32(&out, 0, be);
    PutU16(&out, 0, be);
    PutU16(&out, 0, be);
    // Entry 1: the gain map, right after the primary, relative to the base.
    const size_t base = mpfMarkerOffset + 8;
    PutU32(&out, kMpfTypeUndefined, be);
    PutU32(&out, gainMapSize, be);
    PutU32(&out, static_cast<uint32_t>(primarySize - base), be);
    PutU16(&out, 0, be);
    PutU16(&out, 0, be);
    return out;
}

}  // namespace hdrconvert
