#include "JsonReport.h"

#include <nlohmann/json.hpp>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>

namespace hdrconvert {

namespace {

using json = nlohmann::ordered_json;

json Triple(const std::array<double, 3>& v)
{
    return json::array({v[0], v[1], v[2]});
}

// Times in milliseconds with microsecond resolution keep the file readable.
double Milliseconds(double seconds)
{
    return std::round(seconds * 1e6) / 1e3;
}

json RecordJson(const FileRecord& r)
{
    json j;
    j["input"] = r.input;
    j["result"] = r.converted ? "converted" : "refused";
    j["reason"] = r.converted ? json(nullptr) : json(r.reason);
    j["output"] = r.converted ? json(r.output) : json(nullptr);
    j["input_bytes"] = r.inputBytes;
    j["output_bytes"] = r.converted ? json(r.outputBytes) : json(nullptr);
    j["primary_size"] = r.primaryWidth > 0 ? json::array({r.primaryWidth, r.primaryHeight}) : json(nullptr);
    j["gain_map_size"] = r.gainMapWidth > 0 ? json::array({r.gainMapWidth, r.gainMapHeight}) : json(nullptr);
    j["output_size"] = r.converted ? json::array({r.outputWidth, r.outputHeight}) : json(nullptr);
    j["orientation"] = r.orientation > 0 ? json(r.orientation) : json(nullptr);
    if (r.parsed) {
        const GainMapMetadata& m = r.metadata;
        j["metadata"] = {
            {"source", MetadataSourceName(r.source)},
            {"had_xmp", r.hadXmp},
            {"had_iso", r.hadIso},
            {"gain_map_min", Triple(m.gainMapMin)},
            {"gain_map_max", Triple(m.gainMapMax)},
            {"gamma", Triple(m.gamma)},
            {"offset_sdr", Triple(m.offsetSdr)},
            {"offset_hdr", Triple(m.offsetHdr)},
            {"hdr_capacity_min", m.hdrCapacityMin},
            {"hdr_capacity_max", m.hdrCapacityMax},
        };
    } else {
        j["metadata"] = nullptr;
    }
    j["times_ms"] = {
        {"read", Milliseconds(r.times.read)},     {"parse", Milliseconds(r.times.parse)},
        {"decode", Milliseconds(r.times.decode)}, {"render", Milliseconds(r.times.render)},
        {"write", Milliseconds(r.times.write)},   {"total", Milliseconds(r.times.total)},
    };
    if (r.hasLightLevels) {
        j["light_levels"] = {{"max_cll", r.lightLevels.maxCll}, {"max_fall", r.lightLevels.maxFall}};
    } else {
        j["light_levels"] = nullptr;
    }
    return j;
}

}  // namespace

const char* MetadataSourceName(MetadataSource source)
{
    switch (source) {
    case MetadataSource::Iso:
        return "iso";
    case MetadataSource::Xmp:
        return "xmp";
    case MetadataSource::None:
        break;
    }
    return "defaults";
}

std::string JsonReportText(const std::vector<FileRecord>& records, const BatchSummary& s)
{
    json files = json::array();
    for (const FileRecord& r : records) {
        files.push_back(RecordJson(r));
    }
    json summary = {
        {"files", s.files},
        {"converted", s.converted},
        {"refused", s.files - s.converted},
        {"megapixels", s.megapixels},
        {"seconds", s.seconds},
        {"format", s.format},
        {"mode", s.mode},
        {"display", s.display},
        {"yuv", s.yuv},
        {"panel_nits", s.panelNits > 0 ? json(s.panelNits) : json(nullptr)},
        {"avif_encoder", s.avifEncoder.empty() ? json(nullptr) : json(s.avifEncoder)},
        {"avif_speed", s.avifEncoder.empty() ? json(nullptr) : json(s.avifSpeed)},
    };
    json report = {{"version", 1}, {"tool", "hdrgpu-convert"}, {"files", files}, {"summary", summary}};
    return report.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

bool WriteJsonReport(const std::string& path, const std::vector<FileRecord>& records, const BatchSummary& summary,
                     std::string* reason)
{
    const std::string text = JsonReportText(records, summary);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out) {
        *reason = "cannot create " + path + ": " + std::strerror(errno);
        return false;
    }
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
    out.close();
    if (!out) {
        *reason = "cannot write " + path;
        return false;
    }
    return true;
}

}  // namespace hdrconvert
