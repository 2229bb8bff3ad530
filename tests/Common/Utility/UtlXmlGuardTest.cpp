#include "Common/Utility/UtlXmlGuard.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <utility>
#include <vector>

using namespace utl_xml_internal;

namespace {

// Element nesting of the tree TinyXML built, walked without recursion. TinyXML
// links every element it started, even when parsing then failed, so this is
// the number of Element::Parse frames it had on the stack at once.
unsigned treeDepth(const TiXmlNode* doc)
{
    unsigned deepest = 0;
    std::vector<std::pair<const TiXmlNode*, unsigned>> todo;
    for (const TiXmlNode* c = doc->FirstChild(); c; c = c->NextSibling()) todo.emplace_back(c, 0);
    while (!todo.empty()) {
        auto [node, above] = todo.back();
        todo.pop_back();
        const unsigned depth = above + (node->ToElement() ? 1 : 0);
        if (depth > deepest) deepest = depth;
        for (const TiXmlNode* c = node->FirstChild(); c; c = c->NextSibling()) todo.emplace_back(c, depth);
    }
    return deepest;
}

unsigned tinyXmlDepth(const std::string& padded, TiXmlEncoding enc, bool* error = nullptr)
{
    TiXmlDocument doc;
    doc.Parse(padded.c_str(), nullptr, enc);
    if (error) *error = doc.Error();
    return treeDepth(&doc);
}

std::string nested(unsigned depth, const std::string& open = "<a>", const std::string& close = "</a>")
{
    std::string s;
    for (unsigned i = 0; i < depth; ++i) s += open;
    s += "x";
    for (unsigned i = 0; i < depth; ++i) s += close;
    return s;
}

} // namespace

// Each document hides or fakes nesting in a place where TinyXML's reading
// differs from a naive tag count; the guard must see what TinyXML builds.
TEST(UtlXmlGuard, AgreesWithTinyXmlWhereNaiveScansWouldNot)
{
    std::string fakeCloses, unknownCloses;
    for (int i = 0; i < 40; ++i) fakeCloses += "</a>";
    for (int i = 0; i < 40; ++i) unknownCloses += "</a "; // an unknown tag ends at the first '>'
    std::string opens;
    for (int i = 0; i < 40; ++i) opens += "<a>";

    struct Case {
        const char* what;
        std::string xml;
        TiXmlEncoding enc;
    };
    const Case cases[] = {
        {"closes inside a comment", "<r><a>" + std::string("<!--") + fakeCloses + "-->" + opens, TIXML_ENCODING_UTF8},
        {"closes inside CDATA", "<r><a><![CDATA[" + fakeCloses + "]]>" + opens, TIXML_ENCODING_UTF8},
        {"closes inside an attribute value", "<r><a v=\"" + fakeCloses + "\">" + opens, TIXML_ENCODING_UTF8},
        {"closes inside an unknown tag", "<r><!DOCTYPE " + unknownCloses + ">" + opens, TIXML_ENCODING_UTF8},
        // A numeric entity jumps to the first ';' when digits precede it.
        {"opens swallowed by an entity", "<r>&#" + opens + "#5;" + opens, TIXML_ENCODING_UTF8},
        {"closes swallowed by a hex entity", "<r><a>&#x" + fakeCloses + "x5;" + opens, TIXML_ENCODING_UTF8},
        // A UTF-8 lead byte steps over the closing quote.
        {"lead byte before the quote", "<r><a v=\"\xF0\"></a></a></a>\">" + opens, TIXML_ENCODING_UTF8},
        {"lead byte in text", "<r><a>\xE2</a></a>" + opens, TIXML_ENCODING_UTF8},
        {"declaration with '>' in a quoted value", "<?xml version=\"" + fakeCloses + "\"?><r>" + opens,
         TIXML_ENCODING_UNKNOWN},
        {"declaration selects UTF-8", "<?xml version='1.0' encoding='UTF-8'?><r><a v=\"\xF0\">" + fakeCloses + "\">" +
                                          opens,
         TIXML_ENCODING_UNKNOWN},
        {"declaration selects legacy", "<?xml version='1.0' encoding='latin1'?><r><a v=\"\xF0\">" + opens,
         TIXML_ENCODING_UNKNOWN},
        {"byte order mark", "\xEF\xBB\xBF<r><a v=\"\xF0\"></a></a>\">" + opens, TIXML_ENCODING_UNKNOWN},
        {"self-closing and closed siblings", "<r>" + nested(30) + "<e/><e a='1' />" + nested(20) + "</r>",
         TIXML_ENCODING_UTF8},
        {"plain nesting", nested(60, "<n k='v'>\n", "</n >"), TIXML_ENCODING_UTF8},
    };
    for (const Case& c : cases) {
        const std::string padded = paddedXml(c.xml.c_str());
        bool error = false;
        const unsigned actual = tinyXmlDepth(padded, c.enc, &error);
        const unsigned measured = measureXml(padded.c_str(), c.enc, 1000).maxDepth;
        EXPECT_GE(measured, actual) << c.what;
        if (!error) {
            EXPECT_EQ(measured, actual) << c.what;
        }
        EXPECT_GE(actual, 30u) << c.what << ": the case should build real nesting";
    }
}

