#include "BenchSupport.h"

#include <EGL/eglext.h>
#include <GLES3/gl3.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <streambuf>
#include <thread>
#include <tuple>

#if __has_include(<dlog_standin.h>)
#include <dlog_standin.h>
#define HAVE_DLOG_STANDIN 1
#endif

namespace hdrbench {

namespace {

EGLDisplay display = EGL_NO_DISPLAY;

constexpr double kPi = 3.14159265358979323846;

// A well-mixed 32-bit hash of a pixel's position and the plane: the grain.
inline uint32_t Hash(uint32_t x, uint32_t y, uint32_t salt)
{
    uint32_t h = x * 0x9E3779B1u ^ (y + 0x7F4A7C15u) * 0x85EBCA77u ^ salt * 0xC2B2AE3Du;
    h ^= h >> 15;
    h *= 0x2C1B3C6Du;
    h ^= h >> 12;
    h *= 0x297A2D39u;
    h ^= h >> 15;
    return h;
}

// Uniform grain in -amplitude..+amplitude codes.
inline int Grain(uint32_t x, uint32_t y, uint32_t salt, int amplitude)
{
    return static_cast<int>(Hash(x, y, salt) % static_cast<uint32_t>(2 * amplitude + 1)) - amplitude;
}

// One plane from a separable smooth part (a[x] + b[y] + c[x] * d[y]) plus
// grain; fast enough for 24 MP planes.
std::vector<uint8_t> SmoothPlane(int width, int height, const std::vector<double>& a, const std::vector<double>& b,
                                 const std::vector<double>& c, const std::vector<double>& d, uint32_t salt,
                                 int grain)
{
    std::vector<uint8_t> plane(static_cast<size_t>(width) * height);
    std::vector<int> row(width);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            row[x] = static_cast<int>(std::lround(a[x] + b[y] + c[x] * d[y]));
        }
        uint8_t* out = plane.data() + static_cast<size_t>(y) * width;
        for (int x = 0; x < width; ++x) {
            const int v = row[x] + (grain > 0 ? Grain(x, y, salt, grain) : 0);
            out[x] = static_cast<uint8_t>(std::clamp(v, 0, 255));
        }
    }
    return plane;
}

PlaneSet MakePlanes(const Workload& w)
{
    PlaneSet set;
    // Main image: a diagonal luma ramp, a soft sky-to-ground bend and a
    // wavy pattern, with +-8 codes of grain; chroma drifting around 128.
    {
        const int W = w.mainWidth;
        const int H = w.mainHeight;
        std::vector<double> ax(W), by(H), cx(W), dy(H);
        for (int x = 0; x < W; ++x) {
            const double u = (x + 0.5) / W;
            ax[x] = 30.0 + 110.0 * u;
            cx[x] = std::sin(2.0 * kPi * 7.0 * u);
        }
        for (int y = 0; y < H; ++y) {
            const double v = (y + 0.5) / H;
            by[y] = 70.0 * (1.0 - v) * (1.0 - v);
            dy[y] = 25.0 * std::cos(2.0 * kPi * 5.0 * v);
        }
        set.plane[0] = SmoothPlane(W, H, ax, by, cx, dy, 1, 8);
        for (int x = 0; x < W; ++x) {
            const double u = (x + 0.5) / W;
            ax[x] = 128.0 - 24.0 * (u - 0.5);
            cx[x] = std::cos(2.0 * kPi * 2.0 * u);
        }
        for (int y = 0; y < H; ++y) {
            const double v = (y + 0.5) / H;
            by[y] = 20.0 * (0.5 - v);
            dy[y] = 6.0 * std::sin(2.0 * kPi * 3.0 * v);
        }
        set.plane[1] = SmoothPlane(W, H, ax, by, cx, dy, 2, 3);
        for (int x = 0; x < W; ++x) {
            const double u = (x + 0.5) / W;
            ax[x] = 128.0 + 18.0 * (u - 0.5);
        }
        for (int y = 0; y < H; ++y) {
            const double v = (y + 0.5) / H;
            by[y] = -16.0 * (0.5 - v);
        }
        set.plane[2] = SmoothPlane(W, H, ax, by, cx, dy, 3, 3);
    }
    // Gain map: a bright highlight (a soft blob) on a low floor, +-4 codes
    // of grain; chroma either flat 128 or a faint tint with +-2 of grain.
    {
        const int W = w.gainWidth;
        const int H = w.gainHeight;
        std::vector<double> ax(W), by(H), cx(W), dy(H);
        for (int x = 0; x < W; ++x) {
            const double u = (x + 0.5) / W - 0.65;
            ax[x] = 24.0 + 30.0 * ((x + 0.5) / W);
            cx[x] = std::exp(-u * u / 0.03);
        }
        for (int y = 0; y < H; ++y) {
            const double v = (y + 0.5) / H - 0.3;
            by[y] = 0.0;
            dy[y] = 190.0 * std::exp(-v * v / 0.04);
        }
        set.plane[3] = SmoothPlane(W, H, ax, by, cx, dy, 4, 4);
        if (w.gainChroma) {
            for (int x = 0; x < W; ++x) {
                ax[x] = 128.0 + 10.0 * ((x + 0.5) / W - 0.5);
                cx[x] /= 190.0;
            }
            for (int y = 0; y < H; ++y) {
                dy[y] = -12.0 * dy[y] / 190.0;
            }
            set.plane[4] = SmoothPlane(W, H, ax, by, cx, dy, 5, 2);
            for (int x = 0; x < W; ++x) {
                ax[x] = 128.0 - 8.0 * ((x + 0.5) / W - 0.5);
            }
            for (int y = 0; y < H; ++y) {
                dy[y] = -dy[y];
            }
            set.plane[5] = SmoothPlane(W, H, ax, by, cx, dy, 6, 2);
        } else {
            set.plane[4].assign(static_cast<size_t>(W) * H, 128);
            set.plane[5].assign(static_cast<size_t>(W) * H, 128);
        }
    }
    return set;
}

