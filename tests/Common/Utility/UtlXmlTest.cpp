#include "Common/Utility/UtlXml.h"

#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "Common/Utility/UtlXmlGuard.h"
#include "Os/UDBControl.h"
#include "TestSupport.h"

using tavro_test::writeFile;

namespace {

// The message of the UtlXmlException f throws; "" when it throws none.
std::string xmlError(const std::function<void()>& f)
{
    try {
        f();
    } catch (const UtlXmlException& e) {
        return e.m_sError;
    }
    return "";
}

std::string fromString(const std::string& xml, const char* root = "Config")
{
    TiXmlDocument doc;
    return xmlError([&] { UtlXml::loadDOMFromString(doc, xml.c_str(), root); });
}

std::string nested(unsigned depth)
{
    std::string open, close;
    for (unsigned i = 0; i < depth; ++i) open += "<a>", close += "</a>";
    return open + close;
}

// Element nesting of the tree TinyXML built. TinyXML links every element it
// started, even when parsing then failed, so this is the number of
// Element::Parse frames it had on the stack at once.
unsigned treeDepth(const TiXmlNode* node)
{
    unsigned deepest = 0;
    for (const TiXmlNode* c = node->FirstChild(); c; c = c->NextSibling())
        deepest = std::max(deepest, treeDepth(c) + (c->ToElement() ? 1 : 0));
    return deepest;
}

const std::string STRING_FAILED = "loadDOMFromString: Failed to load XML string (1st 50 chars)[";

} // namespace

TEST(UtlXml, LoadsStringsAndFilesAndReportsEachFailure)
{
    const std::string sixty(60, 'x');
    const std::tuple<std::string, const char*, std::string> cases[] = {
        {"<?xml version=\"1.0\"?><Config/>", "Config", ""},
        {"<Config/>", nullptr, ""},
        {"", "Config", STRING_FAILED + "]."},
        {"<Config><a>", "Config", STRING_FAILED + "<Config><a>]."},
        {"<Config>" + sixty + "</Conf>", "Config", STRING_FAILED + "<Config>" + sixty.substr(0, 42) + "]."},
        {"<!-- no element -->", "Config", "getRootElement: Missing XML root."},
        {"<config/>", "Config", "getRootElement: XML root is not an Config element."}};
    for (const auto& [xml, root, error] : cases) EXPECT_EQ(fromString(xml, root), error) << xml;
    TiXmlDocument doc;
    EXPECT_EQ(xmlError([&] { UtlXml::loadDOMFromString(doc, nullptr, "Config"); }), STRING_FAILED + "].");

    TiXmlElement* root = UtlXml::loadDOMFromString(doc, "<Config><Port/><Port n='2'/></Config>", "Config");
    EXPECT_EQ(UtlXml::getFirstChildElement(root, "Port"), root->FirstChildElement());
    EXPECT_EQ(UtlXml::getFirstChildElement(root, "Missing"), nullptr);
    EXPECT_EQ(UtlXml::getFirstChildElement(nullptr, "Port"), nullptr);
    root = UtlXml::loadDOMFromString(doc, "<Other/>", "Other");
    EXPECT_EQ(root, doc.LastChild()) << "a second load replaces the document";

    tavro_test::ScopedTempDir dir;
    writeFile("good.xml", "<?xml version=\"1.0\"?>\r\n<Config>\r\n  <Item>a\rb</Item>\r\n</Config>\r\n");
    writeFile("bad.xml", "<Config><Item></Config>");
    writeFile("empty.xml", "");
    writeFile("deep.xml", "<?xml version=\"1.0\"?>" + nested(100000));

    root = UtlXml::loadDOMFromFile(doc, "good.xml", "Config");
    EXPECT_STREQ(doc.Value(), "good.xml");
    EXPECT_STREQ(root->FirstChildElement("Item")->GetText(), "a b") << "line ends normalised as TinyXML does";

    testing::internal::CaptureStdout();
    for (const char* path : {"bad.xml", "empty.xml", "missing.xml", ".", "deep.xml"})
        EXPECT_EQ(xmlError([&] { UtlXml::loadDOMFromFile(doc, path, "Config"); }),
                  std::string("loadDOMFromFile: Failed to load file[") + path + "].");
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "loadDOMFromFile: XML nesting or attribute count beyond limits in [deep.xml]\n");
    EXPECT_EQ(xmlError([&] { UtlXml::loadDOMFromFile(doc, "good.xml", "Other"); }),
              "getRootElement: XML root is not an Other element.");
}

