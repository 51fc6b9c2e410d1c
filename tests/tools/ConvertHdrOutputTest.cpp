// The HDR outputs (16-bit PQ PNG, 10-bit PQ AVIF) and the 8-bit PNG's colour
// chunk: each written file is read back with an independent reader (libpng,
// libavif), its colour signalling checked, and its pixels compared with the
// panel formula applied to the converter's raw 8-bit output of the same
// picture:
//
//     L = N * sRGB_EOTF(code / 255) cd/m2,  signal = PQ_inverse_EOTF(L / 10000)
//
// computed here in double precision from the published constants.
#include "ConvertTestSupport.h"
#include "SampleMaker.h"

#include <avif/avif.h>
#include <gtest/gtest.h>
#include <png.h>

#include <algorithm>
#include <cmath>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

using converttest::CommandResult;
using converttest::RunConverter;

double SrgbToLinear(double e)
{
    return e <= 0.04045 ? e / 12.92 : std::pow((e + 0.055) / 1.055, 2.4);
}

// SMPTE ST 2084 inverse EOTF of an absolute luminance.
double Pq(double nits)
{
    const double m1 = 0.1593017578125;
    const double m2 = 78.84375;
    const double c1 = 0.8359375;
    const double c2 = 18.8515625;
    const double c3 = 18.6875;
    const double y = std::pow(std::min(std::max(nits / 10000.0, 0.0), 1.0), m1);
    return std::pow((c1 + c2 * y) / (1 + c3 * y), m2);
}

double PanelNits(uint8_t code, int peak)
{
    return peak * SrgbToLinear(code / 255.0);
}

std::string Sample(const std::string& dir, int w = 64, int h = 40)
{
    hdrconvert::SampleOptions options;
    options.width = w;
    options.height = h;
    const std::string path = dir + "/pic.jpg";
    EXPECT_TRUE(converttest::WriteFile(path, hdrconvert::MakeSample(options).file));
    return path;
}

// The converter's raw 8-bit output of the picture.
std::vector<uint8_t> RawOutput(const std::string& sample, const std::string& dir)
{
    const CommandResult r = RunConverter({"--format", "raw", sample, "-o", dir + "/raw"});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    return converttest::ReadFile(dir + "/raw/pic.rgba");
}

// A PNG read back with libpng: header, samples as stored (16-bit values
// assembled from the big-endian bytes), the colour chunks it knows and the
// unknown chunks it kept.
struct PngFile {
    png_uint_32 width = 0;
    png_uint_32 height = 0;
    int bitDepth = 0;
    int colourType = 0;
    bool hasSrgb = false;
    int srgbIntent = -1;
    bool hasIccp = false;
    std::vector<uint16_t> samples;  // channels per pixel as stored
    int channels = 0;
    std::map<std::string, std::vector<uint8_t>> chunks;
    std::map<std::string, int> chunkLocations;
};

bool ReadPngFile(const std::string& path, PngFile* out)
{
    FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) {
        return false;
    }
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    png_infop end = png_create_info_struct(png);
    std::vector<std::vector<uint8_t>> rows;
    bool ok = false;
    if (setjmp(png_jmpbuf(png)) == 0) {
        png_init_io(png, file);
        png_set_keep_unknown_chunks(png, PNG_HANDLE_CHUNK_ALWAYS, nullptr, 0);
        png_read_info(png, info);
        out->width = png_get_image_width(png, info);
        out->height = png_get_image_height(png, info);
        out->bitDepth = png_get_bit_depth(png, info);
        out->colourType = png_get_color_type(png, info);
        out->channels = png_get_channels(png, info);
        out->hasSrgb = png_get_sRGB(png, info, &out->srgbIntent) != 0;
        out->hasIccp = png_get_valid(png, info, PNG_INFO_iCCP) != 0;
        rows.assign(out->height, std::vector<uint8_t>(png_get_rowbytes(png, info)));
        for (auto& row : rows) {
            png_read_row(png, row.data(), nullptr);
        }
        png_read_end(png, end);
        for (png_infop where : {info, end}) {
            png_unknown_chunkp unknown = nullptr;
            const int n = png_get_unknown_chunks(png, where, &unknown);
            for (int i = 0; i < n; ++i) {
                const std::string name(reinterpret_cast<const char*>(unknown[i].name), 4);
                out->chunks[name].assign(unknown[i].data, unknown[i].data + unknown[i].size);
                out->chunkLocations[name] = unknown[i].location;
            }
        }
        ok = true;
    }
    png_destroy_read_struct(&png, &info, &end);
    std::fclose(file);
    if (!ok) {
        return false;
    }
    const size_t perRow = static_cast<size_t>(out->width) * static_cast<size_t>(out->channels);
    out->samples.resize(perRow * out->height);
    for (size_t y = 0; y < rows.size(); ++y) {
        for (size_t i = 0; i < perRow; ++i) {
            out->samples[y * perRow + i] =
                out->bitDepth == 16 ? static_cast<uint16_t>(rows[y][2 * i] << 8 | rows[y][2 * i + 1]) : rows[y][i];
        }
    }
    return true;
}

