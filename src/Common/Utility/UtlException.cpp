#include "Common/Utility/UtlException.h"

#include <ostream>
#include <sstream>

#include "Common/Utility/UtlDebug.h"

UtlException::UtlException(const std::string& error) : m_sError(error) {}

UtlException::~UtlException() = default;

void UtlException::logException() const
{
    debugOut(("UtlException: " + m_sError + "\n").c_str(), false);
}

UtlXmlException::UtlXmlException(const std::string& error) : UtlException(error) {}

UtlXmlException::~UtlXmlException() = default;

void UtlXmlException::logException() const
{
    std::ostringstream os;
    os << *this;
    debugOut(os.str().c_str(), false);
}

std::ostream& operator<<(std::ostream& os, const UtlXmlException& e)
{
    return os << "UtlXmlException: " << e.m_sError << "\n";
}

std::ostream& operator<<(std::ostream& os, const UtlXmlException* e)
{
    if (e == nullptr) return os << "UtlXmlException: (null)\n";
    return os << *e;
}
