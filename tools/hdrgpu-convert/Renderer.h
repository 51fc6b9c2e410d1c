// Renders decoded gain-map pictures into 8-bit RGBA with the HDR library,
// through its public interface only (HdrGpuBackend.h, the buffer manager's
// tbm_surface.h), as a host does.
//
// One Renderer is one library initialisation for a whole batch:
//
// * Streaming mode (the default): the library is initialised once. Each
//   picture's six planes are written into the upload buffers the library
//   maps, between UpdateDataBegin and UpdateDataEnd, in the order the
//   library's guide gives: metadata first only when the plane sizes differ
//   from the previous picture's (that intake re-defines the textures), then
//   the planes, then the metadata (which keeps the streamed planes and maps
//   the buffers for the next picture), then the draw. The library rotates and
//   mirrors the output for the picture's EXIF orientation. RenderEncoded
//   decodes the primary into the three main-image buffers while plane 0 is
//   open: the first Begin of a cycle waits on the one upload fence that
//   covers all six buffers, and each stays mapped until its own End. A
//   primary decoded beforehand (the batch's first, while the renderer
//   started; PrepareFor made its intake meanwhile) is copied in instead.
// * Direct mode: planes go in with the metadata. The library's output surface
//   has the size given at initialisation and is never rotated, so the picture
//   is rendered at its stored orientation and turned on the CPU afterwards;
//   the library is initialised again only when the surface size changes.
//
// The result is read from the output surface through tbm_surface_map (RA24:
// bytes A, B, G, R per pixel, rows `stride` bytes apart).
#ifndef HDRGPU_CONVERT_RENDERER_H
#define HDRGPU_CONVERT_RENDERER_H

#include "GainMapJpeg.h"
#include "ImageOutput.h"
#include "JpegPlanes.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

struct HdrInfo;

namespace hdrconvert {

enum class RenderMode {
    Streaming,
    Direct,
};

// Which EGL display the library draws on.
enum class DisplayChoice {
    Automatic,    // a hardware device if EGL_EXT_platform_device offers one, else surfaceless
    Device,       // EGL_EXT_platform_device (a software device when no other exists)
    Surfaceless,  // Mesa's surfaceless platform
};

struct RendererOptions {
    RenderMode mode = RenderMode::Streaming;
    bool outputYuv = false;  // the three colour channels hold Y, U, V
    DisplayChoice display = DisplayChoice::Automatic;
    // Factory tuning through the platform's system information (the
    // stand-in's control): key 1302 (panel peak white) and key 1301 (photo
    // HDR tuning, decimal g PP AA BB CC). Unset keys keep whatever the
    // platform (or the environment, HDRGPU_SYSTEM_INFO_<key>) gives.
    bool setPeakWhite = false;
    int peakWhite = 0;
    bool setPhotoHdr = false;
    int photoHdr = 0;
};

// One picture: decoded planes, metadata and orientation.
struct Picture {
    const YuvPlanes* primary = nullptr;
    const YuvPlanes* gainMap = nullptr;
    GainMapMetadata metadata;
    int orientation = 1;  // EXIF 1..8
    int outputWidth = 0;  // the displayed size; 0 x 0: the oriented primary's size
    int outputHeight = 0;
};

// The rendered, oriented picture: R, G, B, A (or Y, U, V, A) per pixel, rows
// tightly packed.
struct RenderedPicture {
    int width = 0;
    int height = 0;
    std::vector<uint8_t> rgba;
};

// A picture whose primary image is still a JPEG codestream. The renderer
// decodes it where the library reads it: in streaming mode straight into the
// library's mapped upload buffers (no full-size planes of its own), in direct
// mode into planes whose storage it keeps from one picture to the next.
struct EncodedPicture {
    const uint8_t* primaryJpeg = nullptr;
    size_t primarySize = 0;
    int primaryWidth = 0;  // as its header gives it (ReadJpegHeader)
    int primaryHeight = 0;
    const YuvPlanes* gainMap = nullptr;
    GainMapMetadata metadata;
    int orientation = 1;  // EXIF 1..8
    int outputWidth = 0;  // the displayed size; 0 x 0: the oriented primary's size
    int outputHeight = 0;
    // The primary already decoded (the planes DecodeJpegPlanes gives), for a
    // picture decoded while the renderer was starting; null: the renderer
    // decodes primaryJpeg itself. The renderer takes the planes' storage: in
    // streaming mode it releases each plane once copied into its upload
    // buffer, before the draw.
    YuvPlanes* decodedPrimary = nullptr;
    // No picture follows (the batch's last): in streaming mode the pages of
    // the upload buffers mapped for the next picture are handed back to the
    // system before the draw, in direct mode the decoded primary's planes,
    // so that they do not add to the memory the draw itself needs. A picture
    // that does follow after all still works: its writes fault the pages in
    // again, or its planes are allocated again.
    bool last = false;
    // The storage gainMap points into, when the renderer may hand the gain
    // map's planes back to the system once the library holds them (the
    // batch's last picture: a full-size three-channel gain map is three
    // bytes per pixel that the draw and the writing no longer need). Null
    // keeps them. Once the picture reaches the library, the planes may be
    // gone, whether or not it renders.
    YuvPlanes* spentGainMap = nullptr;
};

// The system-information keys the options set.
constexpr int kSystemInfoKeyPhotoHdr = 1301;
constexpr int kSystemInfoKeyPeakWhite = 1302;

class Renderer {
public:
    Renderer() = default;
    ~Renderer();
    Renderer(const Renderer&) = delete;
    Renderer& operator=(const Renderer&) = delete;

