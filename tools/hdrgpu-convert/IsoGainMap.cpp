#include "IsoGainMap.h"

#include "ByteReader.h"

#include <cmath>
#include <limits>

namespace hdrconvert {

namespace {

// Reads numerator/denominator pairs, or numerators over one common denominator.
class RationalReader {
public:
    RationalReader(const uint8_t* data, size_t size, size_t offset) : reader_(data, size), offset_(offset) {}

    bool ReadCommonDenominator()
    {
        if (!reader_.U32(offset_, &common_))
            return false;
        offset_ += 4;
        useCommon_ = true;
        return true;
    }

    // Returns false when the data ends; sets *zeroDenominator when one is 0.
    bool Unsigned(double* value, bool* zeroDenominator)
    {
        uint32_t numerator = 0;
        if (!reader_.U32(offset_, &numerator))
            return false;
        offset_ += 4;
        return Finish(static_cast<double>(numerator), value, zeroDenominator);
    }
    bool Signed(double* value, bool* zeroDenominator)
    {
        int32_t numerator = 0;
        if (!reader_.S32(offset_, &numerator))
            return false;
        offset_ += 4;
        return Finish(static_cast<double>(numerator), value, zeroDenominator);
    }

private:
    bool Finish(double numerator, double* value, bool* zeroDenominator)
    {
        uint32_t denominator = common_;
        if (!useCommon_) {
            if (!reader_.U32(offset_, &denominator))
                return false;
            offset_ += 4;
        }
        if (denominator == 0) {
            *zeroDenominator = true;
            *value = 0.0;
        } else {
            *value = numerator / static_cast<double>(denominator);
        }
        return true;
    }

