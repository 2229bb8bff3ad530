// Bounded stress of the handle layer: every exchange is a counted handshake,
// so the results never depend on timing; the time-outs only turn a lost
// wake-up or a deadlock into a failure instead of a hang.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "Common/OS/Linux/CWinEventHandle.h"
#include "Common/OS/Linux/OSAL.h"
#include "Common/OS/Linux/WinEvent.h"

namespace {

constexpr DWORD kStuckMs = 10000;

TEST(WinEventStressTest, PingPongPairsLoseNoWakeUp)
{
    constexpr int kPairs = 3, kRounds = 2000;
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    std::vector<HANDLE> events;
    for (int p = 0; p < kPairs; ++p) {
        HANDLE ping = CreateEvent(nullptr, FALSE, FALSE, nullptr);
        HANDLE pong = CreateEvent(nullptr, FALSE, FALSE, nullptr);
        events.push_back(ping);
        events.push_back(pong);
        threads.emplace_back([=, &failures] {
            for (int i = 0; i < kRounds; ++i) {
                SetEvent(ping);
                if (WaitForSingleObject(pong, kStuckMs) != WAIT_OBJECT_0) {
                    ++failures;
                    return;
                }
            }
        });
        threads.emplace_back([=, &failures] {
            for (int i = 0; i < kRounds; ++i) {
                if (WaitForSingleObject(ping, kStuckMs) != WAIT_OBJECT_0) {
                    ++failures;
                    return;
                }
                SetEvent(pong);
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(0, failures.load());
    for (HANDLE h : events) CloseHandle(h);
}

TEST(WinEventStressTest, WaitAnyServesEveryRequestExactlyOnce)
{
    constexpr int kProducers = 4, kRequests = 2000;
    HANDLE req[kProducers], ack[kProducers];
    for (int i = 0; i < kProducers; ++i) {
        req[i] = CreateEvent(nullptr, FALSE, FALSE, nullptr);
        ack[i] = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    }
    std::atomic<int> producerFailures{0};
    std::vector<std::thread> producers;
    for (int i = 0; i < kProducers; ++i)
        producers.emplace_back([&, i] {
            for (int k = 0; k < kRequests; ++k) {
                SetEvent(req[i]);
                if (WaitForSingleObject(ack[i], kStuckMs) != WAIT_OBJECT_0) {
                    ++producerFailures;
                    return;
                }
            }
        });

    int served[kProducers] = {};
    int total = 0, stuck = 0;
    while (total < kProducers * kRequests && stuck == 0 && producerFailures == 0) {
        const DWORD start = GetTickCount();
        const DWORD r = WaitForMultipleObjects(kProducers, req, FALSE, kStuckMs);
        if (r < kProducers) {
            ++served[r];
            ++total;
            SetEvent(ack[r]);
        } else if (GetTickCount() - start >= kStuckMs) {
            // A wake-up by a signal returns WAIT_TIMEOUT at once; only a lost
            // one runs the whole time-out.
            ++stuck;
        }
    }
    for (auto& t : producers) t.join();
    EXPECT_EQ(0, stuck);
    EXPECT_EQ(0, producerFailures.load());
    for (int i = 0; i < kProducers; ++i) {
        EXPECT_EQ(kRequests, served[i]) << i;
        EXPECT_EQ(0u, castToWinEventHandle(req[i])->subscriberCount());
        CloseHandle(req[i]);
        CloseHandle(ack[i]);
    }
}

TEST(WinEventStressTest, EverySetEventReleasesAllCurrentWaiters)
{
    constexpr int kWaiters = 3, kRounds = 1000;
    HANDLE go = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    HANDLE done[kWaiters];
    for (HANDLE& h : done) h = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    std::atomic<int> failures{0};
    std::vector<std::thread> waiters;
    for (int w = 0; w < kWaiters; ++w)
        waiters.emplace_back([&, w] {
            for (int r = 0; r < kRounds; ++r) {
                if (WaitForSingleObject(go, kStuckMs) != WAIT_OBJECT_0) ++failures;
                SetEvent(done[w]);
            }
        });
    CWinEventHandle* ev = castToWinEventHandle(go);
    for (int r = 0; r < kRounds && failures == 0; ++r) {
        const DWORD start = GetTickCount();
        while (ev->waiters() < kWaiters && GetTickCount() - start < kStuckMs) std::this_thread::yield();
        SetEvent(go);
        for (HANDLE h : done)
            if (WaitForSingleObject(h, kStuckMs) != WAIT_OBJECT_0) ++failures;
        EXPECT_FALSE(ev->signaled());
    }
    EXPECT_EQ(0, failures.load());
    for (auto& t : waiters) t.join();
    CloseHandle(go);
    for (HANDLE h : done) CloseHandle(h);
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
                if (t % 2 == 0) {
                    WaitForSingleObject(m, INFINITE);
                } else {
                    while (WaitForSingleObject(m, 0) != WAIT_OBJECT_0) std::this_thread::yield();
                }
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

// The shape of every thread shutdown: one thread signals, the woken one closes
// the event at once, while the signaller may still be finishing its SetEvent.
TEST(WinEventStressTest, WokenThreadMayCloseTheEventAtOnce)
{
    constexpr int kLoops = 300;
    std::atomic<int> failures{0};
    for (int i = 0; i < kLoops; ++i) {
        HANDLE h = CreateEvent(nullptr, i % 2, FALSE, nullptr);
        std::thread closer([h, &failures] {
            if (WaitForSingleObject(h, kStuckMs) != WAIT_OBJECT_0) ++failures;
            CloseHandle(h);
        });
        SetEvent(h);
        closer.join();
    }
    EXPECT_EQ(0, failures.load());
}

} // namespace
