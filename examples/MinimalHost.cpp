// A minimal host: one picture in the direct mode, then the same picture
// streamed, each read back through the buffer manager. Exits 0 on success.
#include <HdrGpuBackend.h>

#include <EGL/egl.h>
#include <EGL/eglext.h>
#include <tbm_surface.h>

#include <cstdio>
#include <cstring>
#include <vector>

namespace {

constexpr int kWidth = 64;
constexpr int kHeight = 36;

// A grey ramp with neutral chroma, and a flat gain map at its midpoint.
void FillPlanes(std::vector<uint8_t> (&main)[3], std::vector<uint8_t> (&gain)[3])
{
    for (int i = 0; i < 3; ++i) {
        main[i].assign(kWidth * kHeight, 128);
        gain[i].assign(kWidth * kHeight, 128);
    }
    for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; ++x) {
            main[0][y * kWidth + x] = static_cast<uint8_t>(x * 255 / (kWidth - 1));
        }
    }
}

HdrInfo Describe(std::vector<uint8_t> (&main)[3], std::vector<uint8_t> (&gain)[3])
{
    HdrInfo info{};
    info.nMainImageWidth = info.nGainMapWidth = kWidth;
    info.nMainImageHeight = info.nGainMapHeight = kHeight;
    for (int i = 0; i < 3; ++i) {
        info.mainImagePlanes[i] = main[i].data();
        info.gainMapPlanes[i] = gain[i].data();
        info.gainMapMin[i] = 0.0f;
        info.gainMapMax[i] = 2.0f;  // up to 4x brighter, in log2 units
        info.gamma[i] = 1.0f;
        info.offsetSdr[i] = info.offsetHdr[i] = 1.0f / 64.0f;
    }
    info.hdrCapacityMin = 0.0f;
    info.hdrCapacityMax = 2.0f;
    info.gamut = static_cast<hdr_color_gamut>(-1);       // default: BT.709
    info.trfn = static_cast<hdr_transfer_function>(-1);  // default: sRGB
    info.outputWidth = kWidth;
    info.outputHeight = kHeight;
    return info;
}

// The picture as the host finds it: RA24 holds bytes A, B, G, R per pixel.
bool CheckSurface(int handle)
{
    tbm_surface_h surface = reinterpret_cast<tbm_surface_h>(static_cast<intptr_t>(handle));
    tbm_surface_info_s info;
    if (tbm_surface_map(surface, TBM_SURF_OPTION_READ, &info) != TBM_SURFACE_ERROR_NONE) {
        std::fprintf(stderr, "cannot map the output surface\n");
        return false;
    }
    const unsigned char* first = info.planes[0].ptr;
    const unsigned char* last = info.planes[0].ptr + (kWidth - 1) * 4;
    std::printf("surface %ux%u, stride %u: left R=%d A=%d, right R=%d A=%d\n", info.width, info.height,
                info.planes[0].stride, first[3], first[0], last[3], last[0]);
    const bool ok = info.width == kWidth && first[0] == 255 && last[3] > first[3];
    tbm_surface_unmap(surface);
    return ok;
}

}  // namespace

int main()
{
    EGLDisplay display = eglGetPlatformDisplay(EGL_PLATFORM_SURFACELESS_MESA, EGL_DEFAULT_DISPLAY, nullptr);
    if (display == EGL_NO_DISPLAY || eglInitialize(display, nullptr, nullptr) != EGL_TRUE) {
        std::fprintf(stderr, "no EGL display\n");
        return 1;
    }
    std::vector<uint8_t> main[3];
    std::vector<uint8_t> gain[3];
    FillPlanes(main, gain);

    // Direct mode: planes come with the metadata.
    GpuGenerateHdrInitOption option{kWidth, kHeight, display, false, false};
    if (GpuGenerateHdrInit(option) != 0) {
        return 1;
    }
    // The planes' sizes are known before their bytes: their textures can be
    // made now (a host would decode meanwhile), so the upload only copies.
    if (GpuGenerateHdrReserveTextures(kWidth, kHeight, kWidth, kHeight) != 0) {
        GpuGenerateHdrDestroy();
        return 1;
    }
    HdrInfo info = Describe(main, gain);
    if (GpuGenerateHdrSetHdrInfo(&info) == nullptr || GpuGenerateHdr() != 0 || !CheckSurface(GpuGenerateGetTBM())) {
        GpuGenerateHdrDestroy();
        return 1;
    }
    GpuGenerateHdrDestroy();

    // Streaming mode: the first SetHdrInfo maps the upload buffers; each
    // picture is then streamed plane by plane, its metadata set, and drawn.
    option.usePBO = true;
    if (GpuGenerateHdrInit(option) != 0) {
        return 1;
    }
    uint8_t** mapped = GpuGenerateHdrSetHdrInfo(&info);
    bool ok = mapped != nullptr;
    for (int plane = 0; ok && plane < 6; ++plane) {
        int p = plane;
        int w = kWidth;
        int h = kHeight;
        ok = GpuGenerateHdrUpdateDataBegin(p) != 0;
        if (ok) {
            std::memcpy(mapped[plane], plane < 3 ? main[plane].data() : gain[plane - 3].data(), kWidth * kHeight);
            ok = GpuGenerateHdrUpdateDataEnd(w, h) != 0;
        }
    }
    ok = ok && GpuGenerateHdrSetHdrInfo(&info) != nullptr && GpuGenerateHdr() == 0 &&
         CheckSurface(GpuGenerateGetTBM());
    GpuGenerateHdrDestroy();
    // The display stays initialised for the rest of the process, as a
    // viewer's would.
    std::printf("%s\n", ok ? "ok" : "FAILED");
    return ok ? 0 : 1;
}
