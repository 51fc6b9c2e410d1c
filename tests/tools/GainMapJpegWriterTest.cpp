// The gain-map JPEG writer: round trips through the reader (one or three
// channels, either MPF byte order, XMP and/or ISO 21496-1 metadata), the
// order and sizes of the segments it writes, rewriting a written file,
// values it writes but the reader refuses or that only XMP can hold, inputs
// that are not JPEGs, and the metadata check.
#include "GainMapJpegTestSupport.h"

#include "JpegSegments.h"
#include "XmpPacket.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

namespace gainmaptest {
namespace {

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
        if (s.marker == 0xE1 && s.payloadSize >= 6 && std::memcmp(p, "Exif\0\0", 6) == 0) {
            order.push_back("EXIF");
        }
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

}  // namespace
}  // namespace gainmaptest
