// The host's own EGL binding around every public call.
#include "PublicApiSupport.h"

#include <gtest/gtest.h>

namespace {

using namespace apitest;

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

}  // namespace
