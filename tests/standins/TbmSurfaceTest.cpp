// Behaviour of the buffer-manager stand-in.
#include "tbm_surface.h"
#include "tbm_surface_standin.h"

#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <cstdint>
#include <cstring>
#include <set>
#include <thread>
#include <vector>

namespace {

class TbmSurfaceTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        tbm_standin_fail_next_create(0);
        baseline_ = tbm_standin_live_surface_count();
    }

    void TearDown() override
    {
        tbm_standin_fail_next_create(0);
        for (tbm_surface_h s : owned_) {
            tbm_surface_destroy(s);
        }
        EXPECT_EQ(tbm_standin_live_surface_count(), baseline_);
    }

    // Creates a surface the fixture destroys at the end of the test.
    tbm_surface_h Create(int width, int height, tbm_format format = TBM_FORMAT_RGBA8888)
    {
        tbm_surface_h s = tbm_surface_create(width, height, format);
        if (s != nullptr) {
            owned_.push_back(s);
        }
        return s;
    }

    // A handle that was live once and has been destroyed.
    static tbm_surface_h StaleHandle()
    {
        tbm_surface_h s = tbm_surface_create(8, 8, TBM_FORMAT_RGBA8888);
        EXPECT_NE(s, nullptr);
        EXPECT_EQ(tbm_surface_destroy(s), TBM_SURFACE_ERROR_NONE);
        return s;
    }

    int baseline_ = 0;
    std::vector<tbm_surface_h> owned_;
};

uintptr_t Bits(tbm_surface_h s)
{
    return reinterpret_cast<uintptr_t>(s);
}

// The format codes are the little-endian four-character codes RA24 and AB24.
TEST_F(TbmSurfaceTest, FourccCodesAreLittleEndianCharacters)
{
    EXPECT_EQ(TBM_FORMAT_RGBA8888, static_cast<uint32_t>('R') | (static_cast<uint32_t>('A') << 8) |
                                       (static_cast<uint32_t>('2') << 16) |
                                       (static_cast<uint32_t>('4') << 24));
    EXPECT_EQ(TBM_FORMAT_ABGR8888, static_cast<uint32_t>('A') | (static_cast<uint32_t>('B') << 8) |
                                       (static_cast<uint32_t>('2') << 16) |
                                       (static_cast<uint32_t>('4') << 24));
    EXPECT_EQ(TBM_FORMAT_RGBA8888, 0x34324152u);
}

// A valid create returns a non-null handle that reports its size and format.
TEST_F(TbmSurfaceTest, CreateReportsWidthHeightAndFormat)
{
    tbm_surface_h s = Create(320, 240, TBM_FORMAT_ABGR8888);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(tbm_surface_get_width(s), 320);
    EXPECT_EQ(tbm_surface_get_height(s), 240);
    EXPECT_EQ(tbm_surface_get_format(s), static_cast<tbm_format>(TBM_FORMAT_ABGR8888));
}

// Both supported formats can be created.
TEST_F(TbmSurfaceTest, CreateAcceptsBothSupportedFormats)
{
    EXPECT_NE(Create(4, 4, TBM_FORMAT_RGBA8888), nullptr);
    EXPECT_NE(Create(4, 4, TBM_FORMAT_ABGR8888), nullptr);
}

// Zero or negative width or height gives NULL and creates nothing.
TEST_F(TbmSurfaceTest, CreateRejectsZeroAndNegativeSizes)
{
    EXPECT_EQ(Create(0, 16), nullptr);
    EXPECT_EQ(Create(16, 0), nullptr);
    EXPECT_EQ(Create(-1, 16), nullptr);
    EXPECT_EQ(Create(16, -1), nullptr);
    EXPECT_EQ(Create(INT_MIN, INT_MIN), nullptr);
    EXPECT_EQ(tbm_standin_live_surface_count(), baseline_);
}

// A format other than RGBA8888/ABGR8888 gives NULL.
TEST_F(TbmSurfaceTest, CreateRejectsUnsupportedFormat)
{
    EXPECT_EQ(Create(16, 16, 0), nullptr);
    EXPECT_EQ(Create(16, 16, __tbm_fourcc_code('X', 'R', '2', '4')), nullptr);
    EXPECT_EQ(Create(16, 16, __tbm_fourcc_code('N', 'V', '1', '2')), nullptr);
    EXPECT_EQ(tbm_standin_live_surface_count(), baseline_);
}