// std::ostream over a file descriptor, unbuffered on our side (the report
// writes a line at a time).
class FdBuf : public std::streambuf {
public:
    explicit FdBuf(int fd) : fd_(fd) {}

protected:
    int_type overflow(int_type ch) override
    {
        if (ch == traits_type::eof()) {
            return traits_type::not_eof(ch);
        }
        const char c = traits_type::to_char_type(ch);
        return WriteAll(&c, 1) ? ch : traits_type::eof();
    }
    std::streamsize xsputn(const char* s, std::streamsize n) override { return WriteAll(s, n) ? n : 0; }

private:
    bool WriteAll(const char* s, std::streamsize n)
    {
        while (n > 0) {
            const ssize_t done = write(fd_, s, static_cast<size_t>(n));
            if (done <= 0) {
                return false;
            }
            s += done;
            n -= done;
        }
        return true;
    }
    int fd_;
};

#ifdef HAVE_DLOG_STANDIN
void DropLogLine(void*, log_id_t, int, const char*, const char*) {}
#endif

std::string Trim(const std::string& s)
{
    const size_t b = s.find_first_not_of(" \t");
    const size_t e = s.find_last_not_of(" \t");
    return b == std::string::npos ? std::string() : s.substr(b, e - b + 1);
}

// The machine and the driver, into the JSON report's context.
void AddMachineContext()
{
    std::ifstream cpuinfo("/proc/cpuinfo");
    std::string line;
    while (std::getline(cpuinfo, line)) {
        if (line.rfind("model name", 0) == 0) {
            const size_t colon = line.find(':');
            if (colon != std::string::npos) {
                benchmark::AddCustomContext("cpu_model", Trim(line.substr(colon + 1)));
            }
            break;
        }
    }
    const unsigned cores = std::max(1u, std::thread::hardware_concurrency());
    benchmark::AddCustomContext("cpu_cores", std::to_string(cores));
    const char* lpThreads = std::getenv("LP_NUM_THREADS");
    benchmark::AddCustomContext("llvmpipe_threads",
                                lpThreads != nullptr && *lpThreads != '\0'
                                    ? std::string(lpThreads) + " (LP_NUM_THREADS)"
                                    : std::to_string(cores) + " (default: one per core)");

    // A context of our own for the query; released right after.
    const EGLint configAttributes[] = {EGL_RED_SIZE, 8, EGL_GREEN_SIZE, 8, EGL_BLUE_SIZE, 8,
                                       EGL_SURFACE_TYPE, EGL_PBUFFER_BIT, EGL_RENDERABLE_TYPE,
                                       EGL_OPENGL_ES2_BIT, EGL_NONE};
    EGLConfig config = nullptr;
    EGLint count = 0;
    std::string renderer = "unknown";
    std::string version = "unknown";
    eglBindAPI(EGL_OPENGL_ES_API);
    if (eglChooseConfig(display, configAttributes, &config, 1, &count) == EGL_TRUE && count > 0) {
        const EGLint contextAttributes[] = {EGL_CONTEXT_CLIENT_VERSION, 3, EGL_NONE};
        EGLContext context = eglCreateContext(display, config, EGL_NO_CONTEXT, contextAttributes);
        if (context != EGL_NO_CONTEXT) {
            if (eglMakeCurrent(display, EGL_NO_SURFACE, EGL_NO_SURFACE, context) == EGL_TRUE) {
                const GLubyte* r = glGetString(GL_RENDERER);
                const GLubyte* v = glGetString(GL_VERSION);
                renderer = r != nullptr ? reinterpret_cast<const char*>(r) : renderer;
                version = v != nullptr ? reinterpret_cast<const char*>(v) : version;
                eglMakeCurrent(display, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
            }
            eglDestroyContext(display, context);
        }
    }
    benchmark::AddCustomContext("gl_renderer", renderer);
    benchmark::AddCustomContext("gl_version", version);
}

}  // namespace

