#include "Common/Utility/UtlXml.h"
#include "Common/Utility/UtlXmlGuard.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "Os/UDBControl.h"
#include "TestSupport.h"

using tavro_test::ScopedTempDir;
using tavro_test::writeFile;

namespace {

// The message of the UtlXmlException that f throws ("" when none).
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
    return xmlError([&] {
        TiXmlDocument doc;
        UtlXml::loadDOMFromString(doc, xml.c_str(), root);
    });
}

std::string nested(unsigned depth)
{
    std::string s;
    for (unsigned i = 0; i < depth; ++i) s += "<a>";
    for (unsigned i = 0; i < depth; ++i) s += "</a>";
    return s;
}

} // namespace

TEST(UtlXml, LoadsFromStringAndChecksTheRoot)
{
    TiXmlDocument doc;
    TiXmlElement* root = UtlXml::loadDOMFromString(doc, "<?xml version=\"1.0\"?><Config><Port num=\"1.2.3\"/></Config>",
                                                   "Config");
    ASSERT_NE(root, nullptr);
    EXPECT_STREQ(root->Value(), "Config");
    EXPECT_EQ(UtlXml::getFirstChildElement(root, "Port"), root->FirstChildElement());
    EXPECT_EQ(UtlXml::getFirstChildElement(root, "Missing"), nullptr);
    EXPECT_EQ(UtlXml::getFirstChildElement(nullptr, "Port"), nullptr);
    EXPECT_EQ(UtlXml::getFirstChildElement(root, nullptr), root->FirstChildElement());

    // A second load replaces the first document rather than appending to it.
    root = UtlXml::loadDOMFromString(doc, "<Other/>", "Other");
    EXPECT_EQ(doc.FirstChildElement(), root);
    EXPECT_EQ(root->NextSiblingElement(), nullptr);
}

TEST(UtlXml, StringErrorTexts)
{
    const std::string sixty(60, 'x');
    struct Case {
        std::string xml;
        const char* root;
        std::string error;
    } cases[] = {
        {"<Config/>", "Config", ""},
        {"", "Config", "loadDOMFromString: Failed to load XML string (1st 50 chars)[]."},
        {"<Config><a>", "Config", "loadDOMFromString: Failed to load XML string (1st 50 chars)[<Config><a>]."},
        {"<Config>" + sixty + "</Conf>", "Config",
         "loadDOMFromString: Failed to load XML string (1st 50 chars)[<Config>" + sixty.substr(0, 42) + "]."},
        {"<!-- no element -->", "Config", "getRootElement: Missing XML root."},
        {"<Wrong/>", "Config", "getRootElement: XML root is not an Config element."},
        {"<config/>", "Config", "getRootElement: XML root is not an Config element."},
        {"<Config/>", nullptr, ""},
    };
    for (const Case& c : cases) EXPECT_EQ(fromString(c.xml, c.root), c.error) << c.xml;

    EXPECT_EQ(xmlError([] {
                  TiXmlDocument doc;
                  UtlXml::loadDOMFromString(doc, nullptr, "Config");
              }),
              "loadDOMFromString: Failed to load XML string (1st 50 chars)[].");
}

TEST(UtlXml, LoadsFromFile)
{
    ScopedTempDir dir;
    writeFile("good.xml", "<?xml version=\"1.0\"?>\r\n<Config>\r\n  <Item>a\rb</Item>\r\n</Config>\r\n");
    writeFile("bad.xml", "<Config><Item></Config>");
    writeFile("empty.xml", "");
    writeFile("nul.xml", std::string("<Config/>\0<garbage", 18));

    TiXmlDocument doc;
    TiXmlElement* root = UtlXml::loadDOMFromFile(doc, "good.xml", "Config");
    ASSERT_NE(root, nullptr);
    EXPECT_STREQ(doc.Value(), "good.xml");
    // Line ends are normalised as TinyXML's own loader does.
    EXPECT_STREQ(root->FirstChildElement("Item")->GetText(), "a b");
    EXPECT_NE(UtlXml::loadDOMFromFile(doc, "nul.xml", "Config"), nullptr);

    const char* failing[] = {"bad.xml", "empty.xml", "missing.xml", "."};
    for (const char* path : failing) {
        EXPECT_EQ(xmlError([&] {
                      TiXmlDocument d;
                      UtlXml::loadDOMFromFile(d, path, "Config");
                  }),
                  std::string("loadDOMFromFile: Failed to load file[") + path + "].");
    }
    EXPECT_EQ(xmlError([] {
                  TiXmlDocument d;
                  UtlXml::loadDOMFromFile(d, "good.xml", "Other");
              }),
              "getRootElement: XML root is not an Other element.");
}

