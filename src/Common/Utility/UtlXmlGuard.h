#pragma once

// Internal to the XML helpers (not exported).
//
// TinyXML parses (and later destroys and prints) elements recursively, one
// set of stack frames per nesting level, so a hostile document nested deeply
// enough overflows the caller's stack. Before a buffer is handed to TinyXML
// its shape is measured here, and documents beyond the limits are refused.
//
// The measurement follows TinyXML 2.6's own reading rules (what ends a text,
// an attribute value, a comment or an unknown tag; entities; multi-byte UTF-8
// steps), so a document cannot hide nesting from it by exploiting places
// where a simpler scan and TinyXML would disagree.
#include <tinyxml.h>

#include <cstddef>
#include <string>

namespace utl_xml_internal {

// Deepest element nesting accepted. TinyXML needs well under 1 KiB of stack
// per level; this keeps a worst-case document far inside the library's 256 KiB
// thread stacks.
constexpr unsigned MAX_XML_DEPTH = 128;
// TinyXML checks each new attribute against all earlier ones of the element
// (quadratic time); real documents have a handful.
constexpr unsigned MAX_XML_ATTRIBUTES = 1024;
// Zero bytes appended after the text: TinyXML may step up to four bytes at a
// time over a broken UTF-8 sequence and would otherwise read past the end.
constexpr std::size_t XML_PADDING = 4;

struct XmlShape {
    unsigned maxDepth = 0;      // most Element::Parse frames active at once
    unsigned maxAttributes = 0; // most attributes in one start tag
};

// Measures text (zero-terminated; reading may run up to XML_PADDING - 1
// bytes past the terminator, which must be zero too) as TinyXML would parse
// it with the given encoding. With TIXML_ENCODING_UNKNOWN the encoding a
// declaration switches to is not predicted: both outcomes are measured and
// the larger taken. Stops early once the depth exceeds stopDepth.
XmlShape measureXml(const char* text, TiXmlEncoding encoding, unsigned stopDepth);

// Copies text with the padding; a null text gives an empty buffer.
std::string paddedXml(const char* text);

// True when the padded buffer may be parsed safely.
bool xmlWithinLimits(const std::string& padded, TiXmlEncoding encoding);

} // namespace utl_xml_internal
