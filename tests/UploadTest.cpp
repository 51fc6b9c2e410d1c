// The input upload: planes reaching their textures directly or through the
// mapped upload buffers, the picture's average level, and the one-second
// upload fence.
#include "EglTestEnv.h"
#include "EngineHarness.h"
#include "EngineTestSupport.h"
#include "Faults.h"
#include "HdrGenerate.h"
#include "HdrRender.h"
#include "LogCapture.h"
#include "TSShaderManager.h"

#include <GLES3/gl31.h>
#include <gtest/gtest.h>

#include <cstring>

using hdrtest::EngineHarness;
using hdrtest::LogCapture;
using hdrtest::MakePlanes;
using hdrtest::Parse;
using hdrtest::Planes;
namespace faults = hdrtest::faults;

namespace {

class Upload : public hdrtest::EglTest {
protected:
    void SetUp() override
    {
        EglTest::SetUp();
        faults::Reset();
    }
    void TearDown() override { faults::Reset(); }

    // Every plane's texture holds exactly the plane's bytes.
    void ExpectTexturesHold(const Planes& planes)
    {
        HdrGenerate* e = HdrGenerate::GetInstance();
        ASSERT_TRUE(HdrRender::GetInstance()->Bind());
        for (int i = 0; i < 6; ++i) {
            const bool isMain = i < 3;
            const int w = isMain ? planes.mainWidth : planes.gainWidth;
            const int h = isMain ? planes.mainHeight : planes.gainHeight;
            const auto& bytes = isMain ? planes.main[i] : planes.gain[i - 3];
            const auto texels = hdrtest::ReadRedTexture(e->inputTextures[i], w, h);
            EXPECT_TRUE(texels == bytes) << "plane " << i << " differs from its bytes";
        }
        ASSERT_TRUE(HdrRender::GetInstance()->Unbind());
    }

    // A 9 x 7 gain map beside a 23 x 11 picture, drawn at 23 x 11, streamed
    // after the first intake; false when any step failed.
    static bool StreamSmallPicture(EngineHarness& harness, const Planes& planes)
    {
        return harness.ok() && harness.Intake(planes, 23, 11) == 0 && harness.Stream(planes);
    }

    // The packed gain map is current, bound on its own unit, and every texel
    // is (y, u, v, 255) of the gain map's planes.
    void ExpectPackedTexelsHold(const Planes& planes)
    {
        HdrGenerate* e = HdrGenerate::GetInstance();
        ASSERT_TRUE(e->packedGain.Current());
        ASSERT_TRUE(HdrRender::GetInstance()->Bind());
        GLint bound = 0;
        glActiveTexture(PACKED_GAIN_TEXTURE_UNIT);
        glGetIntegerv(GL_TEXTURE_BINDING_2D, &bound);
        EXPECT_EQ(static_cast<GLuint>(bound), e->packedGain.Texture()) << "left on its own unit";
        const int w = planes.gainWidth;
        const int h = planes.gainHeight;
        const auto texels = hdrtest::ReadRgbaTexture(e->packedGain.Texture(), w, h);
        ASSERT_TRUE(HdrRender::GetInstance()->Unbind());
        const size_t count = static_cast<size_t>(w) * static_cast<size_t>(h);
        ASSERT_EQ(texels.size(), count * 4u);
        int wrong = 0;
        for (size_t i = 0; i < count; ++i) {
            const uint8_t expected[4] = {planes.gain[0][i], planes.gain[1][i], planes.gain[2][i], 255};
            if (std::memcmp(&texels[4 * i], expected, 4) != 0 && ++wrong <= 5) {
                ADD_FAILURE() << "texel " << i << " holds " << int(texels[4 * i]) << "/" << int(texels[4 * i + 1])
                              << "/" << int(texels[4 * i + 2]) << "/" << int(texels[4 * i + 3]);
            }
        }
    }

