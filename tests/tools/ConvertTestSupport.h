// Support for the converter's tests: running the hdrgpu-convert executable,
// reading its PNG output, the test's own description of the EXIF
// orientations, and the comparison of a converted picture with the CPU model
// of the gain-map program (support/GainMapModel, support/ConstantsModel)
// applied to the same decoded planes and metadata.
//
// Gain maps whose (oriented) size differs from the output's are sampled by the
// GPU with GL_LINEAR filtering at pixel centres; the comparison samples the
// gain-map planes bilinearly too (clamp to edge, texel centres at
// (i + 0.5) / size). llvmpipe filters 8-bit textures in fixed point (8-bit
// weights, the result as an 8-bit code), so its filtered value is not the
// exact bilinear one. Measured with a probe that draws filtered R8 textures
// into a float target: up to 0.93 codes in one dimension (a full-range step),
// up to 1.0 code in two dimensions even on smooth textures (neighbours
// within 4 codes) and up to 1.78 codes (7.0e-3) on full-range random
// textures. A resampled gain map's values are therefore allowed
// kBilinearSamplerError = 2 codes (7.8e-3) around the exact bilinear value
// instead of the 2.5e-3 of exact texel fetches. (The real photographs, whose
// maps are smooth, also pass with 2.5e-3: the error is diluted on its way
// through the gain; the wider bound is what the filter can do.)
#ifndef HDRGPU_TEST_CONVERT_TEST_SUPPORT_H
#define HDRGPU_TEST_CONVERT_TEST_SUPPORT_H

#include "ConstantsModel.h"
#include "GainMapJpeg.h"
#include "JpegPlanes.h"

#include <cstdint>
#include <string>
#include <vector>

namespace converttest {

// The sampler error of exact texel fetches (as in the end-to-end tests).
constexpr double kSamplerError = 2.5e-3;
// The error a bilinearly filtered 8-bit value may have on llvmpipe (see above).
constexpr double kBilinearSamplerError = 2.0 / 255.0;
// Codes allowed beyond the model's interval for single-precision arithmetic.
constexpr int kArithmeticCodes = 1;

// ---------------------------------------------------------------------------
// Running the converter
// ---------------------------------------------------------------------------

struct CommandResult {
    int exitCode = -1;  // the exit status, or -1 when the process did not exit normally
    std::string out;    // standard output
    std::string err;    // standard error
};

// Runs hdrgpu-convert with args and waits for it.
CommandResult RunConverter(const std::vector<std::string>& args);

// A new, empty directory for one test (under the build tree).
std::string FreshDirectory(const std::string& name);

// The folder of real photographs; empty when it does not exist.
std::string SamplesDirectory();

bool WriteFile(const std::string& path, const std::vector<uint8_t>& bytes);
std::vector<uint8_t> ReadFile(const std::string& path);

// Lines of text (without the line breaks).
std::vector<std::string> Lines(const std::string& text);

// ---------------------------------------------------------------------------
// Pictures
// ---------------------------------------------------------------------------

struct RgbaImage {
    int width = 0;
    int height = 0;
    std::vector<uint8_t> rgba;  // R, G, B, A
};

bool ReadPng(const std::string& path, RgbaImage* image);

// One 8-bit plane.
struct Plane {
    int width = 0;
    int height = 0;
    std::vector<uint8_t> bytes;
    uint8_t At(int x, int y) const { return bytes[static_cast<size_t>(y) * width + x]; }
};

// The displayed form of a stored plane for EXIF orientation 1..8, made of the
// elementary operations the orientation's description names (mirror, turn,
// transpose), written here independently of the converter's own table.
Plane OrientForDisplay(const Plane& stored, int exifOrientation);

Plane PlaneOf(const std::vector<uint8_t>& bytes, int width, int height);

// ---------------------------------------------------------------------------
// The factory tuning from the two system-information keys
// ---------------------------------------------------------------------------

// Key 1301 read as the decimal g PP AA BB CC (GAMMA_MUL = (g + 4) * 32, each
// two-digit group a percentage of 1024 for GAIN_CURVE_P1, G0, G1, G2) and key
// 1302, the panel's peak white, mapped to MDB_V2 (136 up to 30, linear to 254
// at 99, 256 from 100); the other fields keep the factory defaults.
hdrtest::TuningValues TuningFromKeys(int photoHdr, int peakWhite);

// ---------------------------------------------------------------------------
// The comparison with the model
// ---------------------------------------------------------------------------

struct Comparison {
    long long pixels = 0;             // pixels compared
    int largestFromNominal = 0;       // |got - round(255 * model at the exact samples)|
    int largestBeyondInterval = 0;    // codes beyond the model's interval (before the arithmetic code)
    long long mismatches = 0;         // pixels beyond the interval by more than kArithmeticCodes
    bool gainResampled = false;       // the gain map was sampled bilinearly
    int apl = 0;
    std::string firstMismatch;        // a description of the first mismatching pixel
};

struct ModelInput {
    const hdrconvert::YuvPlanes* primary = nullptr;  // stored orientation
    const hdrconvert::YuvPlanes* gainMap = nullptr;  // stored orientation
    hdrconvert::GainMapMetadata metadata;
    int orientation = 1;
    hdrtest::TuningValues tuning;
    bool outputYuv = false;
    int step = 1;  // compare every step-th pixel of every step-th row (plus the last row and column)
};

// Compares every compared pixel of image (the displayed picture, as the
// oriented primary's size) with the model. Alpha must be 255.
Comparison CompareWithModel(const RgbaImage& image, const ModelInput& input);

// A picture converted and compared: parse, decode and compare, for one file.
struct ConvertedFile {
    bool parsed = false;
    std::string parseReason;
    hdrconvert::GainMapJpeg container;
    hdrconvert::YuvPlanes primary;
    hdrconvert::YuvPlanes gainMap;
};

// Parses and decodes a gain-map JPEG with the converter's own reader and
// decoder (the planes the converter gives the library).
ConvertedFile DecodeGainMapFile(const std::vector<uint8_t>& bytes);

}  // namespace converttest

#endif
