#include "Common/Utility/UtlDebug.h"

#include <gtest/gtest.h>

#include <string>

// Nothing in this process starts the debug writer.

TEST(UtlDebugDirect, WithoutWriterTextGoesStraightToStdout)
{
    ASSERT_FALSE(UtlDebug::IsDebugThreadRunning());
    const std::string longWord(1000, 'z');
    testing::internal::CaptureStdout();
    debugOut("as it is\n");
    debugOut(nullptr);
    debugOut("to syslog only\n", true);
    debugOutf("%s=%05d %s\n", "n", 42, longWord.c_str());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "as it is\nn=00042 " + longWord + "\n");
    EXPECT_FALSE(UtlDebug::IsDebugThreadRunning());
}

TEST(UtlDebugDirect, InstanceWithoutWriterHoldsAndFreesItsMessages)
{
    UtlDebug* d = new UtlDebug();
    d->DebugOut("one\n", false);
    d->DebugOut("two\n", true);
    EXPECT_FALSE(d->WaitUntilDrained(10));
    // Leftover messages are destroyed with the instance (the leak checker
    // of the sanitizer build watches this).
    delete d;
}