    // The APL line of the last upload, as its message part reads.
    static std::string AplLine(const LogCapture& capture)
    {
        for (const auto& text : capture.Messages()) {
            if (text.rfind("Calculate APL", 0) == 0) {
                return text;
            }
        }
        return "<no APL line>";
    }
};

// Direct upload at an odd size: every texel equals its plane's byte.
TEST_F(Upload, DirectPlanesReachTheirTexturesAtOddSizes)
{
    EngineHarness harness(1921, 1079, display_);
    ASSERT_TRUE(harness.ok());
    const Planes planes = MakePlanes(1921, 1079, 481, 271, 1);
    ASSERT_EQ(harness.Upload(planes), 0);
    ExpectTexturesHold(planes);
    const auto& table = HdrGenerate::GetInstance()->planeTable;
    ASSERT_EQ(table.size(), 6u);
    EXPECT_EQ(table.at(0).data, planes.main[0].data());
    EXPECT_EQ(table.at(2).width, 1921);
    EXPECT_EQ(table.at(5).data, planes.gain[2].data());
    EXPECT_EQ(table.at(5).height, 271);
}

// Reserved storage is immutable, takes the planes of its sizes, and is
// dropped (textures mutable again) by planes of other sizes.
TEST_F(Upload, ReservedStorageIsImmutableUntilOtherSizesCome)
{
    EngineHarness harness(33, 17, display_);
    ASSERT_TRUE(harness.ok());
    HdrGenerate* e = HdrGenerate::GetInstance();
    // Read on a unit of no plane's, so that every plane keeps its texture bound.
    const auto immutable = [e](int plane) {
        GLint value = -1;
        glActiveTexture(PACKED_GAIN_TEXTURE_UNIT + 1);
        glBindTexture(GL_TEXTURE_2D, e->inputTextures[plane]);
        glGetTexParameteriv(GL_TEXTURE_2D, GL_TEXTURE_IMMUTABLE_FORMAT, &value);
        glBindTexture(GL_TEXTURE_2D, 0);
        return value;
    };
    const int32_t sizes[4] = {33, 17, 9, 5};
    ASSERT_TRUE(HdrRender::GetInstance()->Bind());
    ASSERT_EQ(e->ReserveTextures(sizes), 0);
    for (int plane = 0; plane < 6; ++plane) {
        EXPECT_EQ(immutable(plane), GL_TRUE) << "plane " << plane;
    }
    ASSERT_TRUE(HdrRender::GetInstance()->Unbind());
    EXPECT_TRUE(e->hasTextureStorage);
    EXPECT_EQ(e->textureSizes[2], 9);

    const Planes fitting = MakePlanes(33, 17, 9, 5, 3);
    ASSERT_EQ(harness.Upload(fitting), 0);
    ExpectTexturesHold(fitting);
    EXPECT_TRUE(e->hasTextureStorage);

    const Planes other = MakePlanes(33, 17, 9, 6, 4);
    ASSERT_EQ(harness.Upload(other), 0);
    ExpectTexturesHold(other);
    EXPECT_FALSE(e->hasTextureStorage);
    ASSERT_TRUE(HdrRender::GetInstance()->Bind());
    for (int plane = 0; plane < 6; ++plane) {
        EXPECT_EQ(immutable(plane), GL_FALSE) << "plane " << plane;
    }
    ASSERT_TRUE(HdrRender::GetInstance()->Unbind());
}

// A plane of all 255 has APL 255.
TEST_F(Upload, AplOfAWhitePlaneIs255)
{
    EngineHarness harness(7, 5, display_);
    ASSERT_TRUE(harness.ok());
    Planes planes = MakePlanes(7, 5, 3, 3, 2);
    planes.main[0].assign(35, 255);
    LogCapture capture;
    ASSERT_EQ(harness.Upload(planes), 0);
    EXPECT_EQ(HdrGenerate::GetInstance()->apl, 255);
    EXPECT_EQ(AplLine(capture), "Calculate APL = 255, apl = 8925, w = 7, h = 5");
}

// The APL is the truncated mean: a sum of 1000 over 6 pixels gives 166.
TEST_F(Upload, AplIsTheTruncatedMean)
{
    EngineHarness harness(3, 2, display_);
    ASSERT_TRUE(harness.ok());
    Planes planes = MakePlanes(3, 2, 3, 2, 3);
    planes.main[0] = {255, 255, 255, 235, 0, 0};
    LogCapture capture;
    ASSERT_EQ(harness.Upload(planes), 0);
    EXPECT_EQ(HdrGenerate::GetInstance()->apl, 166);
    EXPECT_EQ(AplLine(capture), "Calculate APL = 166, apl = 1000, w = 3, h = 2");
}

// A size below 1 is refused with 13 before anything is uploaded.
TEST_F(Upload, SizeBelowOneIsRefused)
{
    EngineHarness harness(3, 2, display_);
    ASSERT_TRUE(harness.ok());
    for (int which = 0; which < 4; ++which) {
        Planes planes = MakePlanes(3, 2, 3, 2, 4);
        int* sizes[4] = {&planes.mainWidth, &planes.mainHeight, &planes.gainWidth, &planes.gainHeight};
        *sizes[which] = which % 2 == 0 ? 0 : -1;
        LogCapture capture;
        EXPECT_EQ(harness.Upload(planes), 13);
        bool found = false;
        for (const auto& line : capture.Lines()) {
            const auto parsed = Parse(line.text);
            if (parsed.message == hdrtest::Format("%d ERROR: Input data's size is wrong\n", parsed.line)) {
                found = true;
            }
        }
        EXPECT_TRUE(found) << "size " << which;
    }
}

// A missing plane pointer is refused with 13.
TEST_F(Upload, MissingPlaneIsRefused)
{
    EngineHarness harness(3, 2, display_);
    ASSERT_TRUE(harness.ok());
    for (int missing = 0; missing < 6; ++missing) {
        Planes planes = MakePlanes(3, 2, 3, 2, 5);
        (missing < 3 ? planes.main[missing] : planes.gain[missing - 3]).clear();
        LogCapture capture;
        EXPECT_EQ(harness.Upload(planes), 13) << "plane " << missing;
        const auto messages = capture.Messages();
        bool found = false;
        for (const auto& line : capture.Lines()) {
            const auto parsed = Parse(line.text);
            found |= parsed.message == hdrtest::Format("%d ERROR: Input date is nullptr\n", parsed.line);
        }
        EXPECT_TRUE(found) << "plane " << missing;
    }
}

// The first metadata intake maps all six buffers and issues the upload fence.
TEST_F(Upload, IntakeMapsTheBuffersAndIssuesAFence)
{
    EngineHarness harness(9, 5, display_, true);
    ASSERT_TRUE(harness.ok());
    HdrGenerate* e = HdrGenerate::GetInstance();
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(e->mappedPlanes[i], nullptr);
    }
    LogCapture capture;
    ASSERT_EQ(harness.Intake(MakePlanes(9, 5, 4, 3, 0), 9, 5), 0);
    for (int i = 0; i < 6; ++i) {
        EXPECT_NE(e->mappedPlanes[i], nullptr) << i;
    }
    EXPECT_NE(e->uploadFence, nullptr);
    EXPECT_FALSE(e->isPboIdle);
    EXPECT_FALSE(e->isAplPending);
    const auto messages = capture.Messages();
    const std::vector<std::string> expected = {"HdrGenerate::UpdatePBOs start", "HdrGenerate::UpdatePBOs glFenceSync",
                                               "HdrGenerate::UpdatePBOs end"};
    std::vector<std::string> pboLines;
    for (const auto& m : messages) {
        if (m.rfind("HdrGenerate::UpdatePBOs", 0) == 0) {
            pboLines.push_back(m);
        }
    }
    EXPECT_EQ(pboLines, expected);
    bool optimized = false;
    for (const auto& m : messages) {
        optimized |= m == "optimized !!!!!!!!!!!!!!!!!!!!!!!!\n";
    }
    EXPECT_TRUE(optimized);
}

