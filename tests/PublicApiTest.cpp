// The library as a host sees it: the nine public entry points with their
// result codes and log lines, the call sequence and its four states
// (uninitialised, initialised, metadata set, picture generated), the host's
// own EGL binding around every call, several host threads, bad input, and
// whole host cycles whose pictures are compared pixel by pixel with the CPU
// model of the gain-map pass.
//
// Everything goes through the public header, the test harness and the
// platform stand-ins' controls. The one exception is marked where it occurs:
// the render path's quad (HdrRender::UpdateAttribs) has no public entry
// point, so those tests call the registry directly.
//
// Log lines are compared by their message part; a message whose pattern
// holds "%d" for the source line is compared with the line number that the
// line's own "file: function(line) > " prefix carries.
#include <HdrGpuBackend.h>

#include "ConstantsModel.h"
#include "EglTestEnv.h"
#include "Faults.h"
#include "GainMapModel.h"
#include "LogCapture.h"

#include <EGL/egl.h>
#include <GLES3/gl3.h>
#include <dlog.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <system_info_standin.h>
#include <tbm_surface.h>
#include <tbm_surface_standin.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

namespace {

namespace faults = hdrtest::faults;
using hdrtest::ModelPixel;
using hdrtest::PictureMetadata;
using hdrtest::PixelSamples;
using hdrtest::TuningValues;

// How far a value sampled through a mediump sampler may be from code / 255,
// and the codes allowed beyond the model's interval for single-precision
// arithmetic: the same bounds as the gain-map program's own pixel tests.
constexpr double kSamplerError = 2.5e-3;
constexpr int kArithmeticCodes = 1;

constexpr int kPhotoHdrKey = 1301;
constexpr int kPeakWhiteKey = 1302;

const char* const kNotInitialised = "%d ERROR: Not call GpuGenerateHdrInit or GpuGenerateHdrInit fail\n";
const char* const kNotGenerated = "%d ERROR: Not call GpuGenerateHdr or GpuGenerateHdr fail\n";
const char* const kNoInfo = "%d ERROR: Not call GpuGenerateHdrSetHdrInfo or GpuGenerateHdrSetHdrInfo fail\n";
const char* const kNullRecord = "%d ERROR: hdrInfo == nullptr\n";
const char* const kNoContext = "%d ERROR: no context\n";
const char* const kInitTwice =
    "%d ERROR: GpuGenerateHdrInit called twice, Please call GpuGenerateHdrDestroy() before GpuGenerateHdrInit\n";
const char* const kGamutAssertion =
    "HDR_ASSERT[UpdateUniform:%d] : hdrInfo.gamut == hdr_color_gamut::HDR_COLORGAMUT_BT709 || "
    "hdrInfo.gamut == hdr_color_gamut::HDR_COLORGAMUT_P3 || hdrInfo.gamut == "
    "hdr_color_gamut::HDR_COLORGAMUT_BT2100";
const char* const kTrfnAssertion =
    "HDR_ASSERT[UpdateUniform:%d] : hdrInfo.trfn == hdr_transfer_function::HDR_TF_LINEAR || "
    "hdrInfo.trfn == hdr_transfer_function::HDR_TF_HLG || hdrInfo.trfn == "
    "hdr_transfer_function::HDR_TF_PQ || hdrInfo.trfn == hdr_transfer_function::HDR_TF_SRGB";

// ---------------------------------------------------------------------------
// Log recording
// ---------------------------------------------------------------------------

struct LogLine {
    int logId;
    int priority;
    std::string tag;
    hdrtest::ParsedLine parsed;
};

// True when the message is pattern with its first "%d" (if any) replaced by
// the line number of the line's own prefix.
bool Matches(const hdrtest::ParsedLine& line, const std::string& pattern)
{
    std::string expected = pattern;
    const size_t at = expected.find("%d");
    if (at != std::string::npos) {
        expected.replace(at, 2, std::to_string(line.line));
    }
    return line.message == expected;
}

// Everything the library logs while a call runs, collected across calls.
// Standard output is captured only for the duration of each call, so the
// test's own failure messages are never swallowed.
class Recorder {
public:
    template <typename Call>
    auto operator()(Call&& call)
    {
        hdrtest::LogCapture capture;
        if constexpr (std::is_void_v<std::invoke_result_t<Call>>) {
            call();
            Take(capture);
        } else {
            auto result = call();
            Take(capture);
            return result;
        }
    }

    void Clear()
    {
        lines_.clear();
        stdout_.clear();
    }
    const std::vector<LogLine>& lines() const { return lines_; }
    const std::string& Stdout() const { return stdout_; }

    std::vector<std::string> Messages() const
    {
        std::vector<std::string> messages;
        for (const LogLine& l : lines_) {
            messages.push_back(l.parsed.message);
        }
        return messages;
    }

    // Index of the first line at or after from whose function and message
    // match; -1 when there is none.
    int IndexOf(const std::string& function, const std::string& pattern, int from = 0) const
    {
        for (size_t i = static_cast<size_t>(std::max(from, 0)); i < lines_.size(); ++i) {
            if (lines_[i].parsed.function == function && Matches(lines_[i].parsed, pattern)) {
                return static_cast<int>(i);
            }
        }
        return -1;
    }

    int Count(const std::string& function, const std::string& pattern) const
    {
        int n = 0;
        for (const LogLine& l : lines_) {
            n += l.parsed.function == function && Matches(l.parsed, pattern) ? 1 : 0;
        }
        return n;
    }

    // Messages of one function, for failure messages.
    std::string Dump(const std::string& function) const
    {
        std::ostringstream os;
        int shown = 0;
        for (const LogLine& l : lines_) {
            if (l.parsed.function == function && shown++ < 60) {
                os << "\n    " << l.parsed.file << ":" << l.parsed.line << " \"" << l.parsed.message << "\"";
            }
        }
        return shown == 0 ? std::string(" (nothing from that function)") : os.str();
    }

private:
    void Take(const hdrtest::LogCapture& capture)
    {
        for (const hdrtest::LoggedLine& l : capture.Lines()) {
            lines_.push_back({l.logId, l.priority, l.tag, hdrtest::Parse(l.text)});
        }
        stdout_ += capture.Stdout();
    }

    std::vector<LogLine> lines_;
    std::string stdout_;
};

// The library logged, from function, a line whose message matches pattern:
// on the main buffer, at error priority, with the tag "TSS", and the same
// message on standard output.
::testing::AssertionResult Logged(const Recorder& rec, const std::string& function, const std::string& pattern)
{
    const int index = rec.IndexOf(function, pattern);
    if (index < 0) {
        return ::testing::AssertionFailure() << "no line from " << function << " with the message \"" << pattern
                                             << "\"; that function logged:" << rec.Dump(function);
    }
    const LogLine& l = rec.lines()[static_cast<size_t>(index)];
    if (l.logId != static_cast<int>(LOG_ID_MAIN) || l.priority != static_cast<int>(DLOG_ERROR) || l.tag != "TSS") {
        return ::testing::AssertionFailure() << "\"" << l.parsed.message << "\" went to buffer " << l.logId
                                             << ", priority " << l.priority << ", tag " << l.tag;
    }
    if (rec.Stdout().find(l.parsed.message) == std::string::npos) {
        return ::testing::AssertionFailure() << "\"" << l.parsed.message << "\" is not on standard output";
    }
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult NotLogged(const Recorder& rec, const std::string& function, const std::string& pattern)
{
    if (rec.IndexOf(function, pattern) >= 0) {
        return ::testing::AssertionFailure() << function << " logged \"" << pattern << "\"";
    }
    return ::testing::AssertionSuccess();
}

// ---------------------------------------------------------------------------
// Pictures, records and the model
// ---------------------------------------------------------------------------

using Plane = std::vector<uint8_t>;

// Six full-size planes: main image Y, U, V, then gain map Y, U, V.
struct Picture {
    int width = 0;
    int height = 0;
    Plane planes[6];
};

Plane Random(int w, int h, uint32_t seed, int lo, int hi)
{
    std::mt19937 rng(seed);
    Plane p(static_cast<size_t>(w) * static_cast<size_t>(h));
    for (uint8_t& v : p) {
        v = static_cast<uint8_t>(lo + static_cast<int>(rng() % static_cast<uint32_t>(hi - lo + 1)));
    }
    return p;
}

// Main image and gain map of one size, pseudo-random so that neighbouring
// texels differ and a pixel sampling the wrong texel shows. lumaLo/lumaHi
// bound the main image's luma and so steer the picture level.
Picture MakePicture(int w, int h, uint32_t seed, int lumaLo = 0, int lumaHi = 255)
{
    Picture p;
    p.width = w;
    p.height = h;
    p.planes[0] = Random(w, h, seed, lumaLo, lumaHi);
    p.planes[1] = Random(w, h, seed + 1, 40, 216);
    p.planes[2] = Random(w, h, seed + 2, 40, 216);
    p.planes[3] = Random(w, h, seed + 3, 0, 255);
    p.planes[4] = Random(w, h, seed + 4, 96, 160);
    p.planes[5] = Random(w, h, seed + 5, 96, 160);
    return p;
}

// Gain-map metadata with per-channel ranges and gammas, offsets and a
// capacity range that a display boost between 1 and 2 only partly uses.
PictureMetadata CycleMetadata()
{
    PictureMetadata md;
    md.gainMapMin = {{-0.5f, 0.0f, 0.25f}};
    md.gainMapMax = {{2.5f, 1.5f, 3.0f}};
    md.gamma = {{1.25f, 0.8f, 1.0f}};
    md.offsetSdr = {{0.015625f, 0.015625f, 0.015625f, 1.0f}};
    md.offsetHdr = {{0.02f, 0.0f, 0.03f, 1.0f}};
    md.hdrCapacityMin = 0.0f;
    md.hdrCapacityMax = 1.25f;
    md.gamut = 0;
    md.trfn = 3;
    return md;
}

// The host's record for a picture: its planes and sizes, the metadata, the
// output geometry. Fields the library must not read carry values that would
// show if it did: the fourth metadata components and the record's own
// tuning fields (the set's factory tuning is what counts).
HdrInfo Describe(const Picture& p, const PictureMetadata& md, int outputWidth, int outputHeight)
{
    HdrInfo info;
    std::memset(&info, 0, sizeof info);
    info.nMainImageWidth = info.nGainMapWidth = p.width;
    info.nMainImageHeight = info.nGainMapHeight = p.height;
    for (int i = 0; i < 3; ++i) {
        info.mainImagePlanes[i] = p.planes[i].empty() ? nullptr : p.planes[i].data();
        info.gainMapPlanes[i] = p.planes[3 + i].empty() ? nullptr : p.planes[3 + i].data();
        info.gainMapMin[i] = md.gainMapMin[i];
        info.gainMapMax[i] = md.gainMapMax[i];
        info.gamma[i] = md.gamma[i];
    }
    info.gainMapMin[3] = 5.0f;
    info.gainMapMax[3] = -5.0f;
    info.gamma[3] = 0.0f;
    for (int i = 0; i < 4; ++i) {
        info.offsetSdr[i] = md.offsetSdr[i];
        info.offsetHdr[i] = md.offsetHdr[i];
    }
    info.hdrCapacityMin = md.hdrCapacityMin;
    info.hdrCapacityMax = md.hdrCapacityMax;
    info.MDB_V1 = info.MDB_V2 = info.MDB_T1 = info.MDB_T2 = 1;
    info.GAMMA_MUL = 1;
    info.GAIN_CURVE_P0 = info.GAIN_CURVE_P1 = info.GAIN_CURVE_P2 = 1;
    info.GAIN_CURVE_G0 = info.GAIN_CURVE_G1 = info.GAIN_CURVE_G2 = 1;
    info.gamut = static_cast<hdr_color_gamut>(md.gamut);
    info.trfn = static_cast<hdr_transfer_function>(md.trfn);
    info.outputWidth = outputWidth;
    info.outputHeight = outputHeight;
    info.outputRotate = md.outputRotate;
    info.outputMirror = md.outputMirror;
    return info;
}

HdrInfo Describe(const Picture& p, const PictureMetadata& md)
{
    return Describe(p, md, p.width, p.height);
}

// The record points into the picture's planes: a temporary picture would leave it dangling.
HdrInfo Describe(Picture&&, const PictureMetadata&, int, int) = delete;
HdrInfo Describe(Picture&&, const PictureMetadata&) = delete;

// The factory tuning of a set that has both system-information keys:
// 1301 = 1 50 25 25 50 gives GAMMA_MUL (1 + 4) x 32 = 160, GAIN_CURVE_P1 512,
// G0 256, G1 256, G2 512; 1302 = 65 gives MDB_V2 (65 - 30) x 120 / 70 + 136
// = 196. The other five keep their defaults.
TuningValues SetSystemTuning()
{
    system_info_standin_set_int(kPhotoHdrKey, 150252550);
    system_info_standin_set_int(kPeakWhiteKey, 65);
    TuningValues t;
    t.MDB_V2 = 196;
    t.GAMMA_MUL = 160;
    t.GAIN_CURVE_P1 = 512;
    t.GAIN_CURVE_G0 = 256;
    t.GAIN_CURVE_G1 = 256;
    t.GAIN_CURVE_G2 = 512;
    return t;
}

tbm_surface_h SurfaceOf(int handle)
{
    return reinterpret_cast<tbm_surface_h>(static_cast<intptr_t>(handle));
}

// The surface's bytes, row after row without the stride's padding; empty
// when the handle does not map.
std::vector<uint8_t> SurfaceBytes(int handle, uint32_t* width = nullptr, uint32_t* height = nullptr)
{
    std::vector<uint8_t> bytes;
    tbm_surface_info_s info;
    if (tbm_surface_map(SurfaceOf(handle), TBM_SURF_OPTION_READ, &info) != TBM_SURFACE_ERROR_NONE) {
        return bytes;
    }
    for (uint32_t y = 0; y < info.height; ++y) {
        const unsigned char* row = info.planes[0].ptr + static_cast<size_t>(y) * info.planes[0].stride;
        bytes.insert(bytes.end(), row, row + 4 * static_cast<size_t>(info.width));
    }
    if (width != nullptr) {
        *width = info.width;
    }
    if (height != nullptr) {
        *height = info.height;
    }
    tbm_surface_unmap(SurfaceOf(handle));
    return bytes;
}

// Compares the picture in the surface behind handle with the model, pixel by
// pixel: each of the four codes of a pixel must lie in the model's interval
// (sampler error and 8-bit conversion) widened by kArithmeticCodes. Main
// image, gain map and output are of one size, so every pixel samples exactly
// one texel of each plane; a rotated or mirrored output is checked on a
// square picture through the texel the rotation makes it sample.
void ExpectPictureMatchesModel(int handle, const Picture& pic, const PictureMetadata& md,
                               const TuningValues& tuning, int32_t apl, bool outputYUV)
{
    const int w = pic.width;
    const int h = pic.height;
    ASSERT_NE(handle, -1) << "no surface to compare";
    uint32_t sw = 0;
    uint32_t sh = 0;
    const std::vector<uint8_t> bytes = SurfaceBytes(handle, &sw, &sh);
    ASSERT_FALSE(bytes.empty()) << "the surface does not map";
    ASSERT_EQ(sw, static_cast<uint32_t>(w));
    ASSERT_EQ(sh, static_cast<uint32_t>(h));
    const bool rotated = (md.outputRotate >= 1 && md.outputRotate <= 3) || md.outputMirror;
    ASSERT_TRUE(!rotated || w == h) << "rotations are checked on square pictures";

    hdrtest::ConstantsTrace trace;
    const hdrtest::GainMapUniforms u = hdrtest::ComputeConstants(md, tuning, apl, outputYUV, &trace);
    int mismatches = 0;
    std::vector<bool> seen(256, false);
    int distinct = 0;
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            std::array<int, 2> texel{{x, y}};
            if (rotated) {
                texel = hdrtest::SampledTexel(md.outputRotate, md.outputMirror, w, x, y);
            }
            const size_t i = static_cast<size_t>(texel[1]) * static_cast<size_t>(w) + static_cast<size_t>(texel[0]);
            const PixelSamples samples =
                PixelSamples::FromCodes(pic.planes[0][i], pic.planes[1][i], pic.planes[2][i], pic.planes[3][i],
                                        pic.planes[4][i], pic.planes[5][i]);
            const ModelPixel m = hdrtest::Evaluate(samples, u, kSamplerError);
            // RA24: bytes A, B, G, R of each pixel.
            const uint8_t* p = &bytes[(static_cast<size_t>(y) * static_cast<size_t>(w) + static_cast<size_t>(x)) * 4];
            const int got[4] = {p[3], p[2], p[1], p[0]};
            distinct += seen[static_cast<size_t>(got[0])] ? 0 : 1;
            seen[static_cast<size_t>(got[0])] = true;
            for (int c = 0; c < 4; ++c) {
                const hdrtest::ChannelBound& b = m.channel[static_cast<size_t>(c)];
                const int beyond = std::max({0, b.codeLo - got[c], got[c] - b.codeHi});
                if (beyond > kArithmeticCodes && ++mismatches <= 10) {
                    ADD_FAILURE() << "pixel (" << x << ", " << y << ") channel " << c << ": got " << got[c]
                                  << ", the model allows [" << b.codeLo << ", " << b.codeHi << "] +-"
                                  << kArithmeticCodes << " (nominal " << b.nominal << "; APL " << apl << ", MDB "
                                  << trace.mdb << ", W " << u.W << ")";
                }
            }
        }
    }
    EXPECT_EQ(mismatches, 0) << "pixels outside the model's interval";
    EXPECT_GE(distinct, 16) << "the first channel shows too few codes to test anything";
}

