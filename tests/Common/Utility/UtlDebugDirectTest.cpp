#include "Common/Utility/UtlDebug.h"

#include <gtest/gtest.h>

#include <string>

// Nothing in this process starts the debug writer.
TEST(UtlDebugDirect, WithoutWriterTextGoesStraightToStdoutAndInstancesFreeWhatTheyHold)
{
    const std::string longWord(1000, 'z');
    testing::internal::CaptureStdout();
    debugOut("as it is\n");
    debugOut(nullptr);
    debugOut("to syslog only\n", true);
    debugOutf("%s=%05d %s\n", "n", 42, longWord.c_str());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "as it is\nn=00042 " + longWord + "\n");
    EXPECT_FALSE(UtlDebug::IsDebugThreadRunning());

    // Leftover messages die with the instance (the sanitizer's leak checker watches).
    UtlDebug* d = new UtlDebug();
    d->DebugOut("one\n", false);
    d->DebugOut("two\n", true);
    EXPECT_FALSE(d->WaitUntilDrained(10));
    delete d;
}
