#include "FloatMetadata.h"

#include <cmath>

namespace hdrconvert {

namespace {

// ln 2 as the library takes it.
constexpr float kLn2 = 0.6931472f;

bool Refuse(std::string* reason, const std::string& text)
{
    if (reason != nullptr) {
        *reason = "gain map metadata " + text;
    }
    return false;
}

// log(exp(ln2 x)): the library's round trip from log2 units to a natural log.
float NaturalLog(float log2Value)
{
    return std::log(std::exp(kLn2 * log2Value));
}

}  // namespace

bool CheckMetadataAsFloat(const GainMapMetadata& m, std::string* reason)
{
    for (int c = 0; c < 3; ++c) {
        const struct {
            const char* name;
            double value;
        } fields[] = {{"GainMapMin", m.gainMapMin[c]},
                      {"GainMapMax", m.gainMapMax[c]},
                      {"Gamma", m.gamma[c]},
                      {"OffsetSDR", m.offsetSdr[c]},
                      {"OffsetHDR", m.offsetHdr[c]}};
        for (const auto& f : fields) {
            if (!std::isfinite(static_cast<float>(f.value))) {
                return Refuse(reason, std::string(f.name) + " is not finite as a float");
            }
        }
        const float gainMin = static_cast<float>(m.gainMapMin[c]);
        const float gainMax = static_cast<float>(m.gainMapMax[c]);
        const float gamma = static_cast<float>(m.gamma[c]);
        const float offsetSdr = static_cast<float>(m.offsetSdr[c]);
        const float offsetHdr = static_cast<float>(m.offsetHdr[c]);
        if (!std::isfinite(NaturalLog(gainMin))) {
            return Refuse(reason, "GainMapMin gives a gain that is not finite as a float");
        }
        if (!std::isfinite(NaturalLog(gainMax))) {
            return Refuse(reason, "GainMapMax gives a gain that is not finite as a float");
        }
        if (!(gamma > 0.0f) || !std::isfinite(1.0f / gamma)) {
            return Refuse(reason, "Gamma gives an exponent that is not finite as a float");
        }
        // The HDR values at both ends of the range: (sdr + OffsetSDR) x gain - OffsetHDR.
        const float high = (1.0f + offsetSdr) * std::exp2(gainMax) - offsetHdr;
        const float low = offsetSdr * std::exp2(gainMin) - offsetHdr;
        if (!std::isfinite(high) || !std::isfinite(low)) {
            return Refuse(reason, "OffsetSDR, OffsetHDR and the gains give an HDR value that is not finite as a float");
        }
    }
    const float capacityMin = static_cast<float>(m.hdrCapacityMin);
    const float capacityMax = static_cast<float>(m.hdrCapacityMax);
    if (!std::isfinite(capacityMin)) {
        return Refuse(reason, "HDRCapacityMin is not finite as a float");
    }
    if (!std::isfinite(capacityMax)) {
        return Refuse(reason, "HDRCapacityMax is not finite as a float");
    }
    const float logMin = NaturalLog(capacityMin);
    const float logMax = NaturalLog(capacityMax);
    if (!std::isfinite(logMin)) {
        return Refuse(reason, "HDRCapacityMin gives a capacity that is not finite as a float");
    }
    if (!std::isfinite(logMax)) {
        return Refuse(reason, "HDRCapacityMax gives a capacity that is not finite as a float");
    }
    // The weight divides by this difference.
    if (!(logMax - logMin > 0.0f)) {
        return Refuse(reason, "HDRCapacityMax is not above HDRCapacityMin as a float");
    }
    return true;
}

}  // namespace hdrconvert