int32_t PictureLevel(const Picture& p)
{
    return hdrtest::AveragePictureLevel(p.planes[0].data(), p.width, p.height);
}

// Writes the picture's six planes, each between Begin and End, through the
// mappings that SetHdrInfo returned. False at the first refusal.
bool StreamPlanes(uint8_t** mappings, const Picture& p)
{
    for (int i = 0; i < 6; ++i) {
        int plane = i;
        if (GpuGenerateHdrUpdateDataBegin(plane) == 0) {
            return false;
        }
        const bool mapped = mappings[i] != nullptr;
        if (mapped) {
            std::memcpy(mappings[i], p.planes[i].data(), p.planes[i].size());
        }
        int width = p.width;
        int height = p.height;
        if (GpuGenerateHdrUpdateDataEnd(width, height) == 0 || !mapped) {
            return false;
        }
    }
    return true;
}

// The largest texture side of the implementation, read on a context of the
// test's own (released again before returning).
int32_t MaxTextureSize(EGLDisplay display)
{
    hdrtest::HostContext host(display);
    GLint size = 0;
    glGetIntegerv(GL_MAX_TEXTURE_SIZE, &size);
    return size;
}

bool AllUnmapped(uint8_t** mappings)
{
    return std::all_of(mappings, mappings + 6, [](uint8_t* m) { return m == nullptr; });
}

// ---------------------------------------------------------------------------
// Host threads
// ---------------------------------------------------------------------------

// A host thread that stays alive for the whole test (so that its thread id
// is never reused by another thread) and runs one task at a time, while the
// caller waits: the threads' calls into the library are serialised.
class HostThread {
public:
    HostThread() : thread_([this] { Loop(); }) {}
    ~HostThread()
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stop_ = true;
        }
        cv_.notify_all();
        thread_.join();
    }
    HostThread(const HostThread&) = delete;
    HostThread& operator=(const HostThread&) = delete;

    void Run(std::function<void()> task)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        task_ = std::move(task);
        done_ = false;
        cv_.notify_all();
        cv_.wait(lock, [this] { return done_; });
    }

private:
    void Loop()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            cv_.wait(lock, [this] { return stop_ || task_ != nullptr; });
            if (task_ != nullptr) {
                std::function<void()> task = std::move(task_);
                task_ = nullptr;
                lock.unlock();
                task();
                lock.lock();
                done_ = true;
                cv_.notify_all();
            } else {
                return;
            }
        }
    }

    std::mutex mutex_;
    std::condition_variable cv_;
    std::function<void()> task_;
    bool done_ = true;
    bool stop_ = false;
    std::thread thread_;
};

unsigned LowThreadId(pthread_t id)
{
    return static_cast<unsigned>(static_cast<uint64_t>(id));
}

// ---------------------------------------------------------------------------
// Fixture
// ---------------------------------------------------------------------------

class PublicApi : public hdrtest::EglTest {
protected:
    void SetUp() override
    {
        EglTest::SetUp();
        faults::Reset();
        tbm_standin_fail_next_create(0);
        system_info_standin_clear(kPhotoHdrKey);
        system_info_standin_clear(kPeakWhiteKey);
        // Start from nothing, as a freshly loaded library.
        quiet_([] { GpuGenerateHdrDestroy(); });
        surfacesBefore_ = tbm_standin_live_surface_count();
    }

    void TearDown() override
    {
        quiet_([] { GpuGenerateHdrDestroy(); });
        faults::Reset();
        tbm_standin_fail_next_create(0);
        system_info_standin_reset();
        EXPECT_EQ(tbm_standin_live_surface_count(), surfacesBefore_) << "output surfaces left behind";
    }

    GpuGenerateHdrInitOption Direct(int width, int height, bool outputYUV = false) const
    {
        return GpuGenerateHdrInitOption{width, height, display_, outputYUV, false};
    }
    GpuGenerateHdrInitOption Streaming(bool outputYUV = false) const
    {
        return GpuGenerateHdrInitOption{1920, 1080, display_, outputYUV, true};
    }

    // The binding that a host context makes current: its display, context and surfaces.
    hdrtest::Binding HostBinding(const hdrtest::HostContext& host) const
    {
        return {display_, host.context(), host.draw(), host.read()};
    }

    int SurfacesAlive() const { return tbm_standin_live_surface_count() - surfacesBefore_; }

    Recorder rec_;
    Recorder quiet_;
    int surfacesBefore_ = 0;
};

using PublicApiStates = PublicApi;
using PublicApiEdges = PublicApi;
using PublicApiInit = PublicApi;
using PublicApiRender = PublicApi;
using PublicApiCycles = PublicApi;
using PublicApiBinding = PublicApi;
using PublicApiThreads = PublicApi;
using PublicApiBadInput = PublicApi;
using PublicApiOrder = PublicApi;

// ===========================================================================
// States of the call sequence
// ===========================================================================

// Uninitialised at load: every call is refused with its own result and line, and the record is not touched.
TEST_F(PublicApiStates, UninitialisedAtLoadRefusesEveryCall)
{
    const Picture pic = MakePicture(8, 8, 1);
    HdrInfo info = Describe(pic, CycleMetadata());
    info.gamut = static_cast<hdr_color_gamut>(-1);
    int plane = 0;
    int width = 8;
    int height = 8;

    EXPECT_EQ(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdrSetHdrInfo", kNotInitialised));
    EXPECT_EQ(static_cast<int32_t>(info.gamut), -1) << "defaults come after the initialisation check";
    EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 12);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdr", kNotInitialised));
    rec_.Clear();
    EXPECT_EQ(rec_([&] { return GpuGenerateHdr(&info); }), 12);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdr", kNotInitialised));
    EXPECT_EQ(rec_([] { return GpuGenerateGetTBM(); }), -1);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateGetTBM", kNotInitialised));
    EXPECT_EQ(rec_([] { return GpuRender(); }), 3);
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrUpdateDataBegin(plane); }), 0);
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrUpdateDataEnd(width, height); }), 0);
    EXPECT_EQ(SurfacesAlive(), 0);
}

// GpuGenerateHdrDestroy returns the library to the uninitialised state, releasing the surface.
TEST_F(PublicApiStates, DestroyReturnsToUninitialised)
{
    const Picture pic = MakePicture(8, 8, 2);
    HdrInfo info = Describe(pic, CycleMetadata());
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
    ASSERT_NE(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    ASSERT_EQ(rec_([] { return GpuGenerateHdr(); }), 0);
    EXPECT_EQ(SurfacesAlive(), 1);
    rec_([] { GpuGenerateHdrDestroy(); });
    EXPECT_EQ(SurfacesAlive(), 0);

    rec_.Clear();
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdrSetHdrInfo", kNotInitialised));
    EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 12);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdr", kNotInitialised));
    EXPECT_EQ(rec_([] { return GpuGenerateGetTBM(); }), -1);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateGetTBM", kNotInitialised));
    EXPECT_EQ(rec_([] { return GpuRender(); }), 3);
}

