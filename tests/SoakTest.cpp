// Soak of the public interface: a thousand streamed pictures on one
// initialisation, and two hundred initialisation/teardown cycles in both
// modes. After a warm-up, resident memory, open descriptors, live output
// surfaces and the engine's GL object names must not grow.
//
// The pictures go through the public entry points only; the engine's object
// names are read from the engine itself, and probed on the library's own
// context, which no public call exposes.
#include "HdrGenerate.h"
#include "HdrGpuBackend.h"
#include "HdrRender.h"

#include "EglTestEnv.h"
#include "EngineTestSupport.h"

#include <dlog_standin.h>
#include <tbm_surface.h>
#include <tbm_surface_standin.h>

#include <GLES3/gl3.h>
#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <set>
#include <string>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#define HDRGPU_SOAK_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define HDRGPU_SOAK_ASAN 1
#endif
#endif
#ifdef HDRGPU_SOAK_ASAN
// From the sanitizer runtime's allocator interface (GCC ships no header for it).
extern "C" void __sanitizer_purge_allocator(void);
extern "C" size_t __sanitizer_get_current_allocated_bytes(void);

// Freed blocks wait in AddressSanitizer's quarantine (256 MiB by default)
// before they are reused, so every picture would touch fresh memory and the
// resident figure would measure the quarantine filling up (about 17 MiB over
// the thousand pictures), not the library. A small quarantine still catches
// uses of recently freed blocks and lets the heap settle. ASAN_OPTIONS, when
// set, takes precedence.
extern "C" const char* __asan_default_options()
{
    return "quarantine_size_mb=4";
}
#endif

namespace {

constexpr long kRssGrowthLimitKiB = 16 * 1024;

// ---------------------------------------------------------------------------
// Quiet logging: the library logs dozens of lines per picture. A sink counts
// them instead of keeping them, and standard output goes to /dev/null.
class QuietLogs {
public:
    QuietLogs()
    {
        std::fflush(stdout);
        saved_ = dup(STDOUT_FILENO);
        const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (saved_ >= 0 && null >= 0) {
            dup2(null, STDOUT_FILENO);
        }
        if (null >= 0) {
            close(null);
        }
        dlog_standin_set_sink(Count, this);
    }
    ~QuietLogs()
    {
        dlog_standin_set_sink(nullptr, nullptr);
        std::fflush(stdout);
        if (saved_ >= 0) {
            dup2(saved_, STDOUT_FILENO);
            close(saved_);
        }
    }
    QuietLogs(const QuietLogs&) = delete;
    QuietLogs& operator=(const QuietLogs&) = delete;

    long lines() const { return lines_; }

private:
    static void Count(void* user, log_id_t, int, const char*, const char*)
    {
        ++static_cast<QuietLogs*>(user)->lines_;  // runs under the logger's lock
    }

    int saved_ = -1;
    long lines_ = 0;
};

// ---------------------------------------------------------------------------
// What the process holds.
struct Usage {
    long rssKiB = 0;
    long heapKiB = 0;  // blocks allocated and not freed
    int descriptors = 0;
    int surfaces = 0;
};

// Gives freed memory back to the system first, so that only memory still in
// use counts (under AddressSanitizer this also drains its quarantine, which
// otherwise holds up to hundreds of MiB of freed blocks).
void ReleaseFreeMemory()
{
#ifdef HDRGPU_SOAK_ASAN
    __sanitizer_purge_allocator();
#else
    malloc_trim(0);
#endif
}

long ResidentKiB()
{
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.compare(0, 6, "VmRSS:") == 0) {
            return std::stol(line.substr(6));
        }
    }
    return -1;
}

int OpenDescriptors()
{
    int count = 0;
    if (DIR* dir = opendir("/proc/self/fd")) {
        while (const dirent* entry = readdir(dir)) {
            if (entry->d_name[0] != '.') {
                ++count;
            }
        }
        closedir(dir);
    }
    return count - 1;  // the directory's own descriptor
}

