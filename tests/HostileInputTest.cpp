// The library against a careless or hostile host: plane sizes at and beyond
// what GL and 32-bit byte counts can hold, in both modes, and calls from two
// threads at once. Every buffer the library hands out is written in full, so
// that a short buffer shows up under AddressSanitizer.
#include <HdrGpuBackend.h>

#include "EglTestEnv.h"
#include "Faults.h"
#include "HdrPlaneLimits.h"
#include "LogCapture.h"

#include <EGL/egl.h>
#include <GLES3/gl3.h>
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int32_t kInt32Max = std::numeric_limits<int32_t>::max();

// ---------------------------------------------------------------------------
// A draw that can be held inside the library: the library's glFinish reaches
// this definition first (the executable exports it); while armed, it reports
// that it was entered and waits to be released.
// ---------------------------------------------------------------------------
std::mutex gHoldMutex;
std::condition_variable gHoldChanged;
bool gHoldArmed = false;
bool gHoldEntered = false;
bool gHoldReleased = false;

void ArmHold()
{
    std::lock_guard<std::mutex> lock(gHoldMutex);
    gHoldArmed = true;
    gHoldEntered = false;
    gHoldReleased = false;
}

void WaitUntilHeld()
{
    std::unique_lock<std::mutex> lock(gHoldMutex);
    gHoldChanged.wait(lock, [] { return gHoldEntered; });
}

void ReleaseHold()
{
    std::lock_guard<std::mutex> lock(gHoldMutex);
    gHoldReleased = true;
    gHoldChanged.notify_all();
}

}  // namespace

extern "C" void glFinish(void)
{
    {
        std::unique_lock<std::mutex> lock(gHoldMutex);
        if (gHoldArmed) {
            gHoldArmed = false;
            gHoldEntered = true;
            gHoldChanged.notify_all();
            gHoldChanged.wait(lock, [] { return gHoldReleased; });
        }
    }
    using Function = void (*)(void);
    static const Function real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "glFinish"));
    if (real != nullptr) {
        real();
    }
}