const std::vector<Workload>& Workloads()
{
    static const std::vector<Workload> workloads = {
        {"phone12mp_4k", "12 MP phone photo (4032x3024, 1008x756 single-channel gain map, no offsets) to 3840x2160",
         4032, 3024, 1008, 756, false, 3840, 2160, 0.0f},
        {"phone12mp_1080p",
         "12 MP phone photo (4032x3024, 1008x756 single-channel gain map, no offsets) to 1920x1080", 4032, 3024,
         1008, 756, false, 1920, 1080, 0.0f},
        {"camera24mp_4k",
         "24 MP camera photo (6000x4000, full-size three-channel gain map, offsets 1/64) to 3840x2160", 6000, 4000,
         6000, 4000, true, 3840, 2160, 1.0f / 64.0f},
        {"camera24mp_halfgain_4k",
         "24 MP camera photo (6000x4000, half-size three-channel gain map, offsets 1/64) to 3840x2160", 6000, 4000,
         3000, 2000, true, 3840, 2160, 1.0f / 64.0f},
    };
    return workloads;
}

const PlaneSet& Planes(const Workload& workload)
{
    using Key = std::tuple<int, int, int, int, bool>;
    static std::map<Key, std::unique_ptr<PlaneSet>> cache;
    const Key key{workload.mainWidth, workload.mainHeight, workload.gainWidth, workload.gainHeight,
                  workload.gainChroma};
    auto found = cache.find(key);
    if (found == cache.end()) {
        found = cache.emplace(key, std::make_unique<PlaneSet>(MakePlanes(workload))).first;
    }
    return *found->second;
}

int PlaneWidth(const Workload& workload, int plane)
{
    return plane < 3 ? workload.mainWidth : workload.gainWidth;
}

int PlaneHeight(const Workload& workload, int plane)
{
    return plane < 3 ? workload.mainHeight : workload.gainHeight;
}

bool StreamPlanes(uint8_t** mapped, const Workload& workload, const PlaneSet& planes, Samples* libraryOnly)
{
    for (int p = 0; p < 6; ++p) {
        int plane = p;
        int width = PlaneWidth(workload, p);
        int height = PlaneHeight(workload, p);
        if (GpuGenerateHdrUpdateDataBegin(plane) == 0) {
            return false;
        }
        if (libraryOnly != nullptr) {
            libraryOnly->Stop();
        }
        std::memcpy(mapped[p], planes.data(p), static_cast<size_t>(width) * static_cast<size_t>(height));
        if (libraryOnly != nullptr) {
            libraryOnly->Start();
        }
        if (GpuGenerateHdrUpdateDataEnd(width, height) == 0) {
            return false;
        }
    }
    return true;
}

