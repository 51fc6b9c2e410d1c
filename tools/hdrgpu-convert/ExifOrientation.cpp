#include "ExifOrientation.h"

#include "ByteReader.h"

namespace hdrconvert {

namespace {

constexpr uint16_t kTagOrientation = 0x0112;
constexpr uint16_t kTypeShort = 3;

}  // namespace

int ReadExifOrientation(const uint8_t* tiff, size_t size)
{
    ByteReader reader(tiff, size);
    if (!reader.Has(0, 8))
        return 1;
    if (tiff[0] == 'I' && tiff[1] == 'I') {
        reader.SetBigEndian(false);
    } else if (tiff[0] == 'M' && tiff[1] == 'M') {
        reader.SetBigEndian(true);
    } else {
        return 1;
    }
    uint16_t magic = 0;
    uint32_t ifd0 = 0;
    uint16_t count = 0;
    if (!reader.U16(2, &magic) || magic != 42 || !reader.U32(4, &ifd0) || !reader.U16(ifd0, &count))
        return 1;
    for (uint32_t i = 0; i < count; ++i) {
        const size_t at = size_t{ifd0} + 2 + size_t{i} * 12;
        uint16_t tag = 0;
        uint16_t type = 0;
        uint32_t valueCount = 0;
        uint16_t value = 0;
        if (!reader.U16(at, &tag) || !reader.U16(at + 2, &type) || !reader.U32(at + 4, &valueCount) ||
            !reader.U16(at + 8, &value)) {
            return 1;
        }
        if (tag == kTagOrientation) {
            if (type != kTypeShort || valueCount != 1 || value < 1 || value > 8)
                return 1;
            return value;
        }
    }
    return 1;
}

std::vector<uint8_t> BuildExifOrientationPayload(int orientation)
{
    // Built byte by byte: GCC 12's -O3 misreads the bounds of a
    // range-construct followed by an insert.
    std::vector<uint8_t> out;
    out.reserve(kExifIdentifierSize + 26);
    for (size_t i = 0; i < kExifIdentifierSize; ++i) {
        out.push_back(static_cast<uint8_t>(kExifIdentifier[i]));
    }
    for (uint8_t byte : {uint8_t{'M'}, uint8_t{'M'}, uint8_t{0x00}, uint8_t{0x2A}}) {
        out.push_back(byte);
    }
    PutU32(&out, 8);  // IFD0 right after the header
    PutU16(&out, 1);  // one entry
    PutU16(&out, kTagOrientation);
    PutU16(&out, kTypeShort);
    PutU32(&out, 1);
    PutU16(&out, static_cast<uint16_t>(orientation));
    PutU16(&out, 0);  // the rest of the 4-byte value field
    PutU32(&out, 0);  // no IFD1
    return out;
}

}  // namespace hdrconvert