namespace {

// A logged error line "<line> ERROR: <rest>" from function, whose number is
// the line its own prefix names.
bool LoggedError(const hdrtest::LogCapture& log, const std::string& function, const std::string& rest)
{
    for (const std::string& text : log.Texts()) {
        const hdrtest::ParsedLine p = hdrtest::Parse(text);
        if (p.function == function && p.message == std::to_string(p.line) + " ERROR: " + rest) {
            return true;
        }
    }
    return false;
}

const std::string kInProgress = "another call into the library is in progress, calls must be serialised\n";

// ---------------------------------------------------------------------------
// The pure size rule, without GL
// ---------------------------------------------------------------------------

TEST(PlaneLimits, AcceptsSizesFromOneToTheTextureLimit)
{
    EXPECT_EQ(HdrPlaneSizeProblem(1, 1, 1, 16384), nullptr);
    EXPECT_EQ(HdrPlaneSizeProblem(16384, 16384, 1, 16384), nullptr);
    EXPECT_EQ(HdrPlaneSizeProblem(16384, 1, 4, 16384), nullptr);
}

TEST(PlaneLimits, RefusesSidesBelowOne)
{
    for (int32_t bad : {0, -1, std::numeric_limits<int32_t>::min()}) {
        EXPECT_STREQ(HdrPlaneSizeProblem(bad, 8, 1, 16384), "a side is below 1") << bad;
        EXPECT_STREQ(HdrPlaneSizeProblem(8, bad, 1, 16384), "a side is below 1") << bad;
    }
}

TEST(PlaneLimits, RefusesByteCountsBeyond32Bits)
{
    // Limit set above the sizes, so that only the byte count can refuse them.
    const char* const tooMany = "its byte count does not fit 32 bits";
    EXPECT_STREQ(HdrPlaneSizeProblem(65537, 65537, 1, kInt32Max), tooMany);
    EXPECT_STREQ(HdrPlaneSizeProblem(46341, 46341, 1, kInt32Max), tooMany);
    EXPECT_STREQ(HdrPlaneSizeProblem(kInt32Max, 2, 1, kInt32Max), tooMany);
    EXPECT_STREQ(HdrPlaneSizeProblem(kInt32Max, kInt32Max, 1, kInt32Max), tooMany);
    EXPECT_EQ(HdrPlaneSizeProblem(kInt32Max, 1, 1, kInt32Max), nullptr);
    EXPECT_EQ(HdrPlaneSizeProblem(46340, 46340, 1, kInt32Max), nullptr);
    // Four bytes a pixel: 23170^2 x 4 fits, 23171^2 x 4 does not.
    EXPECT_EQ(HdrPlaneSizeProblem(23170, 23170, 4, kInt32Max), nullptr);
    EXPECT_STREQ(HdrPlaneSizeProblem(23171, 23171, 4, kInt32Max), tooMany);
}

TEST(PlaneLimits, RefusesSidesAboveTheTextureLimit)
{
    const char* const tooLarge = "a side exceeds the maximum texture size";
    EXPECT_STREQ(HdrPlaneSizeProblem(16385, 1, 1, 16384), tooLarge);
    EXPECT_STREQ(HdrPlaneSizeProblem(1, 16385, 1, 16384), tooLarge);
    EXPECT_STREQ(HdrPlaneSizeProblem(20000, 1, 1, 16384), tooLarge);
    EXPECT_STREQ(HdrPlaneSizeProblem(70000, 1, 1, 16384), tooLarge);
}

TEST(PlaneLimits, NamesThePictureThatIsRefused)
{
    int which = -1;
    EXPECT_EQ(HdrPlanesSizeProblem(8, 8, 4, 4, 16384, &which), nullptr);
    EXPECT_NE(HdrPlanesSizeProblem(8, 0, 4, 4, 16384, &which), nullptr);
    EXPECT_EQ(which, 0);
    EXPECT_NE(HdrPlanesSizeProblem(8, 8, 20000, 4, 16384, &which), nullptr);
    EXPECT_EQ(which, 1);
}

// ---------------------------------------------------------------------------
// The intake, through the public interface
// ---------------------------------------------------------------------------

class HostileHost : public hdrtest::EglTest {
protected:
    void SetUp() override
    {
        EglTest::SetUp();
        hdrtest::faults::Reset();
    }
    void TearDown() override
    {
        GpuGenerateHdrDestroy();
        hdrtest::faults::Reset();
    }

    GpuGenerateHdrInitOption Streaming() const { return {8, 8, display_, false, true}; }
    GpuGenerateHdrInitOption Direct() const { return {8, 8, display_, false, false}; }

    // Neutral metadata, an 8 x 8 output, planes from planes_ (direct mode).
    HdrInfo Record(int32_t mainWidth, int32_t mainHeight, int32_t gainMapWidth, int32_t gainMapHeight)
    {
        HdrInfo info;
        std::memset(&info, 0, sizeof info);
        info.nMainImageWidth = mainWidth;
        info.nMainImageHeight = mainHeight;
        info.nGainMapWidth = gainMapWidth;
        info.nGainMapHeight = gainMapHeight;
        planes_.assign(64 * 64, 128);
        for (int i = 0; i < 3; ++i) {
            info.mainImagePlanes[i] = planes_.data();
            info.gainMapPlanes[i] = planes_.data();
        }
        for (int c = 0; c < 4; ++c) {
            info.gainMapMin[c] = 0.0f;
            info.gainMapMax[c] = 1.0f;
            info.gamma[c] = 1.0f;
            info.offsetSdr[c] = 1.0f / 64;
            info.offsetHdr[c] = 1.0f / 64;
        }
        info.hdrCapacityMin = 0.0f;
        info.hdrCapacityMax = 1.0f;
        info.gamut = hdr_color_gamut::HDR_COLORGAMUT_BT709;
        info.trfn = hdr_transfer_function::HDR_TF_SRGB;
        info.outputWidth = 8;
        info.outputHeight = 8;
        return info;
    }

