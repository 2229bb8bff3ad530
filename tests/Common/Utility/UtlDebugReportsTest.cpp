#include "Common/Utility/UtlDebugReports.h"

#include <gtest/gtest.h>

#include <pthread.h>
#include <sys/resource.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

namespace {

unsigned long long number(const std::string& text, const char* field)
{
    const size_t at = text.find(std::string(field) + "[");
    return at == std::string::npos ? 0 : std::strtoull(text.c_str() + at + std::strlen(field) + 1, nullptr, 10);
}

// Each level keeps 1 KiB live across the call, so no level can be folded.
std::string reportAtDepth(int depth)
{
    volatile char pad[1024];
    pad[0] = static_cast<char>(depth);
    if (depth == 0) return stackUsageText("deep");
    std::string text = reportAtDepth(depth - 1);
    pad[1] = pad[0];
    return text;
}

} // namespace

TEST(UtlDebugReports, CoreDumpLimitIsRaised)
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
}

TEST(UtlDebugReports, ThreadAttributesTellDetachedFromJoinable)
{
    const std::string joinable = threadAttributesText("main");
    EXPECT_NE(joinable.find("DisplayThreadAttributes: main thread["), std::string::npos) << joinable;
    EXPECT_NE(joinable.find("detachstate[JOINABLE]"), std::string::npos) << joinable;
    EXPECT_NE(joinable.find("policy[SCHED_OTHER] priority[0]\n"), std::string::npos) << joinable;

    struct Report {
        std::string text;
        std::atomic<bool> ready{false}; // the thread's last touch of this record
    } report;
    auto body = [](void* p) -> void* {
        Report* r = static_cast<Report*>(p);
        r->text = threadAttributesText(nullptr);
        r->ready.store(true);
        return nullptr;
    };
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_t id;
    ASSERT_EQ(pthread_create(&id, &attr, body, &report), 0);
    pthread_attr_destroy(&attr);
    while (!report.ready.load()) std::this_thread::yield();
    const std::string& detached = report.text;
    EXPECT_NE(detached.find("unknown thread["), std::string::npos) << detached;
    EXPECT_NE(detached.find("detachstate[DETACHED]"), std::string::npos) << detached;
}

TEST(UtlDebugReports, StackUsageGrowsWithDepthWithinTheStack)
{
    const std::string line = stackUsageText("main");
    const unsigned long long used = number(line, "used");
    EXPECT_GT(used, 0u) << line;
    EXPECT_LT(used, number(line, "of ")) << line;
    const std::string deep = reportAtDepth(8);
    EXPECT_GE(number(deep, "used"), used + 8 * 1024) << line << deep;
}
