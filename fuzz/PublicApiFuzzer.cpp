// Fuzz target of the public interface, driven as a careless or hostile host
// would: each input is a short program of calls (initialisation in either
// mode, metadata intakes, Begin/write/End in any order and for any plane,
// texture reservations, both draws, the surface, the render path,
// teardown), with small picture sizes and probes at the limits (0, negative,
// beyond the texture size, products beyond 32 bits), arbitrary float
// metadata, gamut and transfer codes, rotations and mirrors.
//
// The host keeps its side of the contract and nothing more: after a
// successful intake in the streaming mode it writes every byte of the planes
// that intake described into the buffers it was handed; in the direct mode
// it gives planes of exactly the sizes it claims whenever those are small,
// and one byte for the limit probes, which the library must refuse before
// reading anything. AddressSanitizer then reports any buffer that is shorter
// than the plane it was handed out for. Every program ends with teardown, so
// that inputs do not depend on each other.
#include <HdrGpuBackend.h>

#include <dlog_standin.h>

#include <EGL/egl.h>
#include <EGL/eglext.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <vector>

namespace {

EGLDisplay gDisplay = EGL_NO_DISPLAY;

void DropLine(void*, log_id_t, int, const char*, const char*) {}

// Reads the program; past the end every value is 0.
class Program {
public:
    Program(const uint8_t* data, size_t size) : data_(data), size_(size) {}

    bool Done() const { return pos_ >= size_; }

    uint8_t Byte() { return pos_ < size_ ? data_[pos_++] : 0; }

    uint32_t Word()
    {
        uint32_t value = 0;
        for (int i = 0; i < 4; ++i) {
            value = (value << 8) | Byte();
        }
        return value;
    }

    float Float()
    {
        const uint32_t bits = Word();
        float value;
        std::memcpy(&value, &bits, sizeof value);
        return value;
    }

    // A picture side: mostly small, sometimes a probe at a limit.
    int32_t Side()
    {
        static const int32_t kProbes[] = {0,     -1,    std::numeric_limits<int32_t>::min(),
                                          std::numeric_limits<int32_t>::max(), 65536, 65537, 46341,
                                          16385, 20000, 70000};
        const uint8_t b = Byte();
        if (b >= 0xF0) {
            return kProbes[(b - 0xF0) % (sizeof kProbes / sizeof kProbes[0])];
        }
        return 1 + b % 64;
    }

    // A code around a valid range [0, count).
    int32_t Code(int count) { return static_cast<int32_t>(Byte() % (count + 2)) - 1; }

private:
    const uint8_t* data_;
    size_t size_;
    size_t pos_ = 0;
};

bool Small(int32_t width, int32_t height)
{
    return width >= 1 && height >= 1 && static_cast<int64_t>(width) * height <= 64 * 64;
}

struct Host {
    HdrInfo info{};
    // Plane memory of the direct mode: as large as the sizes claim when
    // they are small, one byte otherwise.
    std::vector<uint8_t> mainPlane;
    std::vector<uint8_t> gainMapPlane;
    // What the last successful intake handed out and described.
    uint8_t** mappings = nullptr;
    int32_t sizes[2][2] = {{0, 0}, {0, 0}};

    void Describe(Program& p)
    {
        std::memset(&info, 0, sizeof info);
        info.nMainImageWidth = p.Side();
        info.nMainImageHeight = p.Side();
        info.nGainMapWidth = p.Side();
        info.nGainMapHeight = p.Side();
        const uint8_t fill = p.Byte();
        mainPlane.assign(Small(info.nMainImageWidth, info.nMainImageHeight)
                             ? static_cast<size_t>(info.nMainImageWidth) * info.nMainImageHeight
                             : 1,
                         fill);
        gainMapPlane.assign(Small(info.nGainMapWidth, info.nGainMapHeight)
                                ? static_cast<size_t>(info.nGainMapWidth) * info.nGainMapHeight
                                : 1,
                            static_cast<uint8_t>(fill ^ 0x5A));
        const uint8_t missing = p.Byte();
        for (int i = 0; i < 3; ++i) {
            info.mainImagePlanes[i] = (missing & (1u << i)) != 0 ? nullptr : mainPlane.data();
            info.gainMapPlanes[i] = (missing & (8u << i)) != 0 ? nullptr : gainMapPlane.data();
        }
        // Metadata: plain values, or arbitrary bit patterns.
        const bool arbitrary = (p.Byte() & 3) == 0;
        for (int c = 0; c < 4; ++c) {
            info.gainMapMin[c] = arbitrary ? p.Float() : 0.0f;
            info.gainMapMax[c] = arbitrary ? p.Float() : 1.0f + (p.Byte() % 8);
            info.gamma[c] = arbitrary ? p.Float() : 1.0f;
            info.offsetSdr[c] = arbitrary ? p.Float() : 1.0f / 64;
            info.offsetHdr[c] = arbitrary ? p.Float() : 1.0f / 64;
        }
        info.hdrCapacityMin = arbitrary ? p.Float() : 0.0f;
        info.hdrCapacityMax = arbitrary ? p.Float() : 1.0f + (p.Byte() % 8);
        info.gamut = static_cast<hdr_color_gamut>(p.Code(3));
        info.trfn = static_cast<hdr_transfer_function>(p.Code(4));
        info.outputWidth = p.Side();
        info.outputHeight = p.Side();
        info.outputRotate = p.Code(4);
        info.outputMirror = (p.Byte() & 1) != 0;
    }