TEST(UtlXml, HostileStringsFailCleanly)
{
    using utl_xml_internal::MAX_XML_ATTRIBUTES;
    using utl_xml_internal::MAX_XML_DEPTH;
    auto withAttributes = [](unsigned n) {
        std::string s = "<a";
        for (unsigned i = 0; i < n; ++i) s += " a" + std::to_string(i) + "='1'";
        return s + "/>";
    };
    // 100000 levels would overflow the stack inside TinyXML; they are refused.
    const std::string deep = nested(100000), tooDeep = nested(MAX_XML_DEPTH + 1);
    const std::string wide = withAttributes(MAX_XML_ATTRIBUTES + 1);
    for (const std::string& xml : {deep, tooDeep, wide, nested(MAX_XML_DEPTH), withAttributes(MAX_XML_ATTRIBUTES)}) {
        const bool refused = xml == deep || xml == tooDeep || xml == wide;
        testing::internal::CaptureStdout();
        EXPECT_EQ(fromString(xml, "a"), refused ? STRING_FAILED + xml.substr(0, 50) + "]." : "");
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  refused ? "loadDOMFromString: XML nesting or attribute count beyond limits\n" : "");
    }

    const std::string big(4 << 20, 'v');
    TiXmlDocument doc;
    EXPECT_EQ(UtlXml::loadDOMFromString(doc, ("<Config big=\"" + big + "\"/>").c_str(), "Config")->Attribute("big"),
              big);
    EXPECT_EQ(fromString("\xEF\xBB\xBF<Config>\xC3\xA9t\xC3\xA9</Config>"), "");
}

TEST(UtlXml, LoadPortNum)
{
    // A null value: the attribute is missing; an invalid port number: must throw.
    const std::tuple<const char*, unsigned char, PORT_NUM> cases[] = {{"1.2.3", 0, PORT_NUM(0x00000102u)},
                                                                      {"1.2.3", 5, PORT_NUM(0x05000102u)},
                                                                      {" 8.12.255 ", 0, PORT_NUM(0x00070BFEu)},
                                                                      {"ALL", 5, PORT_NUM::ALL_PORT_NUMS},
                                                                      {"9.1.1", 0, PORT_NUM()},
                                                                      {"1.13.1", 0, PORT_NUM()},
                                                                      {"1.x.3", 0, PORT_NUM()},
                                                                      {"", 0, PORT_NUM()},
                                                                      {nullptr, 0, PORT_NUM()}};
    const std::string prefix = "loadPortNum: Invalid XML file.  A port number element[Port] ";
    for (const auto& [value, swId, expected] : cases) {
        SCOPED_TRACE(value ? value : "(missing)");
        TiXmlElement elem("Port");
        if (value) elem.SetAttribute("num", value);
        PORT_NUM port;
        bool valid = false;
        const unsigned char sw = swId;
        const std::string error = xmlError([&] { valid = UtlXml::loadPortNum(&elem, "num", port, sw); });
        if (expected != PORT_NUM::INVALID_PORT_NUM) {
            EXPECT_TRUE(valid && error.empty());
            EXPECT_EQ(port, expected);
        } else {
            EXPECT_EQ(error, prefix + (value ? "has an invalid attribute[num] value[" + std::string(value) + "]."
                                             : "is missing the attribute[num]."));
        }
    }
}