// Initialised: GpuRender works, but there is neither metadata to draw nor a surface to hand out.
TEST_F(PublicApiStates, InitialisedHasNoMetadataAndNoSurfaceYet)
{
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdrInit", "GpuGenerateHdrInit start"));
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdrInit", "GpuGenerateHdrInit end"));
    EXPECT_EQ(SurfacesAlive(), 1) << "the direct mode makes its surface at initialisation";

    rec_.Clear();
    EXPECT_EQ(rec_([] { return GpuGenerateGetTBM(); }), -1);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateGetTBM", kNotGenerated));
    EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 12);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdr", kNoInfo));
    EXPECT_EQ(rec_([] { return GpuRender(); }), 0);
}

// A successful GpuGenerateHdrSetHdrInfo sets the metadata; GpuGenerateHdr() may then draw once.
TEST_F(PublicApiStates, SetHdrInfoEntersInfoSet)
{
    const Picture pic = MakePicture(8, 8, 3);
    HdrInfo info = Describe(pic, CycleMetadata());
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
    rec_.Clear();
    EXPECT_NE(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdrSetHdrInfo", "GpuGenerateHdrSetHdrInfo start"));
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdrSetHdrInfo", "GpuGenerateHdrSetHdrInfo end"));
    EXPECT_EQ(rec_([] { return GpuGenerateGetTBM(); }), -1) << "metadata alone generates nothing";
    rec_.Clear();
    EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 0);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdr", "GpuGenerateHdr start"));
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdr", "GpuGenerateHdr end"));
}

// A failed GpuGenerateHdrSetHdrInfo sets no mark: GpuGenerateHdr() is refused with 12.
TEST_F(PublicApiStates, FailedSetHdrInfoSetsNoMark)
{
    const Picture pic = MakePicture(8, 8, 4);
    HdrInfo info = Describe(pic, CycleMetadata());
    info.nMainImageWidth = 0;
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 12);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdr", kNoInfo));
}

// A failed GpuGenerateHdrSetHdrInfo does not clear a mark that an earlier success set.
TEST_F(PublicApiStates, FailedSetHdrInfoKeepsAnEarlierMark)
{
    const Picture pic = MakePicture(8, 8, 5);
    HdrInfo good = Describe(pic, CycleMetadata());
    HdrInfo bad = good;
    bad.mainImagePlanes[1] = nullptr;
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
    ASSERT_NE(rec_([&] { return GpuGenerateHdrSetHdrInfo(&good); }), nullptr);
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrSetHdrInfo(&bad); }), nullptr);
    EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 0);
}

// The one-shot GpuGenerateHdr(HdrInfo*) needs no mark and leaves no mark behind.
TEST_F(PublicApiStates, OneShotNeitherNeedsNorSetsTheMark)
{
    const Picture pic = MakePicture(8, 8, 6);
    HdrInfo info = Describe(pic, CycleMetadata());
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
    EXPECT_EQ(rec_([&] { return GpuGenerateHdr(&info); }), 0);
    EXPECT_NE(rec_([] { return GpuGenerateGetTBM(); }), -1);
    rec_.Clear();
    EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 12);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdr", kNoInfo));
}

// The one-shot does not consume a mark set by GpuGenerateHdrSetHdrInfo either.
TEST_F(PublicApiStates, OneShotLeavesAnExistingMark)
{
    const Picture pic = MakePicture(8, 8, 7);
    HdrInfo info = Describe(pic, CycleMetadata());
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
    ASSERT_NE(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    EXPECT_EQ(rec_([&] { return GpuGenerateHdr(&info); }), 0);
    EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 0);
}

// Generated: GpuGenerateGetTBM hands out the one live output surface, of the surface's size.
TEST_F(PublicApiStates, GeneratedHandsOutTheSurface)
{
    const Picture pic = MakePicture(12, 7, 8);
    HdrInfo info = Describe(pic, CycleMetadata());
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(12, 7)); }), 0);
    ASSERT_NE(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    ASSERT_EQ(rec_([] { return GpuGenerateHdr(); }), 0);
    const int handle = rec_([] { return GpuGenerateGetTBM(); });
    ASSERT_NE(handle, -1);
    EXPECT_EQ(SurfacesAlive(), 1);
    tbm_surface_info_s surface;
    ASSERT_EQ(tbm_surface_get_info(SurfaceOf(handle), &surface), TBM_SURFACE_ERROR_NONE);
    EXPECT_EQ(surface.width, 12u);
    EXPECT_EQ(surface.height, 7u);
    EXPECT_EQ(surface.format, static_cast<tbm_format>(TBM_FORMAT_RGBA8888));
    EXPECT_EQ(rec_([] { return GpuGenerateGetTBM(); }), handle) << "asking again hands out the same surface";
}

// A draw that fails with 11 leaves nothing to hand out, although an earlier draw had succeeded.
TEST_F(PublicApiStates, FailedDrawLeavesNoSurfaceToHandOut)
{
    const Picture pic = MakePicture(8, 8, 9);
    HdrInfo info = Describe(pic, CycleMetadata());
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
    ASSERT_NE(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    ASSERT_EQ(rec_([] { return GpuGenerateHdr(); }), 0);
    ASSERT_NE(rec_([] { return GpuGenerateGetTBM(); }), -1);
    ASSERT_NE(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);

    // A GL error pending when the shader constants are checked: the draw's first error check sees it.
    faults::QueueGlError(GL_INVALID_OPERATION);
    rec_.Clear();
    EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 11);
    EXPECT_TRUE(Logged(rec_, "UpdateUniform", "%d ERROR: GL_error\n"));
    EXPECT_TRUE(Logged(rec_, "GL_error_check",
                       "The specified operation is not allowed in the current state. 0x00000502"));
    EXPECT_EQ(rec_([] { return GpuGenerateGetTBM(); }), -1);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateGetTBM", kNotGenerated));
    EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 12) << "the failed attempt consumed the mark";
}

// GpuGenerateHdrDestroy ends the generated state: after a new initialisation there is nothing to hand out.
TEST_F(PublicApiStates, DestroyEndsGenerated)
{
    const Picture pic = MakePicture(8, 8, 10);
    HdrInfo info = Describe(pic, CycleMetadata());
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
    ASSERT_EQ(rec_([&] { return GpuGenerateHdr(&info); }), 0);
    rec_.Clear();
    rec_([] { GpuGenerateHdrDestroy(); });
    EXPECT_EQ(rec_.Count("GpuGenerateHdrDestroy", kNotInitialised), 0);
    EXPECT_EQ(rec_.Count("GpuGenerateHdrDestroy", kNotGenerated), 0);
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
    rec_.Clear();
    EXPECT_EQ(rec_([] { return GpuGenerateGetTBM(); }), -1);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateGetTBM", kNotGenerated));
}

// ===========================================================================
// Edge cases of the entry points
// ===========================================================================

// GpuGenerateHdr() twice after one GpuGenerateHdrSetHdrInfo: the second is refused with 12.
TEST_F(PublicApiEdges, GenerateTwiceAfterOneSetHdrInfo)
{
    const Picture pic = MakePicture(8, 8, 11);
    HdrInfo info = Describe(pic, CycleMetadata());
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
    ASSERT_NE(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 0);
    rec_.Clear();
    EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 12);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdr", kNoInfo));
    EXPECT_NE(rec_([] { return GpuGenerateGetTBM(); }), -1) << "the refused call leaves the picture as it was";
}

// A gamut and transfer function of -1 are replaced in the caller's own record, before any binding.
TEST_F(PublicApiEdges, DefaultsWrittenIntoCallersRecord)
{
    const Picture pic = MakePicture(8, 8, 12);
    HdrInfo info = Describe(pic, CycleMetadata());
    info.gamut = static_cast<hdr_color_gamut>(-1);
    info.trfn = static_cast<hdr_transfer_function>(-1);
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
    rec_.Clear();
    EXPECT_NE(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    EXPECT_EQ(static_cast<int32_t>(info.gamut), 0);
    EXPECT_EQ(static_cast<int32_t>(info.trfn), 3);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdrSetHdrInfo", "use the default gamut(BT709)"));
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdrSetHdrInfo", "use the default trfn(SRGB)"));
    const int gamutLine = rec_.IndexOf("GpuGenerateHdrSetHdrInfo", "use the default gamut(BT709)");
    const int trfnLine = rec_.IndexOf("GpuGenerateHdrSetHdrInfo", "use the default trfn(SRGB)");
    const int bindLine = rec_.IndexOf("Bind", "HdrRender::Bind start");
    EXPECT_LT(gamutLine, trfnLine);
    EXPECT_LT(trfnLine, bindLine) << "the defaults are applied before the context is bound";
}

// Only -1 means "not given": other values, valid or not, pass unchanged and log no default.
TEST_F(PublicApiEdges, OnlyMinusOneIsReplaced)
{
    const Picture pic = MakePicture(8, 8, 13);
    HdrInfo info = Describe(pic, CycleMetadata());
    info.gamut = static_cast<hdr_color_gamut>(-2);
    info.trfn = static_cast<hdr_transfer_function>(7);
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
    rec_.Clear();
    EXPECT_NE(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    EXPECT_EQ(static_cast<int32_t>(info.gamut), -2);
    EXPECT_EQ(static_cast<int32_t>(info.trfn), 7);
    EXPECT_TRUE(NotLogged(rec_, "GpuGenerateHdrSetHdrInfo", "use the default gamut(BT709)"));
    EXPECT_TRUE(NotLogged(rec_, "GpuGenerateHdrSetHdrInfo", "use the default trfn(SRGB)"));
}

// The one-shot applies no defaults: the caller's -1 stays, and the direct mode draws BT.709/sRGB anyway.
TEST_F(PublicApiEdges, OneShotAppliesNoDefaultsInDirectMode)
{
    const Picture pic = MakePicture(8, 8, 14);
    HdrInfo info = Describe(pic, CycleMetadata());
    info.gamut = static_cast<hdr_color_gamut>(-1);
    info.trfn = static_cast<hdr_transfer_function>(-1);
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
    rec_.Clear();
    EXPECT_EQ(rec_([&] { return GpuGenerateHdr(&info); }), 0);
    EXPECT_EQ(static_cast<int32_t>(info.gamut), -1);
    EXPECT_EQ(static_cast<int32_t>(info.trfn), -1);
    EXPECT_TRUE(NotLogged(rec_, "GpuGenerateHdr", "use the default gamut(BT709)"));
    EXPECT_TRUE(Logged(rec_, "setHdrInfo", "gamut = 0"));
    EXPECT_TRUE(Logged(rec_, "setHdrInfo", "trfn = 3"));
}

// The one-shot applies no defaults: in the streaming mode a gamut of -1 reaches the draw and is refused.
TEST_F(PublicApiEdges, OneShotAppliesNoDefaultsInStreamingMode)
{
    const Picture pic = MakePicture(8, 8, 15);
    HdrInfo info = Describe(pic, CycleMetadata());
    info.gamut = static_cast<hdr_color_gamut>(-1);
    info.trfn = static_cast<hdr_transfer_function>(-1);
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Streaming()); }), 0);
    rec_.Clear();
    EXPECT_EQ(rec_([&] { return GpuGenerateHdr(&info); }), 13);
    EXPECT_EQ(static_cast<int32_t>(info.gamut), -1);
    EXPECT_TRUE(Logged(rec_, "setHdrInfo", "gamut = -1"));
    EXPECT_TRUE(Logged(rec_, "UpdateUniform", kGamutAssertion));
}

// GpuGenerateHdrDestroy before any initialisation logs both complaints and returns normally.
TEST_F(PublicApiEdges, DestroyBeforeInitLogsBothMessages)
{
    rec_([] { GpuGenerateHdrDestroy(); });
    std::vector<std::string> own;
    for (const LogLine& l : rec_.lines()) {
        if (l.parsed.function == "GpuGenerateHdrDestroy") {
            own.push_back(l.parsed.message);
        }
    }
    ASSERT_EQ(own.size(), 4u) << rec_.Dump("GpuGenerateHdrDestroy");
    EXPECT_EQ(own[0], "GpuGenerateHdrDestroy start");
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdrDestroy", kNotInitialised));
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdrDestroy", kNotGenerated));
    EXPECT_LT(rec_.IndexOf("GpuGenerateHdrDestroy", kNotInitialised),
              rec_.IndexOf("GpuGenerateHdrDestroy", kNotGenerated));
    EXPECT_EQ(own[3], "GpuGenerateHdrDestroy end");
    // And the library is usable afterwards.
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
}

