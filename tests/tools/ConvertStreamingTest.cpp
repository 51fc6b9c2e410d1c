// The converter's copy-free path: the primary image decoded straight into
// plane buffers (the library's upload buffers in streaming mode), the result
// written from the output surface's mapping row by row, turned on the CPU in
// direct mode. Every part is held to the full-plane path it replaces, byte
// for byte: the full-plane decoder, OrientPixels, WriteImage, and the
// renderer's Render (planes in, an RGBA copy out).
#include "ConvertTestSupport.h"
#include "GainMapJpeg.h"
#include "ImageOutput.h"
#include "JpegPlanes.h"
#include "Orientation.h"
#include "Renderer.h"
#include "SampleMaker.h"
#include "StreamingDecode.h"
#include "SurfaceReader.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

namespace {

// A colour picture with detail in every channel and a non-multiple-of-16 size
// (partial MCUs at the right and bottom edges).
std::vector<uint8_t> TestRgb(int w, int h)
{
    std::vector<uint8_t> rgb(static_cast<size_t>(w) * h * 3);
    std::mt19937 random(7);
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            uint8_t* p = &rgb[(static_cast<size_t>(y) * w + x) * 3];
            p[0] = static_cast<uint8_t>(x * 255 / w);
            p[1] = static_cast<uint8_t>(y * 255 / h);
            p[2] = static_cast<uint8_t>(random() & 0xFF);
        }
    }
    return rgb;
}

// Decodes jpeg both ways and expects the same three planes.
void ExpectSameAsFullPlanes(const uint8_t* jpeg, size_t size)
{
    hdrconvert::YuvPlanes full;
    std::string reason;
    ASSERT_TRUE(hdrconvert::DecodeJpegPlanes(jpeg, size, &full, &reason)) << reason;
    int w = 0;
    int h = 0;
    ASSERT_TRUE(hdrconvert::ReadJpegHeader(jpeg, size, &w, &h, &reason)) << reason;
    ASSERT_EQ(w, full.width);
    ASSERT_EQ(h, full.height);
    const size_t n = static_cast<size_t>(w) * h;
    // Sentinels: a row the decoder skipped would show.
    std::vector<uint8_t> y(n, 0x5A);
    std::vector<uint8_t> u(n, 0x5A);
    std::vector<uint8_t> v(n, 0x5A);
    ASSERT_TRUE(hdrconvert::DecodeJpegIntoPlanes(jpeg, size, w, h, y.data(), u.data(), v.data(), &reason)) << reason;
    EXPECT_TRUE(y == full.y) << "Y differs";
    EXPECT_TRUE(u == full.u) << "U differs";
    EXPECT_TRUE(v == full.v) << "V differs";
}

std::vector<std::string> SamplePhotos()
{
    std::vector<std::string> photos;
    const std::string dir = converttest::SamplesDirectory();
    if (dir.empty()) {
        return photos;
    }
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        if (entry.path().extension() == ".jpg") {
            photos.push_back(entry.path().string());
        }
    }
    std::sort(photos.begin(), photos.end());
    return photos;
}

TEST(StreamingDecode, EqualsTheFullPlaneDecodeOnEveryLayout)
{
    const int w = 123;
    const int h = 77;
    const std::vector<uint8_t> rgb = TestRgb(w, h);
    std::vector<uint8_t> grey(static_cast<size_t>(w) * h);
    for (size_t i = 0; i < grey.size(); ++i) {
        grey[i] = rgb[3 * i + 2];
    }
    SCOPED_TRACE("4:2:0");
    const std::vector<uint8_t> j420 = hdrconvert::EncodeRgbJpeg(rgb.data(), w, h, 90);
    ExpectSameAsFullPlanes(j420.data(), j420.size());
    SCOPED_TRACE("4:4:4");
    const std::vector<uint8_t> j444 = hdrconvert::EncodeRgbJpeg(rgb.data(), w, h, 90, hdrconvert::ChromaSampling::Yuv444);
    ExpectSameAsFullPlanes(j444.data(), j444.size());
    SCOPED_TRACE("grey");
    const std::vector<uint8_t> jgrey = hdrconvert::EncodeGreyJpeg(grey.data(), w, h, 90);
    ExpectSameAsFullPlanes(jgrey.data(), jgrey.size());
}

