// XML documents through the XML helpers: load with a root check, find child
// elements, read port number attributes. Every failure must be a
// UtlXmlException with a bounded message, never another exception or crash.
// Input: the document text.
#include <sstream>
#include <string>

#include <tinyxml.h>

#include "Common/Utility/UtlXml.h"
#include "FuzzSupport.h"
#include "Os/UDBControl.h"

namespace {

void readPorts(TiXmlElement* root)
{
    int seen = 0;
    for (TiXmlElement* e = UtlXml::getFirstChildElement(root, "port"); e != nullptr && seen < 64;
         e = e->NextSiblingElement("port"), ++seen) {
        PORT_NUM port;
        try {
            const bool valid = UtlXml::loadPortNum(e, "num", port, 3);
            FUZZ_CHECK(valid == port.isValid());
            FUZZ_CHECK(port.swId != 0);
        } catch (const UtlXmlException&) {
            FUZZ_CHECK(e->Attribute("num") == nullptr || !PORT_NUM(e->Attribute("num")).isValid());
        }
    }
    for (TiXmlElement* e = root->FirstChildElement(); e != nullptr && seen < 128; e = e->NextSiblingElement(), ++seen)
        readPorts(e);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz_support::quietStdout();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    TiXmlDocument doc;
    try {
        TiXmlElement* root = UtlXml::loadDOMFromString(doc, text.c_str(), "ports");
        FUZZ_CHECK(root != nullptr && root->ValueStr() == "ports");
        readPorts(root);
    } catch (const UtlXmlException& e) {
        std::ostringstream os;
        os << e;
        // At most the first 50 characters of the document are quoted.
        FUZZ_CHECK(os.str().size() < 200);
    } catch (...) {
        FUZZ_CHECK(!"an exception other than UtlXmlException");
    }
    return 0;
}
