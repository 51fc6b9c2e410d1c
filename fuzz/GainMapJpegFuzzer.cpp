// Fuzz target of the gain-map JPEG reader, hdrconvert::ParseGainMapJpeg:
// segment walk, MPF index, XMP (libxml2), extended XMP, ISO 21496-1 block and
// EXIF orientation.
//
// Whatever the bytes, the reader must return. A refusal must come with a
// reason. An acceptance must report ranges inside the input that begin with
// SOI and end with EOI, the gain map after the primary, a valid orientation
// and metadata that passes the reader's own validation; parsing again gives
// the same answer; and writing the two reported codestreams back out with
// the metadata and orientation found gives a file that the reader accepts
// with the same orientation and (to rounding of the ISO rationals) the same
// metadata.
#include "GainMapJpeg.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

using hdrconvert::GainMapJpeg;
using hdrconvert::GainMapMetadata;
using hdrconvert::MetadataSource;

[[noreturn]] void Fail(const char* what)
{
    std::fprintf(stderr, "gain map JPEG fuzzer: %s\n", what);
    std::abort();
}

void Check(bool condition, const char* what)
{
    if (!condition) Fail(what);
}

bool Close(double a, double b)
{
    return std::fabs(a - b) <= 1e-6 * std::max(1.0, std::fabs(a));
}

bool SameMetadata(const GainMapMetadata& a, const GainMapMetadata& b)
{
    for (int c = 0; c < 3; ++c) {
        if (!Close(a.gainMapMin[c], b.gainMapMin[c]) || !Close(a.gainMapMax[c], b.gainMapMax[c]) ||
            !Close(a.gamma[c], b.gamma[c]) || !Close(a.offsetSdr[c], b.offsetSdr[c]) ||
            !Close(a.offsetHdr[c], b.offsetHdr[c])) {
            return false;
        }
    }
    return Close(a.hdrCapacityMin, b.hdrCapacityMin) && Close(a.hdrCapacityMax, b.hdrCapacityMax) &&
           a.baseRenditionIsHdr == b.baseRenditionIsHdr;
}

bool SameMetadataExactly(const GainMapMetadata& a, const GainMapMetadata& b)
{
    return a.gainMapMin == b.gainMapMin && a.gainMapMax == b.gainMapMax && a.gamma == b.gamma &&
           a.offsetSdr == b.offsetSdr && a.offsetHdr == b.offsetHdr && a.hdrCapacityMin == b.hdrCapacityMin &&
           a.hdrCapacityMax == b.hdrCapacityMax && a.baseRenditionIsHdr == b.baseRenditionIsHdr;
}

// A codestream range: inside the data, SOI first, EOI last.
void CheckCodestream(const uint8_t* data, size_t size, size_t offset, size_t length, const char* which)
{
    Check(offset <= size && length <= size - offset, which);
    Check(length >= 4, which);
    Check(data[offset] == 0xFF && data[offset + 1] == 0xD8, which);
    Check(data[offset + length - 2] == 0xFF && data[offset + length - 1] == 0xD9, which);
}

void CheckAccepted(const uint8_t* data, size_t size, const GainMapJpeg& parsed)
{
    Check(parsed.primaryOffset == 0, "primary not at offset 0");
    CheckCodestream(data, size, parsed.primaryOffset, parsed.primarySize, "primary range");
    CheckCodestream(data, size, parsed.gainMapOffset, parsed.gainMapSize, "gain map range");
    Check(parsed.gainMapOffset >= parsed.primaryOffset + parsed.primarySize, "gain map overlaps the primary");
    Check(parsed.orientation >= 1 && parsed.orientation <= 8, "orientation out of range");
    Check(parsed.source != MetadataSource::None, "accepted without a metadata source");
    Check(parsed.source != MetadataSource::Iso || parsed.hadIso, "ISO source without an ISO block");
    Check(parsed.source != MetadataSource::Xmp || (parsed.hadXmp && !parsed.hadIso), "XMP source inconsistent");
    Check(!parsed.metadata.baseRenditionIsHdr, "accepted an HDR base");
    std::string reason;
    Check(hdrconvert::ValidateGainMapMetadata(parsed.metadata, &reason), "accepted invalid metadata");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    GainMapJpeg parsed;
    std::string reason;
    const bool accepted = hdrconvert::ParseGainMapJpeg(data, size, &parsed, &reason);

    GainMapJpeg again;
    std::string reasonAgain;
    Check(hdrconvert::ParseGainMapJpeg(data, size, &again, &reasonAgain) == accepted, "not deterministic");
    if (!accepted) {
        Check(!reason.empty(), "refused without a reason");
        Check(reason == reasonAgain, "reason not deterministic");
        return 0;
    }
    CheckAccepted(data, size, parsed);
    Check(again.primarySize == parsed.primarySize && again.gainMapOffset == parsed.gainMapOffset &&
              again.gainMapSize == parsed.gainMapSize && SameMetadataExactly(again.metadata, parsed.metadata),
          "result not deterministic");

    // Write the two codestreams back out and read the result.
    const std::vector<uint8_t> primary(data + parsed.primaryOffset, data + parsed.primaryOffset + parsed.primarySize);
    const std::vector<uint8_t> map(data + parsed.gainMapOffset, data + parsed.gainMapOffset + parsed.gainMapSize);
    const std::vector<uint8_t> written =
        hdrconvert::WriteGainMapJpeg(primary, map, parsed.metadata, parsed.orientation);
    Check(!written.empty(), "writer refused what the reader accepted");
    GainMapJpeg reread;
    if (!hdrconvert::ParseGainMapJpeg(written.data(), written.size(), &reread, &reason)) {
        std::fprintf(stderr, "rewritten file refused: %s\n", reason.c_str());
        Fail("rewritten file refused");
    }
    CheckAccepted(written.data(), written.size(), reread);
    Check(reread.gainMapOffset == reread.primarySize, "rewritten gain map not right after the primary");
    Check(reread.gainMapOffset + reread.gainMapSize == written.size(), "rewritten gain map not to the end");
    Check(reread.orientation == parsed.orientation, "orientation changed by a rewrite");
    Check(SameMetadata(reread.metadata, parsed.metadata), "metadata changed by a rewrite");
    return 0;
}