TEST(StreamingDecode, EqualsTheFullPlaneDecodeOnEverySamplePhotograph)
{
    const std::vector<std::string> photos = SamplePhotos();
    if (photos.empty()) {
        GTEST_SKIP() << "no sample photographs";
    }
    for (const std::string& photo : photos) {
        SCOPED_TRACE(photo);
        const std::vector<uint8_t> bytes = converttest::ReadFile(photo);
        hdrconvert::GainMapJpeg parsed;
        std::string reason;
        if (!hdrconvert::ParseGainMapJpeg(bytes.data(), bytes.size(), &parsed, &reason)) {
            // No gain map (or one the converter refuses): the primary alone.
            ExpectSameAsFullPlanes(bytes.data(), bytes.size());
            continue;
        }
        ExpectSameAsFullPlanes(bytes.data() + parsed.primaryOffset, parsed.primarySize);
        ExpectSameAsFullPlanes(bytes.data() + parsed.gainMapOffset, parsed.gainMapSize);
    }
}

TEST(StreamingDecode, RefusesAnotherSizeThanTheBuffersWithoutWritingARow)
{
    const std::vector<uint8_t> rgb = TestRgb(40, 30);
    const std::vector<uint8_t> jpeg = hdrconvert::EncodeRgbJpeg(rgb.data(), 40, 30, 90);
    std::vector<uint8_t> planes(3 * 40 * 31, 0x5A);
    std::string reason;
    EXPECT_FALSE(hdrconvert::DecodeJpegIntoPlanes(jpeg.data(), jpeg.size(), 40, 31, planes.data(),
                                                  planes.data() + 40 * 31, planes.data() + 2 * 40 * 31, &reason));
    EXPECT_EQ(reason, "JPEG image is 40x30, its header said 40x31");
    EXPECT_EQ(std::count(planes.begin(), planes.end(), 0x5A), static_cast<long>(planes.size()));
}

TEST(StreamingDecode, FaultsGiveTheFullPlaneDecodersReasons)
{
    const std::vector<uint8_t> rgb = TestRgb(64, 48);
    const std::vector<uint8_t> jpeg = hdrconvert::EncodeRgbJpeg(rgb.data(), 64, 48, 90);
    std::vector<uint8_t> corrupt = jpeg;
    std::fill(corrupt.end() - 60, corrupt.end() - 2, 0xFF);
    const std::vector<uint8_t> text = {'n', 'o', 't', ' ', 'a', ' ', 'J', 'P', 'E', 'G'};
    struct Case {
        const char* name;
        const uint8_t* data;
        size_t size;
    } cases[] = {
        {"truncated", jpeg.data(), jpeg.size() * 2 / 3},
        {"corrupt", corrupt.data(), corrupt.size()},
        {"header only", jpeg.data(), 3},
        {"text", text.data(), text.size()},
    };
    std::vector<uint8_t> planes(3 * 64 * 48);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        hdrconvert::YuvPlanes full;
        std::string expected;
        ASSERT_FALSE(hdrconvert::DecodeJpegPlanes(c.data, c.size, &full, &expected));
        std::string into;
        EXPECT_FALSE(hdrconvert::DecodeJpegIntoPlanes(c.data, c.size, 64, 48, planes.data(), planes.data() + 64 * 48,
                                                      planes.data() + 2 * 64 * 48, &into));
        EXPECT_EQ(into, expected);
        std::string check;
        EXPECT_FALSE(hdrconvert::JpegDecodes(c.data, c.size, &check));
        EXPECT_EQ(check, expected);
    }
    std::string none;
    EXPECT_TRUE(hdrconvert::JpegDecodes(jpeg.data(), jpeg.size(), &none)) << none;
}

