// A synthetic gain-map JPEG with known content and metadata, for trying the
// converter and for tests: an evening sky gradient over water with a bright
// sun (upper right) and specular glints on the water (its reflection and a
// few glints at the lower left). In the SDR primary the sun and the glints
// clip at white; the gain map lifts exactly those highlights (it is zero
// everywhere else) by up to GainMapMax stops. The scene is deliberately
// asymmetric, so any wrong turn or mirror of the output shows.
#ifndef HDRGPU_CONVERT_SAMPLE_MAKER_H
#define HDRGPU_CONVERT_SAMPLE_MAKER_H

#include "GainMapJpeg.h"

#include <cstdint>
#include <string>
#include <vector>

namespace hdrconvert {

struct SampleOptions {
    int width = 960;  // the primary's stored size
    int height = 540;
    int gainMapDivisor = 2;  // the gain map is ceil(width / d) x ceil(height / d)
    int orientation = 1;     // EXIF orientation written into the primary
    int quality = 95;        // JPEG quality of both images
};

// The metadata every sample carries: three channels, GainMapMin 0,
// GainMapMax 2.8 / 2.7 / 2.5, gamma 1, offsets 1/64, HDRCapacity 0 .. 3.
GainMapMetadata SampleMetadata();

struct Sample {
    std::vector<uint8_t> file;  // the gain-map JPEG
    GainMapMetadata metadata;
    int gainMapWidth = 0;
    int gainMapHeight = 0;
};

// Makes the sample in memory. Empty file on failure (sizes below 1 or above
// 8192, or an encoder error).
Sample MakeSample(const SampleOptions& options);

// Makes the sample and writes it to path. False with a reason.
bool WriteSampleFile(const std::string& path, const SampleOptions& options, std::string* reason);

}  // namespace hdrconvert

#endif
