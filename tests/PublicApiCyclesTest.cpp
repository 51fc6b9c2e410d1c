// Whole host cycles through the public interface, their pictures compared
// pixel by pixel with the CPU model of the gain-map pass.
#include "PublicApiSupport.h"

#include <gtest/gtest.h>

namespace {

using namespace apitest;

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

}  // namespace
