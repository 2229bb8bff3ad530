#pragma once

// Static helpers over the TinyXML document model. Every failure is raised as
// a UtlXmlException carrying a ready-made message.
#include <tinyxml.h>

#include <string>

#include "TavroExport.h"
#include "Common/Utility/UtlException.h"

struct PORT_NUM;

class TAVRO_EXPORT UtlXml {
public:
    UtlXml() = delete;

    // Loads the file (default encoding) and returns its root element, which
    // must be named rootName. Documents nested too deeply for the stack are
    // refused like unreadable ones.
    static TiXmlElement* loadDOMFromFile(TiXmlDocument& doc, const char* path, const char* rootName);
    // The same for XML text (UTF-8). Whatever doc held before is discarded.
    static TiXmlElement* loadDOMFromString(TiXmlDocument& doc, const char* xml, const char* rootName);
    // The first child element of doc; its name must equal rootName exactly
    // (a null rootName accepts any root).
    static TiXmlElement* getRootElement(TiXmlDocument& doc, const char* rootName);
    // First child element of parent named name (any name when name is null);
    // NULL when there is none or parent is NULL.
    static TiXmlElement* getFirstChildElement(TiXmlNode* parent, const char* name);

    // Reads attribute attrName as a "chassis.pim.port" text into port. A
    // missing or invalid value throws; the all-ports value is accepted. A
    // non-zero swId becomes the switch of a port written without one.
    // Returns whether the port is valid.
    static bool loadPortNum(TiXmlElement* elem, const char* attrName, PORT_NUM& port, unsigned char swId);

    // Each appends a new node as the last child of parent and returns it, or
    // NULL when it could not be linked (it is then freed).
    static TiXmlDeclaration* linkNewDeclaration(TiXmlNode* parent, const char* version, const char* encoding,
                                                const char* standalone);
    // <?xml-stylesheet type="text/xsl" href="..."?>
    static TiXmlUnknown* linkNewStylesheet(TiXmlNode* parent, const char* href);
    static TiXmlComment* linkNewComment(TiXmlNode* parent, const char* text);
    static TiXmlElement* linkNewElement(TiXmlNode* parent, const char* name);
    static TiXmlText* linkNewTextElement(TiXmlNode* parent, const char* text);

    // Throws when node is NULL (allocation failed).
    static void AssertValidNode(void* node, const char* typeName);

    // Throws a UtlXmlException with the text function + ": " + message.
    [[noreturn]] static void throwUtlXmlException(const char* function, const char* message);
    [[noreturn]] static void throwUtlXmlException(const char* function, const std::string& message);
};