Usage Measure()
{
    std::fflush(stdout);
    ReleaseFreeMemory();
    Usage usage;
    usage.rssKiB = ResidentKiB();
#ifdef HDRGPU_SOAK_ASAN
    usage.heapKiB = static_cast<long>(__sanitizer_get_current_allocated_bytes() / 1024);
#else
    const struct mallinfo2 heap = mallinfo2();
    usage.heapKiB = static_cast<long>((heap.uordblks + heap.hblkhd) / 1024);
#endif
    usage.descriptors = OpenDescriptors();
    usage.surfaces = tbm_standin_live_surface_count();
    return usage;
}

// ---------------------------------------------------------------------------
// Pictures: three slightly different sizes, four contents each.
struct Size {
    int mainWidth, mainHeight, gainWidth, gainHeight;
};
constexpr Size kSizes[] = {{32, 18, 16, 9}, {34, 18, 17, 9}, {32, 20, 16, 10}};
constexpr int kSizeCount = 3;
constexpr int kContentCount = 4;

struct Picture {
    hdrtest::Planes planes;
    int32_t apl = 0;  // truncated mean of the main luma
};

std::vector<Picture> MakePictures()
{
    std::vector<Picture> pictures;
    for (int s = 0; s < kSizeCount; ++s) {
        for (int c = 0; c < kContentCount; ++c) {
            Picture picture;
            picture.planes =
                hdrtest::MakePlanes(kSizes[s].mainWidth, kSizes[s].mainHeight, kSizes[s].gainWidth,
                                    kSizes[s].gainHeight, 3 * s + c);
            uint64_t sum = 0;
            for (uint8_t v : picture.planes.main[0]) {
                sum += v;
            }
            picture.apl = static_cast<int32_t>(sum / picture.planes.main[0].size());
            pictures.push_back(std::move(picture));
        }
    }
    return pictures;
}

// The size changes every seven pictures, the content with every picture.
int SizeOf(int index)
{
    return (index / 7) % kSizeCount;
}
const Picture& PictureAt(const std::vector<Picture>& pictures, int index)
{
    return pictures[SizeOf(index) * kContentCount + index % kContentCount];
}

// The metadata of a picture, its planes given for the direct mode; the output
// has the main image's size.
HdrInfo Describe(const hdrtest::Planes& planes)
{
    HdrInfo info{};
    info.nMainImageWidth = planes.mainWidth;
    info.nMainImageHeight = planes.mainHeight;
    info.nGainMapWidth = planes.gainWidth;
    info.nGainMapHeight = planes.gainHeight;
    for (int i = 0; i < 3; ++i) {
        info.mainImagePlanes[i] = planes.main[i].data();
        info.gainMapPlanes[i] = planes.gain[i].data();
        info.gainMapMin[i] = 0.0f;
        info.gainMapMax[i] = 2.0f;
        info.gamma[i] = 1.0f;
        info.offsetSdr[i] = 1.0f / 64.0f;
        info.offsetHdr[i] = 1.0f / 64.0f;
    }
    info.hdrCapacityMin = 0.0f;
    info.hdrCapacityMax = 2.0f;
    info.gamut = static_cast<hdr_color_gamut>(-1);
    info.trfn = static_cast<hdr_transfer_function>(-1);
    info.outputWidth = planes.mainWidth;
    info.outputHeight = planes.mainHeight;
    return info;
}

// The output as the host finds it: a surface handle of the expected size.
::testing::AssertionResult OutputIs(int width, int height)
{
    const int handle = GpuGenerateGetTBM();
    if (handle == -1) {
        return ::testing::AssertionFailure() << "no output surface";
    }
    tbm_surface_h surface = reinterpret_cast<tbm_surface_h>(static_cast<intptr_t>(handle));
    if (tbm_surface_get_width(surface) != width || tbm_surface_get_height(surface) != height) {
        return ::testing::AssertionFailure() << "output " << tbm_surface_get_width(surface) << "x"
                                             << tbm_surface_get_height(surface) << ", expected " << width
                                             << "x" << height;
    }
    return ::testing::AssertionSuccess();
}