// A second GpuGenerateHdrInit without Destroy returns 1 and keeps the first initialisation intact.
TEST_F(PublicApiEdges, InitTwiceKeepsTheFirst)
{
    const Picture pic = MakePicture(13, 11, 16);
    const PictureMetadata md = CycleMetadata();
    HdrInfo info = Describe(pic, md);
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(13, 11)); }), 0);
    rec_.Clear();
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(GpuGenerateHdrInitOption{5, 5, display_, true, true}); }), 1);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdrInit", kInitTwice));
    EXPECT_TRUE(NotLogged(rec_, "GpuGenerateHdrInit", "GpuGenerateHdrInit end"));
    EXPECT_EQ(SurfacesAlive(), 1);

    // Still the first options: the direct mode, a 13 x 11 surface, RGB output.
    ASSERT_NE(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    ASSERT_EQ(rec_([] { return GpuGenerateHdr(); }), 0);
    ExpectPictureMatchesModel(rec_([] { return GpuGenerateGetTBM(); }), pic, md, TuningValues{}, PictureLevel(pic),
                              false);
}

// Direct mode: gamut 2, trfn 2, rotation 1, mirror, output size are logged and used as 0, 3, 0, off, surface size.
TEST_F(PublicApiEdges, DirectModeForcesGeometryAndColour)
{
    const Picture pic = MakePicture(21, 21, 17);
    PictureMetadata md = CycleMetadata();
    HdrInfo info = Describe(pic, md, 5, 7);
    info.gamut = hdr_color_gamut::HDR_COLORGAMUT_BT2100;
    info.trfn = hdr_transfer_function::HDR_TF_PQ;
    info.outputRotate = 1;
    info.outputMirror = true;
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(21, 21)); }), 0);
    rec_.Clear();
    ASSERT_NE(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    EXPECT_TRUE(Logged(rec_, "setHdrInfo", "gamut = 0"));
    EXPECT_TRUE(Logged(rec_, "setHdrInfo", "trfn = 3"));
    EXPECT_TRUE(Logged(rec_, "setHdrInfo", "outputRotate = 0"));
    EXPECT_TRUE(Logged(rec_, "setHdrInfo", "outputMirror = 0"));
    EXPECT_TRUE(Logged(rec_, "setHdrInfo", "outputWidth = 21"));
    EXPECT_TRUE(Logged(rec_, "setHdrInfo", "outputHeight = 21"));
    EXPECT_EQ(static_cast<int32_t>(info.gamut), 2) << "the caller's record is not changed";
    EXPECT_EQ(static_cast<int32_t>(info.trfn), 2);
    EXPECT_EQ(info.outputRotate, 1);

    // Stored as logged: the draw uses no rotation, no mirror and the sRGB input curve.
    rec_.Clear();
    ASSERT_EQ(rec_([] { return GpuGenerateHdr(); }), 0);
    EXPECT_TRUE(Logged(rec_, "UpdateUniform", "rotate angle: 0.000000"));
    EXPECT_TRUE(NotLogged(rec_, "UpdateUniform", "mirror true"));
    md.gamut = 0;
    md.trfn = 3;
    md.outputRotate = 0;
    md.outputMirror = false;
    ExpectPictureMatchesModel(rec_([] { return GpuGenerateGetTBM(); }), pic, md, TuningValues{}, PictureLevel(pic),
                              false);
}

// The direct mode draws even a gamut and transfer function that the draw would refuse, since it forces both.
TEST_F(PublicApiEdges, DirectModeIgnoresOutOfRangeGamutAndTrfn)
{
    const Picture pic = MakePicture(8, 8, 18);
    HdrInfo info = Describe(pic, CycleMetadata());
    info.gamut = static_cast<hdr_color_gamut>(9);
    info.trfn = static_cast<hdr_transfer_function>(-7);
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
    ASSERT_NE(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 0);
}

// The streaming mode re-creates the output surface at every GpuGenerateHdrSetHdrInfo, sizes changed or not.
TEST_F(PublicApiEdges, StreamingRecreatesTheSurfaceAtEverySetHdrInfo)
{
    const Picture pic = MakePicture(16, 9, 19);
    HdrInfo info = Describe(pic, CycleMetadata());
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Streaming()); }), 0);
    EXPECT_EQ(SurfacesAlive(), 0) << "no surface before the first metadata";

    std::vector<int> handles;
    for (int round = 0; round < 3; ++round) {
        rec_.Clear();
        ASSERT_NE(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
        EXPECT_EQ(rec_.Count("updateTBM", "Create new tbm surface PBO {16 x 9} >>>>>>>>>>>>>>>>>>>>>>>>>"), 1);
        EXPECT_TRUE(Logged(rec_, "updateTBM", "Create new tbm surface PBO {16 x 9} >>>>>>>>>>>>>>>>>>>>>>>>>"));
        EXPECT_EQ(SurfacesAlive(), 1) << "round " << round;
        ASSERT_EQ(rec_([] { return GpuGenerateHdr(); }), 0);
        handles.push_back(rec_([] { return GpuGenerateGetTBM(); }));
    }
    EXPECT_NE(handles[0], handles[1]);
    EXPECT_NE(handles[1], handles[2]);
    EXPECT_NE(handles[0], handles[2]);
    EXPECT_TRUE(SurfaceBytes(handles[0]).empty()) << "the first surface was destroyed";
    EXPECT_FALSE(SurfaceBytes(handles[2]).empty());
}

// A null record: GpuGenerateHdrSetHdrInfo returns null, before and after initialisation.
TEST_F(PublicApiEdges, NullRecordThroughSetHdrInfo)
{
    EXPECT_EQ(rec_([] { return GpuGenerateHdrSetHdrInfo(nullptr); }), nullptr);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdrSetHdrInfo", kNullRecord));
    EXPECT_TRUE(NotLogged(rec_, "GpuGenerateHdrSetHdrInfo", kNotInitialised)) << "the null check comes first";
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
    rec_.Clear();
    EXPECT_EQ(rec_([] { return GpuGenerateHdrSetHdrInfo(nullptr); }), nullptr);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdrSetHdrInfo", kNullRecord));
}

// A null record leaves the previous copy and its mark in place: the next draw is the previous picture.
TEST_F(PublicApiEdges, NullRecordLeavesThePreviousCopy)
{
    const Picture pic = MakePicture(15, 10, 20);
    const PictureMetadata md = CycleMetadata();
    HdrInfo info = Describe(pic, md);
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(15, 10)); }), 0);
    ASSERT_NE(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    EXPECT_EQ(rec_([] { return GpuGenerateHdrSetHdrInfo(nullptr); }), nullptr);
    ASSERT_EQ(rec_([] { return GpuGenerateHdr(); }), 0);
    ExpectPictureMatchesModel(rec_([] { return GpuGenerateGetTBM(); }), pic, md, TuningValues{}, PictureLevel(pic),
                              false);
}

// A null record: GpuGenerateHdr(HdrInfo*) returns 13, before and after initialisation.
TEST_F(PublicApiEdges, NullRecordThroughOneShot)
{
    EXPECT_EQ(rec_([] { return GpuGenerateHdr(nullptr); }), 13);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdr", kNullRecord));
    EXPECT_TRUE(NotLogged(rec_, "GpuGenerateHdr", kNotInitialised)) << "the null check comes first";
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
    rec_.Clear();
    EXPECT_EQ(rec_([] { return GpuGenerateHdr(nullptr); }), 13);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdr", kNullRecord));
    EXPECT_EQ(rec_([] { return GpuGenerateGetTBM(); }), -1);
}

// An outputRotate of 4 or -1 draws exactly what 0 draws (the streaming mode honours rotations).
TEST_F(PublicApiEdges, RotationCodesOutsideOneToThreeMeanNone)
{
    const Picture pic = MakePicture(17, 17, 21);
    const PictureMetadata md = CycleMetadata();
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Streaming()); }), 0);
    HdrInfo info = Describe(pic, md);
    uint8_t** mappings = rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); });
    ASSERT_NE(mappings, nullptr);

    std::vector<std::vector<uint8_t>> pictures;
    const int rotations[] = {0, 4, -1, 1};
    const char* const angles[] = {"rotate angle: 0.000000", "rotate angle: 0.000000", "rotate angle: 0.000000",
                                  "rotate angle: -90.000000"};
    for (int i = 0; i < 4; ++i) {
        ASSERT_TRUE(rec_([&] { return StreamPlanes(mappings, pic); }));
        info.outputRotate = rotations[i];
        ASSERT_EQ(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), mappings);
        rec_.Clear();
        ASSERT_EQ(rec_([] { return GpuGenerateHdr(); }), 0);
        EXPECT_TRUE(Logged(rec_, "UpdateUniform", angles[i])) << "outputRotate " << rotations[i];
        pictures.push_back(SurfaceBytes(rec_([] { return GpuGenerateGetTBM(); })));
        ASSERT_FALSE(pictures.back().empty());
    }
    EXPECT_TRUE(pictures[1] == pictures[0]) << "outputRotate 4 differs from 0";
    EXPECT_TRUE(pictures[2] == pictures[0]) << "outputRotate -1 differs from 0";
    EXPECT_FALSE(pictures[3] == pictures[0]) << "a real rotation must show on this picture";
}

// GpuGenerateHdrSetHdrInfo logs every field of the stored copy, one line each, in the record's order and formats.
TEST_F(PublicApiEdges, SetHdrInfoLogsEveryFieldInOrder)
{
    HdrInfo info;
    std::memset(&info, 0, sizeof info);
    info.nMainImageWidth = 8;
    info.nMainImageHeight = 6;
    info.nGainMapWidth = 4;
    info.nGainMapHeight = 3;
    const float gainMapMin[4] = {-0.5f, 0.75f, 1.0f, 7.25f};
    const float gainMapMax[4] = {2.5f, 3.0f, 4.25f, -1.0f};
    const float gamma[4] = {1.0f, 2.2f, 0.45f, 0.0f};
    const float offsetSdr[4] = {0.015625f, 0.03f, 0.0f, 1.0f};
    const float offsetHdr[4] = {0.02f, 0.0f, -0.25f, 1.0f};
    std::memcpy(info.gainMapMin, gainMapMin, sizeof gainMapMin);
    std::memcpy(info.gainMapMax, gainMapMax, sizeof gainMapMax);
    std::memcpy(info.gamma, gamma, sizeof gamma);
    std::memcpy(info.offsetSdr, offsetSdr, sizeof offsetSdr);
    std::memcpy(info.offsetHdr, offsetHdr, sizeof offsetHdr);
    info.hdrCapacityMin = 0.25f;
    info.hdrCapacityMax = 2.5f;
    int32_t* tuning[] = {&info.MDB_V1,        &info.MDB_V2,        &info.MDB_T1,        &info.MDB_T2,
                         &info.GAMMA_MUL,     &info.GAIN_CURVE_P0, &info.GAIN_CURVE_P1, &info.GAIN_CURVE_P2,
                         &info.GAIN_CURVE_G0, &info.GAIN_CURVE_G1, &info.GAIN_CURVE_G2};
    for (int i = 0; i < 11; ++i) {
        *tuning[i] = 101 + i;
    }
    info.MDB_T2 = -3;
    info.gamut = hdr_color_gamut::HDR_COLORGAMUT_P3;
    info.trfn = hdr_transfer_function::HDR_TF_PQ;
    info.outputWidth = 24;
    info.outputHeight = 16;
    info.outputRotate = 3;
    info.outputMirror = true;

    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Streaming()); }), 0);
    rec_.Clear();
    ASSERT_NE(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);

    const std::vector<std::string> expected = {
        "nMainImageWidth = 8",
        "nMainImageHeight = 6",
        "nGainMapWidth = 4",
        "nGainMapHeight = 3",
        "hdrCapacityMin = 0.25",
        "hdrCapacityMax = 2.50",
        "gainMapMin = [-0.50, 0.75, 1.00, 7.25]",
        "gainMapMax = [2.50, 3.00, 4.25, -1.00]",
        "gamma = [1.00, 2.20, 0.45, 0.00]",
        "offsetSdr = [0.02, 0.03, 0.00, 1.00]",
        "offsetHdr = [0.02, 0.00, -0.25, 1.00]",
        "MDB_V1 = 101",
        "MDB_V2 = 102",
        "MDB_T1 = 103",
        "MDB_T2 = -3",
        "GAMMA_MUL = 105",
        "GAIN_CURVE_P0 = 106",
        "GAIN_CURVE_P1 = 107",
        "GAIN_CURVE_P2 = 108",
        "GAIN_CURVE_G0 = 109",
        "GAIN_CURVE_G1 = 110",
        "GAIN_CURVE_G2 = 111",
        "gamut = 1",
        "trfn = 2",
        "outputRotate = 3",
        "outputMirror = 1",
        "outputWidth = 24",
        "outputHeight = 16",
    };
    const int first = rec_.IndexOf("setHdrInfo", expected[0]);
    ASSERT_GE(first, 0) << rec_.Dump("setHdrInfo");
    ASSERT_LE(static_cast<size_t>(first) + expected.size(), rec_.lines().size());
    std::string block;
    for (size_t i = 0; i < expected.size(); ++i) {
        const LogLine& l = rec_.lines()[static_cast<size_t>(first) + i];
        EXPECT_EQ(l.parsed.message, expected[i]) << "field line " << i;
        EXPECT_EQ(l.parsed.function, "setHdrInfo");
        EXPECT_EQ(l.parsed.file, "HdrGenerate.cpp");
        EXPECT_EQ(l.logId, static_cast<int>(LOG_ID_MAIN));
        EXPECT_EQ(l.priority, static_cast<int>(DLOG_ERROR));
        EXPECT_EQ(l.tag, "TSS");
        block += expected[i] + "\n";
    }
    EXPECT_NE(rec_.Stdout().find(block), std::string::npos) << "the 28 lines are not on standard output in order";
    EXPECT_EQ(rec_.Count("setHdrInfo", "nMainImageWidth = 8"), 1);
}

