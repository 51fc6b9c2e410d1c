// XMP packets as the gain-map reader needs them: an XML parse (libxml2) that
// collects, by namespace URI and never by prefix, the hdrgm properties, the
// GContainer directory, the extended-XMP link and any Apple gain-map
// vocabulary; and the joining of extended XMP chunks.
#ifndef HDRGPU_CONVERT_XMP_PACKET_H
#define HDRGPU_CONVERT_XMP_PACKET_H

#include "JpegSegments.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace hdrconvert {

constexpr char kXmpIdentifier[] = "http://ns.adobe.com/xap/1.0/";  // 29 bytes with NUL
constexpr size_t kXmpIdentifierSize = sizeof(kXmpIdentifier);
constexpr char kExtendedXmpIdentifier[] = "http://ns.adobe.com/xmp/extension/";  // 35 bytes with NUL
constexpr size_t kExtendedXmpIdentifierSize = sizeof(kExtendedXmpIdentifier);
constexpr size_t kExtendedXmpGuidSize = 32;

constexpr char kNsHdrgm[] = "http://ns.adobe.com/hdr-gain-map/1.0/";
constexpr char kNsRdf[] = "http://www.w3.org/1999/02/22-rdf-syntax-ns#";
constexpr char kNsXmpNote[] = "http://ns.adobe.com/xmp/note/";
constexpr char kNsContainer[] = "http://ns.google.com/photos/1.0/container/";
constexpr char kNsContainerItem[] = "http://ns.google.com/photos/1.0/container/item/";
constexpr char kNsAppleHdrGainMap[] = "http://ns.apple.com/HDRGainMap/1.0/";

// One Container:Item of a GContainer directory.
struct ContainerItem {
    std::string semantic;
    std::string mime;
    bool hasLength = false;
    uint64_t length = 0;
    bool hasPadding = false;
    uint64_t padding = 0;
};

struct XmpProperties {
    // hdrgm properties by local name. An attribute or an element with text
    // gives one value; an element holding rdf:Seq gives one value per rdf:li;
    // any other element structure gives no value (and is refused later).
    // The first occurrence of a name wins.
    std::map<std::string, std::vector<std::string>> hdrgm;
    std::vector<ContainerItem> containerItems;  // in document order
    std::string extendedXmpGuid;                // xmpNote:HasExtendedXMP
    bool appleGainMap = false;                  // the Apple HDRGainMap namespace is used
};

// Parses one packet and merges what it finds into *out (names already
// present keep their values). Returns false when the packet is not
// well-formed XML (or declares a DTD); *out is then left as it was.
bool ParseXmpPacket(const uint8_t* data, size_t size, XmpProperties* out);

// Joins the extended XMP chunks (APP1 segments of `segments` in data) that
// carry `guid`. Returns false when there are none, or they disagree on the
// full length, overlap inconsistently or leave gaps.
bool AssembleExtendedXmp(const uint8_t* data, const std::vector<JpegSegment>& segments, const std::string& guid,
                         std::vector<uint8_t>* out);

}  // namespace hdrconvert

#endif
