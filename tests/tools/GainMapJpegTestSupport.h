// What the gain-map JPEG tests share: libjpeg encoding of small synthetic
// images and decoding of the slices the reader reports; files built byte by
// byte (segments, XMP packets, ISO 21496-1 blocks, MPF indexes, EXIF),
// independently of the library's writer; parsing with expectations; and the
// metadata sets the writer tests and the seed corpus use.
#ifndef HDRGPU_TESTS_GAIN_MAP_JPEG_TEST_SUPPORT_H
#define HDRGPU_TESTS_GAIN_MAP_JPEG_TEST_SUPPORT_H

#include "GainMapJpeg.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace gainmaptest {

using hdrconvert::GainMapJpeg;
using hdrconvert::GainMapMetadata;
using hdrconvert::GainMapWriteOptions;
using hdrconvert::MetadataSource;
using hdrconvert::ParseGainMapJpeg;
using hdrconvert::WriteGainMapJpeg;
using Bytes = std::vector<uint8_t>;

constexpr double kSixDecimals = 5e-7;

bool Parse(const Bytes& file, GainMapJpeg* out, std::string* reason);

// ---------------------------------------------------------------------------
// libjpeg: encoding synthetic images and decoding the slices the reader finds.

struct EncodeOptions {
    int width = 16;
    int height = 8;
    int components = 3;
    bool subsample = true;  // 4:2:0 for three components, else 4:4:4
    bool progressive = false;
    unsigned restartInterval = 0;
    bool jfif = true;
    unsigned seed = 1;
};

Bytes EncodeJpeg(const EncodeOptions& options);

struct JpegInfo {
    bool ok = false;
    int width = 0;
    int height = 0;
    int components = 0;
    std::array<int, 3> hSampling{};
    std::array<int, 3> vSampling{};
};

// Reads the header, and with `full` decodes every scanline too.
JpegInfo DecodeJpeg(const uint8_t* data, size_t size, bool full);

// ---------------------------------------------------------------------------
// Building files byte by byte, independently of the library's writer.

struct Segment {
    uint8_t marker;
    Bytes payload;
};

Segment XmpSegment(const std::string& packet);
Segment ExtendedXmpSegment(const std::string& guid, uint32_t fullLength, uint32_t offset, const std::string& chunk);

// An RDF packet around the given rdf:Description content.
std::string XmpPacket(const std::string& description);

// An rdf:Description in the hdrgm namespace (under `prefix`) with the given
// attributes and child elements.
std::string HdrgmDescription(const std::string& attributes, const std::string& elements = "",
                             const std::string& prefix = "hdrgm");

struct IsoRational {
    int64_t numerator;
    uint32_t denominator;
};

struct IsoFields {
    uint16_t minimumVersion = 0;
    uint8_t flags = 0x40;  // one channel, base colour space
    bool commonDenominator = false;
    uint32_t common = 0;
    IsoRational base{0, 1};
    IsoRational alternate{2, 1};
    // Per channel (1 or 3 used): min, max, gamma, base offset, alternate offset.
    std::array<std::array<IsoRational, 5>, 3> channels{};
};

Segment IsoSegment(const IsoFields& parts);
IsoFields DefaultIso();
// The version-only block a primary carries.
Segment IsoVersionSegment();

struct MpfFields {
    bool present = true;
    bool bigEndian = true;
    uint32_t primaryAttribute = 0x030000;
    uint32_t gainMapAttribute = 0x000000;
    int64_t primarySizeError = 0;  // added to the primary's recorded size
    int64_t offsetError = 0;       // added to the gain map's recorded offset
};

// An EXIF APP1 with IFD0 and IFD1 orientations (0 leaves one out).
Segment ExifSegment(int ifd0Orientation, int ifd1Orientation, bool bigEndian);

Bytes InsertAfterSoi(const Bytes& jpeg, const std::vector<Segment>& segments);

// A whole file: the primary with its segments and an MPF index (placed
// last among them), any bytes in between, the gain map with its segments.
struct FileParts {
    Bytes primaryJpeg;
    Bytes mapJpeg;
    std::vector<Segment> primarySegments;
    std::vector<Segment> mapSegments;
    MpfFields mpf;
    Bytes between;
    Bytes after;
};

struct BuiltFile {
    Bytes bytes;
    size_t primarySize = 0;
    size_t mapOffset = 0;
    size_t mapSize = 0;
};

BuiltFile Build(const FileParts& parts);

Bytes SmallPrimary();
Bytes SmallMap(int components = 1);

// A file whose gain map carries the given hdrgm XMP description.
FileParts XmpFile(const std::string& description);
// XmpFile's primary, with exactly these segments in the map.
FileParts MapSegmentsFile(const std::vector<Segment>& mapSegments);

// The standard XMP packet that points to an extended one.
std::string ExtendedXmpPointer(const std::string& guid);

// ---------------------------------------------------------------------------
// Parsing with expectations.

GainMapJpeg ParseOk(const Bytes& file);
// The reason given for the refusal.
std::string ParseFails(const Bytes& file);

void ExpectChannels(const std::array<double, 3>& actual, const std::array<double, 3>& expected, const char* what,
                    double tolerance = kSixDecimals);
void ExpectMetadata(const GainMapMetadata& actual, const GainMapMetadata& expected, double tolerance = kSixDecimals);

// The reported ranges: inside the file, the map right after the primary
// and running to the end.
void ExpectRanges(const Bytes& file, const GainMapJpeg& parsed);

// ---------------------------------------------------------------------------
// Metadata sets.

GainMapMetadata Metadata(std::array<double, 3> min, std::array<double, 3> max, std::array<double, 3> gamma,
                         double offsetSdr, double offsetHdr, double capacityMin, double capacityMax);

// The writer's test values: a grey map, and one with three channels.
GainMapMetadata OneChannel();
GainMapMetadata ThreeChannels();

}  // namespace gainmaptest

#endif