    // Streams every plane of info through the buffers the library handed
    // out, writing each one's full width x height bytes.
    static bool StreamEveryByte(uint8_t** mappings, const HdrInfo& info)
    {
        for (int plane = 0; plane < 6; ++plane) {
            int width = plane < 3 ? info.nMainImageWidth : info.nGainMapWidth;
            int height = plane < 3 ? info.nMainImageHeight : info.nGainMapHeight;
            int p = plane;
            if (GpuGenerateHdrUpdateDataBegin(p) == 0 || mappings[plane] == nullptr) {
                return false;
            }
            const size_t bytes = static_cast<size_t>(width) * static_cast<size_t>(height);
            std::memset(mappings[plane], 100 + plane, bytes);
            if (GpuGenerateHdrUpdateDataEnd(width, height) == 0) {
                return false;
            }
        }
        return true;
    }

    static int32_t MaxTextureSize()
    {
        GLint size = 0;
        glGetIntegerv(GL_MAX_TEXTURE_SIZE, &size);
        return size;
    }

    std::vector<uint8_t> planes_;
};

struct Size {
    int32_t width;
    int32_t height;
};

// Sizes that no buffer of this implementation can hold or no texture can take.
std::vector<Size> RefusedSizes(int32_t maxTextureSize)
{
    return {{65537, 65537}, {46341, 46341}, {maxTextureSize + 1, 1}, {20000, 1}, {70000, 1}, {1, 70000},
            {kInt32Max, 1}, {kInt32Max, kInt32Max}};
}

// The streaming intake hands out buffers that hold every byte of the planes
// it accepts, and refuses the sizes it cannot hold, for both pictures.
TEST_F(HostileHost, StreamingBuffersHoldEveryByteOrAreRefused)
{
    ASSERT_EQ(GpuGenerateHdrInit(Streaming()), 0);
    hdrtest::HostContext host(display_);
    ASSERT_TRUE(host.ok());
    const int32_t maxTextureSize = MaxTextureSize();
    ASSERT_GE(maxTextureSize, 2048);
    for (int picture = 0; picture < 2; ++picture) {
        for (const Size& size : RefusedSizes(maxTextureSize)) {
            HdrInfo info = picture == 0 ? Record(size.width, size.height, 4, 4) : Record(8, 8, size.width, size.height);
            hdrtest::LogCapture log;
            uint8_t** mappings = GpuGenerateHdrSetHdrInfo(&info);
            if (mappings != nullptr) {
                // What a host does with a buffer it was given: fill it.
                StreamEveryByte(mappings, info);
            }
            EXPECT_EQ(mappings, nullptr) << size.width << " x " << size.height << " in picture " << picture;
            const std::string name = picture == 0 ? "main image" : "gain map";
            bool named = false;
            for (const std::string& message : log.Messages()) {
                named = named || message.find("ERROR: " + name + " planes of " + std::to_string(size.width) + " x " +
                                              std::to_string(size.height) + " refused: ") != std::string::npos;
            }
            EXPECT_TRUE(named) << size.width << " x " << size.height;
            EXPECT_EQ(GpuGenerateHdr(), 12) << "a refused intake allows no draw";
        }
        // Accepted sizes, including the limit, are held in full.
        for (const Size& size : {Size{1, 1}, Size{7, 3}, Size{maxTextureSize, 1}, Size{1, maxTextureSize}}) {
            HdrInfo info = picture == 0 ? Record(size.width, size.height, 4, 4) : Record(8, 8, size.width, size.height);
            uint8_t** mappings = GpuGenerateHdrSetHdrInfo(&info);
            ASSERT_NE(mappings, nullptr) << size.width << " x " << size.height;
            EXPECT_TRUE(StreamEveryByte(mappings, info)) << size.width << " x " << size.height;
            EXPECT_NE(GpuGenerateHdrSetHdrInfo(&info), nullptr);
            EXPECT_EQ(GpuGenerateHdr(), 0) << size.width << " x " << size.height;
        }
    }
}

// The direct intake refuses the same sizes with the same line, before GL sees them.
TEST_F(HostileHost, DirectIntakeRefusesTheSameSizes)
{
    ASSERT_EQ(GpuGenerateHdrInit(Direct()), 0);
    for (const Size& size : RefusedSizes(16384)) {
        HdrInfo info = Record(8, 8, size.width, size.height);
        hdrtest::LogCapture log;
        EXPECT_EQ(GpuGenerateHdrSetHdrInfo(&info), nullptr) << size.width << " x " << size.height;
        bool named = false;
        for (const std::string& message : log.Messages()) {
            named = named || message.find("ERROR: gain map planes of " + std::to_string(size.width) + " x " +
                                          std::to_string(size.height) + " refused: ") != std::string::npos;
        }
        EXPECT_TRUE(named) << size.width << " x " << size.height;
        EXPECT_TRUE(LoggedError(log, "setHdrInfo", "UpdateTextures error\n"));
        EXPECT_EQ(GpuGenerateHdr(), 12);
    }
}

// A streaming output beyond the texture limit is refused before a surface is made.
TEST_F(HostileHost, StreamingOutputBeyondTheTextureLimitIsRefused)
{
    ASSERT_EQ(GpuGenerateHdrInit(Streaming()), 0);
    HdrInfo info = Record(8, 8, 4, 4);
    info.outputWidth = 70000;
    info.outputHeight = 8;
    hdrtest::LogCapture log;
    EXPECT_EQ(GpuGenerateHdrSetHdrInfo(&info), nullptr);
    bool named = false;
    for (const std::string& message : log.Messages()) {
        named = named || message.find("ERROR: output of 70000 x 8 refused: a side exceeds the maximum texture size") !=
                             std::string::npos;
    }
    EXPECT_TRUE(named);
    for (const std::string& message : log.Messages()) {
        EXPECT_EQ(message.find("Create new tbm surface"), std::string::npos) << message;
    }
    EXPECT_EQ(GpuGenerateHdr(), 12);
}

// A GL error while the buffers are defined fails the intake: no draw follows.
TEST_F(HostileHost, GlErrorWhileDefiningBuffersFailsTheIntake)
{
    ASSERT_EQ(GpuGenerateHdrInit(Streaming()), 0);
    HdrInfo info = Record(8, 8, 4, 4);
    ASSERT_NE(GpuGenerateHdrSetHdrInfo(&info), nullptr);
    EXPECT_EQ(GpuGenerateHdr(), 0);
    // Two errors: the output image's check takes (and only logs) the first,
    // the check after the buffers are defined gets the second.
    info = Record(6, 6, 4, 4);
    uint8_t** refused = nullptr;
    bool pboErrorLogged = false;
    bool intakeErrorLogged = false;
    {
        hdrtest::LogCapture log;
        hdrtest::faults::QueueGlError(GL_INVALID_OPERATION);
        hdrtest::faults::QueueGlError(GL_OUT_OF_MEMORY);
        refused = GpuGenerateHdrSetHdrInfo(&info);
        pboErrorLogged = LoggedError(log, "UpdatePBOs", "GL_error\n");
        intakeErrorLogged = LoggedError(log, "setHdrInfo", "UpdateTextures error\n");
    }
    EXPECT_EQ(refused, nullptr);
    EXPECT_TRUE(pboErrorLogged);
    EXPECT_TRUE(intakeErrorLogged);
    EXPECT_EQ(GpuGenerateHdr(), 12);
    // The next intake defines everything again.
    uint8_t** mappings = GpuGenerateHdrSetHdrInfo(&info);
    ASSERT_NE(mappings, nullptr);
    EXPECT_TRUE(StreamEveryByte(mappings, info));
    EXPECT_NE(GpuGenerateHdrSetHdrInfo(&info), nullptr);
    EXPECT_EQ(GpuGenerateHdr(), 0);
}

// ---------------------------------------------------------------------------
// Calls from two threads at once
// ---------------------------------------------------------------------------

class UnserialisedHost : public HostileHost {
protected:
    // Runs call on this thread while another thread, which initialised the
    // library, is held inside its GpuGenerateHdr(). Afterwards that thread's
    // draw must have succeeded and left the library as it was.
    void WhileAnotherCallIsInProgress(const std::function<void()>& call)
    {
        info_ = Record(8, 8, 4, 4);
        ArmHold();
        std::atomic<bool> ready{false};
        int drawn = -100;
        int surface = -1;
        int initAgain = -100;
        std::thread other([&] {
            HdrInfo info = Record(8, 8, 4, 4);
            ready = GpuGenerateHdrInit(Streaming()) == 0 && GpuGenerateHdrSetHdrInfo(&info) != nullptr;
            if (!ready) {
                ReleaseHold();
                std::lock_guard<std::mutex> lock(gHoldMutex);
                gHoldEntered = true;
                gHoldChanged.notify_all();
                return;
            }
            drawn = GpuGenerateHdr();
            surface = GpuGenerateGetTBM();
            initAgain = GpuGenerateHdrInit(Streaming());
            GpuGenerateHdrDestroy();  // on the thread whose context made the surface
        });
        WaitUntilHeld();
        if (ready) {
            hdrtest::LogCapture log;
            call();
            refusedLogged_ = LoggedError(log, function_, kInProgress);
        }
        ReleaseHold();
        other.join();
        ASSERT_TRUE(ready);
        EXPECT_EQ(drawn, 0) << "the call in progress is not disturbed";
        EXPECT_NE(surface, -1);
        EXPECT_EQ(initAgain, 1) << "still initialised";
    }

