// Surface-copy images, for drivers that cannot import the platform's
// surfaces: the output texture holds one band of the picture, and each band
// goes into the surface's memory as soon as it is drawn. A small band stays
// in the CPU's cache between the draw and the copy, and the picture never
// exists twice at full size.
#include "HdrCommon.h"
#include "HdrOutputImages.h"

#include <tbm_surface.h>

#include <algorithm>
#include <cstdint>

namespace {

// The stand-in for an EGLImage: the surface to fill, its size, and the
// rows of each band.
struct SurfaceCopyImage {
    tbm_surface_h surface;
    int width;
    int height;
    int bandRows;
};

// About bandBytes of RGBA rows, in whole 64-row tiles (the rasteriser's
// tile height), never more than the surface.
int AutomaticBandRows(int width, int height, int bandBytes)
{
    constexpr int kTileRows = 64;
    const int fitting = bandBytes / (4 * width);
    const int rows = std::max(kTileRows, fitting / kTileRows * kTileRows);
    return std::min(rows, height);
}

// GL writes R, G, B, A; an RA24 surface holds A, B, G, R: reverse each
// pixel's four bytes, in place. Written on whole words so that the compiler
// turns it into vector code; on x86-64 that needs a byte shuffle beyond the
// baseline, so clones for newer CPUs are picked at load time (not under
// ThreadSanitizer: the picking runs before its runtime is up).
typedef uint32_t __attribute__((may_alias)) PixelWord;

#if defined(__x86_64__) && !defined(__clang__) && !defined(__SANITIZE_THREAD__)
__attribute__((target_clones("avx2", "ssse3", "default")))
#endif
void ReversePixelBytes(unsigned char* row, int width)
{
    PixelWord* pixels = reinterpret_cast<PixelWord*>(row);
    for (int x = 0; x < width; ++x) {
        const uint32_t p = pixels[x];
        pixels[x] = (p >> 24) | ((p >> 8) & 0x0000FF00u) | ((p << 8) & 0x00FF0000u) | (p << 24);
    }
}

}  // namespace

SurfaceCopyImages::SurfaceCopyImages(int bandRows) : bandRows_(bandRows)
{}

void* SurfaceCopyImages::Create(EGLInfo& /*info*/, void* buffer, EGLint& error) const
{
    tbm_surface_h surface = static_cast<tbm_surface_h>(buffer);
    const int width = tbm_surface_get_width(surface);
    const int height = tbm_surface_get_height(surface);
    const tbm_format format = tbm_surface_get_format(surface);
    if (width < 1 || height < 1 || (format != TBM_FORMAT_RGBA8888 && format != TBM_FORMAT_ABGR8888)) {
        error = EGL_BAD_PARAMETER;  // what EGL answers for a buffer it cannot import
        return nullptr;
    }
    int rows = height;
    if (bandRows_ == kAutomaticBands) {
        rows = AutomaticBandRows(width, height, kBandBytes);
    } else if (bandRows_ > 0) {
        rows = std::min(bandRows_, height);
    }
    error = EGL_SUCCESS;
    return new SurfaceCopyImage{surface, width, height, rows};
}

bool SurfaceCopyImages::Destroy(EGLInfo& /*info*/, void* image, EGLint& error) const
{
    delete static_cast<SurfaceCopyImage*>(image);
    error = EGL_SUCCESS;
    return true;
}

void SurfaceCopyImages::Attach(EGLInfo& /*info*/, void* image) const
{
    const auto* copyImage = static_cast<const SurfaceCopyImage*>(image);
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA8, copyImage->width, copyImage->bandRows, 0, GL_RGBA, GL_UNSIGNED_BYTE,
                 nullptr);
}

OutputBands SurfaceCopyImages::Bands(const void* image) const
{
    const auto* copyImage = static_cast<const SurfaceCopyImage*>(image);
    if (copyImage == nullptr) {
        return {0, 0};
    }
    return {(copyImage->height + copyImage->bandRows - 1) / copyImage->bandRows, copyImage->bandRows};
}

bool SurfaceCopyImages::StoreBand(void* image, GLuint framebuffer, int index) const
{
    auto* copyImage = static_cast<SurfaceCopyImage*>(image);
    if (copyImage == nullptr) {
        HDR_LOG("%d ERROR: no output image\n", __LINE__);
        return false;
    }
    const int top = index * copyImage->bandRows;
    if (index < 0 || top >= copyImage->height) {
        HDR_LOG("%d ERROR: no band %d in %d rows\n", __LINE__, index, copyImage->height);
        return false;
    }
    tbm_surface_info_s info;
    if (tbm_surface_map(copyImage->surface, TBM_SURF_OPTION_WRITE, &info) != TBM_SURFACE_ERROR_NONE) {
        HDR_LOG("%d ERROR: tbm_surface_map failed\n", __LINE__);
        return false;
    }
    const tbm_surface_plane_s& plane = info.planes[0];
    const int width = copyImage->width;
    const int height = copyImage->height;
    if (plane.stride % 4 != 0 || plane.stride / 4 < static_cast<uint32_t>(width) ||
        static_cast<uint64_t>(plane.stride) * static_cast<uint64_t>(height) > plane.size) {
        HDR_LOG("%d ERROR: surface layout (stride %u, size %u) does not hold %d x %d pixels\n", __LINE__, plane.stride,
                plane.size, width, height);
        tbm_surface_unmap(copyImage->surface);
        return false;
    }

    // GL writes the band's rows straight into the surface, its stride as
    // row length; the byte reorder then finds them still in cache.
    const int rows = std::min(copyImage->bandRows, height - top);
    unsigned char* band = plane.ptr + static_cast<size_t>(top) * plane.stride;
    glBindFramebuffer(GL_READ_FRAMEBUFFER, framebuffer);
    glPixelStorei(GL_PACK_ALIGNMENT, 4);
    glPixelStorei(GL_PACK_ROW_LENGTH, static_cast<GLint>(plane.stride / 4));
    glReadPixels(0, 0, width, rows, GL_RGBA, GL_UNSIGNED_BYTE, band);
    const bool ok = GL_error_check();
    if (ok && info.format == TBM_FORMAT_RGBA8888) {
        for (int y = 0; y < rows; ++y) {
            ReversePixelBytes(band + static_cast<size_t>(y) * plane.stride, width);
        }
    }
    glPixelStorei(GL_PACK_ROW_LENGTH, 0);
    glBindFramebuffer(GL_READ_FRAMEBUFFER, 0);
    tbm_surface_unmap(copyImage->surface);
    return ok;
}
