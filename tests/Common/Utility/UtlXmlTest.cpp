#include "Common/Utility/UtlXml.h"

#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <string>

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

std::string fromFile(const char* path, const char* root = "Config")
{
    TiXmlDocument doc;
    return xmlError([&] { UtlXml::loadDOMFromFile(doc, path, root); });
}

std::string nested(unsigned depth)
{
    std::string s;
    for (unsigned i = 0; i < depth; ++i) s += "<a>";
    for (unsigned i = 0; i < depth; ++i) s += "</a>";
    return s;
}

const std::string STRING_FAILED = "loadDOMFromString: Failed to load XML string (1st 50 chars)[";

} // namespace

TEST(UtlXml, LoadsStringsAndReportsEachFailure)
{
    const std::string sixty(60, 'x');
    const struct {
        std::string xml;
        const char* root;
        std::string error;
    } cases[] = {
        {"<?xml version=\"1.0\"?><Config/>", "Config", ""},
        {"<Config/>", nullptr, ""},
        {"", "Config", STRING_FAILED + "]."},
        {"<Config><a>", "Config", STRING_FAILED + "<Config><a>]."},
        {"<Config>" + sixty + "</Conf>", "Config", STRING_FAILED + "<Config>" + sixty.substr(0, 42) + "]."},
        {"<!-- no element -->", "Config", "getRootElement: Missing XML root."},
        {"<config/>", "Config", "getRootElement: XML root is not an Config element."},
    };
    for (const auto& c : cases) EXPECT_EQ(fromString(c.xml, c.root), c.error) << c.xml;
    TiXmlDocument doc;
    EXPECT_EQ(xmlError([&] { UtlXml::loadDOMFromString(doc, nullptr, "Config"); }), STRING_FAILED + "].");

    TiXmlElement* root = UtlXml::loadDOMFromString(doc, "<Config><Port/><Port n='2'/></Config>", "Config");
    EXPECT_EQ(UtlXml::getFirstChildElement(root, "Port"), root->FirstChildElement());
    EXPECT_EQ(UtlXml::getFirstChildElement(root, "Missing"), nullptr);
    EXPECT_EQ(UtlXml::getFirstChildElement(nullptr, "Port"), nullptr);
    // A second load replaces the document instead of appending to it.
    root = UtlXml::loadDOMFromString(doc, "<Other/>", "Other");
    EXPECT_EQ(root, doc.LastChild());
}

TEST(UtlXml, LoadsFiles)
{
    tavro_test::ScopedTempDir dir;
    writeFile("good.xml", "<?xml version=\"1.0\"?>\r\n<Config>\r\n  <Item>a\rb</Item>\r\n</Config>\r\n");
    writeFile("bad.xml", "<Config><Item></Config>");
    writeFile("empty.xml", "");
    writeFile("deep.xml", "<?xml version=\"1.0\"?>" + nested(100000));

    TiXmlDocument doc;
    TiXmlElement* root = UtlXml::loadDOMFromFile(doc, "good.xml", "Config");
    EXPECT_STREQ(doc.Value(), "good.xml");
    EXPECT_STREQ(root->FirstChildElement("Item")->GetText(), "a b") << "line ends normalised as TinyXML does";

    for (const char* path : {"bad.xml", "empty.xml", "missing.xml", ".", "deep.xml"})
        EXPECT_EQ(fromFile(path), std::string("loadDOMFromFile: Failed to load file[") + path + "].");
    EXPECT_EQ(fromFile("good.xml", "Other"), "getRootElement: XML root is not an Other element.");
}

