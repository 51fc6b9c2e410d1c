// The machine-readable record of a batch (--json FILE): one record per input
// and the batch summary. The layout is described in README.md ("JSON report").
#ifndef HDRGPU_CONVERT_JSON_REPORT_H
#define HDRGPU_CONVERT_JSON_REPORT_H

#include "GainMapJpeg.h"
#include "PanelModel.h"

#include <cstdint>
#include <string>
#include <vector>

namespace hdrconvert {

// Seconds spent in each stage of one file; a stage not reached stays 0.
struct StageTimes {
    double read = 0;    // reading the file
    double parse = 0;   // container and metadata
    double decode = 0;  // both JPEG codestreams (the primary's decoding, done
                        // inside the render call, is moved here; the first
                        // file's, done while the renderer starts, overlaps it)
    double render = 0;  // the library's pass, without the primary's decoding
    double write = 0;   // reading the surface, encoding and writing the output
    double total = 0;
};

struct FileRecord {
    std::string input;
    std::string output;  // empty when refused
    bool converted = false;
    std::string reason;  // the refusal reason
    uint64_t inputBytes = 0;
    uint64_t outputBytes = 0;
    int primaryWidth = 0;  // stored sizes, 0 when not decoded
    int primaryHeight = 0;
    int gainMapWidth = 0;
    int gainMapHeight = 0;
    int outputWidth = 0;
    int outputHeight = 0;
    int orientation = 0;  // EXIF 1..8, 0 when the file was not parsed
    bool parsed = false;  // metadata and source below are valid
    GainMapMetadata metadata;
    MetadataSource source = MetadataSource::None;
    bool hadXmp = false;
    bool hadIso = false;
    StageTimes times;
    bool hasLightLevels = false;  // the HDR formats measure the picture
    LightLevels lightLevels;
};

struct BatchSummary {
    std::string format;  // png, raw, pq-png, avif
    std::string mode;    // streaming, direct
    std::string display;
    bool yuv = false;
    int panelNits = 0;        // the HDR formats' panel peak; 0 otherwise
    std::string avifEncoder;  // avif: the AV1 encoder and its speed
    int avifSpeed = 0;
    size_t files = 0;
    size_t converted = 0;
    double megapixels = 0;
    double seconds = 0;
};

// "iso", "xmp" or "defaults".
const char* MetadataSourceName(MetadataSource source);

// The whole report as JSON text (UTF-8; bytes of names that are not UTF-8
// become U+FFFD).
std::string JsonReportText(const std::vector<FileRecord>& records, const BatchSummary& summary);

// Writes the report to path. False with a reason.
bool WriteJsonReport(const std::string& path, const std::vector<FileRecord>& records, const BatchSummary& summary,
                     std::string* reason);

}  // namespace hdrconvert

#endif
