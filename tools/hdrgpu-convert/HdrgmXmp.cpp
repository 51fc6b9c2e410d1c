#include "HdrgmXmp.h"

#include "XmpPacket.h"

#include <array>
#include <charconv>
#include <cmath>
#include <system_error>

namespace hdrconvert {

namespace {

bool ParseNumber(const std::string& text, double* value)
{
    const char* begin = text.data();
    const char* end = begin + text.size();
    if (begin != end && *begin == '+')
        ++begin;
    if (begin == end)
        return false;
    const std::from_chars_result result = std::from_chars(begin, end, *value, std::chars_format::general);
    return result.ec == std::errc() && result.ptr == end && std::isfinite(*value);
}

bool ParseBoolean(const std::string& text, bool* value)
{
    if (text == "True" || text == "true" || text == "TRUE" || text == "1") {
        *value = true;
        return true;
    }
    if (text == "False" || text == "false" || text == "FALSE" || text == "0") {
        *value = false;
        return true;
    }
    return false;
}

std::string Prefix(const std::string& field)
{
    return "gain map metadata " + field;
}

// A per-channel field: absent (default kept), one value (all channels) or three.
bool ReadChannels(const HdrgmProperties& properties, const std::string& field, bool required,
                  std::array<double, 3>* out, std::string* reason)
{
    const auto found = properties.find(field);
    if (found == properties.end()) {
        if (!required)
            return true;
        *reason = "gain map metadata missing " + field;
        return false;
    }
    const std::vector<std::string>& values = found->second;
    if (values.size() != 1 && values.size() != 3) {
        *reason = Prefix(field) + " has " + std::to_string(values.size()) + " values (1 or 3 allowed)";
        return false;
    }
    std::array<double, 3> parsed{};
    for (size_t i = 0; i < values.size(); ++i) {
        if (!ParseNumber(values[i], &parsed[i])) {
            *reason = Prefix(field) + " is not a number";
            return false;
        }
    }
    if (values.size() == 1)
        parsed[1] = parsed[2] = parsed[0];
    *out = parsed;
    return true;
}

bool ReadScalar(const HdrgmProperties& properties, const std::string& field, bool required, double* out,
                std::string* reason)
{
    const auto found = properties.find(field);
    if (found == properties.end()) {
        if (!required)
            return true;
        *reason = "gain map metadata missing " + field;
        return false;
    }
    if (found->second.size() != 1) {
        *reason = Prefix(field) + " has " + std::to_string(found->second.size()) + " values (1 allowed)";
        return false;
    }
    if (!ParseNumber(found->second[0], out)) {
        *reason = Prefix(field) + " is not a number";
        return false;
    }
    return true;
}

bool Uniform(const std::array<double, 3>& values)
{
    return values[1] == values[0] && values[2] == values[0];
}

void AppendAttribute(std::string* xml, const char* field, const std::array<double, 3>& values)
{
    if (!Uniform(values))
        return;
    *xml += "\n        hdrgm:";
    *xml += field;
    *xml += "=\"" + FormatXmpNumber(values[0]) + "\"";
}

void AppendSeq(std::string* xml, const char* field, const std::array<double, 3>& values)
{
    if (Uniform(values))
        return;
    *xml += "      <hdrgm:";
    *xml += field;
    *xml += ">\n        <rdf:Seq>\n";
    for (double value : values)
        *xml += "          <rdf:li>" + FormatXmpNumber(value) + "</rdf:li>\n";
    *xml += "        </rdf:Seq>\n      </hdrgm:";
    *xml += field;
    *xml += ">\n";
}

const char kPacketBegin[] =
    "<?xpacket begin=\"\xEF\xBB\xBF\" id=\"W5M0MpCehiHzreSzNTczkc9d\"?>\n"
    "<x:xmpmeta xmlns:x=\"adobe:ns:meta/\" x:xmptk=\"hdrgpu-convert\">\n"
    "  <rdf:RDF xmlns:rdf=\"http://www.w3.org/1999/02/22-rdf-syntax-ns#\">\n";
const char kPacketEnd[] =
    "  </rdf:RDF>\n"
    "</x:xmpmeta>\n"
    "<?xpacket end=\"w\"?>";

}  // namespace

bool HasHdrgmValues(const HdrgmProperties& properties)
{
    for (const auto& property : properties) {
        if (property.first != "Version")
            return true;
    }
    return false;
}

bool HdrgmToMetadata(const HdrgmProperties& properties, GainMapMetadata* out, std::string* reason)
{
    GainMapMetadata m;  // the defaults
    const auto base = properties.find("BaseRenditionIsHDR");
    if (base != properties.end()) {
        if (base->second.size() != 1 || !ParseBoolean(base->second[0], &m.baseRenditionIsHdr)) {
            *reason = Prefix("BaseRenditionIsHDR") + " is not True or False";
            return false;
        }
    }
    if (!ReadChannels(properties, "GainMapMin", false, &m.gainMapMin, reason) ||
        !ReadChannels(properties, "GainMapMax", true, &m.gainMapMax, reason) ||
        !ReadChannels(properties, "Gamma", false, &m.gamma, reason) ||
        !ReadChannels(properties, "OffsetSDR", false, &m.offsetSdr, reason) ||
        !ReadChannels(properties, "OffsetHDR", false, &m.offsetHdr, reason) ||
        !ReadScalar(properties, "HDRCapacityMin", false, &m.hdrCapacityMin, reason) ||
        !ReadScalar(properties, "HDRCapacityMax", true, &m.hdrCapacityMax, reason)) {
        return false;
    }
    *out = m;
    return true;
}

std::string FormatXmpNumber(double value)
{
    char buffer[64];
    const std::to_chars_result result = std::to_chars(buffer, buffer + sizeof(buffer), value);
    if (result.ec != std::errc())
        return "0";
    return std::string(buffer, result.ptr);
}

std::string BuildGainMapXmp(const GainMapMetadata& m)
{
    std::string xml = kPacketBegin;
    xml += "    <rdf:Description rdf:about=\"\"\n        xmlns:hdrgm=\"";
    xml += kNsHdrgm;
    xml += "\"\n        hdrgm:Version=\"1.0\"";
    xml += "\n        hdrgm:BaseRenditionIsHDR=\"";
    xml += m.baseRenditionIsHdr ? "True" : "False";
    xml += "\"";
    AppendAttribute(&xml, "GainMapMin", m.gainMapMin);
    AppendAttribute(&xml, "GainMapMax", m.gainMapMax);
    AppendAttribute(&xml, "Gamma", m.gamma);
    AppendAttribute(&xml, "OffsetSDR", m.offsetSdr);
    AppendAttribute(&xml, "OffsetHDR", m.offsetHdr);
    xml += "\n        hdrgm:HDRCapacityMin=\"" + FormatXmpNumber(m.hdrCapacityMin) + "\"";
    xml += "\n        hdrgm:HDRCapacityMax=\"" + FormatXmpNumber(m.hdrCapacityMax) + "\">\n";
    AppendSeq(&xml, "GainMapMin", m.gainMapMin);
    AppendSeq(&xml, "GainMapMax", m.gainMapMax);
    AppendSeq(&xml, "Gamma", m.gamma);
    AppendSeq(&xml, "OffsetSDR", m.offsetSdr);
    AppendSeq(&xml, "OffsetHDR", m.offsetHdr);
    xml += "    </rdf:Description>\n";
    xml += kPacketEnd;
    return xml;
}

std::string BuildPrimaryXmp(size_t gainMapLength)
{
    std::string xml = kPacketBegin;
    xml += "    <rdf:Description rdf:about=\"\"\n        xmlns:hdrgm=\"";
    xml += kNsHdrgm;
    xml += "\"\n        xmlns:Container=\"";
    xml += kNsContainer;
    xml += "\"\n        xmlns:Item=\"";
    xml += kNsContainerItem;
    xml +=
        "\"\n        hdrgm:Version=\"1.0\">\n"
        "      <Container:Directory>\n"
        "        <rdf:Seq>\n"
        "          <rdf:li rdf:parseType=\"Resource\">\n"
        "            <Container:Item Item:Semantic=\"Primary\" Item:Mime=\"image/jpeg\"/>\n"
        "          </rdf:li>\n"
        "          <rdf:li rdf:parseType=\"Resource\">\n"
        "            <Container:Item Item:Semantic=\"GainMap\" Item:Mime=\"image/jpeg\" Item:Length=\"";
    xml += std::to_string(gainMapLength);
    xml +=
        "\"/>\n"
        "          </rdf:li>\n"
        "        </rdf:Seq>\n"
        "      </Container:Directory>\n"
        "    </rdf:Description>\n";
    xml += kPacketEnd;
    return xml;
}

}  // namespace hdrconvert
