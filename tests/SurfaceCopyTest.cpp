// Surface-copy images: the finished picture put into the surface's memory
// in the byte order of its format, band by band, as the host reads it.
#include "OutputTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <vector>

using hdrtest::Contains;
using hdrtest::LogCapture;
using hdrtest::OutputTest;
using hdrtest::WithLine;
namespace faults = hdrtest::faults;

namespace {

class OutputCopyTest : public OutputTest {
protected:
    static constexpr uint8_t kSentinel = 0xA7;

    // The engine's target at width x height, drawn in one pass, every byte of
    // the surface set to the sentinel.
    HdrGenerate* Target(int width, int height)
    {
        HdrGenerate* engine =
            Engine(width, height, false, std::make_unique<SurfaceCopyImages>(SurfaceCopyImages::kWholeSurface));
        EXPECT_EQ(engine->updateTBM(), 0);
        Fill(engine->tbmSurface);
        return engine;
    }

    // Puts what the engine's framebuffer holds into its surface, as the one
    // pass of a whole-surface image.
    static bool Store(HdrGenerate* engine)
    {
        return engine->outputImages->StoreBand(engine->eglImage, engine->framebuffer, 0);
    }

    static void Fill(tbm_surface_h surface)
    {
        tbm_surface_info_s info;
        ASSERT_EQ(tbm_surface_map(surface, TBM_SURF_OPTION_WRITE, &info), 0);
        std::memset(info.planes[0].ptr, kSentinel, info.planes[0].size);
        tbm_surface_unmap(surface);
    }

    // The surface's raw bytes and its stride.
    static std::vector<uint8_t> Bytes(tbm_surface_h surface, uint32_t* stride)
    {
        tbm_surface_info_s info;
        if (tbm_surface_map(surface, TBM_SURF_OPTION_READ, &info) != 0) {
            return {};
        }
        std::vector<uint8_t> bytes(info.planes[0].ptr, info.planes[0].ptr + info.planes[0].size);
        *stride = info.planes[0].stride;
        tbm_surface_unmap(surface);
        return bytes;
    }

    static void Clear(GLuint framebuffer, std::array<uint8_t, 4> rgba)
    {
        glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
        glClearColor(rgba[0] / 255.0f, rgba[1] / 255.0f, rgba[2] / 255.0f, rgba[3] / 255.0f);
        glClear(GL_COLOR_BUFFER_BIT);
        glBindFramebuffer(GL_FRAMEBUFFER, 0);
    }

    // A distinct colour for every pixel position.
    static std::array<uint8_t, 4> PixelColour(int x, int y)
    {
        return {static_cast<uint8_t>(x * 6 + 1), static_cast<uint8_t>(y * 40 + 3),
                static_cast<uint8_t>(200 - x), static_cast<uint8_t>(255 - y)};
    }

    // Paints every pixel of framebuffer with PixelColour, in GL's coordinates.
    static void Paint(GLuint framebuffer, int width, int height)
    {
        glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
        glEnable(GL_SCISSOR_TEST);
        for (int y = 0; y < height; ++y) {
            for (int x = 0; x < width; ++x) {
                const auto c = PixelColour(x, y);
                glScissor(x, y, 1, 1);
                glClearColor(c[0] / 255.0f, c[1] / 255.0f, c[2] / 255.0f, c[3] / 255.0f);
                glClear(GL_COLOR_BUFFER_BIT);
            }
        }
        glDisable(GL_SCISSOR_TEST);
        glBindFramebuffer(GL_FRAMEBUFFER, 0);
    }
};

// Every pixel of an RA24 surface holds the bytes A, B, G, R.
TEST_F(OutputCopyTest, EveryPixelIsStoredAsABGR)
{
    const int width = 37;
    const int height = 5;
    HdrGenerate* engine = Target(width, height);
    Clear(engine->framebuffer, {0x11, 0x22, 0x33, 0x44});
    ASSERT_TRUE(Store(engine));
    uint32_t stride = 0;
    const auto bytes = Bytes(engine->tbmSurface, &stride);
    ASSERT_FALSE(bytes.empty());
    int wrong = 0;
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const uint8_t* p = &bytes[y * stride + 4 * x];
            if (p[0] != 0x44 || p[1] != 0x33 || p[2] != 0x22 || p[3] != 0x11) {
                ++wrong;
                ADD_FAILURE() << "pixel (" << x << ", " << y << "): " << int(p[0]) << " " << int(p[1]) << " "
                              << int(p[2]) << " " << int(p[3]);
            }
            if (wrong > 5) {
                return;
            }
        }
    }
}