// A surface whose byte size would not fit in 32 bits gives NULL, without overflow.
TEST_F(TbmSurfaceTest, CreateRejectsSizeBeyondUint32)
{
    EXPECT_EQ(Create(INT_MAX, INT_MAX), nullptr);
    EXPECT_EQ(Create(INT_MAX, 1), nullptr);
    EXPECT_EQ(Create(65536, 65536), nullptr);
    EXPECT_EQ(Create(16384, 65536), nullptr);  // exactly 2^32 bytes
    EXPECT_EQ(tbm_standin_live_surface_count(), baseline_);
}

// Map fills one plane: bpp 32, offset 0, stride >= width*4 and a multiple of 64, size = stride*height.
TEST_F(TbmSurfaceTest, MapDescribesOnePaddedPlane)
{
    for (int width : {1, 3, 15, 16, 17, 33, 100, 1920, 3839}) {
        tbm_surface_h s = Create(width, 7);
        ASSERT_NE(s, nullptr) << width;
        tbm_surface_info_s info;
        std::memset(&info, 0xab, sizeof(info));
        ASSERT_EQ(tbm_surface_map(s, TBM_SURF_OPTION_READ | TBM_SURF_OPTION_WRITE, &info),
                  TBM_SURFACE_ERROR_NONE);
        EXPECT_EQ(info.width, static_cast<uint32_t>(width));
        EXPECT_EQ(info.height, 7u);
        EXPECT_EQ(info.format, static_cast<tbm_format>(TBM_FORMAT_RGBA8888));
        EXPECT_EQ(info.bpp, 32u);
        EXPECT_EQ(info.num_planes, 1u);
        const uint32_t stride = info.planes[0].stride;
        EXPECT_GE(stride, static_cast<uint32_t>(width) * 4u);
        EXPECT_EQ(stride % 64u, 0u);
        EXPECT_LT(stride - static_cast<uint32_t>(width) * 4u, 64u);  // smallest such stride
        EXPECT_EQ(info.planes[0].offset, 0u);
        EXPECT_EQ(info.planes[0].size, stride * 7u);
        EXPECT_EQ(info.size, stride * 7u);
        EXPECT_NE(info.planes[0].ptr, nullptr);
        EXPECT_EQ(tbm_surface_unmap(s), TBM_SURFACE_ERROR_NONE);
    }
}

// An odd width has padding at the end of each row (width 3 → stride 64).
TEST_F(TbmSurfaceTest, OddWidthHasRowPadding)
{
    tbm_surface_h s = Create(3, 2);
    ASSERT_NE(s, nullptr);
    tbm_surface_info_s info;
    ASSERT_EQ(tbm_surface_get_info(s, &info), TBM_SURFACE_ERROR_NONE);
    EXPECT_EQ(info.planes[0].stride, 64u);
    EXPECT_EQ(info.size, 128u);
}

// Planes other than the first are all zero.
TEST_F(TbmSurfaceTest, UnusedPlanesAreZeroed)
{
    tbm_surface_h s = Create(10, 10);
    ASSERT_NE(s, nullptr);
    tbm_surface_info_s info;
    std::memset(&info, 0xab, sizeof(info));
    ASSERT_EQ(tbm_surface_map(s, TBM_SURF_OPTION_READ, &info), TBM_SURFACE_ERROR_NONE);
    for (int i = 1; i < TBM_SURF_PLANE_MAX; ++i) {
        EXPECT_EQ(info.planes[i].ptr, nullptr);
        EXPECT_EQ(info.planes[i].size, 0u);
        EXPECT_EQ(info.planes[i].offset, 0u);
        EXPECT_EQ(info.planes[i].stride, 0u);
    }
    EXPECT_EQ(tbm_surface_unmap(s), TBM_SURFACE_ERROR_NONE);
}

// New surface memory is zero-filled, padding included.
TEST_F(TbmSurfaceTest, MemoryStartsZeroFilled)
{
    tbm_surface_h s = Create(37, 19);
    ASSERT_NE(s, nullptr);
    tbm_surface_info_s info;
    ASSERT_EQ(tbm_surface_map(s, TBM_SURF_OPTION_READ, &info), TBM_SURFACE_ERROR_NONE);
    for (uint32_t i = 0; i < info.size; ++i) {
        ASSERT_EQ(info.planes[0].ptr[i], 0) << i;
    }
    EXPECT_EQ(tbm_surface_unmap(s), TBM_SURFACE_ERROR_NONE);
}