HdrInfo MakeInfo(const Workload& workload, const PlaneSet& planes)
{
    HdrInfo info{};
    info.nMainImageWidth = workload.mainWidth;
    info.nMainImageHeight = workload.mainHeight;
    info.nGainMapWidth = workload.gainWidth;
    info.nGainMapHeight = workload.gainHeight;
    for (int i = 0; i < 3; ++i) {
        info.mainImagePlanes[i] = planes.data(i);
        info.gainMapPlanes[i] = planes.data(3 + i);
        info.gainMapMin[i] = 0.0f;
        info.gainMapMax[i] = 2.0f;
        info.gamma[i] = 1.0f;
        info.offsetSdr[i] = workload.offset;
        info.offsetHdr[i] = workload.offset;
    }
    info.gainMapMin[3] = 0.0f;
    info.gainMapMax[3] = 1.0f;
    info.gamma[3] = 1.0f;
    info.offsetSdr[3] = 1.0f;
    info.offsetHdr[3] = 1.0f;
    info.hdrCapacityMin = 0.0f;
    info.hdrCapacityMax = 2.0f;
    info.MDB_V1 = 128;
    info.MDB_V2 = 256;
    info.MDB_T1 = 10;
    info.MDB_T2 = 100;
    info.GAMMA_MUL = 128;
    info.GAIN_CURVE_P0 = 0;
    info.GAIN_CURVE_P1 = 512;
    info.GAIN_CURVE_P2 = 1024;
    info.GAIN_CURVE_G0 = 256;
    info.GAIN_CURVE_G1 = 256;
    info.GAIN_CURVE_G2 = 256;
    info.gamut = hdr_color_gamut::HDR_COLORGAMUT_BT709;
    info.trfn = hdr_transfer_function::HDR_TF_SRGB;
    info.outputWidth = workload.outputWidth;
    info.outputHeight = workload.outputHeight;
    info.outputRotate = 0;
    info.outputMirror = false;
    return info;
}

EGLDisplay Display()
{
    return display;
}

std::string Name(const char* group, const char* stage, const Workload& workload)
{
    return std::string(group) + "/" + stage + "/" + workload.key;
}

void Samples::Publish(benchmark::State& state) const
{
    if (values_.empty()) {
        return;
    }
    std::vector<double> sorted = values_;
    std::sort(sorted.begin(), sorted.end());
    const size_t n = sorted.size();
    const double median = n % 2 == 1 ? sorted[n / 2] : 0.5 * (sorted[n / 2 - 1] + sorted[n / 2]);
    state.counters["best_ms"] = sorted.front();
    state.counters["median_ms"] = median;
}

void SetPictureCounters(benchmark::State& state, const Workload& workload, const Samples& samples)
{
    samples.Publish(state);
    state.counters["out_MP/s"] = benchmark::Counter(
        static_cast<double>(state.iterations()) * workload.OutputMegapixels(), benchmark::Counter::kIsRate);
    state.SetLabel(workload.title);
}

int Main(int argc, char** argv, void (*registerBenchmarks)())
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
#ifdef HAVE_DLOG_STANDIN
    dlog_standin_set_sink(DropLogLine, nullptr);  // no line reaches the system log
#endif
    display = eglGetPlatformDisplay(EGL_PLATFORM_SURFACELESS_MESA, EGL_DEFAULT_DISPLAY, nullptr);
    EGLint major = 0;
    EGLint minor = 0;
    if (display == EGL_NO_DISPLAY || eglInitialize(display, &major, &minor) != EGL_TRUE) {
        std::cerr << "no EGL display: Mesa's surfaceless platform could not be initialised\n";
        return 1;
    }
    AddMachineContext();
    registerBenchmarks();

    // The report goes to a duplicate of the original standard output; fd 1
    // itself (where the library prints every log line) goes to /dev/null.
    std::cout.flush();
    std::fflush(stdout);
    const int console = dup(STDOUT_FILENO);
    const bool colour = console >= 0 && isatty(console) != 0;
    const int null = open("/dev/null", O_WRONLY);
    if (console < 0 || null < 0 || dup2(null, STDOUT_FILENO) < 0) {
        std::cerr << "cannot redirect standard output\n";
        return 1;
    }
    close(null);
    {
        FdBuf buffer(console);
        std::ostream out(&buffer);
        benchmark::ConsoleReporter reporter(colour ? benchmark::ConsoleReporter::OO_ColorTabular
                                                   : benchmark::ConsoleReporter::OO_Tabular);
        reporter.SetOutputStream(&out);
        reporter.SetErrorStream(&out);
        benchmark::RunSpecifiedBenchmarks(&reporter);
        out.flush();
    }
    std::fflush(stdout);
    dup2(console, STDOUT_FILENO);
    close(console);
    benchmark::Shutdown();
    eglTerminate(display);
    return 0;
}

}  // namespace hdrbench