// One streamed picture in the order the host is told to use: a picture
// whose sizes differ from the previous one (or the first one) has its
// metadata set before it is streamed, which maps the buffers at its sizes;
// then its six planes are streamed, its metadata set (which maps the
// buffers for the next picture) and it is drawn.
// mapped is the array of upload mappings that SetHdrInfo returned.
::testing::AssertionResult StreamPicture(const Picture& picture, bool newSizes, uint8_t**& mapped)
{
    const hdrtest::Planes& planes = picture.planes;
    HdrInfo info = Describe(planes);
    for (int i = 0; i < 3; ++i) {
        info.mainImagePlanes[i] = nullptr;  // streamed, not given
        info.gainMapPlanes[i] = nullptr;
    }
    if (newSizes) {
        mapped = GpuGenerateHdrSetHdrInfo(&info);
        if (mapped == nullptr) {
            return ::testing::AssertionFailure() << "metadata before streaming new sizes refused";
        }
    }
    if (mapped == nullptr) {
        return ::testing::AssertionFailure() << "no upload mappings";
    }
    for (int plane = 0; plane < 6; ++plane) {
        const bool isMain = plane < 3;
        const std::vector<uint8_t>& bytes = isMain ? planes.main[plane] : planes.gain[plane - 3];
        int p = plane;
        int width = isMain ? planes.mainWidth : planes.gainWidth;
        int height = isMain ? planes.mainHeight : planes.gainHeight;
        if (GpuGenerateHdrUpdateDataBegin(p) == 0) {
            return ::testing::AssertionFailure() << "UpdateDataBegin(" << plane << ") failed";
        }
        if (mapped[plane] == nullptr) {
            return ::testing::AssertionFailure() << "plane " << plane << " not mapped";
        }
        std::memcpy(mapped[plane], bytes.data(), bytes.size());
        if (GpuGenerateHdrUpdateDataEnd(width, height) == 0) {
            return ::testing::AssertionFailure() << "UpdateDataEnd(" << plane << ") failed";
        }
    }
    uint8_t** const next = GpuGenerateHdrSetHdrInfo(&info);
    if (next == nullptr) {
        return ::testing::AssertionFailure() << "metadata after streaming refused";
    }
    if (next != mapped) {
        return ::testing::AssertionFailure() << "the upload mappings moved";
    }
    const int result = GpuGenerateHdr();
    if (result != 0) {
        return ::testing::AssertionFailure() << "GpuGenerateHdr returned " << result;
    }
    if (HdrGenerate::GetInstance()->apl != picture.apl) {
        return ::testing::AssertionFailure() << "average level " << HdrGenerate::GetInstance()->apl
                                             << ", streamed picture has " << picture.apl;
    }
    return OutputIs(planes.mainWidth, planes.mainHeight);
}

// One picture in the direct mode: its planes come with its metadata.
::testing::AssertionResult DirectPicture(const Picture& picture, int outputWidth, int outputHeight)
{
    HdrInfo info = Describe(picture.planes);
    if (GpuGenerateHdrSetHdrInfo(&info) == nullptr) {
        return ::testing::AssertionFailure() << "metadata refused";
    }
    const int result = GpuGenerateHdr();
    if (result != 0) {
        return ::testing::AssertionFailure() << "GpuGenerateHdr returned " << result;
    }
    return OutputIs(outputWidth, outputHeight);
}

// ---------------------------------------------------------------------------
// The engine's GL object names.
struct Names {
    std::set<GLuint> textures;
    std::set<GLuint> buffers;
    std::set<GLuint> framebuffers;
    std::set<GLuint> vertexArrays;