// An odd width leaves the row padding between width * 4 and the stride untouched.
TEST_F(OutputCopyTest, RowPaddingKeepsItsBytes)
{
    const int width = 37;
    const int height = 5;
    HdrGenerate* engine = Target(width, height);
    Clear(engine->framebuffer, {0x11, 0x22, 0x33, 0x44});
    ASSERT_TRUE(Store(engine));
    uint32_t stride = 0;
    const auto bytes = Bytes(engine->tbmSurface, &stride);
    ASSERT_EQ(stride, 192u);  // 148 bytes of pixels, rows padded to 64 bytes
    ASSERT_EQ(bytes.size(), static_cast<size_t>(stride) * height);
    for (int y = 0; y < height; ++y) {
        for (uint32_t i = width * 4; i < stride; ++i) {
            ASSERT_EQ(bytes[y * stride + i], kSentinel) << "row " << y << " byte " << i;
        }
    }
}

// Row 0 of the surface's memory is GL's row 0; each pixel lands at its own position.
TEST_F(OutputCopyTest, PixelPositionsAreKept)
{
    const int width = 37;
    const int height = 5;
    HdrGenerate* engine = Target(width, height);
    Paint(engine->framebuffer, width, height);
    ASSERT_TRUE(Store(engine));
    uint32_t stride = 0;
    const auto bytes = Bytes(engine->tbmSurface, &stride);
    ASSERT_FALSE(bytes.empty());
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const auto c = PixelColour(x, y);
            const uint8_t* p = &bytes[y * stride + 4 * x];
            ASSERT_EQ((std::array<uint8_t, 4>{p[3], p[2], p[1], p[0]}), c) << "pixel (" << x << ", " << y << ")";
        }
    }
}

// A second copy overwrites the first: the bytes are reordered once per copy.
TEST_F(OutputCopyTest, RepeatedCopiesKeepTheByteOrder)
{
    HdrGenerate* engine = Target(8, 2);
    Clear(engine->framebuffer, {0x10, 0x20, 0x30, 0x40});
    ASSERT_TRUE(Store(engine));
    Clear(engine->framebuffer, {0x01, 0x02, 0x03, 0x04});
    ASSERT_TRUE(Store(engine));
    uint32_t stride = 0;
    const auto bytes = Bytes(engine->tbmSurface, &stride);
    ASSERT_FALSE(bytes.empty());
    EXPECT_EQ((std::vector<uint8_t>(bytes.begin(), bytes.begin() + 4)), (std::vector<uint8_t>{4, 3, 2, 1}));
    EXPECT_EQ((std::vector<uint8_t>(bytes.begin() + stride + 28, bytes.begin() + stride + 32)),
              (std::vector<uint8_t>{4, 3, 2, 1}));
}

// An AB24 surface gets the bytes R, G, B, A, as GL writes them.
TEST_F(OutputCopyTest, Abgr8888SurfaceGetsBytesRGBA)
{
    const int width = 13;
    const int height = 3;
    tbm_surface_h surface = Surface(width, height, TBM_FORMAT_ABGR8888);
    Fill(surface);
    const SurfaceCopyImages copy;
    void* image = CreateImageKHR(copy, *info_, surface, nullptr);
    ASSERT_NE(image, nullptr);
    const GLuint texture = BoundTexture();
    TargetTextureKHR(copy, *info_, image);
    glBindTexture(GL_TEXTURE_2D, 0);
    GLuint framebuffer = 0;
    glGenFramebuffers(1, &framebuffer);
    glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
    glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, texture, 0);
    ASSERT_EQ(glCheckFramebufferStatus(GL_FRAMEBUFFER), static_cast<GLenum>(GL_FRAMEBUFFER_COMPLETE));
    Paint(framebuffer, width, height);
    EXPECT_TRUE(copy.StoreBand(image, framebuffer, 0));
    uint32_t stride = 0;
    const auto bytes = Bytes(surface, &stride);
    ASSERT_FALSE(bytes.empty());
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const uint8_t* p = &bytes[y * stride + 4 * x];
            ASSERT_EQ((std::array<uint8_t, 4>{p[0], p[1], p[2], p[3]}), PixelColour(x, y))
                << "pixel (" << x << ", " << y << ")";
        }
        for (uint32_t i = width * 4; i < stride; ++i) {
            ASSERT_EQ(bytes[y * stride + i], kSentinel);
        }
    }
    DestroyImageKHR(copy, *info_, image);
    glDeleteFramebuffers(1, &framebuffer);
    glDeleteTextures(1, &texture);
}