    // The host fills every byte of a plane the last intake described.
    void Write(int plane)
    {
        if (mappings == nullptr || plane < 0 || plane > 5 || mappings[plane] == nullptr) {
            return;
        }
        const int32_t* size = sizes[plane < 3 ? 0 : 1];
        std::memset(mappings[plane], 0x80 + plane, static_cast<size_t>(size[0]) * static_cast<size_t>(size[1]));
    }
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // The library logs every step to the logger and to standard output.
    dlog_standin_set_sink(DropLine, nullptr);
    const int null = open("/dev/null", O_WRONLY);
    if (null >= 0) {
        std::fflush(stdout);
        dup2(null, STDOUT_FILENO);
        close(null);
    }
    gDisplay = eglGetPlatformDisplay(EGL_PLATFORM_SURFACELESS_MESA, EGL_DEFAULT_DISPLAY, nullptr);
    if (gDisplay == EGL_NO_DISPLAY || !eglInitialize(gDisplay, nullptr, nullptr)) {
        std::fprintf(stderr, "no surfaceless EGL display\n");
        std::abort();
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Program p(data, size);
    const uint8_t flags = p.Byte();
    GpuGenerateHdrInitOption option{};
    option.usePBO = (flags & 1) != 0;
    option.outputYUV = (flags & 2) != 0;
    option.surfaceWidth = 1 + p.Byte() % 32;
    option.surfaceHeight = 1 + p.Byte() % 32;
    option.eglDisplay = gDisplay;
    Host host;

    GpuGenerateHdrInit(option);
    for (int step = 0; step < 24 && !p.Done(); ++step) {
        switch (p.Byte() % 13) {
        case 0:
        case 1: {
            host.Describe(p);
            uint8_t** result = GpuGenerateHdrSetHdrInfo(&host.info);
            if (result != nullptr) {
                host.mappings = result;
                host.sizes[0][0] = host.info.nMainImageWidth;
                host.sizes[0][1] = host.info.nMainImageHeight;
                host.sizes[1][0] = host.info.nGainMapWidth;
                host.sizes[1][1] = host.info.nGainMapHeight;
            }
            break;
        }
        case 2: {
            // A whole plane the way the guide says: Begin, write, End.
            int plane = p.Code(6);
            const int begun = GpuGenerateHdrUpdateDataBegin(plane);
            if (begun != 0) {
                host.Write(plane);
            }
            int32_t* s = host.sizes[plane >= 3 ? 1 : 0];
            int width = (p.Byte() & 7) == 0 ? p.Side() : s[0];
            int height = (p.Byte() & 7) == 0 ? p.Side() : s[1];
            GpuGenerateHdrUpdateDataEnd(width, height);
            break;
        }
        case 3: {
            int plane = p.Code(6);
            GpuGenerateHdrUpdateDataBegin(plane);
            break;
        }
        case 4: {
            int width = p.Side();
            int height = p.Side();
            GpuGenerateHdrUpdateDataEnd(width, height);
            break;
        }
        case 5:
            GpuGenerateHdr();
            break;
        case 6:
            host.Describe(p);
            GpuGenerateHdr(&host.info);
            // In the streaming mode the one-shot's intake maps the buffers
            // for its own record when it succeeds, and its result does not
            // say whether it did: the host knows the sizes again only after
            // its next successful GpuGenerateHdrSetHdrInfo.
            host.mappings = nullptr;
            break;
        case 7:
            GpuGenerateGetTBM();
            break;
        case 8:
            GpuRender();
            break;
        case 9:
            GpuGenerateHdrSetHdrInfo(nullptr);
            GpuGenerateHdr(nullptr);
            break;
        case 10:
            // The mappings die with the engine.
            GpuGenerateHdrDestroy();
            host.mappings = nullptr;
            break;
        case 11: {
            // Direct-mode textures of any sizes, the probes at the limits included.
            const int32_t mainWidth = p.Side();
            const int32_t mainHeight = p.Side();
            const int32_t gainMapWidth = p.Side();
            const int32_t gainMapHeight = p.Side();
            GpuGenerateHdrReserveTextures(mainWidth, mainHeight, gainMapWidth, gainMapHeight);
            break;
        }
        default:
            if (GpuGenerateHdrInit(option) == 0) {
                host.mappings = nullptr;
            }
            break;
        }
    }
    GpuGenerateHdrDestroy();
    // Begin leaves the library's context current on failure; the next
    // program starts from no binding.
    eglMakeCurrent(gDisplay, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
    return 0;
}
