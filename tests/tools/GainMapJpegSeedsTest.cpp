// The synthetic files of the gain-map JPEG fuzzer's seed corpus: written by
// the writer or built byte by byte, each small and accepted or refused as
// expected; written to $HDRGPU_GAIN_MAP_JPEG_SEED_DIR when that is set.
#include "GainMapJpegTestSupport.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

namespace gainmaptest {
namespace {

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
    seeds.push_back(
        {"writer_progressive_restarts", WriteGainMapJpeg(EncodeJpeg(progressive), SmallMap(1), OneChannel(), 8), true});
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
            channel = {IsoRational{-2, 0}, IsoRational{10, 0}, IsoRational{4, 0}, IsoRational{0, 0}, IsoRational{0, 0}};
        }
        iso.base = {0, 0};
        iso.alternate = {8, 0};
        const FileParts parts = MapSegmentsFile({IsoSegment(iso)});
        seeds.push_back({"iso_common_denominator", Build(parts).bytes, true});
    }
    {
        const std::string guid = "0123456789ABCDEF0123456789ABCDEF";
        const std::string extended =
            XmpPacket(HdrgmDescription("hdrgm:GainMapMax=\"2.25\" hdrgm:HDRCapacityMax=\"2\""));
        const std::string standard = ExtendedXmpPointer(guid);
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
        const FileParts parts = MapSegmentsFile({IsoSegment(iso)});
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
}  // namespace gainmaptest