// The copy leaves no framebuffer bound for reading and the pack row length at 0.
TEST_F(OutputCopyTest, CopyRestoresReadState)
{
    HdrGenerate* engine = Target(37, 5);
    ASSERT_TRUE(Store(engine));
    GLint readFramebuffer = -1;
    GLint rowLength = -1;
    glGetIntegerv(GL_READ_FRAMEBUFFER_BINDING, &readFramebuffer);
    glGetIntegerv(GL_PACK_ROW_LENGTH, &rowLength);
    EXPECT_EQ(readFramebuffer, 0);
    EXPECT_EQ(rowLength, 0);
}

// Without an image there is nothing to copy into: false and a message.
TEST_F(OutputCopyTest, CopyWithoutImageFails)
{
    const SurfaceCopyImages copy;
    LogCapture capture;
    EXPECT_FALSE(copy.StoreBand(nullptr, 0, 0));
    const auto messages = capture.Messages();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0], WithLine(capture, 0, "%d ERROR: no output image\n"));
}

// A surface destroyed under its image cannot be mapped: false and a message.
TEST_F(OutputCopyTest, CopyIntoADestroyedSurfaceFails)
{
    tbm_surface_h surface = tbm_surface_create(8, 4, TBM_FORMAT_RGBA8888);
    ASSERT_NE(surface, nullptr);
    const SurfaceCopyImages copy;
    void* image = CreateImageKHR(copy, *info_, surface, nullptr);
    ASSERT_NE(image, nullptr);
    tbm_surface_destroy(surface);
    LogCapture capture;
    EXPECT_FALSE(copy.StoreBand(image, 0, 0));
    const auto messages = capture.Messages();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0], WithLine(capture, 0, "%d ERROR: tbm_surface_map failed\n"));
    DestroyImageKHR(copy, *info_, image);
}

// A GL error during the readback makes the copy fail.
TEST_F(OutputCopyTest, GlErrorDuringTheCopyFails)
{
    HdrGenerate* engine = Target(8, 2);
    faults::QueueGlError(GL_OUT_OF_MEMORY);
    LogCapture capture;
    EXPECT_FALSE(Store(engine));
    EXPECT_TRUE(Contains(capture.Messages(),
                         "There is not enough memory left to execute the function. 0x00000505"));
}

// Native images are the surface itself: nothing is read or written.
TEST_F(OutputCopyTest, NativeImagesNeedNoCopy)
{
    HdrGenerate* engine = Target(8, 2);
    Clear(engine->framebuffer, {1, 2, 3, 4});
    const NativeSurfaceImages native;
    const int glErrorCalls = faults::GlGetErrorCalls();
    EXPECT_EQ(native.Bands(engine->eglImage).count, 1);
    EXPECT_TRUE(native.StoreBand(engine->eglImage, engine->framebuffer, 0));
    EXPECT_EQ(faults::GlGetErrorCalls(), glErrorCalls);
    uint32_t stride = 0;
    const auto bytes = Bytes(engine->tbmSurface, &stride);
    ASSERT_FALSE(bytes.empty());
    EXPECT_EQ(bytes[0], kSentinel);
}


// ---------------------------------------------------------------------------
// Bands: the output texture holds a band of rows, and each band goes to its
// own rows of the surface.

// The bands of an image over a width x height surface.
OutputBands BandsOver(const OutputImages& kind, EGLInfo& info, tbm_surface_h surface)
{
    void* image = CreateImageKHR(kind, info, surface, nullptr);
    EXPECT_NE(image, nullptr);
    const OutputBands bands = kind.Bands(image);
    DestroyImageKHR(kind, info, image);
    return bands;
}

// By default a band is about 2 MiB of whole 64-row tiles, at least one tile
// and never more rows than the surface has.
TEST_F(OutputCopyTest, AutomaticBandsAreWholeTilesOfAboutTwoMegabytes)
{
    const SurfaceCopyImages automatic;
    struct Case {
        int width;
        int height;
        int count;
        int rows;
    };
    const Case cases[] = {
        {4080, 300, 3, 128},  // 2 MiB / 16320 bytes a row = 128.5 rows
        {1920, 1080, 5, 256}, // 273 rows, down to whole tiles
        {16384, 70, 2, 64},   // 32 rows would fit: one tile all the same
        {37, 5, 1, 5},        // a small surface is one band
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.width << " x " << c.height);
        const OutputBands bands = BandsOver(automatic, *info_, Surface(c.width, c.height));
        EXPECT_EQ(bands.count, c.count);
        EXPECT_EQ(bands.rows, c.rows);
    }
}

