#include "Renderer.h"

#include "Orientation.h"
#include "PageRelease.h"
#include "SurfaceReader.h"

#include <HdrGpuBackend.h>

#include <EGL/egl.h>
#include <EGL/eglext.h>
#include <tbm_surface.h>
#ifdef HDRGPU_CONVERT_STANDINS
#include <system_info_standin.h>
#endif

#include <cmath>
#include <cstring>
#include <string>

namespace hdrconvert {

namespace {

bool HasExtension(const char* list, const char* name)
{
    if (list == nullptr) {
        return false;
    }
    const size_t n = std::strlen(name);
    for (const char* p = list; (p = std::strstr(p, name)) != nullptr; p += n) {
        const bool startOk = p == list || p[-1] == ' ';
        const bool endOk = p[n] == '\0' || p[n] == ' ';
        if (startOk && endOk) {
            return true;
        }
    }
    return false;
}

// Copies the output surface into out as R, G, B, A, honouring the surface's
// stride and byte order.
bool ReadSurface(int width, int height, RenderedPicture* out, std::string* reason)
{
    SurfaceMapping mapping;
    if (!mapping.Map(width, height, reason)) {
        return false;
    }
    OrientedRows rows(mapping.Pixels(), 1);
    out->width = width;
    out->height = height;
    out->rgba.resize(static_cast<size_t>(width) * static_cast<size_t>(height) * 4);
    const size_t rowBytes = static_cast<size_t>(width) * 4;
    for (int y = 0; y < height; ++y) {
        uint8_t* dst = out->rgba.data() + static_cast<size_t>(y) * rowBytes;
        const uint8_t* row = rows.Row(y, dst);
        if (row != dst) {
            std::memcpy(dst, row, rowBytes);
        }
    }
    return true;
}

// Plane `plane`'s size among {main width, height, gain-map width, height}.
int PlaneWidth(const int sizes[4], int plane)
{
    return sizes[plane < 3 ? 0 : 2];
}

int PlaneHeight(const int sizes[4], int plane)
{
    return sizes[plane < 3 ? 1 : 3];
}

bool PlanesValid(const YuvPlanes* p)
{
    if (p == nullptr || p->width < 1 || p->height < 1) {
        return false;
    }
    const size_t n = static_cast<size_t>(p->width) * static_cast<size_t>(p->height);
    return p->y.size() == n && p->u.size() == n && p->v.size() == n;
}

}  // namespace

std::string LibraryError(const char* call, int code)
{
    return std::string(call) + " failed (result " + std::to_string(code) + ")";
}

void DirectSurfaceSize(int orientation, int outW, int outH, int* surfaceW, int* surfaceH)
{
    const bool swap = OrientationSwapsSize(orientation);
    *surfaceW = swap ? outH : outW;
    *surfaceH = swap ? outW : outH;
}

void DescribePicture(const Picture& picture, int outputWidth, int outputHeight, bool streaming, HdrInfo* info)
{
    std::memset(static_cast<void*>(info), 0, sizeof *info);
    const YuvPlanes& main = *picture.primary;
    const YuvPlanes& gain = *picture.gainMap;
    info->nMainImageWidth = main.width;
    info->nMainImageHeight = main.height;
    info->mainImagePlanes[0] = main.y.data();
    info->mainImagePlanes[1] = main.u.data();
    info->mainImagePlanes[2] = main.v.data();
    info->nGainMapWidth = gain.width;
    info->nGainMapHeight = gain.height;
    info->gainMapPlanes[0] = gain.y.data();
    info->gainMapPlanes[1] = gain.u.data();
    info->gainMapPlanes[2] = gain.v.data();
    const GainMapMetadata& md = picture.metadata;
    for (int c = 0; c < 3; ++c) {
        info->gainMapMin[c] = static_cast<float>(md.gainMapMin[c]);
        info->gainMapMax[c] = static_cast<float>(md.gainMapMax[c]);
        info->gamma[c] = static_cast<float>(md.gamma[c]);
        info->offsetSdr[c] = static_cast<float>(md.offsetSdr[c]);
        info->offsetHdr[c] = static_cast<float>(md.offsetHdr[c]);
    }
    // The fourth components are not read; keep them neutral.
    info->gainMapMin[3] = 0.0f;
    info->gainMapMax[3] = 0.0f;
    info->gamma[3] = 1.0f;
    info->offsetSdr[3] = 0.0f;
    info->offsetHdr[3] = 0.0f;
    info->hdrCapacityMin = static_cast<float>(md.hdrCapacityMin);
    info->hdrCapacityMax = static_cast<float>(md.hdrCapacityMax);
    info->gamut = hdr_color_gamut::HDR_COLORGAMUT_BT709;
    info->trfn = hdr_transfer_function::HDR_TF_SRGB;
    info->outputWidth = outputWidth;
    info->outputHeight = outputHeight;
    if (streaming) {
        const OutputTransform t = TransformForOrientation(picture.orientation);
        info->outputRotate = t.outputRotate;
        info->outputMirror = t.outputMirror;
    }
}

Renderer::~Renderer()
{
    Stop();
}

bool Renderer::OpenDisplay(DisplayChoice choice, std::string* reason)
{
    const char* clientExtensions = eglQueryString(EGL_NO_DISPLAY, EGL_EXTENSIONS);
    auto getPlatformDisplay =
        reinterpret_cast<PFNEGLGETPLATFORMDISPLAYEXTPROC>(eglGetProcAddress("eglGetPlatformDisplayEXT"));
    if (getPlatformDisplay == nullptr || !HasExtension(clientExtensions, "EGL_EXT_platform_base")) {
        *reason = "EGL has no platform displays (EGL_EXT_platform_base)";
        return false;
    }

    EGLDisplay display = EGL_NO_DISPLAY;
    if (choice != DisplayChoice::Surfaceless && HasExtension(clientExtensions, "EGL_EXT_platform_device")) {
        auto queryDevices = reinterpret_cast<PFNEGLQUERYDEVICESEXTPROC>(eglGetProcAddress("eglQueryDevicesEXT"));
        auto queryDeviceString =
            reinterpret_cast<PFNEGLQUERYDEVICESTRINGEXTPROC>(eglGetProcAddress("eglQueryDeviceStringEXT"));
        EGLDeviceEXT devices[16];
        EGLint count = 0;
        if (queryDevices != nullptr && queryDeviceString != nullptr && queryDevices(16, devices, &count) == EGL_TRUE) {
            int hardware = -1;
            int software = -1;
            for (int i = 0; i < count; ++i) {
                const char* ext = queryDeviceString(devices[i], EGL_EXTENSIONS);
                if (HasExtension(ext, "EGL_MESA_device_software")) {
                    software = software < 0 ? i : software;
                } else if (hardware < 0) {
                    hardware = i;
                }
            }
            const int pick = hardware >= 0 ? hardware : choice == DisplayChoice::Device ? software : -1;
            if (pick >= 0) {
                display = getPlatformDisplay(EGL_PLATFORM_DEVICE_EXT, devices[pick], nullptr);
                if (display != EGL_NO_DISPLAY && eglInitialize(display, nullptr, nullptr) == EGL_TRUE) {
                    const char* ext = queryDeviceString(devices[pick], EGL_EXTENSIONS);
                    const char* node = HasExtension(ext, "EGL_EXT_device_drm")
                                           ? queryDeviceString(devices[pick], EGL_DRM_DEVICE_FILE_EXT)
                                           : nullptr;
                    displayName_ = std::string("EGL device ") + std::to_string(pick) +
                                   (pick == software ? " (software)" : "") +
                                   (node != nullptr ? std::string(" ") + node : std::string());
                } else {
                    display = EGL_NO_DISPLAY;
                }
            }
        }
    }
    if (display == EGL_NO_DISPLAY && choice == DisplayChoice::Device) {
        *reason = "no EGL device display (EGL_EXT_platform_device)";
        return false;
    }
    if (display == EGL_NO_DISPLAY) {
        if (!HasExtension(clientExtensions, "EGL_MESA_platform_surfaceless")) {
            *reason = "no EGL display: neither a GPU device nor Mesa's surfaceless platform";
            return false;
        }
        display = getPlatformDisplay(EGL_PLATFORM_SURFACELESS_MESA, EGL_DEFAULT_DISPLAY, nullptr);
        if (display == EGL_NO_DISPLAY || eglInitialize(display, nullptr, nullptr) != EGL_TRUE) {
            *reason = "cannot initialise Mesa's surfaceless EGL display";
            return false;
        }
        displayName_ = "surfaceless";
    }
    const char* vendor = eglQueryString(display, EGL_VENDOR);
    if (vendor != nullptr) {
        displayName_ += std::string(", ") + vendor;
    }
    display_ = display;
    displayInitialised_ = true;
    return true;
}

bool Renderer::Init(int surfaceWidth, int surfaceHeight, bool streaming, std::string* reason)
{
    GpuGenerateHdrInitOption option{surfaceWidth, surfaceHeight, display_, options_.outputYuv, streaming};
    const int result = GpuGenerateHdrInit(option);
    if (result != GPU_GENERATE_SUCCESS) {
        *reason = LibraryError("GpuGenerateHdrInit", result);
        return false;
    }
    libraryInitialised_ = true;
    surfaceWidth_ = surfaceWidth;
    surfaceHeight_ = surfaceHeight;
    mapped_ = nullptr;
    return true;
}

bool Renderer::Start(const RendererOptions& options, std::string* reason)
{
    Stop();
    options_ = options;
    broken_ = false;
#ifdef HDRGPU_CONVERT_STANDINS
    if (options.setPhotoHdr) {
        system_info_standin_set_int(kSystemInfoKeyPhotoHdr, options.photoHdr);
    }
    if (options.setPeakWhite) {
        system_info_standin_set_int(kSystemInfoKeyPeakWhite, options.peakWhite);
    }
#else
    if (options.setPhotoHdr || options.setPeakWhite) {
        *reason = "this build uses the platform's own system information: set keys 1301 and 1302 there";
        return false;
    }
#endif
    if (!OpenDisplay(options.display, reason)) {
        broken_ = true;
        return false;
    }
    if (options.mode == RenderMode::Streaming) {
        // The streaming mode's output size comes with each picture.
        if (!Init(1, 1, true, reason)) {
            broken_ = true;
            return false;
        }
    }
    return true;
}

void Renderer::Stop()
{
    if (libraryInitialised_) {
        GpuGenerateHdrDestroy();
        libraryInitialised_ = false;
    }
    // The display is left initialised: the process ends after the batch and
    // releases it then. eglTerminate would make Mesa unload its driver, whose
    // few per-process allocations leak checkers could then no longer
    // attribute to it (they would be reported as leaks of an unknown module).
    // A later Start gets the same display again and initialises it again,
    // which EGL allows.
    displayInitialised_ = false;
    display_ = nullptr;
    mapped_ = nullptr;
    rendered_ = false;
}

bool Renderer::Render(const Picture& picture, RenderedPicture* out, std::string* reason)
{
    rendered_ = false;
    if (broken_ || !displayInitialised_) {
        *reason = "the renderer is not available";
        return false;
    }
    if (!PlanesValid(picture.primary) || !PlanesValid(picture.gainMap)) {
        *reason = "no decoded planes";
        return false;
    }
    if (!CheckMetadata(picture.metadata, reason)) {
        return false;
    }
    int outW = picture.outputWidth;
    int outH = picture.outputHeight;
    if (outW < 1 || outH < 1) {
        OrientedSize(picture.orientation, picture.primary->width, picture.primary->height, &outW, &outH);
    }
    if (options_.mode == RenderMode::Streaming) {
        return RenderStreaming(picture, outW, outH, out, reason);
    }
    return RenderDirect(picture, outW, outH, out, reason);
}

bool Renderer::CheckMetadata(const GainMapMetadata& md, std::string* reason) const
{
    if (!(md.hdrCapacityMax > md.hdrCapacityMin) || !std::isfinite(md.hdrCapacityMax) ||
        !std::isfinite(md.hdrCapacityMin)) {
        *reason = "HDRCapacityMax is not above HDRCapacityMin";
        return false;
    }
    for (int c = 0; c < 3; ++c) {
        if (!(md.gamma[c] > 0) || !std::isfinite(md.gamma[c]) || !std::isfinite(md.gainMapMin[c]) ||
            !std::isfinite(md.gainMapMax[c]) || !std::isfinite(md.offsetSdr[c]) || !std::isfinite(md.offsetHdr[c])) {
            *reason = "gain map metadata out of range";
            return false;
        }
    }
    return true;
}

bool Renderer::MapUploadBuffers(HdrInfo* info, const int sizes[4], std::string* reason)
{
    // A picture whose plane sizes differ from those the buffers were mapped
    // for has its metadata set first: that intake re-defines the textures and
    // maps buffers of the new sizes.
    if (mapped_ == nullptr || std::memcmp(sizes, mappedSizes_, sizeof mappedSizes_) != 0) {
        mapped_ = GpuGenerateHdrSetHdrInfo(info);
        if (mapped_ == nullptr) {
            *reason = "GpuGenerateHdrSetHdrInfo failed";
            return false;
        }
        std::memcpy(mappedSizes_, sizes, sizeof mappedSizes_);
    }
    return true;
}

bool Renderer::DrawStreaming(HdrInfo* info, const int sizes[4], const PlaneFill& fill, bool last, std::string* reason)
{
    if (!MapUploadBuffers(info, sizes, reason)) {
        return false;
    }
    for (int plane = 0; plane < 6; ++plane) {
        if (mapped_[plane] == nullptr) {
            *reason = "the library mapped no upload buffer for plane " + std::to_string(plane);
            mapped_ = nullptr;  // start the next picture with a fresh intake
            return false;
        }
        int index = plane;
        if (GpuGenerateHdrUpdateDataBegin(index) == 0) {
            *reason = "GpuGenerateHdrUpdateDataBegin failed for plane " + std::to_string(plane);
            mapped_ = nullptr;
            return false;
        }
        const bool filled = fill(plane, mapped_, reason);
        int width = PlaneWidth(sizes, plane);  // the interface takes references
        int height = PlaneHeight(sizes, plane);
        // The End also when the fill failed: it releases the context.
        if (GpuGenerateHdrUpdateDataEnd(width, height) == 0) {
            if (filled) {
                *reason = "GpuGenerateHdrUpdateDataEnd failed for plane " + std::to_string(plane);
            }
            mapped_ = nullptr;
            return false;
        }
        if (!filled) {
            mapped_ = nullptr;
            return false;
        }
    }
    // Keeps the streamed planes and maps the buffers for the next picture.
    mapped_ = GpuGenerateHdrSetHdrInfo(info);
    if (mapped_ == nullptr) {
        *reason = "GpuGenerateHdrSetHdrInfo failed";
        return false;
    }
    if (last) {
        // Mapped for writing, their contents undefined: nothing to keep.
        for (int plane = 0; plane < 6; ++plane) {
            ReleaseWholePages(mapped_[plane], static_cast<size_t>(PlaneWidth(sizes, plane)) *
                                                  static_cast<size_t>(PlaneHeight(sizes, plane)));
        }
    }
    const int result = GpuGenerateHdr();
    if (result != GPU_GENERATE_SUCCESS) {
        *reason = LibraryError("GpuGenerateHdr", result);
        return false;
    }
    return true;
}

bool Renderer::RenderStreaming(const Picture& picture, int outW, int outH, RenderedPicture* out, std::string* reason)
{
    HdrInfo info;
    DescribePicture(picture, outW, outH, true, &info);
    const int sizes[4] = {picture.primary->width, picture.primary->height, picture.gainMap->width,
                          picture.gainMap->height};
    const YuvPlanes* sources[2] = {picture.primary, picture.gainMap};
    const PlaneFill copy = [&sources](int plane, uint8_t* const* mapped, std::string*) {
        const YuvPlanes& p = *sources[plane / 3];
        const std::vector<uint8_t>& bytes = p.Plane(plane % 3);
        std::memcpy(mapped[plane], bytes.data(), bytes.size());
        return true;
    };
    if (!DrawStreaming(&info, sizes, copy, false, reason)) {
        return false;
    }
    return ReadSurface(outW, outH, out, reason);
}

bool Renderer::InitDirect(int surfaceWidth, int surfaceHeight, std::string* reason)
{
    if (libraryInitialised_ && surfaceWidth == surfaceWidth_ && surfaceHeight == surfaceHeight_) {
        return true;
    }
    if (libraryInitialised_) {
        GpuGenerateHdrDestroy();
        libraryInitialised_ = false;
    }
    return Init(surfaceWidth, surfaceHeight, false, reason);
}

bool Renderer::DrawDirect(const Picture& picture, int outW, int outH, int* surfaceWidth, int* surfaceHeight,
                          std::string* reason, YuvPlanes* spent, YuvPlanes* spentGainMap)
{
    int surfaceW = 0;
    int surfaceH = 0;
    DirectSurfaceSize(picture.orientation, outW, outH, &surfaceW, &surfaceH);
    *surfaceWidth = surfaceW;
    *surfaceHeight = surfaceH;
    if (!InitDirect(surfaceW, surfaceH, reason)) {
        return false;
    }
    HdrInfo info;
    DescribePicture(picture, surfaceW, surfaceH, false, &info);
    if (GpuGenerateHdrSetHdrInfo(&info) == nullptr) {
        *reason = "GpuGenerateHdrSetHdrInfo failed";
        return false;
    }
    // The intake copied the planes into their textures.
    for (YuvPlanes* planes : {spent, spentGainMap}) {
        if (planes != nullptr) {
            *planes = YuvPlanes();
        }
    }
    const int result = GpuGenerateHdr();
    if (result != GPU_GENERATE_SUCCESS) {
        *reason = LibraryError("GpuGenerateHdr", result);
        return false;
    }
    return true;
}

bool Renderer::RenderDirect(const Picture& picture, int outW, int outH, RenderedPicture* out, std::string* reason)
{
    int surfaceW = 0;
    int surfaceH = 0;
    if (!DrawDirect(picture, outW, outH, &surfaceW, &surfaceH, reason)) {
        return false;
    }
    RenderedPicture stored;
    if (!ReadSurface(surfaceW, surfaceH, &stored, reason)) {
        return false;
    }
    if (NormalizeOrientation(picture.orientation) == 1) {
        *out = std::move(stored);
        return true;
    }
    out->rgba = OrientPixels(stored.rgba.data(), surfaceW, surfaceH, 4, picture.orientation);
    out->width = outW;
    out->height = outH;
    return true;
}

}  // namespace hdrconvert
