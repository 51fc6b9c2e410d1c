// The Adobe/Google "hdrgm" XMP vocabulary: turning the properties found in a
// packet into GainMapMetadata (defaults, one or three values per channel),
// and writing the packets of a gain-map JPEG.
#ifndef HDRGPU_CONVERT_HDRGM_XMP_H
#define HDRGPU_CONVERT_HDRGM_XMP_H

#include "GainMapJpeg.h"

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace hdrconvert {

using HdrgmProperties = std::map<std::string, std::vector<std::string>>;

// True when the properties carry gain-map values (anything but Version).
bool HasHdrgmValues(const HdrgmProperties& properties);

// Maps the properties to metadata. Missing fields take their defaults
// (GainMapMin 0, Gamma 1, offsets 1/64, HDRCapacityMin 0, BaseRenditionIsHDR
// False); GainMapMax and HDRCapacityMax are required. Refuses, naming the
// field, a missing required field, a non-number, or a count of values other
// than 1 or 3 (1 for the scalar fields).
bool HdrgmToMetadata(const HdrgmProperties& properties, GainMapMetadata* out, std::string* reason);

// Number formatting that reads back to the same double (shortest form).
std::string FormatXmpNumber(double value);

// The gain map's packet: every hdrgm value, as an attribute when the three
// channels agree, else as an rdf:Seq of three.
std::string BuildGainMapXmp(const GainMapMetadata& metadata);

// The primary's packet: hdrgm:Version and a GContainer directory whose
// GainMap item has the given length.
std::string BuildPrimaryXmp(size_t gainMapLength);

}  // namespace hdrconvert

#endif