    // Opens the EGL display, sets the tuning keys and (streaming mode)
    // initialises the library. False with a reason.
    bool Start(const RendererOptions& options, std::string* reason);

    // Renders one picture. False with a reason; Broken() then tells whether
    // the renderer can still take pictures.
    bool Render(const Picture& picture, RenderedPicture* out, std::string* reason);

    // Readies the library for a picture of this primary and gain-map size
    // before the picture is decoded, so that a decoder on another thread can
    // run meanwhile. Streaming mode: the intake (it defines the textures and
    // maps the upload buffers), which RenderEncoded then finds made. Direct
    // mode: the library initialised at the picture's surface size and its
    // textures' storage reserved, so that the upload only copies. Reads
    // neither the primary's codestream nor picture.gainMap. False with a
    // reason; RenderEncoded then tries again.
    bool PrepareFor(const EncodedPicture& picture, int gainMapWidth, int gainMapHeight, std::string* reason);

    // Decodes the primary image and renders the picture, which then stays in
    // the library's output surface for WriteRendered. False with a reason;
    // *primaryFailed is then true when the reason is the primary image's
    // (it cannot be decoded), which goes before any other.
    bool RenderEncoded(const EncodedPicture& picture, bool* primaryFailed, std::string* reason);

    // Writes the picture RenderEncoded left in the surface to path, read row
    // by row from the surface's mapping (turned on the CPU in direct mode).
    // Its displayed size goes to *width x *height. False with a reason (one
    // about the surface starts "rendering failed: ").
    bool WriteRendered(const std::string& path, OutputFormat format, int pngLevel, int* width, int* height,
                       std::string* reason);

    // The picture RenderEncoded left in the surface as a whole (turned on the
    // CPU in direct mode), for the writers that need all of it before the
    // first byte (the HDR formats' light levels). False with a reason.
    bool ReadRendered(RenderedPicture* out, std::string* reason);

    // Seconds the last RenderEncoded spent decoding the primary image (0 when
    // it did not get that far).
    double PrimaryDecodeSeconds() const { return primaryDecodeSeconds_; }

    // Releases the library and the display.
    void Stop();