    void Add(const HdrGenerate& engine)
    {
        textures.insert(engine.inputTextures, engine.inputTextures + DATA_TYPE_COUNT);
        textures.insert(engine.outputTexture);
        if (engine.initOption.usePBO) {
            buffers.insert(engine.pixelBuffers, engine.pixelBuffers + DATA_TYPE_COUNT);
        }
        buffers.insert(engine.vertexBuffer);
        buffers.insert(engine.indexBuffer);
        framebuffers.insert(engine.framebuffer);
        vertexArrays.insert(engine.vertexArray);
    }
    static GLuint Max(const std::set<GLuint>& names) { return names.empty() ? 0 : *names.rbegin(); }
    GLuint Highest() const
    {
        return std::max({Max(textures), Max(buffers), Max(framebuffers), Max(vertexArrays)});
    }
};

std::string Summary(const std::set<GLuint>& names)
{
    std::string text = std::to_string(names.size()) + " names, highest " + std::to_string(Names::Max(names));
    return text;
}

// Live objects on the library's context, probed over names 1..limit.
struct LiveObjects {
    int textures = 0;
    int buffers = 0;
    int framebuffers = 0;
    int vertexArrays = 0;
    bool ok = false;
};

LiveObjects ProbeLibraryContext(GLuint limit)
{
    LiveObjects live;
    HdrRender* render = HdrRender::GetInstance();
    if (!render->Bind()) {
        return live;
    }
    for (GLuint name = 1; name <= limit; ++name) {
        live.textures += glIsTexture(name) ? 1 : 0;
        live.buffers += glIsBuffer(name) ? 1 : 0;
        live.framebuffers += glIsFramebuffer(name) ? 1 : 0;
        live.vertexArrays += glIsVertexArray(name) ? 1 : 0;
    }
    live.ok = glGetError() == GL_NO_ERROR;
    live.ok = render->Unbind() && live.ok;
    return live;
}

void Report(const char* what, const Usage& before, const Usage& after, double seconds, long logLines)
{
    const long growth = after.rssKiB - before.rssKiB;
    ::testing::Test::RecordProperty(std::string(what) + "_rss_before_kib", std::to_string(before.rssKiB));
    ::testing::Test::RecordProperty(std::string(what) + "_rss_after_kib", std::to_string(after.rssKiB));
    ::testing::Test::RecordProperty(std::string(what) + "_rss_growth_kib", std::to_string(growth));
    ::testing::Test::RecordProperty(std::string(what) + "_heap_before_kib", std::to_string(before.heapKiB));
    ::testing::Test::RecordProperty(std::string(what) + "_heap_after_kib", std::to_string(after.heapKiB));
    ::testing::Test::RecordProperty(std::string(what) + "_fds_before", before.descriptors);
    ::testing::Test::RecordProperty(std::string(what) + "_fds_after", after.descriptors);
    ::testing::Test::RecordProperty(std::string(what) + "_surfaces_before", before.surfaces);
    ::testing::Test::RecordProperty(std::string(what) + "_surfaces_after", after.surfaces);
    ::testing::Test::RecordProperty(std::string(what) + "_seconds", std::to_string(seconds));
    std::cout << "[ soak     ] " << what << ": RSS " << before.rssKiB << " KiB -> " << after.rssKiB << " KiB ("
              << (growth >= 0 ? "+" : "") << growth << " KiB), heap in use " << before.heapKiB << " KiB -> "
              << after.heapKiB << " KiB, descriptors " << before.descriptors << " -> "
              << after.descriptors << ", live surfaces " << before.surfaces << " -> " << after.surfaces << ", "
              << logLines << " log lines, " << seconds << " s" << std::endl;
}