TEST(StreamingDecode, ReusedPlanesEqualFreshOnesAcrossSizes)
{
    hdrconvert::YuvPlanes reused;
    for (int size : {96, 40, 96, 130}) {
        SCOPED_TRACE(size);
        const std::vector<uint8_t> rgb = TestRgb(size, size / 2 + 3);
        const std::vector<uint8_t> jpeg = hdrconvert::EncodeRgbJpeg(rgb.data(), size, size / 2 + 3, 85);
        hdrconvert::YuvPlanes fresh;
        std::string reason;
        ASSERT_TRUE(hdrconvert::DecodeJpegPlanes(jpeg.data(), jpeg.size(), &fresh, &reason)) << reason;
        ASSERT_TRUE(hdrconvert::DecodeJpegPlanesReusing(jpeg.data(), jpeg.size(), &reused, &reason)) << reason;
        EXPECT_EQ(reused.width, fresh.width);
        EXPECT_EQ(reused.height, fresh.height);
        EXPECT_EQ(reused.components, fresh.components);
        EXPECT_TRUE(reused.y == fresh.y && reused.u == fresh.u && reused.v == fresh.v);
    }
}

// Stored pixels A, B, G, R (or R, G, B, A) with padded rows, turned by
// OrientedRows and by OrientPixels from a tightly packed RGBA copy.
TEST(SurfaceRows, EveryOrientationAndByteOrderEqualsOrientPixels)
{
    // 70 rows and columns: more than one band of gathered rows, the last
    // one partial.
    const int w = 70;
    const int h = 45;
    const size_t stride = static_cast<size_t>(w) * 4 + 12;
    std::vector<uint8_t> surface(stride * h);
    std::mt19937 random(11);
    for (uint8_t& b : surface) {
        b = static_cast<uint8_t>(random() & 0xFF);
    }
    for (bool rgbaBytes : {false, true}) {
        std::vector<uint8_t> rgba(static_cast<size_t>(w) * h * 4);
        for (int y = 0; y < h; ++y) {
            for (int x = 0; x < w; ++x) {
                const uint8_t* s = &surface[y * stride + 4 * x];
                uint8_t* d = &rgba[(static_cast<size_t>(y) * w + x) * 4];
                for (int c = 0; c < 4; ++c) {
                    d[c] = rgbaBytes ? s[c] : s[3 - c];
                }
            }
        }
        hdrconvert::SurfacePixels pixels;
        pixels.data = surface.data();
        pixels.width = w;
        pixels.height = h;
        pixels.stride = stride;
        pixels.rgbaBytes = rgbaBytes;
        for (int orientation = 1; orientation <= 8; ++orientation) {
            SCOPED_TRACE("orientation " + std::to_string(orientation) + (rgbaBytes ? ", RGBA bytes" : ", ABGR bytes"));
            const std::vector<uint8_t> expected = hdrconvert::OrientPixels(rgba.data(), w, h, 4, orientation);
            hdrconvert::OrientedRows rows(pixels, orientation);
            int ow = 0;
            int oh = 0;
            hdrconvert::OrientedSize(orientation, w, h, &ow, &oh);
            ASSERT_EQ(rows.Width(), ow);
            ASSERT_EQ(rows.Height(), oh);
            std::vector<uint8_t> scratch(static_cast<size_t>(ow) * 4);
            std::vector<uint8_t> got;
            for (int y = 0; y < oh; ++y) {
                const uint8_t* row = rows.Row(y, scratch.data());
                got.insert(got.end(), row, row + static_cast<size_t>(ow) * 4);
            }
            EXPECT_TRUE(got == expected);
        }
    }
}

