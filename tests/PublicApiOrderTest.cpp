// Calls out of order: generation, upload begin and end and teardown at the
// wrong moment.
#include "PublicApiSupport.h"

#include <gtest/gtest.h>

namespace {

using namespace apitest;

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
