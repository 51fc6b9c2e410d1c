#include "XmpPacket.h"

#include "ByteReader.h"

#include <charconv>
#include <climits>
#include <cstring>
#include <memory>

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xmlerror.h>

namespace hdrconvert {

namespace {

const char* Text(const xmlChar* text)
{
    return reinterpret_cast<const char*>(text);
}

bool InNamespace(const xmlNs* ns, const char* uri)
{
    return ns != nullptr && ns->href != nullptr && std::strcmp(Text(ns->href), uri) == 0;
}

bool Is(const xmlNode* node, const char* uri, const char* localName)
{
    return InNamespace(node->ns, uri) && std::strcmp(Text(node->name), localName) == 0;
}

std::string Trim(const std::string& text)
{
    const char* space = " \t\r\n";
    const size_t first = text.find_first_not_of(space);
    if (first == std::string::npos)
        return std::string();
    const size_t last = text.find_last_not_of(space);
    return text.substr(first, last - first + 1);
}

// The text of a node (element or attribute) with its descendants' text.
std::string Content(const xmlNode* node)
{
    xmlChar* content = xmlNodeGetContent(node);
    if (content == nullptr)
        return std::string();
    std::string text = Text(content);
    xmlFree(content);
    return Trim(text);
}

const xmlNode* FirstElementChild(const xmlNode* node)
{
    for (const xmlNode* child = node->children; child != nullptr; child = child->next) {
        if (child->type == XML_ELEMENT_NODE)
            return child;
    }
    return nullptr;
}

// The values of an hdrgm property element: its text, or its rdf:Seq items.
std::vector<std::string> PropertyElementValues(const xmlNode* element)
{
    const xmlNode* child = FirstElementChild(element);
    if (child == nullptr)
        return {Content(element)};
    if (!Is(child, kNsRdf, "Seq"))
        return {};
    for (const xmlNode* other = child->next; other != nullptr; other = other->next) {
        if (other->type == XML_ELEMENT_NODE)
            return {};  // more than one structure
    }
    std::vector<std::string> values;
    for (const xmlNode* item = child->children; item != nullptr; item = item->next) {
        if (item->type != XML_ELEMENT_NODE)
            continue;
        if (!Is(item, kNsRdf, "li") || FirstElementChild(item) != nullptr)
            return {};
        values.push_back(Content(item));
    }
    return values;
}

bool ParseUnsigned(const std::string& text, uint64_t* value)
{
    const char* begin = text.data();
    const char* end = begin + text.size();
    if (begin == end)
        return false;
    const std::from_chars_result result = std::from_chars(begin, end, *value);
    return result.ec == std::errc() && result.ptr == end;
}

void ReadContainerItemProperty(ContainerItem* item, const std::string& name, const std::string& value)
{
    if (name == "Semantic") {
        item->semantic = value;
    } else if (name == "Mime") {
        item->mime = value;
    } else if (name == "Length") {
        item->hasLength = ParseUnsigned(value, &item->length);
    } else if (name == "Padding") {
        item->hasPadding = ParseUnsigned(value, &item->padding);
    }
}

ContainerItem ReadContainerItem(const xmlNode* element)
{
    ContainerItem item;
    for (const xmlAttr* attr = element->properties; attr != nullptr; attr = attr->next) {
        if (InNamespace(attr->ns, kNsContainerItem)) {
            ReadContainerItemProperty(&item, Text(attr->name), Content(reinterpret_cast<const xmlNode*>(attr)));
        }
    }
    for (const xmlNode* child = element->children; child != nullptr; child = child->next) {
        if (child->type == XML_ELEMENT_NODE && InNamespace(child->ns, kNsContainerItem)) {
            ReadContainerItemProperty(&item, Text(child->name), Content(child));
        }
    }
    return item;
}

void VisitElement(const xmlNode* element, XmpProperties* found)
{
    for (const xmlAttr* attr = element->properties; attr != nullptr; attr = attr->next) {
        const std::string name = Text(attr->name);
        if (InNamespace(attr->ns, kNsHdrgm)) {
            found->hdrgm.emplace(name, std::vector<std::string>{Content(reinterpret_cast<const xmlNode*>(attr))});
        } else if (InNamespace(attr->ns, kNsXmpNote) && name == "HasExtendedXMP") {
            if (found->extendedXmpGuid.empty()) {
                found->extendedXmpGuid = Content(reinterpret_cast<const xmlNode*>(attr));
            }
        } else if (InNamespace(attr->ns, kNsAppleHdrGainMap)) {
            found->appleGainMap = true;
        }
    }
    const std::string name = Text(element->name);
    if (InNamespace(element->ns, kNsHdrgm)) {
        found->hdrgm.emplace(name, PropertyElementValues(element));
    } else if (InNamespace(element->ns, kNsXmpNote) && name == "HasExtendedXMP") {
        if (found->extendedXmpGuid.empty())
            found->extendedXmpGuid = Content(element);
    } else if (InNamespace(element->ns, kNsAppleHdrGainMap)) {
        found->appleGainMap = true;
    } else if (Is(element, kNsContainer, "Item")) {
        found->containerItems.push_back(ReadContainerItem(element));
    }
}

// Visits every element in document order, without recursion.
void VisitTree(const xmlNode* root, XmpProperties* found)
{
    const xmlNode* node = root;
    while (node != nullptr) {
        if (node->type == XML_ELEMENT_NODE) {
            VisitElement(node, found);
            if (node->children != nullptr) {
                node = node->children;
                continue;
            }
        }
        while (node != nullptr && node != root && node->next == nullptr)
            node = node->parent;
        if (node == nullptr || node == root)
            break;
        node = node->next;
    }
}

void IgnoreStructuredError(void*, xmlErrorPtr)
{}
void IgnoreError(void*, const char*, ...)
{}

// A packet has no business declaring a DTD; stop before its entities.
void RefuseDtd(void* context, const xmlChar*, const xmlChar*, const xmlChar*)
{
    const xmlParserCtxtPtr parser = static_cast<xmlParserCtxtPtr>(context);
    *static_cast<bool*>(parser->_private) = true;
    xmlStopParser(parser);
}

struct ContextDeleter {
    void operator()(xmlParserCtxt* context) const { xmlFreeParserCtxt(context); }
};
struct DocDeleter {
    void operator()(xmlDoc* doc) const { xmlFreeDoc(doc); }
};

}  // namespace

bool ParseXmpPacket(const uint8_t* data, size_t size, XmpProperties* out)
{
    // Writers pad packets with NULs or end them with one.
    while (size > 0 && data[size - 1] == 0)
        --size;
    if (size == 0 || size > static_cast<size_t>(INT_MAX))
        return false;
    xmlInitParser();
    std::unique_ptr<xmlParserCtxt, ContextDeleter> context(xmlNewParserCtxt());
    if (!context)
        return false;
    bool declaredDtd = false;
    context->_private = &declaredDtd;
    context->sax->internalSubset = RefuseDtd;
    context->sax->serror = IgnoreStructuredError;
    context->sax->error = IgnoreError;
    context->sax->warning = IgnoreError;
    context->vctxt.error = IgnoreError;
    context->vctxt.warning = IgnoreError;
    const int options = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_NOCDATA;
    std::unique_ptr<xmlDoc, DocDeleter> doc(xmlCtxtReadMemory(context.get(), reinterpret_cast<const char*>(data),
                                                              static_cast<int>(size), nullptr, nullptr, options));
    if (!doc || declaredDtd || !context->wellFormed || doc->intSubset != nullptr)
        return false;
    const xmlNode* root = xmlDocGetRootElement(doc.get());
    if (root == nullptr)
        return false;
    XmpProperties found = *out;
    VisitTree(root, &found);
    *out = std::move(found);
    return true;
}

bool AssembleExtendedXmp(const uint8_t* data, const std::vector<JpegSegment>& segments, const std::string& guid,
                         std::vector<uint8_t>* out)
{
    out->clear();
    if (guid.size() != kExtendedXmpGuidSize)
        return false;
    constexpr size_t kHeader = kExtendedXmpIdentifierSize + kExtendedXmpGuidSize + 8;
    struct Chunk {
        uint32_t fullLength;
        uint32_t offset;
        size_t dataOffset;
        size_t dataSize;
    };
    std::vector<Chunk> chunks;
    uint64_t chunkBytes = 0;
    for (const JpegSegment& segment : segments) {
        if (segment.marker != kMarkerApp1 || segment.payloadSize < kHeader ||
            !SegmentHasIdentifier(data, segment, kExtendedXmpIdentifier, kExtendedXmpIdentifierSize) ||
            std::memcmp(data + segment.payloadOffset + kExtendedXmpIdentifierSize, guid.data(), kExtendedXmpGuidSize) !=
                0) {
            continue;
        }
        ByteReader reader(data + segment.payloadOffset, segment.payloadSize);
        Chunk chunk{};
        reader.U32(kExtendedXmpIdentifierSize + kExtendedXmpGuidSize, &chunk.fullLength);
        reader.U32(kExtendedXmpIdentifierSize + kExtendedXmpGuidSize + 4, &chunk.offset);
        chunk.dataOffset = segment.payloadOffset + kHeader;
        chunk.dataSize = segment.payloadSize - kHeader;
        chunks.push_back(chunk);
        chunkBytes += chunk.dataSize;
    }
    if (chunks.empty())
        return false;
    const uint32_t fullLength = chunks.front().fullLength;
    // The chunks must fill the packet, so it cannot be longer than they are.
    if (fullLength == 0 || fullLength > chunkBytes)
        return false;
    out->assign(fullLength, 0);
    std::vector<uint8_t> filled(fullLength, 0);
    size_t filledCount = 0;
    for (const Chunk& chunk : chunks) {
        if (chunk.fullLength != fullLength || chunk.offset > fullLength || chunk.dataSize > fullLength - chunk.offset) {
            out->clear();
            return false;
        }
        for (size_t i = 0; i < chunk.dataSize; ++i) {
            const size_t at = size_t{chunk.offset} + i;
            if (filled[at]) {
                if ((*out)[at] != data[chunk.dataOffset + i]) {
                    out->clear();
                    return false;
                }
                continue;
            }
            (*out)[at] = data[chunk.dataOffset + i];
            filled[at] = 1;
            ++filledCount;
        }
    }
    if (filledCount != fullLength) {
        out->clear();
        return false;
    }
    return true;
}

}  // namespace hdrconvert