TEST(RowWriter, RawAndPngFilesEqualWholePictureOnes)
{
    const std::string dir = converttest::FreshDirectory("row-writer");
    const int w = 37;
    const int h = 21;
    std::vector<uint8_t> rgba(static_cast<size_t>(w) * h * 4);
    std::mt19937 random(3);
    for (uint8_t& b : rgba) {
        b = static_cast<uint8_t>(random() & 0xFF);
    }
    const size_t stride = static_cast<size_t>(w) * 4;
    for (hdrconvert::OutputFormat format : {hdrconvert::OutputFormat::Raw, hdrconvert::OutputFormat::Png}) {
        SCOPED_TRACE(hdrconvert::OutputExtension(format));
        const std::string whole = dir + "/whole" + hdrconvert::OutputExtension(format);
        const std::string rows = dir + "/rows" + hdrconvert::OutputExtension(format);
        std::string reason;
        ASSERT_TRUE(hdrconvert::WriteImage(whole, format, rgba.data(), w, h, 6, &reason)) << reason;
        // Rows handed out through the writer's scratch row, as a turned
        // picture's are.
        int asked = 0;
        ASSERT_TRUE(hdrconvert::WriteImageRows(
            rows, format, w, h, 6,
            [&](int y, uint8_t* scratch) {
                EXPECT_EQ(y, asked++);
                std::memcpy(scratch, rgba.data() + static_cast<size_t>(y) * stride, stride);
                return static_cast<const uint8_t*>(scratch);
            },
            &reason))
            << reason;
        EXPECT_EQ(asked, h);
        EXPECT_TRUE(converttest::ReadFile(whole) == converttest::ReadFile(rows));
    }
}

// How RenderEncoded gets the primary: it decodes the codestream itself, or
// takes planes decoded beforehand, after the intake was made for them.
enum class PrimaryPath {
    RendererDecodes,
    DecodedAhead,
};

// Renders a gain-map file both ways on one renderer: Render (full planes in,
// RGBA copy out, turned with OrientPixels) and RenderEncoded + WriteRendered
// (raw), and expects the same bytes.
void ExpectEncodedPathEqualsPlanePath(hdrconvert::Renderer* renderer, const std::vector<uint8_t>& file,
                                      const std::string& rawPath, int outW = 0, int outH = 0,
                                      PrimaryPath path = PrimaryPath::RendererDecodes, bool last = false)
{
    hdrconvert::GainMapJpeg parsed;
    std::string reason;
    ASSERT_TRUE(hdrconvert::ParseGainMapJpeg(file.data(), file.size(), &parsed, &reason)) << reason;
    hdrconvert::YuvPlanes primary;
    hdrconvert::YuvPlanes gain;
    ASSERT_TRUE(hdrconvert::DecodeJpegPlanes(file.data() + parsed.primaryOffset, parsed.primarySize, &primary,
                                             &reason))
        << reason;
    ASSERT_TRUE(hdrconvert::DecodeJpegPlanes(file.data() + parsed.gainMapOffset, parsed.gainMapSize, &gain, &reason))
        << reason;
    hdrconvert::Picture picture;
    picture.primary = &primary;
    picture.gainMap = &gain;
    picture.metadata = parsed.metadata;
    picture.orientation = hdrconvert::NormalizeOrientation(parsed.orientation);
    picture.outputWidth = outW;
    picture.outputHeight = outH;
    hdrconvert::RenderedPicture expected;
    ASSERT_TRUE(renderer->Render(picture, &expected, &reason)) << reason;

    hdrconvert::EncodedPicture encoded;
    encoded.primaryJpeg = file.data() + parsed.primaryOffset;
    encoded.primarySize = parsed.primarySize;
    encoded.primaryWidth = primary.width;
    encoded.primaryHeight = primary.height;
    encoded.gainMap = &gain;
    encoded.metadata = parsed.metadata;
    encoded.orientation = picture.orientation;
    encoded.outputWidth = outW;
    encoded.outputHeight = outH;
    encoded.last = last;
    // The last picture's gain map may be handed back once the library holds
    // it: a copy, so that the planes above stay for the comparison.
    hdrconvert::YuvPlanes spentGain;
    if (last) {
        spentGain = gain;
        encoded.gainMap = &spentGain;
        encoded.spentGainMap = &spentGain;
    }
    hdrconvert::YuvPlanes ahead;
    if (path == PrimaryPath::DecodedAhead) {
        ahead = primary;
        encoded.decodedPrimary = &ahead;
        EXPECT_TRUE(renderer->PrepareFor(encoded, gain.width, gain.height, &reason)) << reason;
    }
    bool primaryFailed = true;
    ASSERT_TRUE(renderer->RenderEncoded(encoded, &primaryFailed, &reason)) << reason;
    EXPECT_FALSE(primaryFailed);
    if (path == PrimaryPath::DecodedAhead) {
        // Streaming: each plane's storage was handed back once copied in;
        // direct: the renderer took the planes over for its own.
        EXPECT_EQ(ahead.y.capacity() + ahead.u.capacity() + ahead.v.capacity(), 0u);
    }
    if (last) {
        EXPECT_EQ(spentGain.y.capacity() + spentGain.u.capacity() + spentGain.v.capacity(), 0u)
            << "the last picture's gain map was kept";
    }
    int w = 0;
    int h = 0;
    ASSERT_TRUE(renderer->WriteRendered(rawPath, hdrconvert::OutputFormat::Raw, 1, &w, &h, &reason)) << reason;
    EXPECT_EQ(w, expected.width);
    EXPECT_EQ(h, expected.height);
    EXPECT_TRUE(converttest::ReadFile(rawPath) == expected.rgba) << "pixels differ from the full-plane path";
}

