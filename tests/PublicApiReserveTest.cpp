// The direct mode's texture reservation: storage made ahead of the planes,
// taken by pictures of its sizes, dropped by pictures of others, refused
// where it has no meaning. Pictures are compared with the CPU model.
#include "PublicApiSupport.h"

#include <gtest/gtest.h>

namespace {

using namespace apitest;

using PublicApiReserve = PublicApi;

const char* const kReserved = "HdrGenerate::ReserveTextures: main image %d x %d, gain map %d x %d";
const char* const kDropped =
    "HdrGenerate::UpdateTextures: planes of %d x %d and %d x %d, reserved %d x %d and %d x %d: reservation dropped";
const char* const kStreamingRefusal = "%d ERROR: the streaming mode's textures are sized by its upload buffers\n";

// No line of the recording says that a reservation was dropped.
::testing::AssertionResult NothingDropped(const Recorder& rec)
{
    for (const LogLine& l : rec.lines()) {
        if (l.parsed.message.find("reservation dropped") != std::string::npos) {
            return ::testing::AssertionFailure() << l.parsed.message;
        }
    }
    return ::testing::AssertionSuccess();
}

// Draws pic in the direct mode (initialised at its size) and compares it with the model.
void DrawAndCompare(Recorder& rec, const Picture& pic, const PictureMetadata& md)
{
    HdrInfo info = Describe(pic, md);
    ASSERT_NE(rec([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    ASSERT_EQ(rec([] { return GpuGenerateHdr(); }), 0);
    ExpectPictureMatchesModel(rec([] { return GpuGenerateGetTBM(); }), pic, md, TuningValues{}, PictureLevel(pic),
                              false);
}

// Pictures of the reserved sizes go into the storage, one after another, and keep it.
TEST_F(PublicApiReserve, PicturesOfTheReservedSizesMatchTheModel)
{
    const PictureMetadata md = CycleMetadata();
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(37, 23)); }), 0);
    rec_.Clear();
    ASSERT_EQ(rec_([] { return GpuGenerateHdrReserveTextures(37, 23, 37, 23); }), 0);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdrReserveTextures", "GpuGenerateHdrReserveTextures start"));
    EXPECT_TRUE(Logged(rec_, "ReserveTextures", hdrtest::Format(kReserved, 37, 23, 37, 23)));
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdrReserveTextures", "GpuGenerateHdrReserveTextures end"));
    for (uint32_t seed : {500u, 510u}) {
        rec_.Clear();
        DrawAndCompare(rec_, MakePicture(37, 23, seed), md);
        EXPECT_TRUE(NothingDropped(rec_));
    }
}

// A picture of other sizes drops the reservation, says so, and is drawn as without one.
TEST_F(PublicApiReserve, PictureOfOtherSizesDropsTheReservation)
{
    const PictureMetadata md = CycleMetadata();
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(37, 23)); }), 0);
    ASSERT_EQ(rec_([] { return GpuGenerateHdrReserveTextures(16, 16, 4, 4); }), 0);
    rec_.Clear();
    DrawAndCompare(rec_, MakePicture(37, 23, 520), md);
    EXPECT_TRUE(Logged(rec_, "UpdateTextures", hdrtest::Format(kDropped, 37, 23, 37, 23, 16, 16, 4, 4)));
    // Nothing is left to drop for the next picture.
    rec_.Clear();
    DrawAndCompare(rec_, MakePicture(37, 23, 530), md);
    EXPECT_TRUE(NotLogged(rec_, "UpdateTextures", hdrtest::Format(kDropped, 37, 23, 37, 23, 16, 16, 4, 4)));
}

// A main image of the reserved size with a gain map of another still drops it.
TEST_F(PublicApiReserve, OneMismatchedPlaneSizeIsEnoughToDrop)
{
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(37, 23)); }), 0);
    ASSERT_EQ(rec_([] { return GpuGenerateHdrReserveTextures(37, 23, 37, 22); }), 0);
    rec_.Clear();
    DrawAndCompare(rec_, MakePicture(37, 23, 540), CycleMetadata());
    EXPECT_TRUE(Logged(rec_, "UpdateTextures", hdrtest::Format(kDropped, 37, 23, 37, 23, 37, 23, 37, 22)));
}

// A second reservation replaces the first: the pictures of its sizes keep it.
TEST_F(PublicApiReserve, SecondReservationReplacesTheFirst)
{
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(37, 23)); }), 0);
    ASSERT_EQ(rec_([] { return GpuGenerateHdrReserveTextures(16, 16, 4, 4); }), 0);
    rec_.Clear();
    ASSERT_EQ(rec_([] { return GpuGenerateHdrReserveTextures(37, 23, 37, 23); }), 0);
    EXPECT_TRUE(Logged(rec_, "ReserveTextures", hdrtest::Format(kReserved, 37, 23, 37, 23)));
    rec_.Clear();
    DrawAndCompare(rec_, MakePicture(37, 23, 550), CycleMetadata());
    EXPECT_TRUE(NothingDropped(rec_));
}