// Streamed planes reach their textures byte for byte, at odd sizes, and plane 0 gives the APL.
TEST_F(Upload, StreamedPlanesReachTheirTextures)
{
    EngineHarness harness(101, 37, display_, true);
    ASSERT_TRUE(harness.ok());
    const Planes planes = MakePlanes(101, 37, 51, 19, 6);
    ASSERT_EQ(harness.Intake(planes, 101, 37), 0);
    LogCapture capture;
    ASSERT_TRUE(harness.Stream(planes));
    ExpectTexturesHold(planes);
    uint64_t sum = 0;
    for (uint8_t b : planes.main[0]) {
        sum += b;
    }
    const int apl = static_cast<int>(sum / planes.main[0].size());
    EXPECT_EQ(HdrGenerate::GetInstance()->apl, apl);
    EXPECT_EQ(AplLine(capture),
              hdrtest::Format("Calculate APL = %d, apl = %llu, w = 101, h = 37", apl,
                              static_cast<unsigned long long>(sum)));
    // The first Begin waited on the fence once; the later ones did not wait again.
    EXPECT_EQ(faults::WaitedSyncs().size(), 1u);
    EXPECT_TRUE(HdrGenerate::GetInstance()->isPboIdle);
    // Each mapping is gone once its plane was finished.
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(HdrGenerate::GetInstance()->mappedPlanes[i], nullptr) << i;
    }
}

// UpdateDataEnd with a width or height of 0 sets the APL to 0 and logs sum 0.
TEST_F(Upload, EmptyEndGivesAplZero)
{
    EngineHarness harness(6, 4, display_, true);
    ASSERT_TRUE(harness.ok());
    ASSERT_EQ(harness.Intake(MakePlanes(6, 4, 6, 4, 0), 6, 4), 0);
    HdrGenerate* e = HdrGenerate::GetInstance();
    e->apl = 99;
    ASSERT_TRUE(e->UpdateDataBegin(0));
    EXPECT_TRUE(e->isAplPending);
    std::memset(e->mappedPlanes[0], 200, 24);
    LogCapture capture;
    e->UpdateDataEnd(0, 4);
    EXPECT_EQ(e->apl, 0);
    EXPECT_FALSE(e->isAplPending);
    EXPECT_EQ(AplLine(capture), "Calculate APL = 0, apl = 0, w = 0, h = 4");
    // A zero-sized copy is no GL error: End unbinds.
    EXPECT_FALSE(HdrRender::GetInstance()->findContext()->egl.isBound);
}

// A fence that does not signal within one second makes Begin fail with 15
// inside; the next Begin waits again on the same, already deleted, handle.
TEST_F(Upload, FenceTimeoutFailsBeginAndIsWaitedOnAgain)
{
    EngineHarness harness(6, 4, display_, true);
    ASSERT_TRUE(harness.ok());
    ASSERT_EQ(harness.Intake(MakePlanes(6, 4, 6, 4, 0), 6, 4), 0);
    HdrGenerate* e = HdrGenerate::GetInstance();
    GLsync fence = e->uploadFence;
    faults::SetClientWaitResult(GL_TIMEOUT_EXPIRED);
    LogCapture capture;
    EXPECT_FALSE(e->UpdateDataBegin(0));
    EXPECT_FALSE(e->isPboIdle);
    bool timeout = false;
    for (const auto& line : capture.Lines()) {
        const auto parsed = Parse(line.text);
        timeout |= parsed.message == hdrtest::Format("%d ERROR: UpdatePBOsFinished timeout\n", parsed.line);
    }
    EXPECT_TRUE(timeout);
    // The context stays bound after the failure.
    EXPECT_TRUE(HdrRender::GetInstance()->findContext()->egl.isBound);
    ASSERT_TRUE(HdrRender::GetInstance()->Unbind());

    faults::SetClientWaitResult(GL_TIMEOUT_EXPIRED);
    EXPECT_FALSE(e->UpdateDataBegin(1));
    const auto waited = faults::WaitedSyncs();
    ASSERT_EQ(waited.size(), 2u);
    EXPECT_EQ(waited[0], fence);
    EXPECT_EQ(waited[1], fence);
    ASSERT_TRUE(HdrRender::GetInstance()->Unbind());
}

// A failed wait gives 14 inside and Begin fails.
TEST_F(Upload, FenceWaitFailureFailsBegin)
{
    EngineHarness harness(6, 4, display_, true);
    ASSERT_TRUE(harness.ok());
    ASSERT_EQ(harness.Intake(MakePlanes(6, 4, 6, 4, 0), 6, 4), 0);
    HdrGenerate* e = HdrGenerate::GetInstance();
    faults::SetClientWaitResult(GL_WAIT_FAILED);
    LogCapture capture;
    EXPECT_FALSE(e->UpdateDataBegin(0));
    bool failed = false;
    for (const auto& line : capture.Lines()) {
        const auto parsed = Parse(line.text);
        failed |= parsed.message == hdrtest::Format("%d ERROR: UpdatePBOsFinished faild\n", parsed.line);
    }
    EXPECT_TRUE(failed);
    ASSERT_TRUE(HdrRender::GetInstance()->Unbind());
}

