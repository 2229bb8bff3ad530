#include "Common/Utility/UtlXmlGuard.h"

#include <cctype>
#include <cstring>

namespace utl_xml_internal {
namespace {

// Mirrors the reading rules of TinyXML 2.6 (tinyxmlparser.cpp) without
// building nodes: every place where TinyXML decides where a construct ends is
// reproduced, so that both see the same element starts and ends on any input
// TinyXML accepts. Where TinyXML would fail, parsing stops there, so the scan
// may stop or go on as it likes.
class Scanner {
public:
    Scanner(TiXmlEncoding start, TiXmlEncoding afterDeclaration, unsigned stopDepth)
        : enc_(start), afterDecl_(afterDeclaration), stopDepth_(stopDepth)
    {
    }

    XmlShape run(const char* p);

private:
    static bool isWhite(char c) { return std::isspace(static_cast<unsigned char>(c)) || c == '\n' || c == '\r'; }
    // TinyXML takes every byte from 127 up as a letter.
    static bool isAlpha(char c)
    {
        unsigned char b = static_cast<unsigned char>(c);
        return b < 127 ? std::isalpha(b) != 0 : true;
    }
    static bool isAlnum(char c)
    {
        unsigned char b = static_cast<unsigned char>(c);
        return b < 127 ? std::isalnum(b) != 0 : true;
    }
    static bool startsWith(const char* p, const char* tag)
    {
        while (*p && *tag && *p == *tag) {
            ++p;
            ++tag;
        }
        return *tag == 0;
    }
    static bool startsWithNoCase(const char* p, const char* tag)
    {
        // Tags are ASCII; bytes above 127 never equal them in any encoding.
        while (*p && *tag &&
               std::tolower(static_cast<unsigned char>(*p)) == std::tolower(static_cast<unsigned char>(*tag))) {
            ++p;
            ++tag;
        }
        return *tag == 0;
    }

    const char* skipWhite(const char* p) const;
    const char* entity(const char* p) const;
    const char* character(const char* p) const;
    const char* readText(const char* p, const char* endTag) const;
    const char* attribute(const char* p) const;
    const char* declaration(const char* p) const;
    const char* startTag(const char* p, bool& empty, unsigned& attributes) const;