TEST(UtlXml, HostileStringsFailCleanly)
{
    // 100000 levels would overflow the stack inside TinyXML; they are refused.
    const std::string deep = nested(100000);
    EXPECT_EQ(fromString(deep, "a"), STRING_FAILED + deep.substr(0, 50) + "].");
    EXPECT_EQ(fromString(nested(utl_xml_internal::MAX_XML_DEPTH), "a"), "");

    const std::string big(4 << 20, 'v');
    TiXmlDocument doc;
    EXPECT_EQ(UtlXml::loadDOMFromString(doc, ("<Config big=\"" + big + "\"/>").c_str(), "Config")->Attribute("big"),
              big);

    // UTF-8 sequences cut by the end of the text and other byte salad: a
    // document or a UtlXmlException (xmlError lets nothing else through).
    for (const char* xml : {"<Config>\xF0", "<Config a=\"\xF0", "<Config>\xFF\xFE\x80</Config>", "<Config \xE2=\"1\"/>",
                            "<Config>&#x", "<Config>&#99999999999999;</Config>", "<Config><![CDATA[\xF0", "<?xml \xF0"})
        fromString(xml);
    EXPECT_EQ(fromString("\xEF\xBB\xBF<Config>\xC3\xA9t\xC3\xA9</Config>"), "");
}

TEST(UtlXml, LoadPortNum)
{
    const struct {
        const char* value;
        unsigned char swId;
        PORT_NUM expected; // INVALID_PORT_NUM: must throw
    } cases[] = {
        {"1.2.3", 0, PORT_NUM(0x00000102u)},     {"1.2.3", 5, PORT_NUM(0x05000102u)},
        {" 8.12.255 ", 0, PORT_NUM(0x00070BFEu)}, {"ALL", 5, PORT_NUM::ALL_PORT_NUMS},
        {"9.1.1", 0, PORT_NUM()},                {"1.13.1", 0, PORT_NUM()},
        {"1.x.3", 0, PORT_NUM()},                {"", 0, PORT_NUM()},
    };
    for (const auto& c : cases) {
        TiXmlElement elem("Port");
        elem.SetAttribute("num", c.value);
        PORT_NUM port;
        bool valid = false;
        const std::string error = xmlError([&] { valid = UtlXml::loadPortNum(&elem, "num", port, c.swId); });
        if (c.expected == PORT_NUM::INVALID_PORT_NUM) {
            EXPECT_EQ(error, std::string("loadPortNum: Invalid XML file.  A port number element[Port] has an invalid "
                                         "attribute[num] value[") + c.value + "].");
        } else {
            EXPECT_TRUE(valid && error.empty()) << c.value;
            EXPECT_EQ(port, c.expected) << c.value;
        }
    }
    TiXmlElement elem("Port");
    PORT_NUM port;
    EXPECT_EQ(xmlError([&] { UtlXml::loadPortNum(&elem, "num", port, 0); }),
              "loadPortNum: Invalid XML file.  A port number element[Port] is missing the attribute[num].");
}

TEST(UtlXml, LinksNewNodes)
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
}

TEST(UtlXml, ExceptionsTextsAndLogging)
{
    int node = 0;
    EXPECT_EQ(xmlError([&] { UtlXml::AssertValidNode(&node, "TiXmlComment"); }), "");
    EXPECT_EQ(xmlError([] { UtlXml::AssertValidNode(nullptr, "TiXmlComment"); }),
              "UtlXml Error: Failed to allocate TiXmlComment TiXmlElement.");
    EXPECT_EQ(xmlError([] { UtlXml::throwUtlXmlException("fn", std::string("as string")); }), "fn: as string");

    const UtlXmlException e("loadPortNum: bad");
    std::ostringstream byRef, byPtr;
    byRef << e;
    byPtr << &e;
    EXPECT_EQ(byRef.str(), "UtlXmlException: loadPortNum: bad\n");
    EXPECT_EQ(byPtr.str(), byRef.str());

    // Before the debug writer runs, the trace goes straight to stdout.
    testing::internal::CaptureStdout();
    try {
        UtlXml::throwUtlXmlException("fn", "thrown");
    } catch (const UtlException& caught) {
        caught.logException(); // the XML form, through the base
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "UtlXmlException: fn: thrown\n");
}
