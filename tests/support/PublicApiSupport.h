// Shared by the public-interface tests (PublicApi*Test.cpp): the log
// recorder, the pictures and their metadata, the host threads and the
// fixture. Everything goes through the public header, the test harness and
// the platform stand-ins' controls.
//
// Log lines are compared by their message part; a message whose pattern
// holds "%d" for the source line is compared with the line number that the
// line's own "file: function(line) > " prefix carries.
#ifndef HDRGPU_TEST_PUBLIC_API_SUPPORT_H
#define HDRGPU_TEST_PUBLIC_API_SUPPORT_H

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

namespace apitest {

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
inline bool Matches(const hdrtest::ParsedLine& line, const std::string& pattern)
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
inline ::testing::AssertionResult Logged(const Recorder& rec, const std::string& function, const std::string& pattern)
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

inline ::testing::AssertionResult NotLogged(const Recorder& rec, const std::string& function, const std::string& pattern)
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

inline Plane Random(int w, int h, uint32_t seed, int lo, int hi)
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
inline Picture MakePicture(int w, int h, uint32_t seed, int lumaLo = 0, int lumaHi = 255)
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
inline PictureMetadata CycleMetadata()
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
inline HdrInfo Describe(const Picture& p, const PictureMetadata& md, int outputWidth, int outputHeight)
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

inline HdrInfo Describe(const Picture& p, const PictureMetadata& md)
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
inline TuningValues SetSystemTuning()
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

inline tbm_surface_h SurfaceOf(int handle)
{
    return reinterpret_cast<tbm_surface_h>(static_cast<intptr_t>(handle));
}

// The surface's bytes, row after row without the stride's padding; empty
// when the handle does not map.
inline std::vector<uint8_t> SurfaceBytes(int handle, uint32_t* width = nullptr, uint32_t* height = nullptr)
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
inline void ExpectPictureMatchesModel(int handle, const Picture& pic, const PictureMetadata& md,
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

inline int32_t PictureLevel(const Picture& p)
{
    return hdrtest::AveragePictureLevel(p.planes[0].data(), p.width, p.height);
}

// Writes the picture's six planes, each between Begin and End, through the
// mappings that SetHdrInfo returned. False at the first refusal.
inline bool StreamPlanes(uint8_t** mappings, const Picture& p)
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
inline int32_t MaxTextureSize(EGLDisplay display)
{
    hdrtest::HostContext host(display);
    GLint size = 0;
    glGetIntegerv(GL_MAX_TEXTURE_SIZE, &size);
    return size;
}

inline bool AllUnmapped(uint8_t** mappings)
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

inline unsigned LowThreadId(pthread_t id)
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

}  // namespace apitest

#endif
