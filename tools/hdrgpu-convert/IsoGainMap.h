// The binary gain-map metadata of ISO 21496-1 (APP2
// "urn:iso:std:iso:ts:21496:-1\0"): reading the block, converting it to the
// XMP quantities, and writing it.
#ifndef HDRGPU_CONVERT_ISO_GAIN_MAP_H
#define HDRGPU_CONVERT_ISO_GAIN_MAP_H

#include "GainMapJpeg.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace hdrconvert {

constexpr char kIsoIdentifier[] = "urn:iso:std:iso:ts:21496:-1";  // 28 bytes with NUL
constexpr size_t kIsoIdentifierSize = sizeof(kIsoIdentifier);

constexpr uint8_t kIsoFlagMultiChannel = 0x80;
constexpr uint8_t kIsoFlagUseBaseColourSpace = 0x40;
constexpr uint8_t kIsoFlagCommonDenominator = 0x08;

// The block's values as doubles (numerator / denominator).
struct IsoGainMapBlock {
    uint16_t minimumVersion = 0;
    uint16_t writerVersion = 0;
    uint8_t flags = 0;
    int channelCount = 1;
    double baseHdrHeadroom = 0.0;
    double alternateHdrHeadroom = 0.0;
    std::array<double, 3> gainMapMin{};
    std::array<double, 3> gainMapMax{};
    std::array<double, 3> gamma{};
    std::array<double, 3> baseOffset{};
    std::array<double, 3> alternateOffset{};
};

enum class IsoParseStatus {
    Full,                // a complete block with values
    VersionOnly,         // the primary's 4-byte block
    UnsupportedVersion,  // minimum_version != 0: not for this reader
    Corrupt,             // too short, or a zero denominator
};

// payload: the segment's bytes after the identifier. A single-channel block
// fills all three channels.
IsoParseStatus ParseIsoGainMap(const uint8_t* payload, size_t size, IsoGainMapBlock* out, std::string* reason);

enum class IsoDirection {
    SdrBase,         // base headroom < alternate headroom
    HdrBase,         // alternate headroom < base headroom
    EqualHeadrooms,  // the map is not to be applied
};

// Converts to the XMP quantities: for an SDR base HDRCapacityMin/Max = base/
// alternate headroom and OffsetSDR/OffsetHDR = base/alternate offset; for an
// HDR base the roles swap and baseRenditionIsHdr is set. Gains and gamma are
// unchanged.
IsoDirection IsoToMetadata(const IsoGainMapBlock& block, GainMapMetadata* out);

// The 4-byte version block for the primary (identifier included).
std::vector<uint8_t> BuildIsoVersionPayload();

// The full block for the gain map (identifier included): one channel record
// when all channels are equal, else three. Returns false when a value does
// not fit the block's 32-bit rationals closely enough for the reader to get
// valid metadata of the same direction back.
bool BuildIsoGainMapPayload(const GainMapMetadata& metadata, std::vector<uint8_t>* payload);

}  // namespace hdrconvert

#endif