double SecondsSince(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

class Soak : public hdrtest::EglTest {};

// A thousand streamed pictures on one initialisation, sizes changing every
// seven pictures; every draw succeeds and nothing grows.
TEST_F(Soak, StreamingThousandPictures)
{
    constexpr int kWarmUp = 24;  // covers every size and content
    constexpr int kPictures = 1000;
    const std::vector<Picture> pictures = MakePictures();
    const int surfacesAtStart = tbm_standin_live_surface_count();
    const auto start = std::chrono::steady_clock::now();

    Usage before;
    Usage after;
    Names warmNames;
    Names soakNames;
    LiveObjects warmLive;
    LiveObjects soakLive;
    long logLines = 0;
    {
        QuietLogs quiet;
        GpuGenerateHdrInitOption option{0, 0, display_, false, true};
        ASSERT_EQ(GpuGenerateHdrInit(option), 0);
        uint8_t** mapped = nullptr;

        for (int i = 0; i < kWarmUp; ++i) {
            const bool newSizes = i == 0 || SizeOf(i) != SizeOf(i - 1);
            ASSERT_TRUE(StreamPicture(PictureAt(pictures, i), newSizes, mapped)) << "warm-up picture " << i;
            warmNames.Add(*HdrGenerate::GetInstance());
        }
        warmLive = ProbeLibraryContext(warmNames.Highest() + 256);
        before = Measure();

        for (int i = kWarmUp; i < kWarmUp + kPictures; ++i) {
            const bool newSizes = SizeOf(i) != SizeOf(i - 1);
            ASSERT_TRUE(StreamPicture(PictureAt(pictures, i), newSizes, mapped)) << "picture " << i;
            soakNames.Add(*HdrGenerate::GetInstance());
        }
        after = Measure();
        soakLive = ProbeLibraryContext(std::max(warmNames.Highest(), soakNames.Highest()) + 256);

        GpuGenerateHdrDestroy();
        logLines = quiet.lines();
    }
    const double seconds = SecondsSince(start);
    Report("streaming", before, after, seconds, logLines);
    std::cout << "[ soak     ] streaming GL names: warm-up textures " << Summary(warmNames.textures) << ", buffers "
              << Summary(warmNames.buffers) << ", framebuffers " << Summary(warmNames.framebuffers)
              << "; soak textures " << Summary(soakNames.textures) << ", buffers " << Summary(soakNames.buffers)
              << ", framebuffers " << Summary(soakNames.framebuffers) << "; live after warm-up " << warmLive.textures
              << " textures, " << warmLive.buffers << " buffers, " << warmLive.framebuffers << " framebuffers, "
              << warmLive.vertexArrays << " vertex arrays; after soak " << soakLive.textures << ", "
              << soakLive.buffers << ", " << soakLive.framebuffers << ", " << soakLive.vertexArrays << std::endl;

    EXPECT_LT(after.rssKiB - before.rssKiB, kRssGrowthLimitKiB) << "resident memory grew";
    EXPECT_EQ(after.descriptors, before.descriptors) << "descriptors leaked";
    EXPECT_EQ(after.surfaces, before.surfaces) << "output surfaces leaked";
    EXPECT_EQ(before.surfaces, surfacesAtStart + 1) << "exactly the current output surface is live";
    EXPECT_EQ(tbm_standin_live_surface_count(), surfacesAtStart) << "teardown left surfaces behind";

    // The engine's textures, buffers and vertex array are made once: the
    // soak uses exactly the names of the warm-up. The framebuffer is made
    // anew with every output surface, its old one deleted; drivers need not
    // hand a deleted name out again (Mesa does not), so its names may climb,
    // but only one framebuffer is ever live. The number of live objects of
    // every kind on the library's context stays what it was after the warm-up.
    EXPECT_EQ(soakNames.textures, warmNames.textures);
    EXPECT_EQ(soakNames.buffers, warmNames.buffers);
    EXPECT_EQ(soakNames.vertexArrays, warmNames.vertexArrays);
    ASSERT_TRUE(warmLive.ok);
    ASSERT_TRUE(soakLive.ok);
    EXPECT_EQ(soakLive.textures, warmLive.textures);
    EXPECT_EQ(soakLive.buffers, warmLive.buffers);
    EXPECT_EQ(soakLive.framebuffers, warmLive.framebuffers);
    EXPECT_EQ(soakLive.vertexArrays, warmLive.vertexArrays);
    EXPECT_EQ(warmLive.framebuffers, 1);
}

// Two hundred initialisations and teardowns, alternating the direct and the
// streaming mode (and RGB and YUV output), one picture each.
TEST_F(Soak, InitDestroyCycles)
{
    constexpr int kWarmUp = 4;
    constexpr int kCycles = 200;
    const std::vector<Picture> pictures = MakePictures();
    const int surfacesAtStart = tbm_standin_live_surface_count();
    const auto start = std::chrono::steady_clock::now();

    Usage before;
    Usage after;
    Names warmNames[2];  // per mode: a fresh context hands out the same names
    Names cycleNames[2];
    long logLines = 0;
    int surfacesLeft = 0;
    {
        QuietLogs quiet;
        for (int cycle = 0; cycle < kWarmUp + kCycles; ++cycle) {
            if (cycle == kWarmUp) {
                before = Measure();
            }
            const bool streaming = cycle % 2 == 1;
            const bool yuv = (cycle / 2) % 2 == 1;
            const Picture& picture = PictureAt(pictures, cycle);
            const Size& size = kSizes[SizeOf(cycle)];
            GpuGenerateHdrInitOption option{size.mainWidth + 8, size.mainHeight + 4, display_, yuv, streaming};
            ASSERT_EQ(GpuGenerateHdrInit(option), 0) << "cycle " << cycle;
            if (streaming) {
                uint8_t** mapped = nullptr;
                ASSERT_TRUE(StreamPicture(picture, true, mapped)) << "cycle " << cycle;
            } else {
                ASSERT_TRUE(DirectPicture(picture, option.surfaceWidth, option.surfaceHeight)) << "cycle " << cycle;
            }
            (cycle < kWarmUp ? warmNames : cycleNames)[streaming ? 1 : 0].Add(*HdrGenerate::GetInstance());
            GpuGenerateHdrDestroy();
            if (tbm_standin_live_surface_count() != surfacesAtStart) {
                ++surfacesLeft;
            }
        }
        after = Measure();
        logLines = quiet.lines();
    }
    const double seconds = SecondsSince(start);
    Report("init_destroy", before, after, seconds, logLines);
    for (int mode = 0; mode < 2; ++mode) {
        std::cout << "[ soak     ] " << (mode == 1 ? "streaming" : "direct") << " cycles GL names: textures "
                  << Summary(cycleNames[mode].textures) << ", buffers " << Summary(cycleNames[mode].buffers)
                  << ", framebuffers " << Summary(cycleNames[mode].framebuffers) << ", vertex arrays "
                  << Summary(cycleNames[mode].vertexArrays) << std::endl;
    }

    EXPECT_LT(after.rssKiB - before.rssKiB, kRssGrowthLimitKiB) << "resident memory grew";
    EXPECT_EQ(after.descriptors, before.descriptors) << "descriptors leaked";
    EXPECT_EQ(after.surfaces, surfacesAtStart) << "output surfaces leaked";
    EXPECT_EQ(surfacesLeft, 0) << "cycles whose teardown left a surface behind";
    for (int mode = 0; mode < 2; ++mode) {
        EXPECT_EQ(cycleNames[mode].textures, warmNames[mode].textures) << "mode " << mode;
        EXPECT_EQ(cycleNames[mode].buffers, warmNames[mode].buffers) << "mode " << mode;
        EXPECT_EQ(cycleNames[mode].framebuffers, warmNames[mode].framebuffers) << "mode " << mode;
        EXPECT_EQ(cycleNames[mode].vertexArrays, warmNames[mode].vertexArrays) << "mode " << mode;
    }
}

}  // namespace