// ===========================================================================
// Initialisation failures
// ===========================================================================

// A successful initialisation switches the binding four times: the registry's bind and unbind, then the engine's.
TEST_F(PublicApiInit, SuccessfulInitBindsTwiceAndUnbindsTwice)
{
    faults::Reset();
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
    EXPECT_EQ(faults::MakeCurrentCalls(), 4) << "the fault-injection tests below count on this";
}

// No display given and none current: 2, and the library stays uninitialised.
TEST_F(PublicApiInit, NoDisplayFailsWith2)
{
    ASSERT_EQ(eglGetCurrentContext(), EGL_NO_CONTEXT);
    EXPECT_EQ(rec_([] { return GpuGenerateHdrInit(GpuGenerateHdrInitOption{8, 8, nullptr, false, false}); }), 2);
    EXPECT_TRUE(Logged(rec_, "InitContext", "%d ERROR: Failed to get current EGL display.\n"));
    EXPECT_TRUE(NotLogged(rec_, "GpuGenerateHdrInit", "GpuGenerateHdrInit end"));
    EXPECT_EQ(SurfacesAlive(), 0);
    rec_.Clear();
    const Picture input = MakePicture(8, 8, 22);
    HdrInfo info = Describe(input, CycleMetadata());
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdrSetHdrInfo", kNotInitialised));
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0) << "a later initialisation starts clean";
}

// No display given: the display current on the calling thread is taken.
TEST_F(PublicApiInit, TakesTheCurrentDisplay)
{
    hdrtest::HostContext host(display_);
    ASSERT_TRUE(host.ok());
    const Picture pic = MakePicture(8, 8, 23);
    HdrInfo info = Describe(pic, CycleMetadata());
    EXPECT_EQ(rec_([] { return GpuGenerateHdrInit(GpuGenerateHdrInitOption{8, 8, nullptr, false, false}); }), 0);
    EXPECT_EQ(rec_([&] { return GpuGenerateHdr(&info); }), 0);
}

// The driver refuses the context: 4, and the library stays uninitialised.
TEST_F(PublicApiInit, ContextRefusedFailsWith4)
{
    faults::FailCreateContext(1);
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 4);
    EXPECT_TRUE(Logged(rec_, "InitContext", "%d ERROR: Fail to create EGL context.\n"));
    EXPECT_EQ(SurfacesAlive(), 0);
    rec_.Clear();
    EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 12);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdr", kNotInitialised));
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
}

// The registry's own first bind fails: its 5 is passed through and both singletons are torn down.
TEST_F(PublicApiInit, RegistryBindFailsWith5AndTearsDown)
{
    faults::FailMakeCurrent(1, 0);
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 5);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdrDestroy", "GpuGenerateHdrDestroy start"));
    rec_.Clear();
    EXPECT_EQ(rec_([] { return GpuGenerateGetTBM(); }), -1);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateGetTBM", kNotInitialised));
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
}

// The bind after the registry's set-up fails: 5, without teardown (thread initialised, engine unbuilt).
TEST_F(PublicApiInit, FirstBindAfterSetUpFailsWith5AndKeepsTheRegistry)
{
    faults::FailMakeCurrent(1, 2);
    rec_.Clear();
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 5);
    EXPECT_TRUE(NotLogged(rec_, "GpuGenerateHdrDestroy", "GpuGenerateHdrDestroy start"));
    EXPECT_TRUE(NotLogged(rec_, "GpuGenerateHdrInit", "GpuGenerateHdrInit end"));
    EXPECT_EQ(SurfacesAlive(), 0);
    rec_.Clear();
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 1);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdrInit", kInitTwice));
    const Picture input = MakePicture(8, 8, 24);
    HdrInfo info = Describe(input, CycleMetadata());
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr) << "the engine has no program";
    EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 12);
}

// The registry's unbind fails: its 6 is passed through and both singletons are torn down, the host's binding put back.
TEST_F(PublicApiInit, RegistryUnbindFailsWith6AndTearsDown)
{
    hdrtest::HostContext host(display_);
    ASSERT_TRUE(host.ok());
    faults::FailMakeCurrent(1, 1);
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 6);
    EXPECT_EQ(hdrtest::CurrentBinding(), HostBinding(host)) << "the teardown released the library's context";
    rec_.Clear();
    EXPECT_EQ(rec_([] { return GpuRender(); }), 3);
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
}

// The final unbind fails: 6, without teardown; the library's context stays current until Destroy.
TEST_F(PublicApiInit, FinalUnbindFailsWith6AndKeepsTheRegistry)
{
    hdrtest::HostContext host(display_);
    ASSERT_TRUE(host.ok());
    faults::FailMakeCurrent(1, 3);
    rec_.Clear();
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 6);
    EXPECT_TRUE(NotLogged(rec_, "GpuGenerateHdrInit", "GpuGenerateHdrInit end"));
    EXPECT_NE(eglGetCurrentContext(), host.context()) << "the library's context could not be released";
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 1);
    rec_([] { GpuGenerateHdrDestroy(); });
    EXPECT_EQ(hdrtest::CurrentBinding(), HostBinding(host)) << "Destroy releases it and puts the host's binding back";
}

// The engine's set-up fails (no surface): both are torn down, so the final unbind finds no context: 6.
TEST_F(PublicApiInit, EngineInitFailureTearsDownBoth)
{
    hdrtest::HostContext host(display_);
    ASSERT_TRUE(host.ok());
    tbm_standin_fail_next_create(1);
    rec_.Clear();
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 6);
    EXPECT_TRUE(Logged(rec_, "Init", "%d ERROR: updateTBM error\n"));
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdrDestroy", "GpuGenerateHdrDestroy end"));
    EXPECT_TRUE(Logged(rec_, "Unbind", "%d ERROR: Fail to Unbind EGL context.\n"));
    EXPECT_EQ(hdrtest::CurrentBinding(), HostBinding(host));
    EXPECT_EQ(SurfacesAlive(), 0);

    rec_.Clear();
    const Picture input = MakePicture(8, 8, 25);
    HdrInfo info = Describe(input, CycleMetadata());
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdrSetHdrInfo", kNotInitialised));
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0) << "a second initialisation works";
    EXPECT_EQ(rec_([&] { return GpuGenerateHdr(&info); }), 0);
}

// A GL error pending on the fresh context: the registry's 11 is passed through and both are torn down.
TEST_F(PublicApiInit, PendingGlErrorFailsWith11)
{
    hdrtest::HostContext host(display_);
    ASSERT_TRUE(host.ok());
    faults::QueueGlError(GL_OUT_OF_MEMORY);
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 11);
    EXPECT_EQ(hdrtest::CurrentBinding(), HostBinding(host));
    EXPECT_EQ(rec_([] { return GpuRender(); }), 3);
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
}

// A direct-mode surface of 0 x 0 cannot be made: the initialisation fails and leaves nothing behind.
TEST_F(PublicApiInit, EmptyDirectSurfaceFails)
{
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(0, 0)); }), 6) << "torn down, so the final unbind fails";
    EXPECT_TRUE(Logged(rec_, "updateTBM", "Create new tbm surface {0 x 0} >>>>>>>>>>>>>>>>>>>>>>>>>"));
    EXPECT_TRUE(Logged(rec_, "Init", "%d ERROR: updateTBM error\n"));
    EXPECT_EQ(rec_([] { return GpuRender(); }), 3);
    EXPECT_EQ(SurfacesAlive(), 0);
}

// ===========================================================================
// The render path
// ===========================================================================

// GpuRender returns 0, sets the clear colour (1, 1, 1, 0.1) on the host's current context and clears nothing.
TEST_F(PublicApiRender, RenderSetsTheClearColourAndDrawsNothing)
{
    hdrtest::HostContext host(display_);
    ASSERT_TRUE(host.ok());
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);

    // The host's draw surface, which the library's context also draws to, holds a colour of the host's.
    const auto readDrawSurface = [&] {
        std::array<uint8_t, 4> pixel{};
        eglMakeCurrent(display_, host.draw(), host.draw(), host.context());
        glReadPixels(3, 2, 1, 1, GL_RGBA, GL_UNSIGNED_BYTE, pixel.data());
        eglMakeCurrent(display_, host.draw(), host.read(), host.context());
        return pixel;
    };
    glClearColor(0.2f, 0.4f, 0.6f, 1.0f);
    glClear(GL_COLOR_BUFFER_BIT);
    glFinish();
    const std::array<uint8_t, 4> before = readDrawSurface();
    ASSERT_EQ(hdrtest::CurrentBinding(), HostBinding(host));

    EXPECT_EQ(rec_([] { return GpuRender(); }), 0);
    EXPECT_EQ(hdrtest::CurrentBinding(), HostBinding(host));
    GLfloat clear[4] = {};
    glGetFloatv(GL_COLOR_CLEAR_VALUE, clear);
    EXPECT_FLOAT_EQ(clear[0], 1.0f);
    EXPECT_FLOAT_EQ(clear[1], 1.0f);
    EXPECT_FLOAT_EQ(clear[2], 1.0f);
    EXPECT_FLOAT_EQ(clear[3], 0.1f);
    EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
    EXPECT_EQ(readDrawSurface(), before) << "GpuRender cleared or drew into the surface";
}

// GpuRender before any initialisation fails with 3 and logs nothing of its own.
TEST_F(PublicApiRender, RenderWithoutAContextFailsWith3)
{
    EXPECT_EQ(rec_([] { return GpuRender(); }), 3);
    for (const LogLine& l : rec_.lines()) {
        EXPECT_NE(l.parsed.function, "GpuRender") << l.parsed.message;
    }
}

}  // namespace

// The render path's quad has no public entry point: these tests reach the
// registry's HdrRender::SetupShaders / UpdateAttribs on purpose. So does the
// one test of the metadata intake's own null check, which both public entry
// points shield by checking the record first.
#include "HdrGenerate.h"
#include "HdrRender.h"