void RunEveryOrientation(hdrconvert::RenderMode mode, const std::string& name,
                         PrimaryPath path = PrimaryPath::RendererDecodes)
{
    const std::string dir = converttest::FreshDirectory(name);
    hdrconvert::Renderer renderer;
    hdrconvert::RendererOptions options;
    options.mode = mode;
    std::string reason;
    ASSERT_TRUE(renderer.Start(options, &reason)) << reason;
    for (int orientation = 1; orientation <= 8; ++orientation) {
        SCOPED_TRACE("orientation " + std::to_string(orientation));
        hdrconvert::SampleOptions sample;
        sample.width = 75;
        sample.height = 42;
        sample.orientation = orientation;
        ExpectEncodedPathEqualsPlanePath(&renderer, hdrconvert::MakeSample(sample).file,
                                         dir + "/o" + std::to_string(orientation) + ".rgba", 0, 0, path);
    }
    // An output size of the host's choosing.
    hdrconvert::SampleOptions sample;
    sample.width = 75;
    sample.height = 42;
    sample.orientation = 6;
    ExpectEncodedPathEqualsPlanePath(&renderer, hdrconvert::MakeSample(sample).file, dir + "/sized.rgba", 50, 33,
                                     path);
    renderer.Stop();
}

TEST(EncodedRender, StreamingEqualsThePlanePathInEveryOrientation)
{
    RunEveryOrientation(hdrconvert::RenderMode::Streaming, "encoded-streaming");
}

TEST(EncodedRender, DirectEqualsThePlanePathInEveryOrientation)
{
    RunEveryOrientation(hdrconvert::RenderMode::Direct, "encoded-direct");
}

// The first picture of a batch: the intake made before its primary was
// decoded, the decoded planes copied in and released.
TEST(EncodedRender, StreamingDecodedAheadEqualsThePlanePathInEveryOrientation)
{
    RunEveryOrientation(hdrconvert::RenderMode::Streaming, "encoded-ahead-streaming", PrimaryPath::DecodedAhead);
}

TEST(EncodedRender, DirectDecodedAheadEqualsThePlanePathInEveryOrientation)
{
    RunEveryOrientation(hdrconvert::RenderMode::Direct, "encoded-ahead-direct", PrimaryPath::DecodedAhead);
}