// The wait results map to 0, 14 and 15; the fence is deleted in every case.
TEST_F(Upload, FenceWaitResults)
{
    EngineHarness harness(6, 4, display_, true);
    ASSERT_TRUE(harness.ok());
    HdrGenerate* e = HdrGenerate::GetInstance();
    const std::pair<GLenum, int> cases[] = {{GL_ALREADY_SIGNALED, 0},
                                            {GL_CONDITION_SATISFIED, 0},
                                            {GL_TIMEOUT_EXPIRED, 15},
                                            {GL_WAIT_FAILED, 14},
                                            {GL_NONE, 0}};
    ASSERT_TRUE(HdrRender::GetInstance()->Bind());
    for (const auto& c : cases) {
        e->uploadFence = glFenceSync(GL_SYNC_GPU_COMMANDS_COMPLETE, 0);
        faults::SetClientWaitResult(c.first);
        LogCapture capture;
        EXPECT_EQ(e->UpdatePBOsFinished(), c.second) << std::hex << c.first;
        EXPECT_FALSE(glIsSync(e->uploadFence));
        const auto messages = capture.Messages();
        EXPECT_EQ(messages.front(), "HdrGenerate::UpdatePBOsFinished start");
        EXPECT_EQ(messages.back(), "HdrGenerate::UpdatePBOsFinished end");
        const bool success = c.first == GL_ALREADY_SIGNALED || c.first == GL_CONDITION_SATISFIED;
        EXPECT_EQ(std::count(messages.begin(), messages.end(), "UpdatePBOsFinished success\n"), success ? 1 : 0);
    }
    // No fence at all: nothing to wait for.
    e->uploadFence = nullptr;
    const auto waits = faults::WaitedSyncs().size();
    EXPECT_EQ(e->UpdatePBOsFinished(), 0);
    EXPECT_EQ(faults::WaitedSyncs().size(), waits);
    ASSERT_TRUE(HdrRender::GetInstance()->Unbind());
}

// Begin refuses a plane that does not exist, without binding.
TEST_F(Upload, BeginRefusesAnUnknownPlane)
{
    EngineHarness harness(6, 4, display_, true);
    ASSERT_TRUE(harness.ok());
    ASSERT_EQ(harness.Intake(MakePlanes(6, 4, 6, 4, 0), 6, 4), 0);
    for (int plane : {-1, 6, 1000}) {
        LogCapture capture;
        EXPECT_FALSE(HdrGenerate::GetInstance()->UpdateDataBegin(plane));
        EXPECT_FALSE(HdrRender::GetInstance()->findContext()->egl.isBound);
        const auto parsed = Parse(capture.Lines().at(0).text);
        EXPECT_EQ(parsed.message, hdrtest::Format("%d ERROR: no such plane: %d\n", parsed.line, plane));
    }
}

// Begin without a program fails silently and binds nothing.
TEST_F(Upload, BeginWithoutProgramFailsSilently)
{
    EngineHarness harness(6, 4, display_, true);
    ASSERT_TRUE(harness.ok());
    HdrGenerate* e = HdrGenerate::GetInstance();
    const GLuint program = e->shaderManager->program;
    e->shaderManager->program = 0;
    LogCapture capture;
    EXPECT_FALSE(e->UpdateDataBegin(0));
    EXPECT_TRUE(capture.Lines().empty());
    EXPECT_FALSE(HdrRender::GetInstance()->findContext()->egl.isBound);
    e->shaderManager->program = program;
}

// The streaming cycle as hosts run it: each picture streamed first, its metadata
// set afterwards; the intake keeps the streamed planes, and the draw shows them.
TEST_F(Upload, StreamThenSetDrawsTheStreamedPicture)
{
    EngineHarness harness(23, 11, display_, true);
    ASSERT_TRUE(harness.ok());
    ASSERT_EQ(harness.Intake(MakePlanes(23, 11, 23, 11, 0), 23, 11), 0);  // primes the mappings
    for (int picture = 1; picture <= 3; ++picture) {
        SCOPED_TRACE(picture);
        Planes planes = MakePlanes(23, 11, 23, 11, picture);
        ASSERT_TRUE(harness.Stream(planes));
        ASSERT_EQ(harness.Intake(planes, 23, 11), 0);  // same sizes: the textures keep what they hold
        ExpectTexturesHold(planes);
        ASSERT_EQ(harness.Draw(hdrtest::GainMapUniforms{}), 0);
        const auto pixels = harness.ReadSurface();
        ASSERT_EQ(pixels.size(), 23u * 11u);
        // W = 0 and identity curves: red is luma plus 1.402 times V.
        for (size_t i = 0; i < pixels.size(); ++i) {
            const double y = planes.main[0][i] / 255.0;
            const double v = planes.main[2][i] / 255.0 - 0.5;
            const double red = std::min(1.0, std::max(0.0, y + 1.402 * v)) * 255.0;
            ASSERT_NEAR(pixels[i].r, red, 2.0) << "pixel " << i;
            ASSERT_EQ(pixels[i].a, 255) << "pixel " << i;
        }
    }
}

// Metadata set first for a picture of new sizes, then the picture streamed:
// the textures are re-defined at the new size and the draw shows the picture.
TEST_F(Upload, SetThenStreamDrawsThePictureAtItsNewSize)
{
    EngineHarness harness(8, 8, display_, true);
    ASSERT_TRUE(harness.ok());
    const int sizes[][4] = {{17, 9, 17, 9}, {31, 13, 31, 13}, {5, 21, 5, 21}};
    int seed = 10;
    for (const auto& size : sizes) {
        SCOPED_TRACE(size[0]);
        Planes planes = MakePlanes(size[0], size[1], size[2], size[3], seed++);
        ASSERT_EQ(harness.Intake(planes, size[0], size[1]), 0);
        ASSERT_TRUE(harness.Stream(planes));
        ExpectTexturesHold(planes);
        ASSERT_EQ(harness.Draw(hdrtest::GainMapUniforms{}), 0);
        const auto pixels = harness.ReadSurface();
        ASSERT_EQ(pixels.size(), static_cast<size_t>(size[0] * size[1]));
        for (size_t i = 0; i < pixels.size(); ++i) {
            const double y = planes.main[0][i] / 255.0;
            const double v = planes.main[2][i] / 255.0 - 0.5;
            const double red = std::min(1.0, std::max(0.0, y + 1.402 * v)) * 255.0;
            ASSERT_NEAR(pixels[i].r, red, 2.0) << "pixel " << i;
        }
    }
}

