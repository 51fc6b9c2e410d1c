// The public interface: the four states of the call sequence (uninitialised,
// initialised, metadata set, picture generated) and the moves between them.
#include "PublicApiSupport.h"

#include <gtest/gtest.h>

namespace {

using namespace apitest;

// ===========================================================================
// States of the call sequence
// ===========================================================================

// Uninitialised at load: every call is refused with its own result and line, and the record is not touched.
TEST_F(PublicApiStates, UninitialisedAtLoadRefusesEveryCall)
{
    const Picture pic = MakePicture(8, 8, 1);
    HdrInfo info = Describe(pic, CycleMetadata());
    info.gamut = static_cast<hdr_color_gamut>(-1);
    int plane = 0;
    int width = 8;
    int height = 8;

    EXPECT_EQ(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdrSetHdrInfo", kNotInitialised));
    EXPECT_EQ(static_cast<int32_t>(info.gamut), -1) << "defaults come after the initialisation check";
    EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 12);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdr", kNotInitialised));
    rec_.Clear();
    EXPECT_EQ(rec_([&] { return GpuGenerateHdr(&info); }), 12);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdr", kNotInitialised));
    EXPECT_EQ(rec_([] { return GpuGenerateGetTBM(); }), -1);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateGetTBM", kNotInitialised));
    EXPECT_EQ(rec_([] { return GpuRender(); }), 3);
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrUpdateDataBegin(plane); }), 0);
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrUpdateDataEnd(width, height); }), 0);
    EXPECT_EQ(SurfacesAlive(), 0);
}

// GpuGenerateHdrDestroy returns the library to the uninitialised state, releasing the surface.
TEST_F(PublicApiStates, DestroyReturnsToUninitialised)
{
    const Picture pic = MakePicture(8, 8, 2);
    HdrInfo info = Describe(pic, CycleMetadata());
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
    ASSERT_NE(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    ASSERT_EQ(rec_([] { return GpuGenerateHdr(); }), 0);
    EXPECT_EQ(SurfacesAlive(), 1);
    rec_([] { GpuGenerateHdrDestroy(); });
    EXPECT_EQ(SurfacesAlive(), 0);

    rec_.Clear();
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdrSetHdrInfo", kNotInitialised));
    EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 12);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdr", kNotInitialised));
    EXPECT_EQ(rec_([] { return GpuGenerateGetTBM(); }), -1);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateGetTBM", kNotInitialised));
    EXPECT_EQ(rec_([] { return GpuRender(); }), 3);
}

// Initialised: GpuRender works, but there is neither metadata to draw nor a surface to hand out.
TEST_F(PublicApiStates, InitialisedHasNoMetadataAndNoSurfaceYet)
{
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdrInit", "GpuGenerateHdrInit start"));
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdrInit", "GpuGenerateHdrInit end"));
    EXPECT_EQ(SurfacesAlive(), 1) << "the direct mode makes its surface at initialisation";

    rec_.Clear();
    EXPECT_EQ(rec_([] { return GpuGenerateGetTBM(); }), -1);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateGetTBM", kNotGenerated));
    EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 12);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdr", kNoInfo));
    EXPECT_EQ(rec_([] { return GpuRender(); }), 0);
}

// A successful GpuGenerateHdrSetHdrInfo sets the metadata; GpuGenerateHdr() may then draw once.
TEST_F(PublicApiStates, SetHdrInfoEntersInfoSet)
{
    const Picture pic = MakePicture(8, 8, 3);
    HdrInfo info = Describe(pic, CycleMetadata());
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
    rec_.Clear();
    EXPECT_NE(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdrSetHdrInfo", "GpuGenerateHdrSetHdrInfo start"));
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdrSetHdrInfo", "GpuGenerateHdrSetHdrInfo end"));
    EXPECT_EQ(rec_([] { return GpuGenerateGetTBM(); }), -1) << "metadata alone generates nothing";
    rec_.Clear();
    EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 0);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdr", "GpuGenerateHdr start"));
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdr", "GpuGenerateHdr end"));
}

// A failed GpuGenerateHdrSetHdrInfo sets no mark: GpuGenerateHdr() is refused with 12.
TEST_F(PublicApiStates, FailedSetHdrInfoSetsNoMark)
{
    const Picture pic = MakePicture(8, 8, 4);
    HdrInfo info = Describe(pic, CycleMetadata());
    info.nMainImageWidth = 0;
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 12);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdr", kNoInfo));
}

