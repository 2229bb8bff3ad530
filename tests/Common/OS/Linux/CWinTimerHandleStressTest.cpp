// Bounded stress of the timers: many 1 ms periodic timers expire, get
// re-armed, cancelled and closed while other threads hammer the event lock
// with counted handshakes (see PlatformTestSupport.h).
#include <gtest/gtest.h>

#include "Common/OS/Linux/CWinTimerHandle.h"
#include "Common/OS/Linux/OSAL.h"
#include "PlatformTestSupport.h"

namespace {

using namespace tavro_test;

constexpr int kTimers = 16;

// Completion routines may outlive a closed timer by one call: static storage.
std::atomic<int> s_routineCalls[kTimers + 1];

void countCall(void* arg, DWORD, DWORD)
{
    ++*static_cast<std::atomic<int>*>(arg);
}

TEST(CWinTimerHandleStressTest, TimersFireWhileEventsAreHammered)
{
    const size_t live = CWinTimerHandle::liveTimerCount();
    LARGE_INTEGER oneMs;
    oneMs.QuadPart = -10000;
    std::atomic<int> failures{0};
    std::vector<HANDLE> timers;
    for (int i = 0; i < kTimers; ++i) {
        timers.push_back(CreateWaitableTimer(nullptr, i % 2, nullptr));
        ASSERT_TRUE(SetWaitableTimer(timers.back(), &oneMs, 1, countCall, &s_routineCalls[i], FALSE));
    }

    Events pairs(4, FALSE), req(3, FALSE), ack(3, FALSE);
    std::vector<std::thread> threads;
    startPingPong(threads, pairs, 1000, failures);
    threads.emplace_back([&] { serveWaitAny(req, ack, 300, failures); });
    // Churn: short-lived timers closed while their expiries are in flight.
    threads.emplace_back([&] {
        for (int i = 0; i < 100; ++i) {
            HANDLE t = CreateWaitableTimer(nullptr, i % 2, nullptr);
            failures += !SetWaitableTimer(t, &oneMs, 1, countCall, &s_routineCalls[kTimers], FALSE);
            if (i % 3 == 0) {
                failures += WaitForSingleObject(t, kStuckMs) != WAIT_OBJECT_0;
                failures += !CancelWaitableTimer(t);
                failures += !SetWaitableTimer(t, &oneMs, 1, nullptr, nullptr, FALSE);
            }
            CloseHandle(t);
        }
    });
    // Every long-lived timer keeps expiring through all of this.
    threads.emplace_back([&] {
        for (int round = 0; round < 5; ++round)
            for (HANDLE t : timers) failures += WaitForSingleObject(t, kStuckMs) != WAIT_OBJECT_0;
    });
    for (auto& t : threads) t.join();
    EXPECT_EQ(0, failures.load());

    for (int i = 0; i < kTimers; ++i) EXPECT_TRUE(eventually([i] { return s_routineCalls[i] > 0; })) << i;
    for (HANDLE t : timers) EXPECT_TRUE(CloseHandle(t));
    EXPECT_EQ(live, CWinTimerHandle::liveTimerCount());
}

} // namespace
