#pragma once

// Exceptions are used only by the XML helpers; callers catch them and log
// them with logException().
#include <iosfwd>
#include <string>

#include "TavroExport.h"

class TAVRO_EXPORT UtlException {
public:
    explicit UtlException(const std::string& error);
    virtual ~UtlException();

    // Sends the message to the debug trace (not to syslog).
    virtual void logException() const;

    const std::string m_sError;
};

class TAVRO_EXPORT UtlXmlException : public UtlException {
public:
    explicit UtlXmlException(const std::string& error);
    ~UtlXmlException() override;

    void logException() const override;
};

// "UtlXmlException: " + message + newline.
TAVRO_EXPORT std::ostream& operator<<(std::ostream& os, const UtlXmlException& e);
TAVRO_EXPORT std::ostream& operator<<(std::ostream& os, const UtlXmlException* e);