// Rows chosen by the constructor; kWholeSurface is one band.
TEST_F(OutputCopyTest, BandRowsChosenByConstructor)
{
    tbm_surface_h surface = Surface(16, 20);
    const OutputBands seven = BandsOver(SurfaceCopyImages(7), *info_, surface);
    EXPECT_EQ(seven.count, 3);
    EXPECT_EQ(seven.rows, 7);
    const OutputBands whole = BandsOver(SurfaceCopyImages(SurfaceCopyImages::kWholeSurface), *info_, surface);
    EXPECT_EQ(whole.count, 1);
    EXPECT_EQ(whole.rows, 20);
    const OutputBands more = BandsOver(SurfaceCopyImages(50), *info_, surface);
    EXPECT_EQ(more.count, 1);
    EXPECT_EQ(more.rows, 20);
}

// The attach gives the texture one band's rows at the surface's width.
TEST_F(OutputCopyTest, AttachGivesTheTextureOneBand)
{
    const SurfaceCopyImages copy(7);
    tbm_surface_h surface = Surface(16, 20);
    const GLuint texture = BoundTexture();
    void* image = PrepareTBMEglTexture(copy, *info_, surface, nullptr);
    ASSERT_NE(image, nullptr);
    GLint width = 0;
    GLint height = 0;
    glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, GL_TEXTURE_WIDTH, &width);
    glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, GL_TEXTURE_HEIGHT, &height);
    EXPECT_EQ(width, 16);
    EXPECT_EQ(height, 7);
    DestroyImageKHR(copy, *info_, image);
    glDeleteTextures(1, &texture);
}

class BandedCopyTest : public OutputCopyTest {
protected:
    static constexpr int kWidth = 16;
    static constexpr int kHeight = 20;
    static constexpr int kRows = 7;

    void SetUp() override
    {
        OutputCopyTest::SetUp();
        surface_ = Surface(kWidth, kHeight);
        Fill(surface_);
        texture_ = BoundTexture();
        image_ = PrepareTBMEglTexture(copy_, *info_, surface_, nullptr);
        ASSERT_NE(image_, nullptr);
        glBindTexture(GL_TEXTURE_2D, 0);
        glGenFramebuffers(1, &framebuffer_);
        glBindFramebuffer(GL_FRAMEBUFFER, framebuffer_);
        glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, texture_, 0);
        ASSERT_EQ(glCheckFramebufferStatus(GL_FRAMEBUFFER), static_cast<GLenum>(GL_FRAMEBUFFER_COMPLETE));
        glBindFramebuffer(GL_FRAMEBUFFER, 0);
    }

    void TearDown() override
    {
        DestroyImageKHR(copy_, *info_, image_);
        glDeleteFramebuffers(1, &framebuffer_);
        glDeleteTextures(1, &texture_);
        OutputCopyTest::TearDown();
    }

    // Surface row y holds band row y - top for top <= y < top + rows, and
    // the sentinel everywhere else.
    void ExpectRows(int top, int rows)
    {
        uint32_t stride = 0;
        const auto bytes = Bytes(surface_, &stride);
        ASSERT_FALSE(bytes.empty());
        for (int y = 0; y < kHeight; ++y) {
            const bool inBand = y >= top && y < top + rows;
            for (int x = 0; x < kWidth; ++x) {
                const uint8_t* p = &bytes[y * stride + 4 * x];
                if (inBand) {
                    ASSERT_EQ((std::array<uint8_t, 4>{p[3], p[2], p[1], p[0]}), PixelColour(x, y - top))
                        << "pixel (" << x << ", " << y << ")";
                } else {
                    ASSERT_EQ((std::array<uint8_t, 4>{p[0], p[1], p[2], p[3]}),
                              (std::array<uint8_t, 4>{kSentinel, kSentinel, kSentinel, kSentinel}))
                        << "pixel (" << x << ", " << y << ")";
                }
            }
        }
    }

    const SurfaceCopyImages copy_{kRows};
    tbm_surface_h surface_ = nullptr;
    GLuint texture_ = 0;
    GLuint framebuffer_ = 0;
    void* image_ = nullptr;
};

