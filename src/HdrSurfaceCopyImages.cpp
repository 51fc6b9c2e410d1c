// Surface-copy images, for drivers that cannot import the platform's
// surfaces: the output texture holds one band of the picture, and each band
// goes into the surface's memory as soon as it is drawn. A small band stays
// in the CPU's cache between the draw and the copy, and the picture never
// exists twice at full size.
//
// The copy of a band overlaps the draw of the next one: the band is read
// back into one of two small staging buffers, and a worker thread puts it
// into the surface while the engine draws the next band and waits on the
// rasteriser to read it back. The surface stays mapped from a picture's
// first stored band until its last, or until a failure or the image's
// destruction ends the picture early.
#include "HdrCommon.h"
#include "HdrOutputImages.h"

#include <tbm_surface.h>

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>

namespace {

// GL writes R, G, B, A; an RA24 surface holds A, B, G, R: reverse each
// pixel's four bytes, in place or on the way out of a staging buffer.
// Written on whole words so that the compiler turns it into vector code; on
// x86-64 that needs a byte shuffle beyond the baseline, so clones for newer
// CPUs are picked at load time (not under ThreadSanitizer: the picking runs
// before its runtime is up).
typedef uint32_t __attribute__((may_alias)) PixelWord;

#if defined(__x86_64__) && !defined(__clang__) && !defined(__SANITIZE_THREAD__)
#define HDR_PIXEL_CLONES __attribute__((target_clones("avx2", "ssse3", "default")))
#else
#define HDR_PIXEL_CLONES
#endif

inline uint32_t Reversed(uint32_t p)
{
    return (p >> 24) | ((p >> 8) & 0x0000FF00u) | ((p << 8) & 0x00FF0000u) | (p << 24);
}

HDR_PIXEL_CLONES void ReversePixelBytes(unsigned char* row, int width)
{
    PixelWord* pixels = reinterpret_cast<PixelWord*>(row);
    for (int x = 0; x < width; ++x) {
        pixels[x] = Reversed(pixels[x]);
    }
}

HDR_PIXEL_CLONES void CopyReversingPixelBytes(const unsigned char* __restrict from, unsigned char* __restrict to,
                                              int width)
{
    const PixelWord* source = reinterpret_cast<const PixelWord*>(from);
    PixelWord* target = reinterpret_cast<PixelWord*>(to);
    for (int x = 0; x < width; ++x) {
        target[x] = Reversed(source[x]);
    }
}

// One band's rows, tightly packed as GL read them, going to their rows of
// the surface.
struct BandCopy {
    const unsigned char* from;
    unsigned char* to;
    size_t stride;
    int width;
    int rows;
    bool reverse;
};

void Run(const BandCopy& copy)
{
    const size_t rowBytes = static_cast<size_t>(copy.width) * 4;
    for (int y = 0; y < copy.rows; ++y) {
        const unsigned char* from = copy.from + static_cast<size_t>(y) * rowBytes;
        unsigned char* to = copy.to + static_cast<size_t>(y) * copy.stride;
        if (copy.reverse) {
            CopyReversingPixelBytes(from, to, copy.width);
        } else {
            std::memcpy(to, from, rowBytes);
        }
    }
}

// A thread that runs one band copy at a time, started with the first copy
// handed to it and joined when it is destroyed (after the copy in hand).
class BandCopier {
public:
    BandCopier() = default;
    BandCopier(const BandCopier&) = delete;
    BandCopier& operator=(const BandCopier&) = delete;

    ~BandCopier()
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stopping_ = true;
        }
        wake_.notify_one();
        if (thread_.joinable()) {
            thread_.join();
        }
    }

    // Hands copy to the thread, or runs it here when no thread can be
    // started. The caller waits for the previous one first.
    void Start(const BandCopy& copy)
    {
        if (!thread_.joinable()) {
            try {
                thread_ = std::thread([this] { Work(); });
            } catch (const std::system_error&) {
                Run(copy);
                return;
            }
        }
        {
            std::lock_guard<std::mutex> lock(mutex_);
            copy_ = copy;
            pending_ = true;
        }
        wake_.notify_one();
    }

    // Returns once no copy is running or waiting.
    void Wait()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        done_.wait(lock, [this] { return !pending_; });
    }

private:
    void Work()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            wake_.wait(lock, [this] { return pending_ || stopping_; });
            if (!pending_) {
                return;
            }
            const BandCopy copy = copy_;
            lock.unlock();
            Run(copy);
            lock.lock();
            pending_ = false;
            done_.notify_all();
        }
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable done_;
    BandCopy copy_{};
    bool pending_ = false;
    bool stopping_ = false;
    std::thread thread_;
};

// The stand-in for an EGLImage: the surface to fill, its size, the rows of
// each band, and the picture in progress: the surface's mapping, the two
// staging buffers and the copy of the last band read, if it still runs.
struct SurfaceCopyImage {
    tbm_surface_h surface;
    int width;
    int height;
    int bandRows;

