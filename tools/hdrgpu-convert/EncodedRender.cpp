// The converter's path through the renderer: the primary image decoded where
// the library reads it, the result written from the output surface's mapping.
#include "Renderer.h"

#include "Orientation.h"
#include "StreamingDecode.h"
#include "SurfaceReader.h"

#include <HdrGpuBackend.h>

#include <chrono>
#include <cstring>
#include <utility>
#include <vector>

namespace hdrconvert {

namespace {

void OutputSizeOf(const EncodedPicture& picture, int* width, int* height)
{
    *width = picture.outputWidth;
    *height = picture.outputHeight;
    if (*width < 1 || *height < 1) {
        OrientedSize(picture.orientation, picture.primaryWidth, picture.primaryHeight, width, height);
    }
}

// Hands a plane's storage back to the system (clear() would keep it).
void Release(std::vector<uint8_t>* plane)
{
    std::vector<uint8_t>().swap(*plane);
}

}  // namespace

bool Renderer::PrepareFor(const EncodedPicture& picture, int gainMapWidth, int gainMapHeight, std::string* reason)
{
    if (broken_ || !displayInitialised_) {
        *reason = "the renderer is not available";
        return false;
    }
    if (picture.primaryWidth < 1 || picture.primaryHeight < 1 || gainMapWidth < 1 || gainMapHeight < 1) {
        *reason = "no plane sizes";
        return false;
    }
    if (!CheckMetadata(picture.metadata, reason)) {
        return false;
    }
    int outW = 0;
    int outH = 0;
    OutputSizeOf(picture, &outW, &outH);
    if (options_.mode == RenderMode::Direct) {
        int surfaceW = 0;
        int surfaceH = 0;
        DirectSurfaceSize(picture.orientation, outW, outH, &surfaceW, &surfaceH);
        if (!InitDirect(surfaceW, surfaceH, reason)) {
            return false;
        }
        const int result =
            GpuGenerateHdrReserveTextures(picture.primaryWidth, picture.primaryHeight, gainMapWidth, gainMapHeight);
        if (result != GPU_GENERATE_SUCCESS) {
            *reason = LibraryError("GpuGenerateHdrReserveTextures", result);
            return false;
        }
        return true;
    }
    YuvPlanes gainSize;
    gainSize.width = gainMapWidth;
    gainSize.height = gainMapHeight;
    HdrInfo info;
    int sizes[4];
    DescribeEncoded(picture, gainSize, outW, outH, &info, sizes);
    return MapUploadBuffers(&info, sizes, reason);
}

void Renderer::DescribeEncoded(const EncodedPicture& picture, const YuvPlanes& gainMap, int outW, int outH,
                               HdrInfo* info, int sizes[4])
{
    YuvPlanes primarySize;
    primarySize.width = picture.primaryWidth;
    primarySize.height = picture.primaryHeight;
    Picture described;
    described.primary = &primarySize;
    described.gainMap = &gainMap;
    described.metadata = picture.metadata;
    described.orientation = picture.orientation;
    DescribePicture(described, outW, outH, true, info);
    for (int c = 0; c < 3; ++c) {
        info->mainImagePlanes[c] = nullptr;
    }
    sizes[0] = picture.primaryWidth;
    sizes[1] = picture.primaryHeight;
    sizes[2] = gainMap.width;
    sizes[3] = gainMap.height;
}

bool Renderer::RenderEncoded(const EncodedPicture& picture, bool* primaryFailed, std::string* reason)
{
    *primaryFailed = false;
    rendered_ = false;
    primaryDecodeSeconds_ = 0;
    // A primary that cannot be decoded is the reason to give, before any
    // other fault of the picture; the decoding proper comes later, where the
    // library reads the planes, so a fault found first is checked against it.
    const auto primaryFirst = [&picture, primaryFailed, reason]() {
        std::string why;
        if (!JpegDecodes(picture.primaryJpeg, picture.primarySize, &why)) {
            *primaryFailed = true;
            *reason = why;
        }
        return false;
    };
    if (broken_ || !displayInitialised_) {
        *reason = "the renderer is not available";
        return primaryFirst();
    }
    const YuvPlanes* gain = picture.gainMap;
    const size_t gainPixels =
        gain != nullptr ? static_cast<size_t>(gain->width) * static_cast<size_t>(gain->height) : 0;
    if (picture.primaryJpeg == nullptr || picture.primaryWidth < 1 || picture.primaryHeight < 1 || gain == nullptr ||
        gain->width < 1 || gain->height < 1 || gain->y.size() != gainPixels || gain->u.size() != gainPixels ||
        gain->v.size() != gainPixels) {
        *reason = "no decoded planes";
        return primaryFirst();
    }
    if (!CheckMetadata(picture.metadata, reason)) {
        return primaryFirst();
    }
    int outW = 0;
    int outH = 0;
    OutputSizeOf(picture, &outW, &outH);
    if (options_.mode == RenderMode::Direct) {
        return RenderEncodedDirect(picture, outW, outH, primaryFailed, reason);
    }
    return RenderEncodedStreaming(picture, outW, outH, primaryFailed, reason);
}

bool Renderer::RenderEncodedDirect(const EncodedPicture& picture, int outW, int outH, bool* primaryFailed,
                                   std::string* reason)
{
    const YuvPlanes* gain = picture.gainMap;
    std::string why;
    bool decoded = true;
    if (picture.decodedPrimary != nullptr) {
        directPrimary_ = std::move(*picture.decodedPrimary);
        *picture.decodedPrimary = YuvPlanes();
    } else {
        const auto start = std::chrono::steady_clock::now();
        decoded = DecodeJpegPlanesReusing(picture.primaryJpeg, picture.primarySize, &directPrimary_, &why);
        primaryDecodeSeconds_ = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }
    if (!decoded) {
        *primaryFailed = true;
        *reason = why;
        return false;
    }
    Picture planes;
    planes.primary = &directPrimary_;
    planes.gainMap = gain;
    planes.metadata = picture.metadata;
    planes.orientation = picture.orientation;
    int surfaceW = 0;
    int surfaceH = 0;
    // The last picture's planes are not kept for a next one: their memory
    // is not added to what the draw and the writing need.
    if (!DrawDirect(planes, outW, outH, &surfaceW, &surfaceH, reason, picture.last ? &directPrimary_ : nullptr,
                    picture.spentGainMap)) {
        return false;
    }
    rendered_ = true;
    renderedWidth_ = surfaceW;
    renderedHeight_ = surfaceH;
    renderedOrientation_ = picture.orientation;
    return true;
}

bool Renderer::RenderEncodedStreaming(const EncodedPicture& picture, int outW, int outH, bool* primaryFailed,
                                      std::string* reason)
{
    const YuvPlanes* gain = picture.gainMap;
    HdrInfo info;
    int sizes[4];
    DescribeEncoded(picture, *gain, outW, outH, &info, sizes);
    // The primary is decoded while plane 0 is open: the upload fence has then
    // been waited on, and the U and V buffers stay mapped until their own
    // End, which follows with nothing more to write. A primary decoded
    // already is copied plane by plane, each released before the draw.
    YuvPlanes* decoded = picture.decodedPrimary;
    const PlaneFill fill = [this, &picture, gain, decoded, primaryFailed](int plane, uint8_t* const* mapped,
                                                                          std::string* why) {
        if (decoded != nullptr && plane < 3) {
            std::vector<uint8_t>& bytes = decoded->Plane(plane);
            const size_t planeBytes = static_cast<size_t>(picture.primaryWidth) * picture.primaryHeight;
            if (bytes.size() != planeBytes) {
                *why = "the decoded primary image does not have the size its header gave";
                return false;
            }
            std::memcpy(mapped[plane], bytes.data(), bytes.size());
            Release(&bytes);
            return true;
        }
        if (plane == 0) {
            if (mapped[1] == nullptr || mapped[2] == nullptr) {
                *why = "the library mapped no upload buffer for plane " + std::to_string(mapped[1] == nullptr ? 1 : 2);
                return false;
            }
            const auto start = std::chrono::steady_clock::now();
            const bool decoded = DecodeJpegIntoPlanes(picture.primaryJpeg, picture.primarySize, picture.primaryWidth,
                                                      picture.primaryHeight, mapped[0], mapped[1], mapped[2], why);
            primaryDecodeSeconds_ = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            if (!decoded) {
                *primaryFailed = true;
                return false;
            }
            return true;
        }
        if (plane < 3) {
            return true;
        }
        const std::vector<uint8_t>& bytes = gain->Plane(plane - 3);
        std::memcpy(mapped[plane], bytes.data(), bytes.size());
        if (picture.spentGainMap != nullptr) {
            Release(&picture.spentGainMap->Plane(plane - 3));
        }
        return true;
    };
    if (!DrawStreaming(&info, sizes, fill, picture.last, reason)) {
        return false;
    }
    rendered_ = true;
    renderedWidth_ = outW;
    renderedHeight_ = outH;
    renderedOrientation_ = 1;  // the library turned it
    return true;
}

bool Renderer::ReadRendered(RenderedPicture* out, std::string* reason)
{
    if (!rendered_) {
        *reason = "no rendered picture";
        return false;
    }
    SurfaceMapping mapping;
    if (!mapping.Map(renderedWidth_, renderedHeight_, reason)) {
        return false;
    }
    OrientedRows rows(mapping.Pixels(), renderedOrientation_);
    out->width = rows.Width();
    out->height = rows.Height();
    const size_t stride = static_cast<size_t>(out->width) * 4;
    out->rgba.resize(stride * static_cast<size_t>(out->height));
    for (int y = 0; y < out->height; ++y) {
        uint8_t* target = out->rgba.data() + static_cast<size_t>(y) * stride;
        const uint8_t* row = rows.Row(y, target);
        if (row != target) {
            std::memcpy(target, row, stride);
        }
    }
    return true;
}

bool Renderer::WriteRendered(const std::string& path, OutputFormat format, int pngLevel, int* width, int* height,
                             std::string* reason)
{
    if (!rendered_) {
        *reason = "no rendered picture";
        return false;
    }
    SurfaceMapping mapping;
    std::string why;
    if (!mapping.Map(renderedWidth_, renderedHeight_, &why)) {
        // Reading the result is still part of rendering it.
        *reason = "rendering failed: " + why;
        return false;
    }
    OrientedRows rows(mapping.Pixels(), renderedOrientation_);
    *width = rows.Width();
    *height = rows.Height();
    return WriteImageRows(
        path, format, rows.Width(), rows.Height(), pngLevel,
        [&rows](int y, uint8_t* scratch) { return rows.Row(y, scratch); }, reason, options_.outputYuv);
}

}  // namespace hdrconvert