// A reservation made after a picture was drawn takes the next one.
TEST_F(PublicApiReserve, ReservationAfterAPictureTakesTheNext)
{
    const PictureMetadata md = CycleMetadata();
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(37, 23)); }), 0);
    DrawAndCompare(rec_, MakePicture(37, 23, 560), md);
    ASSERT_EQ(rec_([] { return GpuGenerateHdrReserveTextures(37, 23, 37, 23); }), 0);
    rec_.Clear();
    DrawAndCompare(rec_, MakePicture(37, 23, 570), md);
    EXPECT_TRUE(NothingDropped(rec_));
}

// The one-shot takes the reservation too.
TEST_F(PublicApiReserve, OneShotTakesTheReservation)
{
    const Picture pic = MakePicture(37, 23, 580);
    const PictureMetadata md = CycleMetadata();
    HdrInfo info = Describe(pic, md);
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(37, 23)); }), 0);
    ASSERT_EQ(rec_([] { return GpuGenerateHdrReserveTextures(37, 23, 37, 23); }), 0);
    rec_.Clear();
    ASSERT_EQ(rec_([&] { return GpuGenerateHdr(&info); }), 0);
    EXPECT_TRUE(NothingDropped(rec_));
    ExpectPictureMatchesModel(rec_([] { return GpuGenerateGetTBM(); }), pic, md, TuningValues{}, PictureLevel(pic),
                              false);
}

// Before initialisation: 12, logged.
TEST_F(PublicApiReserve, NotInitialisedGives12)
{
    EXPECT_EQ(rec_([] { return GpuGenerateHdrReserveTextures(37, 23, 37, 23); }), 12);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdrReserveTextures", kNotInitialised));
}

// The streaming mode's textures follow its buffers: 12, logged, and its cycle goes on unharmed.
TEST_F(PublicApiReserve, StreamingModeRefusesWith12)
{
    const Picture pic = MakePicture(37, 23, 590);
    const PictureMetadata md = CycleMetadata();
    HdrInfo info = Describe(pic, md);
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Streaming()); }), 0);
    uint8_t** mappings = rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); });
    ASSERT_NE(mappings, nullptr);
    rec_.Clear();
    EXPECT_EQ(rec_([] { return GpuGenerateHdrReserveTextures(37, 23, 37, 23); }), 12);
    EXPECT_TRUE(Logged(rec_, "ReserveTextures", kStreamingRefusal));
    ASSERT_TRUE(StreamPlanes(mappings, pic));
    ASSERT_NE(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    ASSERT_EQ(rec_([] { return GpuGenerateHdr(); }), 0);
    ExpectPictureMatchesModel(rec_([] { return GpuGenerateGetTBM(); }), pic, md, TuningValues{}, PictureLevel(pic),
                              false);
}

// Sizes GL cannot hold are refused with 13 before anything is made; the last
// good reservation stays.
TEST_F(PublicApiReserve, RefusedSizesGive13AndKeepTheLastReservation)
{
    const int32_t maxSide = MaxTextureSize(display_);
    ASSERT_GT(maxSide, 0);
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(37, 23)); }), 0);
    ASSERT_EQ(rec_([] { return GpuGenerateHdrReserveTextures(37, 23, 37, 23); }), 0);
    rec_.Clear();
    EXPECT_EQ(rec_([] { return GpuGenerateHdrReserveTextures(0, 23, 37, 23); }), 13);
    EXPECT_TRUE(Logged(rec_, "HdrPlaneSizesAccepted",
                       hdrtest::Format("%%d ERROR: main image planes of 0 x 23 refused: a side is below 1 (%d)\n",
                                       maxSide)))
        << rec_.Dump("HdrPlaneSizesAccepted");
    rec_.Clear();
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrReserveTextures(37, 23, maxSide + 1, 1); }), 13);
    EXPECT_TRUE(Logged(
        rec_, "HdrPlaneSizesAccepted",
        hdrtest::Format("%%d ERROR: gain map planes of %d x 1 refused: a side exceeds the maximum texture size (%d)\n",
                        maxSide + 1, maxSide)))
        << rec_.Dump("HdrPlaneSizesAccepted");
    rec_.Clear();
    EXPECT_EQ(rec_([] { return GpuGenerateHdrReserveTextures(-1, 23, 37, 23); }), 13);
    EXPECT_EQ(rec_([] { return GpuGenerateHdrReserveTextures(65536, 65536, 37, 23); }), 13);
    EXPECT_TRUE(NotLogged(rec_, "ReserveTextures", "HdrGenerate::ReserveTextures end"));
    rec_.Clear();
    DrawAndCompare(rec_, MakePicture(37, 23, 600), CycleMetadata());
    EXPECT_TRUE(NothingDropped(rec_));
}

}  // namespace
