// The public interface at its edges: defaults, repeated calls, the direct
// mode's forced geometry, null records and the intake's logged fields.
// One test reaches the engine directly: the intake's own null check, which
// both public entry points shield by checking the record first.
#include "PublicApiSupport.h"

// Reaches the library's own classes on purpose; see the tests below.
#include "HdrGenerate.h"
#include "HdrRender.h"

#include <gtest/gtest.h>

namespace {

using namespace apitest;

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

}  // namespace
