// The gain-map metadata as the HDR library receives it: single-precision
// floats, from which it derives its shader constants in single precision.
// A value that is finite as a double can still become an infinity there
// (1e39 as a float), and an infinity gives an all-black or all-white picture
// that nothing reports; such files are refused instead.
#ifndef HDRGPU_CONVERT_FLOAT_METADATA_H
#define HDRGPU_CONVERT_FLOAT_METADATA_H

#include "GainMapJpeg.h"

#include <string>

namespace hdrconvert {

// True when every value is finite as a float and so is every constant the
// library derives from them: the gain ratios' logarithms, the inverse gamma,
// the linear HDR range the offsets and gains span, and the capacity weight's
// denominator. Otherwise false, with *reason naming the field, e.g. "gain map
// metadata GainMapMin is not finite as a float".
bool CheckMetadataAsFloat(const GainMapMetadata& metadata, std::string* reason);

}  // namespace hdrconvert

#endif
