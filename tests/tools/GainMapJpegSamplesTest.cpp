// The five sample photographs (from ../shared/samples; skipped when that
// folder is absent) against their recorded values: where the primary and the
// gain map lie, their sizes and sampling, the metadata and where it came
// from, the MPF index, thumbnails and extended XMP inside the headers, the ISO
// block against the XMP, and truncated copies, each refused with a reason.
#include "GainMapJpegTestSupport.h"

#include "JpegSegments.h"
#include "Mpf.h"
#include "XmpPacket.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace gainmaptest {
namespace {

Bytes ReadFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return Bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

bool SamplesPresent()
{
    return std::filesystem::is_directory(HDRGPU_SAMPLES_DIR);
}

Bytes ReadSample(const char* name)
{
    const Bytes bytes = ReadFile(std::string(HDRGPU_SAMPLES_DIR) + "/" + name);
    EXPECT_FALSE(bytes.empty()) << "cannot read sample " << name;
    return bytes;
}

#define REQUIRE_SAMPLES()                                                  \
    do {                                                                   \
        if (!SamplesPresent()) {                                           \
            GTEST_SKIP() << "no samples folder at " << HDRGPU_SAMPLES_DIR; \
        }                                                                  \
    } while (0)

const char* const kApple = "libavif_apple_gainmap_new.jpg";
const char* const kParis = "libavif_paris_exif_xmp_gainmap_bigendian.jpg";
const char* const kSeine = "libavif_seine_sdr_gainmap_srgb.jpg";
const char* const kPixel = "vearutop_s01_pixel.jpg";
const char* const kSmallUhdr = "vearutop_small_uhdr.jpg";

struct SampleExpectation {
    const char* name;
    int primaryWidth, primaryHeight, primaryComponents;
    bool primary444;
    int mapWidth, mapHeight, mapComponents;
    bool map444;
    MetadataSource source;
    GainMapMetadata metadata;
};

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
        // The map starts at the primary's EOI end and runs to the end of the file.
        ExpectRanges(file, parsed);
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
        if (s.marker == 0xE2 && hdrconvert::SegmentHasIdentifier(file.data(), s, "MPF", 4)) {
            mpfSegment = &s;
        }
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
                ASSERT_TRUE(
                    hdrconvert::ParseXmpPacket(file.data() + s.payloadOffset + 29, s.payloadSize - 29, &properties));
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
        for (size_t i = 0; i < steps; ++i) {
            cuts.insert(file.size() * i / steps);
        }
        for (size_t i = 0; i < 64 && i < file.size(); ++i) {
            cuts.insert(i);
        }
        for (size_t i = 1; i <= 8; ++i) {
            cuts.insert(file.size() - i);
        }
        GainMapJpeg whole;
        std::string reason;
        if (Parse(file, &whole, &reason)) {
            for (size_t d = 0; d <= 6; ++d) {
                cuts.insert(whole.primarySize - 3 + d);
                cuts.insert(whole.gainMapOffset + 100 + d);
            }
        }
        for (size_t cut : cuts) {
            if (cut >= file.size()) {
                continue;
            }
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

}  // namespace
}  // namespace gainmaptest