// Whether the gain map's chroma is flat is found as each plane is uploaded:
// in the direct mode from the host's planes, in the streaming mode from the
// mapped bytes before they are unmapped.
TEST_F(Upload, FlatGainChromaIsFoundInBothModes)
{
    for (bool streaming : {false, true}) {
        SCOPED_TRACE(streaming ? "streaming" : "direct");
        EngineHarness harness(23, 11, display_, streaming);
        ASSERT_TRUE(harness.ok());
        Planes planes = MakePlanes(23, 11, 9, 7, 21);
        planes.gain[1].assign(planes.gain[1].size(), 128);
        planes.gain[2].assign(planes.gain[2].size(), 131);
        HdrGenerate* e = HdrGenerate::GetInstance();
        const auto upload = [&]() {
            if (streaming) {
                ASSERT_EQ(harness.Intake(planes, 23, 11), 0);
                ASSERT_TRUE(harness.Stream(planes));
            } else {
                ASSERT_EQ(harness.Upload(planes), 0);
            }
        };
        upload();
        EXPECT_TRUE(e->gainChroma.Flat());
        // One texel off in V: no longer flat.
        planes.gain[2].back() = 0;
        upload();
        EXPECT_FALSE(e->gainChroma.Flat());
        // Flat again.
        planes.gain[2].back() = 131;
        upload();
        EXPECT_TRUE(e->gainChroma.Flat());
    }
}

// A direct upload whose gain map has chroma also packs the gain map's three
// planes into one texture: every texel (y, u, v, 255), at an odd width and
// over several bands of rows.
TEST_F(Upload, DirectGainMapWithChromaIsPackedTexelForTexel)
{
    EngineHarness harness(37, 150, display_);
    ASSERT_TRUE(harness.ok());
    const Planes planes = MakePlanes(37, 150, 19, 141, 41);
    ASSERT_EQ(harness.Upload(planes), 0);
    ExpectPackedTexelsHold(planes);
    // The three planes keep their own textures too.
    ExpectTexturesHold(planes);
}

// Where gain maps are packed, the reservation gives the packed texture its
// storage too, which a gain map of the reserved size is then copied into;
// not for a gain map of the main image's size, which a picture of that size
// samples texel for texel.
TEST_F(Upload, ReservationGivesThePackedGainMapItsStorage)
{
    for (const bool pack : {true, false}) {
        SCOPED_TRACE(pack ? "packing" : "not packing");
        EngineHarness harness(33, 17, display_);
        ASSERT_TRUE(harness.ok());
        HdrGenerate* e = HdrGenerate::GetInstance();
        e->packGainMaps = pack;
        const int32_t sizes[4] = {33, 17, 9, 5};
        ASSERT_TRUE(HdrRender::GetInstance()->Bind());
        ASSERT_EQ(e->ReserveTextures(sizes), 0);
        const GLuint reserved = e->packedGain.Texture();
        EXPECT_FALSE(e->packedGain.Current()) << "nothing packed yet";
        const int32_t fullSize[4] = {33, 17, 33, 17};
        ASSERT_EQ(e->ReserveTextures(fullSize), 0);
        EXPECT_EQ(e->packedGain.Texture(), reserved) << "a full-size gain map reserves nothing to pack into";
        ASSERT_EQ(e->ReserveTextures(sizes), 0);
        EXPECT_EQ(e->packedGain.Texture(), reserved) << "the same size's storage kept";
        if (pack) {
            ASSERT_NE(reserved, 0u);
            GLint value[3] = {-1, -1, -1};
            glActiveTexture(PACKED_GAIN_TEXTURE_UNIT);
            glGetTexParameteriv(GL_TEXTURE_2D, GL_TEXTURE_IMMUTABLE_FORMAT, &value[0]);
            glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, GL_TEXTURE_WIDTH, &value[1]);
            glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, GL_TEXTURE_HEIGHT, &value[2]);
            EXPECT_EQ(value[0], GL_TRUE);
            EXPECT_EQ(value[1], 9);
            EXPECT_EQ(value[2], 5);
        } else {
            EXPECT_EQ(reserved, 0u);
        }
        ASSERT_TRUE(HdrRender::GetInstance()->Unbind());
        const Planes fitting = MakePlanes(33, 17, 9, 5, 49);
        ASSERT_EQ(harness.Upload(fitting), 0);
        EXPECT_EQ(e->packedGain.Current(), pack);
        EXPECT_EQ(e->packedGain.Texture(), reserved) << "the reserved texture filled, not a new one";
        if (pack) {
            ASSERT_TRUE(HdrRender::GetInstance()->Bind());
            const auto texels = hdrtest::ReadRgbaTexture(reserved, 9, 5);
            ASSERT_TRUE(HdrRender::GetInstance()->Unbind());
            for (size_t i = 0; i < fitting.gain[1].size(); ++i) {
                ASSERT_EQ(texels[4 * i + 1], fitting.gain[1][i]) << i;
            }
        }
    }
}

