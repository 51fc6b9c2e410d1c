// Bounds-checked reads of big- and little-endian integers from a byte range.
#ifndef HDRGPU_CONVERT_BYTE_READER_H
#define HDRGPU_CONVERT_BYTE_READER_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace hdrconvert {

// A read-only view of [data, data + size). Every read states whether it fit.
class ByteReader {
public:
    ByteReader(const uint8_t* data, size_t size, bool bigEndian = true)
        : data_(data), size_(size), bigEndian_(bigEndian)
    {}

    size_t Size() const { return size_; }
    const uint8_t* Data() const { return data_; }
    void SetBigEndian(bool bigEndian) { bigEndian_ = bigEndian; }

    // True when [offset, offset + count) lies inside the range.
    bool Has(size_t offset, size_t count) const { return offset <= size_ && count <= size_ - offset; }

    bool U8(size_t offset, uint8_t* value) const
    {
        if (!Has(offset, 1))
            return false;
        *value = data_[offset];
        return true;
    }
    bool U16(size_t offset, uint16_t* value) const
    {
        if (!Has(offset, 2))
            return false;
        const uint8_t* p = data_ + offset;
        *value = bigEndian_ ? static_cast<uint16_t>((p[0] << 8) | p[1]) : static_cast<uint16_t>((p[1] << 8) | p[0]);
        return true;
    }
    bool U32(size_t offset, uint32_t* value) const
    {
        if (!Has(offset, 4))
            return false;
        const uint8_t* p = data_ + offset;
        if (bigEndian_) {
            *value = (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
        } else {
            *value = (uint32_t{p[3]} << 24) | (uint32_t{p[2]} << 16) | (uint32_t{p[1]} << 8) | p[0];
        }
        return true;
    }
    bool S32(size_t offset, int32_t* value) const
    {
        uint32_t raw = 0;
        if (!U32(offset, &raw))
            return false;
        *value = static_cast<int32_t>(raw);
        return true;
    }

private:
    const uint8_t* data_;
    size_t size_;
    bool bigEndian_;
};

// Appends integers to a byte vector in a chosen byte order.
inline void PutU16(std::vector<uint8_t>* out, uint16_t value, bool bigEndian = true)
{
    if (bigEndian) {
        out->push_back(static_cast<uint8_t>(value >> 8));
        out->push_back(static_cast<uint8_t>(value));
    } else {
        out->push_back(static_cast<uint8_t>(value));
        out->push_back(static_cast<uint8_t>(value >> 8));
    }
}

inline void PutU32(std::vector<uint8_t>* out, uint32_t value, bool bigEndian = true)
{
    if (bigEndian) {
        PutU16(out, static_cast<uint16_t>(value >> 16), true);
        PutU16(out, static_cast<uint16_t>(value), true);
    } else {
        PutU16(out, static_cast<uint16_t>(value), false);
        PutU16(out, static_cast<uint16_t>(value >> 16), false);
    }
}

}  // namespace hdrconvert

#endif
