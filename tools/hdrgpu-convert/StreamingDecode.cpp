#include "StreamingDecode.h"

#include "JpegPlanes.h"

#include <vector>

namespace hdrconvert {

namespace {

class BufferSink : public PlaneRowSink {
public:
    BufferSink(int width, int height, uint8_t* y, uint8_t* u, uint8_t* v)
        : width_(width), height_(height), y_(y), u_(u), v_(v)
    {}

    bool Start(int width, int height, int, std::string* reason) override
    {
        if (width != width_ || height != height_) {
            *reason = "JPEG image is " + std::to_string(width) + "x" + std::to_string(height) + ", its header said " +
                      std::to_string(width_) + "x" + std::to_string(height_);
            return false;
        }
        return true;
    }

    void Row(int row, uint8_t** y, uint8_t** u, uint8_t** v) override
    {
        const size_t base = static_cast<size_t>(row) * static_cast<size_t>(width_);
        *y = y_ + base;
        *u = u_ + base;
        *v = v_ + base;
    }

private:
    int width_;
    int height_;
    uint8_t* y_;
    uint8_t* u_;
    uint8_t* v_;
};

// Every row into the same three row buffers.
class DiscardSink : public PlaneRowSink {
public:
    bool Start(int width, int, int, std::string*) override
    {
        row_.resize(static_cast<size_t>(width) * 3);
        width_ = static_cast<size_t>(width);
        return true;
    }

    void Row(int, uint8_t** y, uint8_t** u, uint8_t** v) override
    {
        *y = row_.data();
        *u = row_.data() + width_;
        *v = row_.data() + 2 * width_;
    }

private:
    std::vector<uint8_t> row_;
    size_t width_ = 0;
};

}  // namespace

bool DecodeJpegIntoPlanes(const uint8_t* data, size_t size, int width, int height, uint8_t* y, uint8_t* u, uint8_t* v,
                          std::string* reason)
{
    if (y == nullptr || u == nullptr || v == nullptr || width < 1 || height < 1) {
        *reason = "no buffers to decode into";
        return false;
    }
    BufferSink sink(width, height, y, u, v);
    return DecodeJpegRows(data, size, &sink, reason);
}

bool JpegDecodes(const uint8_t* data, size_t size, std::string* reason)
{
    DiscardSink sink;
    return DecodeJpegRows(data, size, &sink, reason);
}

}  // namespace hdrconvert