    HdrInfo info_;
    std::string function_;
    bool refusedLogged_ = false;
};

TEST_F(UnserialisedHost, InitIsRefusedWith12)
{
    function_ = "GpuGenerateHdrInit";
    int result = -100;
    WhileAnotherCallIsInProgress([&] { result = GpuGenerateHdrInit(Streaming()); });
    EXPECT_EQ(result, 12);
    EXPECT_TRUE(refusedLogged_);
}

TEST_F(UnserialisedHost, SetHdrInfoIsRefusedWithNull)
{
    function_ = "GpuGenerateHdrSetHdrInfo";
    uint8_t** result = reinterpret_cast<uint8_t**>(&result);
    WhileAnotherCallIsInProgress([&] { result = GpuGenerateHdrSetHdrInfo(&info_); });
    EXPECT_EQ(result, nullptr);
    EXPECT_TRUE(refusedLogged_);
}

TEST_F(UnserialisedHost, UpdateDataBeginIsRefusedWith0)
{
    function_ = "GpuGenerateHdrUpdateDataBegin";
    int result = -100;
    WhileAnotherCallIsInProgress([&] {
        int plane = 0;
        result = GpuGenerateHdrUpdateDataBegin(plane);
    });
    EXPECT_EQ(result, 0);
    EXPECT_TRUE(refusedLogged_);
}

TEST_F(UnserialisedHost, UpdateDataEndIsRefusedWith0)
{
    function_ = "GpuGenerateHdrUpdateDataEnd";
    int result = -100;
    WhileAnotherCallIsInProgress([&] {
        int width = 8;
        int height = 8;
        result = GpuGenerateHdrUpdateDataEnd(width, height);
    });
    EXPECT_EQ(result, 0);
    EXPECT_TRUE(refusedLogged_);
}

TEST_F(UnserialisedHost, GenerateIsRefusedWith12)
{
    function_ = "GpuGenerateHdr";
    int result = -100;
    WhileAnotherCallIsInProgress([&] { result = GpuGenerateHdr(); });
    EXPECT_EQ(result, 12);
    EXPECT_TRUE(refusedLogged_);
}

TEST_F(UnserialisedHost, OneShotIsRefusedWith12)
{
    function_ = "GpuGenerateHdr";
    int result = -100;
    WhileAnotherCallIsInProgress([&] { result = GpuGenerateHdr(&info_); });
    EXPECT_EQ(result, 12);
    EXPECT_TRUE(refusedLogged_);
}

TEST_F(UnserialisedHost, GetTbmIsRefusedWithMinus1)
{
    function_ = "GpuGenerateGetTBM";
    int result = -100;
    WhileAnotherCallIsInProgress([&] { result = GpuGenerateGetTBM(); });
    EXPECT_EQ(result, -1);
    EXPECT_TRUE(refusedLogged_);
}

TEST_F(UnserialisedHost, RenderIsRefusedWith12)
{
    function_ = "GpuRender";
    int result = -100;
    WhileAnotherCallIsInProgress([&] { result = GpuRender(); });
    EXPECT_EQ(result, 12);
    EXPECT_TRUE(refusedLogged_);
}

TEST_F(UnserialisedHost, DestroyIsRefusedAndTearsNothingDown)
{
    function_ = "GpuGenerateHdrDestroy";
    WhileAnotherCallIsInProgress([] { GpuGenerateHdrDestroy(); });
    EXPECT_TRUE(refusedLogged_);
}

}  // namespace
