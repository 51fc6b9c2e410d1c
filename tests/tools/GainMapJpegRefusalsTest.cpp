// Files the reader refuses, each with its own reason: no gain map (a plain
// JPEG, a second image without metadata), not a JPEG, an HDR base rendition,
// equal headrooms, broken or unsupported ISO 21496-1 blocks (and the XMP
// that still serves beside them), missing or invalid hdrgm XMP fields, Apple
// gain maps, malformed XMP and a corrupt MPF index. Files are built byte by
// byte (GainMapJpegTestSupport.h).
#include "GainMapJpegTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace gainmaptest {
namespace {

// The reason a file whose map has this hdrgm description is refused.
std::string XmpRefusal(const std::string& attributes, const std::string& elements = "")
{
    return ParseFails(Build(XmpFile(HdrgmDescription(attributes, elements))).bytes);
}

// A file with valid hdrgm XMP in the map and the given ISO block after it.
Bytes BesideValidXmp(const Segment& iso)
{
    FileParts parts = XmpFile(HdrgmDescription("hdrgm:GainMapMax=\"2\" hdrgm:HDRCapacityMax=\"2\""));
    parts.mapSegments.push_back(iso);
    return Build(parts).bytes;
}

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
    EXPECT_EQ(ParseFails(BesideValidXmp(IsoSegment(iso))), "base rendition is HDR (unsupported)");
}

TEST(GainMapJpegRefusals, EqualIsoHeadroomsAreRefused)
{
    IsoFields iso = DefaultIso();
    iso.base = {1, 2};
    iso.alternate = {2, 4};
    EXPECT_EQ(ParseFails(BesideValidXmp(IsoSegment(iso))), "gain map not to be applied (equal headrooms)");
}

TEST(GainMapJpegRefusals, ZeroIsoDenominatorIsRefused)
{
    for (int field = 0; field < 7; ++field) {
        SCOPED_TRACE(field);
        IsoFields iso = DefaultIso();
        if (field == 0) {
            iso.base.denominator = 0;
        }
        if (field == 1) {
            iso.alternate.denominator = 0;
        }
        if (field >= 2) {
            iso.channels[0][static_cast<size_t>(field - 2)].denominator = 0;
        }
        const FileParts parts = MapSegmentsFile({IsoSegment(iso)});
        EXPECT_EQ(ParseFails(Build(parts).bytes), "corrupt ISO 21496-1 gain map metadata (zero denominator)");
    }
    IsoFields common = DefaultIso();
    common.commonDenominator = true;
    common.common = 0;
    const FileParts parts = MapSegmentsFile({IsoSegment(common)});
    EXPECT_EQ(ParseFails(Build(parts).bytes), "corrupt ISO 21496-1 gain map metadata (zero denominator)");
}

TEST(GainMapJpegRefusals, ShortIsoBlockIsRefusedButXmpStillServes)
{
    Segment iso = IsoSegment(DefaultIso());
    iso.payload.resize(iso.payload.size() - 3);
    const FileParts parts = MapSegmentsFile({iso});
    EXPECT_EQ(ParseFails(Build(parts).bytes), "corrupt ISO 21496-1 gain map metadata (too short)");
    // With valid hdrgm XMP beside the broken block, the XMP is used.
    const GainMapJpeg parsed = ParseOk(BesideValidXmp(iso));
    EXPECT_EQ(parsed.source, MetadataSource::Xmp);
    EXPECT_FALSE(parsed.hadIso);
}

TEST(GainMapJpegRefusals, UnsupportedIsoVersionDefersToXmp)
{
    IsoFields iso = DefaultIso();
    iso.minimumVersion = 1;
    const FileParts parts = MapSegmentsFile({IsoSegment(iso)});
    EXPECT_EQ(ParseFails(Build(parts).bytes), "unsupported ISO 21496-1 gain map metadata version 1");
    EXPECT_EQ(ParseOk(BesideValidXmp(IsoSegment(iso))).source, MetadataSource::Xmp);
}

TEST(GainMapJpegRefusals, RequiredXmpFieldsAreNamed)
{
    const std::string valid = "hdrgm:GainMapMax=\"2\" hdrgm:HDRCapacityMax=\"2\" ";
    EXPECT_EQ(XmpRefusal("hdrgm:HDRCapacityMax=\"2\""), "gain map metadata missing GainMapMax");
    EXPECT_EQ(XmpRefusal("hdrgm:GainMapMax=\"2\""), "gain map metadata missing HDRCapacityMax");
    EXPECT_EQ(XmpRefusal("hdrgm:GainMapMax=\"two\" hdrgm:HDRCapacityMax=\"2\""),
              "gain map metadata GainMapMax is not a number");
    EXPECT_EQ(XmpRefusal(valid + "hdrgm:BaseRenditionIsHDR=\"maybe\""),
              "gain map metadata BaseRenditionIsHDR is not True or False");
    EXPECT_EQ(XmpRefusal(valid + "hdrgm:HDRCapacityMin=\"2\""),
              "gain map metadata has HDRCapacityMax <= HDRCapacityMin");
    EXPECT_EQ(XmpRefusal(valid + "hdrgm:Gamma=\"0\""), "gain map metadata has Gamma <= 0");
    EXPECT_EQ(XmpRefusal(valid + "hdrgm:GainMapMin=\"3\""), "gain map metadata has GainMapMin > GainMapMax");
}

TEST(GainMapJpegRefusals, SeqOfTwoIsInvalid)
{
    const std::string seq2 =
        "<hdrgm:GainMapMax><rdf:Seq><rdf:li>1</rdf:li><rdf:li>2</rdf:li></rdf:Seq></hdrgm:GainMapMax>";
    EXPECT_EQ(XmpRefusal("hdrgm:HDRCapacityMax=\"2\"", seq2),
              "gain map metadata GainMapMax has 2 values (1 or 3 allowed)");
    const std::string capacitySeq =
        "<hdrgm:HDRCapacityMax><rdf:Seq><rdf:li>1</rdf:li><rdf:li>2</rdf:li><rdf:li>3</rdf:li></rdf:Seq>"
        "</hdrgm:HDRCapacityMax>";
    EXPECT_EQ(XmpRefusal("hdrgm:GainMapMax=\"2\"", capacitySeq),
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
    const FileParts dtd = MapSegmentsFile(
        {XmpSegment("<!DOCTYPE x [<!ENTITY a \"2\">]>" +
                    XmpPacket(HdrgmDescription("hdrgm:GainMapMax=\"&a;\" hdrgm:HDRCapacityMax=\"2\"")))});
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

}  // namespace
}  // namespace gainmaptest