TEST(UtlXml, HostileDocumentsFailCleanly)
{
    const std::string loadFailed = "loadDOMFromString: Failed to load XML string (1st 50 chars)[";
    // 100000 levels would overflow the stack inside TinyXML; they are refused.
    const std::string deep = nested(100000);
    EXPECT_EQ(fromString(deep, "a"), loadFailed + deep.substr(0, 50) + "].");
    EXPECT_EQ(fromString(nested(utl_xml_internal::MAX_XML_DEPTH), "a"), "");
    EXPECT_EQ(fromString(nested(utl_xml_internal::MAX_XML_DEPTH + 1), "a").substr(0, loadFailed.size()), loadFailed);

    ScopedTempDir dir;
    writeFile("deep.xml", "<?xml version=\"1.0\"?>" + nested(100000));
    EXPECT_EQ(xmlError([] {
                  TiXmlDocument d;
                  UtlXml::loadDOMFromFile(d, "deep.xml", "a");
              }),
              "loadDOMFromFile: Failed to load file[deep.xml].");

    // A 4 MiB attribute value is merely large.
    const std::string big(4 << 20, 'v');
    TiXmlDocument doc;
    TiXmlElement* root = UtlXml::loadDOMFromString(doc, ("<Config big=\"" + big + "\"/>").c_str(), "Config");
    EXPECT_EQ(root->Attribute("big"), big);

    // Broken UTF-8 where a sequence would run past the end of the text, and
    // other byte salad: a document or a UtlXmlException, never a crash.
    const std::string salad[] = {
        "<Config>\xF0",          "<Config a=\"\xF0",      "<Config>\xC3</Config>", "<Config>\xFF\xFE\x80</Config>",
        "<Config \xE2=\"1\"/>",  "\xEF\xBB\xBF<Config/>", "<Config>&#x",           "<Config>&#99999999999999;</Config>",
        "<Config><![CDATA[\xF0", "<?xml \xF0",            "<\xF0",                 "<Config><a></Config>",
    };
    for (const std::string& xml : salad) fromString(xml);
    EXPECT_EQ(fromString("<Config>\xC3\xA9t\xC3\xA9</Config>"), "");
}

TEST(UtlXml, LoadPortNum)
{
    struct Case {
        const char* value;
        unsigned char swId;
        PORT_NUM expected;
        const char* error;
    } cases[] = {
        {"1.2.3", 0, PORT_NUM(0x00000102u), nullptr},
        {"1.2.3", 5, PORT_NUM(0x05000102u), nullptr},
        {" 8.12.255 ", 0, PORT_NUM(0x00070BFEu), nullptr},
        {"ALL", 5, PORT_NUM::ALL_PORT_NUMS, nullptr},
        {"9.1.1", 0, PORT_NUM(), "9.1.1"},  // chassis out of range
        {"1.13.1", 0, PORT_NUM(), "1.13.1"}, // pim out of range
        {"1.x.3", 0, PORT_NUM(), "1.x.3"},
        {"0.2.3", 0, PORT_NUM(), "0.2.3"},
        {"", 0, PORT_NUM(), ""},
    };
    for (const Case& c : cases) {
        TiXmlElement elem("Port");
        elem.SetAttribute("num", c.value);
        PORT_NUM port;
        bool valid = false;
        const std::string error = xmlError([&] { valid = UtlXml::loadPortNum(&elem, "num", port, c.swId); });
        if (c.error == nullptr) {
            EXPECT_EQ(error, "") << c.value;
            EXPECT_TRUE(valid) << c.value;
            EXPECT_EQ(port, c.expected) << c.value;
        } else {
            EXPECT_EQ(error, std::string("loadPortNum: Invalid XML file.  A port number element[Port] has an invalid "
                                         "attribute[num] value[") +
                                 c.error + "].")
                << c.value;
        }
    }

    TiXmlElement elem("Port");
    PORT_NUM port;
    EXPECT_EQ(xmlError([&] { UtlXml::loadPortNum(&elem, "num", port, 0); }),
              "loadPortNum: Invalid XML file.  A port number element[Port] is missing the attribute[num].");
    EXPECT_EQ(xmlError([&] { UtlXml::loadPortNum(nullptr, "num", port, 0); }),
              "loadPortNum: Invalid XML file.  A port number element[] is missing the attribute[num].");
}

TEST(UtlXml, LinksNewNodes)
{
    TiXmlDocument doc;
    EXPECT_NE(UtlXml::linkNewDeclaration(&doc, "1.0", "UTF-8", ""), nullptr);
    EXPECT_NE(UtlXml::linkNewStylesheet(&doc, "view.xsl?a=1&b=\"2\""), nullptr);
    EXPECT_NE(UtlXml::linkNewComment(&doc, " generated "), nullptr);
    TiXmlElement* root = UtlXml::linkNewElement(&doc, "Root");
    ASSERT_NE(root, nullptr);
    TiXmlText* text = UtlXml::linkNewTextElement(UtlXml::linkNewElement(root, "Name"), "a<b");
    ASSERT_NE(text, nullptr);

    TiXmlPrinter printer;
    printer.SetStreamPrinting();
    doc.Accept(&printer);
    EXPECT_EQ(std::string(printer.CStr()),
              "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>"
              "<?xml-stylesheet type=\"text/xsl\" href=\"view.xsl?a=1&amp;b=&quot;2&quot;\"?>"
              "<!-- generated --><Root><Name>a&lt;b</Name></Root>");

    // Nothing to link to: the node is freed and NULL returned.
    EXPECT_EQ(UtlXml::linkNewElement(nullptr, "Orphan"), nullptr);
    EXPECT_EQ(UtlXml::linkNewComment(nullptr, "x"), nullptr);
}

TEST(UtlXml, ThrowHelpers)
{
    int node = 0;
    EXPECT_EQ(xmlError([&] { UtlXml::AssertValidNode(&node, "TiXmlComment"); }), "");
    EXPECT_EQ(xmlError([] { UtlXml::AssertValidNode(nullptr, "TiXmlComment"); }),
              "UtlXml Error: Failed to allocate TiXmlComment TiXmlElement.");
    EXPECT_EQ(xmlError([] { UtlXml::throwUtlXmlException("fn", "went wrong"); }), "fn: went wrong");
    EXPECT_EQ(xmlError([] { UtlXml::throwUtlXmlException("fn", std::string("as string")); }), "fn: as string");
}