// An intake made for one size and then a picture of another: the renderer
// makes the intake again for the sizes it gets.
TEST(EncodedRender, IntakeMadeForOtherSizesIsMadeAgain)
{
    const std::string dir = converttest::FreshDirectory("encoded-ahead-resized");
    hdrconvert::Renderer renderer;
    std::string reason;
    ASSERT_TRUE(renderer.Start(hdrconvert::RendererOptions(), &reason)) << reason;
    hdrconvert::EncodedPicture other;
    other.primaryWidth = 120;
    other.primaryHeight = 90;
    other.metadata.hdrCapacityMax = 2.0;
    ASSERT_TRUE(renderer.PrepareFor(other, 30, 22, &reason)) << reason;
    hdrconvert::SampleOptions sample;
    sample.width = 75;
    sample.height = 42;
    ExpectEncodedPathEqualsPlanePath(&renderer, hdrconvert::MakeSample(sample).file, dir + "/resized.rgba");
    renderer.Stop();
}

void RunPicturesAfterTheLast(hdrconvert::RenderMode mode, const std::string& name)
{
    const std::string dir = converttest::FreshDirectory(name);
    hdrconvert::Renderer renderer;
    hdrconvert::RendererOptions options;
    options.mode = mode;
    std::string reason;
    ASSERT_TRUE(renderer.Start(options, &reason)) << reason;
    hdrconvert::SampleOptions sample;
    sample.width = 640;  // planes of many pages
    sample.height = 360;
    const std::vector<uint8_t> first = hdrconvert::MakeSample(sample).file;
    sample.orientation = 3;
    const std::vector<uint8_t> second = hdrconvert::MakeSample(sample).file;
    ExpectEncodedPathEqualsPlanePath(&renderer, first, dir + "/last.rgba", 0, 0, PrimaryPath::RendererDecodes, true);
    ExpectEncodedPathEqualsPlanePath(&renderer, second, dir + "/after.rgba");
    ExpectEncodedPathEqualsPlanePath(&renderer, first, dir + "/last-ahead.rgba", 0, 0, PrimaryPath::DecodedAhead,
                                     true);
    ExpectEncodedPathEqualsPlanePath(&renderer, second, dir + "/after-ahead.rgba", 0, 0, PrimaryPath::DecodedAhead);
    renderer.Stop();
}

// A picture said to be the last has the upload buffers' pages and its gain
// map's planes handed back before its draw; a picture that comes after all (same sizes: no new intake)
// writes them again and still comes out right, in either primary path.
TEST(EncodedRender, PictureAfterTheLastStillComesOutRight)
{
    RunPicturesAfterTheLast(hdrconvert::RenderMode::Streaming, "encoded-after-last");
}

// The direct mode hands the last picture's decoded planes (primary and gain
// map) back before its draw; a picture that comes after all decodes into new
// ones.
TEST(EncodedRender, DirectPictureAfterTheLastStillComesOutRight)
{
    RunPicturesAfterTheLast(hdrconvert::RenderMode::Direct, "encoded-after-last-direct");
}

// What cannot be prepared for is refused without touching the library, in
// either mode.
TEST(EncodedRender, PrepareForRefusesWhatItCannotTake)
{
    hdrconvert::EncodedPicture picture;
    picture.primaryWidth = 64;
    picture.primaryHeight = 48;
    picture.metadata.hdrCapacityMax = 2.0;
    hdrconvert::Renderer stopped;
    std::string reason;
    EXPECT_FALSE(stopped.PrepareFor(picture, 16, 12, &reason));
    EXPECT_EQ(reason, "the renderer is not available");

    hdrconvert::Renderer renderer;
    ASSERT_TRUE(renderer.Start(hdrconvert::RendererOptions(), &reason)) << reason;
    EXPECT_FALSE(renderer.PrepareFor(picture, 0, 12, &reason));
    EXPECT_EQ(reason, "no plane sizes");
    hdrconvert::EncodedPicture flat = picture;
    flat.metadata.hdrCapacityMax = flat.metadata.hdrCapacityMin;
    EXPECT_FALSE(renderer.PrepareFor(flat, 16, 12, &reason));
    EXPECT_EQ(reason, "HDRCapacityMax is not above HDRCapacityMin");
    renderer.Stop();

    hdrconvert::RendererOptions direct;
    direct.mode = hdrconvert::RenderMode::Direct;
    ASSERT_TRUE(renderer.Start(direct, &reason)) << reason;
    EXPECT_FALSE(renderer.PrepareFor(picture, 16, 0, &reason));
    EXPECT_EQ(reason, "no plane sizes");
    EXPECT_FALSE(renderer.PrepareFor(flat, 16, 12, &reason));
    EXPECT_EQ(reason, "HDRCapacityMax is not above HDRCapacityMin");
    EXPECT_TRUE(renderer.PrepareFor(picture, 16, 12, &reason)) << reason;
    renderer.Stop();
}

