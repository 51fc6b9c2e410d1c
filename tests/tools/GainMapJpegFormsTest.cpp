// The forms of gain-map metadata the reader accepts: hdrgm XMP with defaults
// for missing fields, attributes, element text and rdf:Seq values, any
// prefix bound to the namespace, values in the primary, extended XMP split
// over several segments; and ISO 21496-1 blocks (per-channel and common
// denominators, one record or three, in the map or in the primary), which
// win over disagreeing XMP.
#include "GainMapJpegTestSupport.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace gainmaptest {
namespace {

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
    const std::string standard = ExtendedXmpPointer(guid);
    const uint32_t full = static_cast<uint32_t>(extended.size());
    const uint32_t half = full / 2;
    FileParts parts = XmpFile("");
    // Two chunks, second first, plus a chunk of another packet.
    parts.mapSegments = {XmpSegment(standard), ExtendedXmpSegment(guid, full, half, extended.substr(half)),
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
    const FileParts parts = MapSegmentsFile({IsoSegment(iso)});
    const GainMapJpeg parsed = ParseOk(Build(parts).bytes);
    EXPECT_EQ(parsed.source, MetadataSource::Iso);
    EXPECT_FALSE(parsed.hadXmp);
    ExpectMetadata(parsed.metadata,
                   Metadata({-0.25, -0.25, -0.25}, {2.5, 2.5, 2.5}, {1, 1, 1}, 1.0 / 64, 0.0, 0.0, 1.5), 0.0);
}

TEST(GainMapJpegForms, FullIsoBlockInThePrimaryIsRead)
{
    FileParts parts = MapSegmentsFile({});
    // A full block in the primary only (some writers): still read.
    parts.primarySegments = {IsoSegment(DefaultIso())};
    EXPECT_EQ(ParseOk(Build(parts).bytes).source, MetadataSource::Iso);
}

}  // namespace
}  // namespace gainmaptest