    ByteReader reader_;
    size_t offset_;
    bool useCommon_ = false;
    uint32_t common_ = 0;
};

constexpr int kMaxDenominatorLog2 = 30;

bool ToSignedRational(double value, int32_t* numerator, uint32_t* denominator)
{
    if (!std::isfinite(value))
        return false;
    for (int k = kMaxDenominatorLog2; k >= 0; --k) {
        const double scaled = std::round(std::ldexp(value, k));
        if (scaled >= static_cast<double>(std::numeric_limits<int32_t>::min()) &&
            scaled <= static_cast<double>(std::numeric_limits<int32_t>::max())) {
            *numerator = static_cast<int32_t>(scaled);
            *denominator = uint32_t{1} << k;
            return true;
        }
    }
    return false;
}

bool ToUnsignedRational(double value, uint32_t* numerator, uint32_t* denominator)
{
    if (!std::isfinite(value) || value < 0.0)
        return false;
    for (int k = kMaxDenominatorLog2; k >= 0; --k) {
        const double scaled = std::round(std::ldexp(value, k));
        if (scaled <= static_cast<double>(std::numeric_limits<uint32_t>::max())) {
            *numerator = static_cast<uint32_t>(scaled);
            *denominator = uint32_t{1} << k;
            return true;
        }
    }
    return false;
}

bool PutSigned(std::vector<uint8_t>* out, double value)
{
    int32_t numerator = 0;
    uint32_t denominator = 1;
    if (!ToSignedRational(value, &numerator, &denominator))
        return false;
    PutU32(out, static_cast<uint32_t>(numerator));
    PutU32(out, denominator);
    return true;
}

bool PutUnsigned(std::vector<uint8_t>* out, double value)
{
    uint32_t numerator = 0;
    uint32_t denominator = 1;
    if (!ToUnsignedRational(value, &numerator, &denominator))
        return false;
    PutU32(out, numerator);
    PutU32(out, denominator);
    return true;
}

bool ChannelsEqual(const GainMapMetadata& m)
{
    for (int c = 1; c < 3; ++c) {
        if (m.gainMapMin[c] != m.gainMapMin[0] || m.gainMapMax[c] != m.gainMapMax[0] || m.gamma[c] != m.gamma[0] ||
            m.offsetSdr[c] != m.offsetSdr[0] || m.offsetHdr[c] != m.offsetHdr[0]) {
            return false;
        }
    }
    return true;
}

}  // namespace

IsoParseStatus ParseIsoGainMap(const uint8_t* payload, size_t size, IsoGainMapBlock* out, std::string* reason)
{
    *out = IsoGainMapBlock{};
    ByteReader reader(payload, size);
    if (!reader.U16(0, &out->minimumVersion) || !reader.U16(2, &out->writerVersion)) {
        *reason = "corrupt ISO 21496-1 gain map metadata (too short)";
        return IsoParseStatus::Corrupt;
    }
    if (out->minimumVersion != 0) {
        *reason = "unsupported ISO 21496-1 gain map metadata version " + std::to_string(out->minimumVersion);
        return IsoParseStatus::UnsupportedVersion;
    }
    if (size == 4)
        return IsoParseStatus::VersionOnly;
    if (!reader.U8(4, &out->flags)) {
        *reason = "corrupt ISO 21496-1 gain map metadata (too short)";
        return IsoParseStatus::Corrupt;
    }
    out->channelCount = (out->flags & kIsoFlagMultiChannel) != 0 ? 3 : 1;
    RationalReader rationals(payload, size, 5);
    bool complete = true;
    bool zeroDenominator = false;
    if ((out->flags & kIsoFlagCommonDenominator) != 0) {
        complete = rationals.ReadCommonDenominator();
    }
    complete = complete && rationals.Unsigned(&out->baseHdrHeadroom, &zeroDenominator) &&
               rationals.Unsigned(&out->alternateHdrHeadroom, &zeroDenominator);
    for (int c = 0; complete && c < out->channelCount; ++c) {
        complete = rationals.Signed(&out->gainMapMin[c], &zeroDenominator) &&
                   rationals.Signed(&out->gainMapMax[c], &zeroDenominator) &&
                   rationals.Unsigned(&out->gamma[c], &zeroDenominator) &&
                   rationals.Signed(&out->baseOffset[c], &zeroDenominator) &&
                   rationals.Signed(&out->alternateOffset[c], &zeroDenominator);
    }
    if (!complete) {
        *reason = "corrupt ISO 21496-1 gain map metadata (too short)";
        return IsoParseStatus::Corrupt;
    }
    if (zeroDenominator) {
        *reason = "corrupt ISO 21496-1 gain map metadata (zero denominator)";
        return IsoParseStatus::Corrupt;
    }
    for (int c = out->channelCount; c < 3; ++c) {
        out->gainMapMin[c] = out->gainMapMin[0];
        out->gainMapMax[c] = out->gainMapMax[0];
        out->gamma[c] = out->gamma[0];
        out->baseOffset[c] = out->baseOffset[0];
        out->alternateOffset[c] = out->alternateOffset[0];
    }
    return IsoParseStatus::Full;
}

IsoDirection IsoToMetadata(const IsoGainMapBlock& block, GainMapMetadata* out)
{
    GainMapMetadata m;
    m.gainMapMin = block.gainMapMin;
    m.gainMapMax = block.gainMapMax;
    m.gamma = block.gamma;
    IsoDirection direction = IsoDirection::SdrBase;
    if (block.alternateHdrHeadroom == block.baseHdrHeadroom) {
        direction = IsoDirection::EqualHeadrooms;
    } else if (block.alternateHdrHeadroom < block.baseHdrHeadroom) {
        direction = IsoDirection::HdrBase;
    }
    if (direction == IsoDirection::HdrBase) {
        m.baseRenditionIsHdr = true;
        m.hdrCapacityMin = block.alternateHdrHeadroom;
        m.hdrCapacityMax = block.baseHdrHeadroom;
        m.offsetSdr = block.alternateOffset;
        m.offsetHdr = block.baseOffset;
    } else {
        m.hdrCapacityMin = block.baseHdrHeadroom;
        m.hdrCapacityMax = block.alternateHdrHeadroom;
        m.offsetSdr = block.baseOffset;
        m.offsetHdr = block.alternateOffset;
    }
    *out = m;
    return direction;
}

std::vector<uint8_t> BuildIsoVersionPayload()
{
    std::vector<uint8_t> out(kIsoIdentifier, kIsoIdentifier + kIsoIdentifierSize);
    PutU16(&out, 0);  // minimum version
    PutU16(&out, 0);  // writer version
    return out;
}

bool BuildIsoGainMapPayload(const GainMapMetadata& metadata, std::vector<uint8_t>* payload)
{
    const bool hdrBase = metadata.baseRenditionIsHdr;
    const int channels = ChannelsEqual(metadata) ? 1 : 3;
    std::vector<uint8_t> out(kIsoIdentifier, kIsoIdentifier + kIsoIdentifierSize);
    PutU16(&out, 0);
    PutU16(&out, 0);
    out.push_back(static_cast<uint8_t>((channels == 3 ? kIsoFlagMultiChannel : 0) | kIsoFlagUseBaseColourSpace));
    bool fits = PutUnsigned(&out, hdrBase ? metadata.hdrCapacityMax : metadata.hdrCapacityMin) &&
                PutUnsigned(&out, hdrBase ? metadata.hdrCapacityMin : metadata.hdrCapacityMax);
    for (int c = 0; fits && c < channels; ++c) {
        fits = PutSigned(&out, metadata.gainMapMin[c]) && PutSigned(&out, metadata.gainMapMax[c]) &&
               PutUnsigned(&out, metadata.gamma[c]) &&
               PutSigned(&out, hdrBase ? metadata.offsetHdr[c] : metadata.offsetSdr[c]) &&
               PutSigned(&out, hdrBase ? metadata.offsetSdr[c] : metadata.offsetHdr[c]);
    }
    if (!fits)
        return false;

    // Read it back as the reader would: the rounding must not break the
    // metadata's validity or flip its direction.
    IsoGainMapBlock block;
    std::string reason;
    if (ParseIsoGainMap(out.data() + kIsoIdentifierSize, out.size() - kIsoIdentifierSize, &block, &reason) !=
        IsoParseStatus::Full) {
        return false;
    }
    GainMapMetadata readBack;
    const IsoDirection direction = IsoToMetadata(block, &readBack);
    if (direction != (hdrBase ? IsoDirection::HdrBase : IsoDirection::SdrBase) ||
        !ValidateGainMapMetadata(readBack, &reason)) {
        return false;
    }
    *payload = std::move(out);
    return true;
}

}  // namespace hdrconvert
