// Reading the library's output surface in place: the mapped RA24 bytes
// (A, B, G, R per pixel, rows `stride` apart) are handed out row by row as
// R, G, B, A, turned for an EXIF orientation where the library did not turn
// them, so that a picture goes to its file without a whole copy in between.
#ifndef HDRGPU_CONVERT_SURFACE_READER_H
#define HDRGPU_CONVERT_SURFACE_READER_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace hdrconvert {

// Pixels as they lie in a mapped surface.
struct SurfacePixels {
    const uint8_t* data = nullptr;
    int width = 0;
    int height = 0;
    size_t stride = 0;       // bytes from one row to the next
    bool rgbaBytes = false;  // bytes R, G, B, A (else A, B, G, R)
};

// Hands out the displayed rows of stored surface pixels. Orientations that
// swap the size gather columns, a band of rows at a time, so that each
// stored row is read in runs rather than a pixel per cache line.
class OrientedRows {
public:
    OrientedRows(const SurfacePixels& pixels, int exifOrientation);

    int Width() const { return width_; }
    int Height() const { return height_; }

    // Row y (0 <= y < Height()) of the displayed picture, R, G, B, A: a
    // pointer into scratch (Width() * 4 bytes) or into a band of its own.
    const uint8_t* Row(int y, uint8_t* scratch);

private:
    void FillBand(int first);

    SurfacePixels pixels_;
    int orientation_ = 1;
    int width_ = 0;
    int height_ = 0;
    std::vector<uint8_t> band_;
    int bandFirst_ = -1;
    int bandRows_ = 0;
};

// The output surface of the library, mapped for reading until destroyed.
class SurfaceMapping {
public:
    SurfaceMapping() = default;
    ~SurfaceMapping();
    SurfaceMapping(const SurfaceMapping&) = delete;
    SurfaceMapping& operator=(const SurfaceMapping&) = delete;

    // Maps the library's current output surface and checks that it is
    // width x height in a byte order this reader knows. False with a reason.
    bool Map(int width, int height, std::string* reason);
    const SurfacePixels& Pixels() const { return pixels_; }

private:
    void* surface_ = nullptr;  // tbm_surface_h while mapped
    SurfacePixels pixels_;
};

}  // namespace hdrconvert

#endif