// A size GL refuses leaves no packed texture behind and reports the error;
// the next good fill works.
TEST_F(Upload, RefusedPackedStorageLeavesNoTexture)
{
    EngineHarness harness(8, 8, display_);
    ASSERT_TRUE(harness.ok());
    ASSERT_TRUE(HdrRender::GetInstance()->Bind());
    GLint largest = 0;
    glGetIntegerv(GL_MAX_TEXTURE_SIZE, &largest);
    ASSERT_GT(largest, 0);
    const std::vector<uint8_t> row(static_cast<size_t>(largest) + 1, 7);
    PackedGainMap packed;
    GLenum error = GL_NO_ERROR;
    EXPECT_FALSE(packed.Upload(PACKED_GAIN_TEXTURE_UNIT, row.data(), row.data(), row.data(), largest + 1, 1, &error));
    EXPECT_EQ(error, static_cast<GLenum>(GL_INVALID_VALUE));
    EXPECT_EQ(packed.Texture(), 0u);
    EXPECT_FALSE(packed.Current());
    EXPECT_TRUE(packed.Upload(PACKED_GAIN_TEXTURE_UNIT, row.data(), row.data(), row.data(), 4, 1, &error));
    EXPECT_EQ(error, static_cast<GLenum>(GL_NO_ERROR));
    EXPECT_TRUE(packed.Current());
    EXPECT_EQ(hdrtest::ReadRgbaTexture(packed.Texture(), 4, 1), std::vector<uint8_t>({7, 7, 7, 255, 7, 7, 7, 255, 7, 7, 7, 255, 7, 7, 7, 255}));
    packed.Release();
    EXPECT_EQ(packed.Texture(), 0u);
    ASSERT_TRUE(HdrRender::GetInstance()->Unbind());
}

// The next picture's gain map replaces the packed one, also at another size.
TEST_F(Upload, NextGainMapRepacksAtItsOwnSize)
{
    EngineHarness harness(40, 30, display_);
    ASSERT_TRUE(harness.ok());
    HdrGenerate* e = HdrGenerate::GetInstance();
    for (const int gainWidth : {20, 20, 13}) {
        SCOPED_TRACE(gainWidth);
        const Planes planes = MakePlanes(40, 30, gainWidth, 15, 43 + gainWidth);
        ASSERT_EQ(harness.Upload(planes), 0);
        ASSERT_TRUE(e->packedGain.Current());
        ASSERT_TRUE(HdrRender::GetInstance()->Bind());
        const auto texels = hdrtest::ReadRgbaTexture(e->packedGain.Texture(), gainWidth, 15);
        ASSERT_TRUE(HdrRender::GetInstance()->Unbind());
        for (size_t i = 0; i < planes.gain[0].size(); ++i) {
            ASSERT_EQ(texels[4 * i], planes.gain[0][i]) << i;
            ASSERT_EQ(texels[4 * i + 2], planes.gain[2][i]) << i;
        }
    }
}

// Nothing is packed where no program would read it or where it would not
// pay: a gain map with flat chroma (sampled once, as luma), a picture the
// registered program draws, a gain map sampled texel for texel, a renderer
// that samples on a GPU, and the streaming mode (whose planes the host writes into the driver's
// buffers). A packed gain map of an earlier picture is not taken for the
// new one's.
TEST_F(Upload, GainMapIsPackedOnlyForTheThreePlaneDirectDraw)
{
    {
        SCOPED_TRACE("flat chroma");
        EngineHarness harness(23, 11, display_);
        ASSERT_TRUE(harness.ok());
        Planes planes = MakePlanes(23, 11, 9, 7, 45);
        ASSERT_EQ(harness.Upload(planes), 0);
        ASSERT_TRUE(HdrGenerate::GetInstance()->packedGain.Current());
        planes.gain[1].assign(planes.gain[1].size(), 128);
        planes.gain[2].assign(planes.gain[2].size(), 140);
        ASSERT_EQ(harness.Upload(planes), 0);
        EXPECT_FALSE(HdrGenerate::GetInstance()->packedGain.Current());
        EXPECT_EQ(HdrGenerate::GetInstance()->packedGain.Texture(), 0u) << "its memory handed back";
    }
    {
        SCOPED_TRACE("general program");
        EngineHarness harness(23, 11, display_);
        ASSERT_TRUE(harness.ok());
        HdrGenerate::GetInstance()->useSpecialisedPrograms = false;
        ASSERT_EQ(harness.Upload(MakePlanes(23, 11, 9, 7, 46)), 0);
        EXPECT_FALSE(HdrGenerate::GetInstance()->packedGain.Current());
        EXPECT_EQ(HdrGenerate::GetInstance()->packedGain.Texture(), 0u);
    }
    {
        SCOPED_TRACE("gain map sampled texel for texel");
        EngineHarness harness(9, 7, display_);
        ASSERT_TRUE(harness.ok());
        ASSERT_EQ(harness.Upload(MakePlanes(23, 11, 9, 7, 50)), 0);
        EXPECT_FALSE(HdrGenerate::GetInstance()->packedGain.Current());
        EXPECT_EQ(HdrGenerate::GetInstance()->packedGain.Texture(), 0u);
    }
    {
        SCOPED_TRACE("renderer sampling on a GPU");
        EngineHarness harness(23, 11, display_);
        ASSERT_TRUE(harness.ok());
        EXPECT_TRUE(HdrGenerate::GetInstance()->packGainMaps) << "llvmpipe samples on the CPU";
        HdrGenerate::GetInstance()->packGainMaps = false;
        ASSERT_EQ(harness.Upload(MakePlanes(23, 11, 9, 7, 48)), 0);
        EXPECT_FALSE(HdrGenerate::GetInstance()->packedGain.Current());
        EXPECT_EQ(HdrGenerate::GetInstance()->packedGain.Texture(), 0u);
    }
}