namespace {

void ExpectQuad(const std::vector<float>& v, float left, float right, float bottom, float top)
{
    const std::vector<float> expected = {left,  top,    0, 0, 1, left,  bottom, 0, 0, 0, right, bottom, 0, 1, 0,
                                         left,  top,    0, 0, 1, right, bottom, 0, 1, 0, right, top,    0, 1, 1};
    ASSERT_EQ(v.size(), expected.size());
    for (size_t i = 0; i < v.size(); ++i) {
        EXPECT_FLOAT_EQ(v[i], expected[i]) << "float " << i << " (vertex " << i / 5 << ")";
    }
}

// Initialises the direct mode with an output of width x height, sets a
// picture's metadata (which stores that output size), and fits the quad.
std::vector<float> FittedQuad(Recorder& rec, EGLDisplay display, int width, int height)
{
    std::vector<float> vertices;
    const Picture pic = MakePicture(4, 4, 26);
    HdrInfo info = Describe(pic, CycleMetadata());
    EXPECT_EQ(rec([&] { return GpuGenerateHdrInit(GpuGenerateHdrInitOption{width, height, display, false, false}); }),
              0);
    EXPECT_NE(rec([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    HdrRender* render = HdrRender::GetInstance();
    bool bound = false;
    bool programMade = false;
    GLenum firstError = GL_NO_ERROR;
    GLenum secondError = GL_NO_ERROR;
    bool unbound = false;
    rec([&] {
        bound = render->Bind();
        if (bound) {
            programMade = render->SetupShaders();
            render->UpdateAttribs();
            firstError = glGetError();
            secondError = glGetError();
            unbound = render->Unbind();
            vertices = render->vertices;
        }
    });
    EXPECT_TRUE(bound);
    EXPECT_TRUE(programMade);
    // The quad goes to buffer 0, which no operation creates: GL reports that, once.
    EXPECT_EQ(firstError, static_cast<GLenum>(GL_INVALID_OPERATION));
    EXPECT_EQ(secondError, static_cast<GLenum>(GL_NO_ERROR));
    EXPECT_TRUE(unbound);
    return vertices;
}

// Before any fitting, the render path's quad is the unit full-screen quad.
TEST_F(PublicApiRender, RenderQuadDefaultsToTheUnitQuad)
{
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
    ExpectQuad(HdrRender::GetInstance()->vertices, -1, 1, -1, 1);
}

// A 1920 x 1080 output fills clip space exactly.
TEST_F(PublicApiRender, RenderQuadForLandscapeOutput)
{
    ExpectQuad(FittedQuad(rec_, display_, 1920, 1080), -1, 1, -1, 1);
}

// A 1080 x 1920 output is pillar-boxed: left/right -+0.31640625, bottom/top -+1.
TEST_F(PublicApiRender, RenderQuadForPortraitOutput)
{
    ExpectQuad(FittedQuad(rec_, display_, 1080, 1920), -0.31640625f, 0.31640625f, -1, 1);
}

// A 2560 x 1080 output (wider than 16:9) is letter-boxed: bottom/top -+0.75.
TEST_F(PublicApiRender, RenderQuadForWideOutput)
{
    ExpectQuad(FittedQuad(rec_, display_, 2560, 1080), -1, 1, -0.75f, 0.75f);
}

// The intake's own null check (unreachable publicly): the assertion line, null, the previous copy untouched.
TEST_F(PublicApiEdges, IntakeRefusesANullRecordAndKeepsItsCopy)
{
    const Picture pic = MakePicture(8, 8, 27);
    HdrInfo info = Describe(pic, CycleMetadata());
    info.hdrCapacityMax = 3.5f;
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
    ASSERT_NE(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    HdrGenerate* engine = HdrGenerate::GetInstance();
    HdrInfo before;
    std::memcpy(&before, &engine->hdrInfo, sizeof before);
    rec_.Clear();
    EXPECT_EQ(rec_([&] { return engine->setHdrInfo(nullptr); }), nullptr);
    EXPECT_TRUE(Logged(rec_, "setHdrInfo", "HDR_ASSERT[setHdrInfo:%d] : _hdrInfo != nullptr"));
    EXPECT_EQ(std::memcmp(&before, &engine->hdrInfo, sizeof before), 0);
}

// ===========================================================================
// Whole host cycles, compared with the model
// ===========================================================================

// Direct mode, one shot: GpuGenerateHdr(&info) with the factory default tuning and YUV output.
TEST_F(PublicApiCycles, DirectOneShot)
{
    const Picture pic = MakePicture(37, 23, 100);
    const PictureMetadata md = CycleMetadata();
    HdrInfo info = Describe(pic, md);
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(37, 23, true)); }), 0);
    rec_.Clear();
    ASSERT_EQ(rec_([&] { return GpuGenerateHdr(&info); }), 0);
    // No system information: the tuning stays at the factory defaults.
    EXPECT_TRUE(Logged(rec_, "LoadSettings", "HdrFactorySettings::GetParameter fail "));
    const int32_t apl = PictureLevel(pic);
    bool aplLogged = false;
    for (const LogLine& l : rec_.lines()) {
        aplLogged = aplLogged || l.parsed.message.rfind(hdrtest::Format("Calculate APL = %d, apl = ", apl), 0) == 0;
    }
    EXPECT_TRUE(aplLogged) << "the picture level the library computed differs from " << apl;
    ExpectPictureMatchesModel(rec_([] { return GpuGenerateGetTBM(); }), pic, md, TuningValues{}, apl, true);
}

// Direct mode: SetHdrInfo then GpuGenerateHdr(), twice, with the set's system-information tuning and RGB output.
TEST_F(PublicApiCycles, DirectSetHdrInfoThenGenerate)
{
    const TuningValues tuning = SetSystemTuning();
    const PictureMetadata md = CycleMetadata();
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(37, 23)); }), 0);
    for (uint32_t seed : {200u, 210u}) {
        // The second picture's luma keeps its level between the two thresholds: the boost is blended.
        const Picture pic = seed == 200u ? MakePicture(37, 23, seed) : MakePicture(37, 23, seed, 20, 90);
        HdrInfo info = Describe(pic, md);
        rec_.Clear();
        ASSERT_NE(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
        EXPECT_TRUE(Logged(rec_, "LoadSettings", "HdrGenerate::LoadSettings end"));
        ASSERT_EQ(rec_([] { return GpuGenerateHdr(); }), 0);
        ExpectPictureMatchesModel(rec_([] { return GpuGenerateGetTBM(); }), pic, md, tuning, PictureLevel(pic), false);
    }
}

// Streaming mode: the first SetHdrInfo primes the mappings; each picture is streamed, its metadata set, and drawn.
TEST_F(PublicApiCycles, StreamingCycle)
{
    const TuningValues tuning = SetSystemTuning();
    PictureMetadata md = CycleMetadata();
    const Picture first = MakePicture(37, 23, 300);
    HdrInfo info = Describe(first, md);
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Streaming(true)); }), 0);
    uint8_t** mappings = rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); });
    ASSERT_NE(mappings, nullptr);
    for (int i = 0; i < 6; ++i) {
        EXPECT_NE(mappings[i], nullptr) << "plane " << i << " is not mapped after the first metadata";
    }

    for (uint32_t seed : {300u, 310u, 320u}) {
        const Picture pic = seed == 300u ? first : MakePicture(37, 23, seed, 15, 95);
        md.trfn = seed == 320u ? 1 : 3;  // the streaming mode keeps the input curve
        info = Describe(pic, md);
        ASSERT_TRUE(rec_([&] { return StreamPlanes(mappings, pic); })) << "picture " << seed;
        ASSERT_EQ(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), mappings);
        ASSERT_EQ(rec_([] { return GpuGenerateHdr(); }), 0);
        ExpectPictureMatchesModel(rec_([] { return GpuGenerateGetTBM(); }), pic, md, tuning, PictureLevel(pic), true);
    }
}

// Size change in the README's order (SetHdrInfo(new), stream, draw): right, but nothing mapped for the next picture.
TEST_F(PublicApiCycles, StreamingSizeChangeInReadmeOrder)
{
    const TuningValues tuning = SetSystemTuning();
    PictureMetadata md = CycleMetadata();
    const Picture a = MakePicture(37, 23, 400);
    HdrInfo info = Describe(a, md);
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Streaming()); }), 0);
    uint8_t** mappings = rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); });
    ASSERT_NE(mappings, nullptr);
    ASSERT_TRUE(rec_([&] { return StreamPlanes(mappings, a); }));
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), mappings);
    ASSERT_EQ(rec_([] { return GpuGenerateHdr(); }), 0);
    ExpectPictureMatchesModel(rec_([] { return GpuGenerateGetTBM(); }), a, md, tuning, PictureLevel(a), false);

    // New sizes: metadata first, then the planes, then the draw.
    const Picture c = MakePicture(29, 29, 410);
    md.outputRotate = 1;
    info = Describe(c, md);
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), mappings);
    ASSERT_TRUE(rec_([&] { return StreamPlanes(mappings, c); }));
    ASSERT_EQ(rec_([] { return GpuGenerateHdr(); }), 0);
    ExpectPictureMatchesModel(rec_([] { return GpuGenerateGetTBM(); }), c, md, tuning, PictureLevel(c), false);

    // Each UpdateDataEnd released its plane's mapping and no metadata intake has mapped them
    // again: the next picture cannot be streamed first, as the cycle would have it.
    EXPECT_TRUE(AllUnmapped(mappings));
}

// Size change as SetHdrInfo(new), stream, SetHdrInfo(same), draw: every picture right, and the cycle goes on.
TEST_F(PublicApiCycles, StreamingPicturesOfDifferentSizes)
{
    const TuningValues tuning = SetSystemTuning();
    PictureMetadata md = CycleMetadata();
    const Picture a = MakePicture(37, 23, 500);
    HdrInfo info = Describe(a, md);
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Streaming()); }), 0);
    uint8_t** mappings = rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); });
    ASSERT_NE(mappings, nullptr);

    struct Step {
        Picture picture;
        int rotate;
        bool newSize;
    };
    const Step steps[] = {
        {a, 0, false},
        {MakePicture(37, 23, 510, 20, 90), 0, false},
        {MakePicture(29, 29, 520), 1, true},
        {MakePicture(29, 29, 530), 2, false},
        {MakePicture(16, 9, 540), 0, true},
        {MakePicture(16, 9, 550), 0, false},
    };
    int stepIndex = 0;
    for (const Step& step : steps) {
        SCOPED_TRACE(::testing::Message() << "picture " << stepIndex++ << " (" << step.picture.width << " x "
                                          << step.picture.height << ")");
        md.outputRotate = step.rotate;
        info = Describe(step.picture, md);
        if (step.newSize) {
            ASSERT_EQ(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), mappings);
        }
        ASSERT_TRUE(rec_([&] { return StreamPlanes(mappings, step.picture); }));
        ASSERT_EQ(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), mappings);
        ASSERT_EQ(rec_([] { return GpuGenerateHdr(); }), 0);
        ExpectPictureMatchesModel(rec_([] { return GpuGenerateGetTBM(); }), step.picture, md, tuning,
                                  PictureLevel(step.picture), false);
        EXPECT_EQ(SurfacesAlive(), 1);
    }
}

// ===========================================================================
// The host's EGL binding
// ===========================================================================

// Every entry point of a direct-mode cycle leaves the host's context and surfaces current as they were.
TEST_F(PublicApiBinding, KeptAcrossDirectCycle)
{
    hdrtest::HostContext host(display_);
    ASSERT_TRUE(host.ok());
    const hdrtest::Binding expected = HostBinding(host);
    ASSERT_EQ(hdrtest::CurrentBinding(), expected);
    const Picture pic = MakePicture(8, 8, 600);
    HdrInfo info = Describe(pic, CycleMetadata());

    EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
    EXPECT_EQ(hdrtest::CurrentBinding(), expected) << "after GpuGenerateHdrInit";
    EXPECT_NE(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    EXPECT_EQ(hdrtest::CurrentBinding(), expected) << "after GpuGenerateHdrSetHdrInfo";
    EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 0);
    EXPECT_EQ(hdrtest::CurrentBinding(), expected) << "after GpuGenerateHdr()";
    EXPECT_EQ(rec_([&] { return GpuGenerateHdr(&info); }), 0);
    EXPECT_EQ(hdrtest::CurrentBinding(), expected) << "after GpuGenerateHdr(HdrInfo*)";
    EXPECT_NE(rec_([] { return GpuGenerateGetTBM(); }), -1);
    EXPECT_EQ(hdrtest::CurrentBinding(), expected) << "after GpuGenerateGetTBM";
    EXPECT_EQ(rec_([] { return GpuRender(); }), 0);
    EXPECT_EQ(hdrtest::CurrentBinding(), expected) << "after GpuRender";
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 1);
    EXPECT_EQ(hdrtest::CurrentBinding(), expected) << "after a second GpuGenerateHdrInit";
    rec_([] { GpuGenerateHdrDestroy(); });
    EXPECT_EQ(hdrtest::CurrentBinding(), expected) << "after GpuGenerateHdrDestroy";
}