// Direct mode: storage reserved for one size and then a picture of another
// (the library drops the reservation), and a picture prepared for whose
// gain map differs from the size it was prepared with.
TEST(EncodedRender, DirectReservationForOtherSizesStillComesOutRight)
{
    const std::string dir = converttest::FreshDirectory("encoded-direct-reserved-other");
    hdrconvert::Renderer renderer;
    hdrconvert::RendererOptions options;
    options.mode = hdrconvert::RenderMode::Direct;
    std::string reason;
    ASSERT_TRUE(renderer.Start(options, &reason)) << reason;
    hdrconvert::SampleOptions sample;
    sample.width = 75;
    sample.height = 42;
    hdrconvert::EncodedPicture other;
    other.primaryWidth = 75;
    other.primaryHeight = 42;
    other.metadata.hdrCapacityMax = 2.0;
    ASSERT_TRUE(renderer.PrepareFor(other, 7, 5, &reason)) << reason;
    ExpectEncodedPathEqualsPlanePath(&renderer, hdrconvert::MakeSample(sample).file, dir + "/other.rgba");
    renderer.Stop();
}

void RunEverySamplePhotograph(hdrconvert::RenderMode mode, const std::string& name)
{
    std::vector<std::string> photos;
    for (const std::string& photo : SamplePhotos()) {
        const std::vector<uint8_t> bytes = converttest::ReadFile(photo);
        hdrconvert::GainMapJpeg parsed;
        std::string reason;
        if (hdrconvert::ParseGainMapJpeg(bytes.data(), bytes.size(), &parsed, &reason) &&
            !parsed.metadata.baseRenditionIsHdr) {
            photos.push_back(photo);
        }
    }
    if (photos.empty()) {
        GTEST_SKIP() << "no sample photographs the converter takes";
    }
    const std::string dir = converttest::FreshDirectory(name);
    hdrconvert::Renderer renderer;
    hdrconvert::RendererOptions options;
    options.mode = mode;
    std::string reason;
    ASSERT_TRUE(renderer.Start(options, &reason)) << reason;
    for (const std::string& photo : photos) {
        SCOPED_TRACE(photo);
        ExpectEncodedPathEqualsPlanePath(&renderer, converttest::ReadFile(photo), dir + "/photo.rgba");
    }
    renderer.Stop();
}

TEST(EncodedRender, EverySamplePhotographStreamedEqualsThePlanePath)
{
    RunEverySamplePhotograph(hdrconvert::RenderMode::Streaming, "encoded-photographs-streaming");
}

TEST(EncodedRender, EverySamplePhotographDirectEqualsThePlanePath)
{
    RunEverySamplePhotograph(hdrconvert::RenderMode::Direct, "encoded-photographs-direct");
}

