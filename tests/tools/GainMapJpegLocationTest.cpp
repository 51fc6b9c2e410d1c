// Locating the gain map and reading the primary's orientation: MPF indexes
// in both byte orders with wrong sizes or targets (and the fallback to the
// first SOI after the primary), the GContainer directory without MPF,
// progressive and restart-marker codestreams, trailing bytes after the map,
// and the EXIF orientation from IFD0 only, in either byte order.
#include "GainMapJpegTestSupport.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>

namespace gainmaptest {
namespace {

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

}  // namespace
}  // namespace gainmaptest