// A middle band lands at its own rows and nowhere else.
TEST_F(BandedCopyTest, MiddleBandLandsAtItsRows)
{
    Paint(framebuffer_, kWidth, kRows);
    ASSERT_TRUE(copy_.StoreBand(image_, framebuffer_, 1));
    ExpectRows(kRows, kRows);
}

// The last band is shorter: only the surface's remaining rows are written.
TEST_F(BandedCopyTest, LastBandWritesOnlyTheRemainingRows)
{
    Paint(framebuffer_, kWidth, kRows);
    ASSERT_TRUE(copy_.StoreBand(image_, framebuffer_, 2));
    ExpectRows(2 * kRows, kHeight - 2 * kRows);
}

// A band the surface does not have: false and a message, nothing written.
TEST_F(BandedCopyTest, BandOutsideTheSurfaceFails)
{
    for (const int index : {3, -1}) {
        SCOPED_TRACE(index);
        LogCapture capture;
        EXPECT_FALSE(copy_.StoreBand(image_, framebuffer_, index));
        const auto messages = capture.Messages();
        ASSERT_EQ(messages.size(), 1u);
        EXPECT_EQ(messages[0], WithLine(capture, 0, hdrtest::Format("%%d ERROR: no band %d in 20 rows\n", index).c_str()));
    }
    ExpectRows(0, 0);
}

// ---------------------------------------------------------------------------
// Many small bands, stored in any order, against the same picture stored in
// one pass.

class SmallBandCopyTest : public OutputCopyTest {
protected:
    static constexpr int kWidth = 40;  // 160 bytes of pixels, rows padded to 192
    static constexpr int kHeight = 31;
    static constexpr int kRows = 3;    // eleven bands, the last one a single row
    static constexpr int kBands = 11;

    struct Target {
        const SurfaceCopyImages* kind = nullptr;
        tbm_surface_h surface = nullptr;
        void* image = nullptr;
        GLuint texture = 0;
        GLuint framebuffer = 0;
    };

    void SetUp() override
    {
        OutputCopyTest::SetUp();
        picture_.resize(static_cast<size_t>(kWidth) * kHeight * 4);
        uint32_t state = 12345;
        for (uint8_t& byte : picture_) {
            state = state * 1103515245u + 12345u;
            byte = static_cast<uint8_t>(state >> 24);
        }
        MakeTarget(&banded_, &bandedKind_);
        MakeTarget(&whole_, &wholeKind_);
    }

    void TearDown() override
    {
        for (Target* target : {&banded_, &whole_}) {
            if (target->image != nullptr) {
                DestroyImageKHR(*target->kind, *info_, target->image);
            }
            glDeleteFramebuffers(1, &target->framebuffer);
            glDeleteTextures(1, &target->texture);
        }
        OutputCopyTest::TearDown();
    }

    virtual tbm_format Format() const { return TBM_FORMAT_RGBA8888; }

    void MakeTarget(Target* target, const SurfaceCopyImages* kind)
    {
        target->kind = kind;
        target->surface = Surface(kWidth, kHeight, Format());
        Fill(target->surface);
        target->texture = BoundTexture();
        target->image = PrepareTBMEglTexture(*kind, *info_, target->surface, nullptr);
        ASSERT_NE(target->image, nullptr);
        glBindTexture(GL_TEXTURE_2D, 0);
        glGenFramebuffers(1, &target->framebuffer);
        glBindFramebuffer(GL_FRAMEBUFFER, target->framebuffer);
        glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, target->texture, 0);
        ASSERT_EQ(glCheckFramebufferStatus(GL_FRAMEBUFFER), static_cast<GLenum>(GL_FRAMEBUFFER_COMPLETE));
        glBindFramebuffer(GL_FRAMEBUFFER, 0);
    }

    // The picture's rows from top, as the draw would leave them at the
    // bottom of the target's texture.
    void Draw(const Target& target, int top, int rows)
    {
        glBindTexture(GL_TEXTURE_2D, target.texture);
        glPixelStorei(GL_UNPACK_ALIGNMENT, 4);
        glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, kWidth, rows, GL_RGBA, GL_UNSIGNED_BYTE,
                        &picture_[static_cast<size_t>(top) * kWidth * 4]);
        glBindTexture(GL_TEXTURE_2D, 0);
    }

    bool StoreBand(int index)
    {
        Draw(banded_, index * kRows, std::min(kRows, kHeight - index * kRows));
        return bandedKind_.StoreBand(banded_.image, banded_.framebuffer, index);
    }

    // The surface bytes of the whole picture stored in one pass.
    std::vector<uint8_t> OnePass()
    {
        Draw(whole_, 0, kHeight);
        EXPECT_TRUE(wholeKind_.StoreBand(whole_.image, whole_.framebuffer, 0));
        uint32_t stride = 0;
        return Bytes(whole_.surface, &stride);
    }

    // The banded surface's rows [0, rows) hold the one-pass bytes, every
    // later row only the sentinel.
    void ExpectStoredRows(int rows)
    {
        const std::vector<uint8_t> expected = OnePass();
        uint32_t stride = 0;
        const std::vector<uint8_t> bytes = Bytes(banded_.surface, &stride);
        ASSERT_EQ(bytes.size(), expected.size());
        ASSERT_EQ(stride, 192u);
        for (int y = 0; y < kHeight; ++y) {
            for (uint32_t i = 0; i < stride; ++i) {
                const size_t at = static_cast<size_t>(y) * stride + i;
                ASSERT_EQ(bytes[at], y < rows ? expected[at] : kSentinel) << "row " << y << " byte " << i;
            }
        }
    }

    const SurfaceCopyImages bandedKind_{kRows};
    const SurfaceCopyImages wholeKind_{SurfaceCopyImages::kWholeSurface};
    std::vector<uint8_t> picture_;
    Target banded_;
    Target whole_;
};