// The streaming mode packs the gain map as soon as the last of its three
// planes is in, whatever order the host streams the planes in, from the
// bytes the host wrote into the buffers; the picture's intake keeps it.
TEST_F(Upload, StreamedGainMapIsPackedWhenItsLastPlaneIsIn)
{
    const int orders[][6] = {{0, 1, 2, 3, 4, 5}, {5, 0, 3, 1, 4, 2}, {4, 3, 5, 2, 1, 0}};
    for (const auto& order : orders) {
        SCOPED_TRACE(::testing::Message() << "planes " << order[0] << order[1] << order[2] << order[3] << order[4]
                                          << order[5]);
        EngineHarness harness(37, 150, display_, true);
        ASSERT_TRUE(harness.ok());
        const Planes planes = MakePlanes(37, 150, 19, 141, 42);
        ASSERT_EQ(harness.Intake(planes, 37, 150), 0);
        HdrGenerate* e = HdrGenerate::GetInstance();
        int gainPlanesIn = 0;
        for (const int plane : order) {
            ASSERT_TRUE(harness.StreamPlane(planes, plane));
            gainPlanesIn += plane >= 3 ? 1 : 0;
            EXPECT_EQ(e->packedGain.Current(), gainPlanesIn == 3) << "after plane " << plane;
        }
        ASSERT_EQ(harness.Intake(planes, 37, 150), 0);
        ExpectPackedTexelsHold(planes);
        ExpectTexturesHold(planes);
    }
}

// The packed gain map stands for what the three textures hold and is used
// only where it pays: not after a gain plane streamed short, not for flat
// chroma, not while the last picture sampled its gain map texel for texel,
// and handed back at the intake of a picture that samples it so.
TEST_F(Upload, StreamedGainMapIsPackedOnlyWhenWholeAndWorthIt)
{
    {
        SCOPED_TRACE("a gain plane streamed short");
        EngineHarness harness(23, 11, display_, true);
        ASSERT_TRUE(harness.ok());
        const Planes planes = MakePlanes(23, 11, 9, 7, 51);
        ASSERT_EQ(harness.Intake(planes, 23, 11), 0);
        for (int plane = 0; plane < 5; ++plane) {
            ASSERT_TRUE(harness.StreamPlane(planes, plane));
        }
        HdrGenerate* e = HdrGenerate::GetInstance();
        ASSERT_TRUE(e->UpdateDataBegin(5));
        std::memcpy(e->mappedPlanes[5], planes.gain[2].data(), planes.gain[2].size());
        ASSERT_TRUE(e->UpdateDataEnd(9, 6));
        EXPECT_FALSE(e->packedGain.Current());
    }
    {
        SCOPED_TRACE("the next picture's gain map streamed in part");
        EngineHarness harness(23, 11, display_, true);
        const Planes planes = MakePlanes(23, 11, 9, 7, 52);
        ASSERT_TRUE(StreamSmallPicture(harness, planes));
        ASSERT_EQ(harness.Intake(planes, 23, 11), 0);
        HdrGenerate* e = HdrGenerate::GetInstance();
        ASSERT_TRUE(e->packedGain.Current());
        const Planes next = MakePlanes(23, 11, 9, 7, 57);
        LogCapture capture;
        ASSERT_TRUE(harness.StreamPlane(next, 3));
        EXPECT_FALSE(e->packedGain.Current()) << "the Y texture holds the next picture's";
        ASSERT_TRUE(harness.StreamPlane(next, 4));
        EXPECT_FALSE(e->packedGain.Current()) << "V was streamed for the picture before";
        ASSERT_EQ(harness.Intake(next, 23, 11), 0);
        EXPECT_FALSE(e->packedGain.Current());
        for (const std::string& message : capture.Messages()) {
            EXPECT_EQ(message.find("ERROR"), std::string::npos) << "no packing was even tried: " << message;
        }
    }
    struct Unpacked {
        const char* what;
        int outputWidth;
        int outputHeight;
        bool flatChroma;
        bool gpu;
    };
    const Unpacked unpacked[] = {
        {"flat chroma", 23, 11, true, false},
        {"the last picture sampled its gain map texel for texel", 9, 7, false, false},
        {"renderer sampling on a GPU", 23, 11, false, true},
    };
    for (const Unpacked& c : unpacked) {
        SCOPED_TRACE(c.what);
        EngineHarness harness(c.outputWidth, c.outputHeight, display_, true);
        ASSERT_TRUE(harness.ok());
        Planes planes = MakePlanes(23, 11, 9, 7, 53);
        if (c.flatChroma) {
            planes.gain[1].assign(planes.gain[1].size(), 128);
            planes.gain[2].assign(planes.gain[2].size(), 140);
        }
        if (c.gpu) {
            HdrGenerate::GetInstance()->packGainMaps = false;
        }
        ASSERT_EQ(harness.Intake(planes, c.outputWidth, c.outputHeight), 0);
        ASSERT_TRUE(harness.Stream(planes));
        EXPECT_FALSE(HdrGenerate::GetInstance()->packedGain.Current());
        EXPECT_EQ(HdrGenerate::GetInstance()->packedGain.Texture(), 0u);
    }
    {
        SCOPED_TRACE("this picture samples its gain map texel for texel");
        EngineHarness harness(23, 11, display_, true);
        const Planes planes = MakePlanes(23, 11, 9, 7, 55);
        ASSERT_TRUE(StreamSmallPicture(harness, planes));
        ASSERT_TRUE(HdrGenerate::GetInstance()->packedGain.Current());
        ASSERT_EQ(harness.Intake(planes, 9, 7), 0);
        EXPECT_FALSE(HdrGenerate::GetInstance()->packedGain.Current());
        EXPECT_EQ(HdrGenerate::GetInstance()->packedGain.Texture(), 0u) << "its memory handed back";
    }
}

