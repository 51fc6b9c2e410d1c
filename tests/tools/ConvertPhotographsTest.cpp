// The converter on the real photographs of the shared samples folder (the
// tests skip when it is absent): every photograph converts in one batch, or
// is refused with the expected reason, and every output PNG is compared with
// the CPU model of the gain-map program applied to the same decoded planes
// and metadata, under the factory tuning the test sets through the two
// system-information keys.
//
// The batch runs once in the streaming mode (so pictures of different sizes
// follow each other through the same library initialisation) and once in
// the direct mode, each with its own tuning. The 12.5-megapixel Pixel photo
// is compared on every 4th pixel of every 4th row (plus the last row and
// column), about 800 000 pixels, to keep the time reasonable; the others on
// every pixel.
#include "ConvertTestSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <map>
#include <regex>
#include <string>
#include <vector>

namespace {

using converttest::CommandResult;

struct PhotoCase {
    const char* file;
    const char* refusal;  // nullptr: converts
    int step;             // compare every step-th pixel
};

const PhotoCase kPhotos[] = {
    {"libavif_apple_gainmap_new.jpg", "Apple gain map, unsupported", 1},
    {"libavif_paris_exif_xmp_gainmap_bigendian.jpg", nullptr, 1},
    {"libavif_seine_sdr_gainmap_srgb.jpg", nullptr, 1},
    {"vearutop_s01_pixel.jpg", nullptr, 4},
    {"vearutop_small_uhdr.jpg", nullptr, 1},
};

struct ModeSetup {
    const char* name;
    std::vector<std::string> options;
    int photoHdr;
    int peakWhite;
};

// Streaming: the identity gain curve, a display boost of 2 above the upper
// level threshold. Direct: a gamma multiplier of 1.25, a reshaped gain curve
// and a lower peak white.
const ModeSetup kModes[] = {
    {"streaming", {"--photo-hdr", "50252525", "--peak-white", "100"}, 50252525, 100},
    {"direct", {"--direct", "--photo-hdr", "150302030", "--peak-white", "65"}, 150302030, 65},
};

struct BatchRun {
    converttest::CommandResult result;
    std::string outputDir;
    double seconds = 0;
};

// Converts the given photographs (those present) in one run of the tool.
BatchRun RunBatch(int mode, const std::vector<const PhotoCase*>& photos, const std::string& label)
{
    BatchRun run;
    const std::string samples = converttest::SamplesDirectory();
    run.outputDir = converttest::FreshDirectory(std::string("photographs-") + kModes[mode].name + "-" + label);
    std::vector<std::string> args = kModes[mode].options;
    for (const PhotoCase* photo : photos) {
        const std::string path = samples + "/" + photo->file;
        if (std::filesystem::exists(path)) {
            args.push_back(path);
        }
    }
    args.push_back("-o");
    args.push_back(run.outputDir);
    const auto start = std::chrono::steady_clock::now();
    run.result = converttest::RunConverter(args);
    run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::cout << "[convert] " << kModes[mode].name << " run of " << photos.size() << " file(s): exit "
              << run.result.exitCode << ", " << run.seconds << " s in all\n"
              << run.result.out << run.result.err;
    return run;
}

// The conversion time the tool printed for one input, in seconds; -1 when absent.
double PrintedSeconds(const std::string& out, const std::string& input)
{
    for (const std::string& line : converttest::Lines(out)) {
        if (line.rfind("converted " + input + " ", 0) == 0) {
            std::smatch m;
            if (std::regex_search(line, m, std::regex(R"(([0-9.]+) s\)$)"))) {
                return std::stod(m[1]);
            }
        }
    }
    return -1;
}

std::string Ordinal(int n)
{
    return std::to_string(n) + (n == 2 ? "nd" : n == 3 ? "rd" : "th");
}

// Checks one photograph's outcome in a run: the refusal line, or the output
// compared with the model (every step-th pixel).
void CheckPhotograph(int mode, const PhotoCase& photo, const BatchRun& run, int step)
{
    const std::string input = converttest::SamplesDirectory() + "/" + photo.file;
    const std::string stem = std::filesystem::path(photo.file).stem().string();
    const std::string output = run.outputDir + "/" + stem + ".png";
    if (photo.refusal != nullptr) {
        EXPECT_EQ(run.result.exitCode, 1) << "a refused file makes the run exit 1";
        const std::string line = "refused " + input + ": " + photo.refusal;
        bool found = false;
        for (const std::string& l : converttest::Lines(run.result.err)) {
            found = found || l == line;
        }
        EXPECT_TRUE(found) << "expected the line '" << line << "' on standard error:\n" << run.result.err;
        EXPECT_FALSE(std::filesystem::exists(output));
        return;
    }

    converttest::RgbaImage image;
    ASSERT_TRUE(converttest::ReadPng(output, &image)) << output << "\n" << run.result.err;
    const converttest::ConvertedFile decoded = converttest::DecodeGainMapFile(converttest::ReadFile(input));
    ASSERT_TRUE(decoded.parsed) << decoded.parseReason;

    converttest::ModelInput in;
    in.primary = &decoded.primary;
    in.gainMap = &decoded.gainMap;
    in.metadata = decoded.container.metadata;
    in.orientation = decoded.container.orientation;
    in.tuning = converttest::TuningFromKeys(kModes[mode].photoHdr, kModes[mode].peakWhite);
    in.step = step;
    const auto start = std::chrono::steady_clock::now();
    const converttest::Comparison c = converttest::CompareWithModel(image, in);
    const double compareSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    const double seconds = PrintedSeconds(run.result.out, input);
    EXPECT_GE(seconds, 0) << "no 'converted' line for " << input << ":\n" << run.result.out;
    std::cout << "[convert] " << kModes[mode].name << " " << photo.file << ": " << image.width << "x" << image.height
              << ", gain map " << decoded.gainMap.width << "x" << decoded.gainMap.height
              << (c.gainResampled ? " (resampled)" : "") << ", converted in " << seconds << " s; " << c.pixels
              << " pixels compared"
              << (step > 1 ? " (every " + Ordinal(step) + " pixel of every " + Ordinal(step) + " row)" : "")
              << " in " << compareSeconds << " s, APL " << c.apl << "; largest difference " << c.largestFromNominal
              << " code(s) from the model's nominal value, " << c.largestBeyondInterval
              << " beyond its interval\n";
    ::testing::Test::RecordProperty("conversion_seconds", std::to_string(seconds));
    ::testing::Test::RecordProperty("largest_difference_codes", c.largestFromNominal);
    EXPECT_EQ(c.mismatches, 0) << c.mismatches << " of " << c.pixels
                               << " pixels outside the model's bounds; first: " << c.firstMismatch;
}

class ConvertPhotographs : public ::testing::TestWithParam<std::tuple<int, int>> {};

// One photograph in a run of its own.
TEST_P(ConvertPhotographs, ConvertsAsTheModelSaysOrIsRefused)
{
    const int mode = std::get<0>(GetParam());
    const PhotoCase& photo = kPhotos[std::get<1>(GetParam())];
    const std::string samples = converttest::SamplesDirectory();
    if (samples.empty()) {
        GTEST_SKIP() << "no samples folder";
    }
    if (!std::filesystem::exists(samples + "/" + photo.file)) {
        GTEST_SKIP() << photo.file << " is absent";
    }
    const BatchRun run = RunBatch(mode, {&photo}, std::filesystem::path(photo.file).stem().string());
    ASSERT_NE(run.result.exitCode, -1) << run.result.err;
    CheckPhotograph(mode, photo, run, photo.step);
}

INSTANTIATE_TEST_SUITE_P(Samples, ConvertPhotographs,
                         ::testing::Combine(::testing::Range(0, 2),
                                            ::testing::Range(0, static_cast<int>(std::size(kPhotos)))),
                         [](const ::testing::TestParamInfo<std::tuple<int, int>>& info) {
                             std::string name = std::string(kModes[std::get<0>(info.param)].name) + "_" +
                                                std::filesystem::path(kPhotos[std::get<1>(info.param)].file)
                                                    .stem()
                                                    .string();
                             for (char& ch : name) {
                                 if (!std::isalnum(static_cast<unsigned char>(ch))) {
                                     ch = '_';
                                 }
                             }
                             return name;
                         });

// Every photograph in one streaming run: pictures of different plane sizes
// follow each other through one library initialisation (each is compared, the
// big one on every 8th pixel of every 8th row); the Apple file's refusal makes
// the exit status 1, and the summary counts what was converted.
TEST(ConvertPhotographsBatch, MixedSizesInOneStreamingRun)
{
    const std::string samples = converttest::SamplesDirectory();
    if (samples.empty()) {
        GTEST_SKIP() << "no samples folder";
    }
    std::vector<const PhotoCase*> all;
    int present = 0;
    int convertible = 0;
    for (const PhotoCase& photo : kPhotos) {
        all.push_back(&photo);
        if (std::filesystem::exists(samples + "/" + photo.file)) {
            ++present;
            convertible += photo.refusal == nullptr ? 1 : 0;
        }
    }
    const BatchRun run = RunBatch(0, all, "all");
    const std::string summary = std::to_string(convertible) + " of " + std::to_string(present) + " file(s) converted";
    EXPECT_NE(run.result.out.find(summary), std::string::npos) << run.result.out;
    EXPECT_EQ(run.result.exitCode, convertible == present ? 0 : 1);
    for (const PhotoCase& photo : kPhotos) {
        if (std::filesystem::exists(samples + "/" + photo.file)) {
            SCOPED_TRACE(photo.file);
            CheckPhotograph(0, photo, run, photo.step * 2);
        }
    }
}

}  // namespace
