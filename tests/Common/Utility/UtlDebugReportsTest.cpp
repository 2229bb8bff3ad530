#include "Common/Utility/UtlDebugReports.h"

#include <gtest/gtest.h>

#include <pthread.h>
#include <sys/resource.h>

#include <atomic>
#include <cstdio>
#include <string>
#include <thread>

namespace {

std::string g_report;
std::atomic<bool> g_ready{false}; // the detached thread's last touch of g_report
void* reportDetached(void*)
{
    g_report = threadAttributesText(nullptr);
    g_ready.store(true);
    return nullptr;
}

} // namespace

TEST(UtlDebugReports, CoreDumpLimitIsRaisedAndThreadAttributesTellDetachedFromJoinable)
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

    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_t id;
    ASSERT_EQ(pthread_create(&id, &attr, reportDetached, nullptr), 0);
    pthread_attr_destroy(&attr);
    while (!g_ready.load()) std::this_thread::yield();
    EXPECT_NE(g_report.find("unknown thread["), std::string::npos) << g_report;
    EXPECT_NE(g_report.find("detachstate[DETACHED]"), std::string::npos) << g_report;
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