// Writing every byte of the mapped size is in bounds, and the bytes stay until destroy.
TEST_F(TbmSurfaceTest, WholeMappedSizeIsWritableAndPersists)
{
    tbm_surface_h s = Create(33, 17);
    ASSERT_NE(s, nullptr);
    tbm_surface_info_s info;
    ASSERT_EQ(tbm_surface_map(s, TBM_SURF_OPTION_WRITE, &info), TBM_SURFACE_ERROR_NONE);
    for (uint32_t i = 0; i < info.size; ++i) {
        info.planes[0].ptr[i] = static_cast<unsigned char>(i * 31u + 7u);
    }
    ASSERT_EQ(tbm_surface_unmap(s), TBM_SURFACE_ERROR_NONE);

    tbm_surface_info_s again;
    ASSERT_EQ(tbm_surface_map(s, TBM_SURF_OPTION_READ, &again), TBM_SURFACE_ERROR_NONE);
    EXPECT_EQ(again.planes[0].ptr, info.planes[0].ptr);
    for (uint32_t i = 0; i < again.size; ++i) {
        ASSERT_EQ(again.planes[0].ptr[i], static_cast<unsigned char>(i * 31u + 7u)) << i;
    }
    EXPECT_EQ(tbm_surface_unmap(s), TBM_SURFACE_ERROR_NONE);
}

// get_info fills the same description as map.
TEST_F(TbmSurfaceTest, GetInfoMatchesMap)
{
    tbm_surface_h s = Create(21, 5, TBM_FORMAT_ABGR8888);
    ASSERT_NE(s, nullptr);
    tbm_surface_info_s mapped;
    tbm_surface_info_s queried;
    std::memset(&mapped, 0x11, sizeof(mapped));
    std::memset(&queried, 0x22, sizeof(queried));
    ASSERT_EQ(tbm_surface_map(s, TBM_SURF_OPTION_READ, &mapped), TBM_SURFACE_ERROR_NONE);
    ASSERT_EQ(tbm_surface_unmap(s), TBM_SURFACE_ERROR_NONE);
    ASSERT_EQ(tbm_surface_get_info(s, &queried), TBM_SURFACE_ERROR_NONE);
    EXPECT_EQ(std::memcmp(&mapped, &queried, sizeof(mapped)), 0);
}

