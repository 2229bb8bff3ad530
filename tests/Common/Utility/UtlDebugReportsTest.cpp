#include "Common/Utility/UtlDebugReports.h"

#include <gtest/gtest.h>

#include <pthread.h>
#include <sys/resource.h>

#include <cstdlib>
#include <cstring>
#include <future>
#include <memory>
#include <string>
#include <thread>


namespace {

unsigned long long number(const std::string& text, const char* field)
{
    const size_t at = text.find(std::string(field) + "[");
    if (at == std::string::npos) return 0;
    return std::strtoull(text.c_str() + at + std::strlen(field) + 1, nullptr, 10);
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
    rlimit saved{};
    ASSERT_EQ(getrlimit(RLIMIT_CORE, &saved), 0);
    rlimit low{0, saved.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_CORE, &low), 0);

    EXPECT_TRUE(enableCoreDump());
    rlimit now{};
    ASSERT_EQ(getrlimit(RLIMIT_CORE, &now), 0);
    EXPECT_EQ(now.rlim_cur, now.rlim_max);
    EXPECT_NE(now.rlim_cur, 0u);

    // Only ever lowered back: the hard limit may have been raised.
    rlimit back{saved.rlim_cur, now.rlim_max};
    setrlimit(RLIMIT_CORE, &back);
}

TEST(UtlDebugReports, ThreadAttributesTellDetachedFromJoinable)
{
    const std::string joinable = threadAttributesText("main");
    EXPECT_NE(joinable.find("DisplayThreadAttributes: main thread["), std::string::npos) << joinable;
    EXPECT_NE(joinable.find("detachstate[JOINABLE]"), std::string::npos) << joinable;
    EXPECT_NE(joinable.find("policy[SCHED_OTHER] priority[0]\n"), std::string::npos) << joinable;

    // The thread holds its own reference: it may still be inside set_value
    // when the test has its answer.
    using Shared = std::shared_ptr<std::promise<std::string>>;
    auto promise = std::make_shared<std::promise<std::string>>();
    std::future<std::string> answer = promise->get_future();
    auto body = [](void* p) -> void* {
        Shared* mine = static_cast<Shared*>(p);
        (*mine)->set_value(threadAttributesText(nullptr));
        delete mine;
        return nullptr;
    };
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_attr_setstacksize(&attr, 0x30000);
    pthread_t id;
    ASSERT_EQ(pthread_create(&id, &attr, body, new Shared(promise)), 0);
    pthread_attr_destroy(&attr);
    const std::string detached = answer.get();
    EXPECT_NE(detached.find("unknown thread["), std::string::npos) << detached;
    EXPECT_NE(detached.find("detachstate[DETACHED]"), std::string::npos) << detached;
    // Sanitizers may add to the requested size.
    EXPECT_GE(number(detached, "stacksize"), 0x30000u) << detached;
}

TEST(UtlDebugReports, StackUsageGrowsWithDepthWithinTheStack)
{
    const std::string line = stackUsageText("main");
    const unsigned long long used = number(line, "used");
    const unsigned long long size = number(line, "of ");
    EXPECT_GT(used, 0u) << line;
    EXPECT_LT(used, size) << line;
    const std::string deep = reportAtDepth(8);
    EXPECT_GE(number(deep, "used"), used + 8 * 1024) << line << deep;
}