// Random documents from fragments chosen for the places where the readings
// could part; the guard may only over-estimate, and must be exact whenever
// TinyXML accepts a document of known encoding.
TEST(UtlXmlGuard, NeverUnderestimatesRandomDocuments)
{
    const char* const fragments[] = {
        "<a>", "<a x='1'>", "<b y=\"&#x41;\">", "</a>", "</b>", "<c/>", "text", " ", "\n", "<!-- </a> -->",
        "<![CDATA[ </a> ]]>", "&#", "#5;", "&#x", "x5;", "\xF0\"", "\xE2<", "\xC3", "\xEF\xBB\xBF",
        "<?xml version='1.0' encoding='UTF-8'?>", "<?xml version='>' ?>", "<?xml encoding='x'?>", "<!DOCTYPE x>",
        "<?pi </a> ?>", "<a q=\"</a>\">", "'", "\"", ">", "<", "&amp;", "<_z>", "</_z>", "<\xC3\xA9>", "<a x=1>",
        "/>", "<!--", "-->", "<![CDATA[", "]]>", "&lt;", "&#59;", ";", "<a x='&#x3e;'>", "</a >",
    };
    std::mt19937 rng(20240611u);
    std::uniform_int_distribution<size_t> pick(0, sizeof fragments / sizeof fragments[0] - 1);
    std::uniform_int_distribution<int> length(1, 60);
    const TiXmlEncoding encodings[] = {TIXML_ENCODING_UTF8, TIXML_ENCODING_UNKNOWN};
    for (int iteration = 0; iteration < 4000; ++iteration) {
        std::string xml;
        if (iteration % 2 == 0) {
            for (int n = length(rng); n > 0; --n) xml += fragments[pick(rng)];
        } else {
            // Single characters of the same constructs, for splits no fragment has.
            static const char chars[] = "<>/a\"'&#x5;!-[]?= \n\xF0\xC3\xE2" "CDATmlb\xEF\xBB\xBF";
            for (int n = 3 * length(rng); n > 0; --n) xml += chars[rng() % (sizeof chars - 1)];
        }
        const std::string padded = paddedXml(xml.c_str());
        for (TiXmlEncoding enc : encodings) {
            bool error = false;
            const unsigned actual = tinyXmlDepth(padded, enc, &error);
            const unsigned measured = measureXml(padded.c_str(), enc, 1000).maxDepth;
            ASSERT_GE(measured, actual) << "encoding " << enc << " xml: " << testing::PrintToString(xml);
            // Without a known encoding both outcomes of a declaration count.
            if (!error && enc == TIXML_ENCODING_UTF8) {
                ASSERT_EQ(measured, actual) << "encoding " << enc << " xml: " << testing::PrintToString(xml);
            }
        }
    }
}

TEST(UtlXmlGuard, LimitsDepthAndAttributeCount)
{
    EXPECT_TRUE(xmlWithinLimits(paddedXml(nested(MAX_XML_DEPTH).c_str()), TIXML_ENCODING_UTF8));
    EXPECT_FALSE(xmlWithinLimits(paddedXml(nested(MAX_XML_DEPTH + 1).c_str()), TIXML_ENCODING_UTF8));
    EXPECT_FALSE(xmlWithinLimits(paddedXml(nested(MAX_XML_DEPTH + 1).c_str()), TIXML_ENCODING_UNKNOWN));

    auto withAttributes = [](unsigned n) {
        std::string s = "<a";
        for (unsigned i = 0; i < n; ++i) s += " a" + std::to_string(i) + "='1'";
        return s + "/>";
    };
    EXPECT_TRUE(xmlWithinLimits(paddedXml(withAttributes(MAX_XML_ATTRIBUTES).c_str()), TIXML_ENCODING_UTF8));
    EXPECT_FALSE(xmlWithinLimits(paddedXml(withAttributes(MAX_XML_ATTRIBUTES + 1).c_str()), TIXML_ENCODING_UTF8));
}

TEST(UtlXmlGuard, StopsEarlyOnHugeNesting)
{
    // 100000 open tags: the scan gives up just past the limit.
    std::string deep;
    for (int i = 0; i < 100000; ++i) deep += "<a>";
    const XmlShape shape = measureXml(paddedXml(deep.c_str()).c_str(), TIXML_ENCODING_UTF8, 10);
    EXPECT_EQ(shape.maxDepth, 11u);
}