uint32_t U32(const std::vector<uint8_t>& b, size_t at)
{
    return static_cast<uint32_t>(b[at]) << 24 | static_cast<uint32_t>(b[at + 1]) << 16 |
           static_cast<uint32_t>(b[at + 2]) << 8 | b[at + 3];
}

uint16_t U16(const std::vector<uint8_t>& b, size_t at)
{
    return static_cast<uint16_t>(b[at] << 8 | b[at + 1]);
}

TEST(ConvertHdrOutput, PqFormulaGivesTheKnownSignalLevels)
{
    // Reference points of ST 2084 (signal for 0, 100, 1000, 10000 cd/m2).
    EXPECT_NEAR(Pq(0), 7.3e-7, 1e-7);
    EXPECT_NEAR(Pq(100), 0.5081, 1e-4);
    EXPECT_NEAR(Pq(1000), 0.7518, 1e-4);
    EXPECT_NEAR(Pq(10000), 1.0, 1e-12);
}

TEST(ConvertHdrOutput, EightBitPngCarriesAnSrgbChunk)
{
    const std::string dir = converttest::FreshDirectory("hdr-srgb");
    const std::string sample = Sample(dir);
    ASSERT_EQ(RunConverter({sample, "-o", dir + "/png"}).exitCode, 0);
    PngFile png;
    ASSERT_TRUE(ReadPngFile(dir + "/png/pic.png", &png));
    EXPECT_EQ(png.bitDepth, 8);
    EXPECT_TRUE(png.hasSrgb);
    EXPECT_EQ(png.srgbIntent, PNG_sRGB_INTENT_PERCEPTUAL);
}

// The direct mode writes the rows it turns on the CPU through the same writer.
TEST(ConvertHdrOutput, EightBitPngOfTheDirectModeCarriesAnSrgbChunk)
{
    const std::string dir = converttest::FreshDirectory("hdr-srgb-direct");
    const std::string sample = Sample(dir);
    ASSERT_EQ(RunConverter({"--direct", sample, "-o", dir + "/png"}).exitCode, 0);
    PngFile png;
    ASSERT_TRUE(ReadPngFile(dir + "/png/pic.png", &png));
    EXPECT_TRUE(png.hasSrgb);
    EXPECT_EQ(png.srgbIntent, PNG_sRGB_INTENT_PERCEPTUAL);
}

TEST(ConvertHdrOutput, YuvPngCarriesNoColourChunk)
{
    const std::string dir = converttest::FreshDirectory("hdr-yuv-png");
    const std::string sample = Sample(dir);
    ASSERT_EQ(RunConverter({"--yuv", sample, "-o", dir + "/png"}).exitCode, 0);
    PngFile png;
    ASSERT_TRUE(ReadPngFile(dir + "/png/pic.png", &png));
    EXPECT_FALSE(png.hasSrgb);
    EXPECT_FALSE(png.hasIccp);
}