    TiXmlEncoding enc_;
    TiXmlEncoding afterDecl_;
    unsigned stopDepth_;
};

const char* Scanner::skipWhite(const char* p) const
{
    if (enc_ == TIXML_ENCODING_UTF8) {
        while (*p) {
            const unsigned char* u = reinterpret_cast<const unsigned char*>(p);
            if (u[0] == 0xEF && ((u[1] == 0xBB && u[2] == 0xBF) || (u[1] == 0xBF && (u[2] == 0xBE || u[2] == 0xBF)))) {
                p += 3;
                continue;
            }
            if (!isWhite(*p)) break;
            ++p;
        }
        return p;
    }
    while (*p && isWhite(*p)) ++p;
    return p;
}

// TiXmlBase::GetEntity: numeric entities jump to the first ';' when the
// characters just before it are digits, however much lies in between.
const char* Scanner::entity(const char* p) const
{
    if (p[1] == '#' && p[2]) {
        const bool hex = p[2] == 'x';
        if (hex && !p[3]) return nullptr;
        const char* q = std::strchr(p + (hex ? 3 : 2), ';');
        if (q == nullptr) return nullptr;
        const char* end = q;
        for (--q; *q != (hex ? 'x' : '#'); --q) {
            const bool ok = hex ? std::isxdigit(static_cast<unsigned char>(*q)) != 0 : (*q >= '0' && *q <= '9');
            if (!ok) return nullptr;
        }
        return end + 1;
    }
    static const char* const named[] = {"&amp;", "&lt;", "&gt;", "&quot;", "&apos;"};
    for (const char* n : named) {
        const std::size_t len = std::strlen(n);
        if (std::strncmp(n, p, len) == 0) return p + len;
    }
    return p + 1;
}

// TiXmlBase::GetChar: in UTF-8 a lead byte steps over its whole sequence,
// whatever the following bytes are.
const char* Scanner::character(const char* p) const
{
    const int len = enc_ == TIXML_ENCODING_UTF8 ? TiXmlBase::utf8ByteTable[static_cast<unsigned char>(*p)] : 1;
    if (len == 1) return *p == '&' ? entity(p) : p + 1;
    if (len == 0) return nullptr;
    return p + len;
}

// TiXmlBase::ReadText; null where TinyXML gives up.
const char* Scanner::readText(const char* p, const char* endTag) const
{
    while (*p && !startsWith(p, endTag)) {
        p = character(p);
        if (p == nullptr) return nullptr;
    }
    if (!*p) return nullptr;
    p += std::strlen(endTag);
    return *p ? p : nullptr;
}

// TiXmlAttribute::Parse.
const char* Scanner::attribute(const char* p) const
{
    p = skipWhite(p);
    if (!*p || !(isAlpha(*p) || *p == '_')) return nullptr;
    while (*p && (isAlnum(*p) || *p == '_' || *p == '-' || *p == '.' || *p == ':')) ++p;
    if (!*p) return nullptr;
    p = skipWhite(p);
    if (*p != '=') return nullptr;
    p = skipWhite(p + 1);
    if (!*p) return nullptr;
    if (*p == '\'') return readText(p + 1, "'");
    if (*p == '"') return readText(p + 1, "\"");
    while (*p && !isWhite(*p) && *p != '/' && *p != '>') {
        if (*p == '\'' || *p == '"') return nullptr;
        ++p;
    }
    return p;
}

// TiXmlDeclaration::Parse: only version, encoding and standalone are read as
// attributes (quoted values may hold '>'); anything else is skipped to the
// next blank.
const char* Scanner::declaration(const char* p) const
{
    p += 5;
    while (p && *p) {
        if (*p == '>') return p + 1;
        p = skipWhite(p);
        if (!*p) return nullptr;
        if (startsWithNoCase(p, "version") || startsWithNoCase(p, "encoding") || startsWithNoCase(p, "standalone")) {
            p = attribute(p);
        } else {
            while (*p && *p != '>' && !isWhite(*p)) ++p;
        }
    }
    return nullptr;
}

// The start tag of TiXmlElement::Parse, up to and including '>' or "/>".
const char* Scanner::startTag(const char* p, bool& empty, unsigned& attributes) const
{
    p = skipWhite(p + 1);
    if (!*p || !(isAlpha(*p) || *p == '_')) return nullptr;
    while (*p && (isAlnum(*p) || *p == '_' || *p == '-' || *p == '.' || *p == ':')) ++p;
    attributes = 0;
    while (*p) {
        p = skipWhite(p);
        if (!*p) return nullptr;
        if (*p == '/') return p[1] == '>' ? (empty = true, p + 2) : nullptr;
        if (*p == '>') return empty = false, p + 1;
        p = attribute(p);
        if (p == nullptr || !*p) return nullptr;
        ++attributes;
    }
    return nullptr;
}

// TiXmlDocument::Parse and TiXmlElement::ReadValue, with the recursion of
// nested elements replaced by a depth count.
XmlShape Scanner::run(const char* p)
{
    XmlShape shape;
    const unsigned char* u = reinterpret_cast<const unsigned char*>(p);
    if (enc_ == TIXML_ENCODING_UNKNOWN && u[0] == 0xEF && u[1] == 0xBB && u[2] == 0xBF) enc_ = TIXML_ENCODING_UTF8;

    unsigned depth = 0; // elements whose content is being read
    for (p = skipWhite(p); p != nullptr && *p; p = p ? skipWhite(p) : nullptr) {
        if (*p != '<') {
            if (depth == 0) break; // text at document level ends the parse
            p = readText(p, "<");
            if (p != nullptr) --p; // back onto the '<'
            continue;
        }
        if (depth > 0 && startsWith(p, "</")) {
            // Valid only as "</" name blanks ">": the next '>' ends it.
            while (*p && *p != '>') ++p;
            if (!*p) break;
            ++p;
            --depth;
            continue;
        }
        if (startsWithNoCase(p, "<?xml")) {
            p = declaration(p);
            if (depth == 0 && enc_ == TIXML_ENCODING_UNKNOWN) enc_ = afterDecl_;
        } else if (startsWith(p, "<!--")) {
            p += 4;
            while (*p && !startsWith(p, "-->")) ++p;
            if (*p) p += 3;
        } else if (startsWith(p, "<![CDATA[")) {
            p += 9;
            while (*p && !startsWith(p, "]]>")) ++p;
            p = readText(p, "]]>");
        } else if (startsWith(p, "<!") || !(isAlpha(p[1]) || p[1] == '_')) {
            ++p; // unknown: up to the next '>'
            while (*p && *p != '>') ++p;
            if (*p) ++p;
        } else {
            bool empty = false;
            unsigned attributes = 0;
            if (depth + 1 > shape.maxDepth) shape.maxDepth = depth + 1;
            p = startTag(p, empty, attributes);
            if (attributes > shape.maxAttributes) shape.maxAttributes = attributes;
            if (shape.maxDepth > stopDepth_) break;
            if (p != nullptr && !empty) ++depth;
        }
    }
    return shape;
}

} // namespace

XmlShape measureXml(const char* text, TiXmlEncoding encoding, unsigned stopDepth)
{
    if (text == nullptr) return XmlShape();
    if (encoding != TIXML_ENCODING_UNKNOWN) return Scanner(encoding, encoding, stopDepth).run(text);
    // Which encoding a declaration selects depends on how TinyXML decodes
    // its value; measuring both outcomes avoids predicting it.
    XmlShape a = Scanner(encoding, TIXML_ENCODING_UTF8, stopDepth).run(text);
    XmlShape b = Scanner(encoding, TIXML_ENCODING_LEGACY, stopDepth).run(text);
    if (b.maxDepth > a.maxDepth) a.maxDepth = b.maxDepth;
    if (b.maxAttributes > a.maxAttributes) a.maxAttributes = b.maxAttributes;
    return a;
}

std::string paddedXml(const char* text)
{
    std::string s(text ? text : "");
    s.append(XML_PADDING, '\0');
    return s;
}

bool xmlWithinLimits(const std::string& padded, TiXmlEncoding encoding)
{
    const XmlShape shape = measureXml(padded.c_str(), encoding, MAX_XML_DEPTH);
    return shape.maxDepth <= MAX_XML_DEPTH && shape.maxAttributes <= MAX_XML_ATTRIBUTES;
}

} // namespace utl_xml_internal
