// The converter against files that lie: gain-map metadata that is finite as a
// double but not as the float the library receives, and frame headers that
// declare far more pixels than the file holds.
#include "ConvertTestSupport.h"
#include "DeclaredSize.h"
#include "FloatMetadata.h"
#include "GainMapJpeg.h"
#include "JpegPlanes.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace {

bool Contains(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

hdrconvert::GainMapMetadata Typical()
{
    hdrconvert::GainMapMetadata m;
    m.gainMapMin = {{0.0, 0.0, 0.0}};
    m.gainMapMax = {{2.0, 2.0, 2.0}};
    m.hdrCapacityMin = 0.0;
    m.hdrCapacityMax = 2.0;
    return m;
}

std::string Reason(const hdrconvert::GainMapMetadata& m)
{
    std::string reason;
    return hdrconvert::CheckMetadataAsFloat(m, &reason) ? std::string("accepted") : reason;
}

std::vector<uint8_t> Grey(int width, int height, bool noise)
{
    std::vector<uint8_t> grey(static_cast<size_t>(width) * static_cast<size_t>(height));
    std::mt19937 random(7);
    for (size_t i = 0; i < grey.size(); ++i) {
        grey[i] = noise ? static_cast<uint8_t>(random()) : static_cast<uint8_t>(i * 3);
    }
    return grey;
}

// A gain-map JPEG with a 64 x 48 primary and a gain map of mapSize x mapSize.
std::vector<uint8_t> GainMapFile(const hdrconvert::GainMapMetadata& m, int mapSize = 16, bool noisyMap = false)
{
    const std::vector<uint8_t> primaryGrey = Grey(64, 48, false);
    const std::vector<uint8_t> mapGrey = Grey(mapSize, mapSize, noisyMap);
    return hdrconvert::WriteGainMapJpeg(hdrconvert::EncodeGreyJpeg(primaryGrey.data(), 64, 48, 90),
                                        hdrconvert::EncodeGreyJpeg(mapGrey.data(), mapSize, mapSize, 100), m);
}

// Rewrites the frame header of the codestream at offset to declare width x height.
bool DeclareSize(std::vector<uint8_t>* file, size_t offset, int width, int height)
{
    size_t p = offset + 2;
    while (p + 9 <= file->size() && (*file)[p] == 0xFF) {
        const uint8_t marker = (*file)[p + 1];
        const size_t length = (static_cast<size_t>((*file)[p + 2]) << 8) | (*file)[p + 3];
        if (marker == 0xC0 || marker == 0xC1 || marker == 0xC2) {
            (*file)[p + 5] = static_cast<uint8_t>(height >> 8);
            (*file)[p + 6] = static_cast<uint8_t>(height);
            (*file)[p + 7] = static_cast<uint8_t>(width >> 8);
            (*file)[p + 8] = static_cast<uint8_t>(width);
            return true;
        }
        if (marker == 0xDA) {
            return false;
        }
        p += 2 + length;
    }
    return false;
}

struct MeasuredRun {
    int exitCode = -1;
    long peakKilobytes = 0;
};

// Runs the converter with its output discarded; its exit status and its own
// peak resident size.
MeasuredRun RunMeasured(const std::vector<std::string>& args)
{
    std::vector<std::string> all = {HDRGPU_CONVERT_EXE};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& a : all) {
        argv.push_back(a.data());
    }
    argv.push_back(nullptr);
    MeasuredRun run;
    const pid_t pid = fork();
    if (pid == 0) {
        execv(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    rusage usage{};
    if (pid > 0 && wait4(pid, &status, 0, &usage) == pid) {
        run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        run.peakKilobytes = usage.ru_maxrss;
    }
    return run;
}

// ---------------------------------------------------------------------------
// Metadata in the library's type
// ---------------------------------------------------------------------------

TEST(ConvertFloatMetadata, TypicalMetadataIsAccepted)
{
    EXPECT_EQ(Reason(Typical()), "accepted");
}

TEST(ConvertFloatMetadata, GainMapMinBeyondFloatRangeIsRefused)
{
    hdrconvert::GainMapMetadata m = Typical();
    m.gainMapMin[1] = -1e39;
    EXPECT_EQ(Reason(m), "gain map metadata GainMapMin is not finite as a float");
}

TEST(ConvertFloatMetadata, OffsetHdrBeyondFloatRangeIsRefused)
{
    hdrconvert::GainMapMetadata m = Typical();
    m.offsetHdr[0] = 1e39;
    EXPECT_EQ(Reason(m), "gain map metadata OffsetHDR is not finite as a float");
}

TEST(ConvertFloatMetadata, OffsetSdrBeyondFloatRangeIsRefused)
{
    hdrconvert::GainMapMetadata m = Typical();
    m.offsetSdr[2] = 1e300;
    EXPECT_EQ(Reason(m), "gain map metadata OffsetSDR is not finite as a float");
}

TEST(ConvertFloatMetadata, GainWhoseRatioOverflowsAFloatIsRefused)
{
    hdrconvert::GainMapMetadata m = Typical();
    m.gainMapMax = {{200.0, 200.0, 200.0}};
    EXPECT_EQ(Reason(m), "gain map metadata GainMapMax gives a gain that is not finite as a float");
}

TEST(ConvertFloatMetadata, GammaThatIsZeroAsAFloatIsRefused)
{
    hdrconvert::GainMapMetadata m = Typical();
    m.gamma[0] = 1e-50;
    EXPECT_EQ(Reason(m), "gain map metadata Gamma gives an exponent that is not finite as a float");
}

TEST(ConvertFloatMetadata, OffsetsThatOverflowTheHdrRangeAreRefused)
{
    hdrconvert::GainMapMetadata m = Typical();
    m.offsetSdr = {{3e38, 3e38, 3e38}};
    EXPECT_EQ(Reason(m),
              "gain map metadata OffsetSDR, OffsetHDR and the gains give an HDR value that is not finite as a float");
}

TEST(ConvertFloatMetadata, CapacitiesEqualAsFloatsAreRefused)
{
    hdrconvert::GainMapMetadata m = Typical();
    m.hdrCapacityMin = 1.0;
    m.hdrCapacityMax = 1.0 + 1e-12;
    EXPECT_EQ(Reason(m), "gain map metadata HDRCapacityMax is not above HDRCapacityMin as a float");
}

TEST(ConvertFloatMetadata, ReaderRefusesAFileWithSuchMetadata)
{
    hdrconvert::GainMapMetadata m = Typical();
    m.gainMapMin = {{-1e39, -1e39, -1e39}};
    const std::vector<uint8_t> file = GainMapFile(m);
    ASSERT_FALSE(file.empty());
    std::string reason;
    EXPECT_FALSE(hdrconvert::ParseGainMapJpeg(file.data(), file.size(), nullptr, &reason));
    EXPECT_EQ(reason, "gain map metadata GainMapMin is not finite as a float");
}

TEST(ConvertFloatMetadata, ConverterRefusesTheFileWithOneLine)
{
    const std::string dir = converttest::FreshDirectory("float-metadata");
    hdrconvert::GainMapMetadata m = Typical();
    m.offsetHdr = {{1e39, 1e39, 1e39}};
    const std::string input = dir + "/offset.jpg";
    ASSERT_TRUE(converttest::WriteFile(input, GainMapFile(m)));
    const converttest::CommandResult r = converttest::RunConverter({input, "-o", dir + "/out"});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(Contains(r.err, "refused " + input + ": gain map metadata OffsetHDR is not finite as a float\n"))
        << r.err;
    EXPECT_FALSE(Contains(r.out, "converted " + input)) << r.out;
}

// ---------------------------------------------------------------------------
// Declared sizes
// ---------------------------------------------------------------------------

TEST(ConvertDeclaredSize, HuffmanDataNeedsOneBitPerBlock)
{
    EXPECT_EQ(hdrconvert::MinimumHuffmanCodestreamBytes(16384, 16384), 524288u);
    EXPECT_EQ(hdrconvert::MinimumHuffmanCodestreamBytes(8, 8), 1u);
    EXPECT_EQ(hdrconvert::MinimumHuffmanCodestreamBytes(65, 64), 9u);  // 9 x 8 blocks
}

TEST(ConvertDeclaredSize, DecoderRefusesAFrameItsDataCannotHold)
{
    const std::vector<uint8_t> grey = Grey(64, 48, false);
    std::vector<uint8_t> jpeg = hdrconvert::EncodeGreyJpeg(grey.data(), 64, 48, 90);
    ASSERT_TRUE(DeclareSize(&jpeg, 0, 16384, 16384));
    hdrconvert::YuvPlanes planes;
    std::string reason;
    EXPECT_FALSE(hdrconvert::DecodeJpegPlanes(jpeg.data(), jpeg.size(), &planes, &reason));
    EXPECT_EQ(reason, "JPEG data too small for its declared size (16384x16384 needs at least 524288 bytes, has " +
                          std::to_string(jpeg.size()) + ")");
    EXPECT_TRUE(planes.y.empty());
}

TEST(ConvertDeclaredSize, HeaderReaderRefusesItToo)
{
    const std::vector<uint8_t> grey = Grey(64, 48, false);
    std::vector<uint8_t> jpeg = hdrconvert::EncodeGreyJpeg(grey.data(), 64, 48, 90);
    ASSERT_TRUE(DeclareSize(&jpeg, 0, 16384, 16384));
    int width = 0;
    int height = 0;
    std::string reason;
    EXPECT_FALSE(hdrconvert::ReadJpegHeader(jpeg.data(), jpeg.size(), &width, &height, &reason));
    EXPECT_TRUE(Contains(reason, "JPEG data too small for its declared size")) << reason;
}

// The converter refuses a primary that claims 16384 x 16384 in a few
// kilobytes without allocating its planes (3 x 256 MiB).
TEST(ConvertDeclaredSize, ConverterRefusesAnOverclaimingPrimaryCheaply)
{
    const std::string dir = converttest::FreshDirectory("declared-primary");
    std::vector<uint8_t> file = GainMapFile(Typical());
    ASSERT_TRUE(DeclareSize(&file, 0, 16384, 16384));
    const std::string input = dir + "/primary.jpg";
    ASSERT_TRUE(converttest::WriteFile(input, file));
    const converttest::CommandResult r = converttest::RunConverter({input, "-o", dir + "/out"});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(Contains(r.err, "refused " + input + ": primary image: JPEG data too small for its declared size"))
        << r.err;
    // Far below the 768 MiB of the declared planes, with room for the sanitizers.
    const MeasuredRun measured = RunMeasured({input, "-o", dir + "/out"});
    EXPECT_EQ(measured.exitCode, 1);
    EXPECT_LT(measured.peakKilobytes, 300 * 1024);
}

// A gain map with data enough for its frame but above the megapixel cap is
// refused before anything is decoded.
TEST(ConvertDeclaredSize, ConverterRefusesAGainMapAboveTheCapCheaply)
{
    const std::string dir = converttest::FreshDirectory("declared-gain-map");
    std::vector<uint8_t> file = GainMapFile(Typical(), 1024, true);
    hdrconvert::GainMapJpeg parsed;
    std::string reason;
    ASSERT_TRUE(hdrconvert::ParseGainMapJpeg(file.data(), file.size(), &parsed, &reason)) << reason;
    ASSERT_GE(parsed.gainMapSize, hdrconvert::MinimumHuffmanCodestreamBytes(16384, 16384));
    ASSERT_TRUE(DeclareSize(&file, parsed.gainMapOffset, 16384, 16384));
    const std::string input = dir + "/gain-map.jpg";
    ASSERT_TRUE(converttest::WriteFile(input, file));
    const converttest::CommandResult r = converttest::RunConverter({input, "-o", dir + "/out"});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(Contains(r.err, "refused " + input +
                                    ": gain map of 16384x16384 (268.4 megapixels) is above the 120-megapixel limit\n"))
        << r.err;
    const MeasuredRun measured = RunMeasured({input, "-o", dir + "/out"});
    EXPECT_EQ(measured.exitCode, 1);
    EXPECT_LT(measured.peakKilobytes, 300 * 1024);
}

TEST(ConvertDeclaredSize, MaxMegapixelsLowersTheCap)
{
    const std::string dir = converttest::FreshDirectory("max-megapixels");
    const std::string input = dir + "/map.jpg";
    ASSERT_TRUE(converttest::WriteFile(input, GainMapFile(Typical(), 1024)));
    const converttest::CommandResult r = converttest::RunConverter({"--max-megapixels", "1", input, "-o", dir + "/out"});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(Contains(r.err, "refused " + input +
                                    ": gain map of 1024x1024 (1.0 megapixels) is above the 1-megapixel limit\n"))
        << r.err;
    const converttest::CommandResult ok = converttest::RunConverter({"--max-megapixels", "2", input, "-o", dir + "/out"});
    EXPECT_EQ(ok.exitCode, 0) << ok.err;
}

TEST(ConvertDeclaredSize, HelpDescribesMaxMegapixels)
{
    const converttest::CommandResult r = converttest::RunConverter({"--help"});
    EXPECT_EQ(r.exitCode, 0);
    EXPECT_TRUE(Contains(r.out, "--max-megapixels N")) << r.out;
    EXPECT_TRUE(Contains(r.out, "(default 120)")) << r.out;
}

TEST(ConvertDeclaredSize, MaxMegapixelsTakesAPositiveNumber)
{
    for (const char* bad : {"0", "-3", "many"}) {
        const converttest::CommandResult r = converttest::RunConverter({"--max-megapixels", bad, "x.jpg", "-o", "out"});
        EXPECT_EQ(r.exitCode, 2) << bad;
        EXPECT_TRUE(Contains(r.err, "--max-megapixels")) << r.err;
    }
}

}  // namespace