// A failed GpuGenerateHdrSetHdrInfo does not clear a mark that an earlier success set.
TEST_F(PublicApiStates, FailedSetHdrInfoKeepsAnEarlierMark)
{
    const Picture pic = MakePicture(8, 8, 5);
    HdrInfo good = Describe(pic, CycleMetadata());
    HdrInfo bad = good;
    bad.mainImagePlanes[1] = nullptr;
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
    ASSERT_NE(rec_([&] { return GpuGenerateHdrSetHdrInfo(&good); }), nullptr);
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrSetHdrInfo(&bad); }), nullptr);
    EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 0);
}

// The one-shot GpuGenerateHdr(HdrInfo*) needs no mark and leaves no mark behind.
TEST_F(PublicApiStates, OneShotNeitherNeedsNorSetsTheMark)
{
    const Picture pic = MakePicture(8, 8, 6);
    HdrInfo info = Describe(pic, CycleMetadata());
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
    EXPECT_EQ(rec_([&] { return GpuGenerateHdr(&info); }), 0);
    EXPECT_NE(rec_([] { return GpuGenerateGetTBM(); }), -1);
    rec_.Clear();
    EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 12);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdr", kNoInfo));
}

// The one-shot does not consume a mark set by GpuGenerateHdrSetHdrInfo either.
TEST_F(PublicApiStates, OneShotLeavesAnExistingMark)
{
    const Picture pic = MakePicture(8, 8, 7);
    HdrInfo info = Describe(pic, CycleMetadata());
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
    ASSERT_NE(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    EXPECT_EQ(rec_([&] { return GpuGenerateHdr(&info); }), 0);
    EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 0);
}

// Generated: GpuGenerateGetTBM hands out the one live output surface, of the surface's size.
TEST_F(PublicApiStates, GeneratedHandsOutTheSurface)
{
    const Picture pic = MakePicture(12, 7, 8);
    HdrInfo info = Describe(pic, CycleMetadata());
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(12, 7)); }), 0);
    ASSERT_NE(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    ASSERT_EQ(rec_([] { return GpuGenerateHdr(); }), 0);
    const int handle = rec_([] { return GpuGenerateGetTBM(); });
    ASSERT_NE(handle, -1);
    EXPECT_EQ(SurfacesAlive(), 1);
    tbm_surface_info_s surface;
    ASSERT_EQ(tbm_surface_get_info(SurfaceOf(handle), &surface), TBM_SURFACE_ERROR_NONE);
    EXPECT_EQ(surface.width, 12u);
    EXPECT_EQ(surface.height, 7u);
    EXPECT_EQ(surface.format, static_cast<tbm_format>(TBM_FORMAT_RGBA8888));
    EXPECT_EQ(rec_([] { return GpuGenerateGetTBM(); }), handle) << "asking again hands out the same surface";
}

// A draw that fails with 11 leaves nothing to hand out, although an earlier draw had succeeded.
TEST_F(PublicApiStates, FailedDrawLeavesNoSurfaceToHandOut)
{
    const Picture pic = MakePicture(8, 8, 9);
    HdrInfo info = Describe(pic, CycleMetadata());
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
    ASSERT_NE(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    ASSERT_EQ(rec_([] { return GpuGenerateHdr(); }), 0);
    ASSERT_NE(rec_([] { return GpuGenerateGetTBM(); }), -1);
    ASSERT_NE(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);

    // A GL error pending when the shader constants are checked: the draw's first error check sees it.
    faults::QueueGlError(GL_INVALID_OPERATION);
    rec_.Clear();
    EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 11);
    EXPECT_TRUE(Logged(rec_, "UpdateUniform", "%d ERROR: GL_error\n"));
    EXPECT_TRUE(Logged(rec_, "GL_error_check",
                       "The specified operation is not allowed in the current state. 0x00000502"));
    EXPECT_EQ(rec_([] { return GpuGenerateGetTBM(); }), -1);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateGetTBM", kNotGenerated));
    EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 12) << "the failed attempt consumed the mark";
}

// GpuGenerateHdrDestroy ends the generated state: after a new initialisation there is nothing to hand out.
TEST_F(PublicApiStates, DestroyEndsGenerated)
{
    const Picture pic = MakePicture(8, 8, 10);
    HdrInfo info = Describe(pic, CycleMetadata());
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
    ASSERT_EQ(rec_([&] { return GpuGenerateHdr(&info); }), 0);
    rec_.Clear();
    rec_([] { GpuGenerateHdrDestroy(); });
    EXPECT_EQ(rec_.Count("GpuGenerateHdrDestroy", kNotInitialised), 0);
    EXPECT_EQ(rec_.Count("GpuGenerateHdrDestroy", kNotGenerated), 0);
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
    rec_.Clear();
    EXPECT_EQ(rec_([] { return GpuGenerateGetTBM(); }), -1);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateGetTBM", kNotGenerated));
}

}  // namespace
