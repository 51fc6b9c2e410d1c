// The public interface's initialisation: every result code of
// GpuGenerateHdrInit and what each failure leaves behind.
#include "PublicApiSupport.h"

#include <gtest/gtest.h>

namespace {

using namespace apitest;

// ===========================================================================
// Initialisation failures
// ===========================================================================

// A successful initialisation switches the binding four times: the registry's bind and unbind, then the engine's.
TEST_F(PublicApiInit, SuccessfulInitBindsTwiceAndUnbindsTwice)
{
    faults::Reset();
    ASSERT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
    EXPECT_EQ(faults::MakeCurrentCalls(), 4) << "the fault-injection tests below count on this";
}

// No display given and none current: 2, and the library stays uninitialised.
TEST_F(PublicApiInit, NoDisplayFailsWith2)
{
    ASSERT_EQ(eglGetCurrentContext(), EGL_NO_CONTEXT);
    EXPECT_EQ(rec_([] { return GpuGenerateHdrInit(GpuGenerateHdrInitOption{8, 8, nullptr, false, false}); }), 2);
    EXPECT_TRUE(Logged(rec_, "InitContext", "%d ERROR: Failed to get current EGL display.\n"));
    EXPECT_TRUE(NotLogged(rec_, "GpuGenerateHdrInit", "GpuGenerateHdrInit end"));
    EXPECT_EQ(SurfacesAlive(), 0);
    rec_.Clear();
    const Picture input = MakePicture(8, 8, 22);
    HdrInfo info = Describe(input, CycleMetadata());
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdrSetHdrInfo", kNotInitialised));
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0) << "a later initialisation starts clean";
}

// No display given: the display current on the calling thread is taken.
TEST_F(PublicApiInit, TakesTheCurrentDisplay)
{
    hdrtest::HostContext host(display_);
    ASSERT_TRUE(host.ok());
    const Picture pic = MakePicture(8, 8, 23);
    HdrInfo info = Describe(pic, CycleMetadata());
    EXPECT_EQ(rec_([] { return GpuGenerateHdrInit(GpuGenerateHdrInitOption{8, 8, nullptr, false, false}); }), 0);
    EXPECT_EQ(rec_([&] { return GpuGenerateHdr(&info); }), 0);
}

// The driver refuses the context: 4, and the library stays uninitialised.
TEST_F(PublicApiInit, ContextRefusedFailsWith4)
{
    faults::FailCreateContext(1);
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 4);
    EXPECT_TRUE(Logged(rec_, "InitContext", "%d ERROR: Fail to create EGL context.\n"));
    EXPECT_EQ(SurfacesAlive(), 0);
    rec_.Clear();
    EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 12);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdr", kNotInitialised));
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
}

// The registry's own first bind fails: its 5 is passed through and both singletons are torn down.
TEST_F(PublicApiInit, RegistryBindFailsWith5AndTearsDown)
{
    faults::FailMakeCurrent(1, 0);
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 5);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdrDestroy", "GpuGenerateHdrDestroy start"));
    rec_.Clear();
    EXPECT_EQ(rec_([] { return GpuGenerateGetTBM(); }), -1);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateGetTBM", kNotInitialised));
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
}

// The bind after the registry's set-up fails: 5, without teardown (thread initialised, engine unbuilt).
TEST_F(PublicApiInit, FirstBindAfterSetUpFailsWith5AndKeepsTheRegistry)
{
    faults::FailMakeCurrent(1, 2);
    rec_.Clear();
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 5);
    EXPECT_TRUE(NotLogged(rec_, "GpuGenerateHdrDestroy", "GpuGenerateHdrDestroy start"));
    EXPECT_TRUE(NotLogged(rec_, "GpuGenerateHdrInit", "GpuGenerateHdrInit end"));
    EXPECT_EQ(SurfacesAlive(), 0);
    rec_.Clear();
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 1);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdrInit", kInitTwice));
    const Picture input = MakePicture(8, 8, 24);
    HdrInfo info = Describe(input, CycleMetadata());
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr) << "the engine has no program";
    EXPECT_EQ(rec_([] { return GpuGenerateHdr(); }), 12);
}

