// The shared pieces of the gain-map JPEG tests (GainMapJpegTestSupport.h).
//
// Synthetic codestreams come from libjpeg so that every slice the reader
// reports can be decoded for real.
#include "GainMapJpegTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csetjmp>
#include <cstdlib>
#include <random>

#include <jpeglib.h>

namespace gainmaptest {

namespace {

// libjpeg reports errors by longjmp back into the call that failed.
struct ErrorManager {
    jpeg_error_mgr mgr;
    jmp_buf jump;
};

void ErrorExit(j_common_ptr info)
{
    longjmp(reinterpret_cast<ErrorManager*>(info->err)->jump, 1);
}

void SilentMessage(j_common_ptr)
{}

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
    if (nul) {
        out->push_back(0);
    }
}

Bytes SegmentBytes(const Segment& segment)
{
    Bytes out = {0xFF, segment.marker};
    Put16(&out, static_cast<uint32_t>(segment.payload.size() + 2), true);
    out.insert(out.end(), segment.payload.begin(), segment.payload.end());
    return out;
}
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
}  // namespace

bool Parse(const Bytes& file, GainMapJpeg* out, std::string* reason)
{
    return ParseGainMapJpeg(file.data(), file.size(), out, reason);
}

// ---------------------------------------------------------------------------
// libjpeg: encoding synthetic images and decoding the slices the reader finds.
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
    if (options.progressive) {
        jpeg_simple_progression(&cinfo);
    }
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
std::string HdrgmDescription(const std::string& attributes, const std::string& elements, const std::string& prefix)
{
    return "  <rdf:Description rdf:about=\"\" xmlns:" + prefix + "=\"" + kHdrgmNs + "\" " + attributes + ">" +
           elements + "</rdf:Description>";
}

Segment IsoSegment(const IsoFields& parts)
{
    Segment s{0xE2, {}};
    PutText(&s.payload, "urn:iso:std:iso:ts:21496:-1", true);
    Put16(&s.payload, parts.minimumVersion, true);
    Put16(&s.payload, 0, true);
    const uint8_t flags = static_cast<uint8_t>(parts.flags | (parts.commonDenominator ? 0x08 : 0));
    s.payload.push_back(flags);
    if (parts.commonDenominator) {
        Put32(&s.payload, parts.common, true);
    }
    auto put = [&](const IsoRational& r) {
        Put32(&s.payload, static_cast<uint32_t>(r.numerator), true);
        if (!parts.commonDenominator) {
            Put32(&s.payload, r.denominator, true);
        }
    };
    put(parts.base);
    put(parts.alternate);
    const int channels = (flags & 0x80) != 0 ? 3 : 1;
    for (int c = 0; c < channels; ++c) {
        for (const IsoRational& r : parts.channels[c]) {
            put(r);
        }
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

BuiltFile Build(const FileParts& parts)
{
    BuiltFile built;
    const Bytes map = parts.mapJpeg.empty() ? Bytes() : InsertAfterSoi(parts.mapJpeg, parts.mapSegments);
    std::vector<Segment> primarySegments = parts.primarySegments;
    size_t mpfMarker = 2;
    for (const Segment& s : primarySegments) {
        mpfMarker += s.payload.size() + 4;
    }
    if (parts.mpf.present) {
        primarySegments.push_back(MpfSegment(parts.mpf, 0, 0, 0, mpfMarker));  // size only
    }
    Bytes primary = InsertAfterSoi(parts.primaryJpeg, primarySegments);
    built.primarySize = primary.size();
    built.mapOffset = primary.size() + parts.between.size();
    built.mapSize = map.size();
    if (parts.mpf.present) {
        const Segment mpf =
            MpfSegment(parts.mpf, static_cast<uint32_t>(primary.size()), static_cast<uint32_t>(map.size()),
                       static_cast<uint32_t>(built.mapOffset), mpfMarker);
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

Bytes SmallMap(int components)
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

// ---------------------------------------------------------------------------
// Parsing with expectations.

FileParts MapSegmentsFile(const std::vector<Segment>& mapSegments)
{
    FileParts parts = XmpFile("");
    parts.mapSegments = mapSegments;
    return parts;
}

std::string ExtendedXmpPointer(const std::string& guid)
{
    return XmpPacket(
        "  <rdf:Description rdf:about=\"\" xmlns:xmpNote=\"http://ns.adobe.com/xmp/note/\" "
        "xmpNote:HasExtendedXMP=\"" +
        guid + "\"/>");
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
                    double tolerance)
{
    for (int c = 0; c < 3; ++c) {
        EXPECT_NEAR(actual[c], expected[c], tolerance) << what << " channel " << c;
    }
}

void ExpectMetadata(const GainMapMetadata& actual, const GainMapMetadata& expected, double tolerance)
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
// and running to the end.
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
    EXPECT_EQ(parsed.gainMapOffset, parsed.primarySize);
    EXPECT_EQ(parsed.gainMapOffset + parsed.gainMapSize, file.size());
}

// ---------------------------------------------------------------------------
// Metadata sets.

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

}  // namespace gainmaptest