// Many small bands stored in order give the one-pass bytes exactly.
TEST_F(SmallBandCopyTest, BandsInOrderEqualOnePass)
{
    for (int band = 0; band < kBands; ++band) {
        ASSERT_TRUE(StoreBand(band)) << "band " << band;
    }
    ExpectStoredRows(kHeight);
}

// The same over an AB24 surface, whose bands are copied without reordering.
class SmallBandAbgrCopyTest : public SmallBandCopyTest {
protected:
    tbm_format Format() const override { return TBM_FORMAT_ABGR8888; }
};

TEST_F(SmallBandAbgrCopyTest, BandsInOrderEqualOnePass)
{
    for (int band = 0; band < kBands; ++band) {
        ASSERT_TRUE(StoreBand(band)) << "band " << band;
    }
    ExpectStoredRows(kHeight);
}

// Bands stored in any order, the last one early, give the same bytes.
TEST_F(SmallBandCopyTest, BandsInAnyOrderEqualOnePass)
{
    for (const int band : {10, 4, 0, 7, 2, 9, 1, 5, 8, 3, 6}) {
        ASSERT_TRUE(StoreBand(band)) << "band " << band;
    }
    ExpectStoredRows(kHeight);
}

// A band outside the surface after five stored ones fails with its message;
// the five stay as stored, and the next picture is whole.
TEST_F(SmallBandCopyTest, BandOutsideTheSurfaceMidwayKeepsTheImageUsable)
{
    for (int band = 0; band < 5; ++band) {
        ASSERT_TRUE(StoreBand(band)) << "band " << band;
    }
    LogCapture capture;
    EXPECT_FALSE(bandedKind_.StoreBand(banded_.image, banded_.framebuffer, kBands));
    const auto messages = capture.Messages();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0], WithLine(capture, 0, "%d ERROR: no band 11 in 31 rows\n"));
    ExpectStoredRows(5 * kRows);
    for (int band = 0; band < kBands; ++band) {
        ASSERT_TRUE(StoreBand(band)) << "band " << band;
    }
    ExpectStoredRows(kHeight);
}

// A GL error reading the sixth band back fails the store; the next picture
// is whole.
TEST_F(SmallBandCopyTest, GlErrorMidwayKeepsTheImageUsable)
{
    for (int band = 0; band < 5; ++band) {
        ASSERT_TRUE(StoreBand(band)) << "band " << band;
    }
    Draw(banded_, 5 * kRows, kRows);
    faults::QueueGlError(GL_OUT_OF_MEMORY);
    LogCapture capture;
    EXPECT_FALSE(bandedKind_.StoreBand(banded_.image, banded_.framebuffer, 5));
    EXPECT_TRUE(Contains(capture.Messages(),
                         "There is not enough memory left to execute the function. 0x00000505"));
    for (int band = 0; band < kBands; ++band) {
        ASSERT_TRUE(StoreBand(band)) << "band " << band;
    }
    ExpectStoredRows(kHeight);
}

}  // namespace