TEST(ConvertHdrOutput, PqPngIsSixteenBitRgbWithCicpBeforeTheImageData)
{
    const std::string dir = converttest::FreshDirectory("hdr-pq-cicp");
    const std::string sample = Sample(dir);
    const CommandResult r = RunConverter({"--format", "pq-png", sample, "-o", dir + "/pq"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    PngFile png;
    ASSERT_TRUE(ReadPngFile(dir + "/pq/pic.png", &png));
    EXPECT_EQ(png.width, 64u);
    EXPECT_EQ(png.height, 40u);
    EXPECT_EQ(png.bitDepth, 16);
    EXPECT_EQ(png.colourType, PNG_COLOR_TYPE_RGB);
    ASSERT_EQ(png.chunks.count("cICP"), 1u);
    EXPECT_EQ(png.chunks["cICP"], (std::vector<uint8_t>{1, 16, 0, 1}));  // BT.709, PQ, RGB, full range
    for (const char* name : {"cICP", "cLLi", "mDCv"}) {
        ASSERT_EQ(png.chunkLocations.count(name), 1u) << name;
        EXPECT_EQ(png.chunkLocations[name] & PNG_AFTER_IDAT, 0) << name << " comes after the image data";
    }
    EXPECT_FALSE(png.hasSrgb);  // an sRGB chunk would contradict the PQ signal
}

TEST(ConvertHdrOutput, PqPngLightLevelsAreThePicturesOwn)
{
    const std::string dir = converttest::FreshDirectory("hdr-pq-clli");
    const std::string sample = Sample(dir);
    const std::vector<uint8_t> raw = RawOutput(sample, dir);
    ASSERT_EQ(raw.size(), 64u * 40u * 4u);
    ASSERT_EQ(RunConverter({"--format", "pq-png", "--panel-nits", "600", sample, "-o", dir + "/pq"}).exitCode, 0);
    PngFile png;
    ASSERT_TRUE(ReadPngFile(dir + "/pq/pic.png", &png));
    double maxCll = 0;
    double sum = 0;
    for (size_t i = 0; i < raw.size(); i += 4) {
        const double brightest = PanelNits(std::max({raw[i], raw[i + 1], raw[i + 2]}), 600);
        maxCll = std::max(maxCll, brightest);
        sum += brightest;
    }
    const double maxFall = sum / (64.0 * 40.0);
    ASSERT_EQ(png.chunks["cLLi"].size(), 8u);
    // 0.0001 cd/m2 units; one unit for rounding.
    EXPECT_NEAR(U32(png.chunks["cLLi"], 0), maxCll * 10000, 1.0);
    EXPECT_NEAR(U32(png.chunks["cLLi"], 4), maxFall * 10000, 1.0);
    EXPECT_GT(maxCll, 100.0) << "the sample's sun should be far above SDR white";
}

TEST(ConvertHdrOutput, PqPngMasteringDisplayIsTheSimulatedPanel)
{
    const std::string dir = converttest::FreshDirectory("hdr-pq-mdcv");
    const std::string sample = Sample(dir);
    ASSERT_EQ(RunConverter({"--format", "pq-png", "--panel-nits", "600", sample, "-o", dir + "/pq"}).exitCode, 0);
    PngFile png;
    ASSERT_TRUE(ReadPngFile(dir + "/pq/pic.png", &png));
    const std::vector<uint8_t>& m = png.chunks["mDCv"];
    ASSERT_EQ(m.size(), 24u);
    // BT.709 red, green, blue and D65 in 0.00002 units.
    const uint16_t expected[8] = {32000, 16500, 15000, 30000, 7500, 3000, 15635, 16450};
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(U16(m, static_cast<size_t>(2 * i)), expected[i]) << "value " << i;
    }
    EXPECT_EQ(U32(m, 16), 600u * 10000u);  // peak, 0.0001 cd/m2 units
    EXPECT_EQ(U32(m, 20), 0u);
}

// Every pixel of the PQ PNG against the formula from the 8-bit output, at two
// panel peaks; tolerance one 16-bit code (rounding).
TEST(ConvertHdrOutput, PqPngPixelsFollowThePanelFormula)
{
    const std::string dir = converttest::FreshDirectory("hdr-pq-pixels");
    const std::string sample = Sample(dir);
    const std::vector<uint8_t> raw = RawOutput(sample, dir);
    ASSERT_EQ(raw.size(), 64u * 40u * 4u);
    for (int peak : {1000, 203}) {
        const std::string out = dir + "/pq" + std::to_string(peak);
        ASSERT_EQ(RunConverter({"--format", "pq-png", "--panel-nits", std::to_string(peak), sample, "-o", out})
                      .exitCode,
                  0);
        PngFile png;
        ASSERT_TRUE(ReadPngFile(out + "/pic.png", &png));
        ASSERT_EQ(png.samples.size(), 64u * 40u * 3u);
        int worst = 0;
        for (size_t p = 0; p < 64u * 40u; ++p) {
            for (size_t c = 0; c < 3; ++c) {
                const double expected = Pq(PanelNits(raw[p * 4 + c], peak)) * 65535.0;
                worst = std::max(worst, static_cast<int>(std::ceil(std::fabs(png.samples[p * 3 + c] - expected) - 0.5)));
            }
        }
        EXPECT_LE(worst, 1) << "panel " << peak;
    }
}

struct AvifDecoded {
    avifImage* image = nullptr;
    ~AvifDecoded()
    {
        if (image != nullptr) {
            avifImageDestroy(image);
        }
    }
};

bool DecodeAvif(const std::string& path, AvifDecoded* out)
{
    const std::vector<uint8_t> bytes = converttest::ReadFile(path);
    if (bytes.empty()) {
        return false;
    }
    avifDecoder* decoder = avifDecoderCreate();
    out->image = avifImageCreateEmpty();
    const avifResult result = avifDecoderReadMemory(decoder, out->image, bytes.data(), bytes.size());
    avifDecoderDestroy(decoder);
    return result == AVIF_RESULT_OK;
}

TEST(ConvertHdrOutput, AvifIsTenBit444WithPqCicp)
{
    const std::string dir = converttest::FreshDirectory("hdr-avif-cicp");
    const std::string sample = Sample(dir);
    const CommandResult r = RunConverter({"--format", "avif", sample, "-o", dir + "/avif"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    AvifDecoded decoded;
    ASSERT_TRUE(DecodeAvif(dir + "/avif/pic.avif", &decoded));
    EXPECT_EQ(decoded.image->width, 64u);
    EXPECT_EQ(decoded.image->height, 40u);
    EXPECT_EQ(decoded.image->depth, 10u);
    EXPECT_EQ(decoded.image->yuvFormat, AVIF_PIXEL_FORMAT_YUV444);
    EXPECT_EQ(decoded.image->colorPrimaries, AVIF_COLOR_PRIMARIES_BT709);
    EXPECT_EQ(decoded.image->transferCharacteristics, AVIF_TRANSFER_CHARACTERISTICS_SMPTE2084);
    EXPECT_EQ(decoded.image->matrixCoefficients, AVIF_MATRIX_COEFFICIENTS_IDENTITY);
    EXPECT_EQ(decoded.image->yuvRange, AVIF_RANGE_FULL);
    EXPECT_EQ(decoded.image->icc.size, 0u);  // the CICP is the only colour signalling
}

TEST(ConvertHdrOutput, AvifSummaryNamesTheEncoder)
{
    const std::string dir = converttest::FreshDirectory("hdr-avif-summary");
    const std::string sample = Sample(dir);
    const CommandResult r = RunConverter({"--format", "avif", sample, "-o", dir + "/avif"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    const char* encoder = avifCodecName(AVIF_CODEC_CHOICE_AUTO, AVIF_CODEC_FLAG_CAN_ENCODE);
    ASSERT_NE(encoder, nullptr);
    const std::vector<std::string> lines = converttest::Lines(r.out);
    ASSERT_FALSE(lines.empty());
    EXPECT_NE(lines.back().find(std::string("AVIF encoder ") + encoder + " speed 10"), std::string::npos)
        << lines.back();
    EXPECT_NE(lines.back().find("panel 1000 cd/m2"), std::string::npos) << lines.back();
}

// The AVIF is lossy (quantizer 8 at the fastest speed; on this small picture
// with its sharp sun and glints aom gives a worst error of 13.6 and a mean of
// 1.8 of 1023 codes): every sample within 20 codes of the formula, the mean
// error below 2.5 codes. A wrong curve, panel peak or channel order is off
// by tens to hundreds of codes.
TEST(ConvertHdrOutput, AvifPixelsFollowThePanelFormula)
{
    const std::string dir = converttest::FreshDirectory("hdr-avif-pixels");
    const std::string sample = Sample(dir);
    const std::vector<uint8_t> raw = RawOutput(sample, dir);
    ASSERT_EQ(raw.size(), 64u * 40u * 4u);
    ASSERT_EQ(RunConverter({"--format", "avif", "--panel-nits", "1000", sample, "-o", dir + "/avif"}).exitCode, 0);
    AvifDecoded decoded;
    ASSERT_TRUE(DecodeAvif(dir + "/avif/pic.avif", &decoded));
    avifRGBImage rgb;
    avifRGBImageSetDefaults(&rgb, decoded.image);
    rgb.format = AVIF_RGB_FORMAT_RGB;
    rgb.depth = 10;
    avifRGBImageAllocatePixels(&rgb);
    ASSERT_EQ(avifImageYUVToRGB(decoded.image, &rgb), AVIF_RESULT_OK);
    double worst = 0;
    double sum = 0;
    for (uint32_t y = 0; y < 40; ++y) {
        const uint16_t* row = reinterpret_cast<const uint16_t*>(rgb.pixels + y * rgb.rowBytes);
        for (uint32_t x = 0; x < 64; ++x) {
            for (int c = 0; c < 3; ++c) {
                const double expected = Pq(PanelNits(raw[(y * 64 + x) * 4 + static_cast<uint32_t>(c)], 1000)) * 1023.0;
                const double error = std::fabs(row[x * 3 + static_cast<uint32_t>(c)] - expected);
                worst = std::max(worst, error);
                sum += error;
            }
        }
    }
    avifRGBImageFreePixels(&rgb);
    EXPECT_LE(worst, 20.0);
    EXPECT_LT(sum / (64.0 * 40.0 * 3.0), 2.5);
}

TEST(ConvertHdrOutput, HelpNamesTheHdrFormatsAndTheReport)
{
    const CommandResult r = RunConverter({"--help"});
    EXPECT_EQ(r.exitCode, 0);
    for (const char* word : {"pq-png", "avif", "--panel-nits", "--json", "N * sRGB_EOTF(c / 255)"}) {
        EXPECT_NE(r.out.find(word), std::string::npos) << "help does not mention " << word;
    }
}

TEST(ConvertHdrOutput, HdrFormatsRefuseYuvOutput)
{
    const std::string dir = converttest::FreshDirectory("hdr-yuv");
    const std::string sample = Sample(dir);
    for (const char* format : {"pq-png", "avif"}) {
        const CommandResult r = RunConverter({"--yuv", "--format", format, sample, "-o", dir + "/out"});
        EXPECT_EQ(r.exitCode, 2) << format;
        EXPECT_NE(r.err.find("need RGB output"), std::string::npos) << r.err;
    }
}

TEST(ConvertHdrOutput, PanelNitsOutOfRangeIsABadCommandLine)
{
    const std::string dir = converttest::FreshDirectory("hdr-nits");
    const std::string sample = Sample(dir);
    for (const char* nits : {"0", "10001", "-5", "bright"}) {
        const CommandResult r = RunConverter({"--format", "pq-png", "--panel-nits", nits, sample, "-o", dir + "/o"});
        EXPECT_EQ(r.exitCode, 2) << nits;
        EXPECT_NE(r.err.find("--panel-nits takes 1..10000"), std::string::npos) << r.err;
    }
}

}  // namespace
