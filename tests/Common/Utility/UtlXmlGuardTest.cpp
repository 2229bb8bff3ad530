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

std::string nested(unsigned depth)
{
    std::string s;
    for (unsigned i = 0; i < depth; ++i) s += "<a>";
    for (unsigned i = 0; i < depth; ++i) s += "</a>";
    return s;
}

} // namespace

// Random documents built from the places where a naive tag count and
// TinyXML part (closes hidden in comments, CDATA, attribute values, unknown
// tags, swallowed by numeric entities or UTF-8 lead bytes; declarations that
// switch the encoding). The guard may only over-estimate, and must be exact
// whenever TinyXML accepts a document of known encoding.
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
            TiXmlDocument doc;
            doc.Parse(padded.c_str(), nullptr, enc);
            const unsigned actual = treeDepth(&doc);
            const unsigned measured = measureXml(padded.c_str(), enc, 1000).maxDepth;
            ASSERT_GE(measured, actual) << "encoding " << enc << " xml: " << testing::PrintToString(xml);
            // Without a known encoding both outcomes of a declaration count.
            if (!doc.Error() && enc == TIXML_ENCODING_UTF8) {
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
