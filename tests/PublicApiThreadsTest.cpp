// Several host threads calling the public interface.
#include "PublicApiSupport.h"

#include <gtest/gtest.h>

namespace {

using namespace apitest;

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

}  // namespace
