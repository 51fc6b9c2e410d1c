#include "SurfaceReader.h"

#include "Orientation.h"

#include <HdrGpuBackend.h>
#include <tbm_surface.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace hdrconvert {

namespace {

// Rows gathered per band for the orientations that swap the size: enough to
// use a whole cache line of each stored row per visit.
constexpr int kBandRows = 32;

inline uint32_t Load(const uint8_t* p)
{
    uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
}

inline void Store(uint8_t* p, uint32_t v)
{
    std::memcpy(p, &v, 4);
}

// One pixel's bytes A, B, G, R reversed into R, G, B, A (or kept as they are).
inline uint32_t ToRgba(uint32_t v, bool rgbaBytes)
{
    return rgbaBytes ? v : __builtin_bswap32(v);
}

void ConvertRow(const uint8_t* src, uint8_t* dst, int width, bool rgbaBytes, bool mirror)
{
    if (rgbaBytes && !mirror) {
        std::memcpy(dst, src, static_cast<size_t>(width) * 4);
        return;
    }
    if (!mirror) {
        for (int x = 0; x < width; ++x) {
            Store(dst + 4 * static_cast<ptrdiff_t>(x), __builtin_bswap32(Load(src + 4 * static_cast<ptrdiff_t>(x))));
        }
        return;
    }
    for (int x = 0; x < width; ++x) {
        Store(dst + 4 * static_cast<ptrdiff_t>(x),
              ToRgba(Load(src + 4 * static_cast<ptrdiff_t>(width - 1 - x)), rgbaBytes));
    }
}

}  // namespace

OrientedRows::OrientedRows(const SurfacePixels& pixels, int exifOrientation)
    : pixels_(pixels), orientation_(NormalizeOrientation(exifOrientation))
{
    OrientedSize(orientation_, pixels.width, pixels.height, &width_, &height_);
}

const uint8_t* OrientedRows::Row(int y, uint8_t* scratch)
{
    const int w = pixels_.width;
    const int h = pixels_.height;
    const auto stored = [this](int row) { return pixels_.data + static_cast<size_t>(row) * pixels_.stride; };
    switch (orientation_) {
    case 1:
        if (pixels_.rgbaBytes) {
            return stored(y);
        }
        ConvertRow(stored(y), scratch, w, pixels_.rgbaBytes, false);
        return scratch;
    case 2:
        ConvertRow(stored(y), scratch, w, pixels_.rgbaBytes, true);
        return scratch;
    case 3:
        ConvertRow(stored(h - 1 - y), scratch, w, pixels_.rgbaBytes, true);
        return scratch;
    case 4:
        ConvertRow(stored(h - 1 - y), scratch, w, pixels_.rgbaBytes, false);
        return scratch;
    default:
        break;
    }
    if (bandFirst_ < 0 || y < bandFirst_ || y >= bandFirst_ + bandRows_) {
        FillBand(y - y % kBandRows);
    }
    return band_.data() + static_cast<size_t>(y - bandFirst_) * static_cast<size_t>(width_) * 4;
}

void OrientedRows::FillBand(int first)
{
    // Displayed pixel (x, y) shows stored (sx, sy), with sx from y alone and
    // sy from x alone: 5 (y, x), 6 (y, H-1-x), 7 (W-1-y, H-1-x), 8 (W-1-y, x).
    const int w = pixels_.width;
    const int h = pixels_.height;
    const int rows = std::min(kBandRows, height_ - first);
    const size_t rowBytes = static_cast<size_t>(width_) * 4;
    band_.resize(rowBytes * kBandRows);
    const bool flipRows = orientation_ == 6 || orientation_ == 7;     // sy = H-1-x
    const bool flipColumns = orientation_ == 7 || orientation_ == 8;  // sx = W-1-y
    for (int x = 0; x < width_; ++x) {
        const int sy = flipRows ? h - 1 - x : x;
        const uint8_t* src = pixels_.data + static_cast<size_t>(sy) * pixels_.stride;
        uint8_t* dst = band_.data() + 4 * static_cast<size_t>(x);
        for (int k = 0; k < rows; ++k) {
            const int sx = flipColumns ? w - 1 - (first + k) : first + k;
            Store(dst + static_cast<size_t>(k) * rowBytes,
                  ToRgba(Load(src + 4 * static_cast<size_t>(sx)), pixels_.rgbaBytes));
        }
    }
    bandFirst_ = first;
    bandRows_ = rows;
}

SurfaceMapping::~SurfaceMapping()
{
    if (surface_ != nullptr) {
        tbm_surface_unmap(static_cast<tbm_surface_h>(surface_));
    }
}

bool SurfaceMapping::Map(int width, int height, std::string* reason)
{
    if (surface_ != nullptr) {
        tbm_surface_unmap(static_cast<tbm_surface_h>(surface_));
        surface_ = nullptr;
        pixels_ = SurfacePixels();
    }
    const int handle = GpuGenerateGetTBM();
    if (handle == GPU_GENERATE_NO_SURFACE) {
        *reason = "the library has no output surface";
        return false;
    }
    // The library hands the surface out as a 32-bit handle.
    tbm_surface_h surface = reinterpret_cast<tbm_surface_h>(  // NOLINT(performance-no-int-to-ptr)
        static_cast<intptr_t>(handle));
    tbm_surface_info_s info;
    std::memset(&info, 0, sizeof info);
    if (tbm_surface_map(surface, TBM_SURF_OPTION_READ, &info) != TBM_SURFACE_ERROR_NONE) {
        *reason = "cannot map the output surface";
        return false;
    }
    const uint32_t stride = info.planes[0].stride;
    const bool rgbaBytes = info.format == TBM_FORMAT_ABGR8888;  // R, G, B, A in memory
    if (info.width != static_cast<uint32_t>(width) || info.height != static_cast<uint32_t>(height) ||
        info.planes[0].ptr == nullptr || stride < 4u * info.width ||
        static_cast<uint64_t>(stride) * info.height > info.planes[0].size ||
        (info.format != TBM_FORMAT_RGBA8888 && !rgbaBytes)) {
        tbm_surface_unmap(surface);
        *reason = "the output surface is " + std::to_string(info.width) + "x" + std::to_string(info.height) +
                  ", expected " + std::to_string(width) + "x" + std::to_string(height);
        return false;
    }
    surface_ = surface;
    pixels_.data = info.planes[0].ptr;
    pixels_.width = width;
    pixels_.height = height;
    pixels_.stride = stride;
    pixels_.rgbaBytes = rgbaBytes;
    return true;
}

}  // namespace hdrconvert