// Streaming: Begin leaves the library's context current for the writes; End puts the host's binding back.
TEST_F(PublicApiBinding, KeptAcrossStreamingCycle)
{
    hdrtest::HostContext host(display_);
    ASSERT_TRUE(host.ok());
    const hdrtest::Binding expected = HostBinding(host);
    const Picture pic = MakePicture(8, 8, 610);
    HdrInfo info = Describe(pic, CycleMetadata());

    EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(Streaming()); }), 0);
    EXPECT_EQ(hdrtest::CurrentBinding(), expected) << "after GpuGenerateHdrInit";
    uint8_t** mappings = rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); });
    ASSERT_NE(mappings, nullptr);
    EXPECT_EQ(hdrtest::CurrentBinding(), expected) << "after GpuGenerateHdrSetHdrInfo";
    for (int i = 0; i < 6; ++i) {
        int plane = i;
        ASSERT_EQ(rec_([&] { return GpuGenerateHdrUpdateDataBegin(plane); }), 1);
        EXPECT_NE(eglGetCurrentContext(), host.context()) << "Begin binds the library's context";
        std::memcpy(mappings[i], pic.planes[i].data(), pic.planes[i].size());
        int width = 8;
        int height = 8;
        ASSERT_EQ(rec_([&] { return GpuGenerateHdrUpdateDataEnd(width, height); }), 1);
        EXPECT_EQ(hdrtest::CurrentBinding(), expected) << "after GpuGenerateHdrUpdateDataEnd of plane " << i;
    }
    EXPECT_NE(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 0);
    EXPECT_EQ(hdrtest::CurrentBinding(), expected) << "after GpuGenerateHdr()";
}

// Failing calls leave the host's binding as it was too.
TEST_F(PublicApiBinding, KeptAcrossFailingCalls)
{
    hdrtest::HostContext host(display_);
    ASSERT_TRUE(host.ok());
    const hdrtest::Binding expected = HostBinding(host);
    const Picture pic = MakePicture(8, 8, 620);
    HdrInfo info = Describe(pic, CycleMetadata());
    HdrInfo bad = info;
    bad.nGainMapHeight = -1;

    faults::FailCreateContext(1);
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 4);
    EXPECT_EQ(hdrtest::CurrentBinding(), expected) << "after an initialisation failing with 4";
    faults::HideCurrentDisplay(true);
    EXPECT_EQ(rec_([] { return GpuGenerateHdrInit(GpuGenerateHdrInitOption{8, 8, nullptr, false, false}); }), 2);
    faults::HideCurrentDisplay(false);
    EXPECT_EQ(hdrtest::CurrentBinding(), expected) << "after an initialisation failing with 2";
    EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 12);
    EXPECT_EQ(hdrtest::CurrentBinding(), expected) << "after GpuGenerateHdr() before initialisation";

    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrSetHdrInfo(&bad); }), nullptr);
    EXPECT_EQ(hdrtest::CurrentBinding(), expected) << "after a refused GpuGenerateHdrSetHdrInfo";
    EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 12);
    EXPECT_EQ(hdrtest::CurrentBinding(), expected) << "after GpuGenerateHdr() without metadata";
    EXPECT_EQ(rec_([] { return GpuGenerateHdr(nullptr); }), 13);
    EXPECT_EQ(hdrtest::CurrentBinding(), expected) << "after GpuGenerateHdr(nullptr)";
    EXPECT_EQ(rec_([] { return GpuGenerateGetTBM(); }), -1);
    EXPECT_EQ(hdrtest::CurrentBinding(), expected) << "after a refused GpuGenerateGetTBM";
    ASSERT_NE(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    faults::QueueGlError(GL_INVALID_VALUE);
    EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 11);
    EXPECT_EQ(hdrtest::CurrentBinding(), expected) << "after GpuGenerateHdr() failing with 11";
    int plane = 6;
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrUpdateDataBegin(plane); }), 0);
    EXPECT_EQ(hdrtest::CurrentBinding(), expected) << "after a refused GpuGenerateHdrUpdateDataBegin";
}

// ===========================================================================
// Host threads
// ===========================================================================

// A second thread initialises its own context (not 1) and re-initialises the one engine on it; it then draws correctly.
TEST_F(PublicApiThreads, SecondThreadInitialisesItsOwnContext)
{
    HostThread a;
    HostThread b;
    const TuningValues tuning = SetSystemTuning();
    const PictureMetadata md = CycleMetadata();
    const Picture pic = MakePicture(19, 13, 700);
    HdrInfo info = Describe(pic, md);
    unsigned idA = 0;
    unsigned idB = 0;

    a.Run([&] {
        idA = LowThreadId(pthread_self());
        EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(19, 13)); }), 0);
        EXPECT_NE(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
        EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 0);
    });
    std::unique_ptr<hdrtest::HostContext> hostB;
    rec_.Clear();
    b.Run([&] {
        idB = LowThreadId(pthread_self());
        hostB = std::make_unique<hdrtest::HostContext>(display_);
        ASSERT_TRUE(hostB->ok());
        EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(19, 13)); }), 0)
            << "the second thread has no context yet: its initialisation is not a repeat";
        EXPECT_EQ(hdrtest::CurrentBinding(), HostBinding(*hostB));
    });
    EXPECT_TRUE(Logged(rec_, "InitContext", hdrtest::Format("Current thread id: %u", idB)));
    EXPECT_TRUE(Logged(rec_, "InitContext", "Successfully initialized a EGL context (2).\n"));
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdrInit", "GpuGenerateHdrInit end"));
    EXPECT_EQ(SurfacesAlive(), 1) << "the re-initialised engine replaced the first thread's surface";

    b.Run([&] {
        EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(19, 13)); }), 1);
        EXPECT_NE(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
        EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 0);
        ExpectPictureMatchesModel(rec_([] { return GpuGenerateGetTBM(); }), pic, md, tuning, PictureLevel(pic), false);
        EXPECT_EQ(hdrtest::CurrentBinding(), HostBinding(*hostB));
    });
    a.Run([&] {
        EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(19, 13)); }), 1) << "the first thread keeps its context";
    });

    // Destroy on the second thread ends the library for both: the first thread's record is dropped.
    b.Run([&] {
        rec_([] { GpuGenerateHdrDestroy(); });
        EXPECT_EQ(hdrtest::CurrentBinding(), HostBinding(*hostB));
        hostB.reset();
    });
    rec_.Clear();
    a.Run([&] {
        EXPECT_EQ(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
        EXPECT_EQ(rec_([] { return GpuRender(); }), 3);
    });
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdrSetHdrInfo", kNotInitialised));
    EXPECT_TRUE(Logged(rec_, "findContext",
                       hdrtest::Format("Failed to find a valid context. Current thread id: %u\n", idA)));
    EXPECT_EQ(SurfacesAlive(), 0);
}

// A thread that never initialised is refused by every call, while another thread holds a context.
TEST_F(PublicApiThreads, ThreadWithoutInitIsRefused)
{
    const Picture pic = MakePicture(8, 8, 710);
    HdrInfo info = Describe(pic, CycleMetadata());
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Streaming()); }), 0);
    uint8_t** mappings = rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); });
    ASSERT_NE(mappings, nullptr);
    const unsigned idMain = LowThreadId(pthread_self());

    HostThread other;
    unsigned idOther = 0;
    uint8_t** result = mappings;
    int generate = -100;
    int oneShot = -100;
    int tbm = -100;
    int render = -100;
    int begin = -100;
    rec_.Clear();
    other.Run([&] {
        idOther = LowThreadId(pthread_self());
        int plane = 0;
        result = rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); });
        generate = rec_([] { return GpuGenerateHdr(); });
        oneShot = rec_([&] { return GpuGenerateHdr(&info); });
        tbm = rec_([] { return GpuGenerateGetTBM(); });
        render = rec_([] { return GpuRender(); });
        begin = rec_([&] { return GpuGenerateHdrUpdateDataBegin(plane); });
    });
    EXPECT_EQ(result, nullptr);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdrSetHdrInfo", kNotInitialised));
    EXPECT_EQ(generate, 12);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdr", kNotInitialised));
    EXPECT_EQ(oneShot, 12);
    EXPECT_EQ(tbm, -1);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateGetTBM", kNotInitialised));
    EXPECT_EQ(render, 3);
    EXPECT_EQ(begin, 0);
    EXPECT_TRUE(Logged(rec_, "UpdateDataBegin", kNoContext));
    EXPECT_TRUE(Logged(rec_, "Bind", "%d ERROR: Fail to bind egl context.\n"));
    EXPECT_TRUE(Logged(rec_, "findContext",
                       hdrtest::Format("Failed to find a valid context. Current thread id: %u\n", idOther)));
    EXPECT_TRUE(Logged(rec_, "findContext", hdrtest::Format("\tbuffer thread id: %u\n", idMain)));

    // The initialised thread is not disturbed.
    ASSERT_TRUE(rec_([&] { return StreamPlanes(mappings, pic); }));
    EXPECT_NE(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 0);
}

// ===========================================================================
// Bad input
// ===========================================================================

// Zero and negative picture sizes are refused by the direct-mode intake.
TEST_F(PublicApiBadInput, NonPositiveSizesInDirectMode)
{
    const Picture pic = MakePicture(8, 8, 800);
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
    for (int field = 0; field < 4; ++field) {
        for (int value : {0, -1}) {
            HdrInfo info = Describe(pic, CycleMetadata());
            int32_t* sizes[] = {&info.nMainImageWidth, &info.nMainImageHeight, &info.nGainMapWidth,
                                &info.nGainMapHeight};
            *sizes[field] = value;
            rec_.Clear();
            EXPECT_EQ(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr)
                << "size field " << field << " = " << value;
            EXPECT_TRUE(Logged(rec_, "UpdateTextures", "%d ERROR: Input data's size is wrong\n"));
            EXPECT_TRUE(Logged(rec_, "setHdrInfo", "%d ERROR: UpdateTextures error\n"));
        }
    }
}

// Zero and negative picture sizes are refused by the streaming-mode intake too.
TEST_F(PublicApiBadInput, NonPositiveSizesInStreamingMode)
{
    const Picture pic = MakePicture(8, 8, 810);
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Streaming()); }), 0);
    for (int field = 0; field < 4; ++field) {
        for (int value : {0, -1}) {
            HdrInfo info = Describe(pic, CycleMetadata());
            int32_t* sizes[] = {&info.nMainImageWidth, &info.nMainImageHeight, &info.nGainMapWidth,
                                &info.nGainMapHeight};
            *sizes[field] = value;
            rec_.Clear();
            EXPECT_EQ(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr)
                << "size field " << field << " = " << value;
            EXPECT_TRUE(Logged(rec_, "UpdateTextures", "%d ERROR: Input data's size is wrong\n"));
            EXPECT_TRUE(Logged(rec_, "setHdrInfo", "%d ERROR: UpdateTextures error\n"));
        }
    }
    EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 12);
}

// A 65536 x 65536 picture in the direct mode: refused before GL sees it, and the intake returns null.
TEST_F(PublicApiBadInput, HugeSizesInDirectMode)
{
    // Every plane pointer is set, but to one byte: GL must refuse the size before reading anything.
    const uint8_t byte = 128;
    const Picture input = MakePicture(1, 1, 820);
    HdrInfo info = Describe(input, CycleMetadata());
    info.nMainImageWidth = info.nMainImageHeight = info.nGainMapWidth = info.nGainMapHeight = 65536;
    const int32_t maxTextureSize = MaxTextureSize(display_);
    for (int i = 0; i < 3; ++i) {
        info.mainImagePlanes[i] = &byte;
        info.gainMapPlanes[i] = &byte;
    }
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
    rec_.Clear();
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    EXPECT_TRUE(Logged(rec_, "HdrPlaneSizesAccepted",
                       "%d ERROR: main image planes of 65536 x 65536 refused: its byte count does not fit 32 bits (" +
                           std::to_string(maxTextureSize) + ")\n"));
    EXPECT_TRUE(Logged(rec_, "setHdrInfo", "%d ERROR: UpdateTextures error\n"));
    EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 12);
}

// A 65536 x 65536 picture in the streaming mode: refused before anything is mapped.
TEST_F(PublicApiBadInput, HugeSizesInStreamingMode)
{
    const Picture input = MakePicture(8, 8, 830);
    HdrInfo info = Describe(input, CycleMetadata());
    info.nMainImageWidth = info.nMainImageHeight = info.nGainMapWidth = info.nGainMapHeight = 65536;
    const int32_t maxTextureSize = MaxTextureSize(display_);
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Streaming()); }), 0);
    rec_.Clear();
    uint8_t** mappings = rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); });
    EXPECT_EQ(mappings, nullptr);
    EXPECT_TRUE(Logged(rec_, "HdrPlaneSizesAccepted",
                       "%d ERROR: main image planes of 65536 x 65536 refused: its byte count does not fit 32 bits (" +
                           std::to_string(maxTextureSize) + ")\n"));
    EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 12);
    // A sane picture afterwards is taken again.
    const Picture pic = MakePicture(8, 8, 831);
    info = Describe(pic, CycleMetadata());
    mappings = rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); });
    ASSERT_NE(mappings, nullptr);
    ASSERT_TRUE(rec_([&] { return StreamPlanes(mappings, pic); }));
    EXPECT_NE(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 0);
}