// Map needs READ and/or WRITE in opt; other values are refused.
TEST_F(TbmSurfaceTest, MapRequiresReadOrWriteOption)
{
    tbm_surface_h s = Create(8, 8);
    ASSERT_NE(s, nullptr);
    tbm_surface_info_s info;
    EXPECT_EQ(tbm_surface_map(s, 0, &info), TBM_SURFACE_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(tbm_surface_map(s, 1 << 5, &info), TBM_SURFACE_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(tbm_surface_map(s, TBM_SURF_OPTION_READ, &info), TBM_SURFACE_ERROR_NONE);
    EXPECT_EQ(tbm_surface_map(s, TBM_SURF_OPTION_WRITE, &info), TBM_SURFACE_ERROR_NONE);
    EXPECT_EQ(tbm_surface_unmap(s), TBM_SURFACE_ERROR_NONE);
    EXPECT_EQ(tbm_surface_unmap(s), TBM_SURFACE_ERROR_NONE);
}

// Map and get_info refuse a NULL info.
TEST_F(TbmSurfaceTest, MapAndGetInfoRejectNullInfo)
{
    tbm_surface_h s = Create(8, 8);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(tbm_surface_map(s, TBM_SURF_OPTION_READ, nullptr), TBM_SURFACE_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(tbm_surface_get_info(s, nullptr), TBM_SURFACE_ERROR_INVALID_PARAMETER);
}

// Every call refuses a NULL handle without crashing.
TEST_F(TbmSurfaceTest, NullHandleIsRefusedEverywhere)
{
    tbm_surface_info_s info;
    EXPECT_EQ(tbm_surface_destroy(nullptr), TBM_SURFACE_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(tbm_surface_map(nullptr, TBM_SURF_OPTION_READ, &info), TBM_SURFACE_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(tbm_surface_unmap(nullptr), TBM_SURFACE_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(tbm_surface_get_info(nullptr, &info), TBM_SURFACE_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(tbm_surface_get_width(nullptr), TBM_SURFACE_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(tbm_surface_get_height(nullptr), TBM_SURFACE_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(tbm_surface_get_format(nullptr), 0u);
}

// A destroyed (stale) handle is refused by every call.
TEST_F(TbmSurfaceTest, StaleHandleIsRefusedEverywhere)
{
    tbm_surface_h stale = StaleHandle();
    tbm_surface_info_s info;
    EXPECT_EQ(tbm_surface_map(stale, TBM_SURF_OPTION_READ, &info), TBM_SURFACE_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(tbm_surface_unmap(stale), TBM_SURFACE_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(tbm_surface_get_info(stale, &info), TBM_SURFACE_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(tbm_surface_get_width(stale), TBM_SURFACE_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(tbm_surface_get_height(stale), TBM_SURFACE_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(tbm_surface_get_format(stale), 0u);
}

// Handle values that were never handed out (including ones beyond 31 bits) are refused, not dereferenced.
TEST_F(TbmSurfaceTest, ForgedHandleIsRefused)
{
    tbm_surface_info_s info;
    for (uintptr_t bits : {uintptr_t{0x7fffffff}, uintptr_t{0x80000000u}, ~uintptr_t{0},
                           reinterpret_cast<uintptr_t>(&info)}) {
        tbm_surface_h forged = reinterpret_cast<tbm_surface_h>(bits);
        EXPECT_EQ(tbm_surface_destroy(forged), TBM_SURFACE_ERROR_INVALID_PARAMETER);
        EXPECT_EQ(tbm_surface_map(forged, TBM_SURF_OPTION_READ, &info), TBM_SURFACE_ERROR_INVALID_PARAMETER);
        EXPECT_EQ(tbm_surface_get_width(forged), TBM_SURFACE_ERROR_INVALID_PARAMETER);
    }
}

// Destroy of a live surface succeeds; a second destroy of it is refused.
TEST_F(TbmSurfaceTest, DoubleDestroyIsRefused)
{
    tbm_surface_h s = tbm_surface_create(8, 8, TBM_FORMAT_RGBA8888);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(tbm_surface_destroy(s), TBM_SURFACE_ERROR_NONE);
    EXPECT_EQ(tbm_surface_destroy(s), TBM_SURFACE_ERROR_INVALID_PARAMETER);
}

// A handle is not handed out again soon after its surface is destroyed.
TEST_F(TbmSurfaceTest, HandlesAreNotReusedSoon)
{
    std::set<uintptr_t> seen;
    for (int i = 0; i < 1000; ++i) {
        tbm_surface_h s = tbm_surface_create(1, 1, TBM_FORMAT_RGBA8888);
        ASSERT_NE(s, nullptr);
        EXPECT_TRUE(seen.insert(Bits(s)).second) << "handle reused after " << i << " creations";
        ASSERT_EQ(tbm_surface_destroy(s), TBM_SURFACE_ERROR_NONE);
    }
}

// Many handles are all non-null, distinct and fit in 31 bits (a positive int32).
TEST_F(TbmSurfaceTest, HandlesFitIn31Bits)
{
    std::set<uintptr_t> seen;
    for (int i = 0; i < 5000; ++i) {
        tbm_surface_h s = Create(2, 2);
        ASSERT_NE(s, nullptr);
        EXPECT_LE(Bits(s), uintptr_t{0x7fffffff});
        EXPECT_TRUE(seen.insert(Bits(s)).second);
    }
}

// fail_next_create(n) makes exactly the next n creates return NULL.
TEST_F(TbmSurfaceTest, FailNextCreateFailsExactlyCountCalls)
{
    tbm_standin_fail_next_create(2);
    EXPECT_EQ(Create(8, 8), nullptr);
    EXPECT_EQ(Create(8, 8), nullptr);
    EXPECT_NE(Create(8, 8), nullptr);
    EXPECT_EQ(tbm_standin_live_surface_count(), baseline_ + 1);
}

// An armed failure is consumed even by a create that would fail anyway.
TEST_F(TbmSurfaceTest, FailNextCreateIsConsumedByInvalidCreate)
{
    tbm_standin_fail_next_create(1);
    EXPECT_EQ(Create(0, 8), nullptr);
    EXPECT_NE(Create(8, 8), nullptr);
}

// A count of 0 or less disarms pending failures.
TEST_F(TbmSurfaceTest, FailNextCreateZeroDisarms)
{
    tbm_standin_fail_next_create(5);
    tbm_standin_fail_next_create(0);
    EXPECT_NE(Create(8, 8), nullptr);
    tbm_standin_fail_next_create(5);
    tbm_standin_fail_next_create(-3);
    EXPECT_NE(Create(8, 8), nullptr);
}

// The live count follows creates and destroys, and failed creates do not count.
TEST_F(TbmSurfaceTest, LiveCountFollowsCreateAndDestroy)
{
    tbm_surface_h a = tbm_surface_create(4, 4, TBM_FORMAT_RGBA8888);
    tbm_surface_h b = tbm_surface_create(4, 4, TBM_FORMAT_ABGR8888);
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(tbm_standin_live_surface_count(), baseline_ + 2);
    EXPECT_EQ(tbm_surface_create(0, 4, TBM_FORMAT_RGBA8888), nullptr);
    EXPECT_EQ(tbm_standin_live_surface_count(), baseline_ + 2);
    EXPECT_EQ(tbm_surface_destroy(a), TBM_SURFACE_ERROR_NONE);
    EXPECT_EQ(tbm_standin_live_surface_count(), baseline_ + 1);
    EXPECT_EQ(tbm_surface_destroy(a), TBM_SURFACE_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(tbm_standin_live_surface_count(), baseline_ + 1);
    EXPECT_EQ(tbm_surface_destroy(b), TBM_SURFACE_ERROR_NONE);
    EXPECT_EQ(tbm_standin_live_surface_count(), baseline_);
}

// Destroying one surface leaves the others intact.
TEST_F(TbmSurfaceTest, DestroyLeavesOtherSurfacesIntact)
{
    tbm_surface_h keep = Create(16, 16);
    tbm_surface_h gone = tbm_surface_create(16, 16, TBM_FORMAT_RGBA8888);
    ASSERT_NE(keep, nullptr);
    ASSERT_NE(gone, nullptr);
    ASSERT_EQ(tbm_surface_destroy(gone), TBM_SURFACE_ERROR_NONE);
    EXPECT_EQ(tbm_surface_get_width(keep), 16);
    tbm_surface_info_s info;
    EXPECT_EQ(tbm_surface_map(keep, TBM_SURF_OPTION_WRITE, &info), TBM_SURFACE_ERROR_NONE);
    std::memset(info.planes[0].ptr, 0xff, info.size);
    EXPECT_EQ(tbm_surface_unmap(keep), TBM_SURFACE_ERROR_NONE);
}

// Many threads creating, writing, querying and destroying at once stay consistent.
TEST_F(TbmSurfaceTest, ConcurrentCreateDestroyIsSafe)
{
    constexpr int kThreads = 8;
    constexpr int kRounds = 300;
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &failures] {
            std::vector<tbm_surface_h> mine;
            for (int i = 0; i < kRounds; ++i) {
                const int width = 1 + (i + t) % 40;
                tbm_surface_h s = tbm_surface_create(width, 3, TBM_FORMAT_RGBA8888);
                if (s == nullptr || reinterpret_cast<uintptr_t>(s) > 0x7fffffffu) {
                    ++failures;
                    continue;
                }
                tbm_surface_info_s info;
                if (tbm_surface_map(s, TBM_SURF_OPTION_WRITE, &info) != 0 ||
                    info.width != static_cast<uint32_t>(width)) {
                    ++failures;
                } else {
                    std::memset(info.planes[0].ptr, t, info.size);
                    tbm_surface_unmap(s);
                }
                mine.push_back(s);
                if (i % 3 == 0) {
                    for (tbm_surface_h m : mine) {
                        if (tbm_surface_destroy(m) != 0) {
                            ++failures;
                        }
                    }
                    mine.clear();
                }
            }
            for (tbm_surface_h m : mine) {
                if (tbm_surface_destroy(m) != 0) {
                    ++failures;
                }
            }
        });
    }
    for (std::thread& th : threads) {
        th.join();
    }
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(tbm_standin_live_surface_count(), baseline_);
}

// Concurrent destroys of the same handle: exactly one succeeds.
TEST_F(TbmSurfaceTest, ConcurrentDoubleDestroySucceedsOnce)
{
    for (int round = 0; round < 50; ++round) {
        tbm_surface_h s = tbm_surface_create(8, 8, TBM_FORMAT_RGBA8888);
        ASSERT_NE(s, nullptr);
        std::atomic<int> successes{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([s, &successes] {
                if (tbm_surface_destroy(s) == TBM_SURFACE_ERROR_NONE) {
                    ++successes;
                }
            });
        }
        for (std::thread& th : threads) {
            th.join();
        }
        EXPECT_EQ(successes.load(), 1);
    }
}

}  // namespace
