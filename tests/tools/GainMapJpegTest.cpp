// Gain-map JPEG reader and writer: the five sample photographs checked
// against their recorded values, truncated and corrupted copies, files built
// here byte by byte (independently of the writer) for each form the reader
// must accept or refuse, and writer round trips.
//
// Synthetic codestreams come from libjpeg so that every slice the reader
// reports can be decoded for real.
#include "GainMapJpeg.h"

#include "ExifOrientation.h"
#include "IsoGainMap.h"
#include "JpegSegments.h"
#include "Mpf.h"
#include "XmpPacket.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <jpeglib.h>

namespace {

using hdrconvert::GainMapJpeg;
using hdrconvert::GainMapMetadata;
using hdrconvert::GainMapWriteOptions;
using hdrconvert::MetadataSource;
using hdrconvert::ParseGainMapJpeg;
using hdrconvert::WriteGainMapJpeg;
using Bytes = std::vector<uint8_t>;
namespace fs = std::filesystem;

constexpr double kSixDecimals = 5e-7;

// ---------------------------------------------------------------------------
// Files and samples.

Bytes ReadFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return Bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

bool SamplesPresent()
{
    return fs::is_directory(HDRGPU_SAMPLES_DIR);
}

Bytes ReadSample(const char* name)
{
    const Bytes bytes = ReadFile(std::string(HDRGPU_SAMPLES_DIR) + "/" + name);
    EXPECT_FALSE(bytes.empty()) << "cannot read sample " << name;
    return bytes;
}

#define REQUIRE_SAMPLES()                                                                     \
    do {                                                                                      \
        if (!SamplesPresent()) GTEST_SKIP() << "no samples folder at " << HDRGPU_SAMPLES_DIR; \
    } while (0)

const char* const kApple = "libavif_apple_gainmap_new.jpg";
const char* const kParis = "libavif_paris_exif_xmp_gainmap_bigendian.jpg";
const char* const kSeine = "libavif_seine_sdr_gainmap_srgb.jpg";
const char* const kPixel = "vearutop_s01_pixel.jpg";
const char* const kSmallUhdr = "vearutop_small_uhdr.jpg";

bool Parse(const Bytes& file, GainMapJpeg* out, std::string* reason)
{
    return ParseGainMapJpeg(file.data(), file.size(), out, reason);
}

// ---------------------------------------------------------------------------
// libjpeg: encoding synthetic images and decoding the slices the reader finds.

struct ErrorManager {
    jpeg_error_mgr mgr;
    jmp_buf jump;
};

void ErrorExit(j_common_ptr info)
{
    longjmp(reinterpret_cast<ErrorManager*>(info->err)->jump, 1);
}

void SilentMessage(j_common_ptr) {}

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

Bytes EncodeJpeg(const EncodeOptions& options)
{
    std::mt19937 random(options.seed);
    std::vector<uint8_t> pixels(static_cast<size_t>(options.width) * options.height * options.components);
    for (int y = 0; y < options.height; ++y) {
        for (int x = 0; x < options.width; ++x) {
            for (int c = 0; c < options.components; ++c) {
                // A gradient with noise, so that the entropy-coded data holds
                // stuffed FF 00 pairs.
                const int ramp = x * 255 / std::max(1, options.width - 1) + c * 60;
                const int value = (ramp + static_cast<int>(random() % 64)) & 0xFF;
                const size_t at = (static_cast<size_t>(y) * options.width + x) * options.components + c;
                pixels[at] = static_cast<uint8_t>(value);
            }
        }
    }
    jpeg_compress_struct cinfo;
    ErrorManager error;
    cinfo.err = jpeg_std_error(&error.mgr);
    error.mgr.error_exit = ErrorExit;
    error.mgr.output_message = SilentMessage;
    unsigned char* buffer = nullptr;
    unsigned long bufferSize = 0;
    if (setjmp(error.jump)) {
        jpeg_destroy_compress(&cinfo);
        std::free(buffer);
        ADD_FAILURE() << "libjpeg could not encode";
        return {};
    }
    jpeg_create_compress(&cinfo);
    jpeg_mem_dest(&cinfo, &buffer, &bufferSize);
    cinfo.image_width = static_cast<JDIMENSION>(options.width);
    cinfo.image_height = static_cast<JDIMENSION>(options.height);
    cinfo.input_components = options.components;
    cinfo.in_color_space = options.components == 3 ? JCS_RGB : JCS_GRAYSCALE;
    jpeg_set_defaults(&cinfo);
    jpeg_set_quality(&cinfo, 90, TRUE);
    cinfo.write_JFIF_header = options.jfif ? TRUE : FALSE;
    if (options.components == 3 && !options.subsample) {
        for (int c = 0; c < 3; ++c) {
            cinfo.comp_info[c].h_samp_factor = 1;
            cinfo.comp_info[c].v_samp_factor = 1;
        }
    }
    cinfo.restart_interval = options.restartInterval;
    if (options.progressive) jpeg_simple_progression(&cinfo);
    jpeg_start_compress(&cinfo, TRUE);
    while (cinfo.next_scanline < cinfo.image_height) {
        JSAMPROW row = &pixels[static_cast<size_t>(cinfo.next_scanline) * options.width * options.components];
        jpeg_write_scanlines(&cinfo, &row, 1);
    }
    jpeg_finish_compress(&cinfo);
    jpeg_destroy_compress(&cinfo);
    Bytes out(buffer, buffer + bufferSize);
    std::free(buffer);
    return out;
}

struct JpegInfo {
    bool ok = false;
    int width = 0;
    int height = 0;
    int components = 0;
    std::array<int, 3> hSampling{};
    std::array<int, 3> vSampling{};
};

// Reads the header, and with `full` decodes every scanline too.
JpegInfo DecodeJpeg(const uint8_t* data, size_t size, bool full)
{
    JpegInfo info;
    jpeg_decompress_struct cinfo;
    ErrorManager error;
    cinfo.err = jpeg_std_error(&error.mgr);
    error.mgr.error_exit = ErrorExit;
    error.mgr.output_message = SilentMessage;
    std::vector<uint8_t> row;
    if (setjmp(error.jump)) {
        jpeg_destroy_decompress(&cinfo);
        return JpegInfo{};
    }
    jpeg_create_decompress(&cinfo);
    jpeg_mem_src(&cinfo, data, static_cast<unsigned long>(size));
    if (jpeg_read_header(&cinfo, TRUE) != JPEG_HEADER_OK) {
        jpeg_destroy_decompress(&cinfo);
        return info;
    }
    info.width = static_cast<int>(cinfo.image_width);
    info.height = static_cast<int>(cinfo.image_height);
    info.components = cinfo.num_components;
    for (int c = 0; c < std::min(3, cinfo.num_components); ++c) {
        info.hSampling[c] = cinfo.comp_info[c].h_samp_factor;
        info.vSampling[c] = cinfo.comp_info[c].v_samp_factor;
    }
    if (full) {
        jpeg_start_decompress(&cinfo);
        row.resize(static_cast<size_t>(cinfo.output_width) * cinfo.output_components);
        while (cinfo.output_scanline < cinfo.output_height) {
            JSAMPROW rows[1] = {row.data()};
            jpeg_read_scanlines(&cinfo, rows, 1);
        }
        jpeg_finish_decompress(&cinfo);
    }
    jpeg_destroy_decompress(&cinfo);
    info.ok = true;
    return info;
}

// ---------------------------------------------------------------------------
// Building files byte by byte, independently of the library's writer.

void Put16(Bytes* out, uint32_t value, bool bigEndian)
{
    if (bigEndian) {
        out->push_back(static_cast<uint8_t>(value >> 8));
        out->push_back(static_cast<uint8_t>(value));
    } else {
        out->push_back(static_cast<uint8_t>(value));
        out->push_back(static_cast<uint8_t>(value >> 8));
    }
}

void Put32(Bytes* out, uint32_t value, bool bigEndian)
{
    if (bigEndian) {
        Put16(out, value >> 16, true);
        Put16(out, value & 0xFFFF, true);
    } else {
        Put16(out, value & 0xFFFF, false);
        Put16(out, value >> 16, false);
    }
}

void PutText(Bytes* out, const std::string& text, bool nul)
{
    out->insert(out->end(), text.begin(), text.end());
    if (nul) out->push_back(0);
}

struct Segment {
    uint8_t marker;
    Bytes payload;
};

Bytes SegmentBytes(const Segment& segment)
{
    Bytes out = {0xFF, segment.marker};
    Put16(&out, static_cast<uint32_t>(segment.payload.size() + 2), true);
    out.insert(out.end(), segment.payload.begin(), segment.payload.end());
    return out;
}

Segment XmpSegment(const std::string& packet)
{
    Segment s{0xE1, {}};
    PutText(&s.payload, "http://ns.adobe.com/xap/1.0/", true);
    PutText(&s.payload, packet, false);
    return s;
}

Segment ExtendedXmpSegment(const std::string& guid, uint32_t fullLength, uint32_t offset, const std::string& chunk)
{
    Segment s{0xE1, {}};
    PutText(&s.payload, "http://ns.adobe.com/xmp/extension/", true);
    PutText(&s.payload, guid, false);
    Put32(&s.payload, fullLength, true);
    Put32(&s.payload, offset, true);
    PutText(&s.payload, chunk, false);
    return s;
}

// An RDF packet around the given rdf:Description content.
std::string XmpPacket(const std::string& description)
{
    return "<?xpacket begin=\"\xEF\xBB\xBF\" id=\"W5M0MpCehiHzreSzNTczkc9d\"?>\n"
           "<x:xmpmeta xmlns:x=\"adobe:ns:meta/\">\n"
           " <rdf:RDF xmlns:rdf=\"http://www.w3.org/1999/02/22-rdf-syntax-ns#\">\n" +
           description +
           "\n </rdf:RDF>\n"
           "</x:xmpmeta>\n"
           "<?xpacket end=\"w\"?>";
}

const char kHdrgmNs[] = "http://ns.adobe.com/hdr-gain-map/1.0/";

// An rdf:Description in the hdrgm namespace (under `prefix`) with the given
// attributes and child elements.
std::string HdrgmDescription(const std::string& attributes, const std::string& elements = "",
                             const std::string& prefix = "hdrgm")
{
    return "  <rdf:Description rdf:about=\"\" xmlns:" + prefix + "=\"" + kHdrgmNs + "\" " + attributes + ">" +
           elements + "</rdf:Description>";
}

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

Segment IsoSegment(const IsoFields& parts)
{
    Segment s{0xE2, {}};
    PutText(&s.payload, "urn:iso:std:iso:ts:21496:-1", true);
    Put16(&s.payload, parts.minimumVersion, true);
    Put16(&s.payload, 0, true);
    const uint8_t flags = static_cast<uint8_t>(parts.flags | (parts.commonDenominator ? 0x08 : 0));
    s.payload.push_back(flags);
    if (parts.commonDenominator) Put32(&s.payload, parts.common, true);
    auto put = [&](const IsoRational& r) {
        Put32(&s.payload, static_cast<uint32_t>(r.numerator), true);
        if (!parts.commonDenominator) Put32(&s.payload, r.denominator, true);
    };
    put(parts.base);
    put(parts.alternate);
    const int channels = (flags & 0x80) != 0 ? 3 : 1;
    for (int c = 0; c < channels; ++c) {
        for (const IsoRational& r : parts.channels[c]) put(r);
    }
    return s;
}

IsoFields DefaultIso()
{
    IsoFields parts;
    for (auto& channel : parts.channels) {
        channel = {IsoRational{-1, 2}, IsoRational{5, 2}, IsoRational{1, 1}, IsoRational{1, 64}, IsoRational{1, 64}};
    }
    return parts;
}

Segment IsoVersionSegment()
{
    Segment s{0xE2, {}};
    PutText(&s.payload, "urn:iso:std:iso:ts:21496:-1", true);
    Put32(&s.payload, 0, true);
    return s;
}

struct MpfFields {
    bool present = true;
    bool bigEndian = true;
    uint32_t primaryAttribute = 0x030000;
    uint32_t gainMapAttribute = 0x000000;
    int64_t primarySizeError = 0;  // added to the primary's recorded size
    int64_t offsetError = 0;       // added to the gain map's recorded offset
};

// The MPF payload for a primary whose MPF marker sits at markerOffset.
Segment MpfSegment(const MpfFields& parts, uint32_t primarySize, uint32_t mapSize, uint32_t mapOffset,
                   size_t markerOffset)
{
    const bool be = parts.bigEndian;
    Segment s{0xE2, {}};
    PutText(&s.payload, "MPF", true);
    PutText(&s.payload, be ? std::string("MM\0*", 4) : std::string("II*\0", 4), false);
    Put32(&s.payload, 8, be);
    Put16(&s.payload, 3, be);
    Put16(&s.payload, 0xB000, be);
    Put16(&s.payload, 7, be);
    Put32(&s.payload, 4, be);
    PutText(&s.payload, "0100", false);
    Put16(&s.payload, 0xB001, be);
    Put16(&s.payload, 4, be);
    Put32(&s.payload, 1, be);
    Put32(&s.payload, 2, be);
    Put16(&s.payload, 0xB002, be);
    Put16(&s.payload, 7, be);
    Put32(&s.payload, 32, be);
    Put32(&s.payload, 50, be);
    Put32(&s.payload, 0, be);
    Put32(&s.payload, parts.primaryAttribute, be);
    Put32(&s.payload, static_cast<uint32_t>(primarySize + parts.primarySizeError), be);
    Put32(&s.payload, 0, be);
    Put32(&s.payload, 0, be);
    Put32(&s.payload, parts.gainMapAttribute, be);
    Put32(&s.payload, mapSize, be);
    Put32(&s.payload, static_cast<uint32_t>(mapOffset - (markerOffset + 8) + parts.offsetError), be);
    Put32(&s.payload, 0, be);
    return s;
}

// An EXIF APP1 with IFD0 and IFD1 orientations (0 leaves one out).
Segment ExifSegment(int ifd0Orientation, int ifd1Orientation, bool bigEndian)
{
    const bool be = bigEndian;
    Segment s{0xE1, {}};
    PutText(&s.payload, std::string("Exif\0\0", 6), false);
    Bytes tiff;
    PutText(&tiff, be ? std::string("MM\0*", 4) : std::string("II*\0", 4), false);
    Put32(&tiff, 8, be);
    // IFD0: a Make tag (ASCII, inline "Cam") and maybe the orientation.
    const uint16_t count0 = ifd0Orientation != 0 ? 2 : 1;
    Put16(&tiff, count0, be);
    Put16(&tiff, 0x010F, be);
    Put16(&tiff, 2, be);
    Put32(&tiff, 4, be);
    PutText(&tiff, "Cam", true);
    if (ifd0Orientation != 0) {
        Put16(&tiff, 0x0112, be);
        Put16(&tiff, 3, be);
        Put32(&tiff, 1, be);
        Put16(&tiff, static_cast<uint32_t>(ifd0Orientation), be);
        Put16(&tiff, 0, be);
    }
    const uint32_t ifd1 = static_cast<uint32_t>(tiff.size() + 4);
    Put32(&tiff, ifd1Orientation != 0 ? ifd1 : 0, be);
    if (ifd1Orientation != 0) {
        Put16(&tiff, 1, be);
        Put16(&tiff, 0x0112, be);
        Put16(&tiff, 3, be);
        Put32(&tiff, 1, be);
        Put16(&tiff, static_cast<uint32_t>(ifd1Orientation), be);
        Put16(&tiff, 0, be);
        Put32(&tiff, 0, be);
    }
    s.payload.insert(s.payload.end(), tiff.begin(), tiff.end());
    return s;
}

Bytes InsertAfterSoi(const Bytes& jpeg, const std::vector<Segment>& segments)
{
    Bytes out(jpeg.begin(), jpeg.begin() + 2);
    for (const Segment& s : segments) {
        const Bytes bytes = SegmentBytes(s);
        out.insert(out.end(), bytes.begin(), bytes.end());
    }
    out.insert(out.end(), jpeg.begin() + 2, jpeg.end());
    return out;
}

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

BuiltFile Build(const FileParts& parts)
{
    BuiltFile built;
    const Bytes map = parts.mapJpeg.empty() ? Bytes() : InsertAfterSoi(parts.mapJpeg, parts.mapSegments);
    std::vector<Segment> primarySegments = parts.primarySegments;
    size_t mpfMarker = 2;
    for (const Segment& s : primarySegments) mpfMarker += s.payload.size() + 4;
    if (parts.mpf.present) primarySegments.push_back(MpfSegment(parts.mpf, 0, 0, 0, mpfMarker));  // size only
    Bytes primary = InsertAfterSoi(parts.primaryJpeg, primarySegments);
    built.primarySize = primary.size();
    built.mapOffset = primary.size() + parts.between.size();
    built.mapSize = map.size();
    if (parts.mpf.present) {
        const Segment mpf = MpfSegment(parts.mpf, static_cast<uint32_t>(primary.size()),
                                       static_cast<uint32_t>(map.size()), static_cast<uint32_t>(built.mapOffset),
                                       mpfMarker);
        const Bytes bytes = SegmentBytes(mpf);
        std::copy(bytes.begin(), bytes.end(), primary.begin() + static_cast<std::ptrdiff_t>(mpfMarker));
    }
    built.bytes = primary;
    built.bytes.insert(built.bytes.end(), parts.between.begin(), parts.between.end());
    built.bytes.insert(built.bytes.end(), map.begin(), map.end());
    built.bytes.insert(built.bytes.end(), parts.after.begin(), parts.after.end());
    return built;
}

Bytes SmallPrimary()
{
    return EncodeJpeg(EncodeOptions{});
}

Bytes SmallMap(int components = 1)
{
    EncodeOptions options;
    options.width = 8;
    options.height = 4;
    options.components = components;
    options.seed = 7;
    return EncodeJpeg(options);
}

// A file whose gain map carries the given hdrgm XMP description.
FileParts XmpFile(const std::string& description)
{
    FileParts parts;
    parts.primaryJpeg = SmallPrimary();
    parts.mapJpeg = SmallMap();
    parts.primarySegments = {XmpSegment(XmpPacket(HdrgmDescription("hdrgm:Version=\"1.0\""))), IsoVersionSegment()};
    parts.mapSegments = {XmpSegment(XmpPacket(description))};
    return parts;
}

GainMapJpeg ParseOk(const Bytes& file)
{
    GainMapJpeg parsed;
    std::string reason;
    EXPECT_TRUE(Parse(file, &parsed, &reason)) << reason;
    return parsed;
}

std::string ParseFails(const Bytes& file)
{
    GainMapJpeg parsed;
    std::string reason = "(unset)";
    EXPECT_FALSE(Parse(file, &parsed, &reason));
    return reason;
}

void ExpectChannels(const std::array<double, 3>& actual, const std::array<double, 3>& expected, const char* what,
                    double tolerance = kSixDecimals)
{
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(actual[c], expected[c], tolerance) << what << " channel " << c;
}

void ExpectMetadata(const GainMapMetadata& actual, const GainMapMetadata& expected, double tolerance = kSixDecimals)
{
    ExpectChannels(actual.gainMapMin, expected.gainMapMin, "GainMapMin", tolerance);
    ExpectChannels(actual.gainMapMax, expected.gainMapMax, "GainMapMax", tolerance);
    ExpectChannels(actual.gamma, expected.gamma, "Gamma", tolerance);
    ExpectChannels(actual.offsetSdr, expected.offsetSdr, "OffsetSDR", tolerance);
    ExpectChannels(actual.offsetHdr, expected.offsetHdr, "OffsetHDR", tolerance);
    EXPECT_NEAR(actual.hdrCapacityMin, expected.hdrCapacityMin, tolerance) << "HDRCapacityMin";
    EXPECT_NEAR(actual.hdrCapacityMax, expected.hdrCapacityMax, tolerance) << "HDRCapacityMax";
    EXPECT_EQ(actual.baseRenditionIsHdr, expected.baseRenditionIsHdr);
}

// The reported ranges: inside the file, the map right after the primary
// and running to the end, both decodable.
void ExpectRanges(const Bytes& file, const GainMapJpeg& parsed)
{
    EXPECT_EQ(parsed.primaryOffset, 0u);
    ASSERT_GE(parsed.primarySize, 4u);
    ASSERT_LE(parsed.primarySize, file.size());
    EXPECT_EQ(file[parsed.primarySize - 2], 0xFF);
    EXPECT_EQ(file[parsed.primarySize - 1], 0xD9);
    ASSERT_LE(parsed.gainMapOffset, file.size());
    ASSERT_LE(parsed.gainMapSize, file.size() - parsed.gainMapOffset);
    EXPECT_EQ(file[parsed.gainMapOffset], 0xFF);
    EXPECT_EQ(file[parsed.gainMapOffset + 1], 0xD8);
}

// ---------------------------------------------------------------------------
// The samples.

struct SampleExpectation {
    const char* name;
    int primaryWidth, primaryHeight, primaryComponents;
    bool primary444;
    int mapWidth, mapHeight, mapComponents;
    bool map444;
    MetadataSource source;
    GainMapMetadata metadata;
};

GainMapMetadata Metadata(std::array<double, 3> min, std::array<double, 3> max, std::array<double, 3> gamma,
                         double offsetSdr, double offsetHdr, double capacityMin, double capacityMax)
{
    GainMapMetadata m;
    m.gainMapMin = min;
    m.gainMapMax = max;
    m.gamma = gamma;
    m.offsetSdr = {offsetSdr, offsetSdr, offsetSdr};
    m.offsetHdr = {offsetHdr, offsetHdr, offsetHdr};
    m.hdrCapacityMin = capacityMin;
    m.hdrCapacityMax = capacityMax;
    return m;
}

std::vector<SampleExpectation> Expectations()
{
    return {
        // paris: a larger grey map; GainMapMax per channel; no GainMapMin,
        // Gamma or BaseRenditionIsHDR (defaults); explicit zero offsets.
        {kParis, 403, 302, 3, false, 512, 384, 1, false, MetadataSource::Xmp,
         Metadata({0, 0, 0}, {3.5, 3.6, 3.7}, {1, 1, 1}, 0.0, 0.0, 0.0, 3.5)},
        {kSeine, 400, 300, 3, true, 400, 300, 3, true, MetadataSource::Xmp,
         Metadata({-0.256907, -0.261365, -0.280284}, {1.277177, 1.277203, 1.277969}, {0.953784, 0.941095, 0.919422},
                  0.015625, 0.015625, 0.0, 1.3)},
        // Pixel: no Gamma (default 1), zero offsets.
        {kPixel, 4080, 3072, 3, false, 1020, 768, 1, false, MetadataSource::Xmp,
         Metadata({0, 0, 0}, {2.656715, 2.656715, 2.656715}, {1, 1, 1}, 0.0, 0.0, 0.0, 2.656715)},
        {kSmallUhdr, 600, 400, 3, false, 600, 400, 3, false, MetadataSource::Iso,
         Metadata({-3.835419, -1.485931, -1.444519}, {3.8396, 3.822845, 3.947876}, {1.114899, 0.630917, 0.610173},
                  0.015625, 0.015625, 0.0, 3.947876)},
    };
}

TEST(GainMapJpegSamples, EachSampleMatchesItsRecordedValues)
{
    REQUIRE_SAMPLES();
    for (const SampleExpectation& e : Expectations()) {
        SCOPED_TRACE(e.name);
        const Bytes file = ReadSample(e.name);
        GainMapJpeg parsed;
        std::string reason;
        ASSERT_TRUE(Parse(file, &parsed, &reason)) << reason;
        ExpectRanges(file, parsed);
        // The map starts at the primary's EOI end and runs to the end of the file.
        EXPECT_EQ(parsed.gainMapOffset, parsed.primarySize);
        EXPECT_EQ(parsed.gainMapOffset + parsed.gainMapSize, file.size());
        EXPECT_EQ(parsed.orientation, 1);
        EXPECT_EQ(parsed.source, e.source);
        EXPECT_TRUE(parsed.hadXmp);
        EXPECT_EQ(parsed.hadIso, e.source == MetadataSource::Iso);
        ExpectMetadata(parsed.metadata, e.metadata);

        const JpegInfo primary = DecodeJpeg(file.data(), parsed.primarySize, false);
        ASSERT_TRUE(primary.ok);
        EXPECT_EQ(primary.width, e.primaryWidth);
        EXPECT_EQ(primary.height, e.primaryHeight);
        EXPECT_EQ(primary.components, e.primaryComponents);
        EXPECT_EQ(primary.hSampling[0], e.primary444 ? 1 : 2);
        const JpegInfo map = DecodeJpeg(file.data() + parsed.gainMapOffset, parsed.gainMapSize, false);
        ASSERT_TRUE(map.ok);
        EXPECT_EQ(map.width, e.mapWidth);
        EXPECT_EQ(map.height, e.mapHeight);
        EXPECT_EQ(map.components, e.mapComponents);
        if (e.mapComponents == 3) {
            EXPECT_EQ(map.hSampling[0], e.map444 ? 1 : 2);
            EXPECT_EQ(map.vSampling[0], e.map444 ? 1 : 2);
        }
    }
}

TEST(GainMapJpegSamples, SmallSlicesDecodeCompletely)
{
    REQUIRE_SAMPLES();
    for (const char* name : {kParis, kSeine, kSmallUhdr}) {
        SCOPED_TRACE(name);
        const Bytes file = ReadSample(name);
        const GainMapJpeg parsed = ParseOk(file);
        EXPECT_TRUE(DecodeJpeg(file.data(), parsed.primarySize, true).ok);
        EXPECT_TRUE(DecodeJpeg(file.data() + parsed.gainMapOffset, parsed.gainMapSize, true).ok);
    }
}

TEST(GainMapJpegSamples, AppleGainMapIsRefused)
{
    REQUIRE_SAMPLES();
    EXPECT_EQ(ParseFails(ReadSample(kApple)), "Apple gain map, unsupported");
}

TEST(GainMapJpegSamples, ThumbnailsInsideTheHeadersAreNotTheEnd)
{
    REQUIRE_SAMPLES();
    // Whole JPEG thumbnails sit in EXIF (small_uhdr, Pixel) and Photoshop
    // APP13 (seine), long before the primary's EOI.
    const std::pair<const char*, size_t> thumbnails[] = {{kSmallUhdr, 926}, {kPixel, 1296}, {kSeine, 15869}};
    for (const auto& thumbnail : thumbnails) {
        SCOPED_TRACE(thumbnail.first);
        const Bytes file = ReadSample(thumbnail.first);
        ASSERT_GT(file.size(), thumbnail.second + 2);
        EXPECT_EQ(file[thumbnail.second], 0xFF);
        EXPECT_EQ(file[thumbnail.second + 1], 0xD8);
        const GainMapJpeg parsed = ParseOk(file);
        EXPECT_GT(parsed.primarySize, thumbnail.second + 1000);
    }
    EXPECT_EQ(ParseOk(ReadSample(kSmallUhdr)).gainMapOffset, 30785u);
}

TEST(GainMapJpegSamples, PixelHasALittleEndianIndexWithAWrongPrimarySize)
{
    REQUIRE_SAMPLES();
    const Bytes file = ReadSample(kPixel);
    hdrconvert::JpegWalk walk;
    std::string detail;
    ASSERT_EQ(hdrconvert::WalkJpeg(file.data(), file.size(), 0, &walk, &detail), hdrconvert::JpegWalkStatus::Ok);
    EXPECT_EQ(walk.end, 2684148u);
    const hdrconvert::JpegSegment* mpfSegment = nullptr;
    for (const hdrconvert::JpegSegment& s : walk.segments) {
        if (s.marker == 0xE2 && hdrconvert::SegmentHasIdentifier(file.data(), s, "MPF", 4)) mpfSegment = &s;
    }
    ASSERT_NE(mpfSegment, nullptr);
    hdrconvert::MpfIndex index;
    ASSERT_TRUE(hdrconvert::ParseMpf(file.data(), *mpfSegment, &index, &detail)) << detail;
    EXPECT_FALSE(index.bigEndian);
    ASSERT_EQ(index.entries.size(), 2u);
    EXPECT_EQ(index.entries[0].size, 2683841u);  // not the real 2 684 148
    EXPECT_EQ(index.base + index.entries[1].offset, 2684148u);

    const GainMapJpeg parsed = ParseOk(file);
    EXPECT_EQ(parsed.primarySize, 2684148u);
    EXPECT_EQ(parsed.gainMapOffset, 2684148u);
}

TEST(GainMapJpegSamples, ParisAndPixelLinkExtendedXmpWithoutGainMapValues)
{
    REQUIRE_SAMPLES();
    for (const char* name : {kParis, kPixel}) {
        SCOPED_TRACE(name);
        const Bytes file = ReadSample(name);
        hdrconvert::JpegWalk walk;
        std::string detail;
        ASSERT_EQ(hdrconvert::WalkJpeg(file.data(), file.size(), 0, &walk, &detail), hdrconvert::JpegWalkStatus::Ok);
        hdrconvert::XmpProperties properties;
        for (const hdrconvert::JpegSegment& s : walk.segments) {
            if (s.marker == 0xE1 &&
                hdrconvert::SegmentHasIdentifier(file.data(), s, "http://ns.adobe.com/xap/1.0/", 29)) {
                ASSERT_TRUE(hdrconvert::ParseXmpPacket(file.data() + s.payloadOffset + 29, s.payloadSize - 29,
                                                       &properties));
                break;
            }
        }
        ASSERT_EQ(properties.extendedXmpGuid.size(), 32u);
        std::vector<uint8_t> extended;
        ASSERT_TRUE(hdrconvert::AssembleExtendedXmp(file.data(), walk.segments, properties.extendedXmpGuid, &extended));
        EXPECT_EQ(extended.size(), std::string(name) == kParis ? 315u : 53614u);
        hdrconvert::XmpProperties extendedProperties;
        EXPECT_TRUE(hdrconvert::ParseXmpPacket(extended.data(), extended.size(), &extendedProperties));
        EXPECT_TRUE(extendedProperties.hdrgm.empty());
        // The primary's packet: Version and the GContainer directory.
        ASSERT_EQ(properties.hdrgm.count("Version"), 1u);
        EXPECT_EQ(properties.hdrgm["Version"], std::vector<std::string>{"1.0"});
        ASSERT_EQ(properties.containerItems.size(), 2u);
        EXPECT_EQ(properties.containerItems[0].semantic, "Primary");
        EXPECT_EQ(properties.containerItems[1].semantic, "GainMap");
        EXPECT_TRUE(properties.containerItems[1].hasLength);
        const GainMapJpeg parsed = ParseOk(file);
        EXPECT_EQ(properties.containerItems[1].length, parsed.gainMapSize);
    }
}

// small_uhdr: the ISO block and the XMP agree to 6 decimals.
TEST(GainMapJpegSamples, SmallUhdrIsoBlockEqualsItsXmp)
{
    REQUIRE_SAMPLES();
    const Bytes file = ReadSample(kSmallUhdr);
    const GainMapJpeg withIso = ParseOk(file);
    ASSERT_EQ(withIso.source, MetadataSource::Iso);
    // Hide the ISO blocks (one identifier byte changed) so that the XMP is read.
    Bytes xmpOnly = file;
    const std::string id = "urn:iso:std:iso:ts:21496:-1";
    size_t hidden = 0;
    for (auto at = std::search(xmpOnly.begin(), xmpOnly.end(), id.begin(), id.end()); at != xmpOnly.end();
         at = std::search(at + 1, xmpOnly.end(), id.begin(), id.end())) {
        *at = 'U';
        ++hidden;
    }
    EXPECT_EQ(hidden, 2u);  // version block in the primary, full block in the map
    const GainMapJpeg fromXmp = ParseOk(xmpOnly);
    EXPECT_EQ(fromXmp.source, MetadataSource::Xmp);
    EXPECT_FALSE(fromXmp.hadIso);
    ExpectMetadata(fromXmp.metadata, withIso.metadata, 1e-6);
    EXPECT_NEAR(withIso.metadata.hdrCapacityMax, 129364.0 / 32768, 1e-12);
    EXPECT_NEAR(withIso.metadata.gainMapMin[0], -125679.0 / 32768, 1e-12);
    EXPECT_NEAR(withIso.metadata.gainMapMax[0], 125816.0 / 32768, 1e-12);
    EXPECT_NEAR(withIso.metadata.gamma[0], 36533.0 / 32768, 1e-12);
    EXPECT_DOUBLE_EQ(withIso.metadata.offsetSdr[0], 1.0 / 64);
}

// Every prefix of every sample is refused, with a reason, without reading
// outside the copy (the sanitizer build checks).
TEST(GainMapJpegSamples, TruncatedCopiesAreRefused)
{
    REQUIRE_SAMPLES();
    for (const char* name : {kApple, kParis, kSeine, kPixel, kSmallUhdr}) {
        SCOPED_TRACE(name);
        const Bytes file = ReadSample(name);
        std::set<size_t> cuts;
        const size_t steps = 311;
        for (size_t i = 0; i < steps; ++i) cuts.insert(file.size() * i / steps);
        for (size_t i = 0; i < 64 && i < file.size(); ++i) cuts.insert(i);
        for (size_t i = 1; i <= 8; ++i) cuts.insert(file.size() - i);
        GainMapJpeg whole;
        std::string reason;
        if (Parse(file, &whole, &reason)) {
            for (size_t d = 0; d <= 6; ++d) {
                cuts.insert(whole.primarySize - 3 + d);
                cuts.insert(whole.gainMapOffset + 100 + d);
            }
        }
        for (size_t cut : cuts) {
            if (cut >= file.size()) continue;
            const Bytes copy(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(cut));
            GainMapJpeg parsed;
            std::string why;
            EXPECT_FALSE(ParseGainMapJpeg(copy.data(), copy.size(), &parsed, &why)) << "cut at " << cut;
            EXPECT_FALSE(why.empty()) << "cut at " << cut;
        }
    }
}

TEST(GainMapJpegSamples, TruncationReasonsSayTruncated)
{
    REQUIRE_SAMPLES();
    const Bytes file = ReadSample(kSmallUhdr);
    for (size_t cut : {size_t{100}, size_t{20000}, size_t{30785}, size_t{30790}, size_t{35000}, file.size() - 1}) {
        const Bytes copy(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(cut));
        EXPECT_EQ(ParseFails(copy), "truncated file") << "cut at " << cut;
    }
}

// ---------------------------------------------------------------------------
// Files without a gain map, and refusals.

TEST(GainMapJpegRefusals, PlainJpegHasNoGainMap)
{
    EXPECT_EQ(ParseFails(SmallPrimary()), "no gain map");
    FileParts parts;
    parts.primaryJpeg = SmallPrimary();
    const Bytes withXmp =
        InsertAfterSoi(parts.primaryJpeg, {XmpSegment(XmpPacket(HdrgmDescription("hdrgm:Version=\"1.0\"")))});
    EXPECT_EQ(ParseFails(withXmp), "no gain map");
}

TEST(GainMapJpegRefusals, SecondImageWithoutMetadataIsNoGainMap)
{
    FileParts parts;
    parts.primaryJpeg = SmallPrimary();
    parts.mapJpeg = SmallMap();
    const std::string reason = ParseFails(Build(parts).bytes);
    EXPECT_EQ(reason.rfind("no gain map", 0), 0u) << reason;
}

TEST(GainMapJpegRefusals, NotAJpeg)
{
    EXPECT_EQ(ParseFails(Bytes{'G', 'I', 'F', '8', '9', 'a'}), "not a JPEG file");
    EXPECT_FALSE(ParseGainMapJpeg(nullptr, 0, nullptr, nullptr));
    EXPECT_EQ(ParseFails(Bytes{0xFF, 0xD8}), "truncated file");
}

TEST(GainMapJpegRefusals, HdrBaseIsRefused)
{
    // XMP only.
    FileParts xmp = XmpFile(HdrgmDescription(
        "hdrgm:Version=\"1.0\" hdrgm:BaseRenditionIsHDR=\"True\" hdrgm:GainMapMax=\"2\" hdrgm:HDRCapacityMax=\"2\""));
    EXPECT_EQ(ParseFails(Build(xmp).bytes), "base rendition is HDR (unsupported)");
    // ISO: the alternate headroom below the base headroom.
    IsoFields iso = DefaultIso();
    iso.base = {3, 1};
    iso.alternate = {0, 1};
    FileParts parts = XmpFile(HdrgmDescription("hdrgm:GainMapMax=\"2\" hdrgm:HDRCapacityMax=\"2\""));
    parts.mapSegments.push_back(IsoSegment(iso));
    EXPECT_EQ(ParseFails(Build(parts).bytes), "base rendition is HDR (unsupported)");
}

TEST(GainMapJpegRefusals, EqualIsoHeadroomsAreRefused)
{
    IsoFields iso = DefaultIso();
    iso.base = {1, 2};
    iso.alternate = {2, 4};
    FileParts parts = XmpFile(HdrgmDescription("hdrgm:GainMapMax=\"2\" hdrgm:HDRCapacityMax=\"2\""));
    parts.mapSegments.push_back(IsoSegment(iso));
    EXPECT_EQ(ParseFails(Build(parts).bytes), "gain map not to be applied (equal headrooms)");
}

TEST(GainMapJpegRefusals, ZeroIsoDenominatorIsRefused)
{
    for (int field = 0; field < 7; ++field) {
        SCOPED_TRACE(field);
        IsoFields iso = DefaultIso();
        if (field == 0) iso.base.denominator = 0;
        if (field == 1) iso.alternate.denominator = 0;
        if (field >= 2) iso.channels[0][static_cast<size_t>(field - 2)].denominator = 0;
        FileParts parts = XmpFile("");
        parts.mapSegments = {IsoSegment(iso)};
        EXPECT_EQ(ParseFails(Build(parts).bytes), "corrupt ISO 21496-1 gain map metadata (zero denominator)");
    }
    IsoFields common = DefaultIso();
    common.commonDenominator = true;
    common.common = 0;
    FileParts parts = XmpFile("");
    parts.mapSegments = {IsoSegment(common)};
    EXPECT_EQ(ParseFails(Build(parts).bytes), "corrupt ISO 21496-1 gain map metadata (zero denominator)");
}

TEST(GainMapJpegRefusals, ShortIsoBlockIsRefusedButXmpStillServes)
{
    Segment iso = IsoSegment(DefaultIso());
    iso.payload.resize(iso.payload.size() - 3);
    FileParts parts = XmpFile("");
    parts.mapSegments = {iso};
    EXPECT_EQ(ParseFails(Build(parts).bytes), "corrupt ISO 21496-1 gain map metadata (too short)");
    // With valid hdrgm XMP beside the broken block, the XMP is used.
    FileParts both = XmpFile(HdrgmDescription("hdrgm:GainMapMax=\"2\" hdrgm:HDRCapacityMax=\"2\""));
    both.mapSegments.push_back(iso);
    const GainMapJpeg parsed = ParseOk(Build(both).bytes);
    EXPECT_EQ(parsed.source, MetadataSource::Xmp);
    EXPECT_FALSE(parsed.hadIso);
}

TEST(GainMapJpegRefusals, UnsupportedIsoVersionDefersToXmp)
{
    IsoFields iso = DefaultIso();
    iso.minimumVersion = 1;
    FileParts parts = XmpFile("");
    parts.mapSegments = {IsoSegment(iso)};
    EXPECT_EQ(ParseFails(Build(parts).bytes), "unsupported ISO 21496-1 gain map metadata version 1");
    FileParts both = XmpFile(HdrgmDescription("hdrgm:GainMapMax=\"2\" hdrgm:HDRCapacityMax=\"2\""));
    both.mapSegments.push_back(IsoSegment(iso));
    EXPECT_EQ(ParseOk(Build(both).bytes).source, MetadataSource::Xmp);
}

TEST(GainMapJpegRefusals, RequiredXmpFieldsAreNamed)
{
    EXPECT_EQ(ParseFails(Build(XmpFile(HdrgmDescription("hdrgm:HDRCapacityMax=\"2\""))).bytes),
              "gain map metadata missing GainMapMax");
    EXPECT_EQ(ParseFails(Build(XmpFile(HdrgmDescription("hdrgm:GainMapMax=\"2\""))).bytes),
              "gain map metadata missing HDRCapacityMax");
    EXPECT_EQ(ParseFails(Build(XmpFile(HdrgmDescription("hdrgm:GainMapMax=\"two\" hdrgm:HDRCapacityMax=\"2\""))).bytes),
              "gain map metadata GainMapMax is not a number");
    EXPECT_EQ(ParseFails(Build(XmpFile(HdrgmDescription(
                                   "hdrgm:GainMapMax=\"2\" hdrgm:HDRCapacityMax=\"2\" "
                                   "hdrgm:BaseRenditionIsHDR=\"maybe\"")))
                             .bytes),
              "gain map metadata BaseRenditionIsHDR is not True or False");
    EXPECT_EQ(ParseFails(Build(XmpFile(HdrgmDescription("hdrgm:GainMapMax=\"2\" hdrgm:HDRCapacityMax=\"2\" "
                                                        "hdrgm:HDRCapacityMin=\"2\"")))
                             .bytes),
              "gain map metadata has HDRCapacityMax <= HDRCapacityMin");
    EXPECT_EQ(ParseFails(Build(XmpFile(HdrgmDescription("hdrgm:GainMapMax=\"2\" hdrgm:HDRCapacityMax=\"2\" "
                                                        "hdrgm:Gamma=\"0\"")))
                             .bytes),
              "gain map metadata has Gamma <= 0");
    EXPECT_EQ(ParseFails(Build(XmpFile(HdrgmDescription("hdrgm:GainMapMax=\"2\" hdrgm:HDRCapacityMax=\"2\" "
                                                        "hdrgm:GainMapMin=\"3\"")))
                             .bytes),
              "gain map metadata has GainMapMin > GainMapMax");
}

TEST(GainMapJpegRefusals, SeqOfTwoIsInvalid)
{
    const std::string seq2 =
        "<hdrgm:GainMapMax><rdf:Seq><rdf:li>1</rdf:li><rdf:li>2</rdf:li></rdf:Seq></hdrgm:GainMapMax>";
    EXPECT_EQ(ParseFails(Build(XmpFile(HdrgmDescription("hdrgm:HDRCapacityMax=\"2\"", seq2))).bytes),
              "gain map metadata GainMapMax has 2 values (1 or 3 allowed)");
    const std::string capacitySeq =
        "<hdrgm:HDRCapacityMax><rdf:Seq><rdf:li>1</rdf:li><rdf:li>2</rdf:li><rdf:li>3</rdf:li></rdf:Seq>"
        "</hdrgm:HDRCapacityMax>";
    EXPECT_EQ(ParseFails(Build(XmpFile(HdrgmDescription("hdrgm:GainMapMax=\"2\"", capacitySeq))).bytes),
              "gain map metadata HDRCapacityMax has 3 values (1 allowed)");
}

TEST(GainMapJpegRefusals, SyntheticAppleMapIsRefused)
{
    const std::string apple =
        "  <rdf:Description rdf:about=\"\" xmlns:HDRGainMap=\"http://ns.apple.com/HDRGainMap/1.0/\">"
        "<HDRGainMap:HDRGainMapVersion>131072</HDRGainMap:HDRGainMapVersion>"
        "<HDRGainMap:HDRGainMapHeadroom>4.532783</HDRGainMap:HDRGainMapHeadroom></rdf:Description>";
    FileParts parts = XmpFile(apple);
    parts.primarySegments.clear();
    EXPECT_EQ(ParseFails(Build(parts).bytes), "Apple gain map, unsupported");
}

TEST(GainMapJpegRefusals, MalformedXmpIsNotMetadata)
{
    FileParts parts = XmpFile("<rdf:Description hdrgm:GainMapMax=\"2\"");  // not well-formed
    const std::string reason = ParseFails(Build(parts).bytes);
    EXPECT_NE(reason.find("not well-formed"), std::string::npos) << reason;
    // A DTD (and its entities) is refused outright.
    FileParts dtd = XmpFile("");
    dtd.mapSegments = {XmpSegment("<!DOCTYPE x [<!ENTITY a \"2\">]>" +
                                  XmpPacket(HdrgmDescription("hdrgm:GainMapMax=\"&a;\" hdrgm:HDRCapacityMax=\"2\"")))};
    EXPECT_FALSE(Parse(Build(dtd).bytes, nullptr, nullptr));
}

TEST(GainMapJpegRefusals, CorruptMpfIsRefused)
{
    FileParts parts = XmpFile(HdrgmDescription("hdrgm:GainMapMax=\"2\" hdrgm:HDRCapacityMax=\"2\""));
    BuiltFile built = Build(parts);
    // The byte-order field of the MPF header, after "MPF\0".
    const std::string id("MPF\0", 4);
    auto at = std::search(built.bytes.begin(), built.bytes.end(), id.begin(), id.end());
    ASSERT_NE(at, built.bytes.end());
    at[4] = 'X';
    EXPECT_EQ(ParseFails(built.bytes), "corrupt MPF index (byte order)");
}

// ---------------------------------------------------------------------------
// Forms of the metadata the reader accepts.

GainMapMetadata ParseMetadata(const std::string& description)
{
    const GainMapJpeg parsed = ParseOk(Build(XmpFile(description)).bytes);
    EXPECT_EQ(parsed.source, MetadataSource::Xmp);
    return parsed.metadata;
}

TEST(GainMapJpegForms, DefaultsFillMissingFields)
{
    const GainMapMetadata m = ParseMetadata(HdrgmDescription("hdrgm:GainMapMax=\"2.5\" hdrgm:HDRCapacityMax=\"2\""));
    ExpectMetadata(m, Metadata({0, 0, 0}, {2.5, 2.5, 2.5}, {1, 1, 1}, 1.0 / 64, 1.0 / 64, 0.0, 2.0), 0.0);
}

TEST(GainMapJpegForms, ExplicitZeroOffsetsStayZero)
{
    const GainMapMetadata m = ParseMetadata(HdrgmDescription(
        "hdrgm:GainMapMax=\"2.5\" hdrgm:HDRCapacityMax=\"2\" hdrgm:OffsetSDR=\"0\" hdrgm:OffsetHDR=\"0.000000\""));
    ExpectChannels(m.offsetSdr, {0, 0, 0}, "OffsetSDR", 0.0);
    ExpectChannels(m.offsetHdr, {0, 0, 0}, "OffsetHDR", 0.0);
}

TEST(GainMapJpegForms, ElementTextAndSequences)
{
    const std::string elements =
        "<hdrgm:GainMapMin>\n  -0.5 </hdrgm:GainMapMin>"
        "<hdrgm:GainMapMax><rdf:Seq><rdf:li>1.5</rdf:li><rdf:li>2.5</rdf:li><rdf:li>3.5</rdf:li></rdf:Seq>"
        "</hdrgm:GainMapMax>"
        "<hdrgm:Gamma><rdf:Seq><rdf:li>0.8</rdf:li></rdf:Seq></hdrgm:Gamma>"
        "<hdrgm:HDRCapacityMax>3.5</hdrgm:HDRCapacityMax>"
        "<hdrgm:BaseRenditionIsHDR>False</hdrgm:BaseRenditionIsHDR>";
    const GainMapMetadata m = ParseMetadata(HdrgmDescription("hdrgm:HDRCapacityMin=\"+0.25\"", elements));
    ExpectChannels(m.gainMapMin, {-0.5, -0.5, -0.5}, "GainMapMin", 0.0);
    ExpectChannels(m.gainMapMax, {1.5, 2.5, 3.5}, "GainMapMax", 0.0);
    ExpectChannels(m.gamma, {0.8, 0.8, 0.8}, "Gamma", 0.0);
    EXPECT_EQ(m.hdrCapacityMin, 0.25);
    EXPECT_EQ(m.hdrCapacityMax, 3.5);
}

TEST(GainMapJpegForms, NamespaceUriMattersNotThePrefix)
{
    const GainMapMetadata m =
        ParseMetadata(HdrgmDescription("gm:GainMapMax=\"1.25\" gm:HDRCapacityMax=\"1.5\"", "", "gm"));
    EXPECT_EQ(m.gainMapMax[2], 1.25);
    // The usual prefix bound to another URI is not hdrgm.
    const std::string other =
        "  <rdf:Description rdf:about=\"\" xmlns:hdrgm=\"http://example.com/not-hdrgm/\" "
        "hdrgm:GainMapMax=\"2\" hdrgm:HDRCapacityMax=\"2\"/>";
    const std::string reason = ParseFails(Build(XmpFile(other)).bytes);
    EXPECT_EQ(reason.rfind("no gain map", 0), 0u) << reason;
}

TEST(GainMapJpegForms, ValuesInThePrimaryAreUsedWhenTheMapHasNone)
{
    FileParts parts;
    parts.primaryJpeg = SmallPrimary();
    parts.mapJpeg = SmallMap();
    parts.primarySegments = {
        XmpSegment(XmpPacket(HdrgmDescription("hdrgm:GainMapMax=\"1.75\" hdrgm:HDRCapacityMax=\"1.5\"")))};
    EXPECT_EQ(ParseOk(Build(parts).bytes).metadata.gainMapMax[0], 1.75);
    // The map's own values win.
    parts.mapSegments = {
        XmpSegment(XmpPacket(HdrgmDescription("hdrgm:GainMapMax=\"0.5\" hdrgm:HDRCapacityMax=\"1\"")))};
    EXPECT_EQ(ParseOk(Build(parts).bytes).metadata.gainMapMax[0], 0.5);
}

TEST(GainMapJpegForms, ExtendedXmpIsSearched)
{
    const std::string guid = "0123456789ABCDEF0123456789ABCDEF";
    const std::string extended =
        XmpPacket(HdrgmDescription("hdrgm:GainMapMax=\"2.25\" hdrgm:HDRCapacityMax=\"2\" hdrgm:Gamma=\"1.5\""));
    const std::string standard = XmpPacket(
        "  <rdf:Description rdf:about=\"\" xmlns:xmpNote=\"http://ns.adobe.com/xmp/note/\" "
        "xmpNote:HasExtendedXMP=\"" +
        guid + "\"/>");
    const uint32_t full = static_cast<uint32_t>(extended.size());
    const uint32_t half = full / 2;
    FileParts parts = XmpFile("");
    // Two chunks, second first, plus a chunk of another packet.
    parts.mapSegments = {XmpSegment(standard),
                        ExtendedXmpSegment(guid, full, half, extended.substr(half)),
                        ExtendedXmpSegment("FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF", 5, 0, "junk!"),
                        ExtendedXmpSegment(guid, full, 0, extended.substr(0, half))};
    const GainMapMetadata m = ParseOk(Build(parts).bytes).metadata;
    EXPECT_EQ(m.gainMapMax[0], 2.25);
    EXPECT_EQ(m.gamma[1], 1.5);
    // With a chunk missing the extended packet is ignored.
    parts.mapSegments.pop_back();
    const std::string reason = ParseFails(Build(parts).bytes);
    EXPECT_EQ(reason.rfind("no gain map", 0), 0u) << reason;
}

TEST(GainMapJpegForms, IsoWinsOverDisagreeingXmp)
{
    IsoFields iso = DefaultIso();
    iso.base = {1, 4};
    iso.alternate = {3, 1};
    iso.flags = 0xC0;
    iso.channels[1][1] = {11, 4};  // GainMapMax G = 2.75
    iso.channels[2][2] = {1, 2};   // Gamma B = 0.5
    iso.channels[0][3] = {0, 1};   // base offset R = 0
    iso.channels[2][4] = {1, 32};  // alternate offset B
    FileParts parts = XmpFile(HdrgmDescription("hdrgm:GainMapMax=\"1\" hdrgm:HDRCapacityMax=\"1\""));
    parts.mapSegments.push_back(IsoSegment(iso));
    const GainMapJpeg parsed = ParseOk(Build(parts).bytes);
    EXPECT_EQ(parsed.source, MetadataSource::Iso);
    EXPECT_TRUE(parsed.hadXmp);
    EXPECT_TRUE(parsed.hadIso);
    GainMapMetadata expected =
        Metadata({-0.5, -0.5, -0.5}, {2.5, 2.75, 2.5}, {1, 1, 0.5}, 1.0 / 64, 1.0 / 64, 0.25, 3.0);
    expected.offsetSdr[0] = 0;
    expected.offsetHdr[2] = 1.0 / 32;
    ExpectMetadata(parsed.metadata, expected, 0.0);
}

TEST(GainMapJpegForms, IsoCommonDenominatorAndOneRecord)
{
    IsoFields iso = DefaultIso();
    iso.commonDenominator = true;
    iso.common = 1 << 16;
    iso.base = {0, 0};
    iso.alternate = {3 << 15, 0};  // 1.5
    iso.channels[0] = {IsoRational{-(1 << 14), 0}, IsoRational{5 << 15, 0}, IsoRational{1 << 16, 0},
                       IsoRational{1 << 10, 0}, IsoRational{0, 0}};
    FileParts parts = XmpFile("");
    parts.mapSegments = {IsoSegment(iso)};
    const GainMapJpeg parsed = ParseOk(Build(parts).bytes);
    EXPECT_EQ(parsed.source, MetadataSource::Iso);
    EXPECT_FALSE(parsed.hadXmp);
    ExpectMetadata(parsed.metadata,
                   Metadata({-0.25, -0.25, -0.25}, {2.5, 2.5, 2.5}, {1, 1, 1}, 1.0 / 64, 0.0, 0.0, 1.5),
                   0.0);
}

TEST(GainMapJpegForms, FullIsoBlockInThePrimaryIsRead)
{
    FileParts parts = XmpFile("");
    parts.mapSegments = {};
    // A full block in the primary only (some writers): still read.
    parts.primarySegments = {IsoSegment(DefaultIso())};
    EXPECT_EQ(ParseOk(Build(parts).bytes).source, MetadataSource::Iso);
}

// ---------------------------------------------------------------------------
// Locating the gain map.

TEST(GainMapJpegLocation, BothMpfByteOrders)
{
    for (bool bigEndian : {true, false}) {
        SCOPED_TRACE(bigEndian);
        FileParts parts = XmpFile(HdrgmDescription("hdrgm:GainMapMax=\"2\" hdrgm:HDRCapacityMax=\"2\""));
        parts.mpf.bigEndian = bigEndian;
        parts.mpf.primarySizeError = 70;  // a wrong primary size is ignored
        parts.mpf.gainMapAttribute = bigEndian ? 0x000000 : 0x050000;
        // Junk with an SOI in it between the images: only the index finds the map.
        parts.between = {0x00, 0xFF, 0xD8, 0xFF, 0xE0, 0x00, 0x02, 0x00};
        const BuiltFile built = Build(parts);
        const GainMapJpeg parsed = ParseOk(built.bytes);
        EXPECT_EQ(parsed.primarySize, built.primarySize);
        EXPECT_EQ(parsed.gainMapOffset, built.mapOffset);
        EXPECT_EQ(parsed.gainMapSize, built.mapSize);
        EXPECT_TRUE(DecodeJpeg(built.bytes.data() + parsed.gainMapOffset, parsed.gainMapSize, true).ok);
    }
}

TEST(GainMapJpegLocation, WrongTargetFallsBackToTheFirstSoiAfterThePrimary)
{
    FileParts parts = XmpFile(HdrgmDescription("hdrgm:GainMapMax=\"2\" hdrgm:HDRCapacityMax=\"2\""));
    parts.mpf.offsetError = 5;
    parts.between = {0x00, 0x11, 0x22};
    const BuiltFile built = Build(parts);
    const GainMapJpeg parsed = ParseOk(built.bytes);
    EXPECT_EQ(parsed.gainMapOffset, built.mapOffset);
    EXPECT_EQ(parsed.gainMapSize, built.mapSize);
}

TEST(GainMapJpegLocation, TargetBeyondTheEndIsTruncation)
{
    FileParts parts = XmpFile(HdrgmDescription("hdrgm:GainMapMax=\"2\" hdrgm:HDRCapacityMax=\"2\""));
    parts.mpf.offsetError = 1 << 20;
    EXPECT_EQ(ParseOk(Build(parts).bytes).gainMapOffset, Build(parts).mapOffset);  // fallback finds it
    const BuiltFile built = Build(parts);
    const Bytes primaryOnly(built.bytes.begin(), built.bytes.begin() + static_cast<std::ptrdiff_t>(built.primarySize));
    EXPECT_EQ(ParseFails(primaryOnly), "truncated file");
}

TEST(GainMapJpegLocation, ContainerDirectoryWithoutMpf)
{
    const std::string values = HdrgmDescription("hdrgm:GainMapMax=\"2\" hdrgm:HDRCapacityMax=\"2\"");
    const Bytes map = InsertAfterSoi(SmallMap(), {XmpSegment(XmpPacket(values))});
    // Padding after the primary holds a decoy SOI; only the directory's
    // padding and lengths lead past it.
    const std::string directory =
        "  <rdf:Description rdf:about=\"\" xmlns:hdrgm=\"http://ns.adobe.com/hdr-gain-map/1.0/\" "
        "xmlns:Container=\"http://ns.google.com/photos/1.0/container/\" "
        "xmlns:Item=\"http://ns.google.com/photos/1.0/container/item/\" hdrgm:Version=\"1.0\">"
        "<Container:Directory><rdf:Seq>"
        "<rdf:li rdf:parseType=\"Resource\"><Container:Item Item:Semantic=\"Primary\" Item:Mime=\"image/jpeg\" "
        "Item:Padding=\"4\"/></rdf:li>"
        "<rdf:li rdf:parseType=\"Resource\"><Container:Item><Item:Semantic>Depth</Item:Semantic>"
        "<Item:Mime>image/jpeg</Item:Mime><Item:Length>8</Item:Length></Container:Item></rdf:li>"
        "<rdf:li rdf:parseType=\"Resource\"><Container:Item Item:Semantic=\"GainMap\" Item:Mime=\"image/jpeg\" "
        "Item:Length=\"" +
        std::to_string(map.size()) +
        "\"/></rdf:li>"
        "</rdf:Seq></Container:Directory></rdf:Description>";
    FileParts parts;
    parts.primaryJpeg = SmallPrimary();
    parts.primarySegments = {XmpSegment(XmpPacket(directory))};
    parts.mpf.present = false;
    const BuiltFile primaryOnly = Build(parts);
    Bytes file = primaryOnly.bytes;
    const Bytes junk = {0xFF, 0xD8, 0xFF, 0xE0, 0, 0, 0, 0, 0, 0, 0, 0};  // padding + "depth" item
    file.insert(file.end(), junk.begin(), junk.end());
    const size_t mapOffset = file.size();
    file.insert(file.end(), map.begin(), map.end());
    const GainMapJpeg parsed = ParseOk(file);
    EXPECT_EQ(parsed.gainMapOffset, mapOffset);
    EXPECT_EQ(parsed.gainMapSize, map.size());
}

TEST(GainMapJpegLocation, ProgressiveAndRestartCodestreams)
{
    for (int variant = 0; variant < 3; ++variant) {
        SCOPED_TRACE(variant);
        EncodeOptions primary;
        primary.width = 40;
        primary.height = 24;
        primary.progressive = variant != 1;
        primary.restartInterval = variant != 0 ? 1 : 0;
        EncodeOptions map = primary;
        map.components = 3;
        map.subsample = false;
        map.seed = 3;
        FileParts parts = XmpFile(HdrgmDescription("hdrgm:GainMapMax=\"2\" hdrgm:HDRCapacityMax=\"2\""));
        parts.primaryJpeg = EncodeJpeg(primary);
        parts.mapJpeg = EncodeJpeg(map);
        const BuiltFile built = Build(parts);
        const GainMapJpeg parsed = ParseOk(built.bytes);
        EXPECT_EQ(parsed.primarySize, built.primarySize);
        EXPECT_EQ(parsed.gainMapOffset, built.mapOffset);
        EXPECT_EQ(parsed.gainMapSize, built.mapSize);
    }
}

TEST(GainMapJpegLocation, TrailingBytesAfterTheMapAreNotPartOfIt)
{
    FileParts parts = XmpFile(HdrgmDescription("hdrgm:GainMapMax=\"2\" hdrgm:HDRCapacityMax=\"2\""));
    parts.after = {0x00, 0x01, 0x02, 0xFF, 0xD9};
    const BuiltFile built = Build(parts);
    EXPECT_EQ(ParseOk(built.bytes).gainMapSize, built.mapSize);
}

// ---------------------------------------------------------------------------
// EXIF orientation.

TEST(GainMapJpegOrientation, FromIfd0OnlyInEitherByteOrder)
{
    for (bool bigEndian : {true, false}) {
        SCOPED_TRACE(bigEndian);
        FileParts parts = XmpFile(HdrgmDescription("hdrgm:GainMapMax=\"2\" hdrgm:HDRCapacityMax=\"2\""));
        parts.primarySegments.insert(parts.primarySegments.begin(), ExifSegment(3, 6, bigEndian));
        EXPECT_EQ(ParseOk(Build(parts).bytes).orientation, 3);
        parts.primarySegments.front() = ExifSegment(0, 6, bigEndian);  // only the thumbnail has one
        EXPECT_EQ(ParseOk(Build(parts).bytes).orientation, 1);
        parts.primarySegments.front() = ExifSegment(9, 0, bigEndian);  // out of range
        EXPECT_EQ(ParseOk(Build(parts).bytes).orientation, 1);
        // The map's EXIF is ignored.
        parts.primarySegments.front() = ExifSegment(8, 0, bigEndian);
        parts.mapSegments.push_back(ExifSegment(5, 0, bigEndian));
        EXPECT_EQ(ParseOk(Build(parts).bytes).orientation, 8);
    }
}

// ---------------------------------------------------------------------------
// The writer.

GainMapMetadata OneChannel()
{
    return Metadata({-0.125, -0.125, -0.125}, {2.656715, 2.656715, 2.656715}, {1.0, 1.0, 1.0}, 0.0, 1.0 / 64, 0.0,
                    2.656715);
}

GainMapMetadata ThreeChannels()
{
    GainMapMetadata m = Metadata({-3.835419, -1.485931, -1.444519}, {3.8396, 3.822845, 3.947876},
                                 {1.114899, 0.630917, 0.610173}, 0.015625, 0.015625, 0.5, 3.947876);
    m.offsetHdr = {0.01, 0.02, 0.03};
    return m;
}

struct WriterCase {
    const char* name;
    GainMapMetadata metadata;
    int mapComponents;
};

TEST(GainMapJpegWriter, RoundTrip)
{
    const WriterCase cases[] = {{"one channel", OneChannel(), 1}, {"three channels", ThreeChannels(), 3}};
    for (const WriterCase& c : cases) {
        for (bool littleEndian : {false, true}) {
            for (int orientation : {1, 6}) {
                for (int layout = 0; layout < 3; ++layout) {  // XMP + ISO, XMP only, ISO only
                    SCOPED_TRACE(std::string(c.name) + (littleEndian ? " LE" : " BE") + " orientation " +
                                 std::to_string(orientation) + " layout " + std::to_string(layout));
                    const Bytes primary = SmallPrimary();
                    const Bytes map = SmallMap(c.mapComponents);
                    GainMapWriteOptions options;
                    options.orientation = orientation;
                    options.littleEndianMpf = littleEndian;
                    options.writeXmp = layout != 2;
                    options.writeIso = layout != 1;
                    const Bytes file = WriteGainMapJpeg(primary, map, c.metadata, options);
                    ASSERT_FALSE(file.empty());
                    GainMapJpeg parsed;
                    std::string reason;
                    ASSERT_TRUE(Parse(file, &parsed, &reason)) << reason;
                    ExpectRanges(file, parsed);
                    EXPECT_EQ(parsed.gainMapOffset, parsed.primarySize);
                    EXPECT_EQ(parsed.gainMapOffset + parsed.gainMapSize, file.size());
                    EXPECT_EQ(parsed.orientation, orientation);
                    EXPECT_EQ(parsed.source, layout == 1 ? MetadataSource::Xmp : MetadataSource::Iso);
                    EXPECT_EQ(parsed.hadXmp, layout != 2);
                    EXPECT_EQ(parsed.hadIso, layout != 1);
                    ExpectMetadata(parsed.metadata, c.metadata, layout == 1 ? 0.0 : 1e-9);
                    // Both slices are whole JPEGs of the encoded sizes.
                    const JpegInfo p = DecodeJpeg(file.data(), parsed.primarySize, true);
                    const JpegInfo m = DecodeJpeg(file.data() + parsed.gainMapOffset, parsed.gainMapSize, true);
                    ASSERT_TRUE(p.ok);
                    ASSERT_TRUE(m.ok);
                    EXPECT_EQ(p.width, 16);
                    EXPECT_EQ(m.width, 8);
                    EXPECT_EQ(m.components, c.mapComponents);
                    // The JFIF APP0 stays first.
                    EXPECT_EQ(file[2], 0xFF);
                    EXPECT_EQ(file[3], 0xE0);
                }
            }
        }
    }
}

// The writer's segments, as the notes describe them.
TEST(GainMapJpegWriter, SegmentLayout)
{
    const Bytes map = SmallMap(3);
    const Bytes file = WriteGainMapJpeg(SmallPrimary(), map, ThreeChannels(), 6);
    ASSERT_FALSE(file.empty());
    const GainMapJpeg parsed = ParseOk(file);
    hdrconvert::JpegWalk walk;
    std::string detail;
    ASSERT_EQ(hdrconvert::WalkJpeg(file.data(), file.size(), 0, &walk, &detail), hdrconvert::JpegWalkStatus::Ok);
    std::vector<std::string> order;
    for (const hdrconvert::JpegSegment& s : walk.segments) {
        const uint8_t* p = file.data() + s.payloadOffset;
        if (s.marker == 0xE1 && s.payloadSize >= 6 && std::memcmp(p, "Exif\0\0", 6) == 0) order.push_back("EXIF");
        if (s.marker == 0xE1 && s.payloadSize >= 29 && std::memcmp(p, "http://ns.adobe.com/xap/1.0/", 29) == 0) {
            order.push_back("XMP");
        }
        if (s.marker == 0xE2 && s.payloadSize >= 4 && std::memcmp(p, "MPF", 4) == 0) {
            order.push_back("MPF");
            EXPECT_EQ(s.payloadSize + 2, 88u);
        }
        if (s.marker == 0xE2 && s.payloadSize >= 28 && std::memcmp(p, "urn:iso:std:iso:ts:21496:-1", 28) == 0) {
            order.push_back("ISO");
            EXPECT_EQ(s.payloadSize + 2, 34u);
        }
    }
    EXPECT_EQ(order, (std::vector<std::string>{"EXIF", "XMP", "ISO", "MPF"}));
    // The map's ISO block has three records: 141 bytes.
    ASSERT_EQ(hdrconvert::WalkJpeg(file.data(), file.size(), parsed.gainMapOffset, &walk, &detail),
              hdrconvert::JpegWalkStatus::Ok);
    bool sawIso = false;
    for (const hdrconvert::JpegSegment& s : walk.segments) {
        if (s.marker == 0xE2 && hdrconvert::SegmentHasIdentifier(file.data(), s, "urn:iso:std:iso:ts:21496:-1", 28)) {
            EXPECT_EQ(s.payloadSize - 28, 141u);
            EXPECT_EQ(file[s.payloadOffset + 28 + 4], 0xC0);
            sawIso = true;
        }
    }
    EXPECT_TRUE(sawIso);
    // One channel: 61 bytes.
    const Bytes grey = WriteGainMapJpeg(SmallPrimary(), SmallMap(1), OneChannel());
    const GainMapJpeg greyParsed = ParseOk(grey);
    ASSERT_EQ(hdrconvert::WalkJpeg(grey.data(), grey.size(), greyParsed.gainMapOffset, &walk, &detail),
              hdrconvert::JpegWalkStatus::Ok);
    sawIso = false;
    for (const hdrconvert::JpegSegment& s : walk.segments) {
        if (s.marker == 0xE2 && hdrconvert::SegmentHasIdentifier(grey.data(), s, "urn:iso:std:iso:ts:21496:-1", 28)) {
            EXPECT_EQ(s.payloadSize - 28, 61u);
            sawIso = true;
        }
    }
    EXPECT_TRUE(sawIso);
    // GContainer's length is the map's.
    hdrconvert::XmpProperties properties;
    ASSERT_EQ(hdrconvert::WalkJpeg(grey.data(), grey.size(), 0, &walk, &detail), hdrconvert::JpegWalkStatus::Ok);
    for (const hdrconvert::JpegSegment& s : walk.segments) {
        if (s.marker == 0xE1 && hdrconvert::SegmentHasIdentifier(grey.data(), s, "http://ns.adobe.com/xap/1.0/", 29)) {
            ASSERT_TRUE(
                hdrconvert::ParseXmpPacket(grey.data() + s.payloadOffset + 29, s.payloadSize - 29, &properties));
        }
    }
    ASSERT_EQ(properties.containerItems.size(), 2u);
    EXPECT_EQ(properties.containerItems[1].length, greyParsed.gainMapSize);
}

TEST(GainMapJpegWriter, ReplacesOldMetadataSegments)
{
    // Write, then write again from the written slices with other values:
    // one set of segments, the new values.
    const Bytes first = WriteGainMapJpeg(SmallPrimary(), SmallMap(), OneChannel(), 3);
    const GainMapJpeg parsed = ParseOk(first);
    const Bytes primary(first.begin(), first.begin() + static_cast<std::ptrdiff_t>(parsed.primarySize));
    const Bytes map(first.begin() + static_cast<std::ptrdiff_t>(parsed.gainMapOffset), first.end());
    const Bytes second = WriteGainMapJpeg(primary, map, ThreeChannels(), 1);
    const GainMapJpeg reparsed = ParseOk(second);
    EXPECT_EQ(reparsed.orientation, 1);
    ExpectMetadata(reparsed.metadata, ThreeChannels(), 1e-9);
    EXPECT_EQ(second, WriteGainMapJpeg(SmallPrimary(), SmallMap(), ThreeChannels(), 1));
}

TEST(GainMapJpegWriter, HdrBaseAndEqualHeadroomsAreWrittenButRefusedOnRead)
{
    GainMapMetadata hdr = OneChannel();
    hdr.baseRenditionIsHdr = true;
    for (int layout = 0; layout < 3; ++layout) {
        GainMapWriteOptions options;
        options.writeXmp = layout != 2;
        options.writeIso = layout != 1;
        EXPECT_EQ(ParseFails(WriteGainMapJpeg(SmallPrimary(), SmallMap(), hdr, options)),
                  "base rendition is HDR (unsupported)");
    }
    // Equal headrooms cannot go into an ISO block; patch one in.
    const Bytes file = WriteGainMapJpeg(SmallPrimary(), SmallMap(), OneChannel());
    const GainMapJpeg parsed = ParseOk(file);
    Bytes patched = file;
    const std::string id("urn:iso:std:iso:ts:21496:-1\0", 28);
    auto at = std::search(patched.begin() + static_cast<std::ptrdiff_t>(parsed.gainMapOffset), patched.end(),
                          id.begin(), id.end());
    ASSERT_NE(at, patched.end());
    // Alternate headroom numerator (after versions, flags, base pair) := 0 = base.
    std::fill(at + 28 + 5 + 8, at + 28 + 5 + 12, 0);
    EXPECT_EQ(ParseFails(patched), "gain map not to be applied (equal headrooms)");
}

TEST(GainMapJpegWriter, IsoWinsWhenThePacketsDisagree)
{
    GainMapMetadata m = OneChannel();
    m.gainMapMax = {2.5, 2.5, 2.5};
    Bytes file = WriteGainMapJpeg(SmallPrimary(), SmallMap(), m);
    const std::string attribute = "hdrgm:GainMapMax=\"2.5\"";
    auto at = std::search(file.begin(), file.end(), attribute.begin(), attribute.end());
    ASSERT_NE(at, file.end());
    at[attribute.size() - 4] = '3';  // "3.5" in the XMP, 2.5 in the ISO block
    const GainMapJpeg parsed = ParseOk(file);
    EXPECT_EQ(parsed.source, MetadataSource::Iso);
    EXPECT_NEAR(parsed.metadata.gainMapMax[0], 2.5, 1e-9);
    // Without the ISO block the patched XMP is what is read.
    Bytes xmpOnly = file;
    const std::string id = "urn:iso:std:iso:ts:21496:-1";
    for (auto iso = std::search(xmpOnly.begin(), xmpOnly.end(), id.begin(), id.end()); iso != xmpOnly.end();
         iso = std::search(iso + 1, xmpOnly.end(), id.begin(), id.end())) {
        *iso = 'U';
    }
    EXPECT_EQ(ParseOk(xmpOnly).metadata.gainMapMax[0], 3.5);
}

TEST(GainMapJpegWriter, ValuesBeyondIsoRationalsGoToXmpOnly)
{
    GainMapMetadata m = OneChannel();
    m.hdrCapacityMin = -1.0;  // a headroom is unsigned in the ISO block
    m.gamma = {1e-12, 2.0, 3.0};
    const GainMapJpeg parsed = ParseOk(WriteGainMapJpeg(SmallPrimary(), SmallMap(), m));
    EXPECT_EQ(parsed.source, MetadataSource::Xmp);
    EXPECT_FALSE(parsed.hadIso);
    ExpectMetadata(parsed.metadata, m, 0.0);
}

TEST(GainMapJpegWriter, RefusesInputsThatAreNotJpegs)
{
    EXPECT_TRUE(WriteGainMapJpeg(Bytes{1, 2, 3}, SmallMap(), OneChannel()).empty());
    Bytes cut = SmallMap();
    cut.resize(cut.size() - 2);
    EXPECT_TRUE(WriteGainMapJpeg(SmallPrimary(), cut, OneChannel()).empty());
}

TEST(GainMapJpegWriter, ValidateGainMapMetadata)
{
    std::string reason;
    EXPECT_TRUE(hdrconvert::ValidateGainMapMetadata(OneChannel(), &reason));
    GainMapMetadata m = OneChannel();
    m.offsetHdr[1] = std::nan("");
    EXPECT_FALSE(hdrconvert::ValidateGainMapMetadata(m, &reason));
    EXPECT_EQ(reason, "gain map metadata has a value that is not finite");
}

// ---------------------------------------------------------------------------
// Synthetic files for the fuzzer's seed corpus: built and checked here;
// written to $HDRGPU_GAIN_MAP_JPEG_SEED_DIR when that is set.

TEST(GainMapJpegSeeds, SeedFilesParseAsExpected)
{
    struct Seed {
        std::string name;
        Bytes bytes;
        bool accepted;
    };
    std::vector<Seed> seeds;
    GainMapWriteOptions le;
    le.littleEndianMpf = true;
    le.orientation = 6;
    GainMapWriteOptions xmpOnly;
    xmpOnly.writeIso = false;
    GainMapWriteOptions isoOnly;
    isoOnly.writeXmp = false;
    seeds.push_back({"writer_one_channel", WriteGainMapJpeg(SmallPrimary(), SmallMap(1), OneChannel()), true});
    seeds.push_back(
        {"writer_three_channels_le", WriteGainMapJpeg(SmallPrimary(), SmallMap(3), ThreeChannels(), le), true});
    seeds.push_back({"writer_xmp_only", WriteGainMapJpeg(SmallPrimary(), SmallMap(1), ThreeChannels(), xmpOnly), true});
    seeds.push_back({"writer_iso_only", WriteGainMapJpeg(SmallPrimary(), SmallMap(1), OneChannel(), isoOnly), true});
    EncodeOptions progressive;
    progressive.progressive = true;
    progressive.restartInterval = 1;
    progressive.jfif = false;
    seeds.push_back({"writer_progressive_restarts",
                     WriteGainMapJpeg(EncodeJpeg(progressive), SmallMap(1), OneChannel(), 8), true});
    {
        FileParts parts = XmpFile(HdrgmDescription(
            "hdrgm:HDRCapacityMax=\"2\"",
            "<hdrgm:GainMapMax><rdf:Seq><rdf:li>1</rdf:li><rdf:li>2</rdf:li><rdf:li>3</rdf:li></rdf:Seq>"
            "</hdrgm:GainMapMax><hdrgm:Gamma>0.5</hdrgm:Gamma>"));
        parts.mpf.bigEndian = false;
        parts.primarySegments.insert(parts.primarySegments.begin(), ExifSegment(3, 6, false));
        seeds.push_back({"xmp_elements_exif_le", Build(parts).bytes, true});
    }
    {
        IsoFields iso = DefaultIso();
        iso.commonDenominator = true;
        iso.common = 4;
        iso.flags = 0xC0;
        for (auto& channel : iso.channels) {
            channel = {IsoRational{-2, 0}, IsoRational{10, 0}, IsoRational{4, 0}, IsoRational{0, 0},
                       IsoRational{0, 0}};
        }
        iso.base = {0, 0};
        iso.alternate = {8, 0};
        FileParts parts = XmpFile("");
        parts.mapSegments = {IsoSegment(iso)};
        seeds.push_back({"iso_common_denominator", Build(parts).bytes, true});
    }
    {
        const std::string guid = "0123456789ABCDEF0123456789ABCDEF";
        const std::string extended =
            XmpPacket(HdrgmDescription("hdrgm:GainMapMax=\"2.25\" hdrgm:HDRCapacityMax=\"2\""));
        const std::string standard = XmpPacket(
            "  <rdf:Description rdf:about=\"\" xmlns:xmpNote=\"http://ns.adobe.com/xmp/note/\" "
            "xmpNote:HasExtendedXMP=\"" +
            guid + "\"/>");
        const uint32_t full = static_cast<uint32_t>(extended.size());
        FileParts parts = XmpFile("");
        parts.mapSegments = {XmpSegment(standard), ExtendedXmpSegment(guid, full, full / 2, extended.substr(full / 2)),
                            ExtendedXmpSegment(guid, full, 0, extended.substr(0, full / 2))};
        parts.mpf.offsetError = 3;  // the fallback finds the map
        seeds.push_back({"extended_xmp_wrong_mpf_offset", Build(parts).bytes, true});
    }
    {
        FileParts parts = XmpFile(
            "  <rdf:Description rdf:about=\"\" xmlns:HDRGainMap=\"http://ns.apple.com/HDRGainMap/1.0/\" "
            "HDRGainMap:HDRGainMapVersion=\"131072\"/>");
        seeds.push_back({"apple_like", Build(parts).bytes, false});
    }
    {
        IsoFields iso = DefaultIso();
        iso.base = {3, 1};
        iso.alternate = {0, 1};
        FileParts parts = XmpFile("");
        parts.mapSegments = {IsoSegment(iso)};
        seeds.push_back({"iso_hdr_base", Build(parts).bytes, false});
    }
    seeds.push_back({"plain_jpeg", SmallPrimary(), false});

    const char* dir = std::getenv("HDRGPU_GAIN_MAP_JPEG_SEED_DIR");
    for (const Seed& seed : seeds) {
        SCOPED_TRACE(seed.name);
        ASSERT_FALSE(seed.bytes.empty());
        EXPECT_LT(seed.bytes.size(), 8192u);
        GainMapJpeg parsed;
        std::string reason;
        EXPECT_EQ(Parse(seed.bytes, &parsed, &reason), seed.accepted) << reason;
        if (dir != nullptr) {
            std::ofstream out(std::string(dir) + "/" + seed.name + ".jpg", std::ios::binary);
            out.write(reinterpret_cast<const char*>(seed.bytes.data()),
                      static_cast<std::streamsize>(seed.bytes.size()));
            ASSERT_TRUE(out.good());
        }
    }
}

}  // namespace
