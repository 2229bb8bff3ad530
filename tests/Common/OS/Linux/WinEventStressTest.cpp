// Bounded stress of the handle layer; see PlatformTestSupport.h for why the
// outcome never depends on timing.
#include <gtest/gtest.h>

#include "Common/OS/Linux/CWinEventHandle.h"
#include "Common/OS/Linux/OSAL.h"
#include "PlatformTestSupport.h"

namespace {

using namespace tavro_test;

TEST(WinEventStressTest, EventsLoseNoWakeUpAndMayBeClosedByTheWokenThread)
{
    std::atomic<int> failures{0};
    Events pairs(6, FALSE), req(4, FALSE), ack(4, FALSE);
    std::vector<std::thread> threads;
    startPingPong(threads, pairs, 2000, failures);
    const std::vector<int> served = serveWaitAny(req, ack, 2000, failures);
    for (auto& t : threads) t.join();
    EXPECT_EQ(std::vector<int>(4, 2000), served);
    for (HANDLE h : req.h) EXPECT_EQ(0u, castToWinEventHandle(h)->subscriberCount());
    // The shape of every thread shutdown: the woken thread closes the event
    // at once, while the signaller may still be finishing its SetEvent.
    for (int i = 0; i < 300; ++i) {
        HANDLE h = CreateEvent(nullptr, i % 2, FALSE, nullptr);
        std::thread closer([h, &failures] {
            failures += WaitForSingleObject(h, kStuckMs) != WAIT_OBJECT_0;
            CloseHandle(h);
        });
        SetEvent(h);
        closer.join();
    }
    EXPECT_EQ(0, failures.load());
}

TEST(WinEventStressTest, MutexExcludesWithBlockingAndPollingWaits)
{
    constexpr int kThreads = 4, kLoops = 10000;
    HANDLE m = CreateMutex(nullptr, FALSE, nullptr);
    long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < kLoops; ++i) {
                if (t % 2 == 0) WaitForSingleObject(m, INFINITE);
                while (t % 2 == 1 && WaitForSingleObject(m, 0) != WAIT_OBJECT_0) std::this_thread::yield();
                // Recursive: the owner may take it again. A zero wait can
                // report WAIT_FAILED when the tick turns before its one try.
                const bool again = WaitForSingleObject(m, 0) == WAIT_OBJECT_0;
                ++counter;
                if (again) ReleaseMutex(m);
                ReleaseMutex(m);
            }
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(kThreads * kLoops, counter);
    CloseHandle(m);
}

} // namespace