TEST(UtlXml, LinksNewNodesAndThrowsAndLogsItsTexts)
{
    TiXmlDocument doc;
    UtlXml::linkNewDeclaration(&doc, "1.0", "UTF-8", "");
    UtlXml::linkNewStylesheet(&doc, "view.xsl?a=1&b=\"2\"");
    UtlXml::linkNewComment(&doc, " generated ");
    EXPECT_NE(UtlXml::linkNewTextElement(UtlXml::linkNewElement(UtlXml::linkNewElement(&doc, "Root"), "Name"), "a<b"),
              nullptr);
    TiXmlPrinter printer;
    printer.SetStreamPrinting();
    doc.Accept(&printer);
    EXPECT_EQ(std::string(printer.CStr()),
              "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>"
              "<?xml-stylesheet type=\"text/xsl\" href=\"view.xsl?a=1&amp;b=&quot;2&quot;\"?>"
              "<!-- generated --><Root><Name>a&lt;b</Name></Root>");
    EXPECT_EQ(UtlXml::linkNewElement(nullptr, "Orphan"), nullptr) << "freed, not leaked (ASan)";

    EXPECT_EQ(xmlError([] { UtlXml::AssertValidNode(nullptr, "TiXmlComment"); }),
              "UtlXml Error: Failed to allocate TiXmlComment TiXmlElement.");
    EXPECT_EQ(xmlError([] { UtlXml::throwUtlXmlException("fn", std::string("as string")); }), "fn: as string");

    const UtlXmlException e("loadPortNum: bad");
    std::ostringstream os;
    os << e << &e;
    EXPECT_EQ(os.str(), "UtlXmlException: loadPortNum: bad\nUtlXmlException: loadPortNum: bad\n");

    // Before the debug writer runs, the trace goes straight to stdout.
    testing::internal::CaptureStdout();
    try {
        UtlXml::throwUtlXmlException("fn", "thrown");
    } catch (const UtlException& caught) {
        caught.logException(); // the XML form, through the base
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "UtlXmlException: fn: thrown\n");
}

// Random documents built from the places where a naive tag count and
// TinyXML part (closes hidden in comments, CDATA, attribute values, unknown
// tags, swallowed by numeric entities or UTF-8 lead bytes; declarations that
// switch the encoding). The guard may only over-estimate, and must be exact
// whenever TinyXML accepts a document of known encoding.
TEST(UtlXmlGuard, NeverUnderestimatesRandomDocuments)
{
    std::vector<std::string> fragments;
    std::istringstream pieces(
        "<a>|<a x='1'>|<b y=\"&#x41;\">|</a>|</b>|<c/>|text| |\x0A|<!-- </a> -->|"
        "<![CDATA[ </a> ]]>|&#|#5;|&#x|x5;|\xF0\"|\xE2<|\xC3|\xEF\xBB\xBF|"
        "<?xml version='1.0' encoding='UTF-8'?>|<?xml version='>' ?>|"
        "<?xml encoding='x'?>|<!DOCTYPE x>|<?pi </a> ?>|<a q=\"</a>\">|'|\"|>|<|&amp;|"
        "<_z>|</_z>|<\xC3\xA9>|<a x=1>|/>|<!--|-->|<![CDATA[|]]>|&lt;|&#59;|;|"
        "<a x='&#x3e;'>|</a >");
    for (std::string f; std::getline(pieces, f, '|');) fragments.push_back(f);
    // Single characters of the same constructs, for splits no fragment has.
    static const char chars[] =
        "<>/a\"'&#x5;!-[]?= \n\xF0\xC3\xE2"
        "CDATmlb\xEF\xBB\xBF";
    std::mt19937 rng(20240611u);
    std::uniform_int_distribution<size_t> pick(0, fragments.size() - 1);
    std::uniform_int_distribution<int> length(1, 60);
    for (int iteration = 0; iteration < 4000; ++iteration) {
        std::string xml;
        for (int n = length(rng); n > 0; --n) {
            if (iteration % 2 == 0)
                xml += fragments[pick(rng)];
            else
                for (int k = 0; k < 3; ++k) xml += chars[rng() % (sizeof chars - 1)];
        }
        const std::string padded = utl_xml_internal::paddedXml(xml.c_str());
        for (TiXmlEncoding enc : {TIXML_ENCODING_UTF8, TIXML_ENCODING_UNKNOWN}) {
            SCOPED_TRACE(testing::Message() << "encoding " << enc << " xml: " << testing::PrintToString(xml));
            TiXmlDocument doc;
            doc.Parse(padded.c_str(), nullptr, enc);
            const unsigned actual = treeDepth(&doc);
            const unsigned measured = utl_xml_internal::measureXml(padded.c_str(), enc, 1000).maxDepth;
            ASSERT_GE(measured, actual);
            // Without a known encoding both outcomes of a declaration count.
            if (!doc.Error() && enc == TIXML_ENCODING_UTF8) {
                ASSERT_EQ(measured, actual);
            }
        }
    }
}
