// The sample maker: what it writes parses back to the metadata it wrote, its
// gain map lifts the highlights and nothing else, and the converter renders
// it as the model says (RGB and YUV output, a full-size and a half-size map).
#include "ConvertTestSupport.h"
#include "SampleMaker.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <iostream>
#include <string>

namespace {

void ExpectSameMetadata(const hdrconvert::GainMapMetadata& got, const hdrconvert::GainMapMetadata& want)
{
    constexpr double kTolerance = 1e-6;  // decimal text / rational numbers
    for (int c = 0; c < 3; ++c) {
        EXPECT_NEAR(got.gainMapMin[c], want.gainMapMin[c], kTolerance) << "channel " << c;
        EXPECT_NEAR(got.gainMapMax[c], want.gainMapMax[c], kTolerance) << "channel " << c;
        EXPECT_NEAR(got.gamma[c], want.gamma[c], kTolerance) << "channel " << c;
        EXPECT_NEAR(got.offsetSdr[c], want.offsetSdr[c], kTolerance) << "channel " << c;
        EXPECT_NEAR(got.offsetHdr[c], want.offsetHdr[c], kTolerance) << "channel " << c;
    }
    EXPECT_NEAR(got.hdrCapacityMin, want.hdrCapacityMin, kTolerance);
    EXPECT_NEAR(got.hdrCapacityMax, want.hdrCapacityMax, kTolerance);
    EXPECT_EQ(got.baseRenditionIsHdr, want.baseRenditionIsHdr);
}

TEST(ConvertSampleMaker, MetadataIsThreeChannelWithHeadroomThree)
{
    const hdrconvert::GainMapMetadata md = hdrconvert::SampleMetadata();
    EXPECT_NE(md.gainMapMax[0], md.gainMapMax[2]);
    for (int c = 0; c < 3; ++c) {
        EXPECT_GE(md.gainMapMax[c], 2.3);
        EXPECT_LE(md.gainMapMax[c], 3.0);
    }
    EXPECT_EQ(md.hdrCapacityMax, 3.0);
}

TEST(ConvertSampleMaker, ParsesBackToWhatWasWritten)
{
    hdrconvert::SampleOptions options;
    options.width = 320;
    options.height = 180;
    options.orientation = 6;
    const hdrconvert::Sample sample = hdrconvert::MakeSample(options);
    ASSERT_FALSE(sample.file.empty());
    const converttest::ConvertedFile f = converttest::DecodeGainMapFile(sample.file);
    ASSERT_TRUE(f.parsed) << f.parseReason;
    ExpectSameMetadata(f.container.metadata, sample.metadata);
    ExpectSameMetadata(f.container.metadata, hdrconvert::SampleMetadata());
    EXPECT_TRUE(f.container.hadXmp);
    EXPECT_TRUE(f.container.hadIso);
    EXPECT_EQ(f.container.orientation, 6);
    EXPECT_EQ(f.primary.width, 320);
    EXPECT_EQ(f.primary.height, 180);
    EXPECT_EQ(f.primary.components, 3);
    EXPECT_EQ(f.gainMap.width, 160);
    EXPECT_EQ(f.gainMap.height, 90);
    EXPECT_EQ(f.gainMap.components, 3);
    EXPECT_EQ(sample.gainMapWidth, 160);
    EXPECT_EQ(sample.gainMapHeight, 90);
}

// The map is zero (Y 0, neutral chroma) where nothing clips and high on the
// sun's disc; the primary is white there.
TEST(ConvertSampleMaker, GainMapLiftsOnlyTheHighlights)
{
    hdrconvert::SampleOptions options;
    options.width = 320;
    options.height = 180;
    options.gainMapDivisor = 1;
    const hdrconvert::Sample sample = hdrconvert::MakeSample(options);
    const converttest::ConvertedFile f = converttest::DecodeGainMapFile(sample.file);
    ASSERT_TRUE(f.parsed) << f.parseReason;
    const auto at = [](const std::vector<uint8_t>& p, int w, int x, int y) { return p[static_cast<size_t>(y) * w + x]; };
    const int w = f.gainMap.width;
    // The sun's centre (0.74, 0.24 of the picture).
    const int sx = static_cast<int>(0.74 * w);
    const int sy = static_cast<int>(0.24 * f.gainMap.height);
    EXPECT_GT(at(f.gainMap.y, w, sx, sy), 200);
    EXPECT_GT(at(f.primary.y, f.primary.width, sx, sy), 245);
    // Open sky at the upper left, water at the lower middle: no gain.
    for (const auto& p : {std::make_pair(0.1, 0.1), std::make_pair(0.3, 0.45), std::make_pair(0.5, 0.9)}) {
        const int x = static_cast<int>(p.first * w);
        const int y = static_cast<int>(p.second * f.gainMap.height);
        EXPECT_LE(at(f.gainMap.y, w, x, y), 3) << p.first << "," << p.second;
        EXPECT_LE(std::abs(at(f.gainMap.u, w, x, y) - 128), 3);
        EXPECT_LE(std::abs(at(f.gainMap.v, w, x, y) - 128), 3);
    }
}

// The command line's sample, converted as the model says, in RGB and in YUV.
TEST(ConvertSampleMaker, CommandLineSampleConvertsAsTheModelSays)
{
    const std::string dir = converttest::FreshDirectory("sample-maker");
    const std::string file = dir + "/sample.jpg";
    const converttest::CommandResult made = converttest::RunConverter({"--make-sample", file});
    ASSERT_EQ(made.exitCode, 0) << made.err;
    const converttest::ConvertedFile f = converttest::DecodeGainMapFile(converttest::ReadFile(file));
    ASSERT_TRUE(f.parsed) << f.parseReason;
    ExpectSameMetadata(f.container.metadata, hdrconvert::SampleMetadata());
    EXPECT_EQ(f.primary.width, 960);
    EXPECT_EQ(f.primary.height, 540);

    for (bool yuv : {false, true}) {
        const std::string out = dir + (yuv ? "/yuv" : "/rgb");
        std::vector<std::string> args{"--photo-hdr", "150302030", "--peak-white", "80", file, "-o", out};
        if (yuv) {
            args.insert(args.begin(), "--yuv");
        }
        const converttest::CommandResult r = converttest::RunConverter(args);
        ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
        converttest::RgbaImage image;
        ASSERT_TRUE(converttest::ReadPng(out + "/sample.png", &image));
        converttest::ModelInput in;
        in.primary = &f.primary;
        in.gainMap = &f.gainMap;
        in.metadata = f.container.metadata;
        in.tuning = converttest::TuningFromKeys(150302030, 80);
        in.outputYuv = yuv;
        const converttest::Comparison c = converttest::CompareWithModel(image, in);
        std::cout << "[convert] sample " << (yuv ? "YUV" : "RGB") << ": " << c.pixels << " pixels, largest difference "
                  << c.largestFromNominal << " code(s) from the model's nominal value, " << c.largestBeyondInterval
                  << " beyond its interval\n";
        EXPECT_EQ(c.mismatches, 0) << (yuv ? "YUV: " : "RGB: ") << c.firstMismatch;
    }
}

// A full-size map (no resampling) with a different orientation, through the
// streaming mode.
TEST(ConvertSampleMaker, FullSizeMapConvertsAsTheModelSays)
{
    const std::string dir = converttest::FreshDirectory("sample-maker-full");
    hdrconvert::SampleOptions options;
    options.width = 123;  // odd, not a multiple of 4
    options.height = 77;
    options.gainMapDivisor = 1;
    options.orientation = 8;
    const hdrconvert::Sample sample = hdrconvert::MakeSample(options);
    ASSERT_TRUE(converttest::WriteFile(dir + "/full.jpg", sample.file));
    const converttest::CommandResult r = converttest::RunConverter(
        {"--photo-hdr", "50252525", "--peak-white", "100", dir + "/full.jpg", "-o", dir + "/out"});
    ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
    converttest::RgbaImage image;
    ASSERT_TRUE(converttest::ReadPng(dir + "/out/full.png", &image));
    EXPECT_EQ(image.width, 77);
    EXPECT_EQ(image.height, 123);
    const converttest::ConvertedFile f = converttest::DecodeGainMapFile(sample.file);
    ASSERT_TRUE(f.parsed) << f.parseReason;
    converttest::ModelInput in;
    in.primary = &f.primary;
    in.gainMap = &f.gainMap;
    in.metadata = f.container.metadata;
    in.orientation = 8;
    in.tuning = converttest::TuningFromKeys(50252525, 100);
    const converttest::Comparison c = converttest::CompareWithModel(image, in);
    EXPECT_FALSE(c.gainResampled);
    EXPECT_EQ(c.mismatches, 0) << c.firstMismatch;
}

}  // namespace