// A streamed gain map whose buffers cannot be mapped again for reading is
// drawn from its planes: the failure is logged with its GL error, none is
// left pending, the buffers that were mapped are released, and the next
// picture packs again.
TEST_F(Upload, StreamedGainMapThatCannotBeReadBackIsSampledApart)
{
    EngineHarness harness(23, 11, display_, true);
    const Planes planes = MakePlanes(23, 11, 9, 7, 58);
    LogCapture capture;
    faults::FailReadMappings(1);  // the gain map's Y buffer; U and V map
    ASSERT_TRUE(StreamSmallPicture(harness, planes));
    HdrGenerate* e = HdrGenerate::GetInstance();
    EXPECT_FALSE(e->packedGain.Current());
    bool logged = false;
    for (const std::string& message : capture.Messages()) {
        logged = logged || message.find("packing the gain map's planes failed (GL error 0x505); they are sampled "
                                        "apart") != std::string::npos;
    }
    EXPECT_TRUE(logged);
    ASSERT_TRUE(HdrRender::GetInstance()->Bind());
    EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
    ASSERT_TRUE(HdrRender::GetInstance()->Unbind());
    ExpectTexturesHold(planes);

    ASSERT_EQ(harness.Intake(planes, 23, 11), 0) << "every buffer mapped again for the host";
    const Planes next = MakePlanes(23, 11, 9, 7, 59);
    ASSERT_TRUE(harness.Stream(next));
    ExpectPackedTexelsHold(next);
}

// A streaming intake that re-defines the gain map's textures at a new size
// forgets what they held until the new planes are streamed.
TEST_F(Upload, NewGainMapSizeForgetsTheFlatChroma)
{
    EngineHarness harness(8, 8, display_, true);
    ASSERT_TRUE(harness.ok());
    Planes planes = MakePlanes(16, 8, 8, 4, 31);
    planes.gain[1].assign(planes.gain[1].size(), 128);
    planes.gain[2].assign(planes.gain[2].size(), 128);
    ASSERT_EQ(harness.Intake(planes, 16, 8), 0);
    ASSERT_TRUE(harness.Stream(planes));
    HdrGenerate* e = HdrGenerate::GetInstance();
    ASSERT_TRUE(e->gainChroma.Flat());
    Planes larger = MakePlanes(16, 8, 12, 6, 32);
    ASSERT_EQ(harness.Intake(larger, 16, 8), 0);
    EXPECT_FALSE(e->gainChroma.Flat());
}

// An intake at the sizes the buffers already have maps them again without
// re-allocating them, also when the host never wrote the previous mapping;
// a new size re-allocates. Every handed-out byte is writable and reaches the
// texture.
TEST_F(Upload, SameSizeIntakeMapsTheSameBuffersAgain)
{
    EngineHarness harness(16, 8, display_, true);
    ASSERT_TRUE(harness.ok());
    HdrGenerate* e = HdrGenerate::GetInstance();
    const Planes first = MakePlanes(16, 8, 8, 4, 41);
    ASSERT_EQ(harness.Intake(first, 16, 8), 0);
    int32_t allocated[6];
    for (int i = 0; i < 6; ++i) {
        allocated[i] = e->bufferBytes[i];
        EXPECT_EQ(allocated[i], i < 3 ? 16 * 8 : 8 * 4) << i;
    }
    // Mapped and never written: the next intake of the same sizes maps again.
    ASSERT_EQ(harness.Intake(first, 16, 8), 0);
    for (int i = 0; i < 6; ++i) {
        ASSERT_NE(e->mappedPlanes[i], nullptr) << i;
        EXPECT_EQ(e->mappedBytes[i], allocated[i]) << i;
    }
    ASSERT_TRUE(harness.Stream(first));
    ExpectTexturesHold(first);
    // A larger gain map: its buffers grow, the main image's stay.
    const Planes second = MakePlanes(16, 8, 12, 6, 42);
    ASSERT_EQ(harness.Intake(second, 16, 8), 0);
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(e->bufferBytes[i], i < 3 ? 16 * 8 : 12 * 6) << i;
    }
    ASSERT_TRUE(harness.Stream(second));
    ExpectTexturesHold(second);
}

// Once the first Begin after an intake has returned, the buffers of the
// planes not yet ended may all be written: the main image's three planes
// filled together while plane 0 is open reach their textures.
TEST_F(Upload, MainPlanesFilledTogetherWhilePlaneZeroIsOpen)
{
    EngineHarness harness(16, 8, display_, true);
    ASSERT_TRUE(harness.ok());
    HdrGenerate* e = HdrGenerate::GetInstance();
    const Planes planes = MakePlanes(16, 8, 8, 4, 51);
    ASSERT_EQ(harness.Intake(planes, 16, 8), 0);
    ASSERT_TRUE(e->UpdateDataBegin(0));
    for (int plane = 0; plane < 3; ++plane) {
        ASSERT_NE(e->mappedPlanes[plane], nullptr) << plane;
        std::memcpy(e->mappedPlanes[plane], planes.main[plane].data(), planes.main[plane].size());
    }
    ASSERT_TRUE(e->UpdateDataEnd(16, 8));
    for (int plane = 1; plane < 6; ++plane) {
        ASSERT_TRUE(e->UpdateDataBegin(plane)) << plane;
        if (plane >= 3) {
            const auto& bytes = planes.gain[plane - 3];
            std::memcpy(e->mappedPlanes[plane], bytes.data(), bytes.size());
        }
        ASSERT_TRUE(e->UpdateDataEnd(plane < 3 ? 16 : 8, plane < 3 ? 8 : 4)) << plane;
    }
    ExpectTexturesHold(planes);
}

}  // namespace