    bool mapped = false;
    tbm_surface_info_s map{};
    std::unique_ptr<unsigned char[]> staging[2];
    int nextStaging = 0;
    BandCopier copier;

    SurfaceCopyImage(tbm_surface_h s, int w, int h, int rows) : surface(s), width(w), height(h), bandRows(rows) {}

    int BandCount() const { return (height + bandRows - 1) / bandRows; }

    // Lets the running copy finish and gives up the mapping: no thread
    // touches the surface afterwards.
    void EndPicture()
    {
        copier.Wait();
        if (mapped) {
            tbm_surface_unmap(surface);
            mapped = false;
        }
    }

    ~SurfaceCopyImage() { EndPicture(); }
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

// Maps the surface for the picture starting with this band and checks that
// its plane holds the image's pixels. False, logged, and left unmapped when
// it cannot be written.
bool MapForPicture(SurfaceCopyImage& image)
{
    if (image.mapped) {
        return true;
    }
    tbm_surface_info_s& info = image.map;
    if (tbm_surface_map(image.surface, TBM_SURF_OPTION_WRITE, &info) != TBM_SURFACE_ERROR_NONE) {
        HDR_LOG("%d ERROR: tbm_surface_map failed\n", __LINE__);
        return false;
    }
    const tbm_surface_plane_s& plane = info.planes[0];
    if (plane.stride % 4 != 0 || plane.stride / 4 < static_cast<uint32_t>(image.width) ||
        static_cast<uint64_t>(plane.stride) * static_cast<uint64_t>(image.height) > plane.size) {
        HDR_LOG("%d ERROR: surface layout (stride %u, size %u) does not hold %d x %d pixels\n", __LINE__, plane.stride,
                plane.size, image.width, image.height);
        tbm_surface_unmap(image.surface);
        return false;
    }
    image.mapped = true;
    return true;
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
    return new SurfaceCopyImage(surface, width, height, rows);
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
    return {copyImage->BandCount(), copyImage->bandRows};
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
        copyImage->EndPicture();
        return false;
    }
    if (!MapForPicture(*copyImage)) {
        return false;
    }

    const int width = copyImage->width;
    const int rows = std::min(copyImage->bandRows, copyImage->height - top);
    const tbm_surface_plane_s& plane = copyImage->map.planes[0];
    const bool reverse = copyImage->map.format == TBM_FORMAT_RGBA8888;
    unsigned char* to = plane.ptr + static_cast<size_t>(top) * plane.stride;
    glBindFramebuffer(GL_READ_FRAMEBUFFER, framebuffer);
    glPixelStorei(GL_PACK_ALIGNMENT, 4);

    if (index == copyImage->BandCount() - 1) {
        // The picture's last band (a one-pass picture's only one): GL writes
        // it straight into the surface, its stride as row length, and the
        // byte reorder then finds it still in cache. The surface is complete
        // and unmapped when the draw returns.
        glPixelStorei(GL_PACK_ROW_LENGTH, static_cast<GLint>(plane.stride / 4));
        glReadPixels(0, 0, width, rows, GL_RGBA, GL_UNSIGNED_BYTE, to);
        const bool ok = GL_error_check();
        if (ok && reverse) {
            for (int y = 0; y < rows; ++y) {
                ReversePixelBytes(to + static_cast<size_t>(y) * plane.stride, width);
            }
        }
        glPixelStorei(GL_PACK_ROW_LENGTH, 0);
        glBindFramebuffer(GL_READ_FRAMEBUFFER, 0);
        copyImage->EndPicture();
        return ok;
    }

    // Any other band is read into the staging buffer the running copy does
    // not use: reading back waits for the rasteriser to finish the band,
    // and the copy of the band before runs meanwhile.
    std::unique_ptr<unsigned char[]>& staging = copyImage->staging[copyImage->nextStaging];
    if (!staging) {
        const size_t bytes = static_cast<size_t>(width) * 4 * static_cast<size_t>(copyImage->bandRows);
        staging.reset(new (std::nothrow) unsigned char[bytes]);
    }
    bool ok = staging != nullptr;
    if (ok) {
        glPixelStorei(GL_PACK_ROW_LENGTH, 0);
        glReadPixels(0, 0, width, rows, GL_RGBA, GL_UNSIGNED_BYTE, staging.get());
        ok = GL_error_check();
    } else {
        HDR_LOG("%d ERROR: no memory to read back a band of %d x %d pixels\n", __LINE__, width, copyImage->bandRows);
    }
    glBindFramebuffer(GL_READ_FRAMEBUFFER, 0);
    copyImage->copier.Wait();
    if (!ok) {
        copyImage->EndPicture();
        return false;
    }
    copyImage->copier.Start(BandCopy{staging.get(), to, plane.stride, width, rows, reverse});
    copyImage->nextStaging = 1 - copyImage->nextStaging;
    return true;
}

void SurfaceCopyImages::Finish(void* image) const
{
    if (image != nullptr) {
        static_cast<SurfaceCopyImage*>(image)->EndPicture();
    }
}