    bool Broken() const { return broken_; }
    // "device (EGL_MESA_device_software)", "surfaceless", ...
    const std::string& DisplayName() const { return displayName_; }

private:
    bool OpenDisplay(DisplayChoice choice, std::string* reason);
    bool Init(int surfaceWidth, int surfaceHeight, bool streaming, std::string* reason);
    bool RenderStreaming(const Picture& picture, int outW, int outH, RenderedPicture* out, std::string* reason);
    bool RenderDirect(const Picture& picture, int outW, int outH, RenderedPicture* out, std::string* reason);
    // Writes what goes into the upload buffers while plane `plane` is open
    // (between its Begin and End); every buffer is mapped and the upload
    // fence has been waited on once the first Begin of a cycle returns.
    using PlaneFill = std::function<bool(int plane, uint8_t* const* mapped, std::string* reason)>;
    bool CheckMetadata(const GainMapMetadata& md, std::string* reason) const;
    bool DrawStreaming(HdrInfo* info, const int sizes[4], const PlaneFill& fill, bool last, std::string* reason);
    // Direct mode: the library's intake and draw. Planes given as spent (the
    // primary's, the gain map's) have their storage handed back between the
    // two, once the intake has copied them into the textures.
    bool DrawDirect(const Picture& picture, int outW, int outH, int* surfaceW, int* surfaceH, std::string* reason,
                    YuvPlanes* spent = nullptr, YuvPlanes* spentGainMap = nullptr);
    // Direct mode: the library initialised for a surface of this size (made
    // again when the size differs).
    bool InitDirect(int surfaceWidth, int surfaceHeight, std::string* reason);
    // RenderEncoded's two modes, once the picture has been checked.
    bool RenderEncodedDirect(const EncodedPicture& picture, int outW, int outH, bool* primaryFailed,
                             std::string* reason);
    bool RenderEncodedStreaming(const EncodedPicture& picture, int outW, int outH, bool* primaryFailed,
                                std::string* reason);
    // The streaming record of an encoded picture (no main-image pointers:
    // those planes go through the upload buffers) and its plane sizes.
    static void DescribeEncoded(const EncodedPicture& picture, const YuvPlanes& gainMap, int outW, int outH,
                                HdrInfo* info, int sizes[4]);
    // The intake for these sizes unless the buffers are mapped for them.
    bool MapUploadBuffers(HdrInfo* info, const int sizes[4], std::string* reason);

    RendererOptions options_;
    void* display_ = nullptr;  // EGLDisplay
    bool displayInitialised_ = false;
    std::string displayName_;
    bool libraryInitialised_ = false;
    bool broken_ = false;
    // Direct mode: the size the library was initialised with.
    int surfaceWidth_ = 0;
    int surfaceHeight_ = 0;
    // Streaming mode: the upload mappings of the last intake and the plane
    // sizes they were made for (main width, height, gain-map width, height).
    uint8_t** mapped_ = nullptr;
    int mappedSizes_[4] = {0, 0, 0, 0};
    // Direct mode: the primary's planes, their storage kept across pictures.
    YuvPlanes directPrimary_;
    // The picture RenderEncoded left in the surface: the surface's size and
    // the orientation still to apply (1 when the library turned it).
    bool rendered_ = false;
    int renderedWidth_ = 0;
    int renderedHeight_ = 0;
    int renderedOrientation_ = 1;
    double primaryDecodeSeconds_ = 0;
};

// The library's record for a picture (sizes, planes, metadata in log2 units,
// BT.709 / sRGB, output size and transform), as the renderer sends it.
void DescribePicture(const Picture& picture, int outputWidth, int outputHeight, bool streaming, HdrInfo* info);

// "<call> failed (result <code>)": a library call's failure as a reason.
std::string LibraryError(const char* call, int code);

// The direct mode renders at the stored orientation and turns the picture on
// the CPU afterwards: its surface has the displayed size turned back.
void DirectSurfaceSize(int orientation, int outW, int outH, int* surfaceW, int* surfaceH);

}  // namespace hdrconvert

#endif