// An output of 0 x 0 in the streaming mode: the surface cannot be made and the intake returns null.
TEST_F(PublicApiBadInput, EmptyOutputInStreamingMode)
{
    const Picture input = MakePicture(8, 8, 840);
    HdrInfo info = Describe(input, CycleMetadata(), 0, 0);
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Streaming()); }), 0);
    rec_.Clear();
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    EXPECT_TRUE(Logged(rec_, "updateTBM", "Create new tbm surface PBO {0 x 0} >>>>>>>>>>>>>>>>>>>>>>>>>"));
    EXPECT_TRUE(Logged(rec_, "setHdrInfo", "%d ERROR: updateTBM error\n"));
    EXPECT_EQ(SurfacesAlive(), 0);
}

// A missing plane pointer is refused by the direct-mode intake, whichever plane it is.
TEST_F(PublicApiBadInput, MissingPlaneInDirectMode)
{
    const Picture pic = MakePicture(8, 8, 850);
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
    for (int plane = 0; plane < 6; ++plane) {
        HdrInfo info = Describe(pic, CycleMetadata());
        if (plane < 3) {
            info.mainImagePlanes[plane] = nullptr;
        } else {
            info.gainMapPlanes[plane - 3] = nullptr;
        }
        rec_.Clear();
        EXPECT_EQ(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr) << "plane " << plane;
        EXPECT_TRUE(Logged(rec_, "UpdateTextures", "%d ERROR: Input date is nullptr\n"));
    }
}

// The streaming mode takes no plane pointers from the record: missing ones are no error.
TEST_F(PublicApiBadInput, MissingPlanesIgnoredInStreamingMode)
{
    const Picture input = MakePicture(8, 8, 860);
    HdrInfo info = Describe(input, CycleMetadata());
    for (int i = 0; i < 3; ++i) {
        info.mainImagePlanes[i] = nullptr;
        info.gainMapPlanes[i] = nullptr;
    }
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Streaming()); }), 0);
    EXPECT_NE(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
}

// A gamut outside 0..2 passes the intake and is refused by the draw with 13 (streaming mode, where it is kept).
TEST_F(PublicApiBadInput, GamutOutOfRangeRefusedAtDraw)
{
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Streaming()); }), 0);
    for (int gamut : {3, -2}) {
        const Picture input = MakePicture(8, 8, 870);
        HdrInfo info = Describe(input, CycleMetadata());
        info.gamut = static_cast<hdr_color_gamut>(gamut);
        rec_.Clear();
        EXPECT_NE(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr) << "gamut " << gamut;
        EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 13) << "gamut " << gamut;
        EXPECT_TRUE(Logged(rec_, "UpdateUniform", kGamutAssertion));
        EXPECT_EQ(rec_([] { return GpuGenerateGetTBM(); }), -1);
    }
}

// A transfer function outside 0..3 passes the intake and is refused by the draw with 13.
TEST_F(PublicApiBadInput, TransferFunctionOutOfRangeRefusedAtDraw)
{
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Streaming()); }), 0);
    for (int trfn : {4, -2}) {
        const Picture input = MakePicture(8, 8, 880);
        HdrInfo info = Describe(input, CycleMetadata());
        info.trfn = static_cast<hdr_transfer_function>(trfn);
        rec_.Clear();
        EXPECT_NE(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr) << "trfn " << trfn;
        EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 13) << "trfn " << trfn;
        EXPECT_TRUE(Logged(rec_, "UpdateUniform", kTrfnAssertion));
        EXPECT_TRUE(NotLogged(rec_, "UpdateUniform", kGamutAssertion));
        EXPECT_EQ(rec_([] { return GpuGenerateGetTBM(); }), -1);
    }
}

// NaN and infinite metadata are not validated: they are logged as such and the draw succeeds.
TEST_F(PublicApiBadInput, NanAndInfiniteMetadataDraw)
{
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    const Picture input = MakePicture(8, 8, 890);
    HdrInfo info = Describe(input, CycleMetadata());
    info.gainMapMax[0] = nan;
    info.gamma[1] = inf;
    info.offsetSdr[2] = nan;
    info.hdrCapacityMax = inf;
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
    rec_.Clear();
    ASSERT_NE(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    EXPECT_TRUE(Logged(rec_, "setHdrInfo", "hdrCapacityMax = inf"));
    EXPECT_TRUE(Logged(rec_, "setHdrInfo", "gainMapMax = [nan, 1.50, 3.00, -5.00]"));
    EXPECT_TRUE(Logged(rec_, "setHdrInfo", "gamma = [1.25, inf, 1.00, 0.00]"));
    EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 0);
    EXPECT_NE(rec_([] { return GpuGenerateGetTBM(); }), -1);
}

// Equal capacity bounds make the weight undefined; it is sent as it is and the draw succeeds.
TEST_F(PublicApiBadInput, EqualCapacitiesDraw)
{
    const Picture input = MakePicture(8, 8, 900);
    HdrInfo info = Describe(input, CycleMetadata());
    info.hdrCapacityMin = info.hdrCapacityMax = 1.0f;
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
    EXPECT_EQ(rec_([&] { return GpuGenerateHdr(&info); }), 0);
    EXPECT_NE(rec_([] { return GpuGenerateGetTBM(); }), -1);
}

// The one-shot ignores a refused intake: it draws what the textures hold and returns the draw's result.
TEST_F(PublicApiBadInput, OneShotIgnoresARefusedIntake)
{
    const Picture input = MakePicture(8, 8, 910);
    HdrInfo info = Describe(input, CycleMetadata());
    info.nMainImageWidth = 0;
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
    rec_.Clear();
    EXPECT_EQ(rec_([&] { return GpuGenerateHdr(&info); }), 0);
    EXPECT_TRUE(Logged(rec_, "setHdrInfo", "%d ERROR: UpdateTextures error\n"));
}

// ===========================================================================
// Calls out of order
// ===========================================================================

// GpuGenerateHdr() before any GpuGenerateHdrSetHdrInfo is refused with 12.
TEST_F(PublicApiOrder, GenerateBeforeSetHdrInfo)
{
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Streaming()); }), 0);
    rec_.Clear();
    EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 12);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdr", kNoInfo));
}

// Begin before any metadata succeeds; End finds nothing mapped, fails, and leaves the context bound until Destroy.
TEST_F(PublicApiOrder, BeginEndBeforeAnySetHdrInfo)
{
    hdrtest::HostContext host(display_);
    ASSERT_TRUE(host.ok());
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Streaming()); }), 0);
    int plane = 0;
    int width = 8;
    int height = 8;
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrUpdateDataBegin(plane); }), 1);
    rec_.Clear();
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrUpdateDataEnd(width, height); }), 0);
    EXPECT_TRUE(Logged(rec_, "UpdateDataEnd", "%d ERROR: GL_error\n"));
    EXPECT_NE(eglGetCurrentContext(), host.context()) << "the failed End leaves the library's context bound";

    // While it stays bound, every call that binds is refused.
    const Picture input = MakePicture(8, 8, 1000);
    HdrInfo info = Describe(input, CycleMetadata());
    rec_.Clear();
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdrSetHdrInfo", kNoContext));
    rec_([] { GpuGenerateHdrDestroy(); });
    EXPECT_EQ(hdrtest::CurrentBinding(), HostBinding(host)) << "Destroy releases the context";
}

// End without Begin fails (it acts on whatever context is current) and changes neither the binding nor the mappings.
TEST_F(PublicApiOrder, EndWithoutBegin)
{
    hdrtest::HostContext host(display_);
    ASSERT_TRUE(host.ok());
    const Picture pic = MakePicture(8, 8, 1010);
    HdrInfo info = Describe(pic, CycleMetadata());
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Streaming()); }), 0);
    uint8_t** mappings = rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); });
    ASSERT_NE(mappings, nullptr);
    std::array<uint8_t*, 6> before;
    std::copy(mappings, mappings + 6, before.begin());
    int width = 8;
    int height = 8;
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrUpdateDataEnd(width, height); }), 0);
    EXPECT_EQ(hdrtest::CurrentBinding(), HostBinding(host));
    EXPECT_TRUE(std::equal(before.begin(), before.end(), mappings));
    // The cycle goes on normally.
    ASSERT_TRUE(rec_([&] { return StreamPlanes(mappings, pic); }));
    EXPECT_NE(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 0);
}

// Between Begin and End every other binding call fails ("no context", 3); End then releases and the cycle goes on.
TEST_F(PublicApiOrder, BeginWithoutEndThenOtherCalls)
{
    hdrtest::HostContext host(display_);
    ASSERT_TRUE(host.ok());
    const TuningValues tuning = SetSystemTuning();
    const PictureMetadata md = CycleMetadata();
    const Picture pic = MakePicture(9, 9, 1020);
    HdrInfo info = Describe(pic, md);
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Streaming()); }), 0);
    uint8_t** mappings = rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); });
    ASSERT_NE(mappings, nullptr);

    int plane = 0;
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrUpdateDataBegin(plane); }), 1);
    rec_.Clear();
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdrSetHdrInfo", kNoContext));
    EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 3) << "the priming intake's mark is spent on this attempt";
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdr", kNoContext));
    EXPECT_EQ(rec_([] { return GpuRender(); }), 3);
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(Streaming()); }), 1);
    EXPECT_EQ(rec_([] { return GpuGenerateGetTBM(); }), -1);
    int again = 1;
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrUpdateDataBegin(again); }), 0) << "a second Begin cannot bind";

    // The host still writes plane 0 and ends it: its binding comes back and the cycle goes on.
    std::memcpy(mappings[0], pic.planes[0].data(), pic.planes[0].size());
    int width = 9;
    int height = 9;
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrUpdateDataEnd(width, height); }), 1);
    EXPECT_EQ(hdrtest::CurrentBinding(), HostBinding(host));
    for (int i = 1; i < 6; ++i) {
        int p = i;
        ASSERT_EQ(rec_([&] { return GpuGenerateHdrUpdateDataBegin(p); }), 1);
        std::memcpy(mappings[i], pic.planes[i].data(), pic.planes[i].size());
        ASSERT_EQ(rec_([&] { return GpuGenerateHdrUpdateDataEnd(width, height); }), 1);
    }
    ASSERT_NE(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    ASSERT_EQ(rec_([] { return GpuGenerateHdr(); }), 0);
    ExpectPictureMatchesModel(rec_([] { return GpuGenerateGetTBM(); }), pic, md, tuning, PictureLevel(pic), false);
}

// Destroy between Begin and End releases the library's context and puts the host's binding back.
TEST_F(PublicApiOrder, DestroyBetweenBeginAndEnd)
{
    hdrtest::HostContext host(display_);
    ASSERT_TRUE(host.ok());
    const Picture input = MakePicture(8, 8, 1030);
    HdrInfo info = Describe(input, CycleMetadata());
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Streaming()); }), 0);
    ASSERT_NE(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    int plane = 3;
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrUpdateDataBegin(plane); }), 1);
    rec_([] { GpuGenerateHdrDestroy(); });
    EXPECT_EQ(hdrtest::CurrentBinding(), HostBinding(host));
    EXPECT_EQ(SurfacesAlive(), 0);
}

// Begin with a plane outside 0..5 is refused with 0 and its own line, binding nothing.
TEST_F(PublicApiOrder, BeginWithPlaneOutOfRange)
{
    hdrtest::HostContext host(display_);
    ASSERT_TRUE(host.ok());
    const Picture input = MakePicture(8, 8, 1040);
    HdrInfo info = Describe(input, CycleMetadata());
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Streaming()); }), 0);
    ASSERT_NE(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    for (int value : {6, -1, 1000}) {
        int plane = value;
        rec_.Clear();
        EXPECT_EQ(rec_([&] { return GpuGenerateHdrUpdateDataBegin(plane); }), 0) << "plane " << value;
        EXPECT_TRUE(Logged(rec_, "UpdateDataBegin", "%d ERROR: no such plane: " + std::to_string(value) + "\n"));
        EXPECT_EQ(plane, value) << "the plane is passed through unchanged";
        EXPECT_EQ(hdrtest::CurrentBinding(), HostBinding(host));
    }
}

}  // namespace