// The registry's unbind fails: its 6 is passed through and both singletons are torn down, the host's binding put back.
TEST_F(PublicApiInit, RegistryUnbindFailsWith6AndTearsDown)
{
    hdrtest::HostContext host(display_);
    ASSERT_TRUE(host.ok());
    faults::FailMakeCurrent(1, 1);
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 6);
    EXPECT_EQ(hdrtest::CurrentBinding(), HostBinding(host)) << "the teardown released the library's context";
    rec_.Clear();
    EXPECT_EQ(rec_([] { return GpuRender(); }), 3);
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
}

// The final unbind fails: 6, without teardown; the library's context stays current until Destroy.
TEST_F(PublicApiInit, FinalUnbindFailsWith6AndKeepsTheRegistry)
{
    hdrtest::HostContext host(display_);
    ASSERT_TRUE(host.ok());
    faults::FailMakeCurrent(1, 3);
    rec_.Clear();
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 6);
    EXPECT_TRUE(NotLogged(rec_, "GpuGenerateHdrInit", "GpuGenerateHdrInit end"));
    EXPECT_NE(eglGetCurrentContext(), host.context()) << "the library's context could not be released";
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 1);
    rec_([] { GpuGenerateHdrDestroy(); });
    EXPECT_EQ(hdrtest::CurrentBinding(), HostBinding(host)) << "Destroy releases it and puts the host's binding back";
}

// The engine's set-up fails (no surface): both are torn down, so the final unbind finds no context: 6.
TEST_F(PublicApiInit, EngineInitFailureTearsDownBoth)
{
    hdrtest::HostContext host(display_);
    ASSERT_TRUE(host.ok());
    tbm_standin_fail_next_create(1);
    rec_.Clear();
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 6);
    EXPECT_TRUE(Logged(rec_, "Init", "%d ERROR: updateTBM error\n"));
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdrDestroy", "GpuGenerateHdrDestroy end"));
    EXPECT_TRUE(Logged(rec_, "Unbind", "%d ERROR: Fail to Unbind EGL context.\n"));
    EXPECT_EQ(hdrtest::CurrentBinding(), HostBinding(host));
    EXPECT_EQ(SurfacesAlive(), 0);

    rec_.Clear();
    const Picture input = MakePicture(8, 8, 25);
    HdrInfo info = Describe(input, CycleMetadata());
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrSetHdrInfo(&info); }), nullptr);
    EXPECT_TRUE(Logged(rec_, "GpuGenerateHdrSetHdrInfo", kNotInitialised));
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0) << "a second initialisation works";
    EXPECT_EQ(rec_([&] { return GpuGenerateHdr(&info); }), 0);
}

// A GL error pending on the fresh context: the registry's 11 is passed through and both are torn down.
TEST_F(PublicApiInit, PendingGlErrorFailsWith11)
{
    hdrtest::HostContext host(display_);
    ASSERT_TRUE(host.ok());
    faults::QueueGlError(GL_OUT_OF_MEMORY);
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 11);
    EXPECT_EQ(hdrtest::CurrentBinding(), HostBinding(host));
    EXPECT_EQ(rec_([] { return GpuRender(); }), 3);
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(8, 8)); }), 0);
}

// A direct-mode surface of 0 x 0 cannot be made: the initialisation fails and leaves nothing behind.
TEST_F(PublicApiInit, EmptyDirectSurfaceFails)
{
    EXPECT_EQ(rec_([&] { return GpuGenerateHdrInit(Direct(0, 0)); }), 6) << "torn down, so the final unbind fails";
    EXPECT_TRUE(Logged(rec_, "updateTBM", "Create new tbm surface {0 x 0} >>>>>>>>>>>>>>>>>>>>>>>>>"));
    EXPECT_TRUE(Logged(rec_, "Init", "%d ERROR: updateTBM error\n"));
    EXPECT_EQ(rec_([] { return GpuRender(); }), 3);
    EXPECT_EQ(SurfacesAlive(), 0);
}

}  // namespace