// A primary that fails part-way through its decoding into the upload
// buffers: refused as the primary's fault, and the next picture (same sizes,
// so no new intake would otherwise happen) still comes out right.
TEST(EncodedRender, PrimaryFailingMidwayLeavesTheNextPictureRight)
{
    const std::string dir = converttest::FreshDirectory("encoded-midway");
    hdrconvert::SampleOptions sample;
    sample.width = 96;
    sample.height = 64;
    const std::vector<uint8_t> good = hdrconvert::MakeSample(sample).file;
    hdrconvert::GainMapJpeg parsed;
    std::string reason;
    ASSERT_TRUE(hdrconvert::ParseGainMapJpeg(good.data(), good.size(), &parsed, &reason)) << reason;
    hdrconvert::YuvPlanes gain;
    ASSERT_TRUE(hdrconvert::DecodeJpegPlanes(good.data() + parsed.gainMapOffset, parsed.gainMapSize, &gain, &reason));

    hdrconvert::Renderer renderer;
    ASSERT_TRUE(renderer.Start(hdrconvert::RendererOptions(), &reason)) << reason;
    hdrconvert::EncodedPicture encoded;
    encoded.primaryJpeg = good.data() + parsed.primaryOffset;
    encoded.primarySize = parsed.primarySize - 200;  // the header intact, the scan cut
    int headerW = 0;
    int headerH = 0;
    ASSERT_TRUE(hdrconvert::ReadJpegHeader(encoded.primaryJpeg, encoded.primarySize, &headerW, &headerH, &reason))
        << reason;
    encoded.primaryWidth = 96;
    encoded.primaryHeight = 64;
    encoded.gainMap = &gain;
    encoded.metadata = parsed.metadata;
    bool primaryFailed = false;
    EXPECT_FALSE(renderer.RenderEncoded(encoded, &primaryFailed, &reason));
    EXPECT_TRUE(primaryFailed);
    EXPECT_EQ(reason, "truncated JPEG data");
    EXPECT_FALSE(renderer.Broken());
    int w = 0;
    int h = 0;
    EXPECT_FALSE(renderer.WriteRendered(dir + "/none.rgba", hdrconvert::OutputFormat::Raw, 1, &w, &h, &reason));
    EXPECT_FALSE(std::filesystem::exists(dir + "/none.rgba"));

    ExpectEncodedPathEqualsPlanePath(&renderer, good, dir + "/after.rgba");
    renderer.Stop();
}

// Faults found before the primary is decoded still give way to the
// primary's own, as when it was decoded first.
TEST(EncodedRender, AnUndecodablePrimaryIsReportedBeforeBadMetadata)
{
    hdrconvert::SampleOptions sample;
    sample.width = 64;
    sample.height = 48;
    const std::vector<uint8_t> file = hdrconvert::MakeSample(sample).file;
    hdrconvert::GainMapJpeg parsed;
    std::string reason;
    ASSERT_TRUE(hdrconvert::ParseGainMapJpeg(file.data(), file.size(), &parsed, &reason)) << reason;
    hdrconvert::YuvPlanes gain;
    ASSERT_TRUE(hdrconvert::DecodeJpegPlanes(file.data() + parsed.gainMapOffset, parsed.gainMapSize, &gain, &reason));
    hdrconvert::Renderer renderer;
    ASSERT_TRUE(renderer.Start(hdrconvert::RendererOptions(), &reason)) << reason;
    hdrconvert::EncodedPicture encoded;
    encoded.primaryJpeg = file.data() + parsed.primaryOffset;
    encoded.primarySize = parsed.primarySize;
    encoded.primaryWidth = 64;
    encoded.primaryHeight = 48;
    encoded.gainMap = &gain;
    encoded.metadata = parsed.metadata;
    encoded.metadata.hdrCapacityMax = encoded.metadata.hdrCapacityMin;
    bool primaryFailed = true;
    EXPECT_FALSE(renderer.RenderEncoded(encoded, &primaryFailed, &reason));
    EXPECT_FALSE(primaryFailed);
    EXPECT_EQ(reason, "HDRCapacityMax is not above HDRCapacityMin");

    encoded.primarySize = parsed.primarySize / 2;
    EXPECT_FALSE(renderer.RenderEncoded(encoded, &primaryFailed, &reason));
    EXPECT_TRUE(primaryFailed);
    EXPECT_EQ(reason, "truncated JPEG data");
    renderer.Stop();
}

}  // namespace
