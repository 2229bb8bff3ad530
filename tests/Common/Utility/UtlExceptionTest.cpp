#include "Common/Utility/UtlException.h"

#include <gtest/gtest.h>

#include <sstream>

TEST(UtlException, StreamsAndLogsTheMessage)
{
    const UtlXmlException e("loadPortNum: bad");
    std::ostringstream byRef, byPtr, null;
    byRef << e;
    byPtr << &e;
    null << static_cast<const UtlXmlException*>(nullptr);
    EXPECT_EQ(byRef.str(), "UtlXmlException: loadPortNum: bad\n");
    EXPECT_EQ(byPtr.str(), byRef.str());
    EXPECT_EQ(null.str(), "UtlXmlException: (null)\n");

    // Before the debug writer runs, the trace goes straight to stdout.
    testing::internal::CaptureStdout();
    try {
        throw UtlXmlException("thrown");
    } catch (const UtlException& caught) {
        caught.logException(); // dispatches to the XML form
    }
    UtlException("plain").logException();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "UtlXmlException: thrown\nUtlException: plain\n");
}
