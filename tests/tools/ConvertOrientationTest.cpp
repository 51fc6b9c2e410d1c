// EXIF orientations 1 to 8. The converter's table (Orientation.h) is checked
// against the test's own description of each orientation (mirror, turn,
// transpose), and a small generated picture with an asymmetric, half-size
// gain map is converted with each orientation, in the streaming mode (the
// library turns and mirrors) and in the direct mode (the converter orients
// on the CPU), and compared with the model applied to the planes oriented on
// the CPU by the test.
#include "ConvertTestSupport.h"
#include "Orientation.h"
#include "SampleMaker.h"

#include <gtest/gtest.h>

#include <iostream>
#include <string>
#include <vector>

namespace {

using converttest::Plane;

// A plane whose every texel differs from the others.
Plane Numbered(int w, int h)
{
    Plane p;
    p.width = w;
    p.height = h;
    for (int i = 0; i < w * h; ++i) {
        p.bytes.push_back(static_cast<uint8_t>(i));
    }
    return p;
}

TEST(ConvertOrientationTable, LibraryTransformForEachOrientation)
{
    struct Row {
        int exif;
        int rotate;
        bool mirror;
        bool swaps;
    };
    const Row table[] = {
        {1, 0, false, false}, {2, 0, true, false}, {3, 2, false, false}, {4, 2, true, false},
        {5, 1, true, true},   {6, 1, false, true}, {7, 3, true, true},   {8, 3, false, true},
    };
    for (const Row& r : table) {
        const hdrconvert::OutputTransform t = hdrconvert::TransformForOrientation(r.exif);
        EXPECT_EQ(t.outputRotate, r.rotate) << "orientation " << r.exif;
        EXPECT_EQ(t.outputMirror, r.mirror) << "orientation " << r.exif;
        EXPECT_EQ(hdrconvert::OrientationSwapsSize(r.exif), r.swaps) << "orientation " << r.exif;
    }
    for (int invalid : {0, 9, -1, 65535}) {
        const hdrconvert::OutputTransform t = hdrconvert::TransformForOrientation(invalid);
        EXPECT_EQ(t.outputRotate, 0);
        EXPECT_FALSE(t.outputMirror);
        EXPECT_EQ(hdrconvert::NormalizeOrientation(invalid), 1);
    }
    int w = 0;
    int h = 0;
    hdrconvert::OrientedSize(6, 40, 30, &w, &h);
    EXPECT_EQ(w, 30);
    EXPECT_EQ(h, 40);
    hdrconvert::OrientedSize(3, 40, 30, &w, &h);
    EXPECT_EQ(w, 40);
    EXPECT_EQ(h, 30);
}

// The converter's CPU orientation shows what the description says, for one-
// and four-byte pixels.
TEST(ConvertOrientationTable, CpuOrientationFollowsTheDescriptions)
{
    const Plane stored = Numbered(5, 3);
    for (int exif = 1; exif <= 8; ++exif) {
        const Plane expected = converttest::OrientForDisplay(stored, exif);
        int w = 0;
        int h = 0;
        hdrconvert::OrientedSize(exif, stored.width, stored.height, &w, &h);
        ASSERT_EQ(w, expected.width) << exif;
        ASSERT_EQ(h, expected.height) << exif;
        EXPECT_EQ(hdrconvert::OrientPixels(stored.bytes.data(), 5, 3, 1, exif), expected.bytes) << exif;
        std::vector<uint8_t> rgba;
        for (uint8_t v : stored.bytes) {
            rgba.insert(rgba.end(), {v, static_cast<uint8_t>(v + 1), static_cast<uint8_t>(v + 2), 255});
        }
        const std::vector<uint8_t> oriented = hdrconvert::OrientPixels(rgba.data(), 5, 3, 4, exif);
        for (size_t i = 0; i < expected.bytes.size(); ++i) {
            EXPECT_EQ(oriented[4 * i], expected.bytes[i]) << exif;
            EXPECT_EQ(oriented[4 * i + 2], static_cast<uint8_t>(expected.bytes[i] + 2)) << exif;
        }
        for (int y = 0; y < h; ++y) {
            for (int x = 0; x < w; ++x) {
                int sx = 0;
                int sy = 0;
                hdrconvert::StoredPixelFor(exif, 5, 3, x, y, &sx, &sy);
                EXPECT_EQ(stored.At(sx, sy), expected.At(x, y)) << exif << " at " << x << "," << y;
            }
        }
    }
    // The descriptions themselves, on corners: orientation 6 (rotate 90
    // clockwise) puts the stored top-left corner at the top right; 8 at the
    // bottom left; 5 (transpose) keeps it at the top left; 7 (transverse) puts
    // it at the bottom right.
    const Plane s = Numbered(5, 3);
    const uint8_t topLeft = s.At(0, 0);
    EXPECT_EQ(converttest::OrientForDisplay(s, 6).At(2, 0), topLeft);
    EXPECT_EQ(converttest::OrientForDisplay(s, 8).At(0, 4), topLeft);
    EXPECT_EQ(converttest::OrientForDisplay(s, 5).At(0, 0), topLeft);
    EXPECT_EQ(converttest::OrientForDisplay(s, 7).At(2, 4), topLeft);
    EXPECT_EQ(converttest::OrientForDisplay(s, 2).At(4, 0), topLeft);
    EXPECT_EQ(converttest::OrientForDisplay(s, 4).At(0, 2), topLeft);
    EXPECT_EQ(converttest::OrientForDisplay(s, 3).At(4, 2), topLeft);
}

// ---------------------------------------------------------------------------
// Converted pictures
// ---------------------------------------------------------------------------

constexpr int kWidth = 64;
constexpr int kHeight = 40;
constexpr int kPhotoHdr = 50252525;  // identity gain curve
constexpr int kPeakWhite = 100;      // MDB_V2 256

struct OrientationBatch {
    bool ran = false;
    converttest::CommandResult result;
    std::string dir;
    std::string outputDir;
};

// A batch with all eight pictures, so that outputs of swapped sizes follow
// each other through one library initialisation. Each test (a process of
// its own under CTest, maybe run in parallel) makes its own, in a directory
// named after it.
OrientationBatch& Batch(bool direct, int exif)
{
    static OrientationBatch batches[2];
    OrientationBatch& b = batches[direct ? 1 : 0];
    if (b.ran) {
        return b;
    }
    b.ran = true;
    b.dir = converttest::FreshDirectory(std::string(direct ? "orientation-direct-" : "orientation-streaming-") +
                                        std::to_string(exif));
    b.outputDir = b.dir + "/out";
    std::vector<std::string> args{"--photo-hdr", std::to_string(kPhotoHdr), "--peak-white",
                                  std::to_string(kPeakWhite)};
    if (direct) {
        args.push_back("--direct");
    }
    for (int exif = 1; exif <= 8; ++exif) {
        hdrconvert::SampleOptions options;
        options.width = kWidth;
        options.height = kHeight;
        options.gainMapDivisor = 2;
        options.orientation = exif;
        const hdrconvert::Sample sample = hdrconvert::MakeSample(options);
        const std::string path = b.dir + "/orientation" + std::to_string(exif) + ".jpg";
        if (sample.file.empty() || !converttest::WriteFile(path, sample.file)) {
            return b;
        }
        args.push_back(path);
    }
    args.push_back("-o");
    args.push_back(b.outputDir);
    b.result = converttest::RunConverter(args);
    return b;
}

class ConvertOrientation : public ::testing::TestWithParam<std::tuple<bool, int>> {};

TEST_P(ConvertOrientation, OutputIsTheModelOfTheCpuOrientedPlanes)
{
    const bool direct = std::get<0>(GetParam());
    const int exif = std::get<1>(GetParam());
    const OrientationBatch& b = Batch(direct, exif);
    ASSERT_EQ(b.result.exitCode, 0) << b.result.out << b.result.err;
    const std::string input = b.dir + "/orientation" + std::to_string(exif) + ".jpg";
    const converttest::ConvertedFile decoded = converttest::DecodeGainMapFile(converttest::ReadFile(input));
    ASSERT_TRUE(decoded.parsed) << decoded.parseReason;
    ASSERT_EQ(decoded.container.orientation, exif) << "the sample carries its orientation";
    ASSERT_EQ(decoded.gainMap.width, kWidth / 2);

    converttest::RgbaImage image;
    ASSERT_TRUE(converttest::ReadPng(b.outputDir + "/orientation" + std::to_string(exif) + ".png", &image));
    const bool swapped = exif >= 5;
    EXPECT_EQ(image.width, swapped ? kHeight : kWidth);
    EXPECT_EQ(image.height, swapped ? kWidth : kHeight);

    converttest::ModelInput in;
    in.primary = &decoded.primary;
    in.gainMap = &decoded.gainMap;
    in.metadata = decoded.container.metadata;
    in.orientation = exif;
    in.tuning = converttest::TuningFromKeys(kPhotoHdr, kPeakWhite);
    const converttest::Comparison c = converttest::CompareWithModel(image, in);
    std::cout << "[convert] orientation " << exif << (direct ? " direct" : " streaming") << ": " << image.width
              << "x" << image.height << ", largest difference " << c.largestFromNominal
              << " code(s) from the model's nominal value, " << c.largestBeyondInterval
              << " beyond its interval\n";
    EXPECT_EQ(c.mismatches, 0) << c.mismatches << " of " << c.pixels << " pixels; first: " << c.firstMismatch;

    // The picture is asymmetric enough to tell: the orientation of the same
    // size that differs by a mirror does not match.
    const int twin = exif % 2 == 1 ? exif + 1 : exif - 1;
    in.orientation = twin;
    const converttest::Comparison wrong = converttest::CompareWithModel(image, in);
    EXPECT_GT(wrong.mismatches, 10) << "orientation " << twin << " would match as well: the test could not tell";
}

INSTANTIATE_TEST_SUITE_P(Exif, ConvertOrientation, ::testing::Combine(::testing::Bool(), ::testing::Range(1, 9)),
                         [](const ::testing::TestParamInfo<std::tuple<bool, int>>& info) {
                             return std::string(std::get<0>(info.param) ? "Direct" : "Streaming") + "Orientation" +
                                    std::to_string(std::get<1>(info.param));
                         });

}  // namespace
