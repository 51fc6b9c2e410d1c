// Bad input through the public interface.
#include "PublicApiSupport.h"

#include <gtest/gtest.h>

namespace {

using namespace apitest;

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

}  // namespace
