#include "Common/Utility/UtlXml.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "Common/Utility/UtlDebug.h"
#include "Common/Utility/UtlXmlGuard.h"
#include "Os/UDBPortNum.h"

using namespace utl_xml_internal;

namespace {

const char* orEmpty(const char* s)
{
    return s ? s : "";
}

// Whole file into out; false for anything that is not a readable regular
// file (TinyXML's own loader would trust ftell on a directory).
bool readRegularFile(const char* path, std::string& out)
{
    int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    struct stat st;
    bool ok = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
    char buf[65536];
    while (ok) {
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) ok = false;
        if (n <= 0) break;
        out.append(buf, static_cast<size_t>(n));
    }
    ::close(fd);
    return ok;
}

// As TinyXML's file loader: the text ends at the first zero byte, and CR LF
// or a lone CR become LF.
std::string normalizedLines(const std::string& raw)
{
    std::string s;
    s.reserve(raw.size() + XML_PADDING);
    for (size_t i = 0; i < raw.size() && raw[i] != '\0'; ++i) {
        if (raw[i] == '\r') {
            s += '\n';
            if (i + 1 < raw.size() && raw[i + 1] == '\n') ++i;
        } else {
            s += raw[i];
        }
    }
    s.append(XML_PADDING, '\0');
    return s;
}

template <typename Node>
Node* linkNew(TiXmlNode* parent, Node* node, const char* typeName)
{
    UtlXml::AssertValidNode(node, typeName);
    if (parent == nullptr) {
        delete node;
        return nullptr;
    }
    // LinkEndChild frees the node itself when it refuses it.
    return static_cast<Node*>(parent->LinkEndChild(node));
}

} // namespace

TiXmlElement* UtlXml::loadDOMFromFile(TiXmlDocument& doc, const char* path, const char* rootName)
{
    const std::string failure = std::string("Failed to load file[") + orEmpty(path) + "].";
    std::string raw;
    if (path == nullptr || !readRegularFile(path, raw)) throwUtlXmlException("loadDOMFromFile", failure);
    const std::string text = normalizedLines(raw);
    if (!xmlWithinLimits(text, TIXML_DEFAULT_ENCODING)) {
        debugOut(
            ("loadDOMFromFile: XML nesting or attribute count beyond limits in [" + std::string(path) + "]\n").c_str());
        throwUtlXmlException("loadDOMFromFile", failure);
    }
    // What doc.LoadFile(path) does, but parsing our padded copy.
    doc.Clear();
    doc.SetValue(path);
    doc.Parse(text.c_str(), nullptr, TIXML_DEFAULT_ENCODING);
    if (doc.Error()) throwUtlXmlException("loadDOMFromFile", failure);
    return getRootElement(doc, rootName);
}

TiXmlElement* UtlXml::loadDOMFromString(TiXmlDocument& doc, const char* xml, const char* rootName)
{
    const std::string text = paddedXml(xml);
    const std::string failure =
        "Failed to load XML string (1st 50 chars)[" + std::string(text.c_str()).substr(0, 50) + "].";
    if (!xmlWithinLimits(text, TIXML_ENCODING_UTF8)) {
        debugOut("loadDOMFromString: XML nesting or attribute count beyond limits\n");
        throwUtlXmlException("loadDOMFromString", failure);
    }
    // Parse appends to whatever the document holds; a load replaces it.
    doc.Clear();
    doc.Parse(text.c_str(), nullptr, TIXML_ENCODING_UTF8);
    if (doc.Error()) throwUtlXmlException("loadDOMFromString", failure);
    return getRootElement(doc, rootName);
}

TiXmlElement* UtlXml::getRootElement(TiXmlDocument& doc, const char* rootName)
{
    TiXmlElement* root = doc.FirstChildElement();
    if (root == nullptr) throwUtlXmlException("getRootElement", "Missing XML root.");
    if (rootName != nullptr && std::strcmp(root->Value(), rootName) != 0)
        throwUtlXmlException("getRootElement", std::string("XML root is not an ") + rootName + " element.");
    return root;
}

TiXmlElement* UtlXml::getFirstChildElement(TiXmlNode* parent, const char* name)
{
    TiXmlHandle handle(parent);
    return name ? handle.FirstChildElement(name).ToElement() : handle.FirstChildElement().ToElement();
}

bool UtlXml::loadPortNum(TiXmlElement* elem, const char* attrName, PORT_NUM& port, unsigned char swId)
{
    const std::string element = elem ? elem->Value() : "";
    const char* value = (elem && attrName) ? elem->Attribute(attrName) : nullptr;
    if (value == nullptr)
        throwUtlXmlException("loadPortNum", "Invalid XML file.  A port number element[" + element +
                                                "] is missing the attribute[" + orEmpty(attrName) + "].");

    // "ALL" is how the all-ports value is written (PORT_NUM::toString).
    port = strcasecmp(value, "ALL") == 0 ? PORT_NUM::ALL_PORT_NUMS : PORT_NUM(value);
    const bool valid = port.isValid();
    if (!valid && port != PORT_NUM::ALL_PORT_NUMS)
        throwUtlXmlException("loadPortNum", "Invalid XML file.  A port number element[" + element +
                                                "] has an invalid attribute[" + attrName + "] value[" + value + "].");
    if (swId != 0 && port.swId == 0) port.swId = swId;
    return valid;
}

TiXmlDeclaration* UtlXml::linkNewDeclaration(TiXmlNode* parent, const char* version, const char* encoding,
                                             const char* standalone)
{
    return linkNew(parent,
                   new (std::nothrow) TiXmlDeclaration(orEmpty(version), orEmpty(encoding), orEmpty(standalone)),
                   "TiXmlDeclaration");
}

TiXmlUnknown* UtlXml::linkNewStylesheet(TiXmlNode* parent, const char* href)
{
    // TinyXML has no processing-instruction node; an unknown node prints its
    // value between '<' and '>' unchanged.
    TiXmlUnknown* node = new (std::nothrow) TiXmlUnknown();
    if (node != nullptr) {
        std::string encoded;
        TiXmlBase::EncodeString(orEmpty(href), &encoded);
        node->SetValue("?xml-stylesheet type=\"text/xsl\" href=\"" + encoded + "\"?");
    }
    return linkNew(parent, node, "TiXmlUnknown");
}

TiXmlComment* UtlXml::linkNewComment(TiXmlNode* parent, const char* text)
{
    return linkNew(parent, new (std::nothrow) TiXmlComment(orEmpty(text)), "TiXmlComment");
}

TiXmlElement* UtlXml::linkNewElement(TiXmlNode* parent, const char* name)
{
    return linkNew(parent, new (std::nothrow) TiXmlElement(orEmpty(name)), "TiXmlElement");
}

TiXmlText* UtlXml::linkNewTextElement(TiXmlNode* parent, const char* text)
{
    return linkNew(parent, new (std::nothrow) TiXmlText(orEmpty(text)), "TiXmlText");
}

void UtlXml::AssertValidNode(void* node, const char* typeName)
{
    if (node == nullptr)
        throw UtlXmlException(std::string("UtlXml Error: Failed to allocate ") + orEmpty(typeName) + " TiXmlElement.");
}

void UtlXml::throwUtlXmlException(const char* function, const char* message)
{
    throw UtlXmlException(std::string(orEmpty(function)) + ": " + orEmpty(message));
}

void UtlXml::throwUtlXmlException(const char* function, const std::string& message)
{
    throw UtlXmlException(std::string(orEmpty(function)) + ": " + message);
}
