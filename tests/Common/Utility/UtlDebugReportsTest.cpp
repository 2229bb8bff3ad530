#include "Common/Utility/UtlDebugReports.h"

#include <gtest/gtest.h>

#include <sys/resource.h>

#include <cstdio>
#include <string>

TEST(UtlDebugReports, CoreDumpLimitIsRaisedAndThreadAttributesAreReported)
{
    rlimit saved{}, now{};
    ASSERT_EQ(getrlimit(RLIMIT_CORE, &saved), 0);
    rlimit low{0, saved.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_CORE, &low), 0);
    EXPECT_TRUE(enableCoreDump());
    ASSERT_EQ(getrlimit(RLIMIT_CORE, &now), 0);
    EXPECT_EQ(now.rlim_cur, now.rlim_max);
    EXPECT_NE(now.rlim_cur, 0u);
    rlimit back{saved.rlim_cur, now.rlim_max}; // lowering is always allowed
    setrlimit(RLIMIT_CORE, &back);

    const std::string joinable = threadAttributesText("main");
    for (const char* part :
         {"DisplayThreadAttributes: main thread[", "detachstate[JOINABLE]", "policy[SCHED_OTHER] priority[0]\n"})
        EXPECT_NE(joinable.find(part), std::string::npos) << joinable;
}

TEST(UtlDebugReports, StackUsageIsWithinTheStack)
{
    unsigned long long used = 0, size = 0;
    const std::string line = stackUsageText("main");
    const char* format = "DisplayStackUsage: main thread[%*u] stack used[%llu] of [%llu] bytes\n";
    ASSERT_EQ(std::sscanf(line.c_str(), format, &used, &size), 2) << line;
    EXPECT_GT(used, 0u) << line;
    EXPECT_LT(used, size) << line;
}
