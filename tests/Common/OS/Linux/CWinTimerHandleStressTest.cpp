// Bounded stress of the timers: many 1 ms periodic timers expire, get
// re-armed, cancelled and closed while other threads hammer the event lock
// with counted handshakes. Every check is a count or a bounded wait, so the
// outcome does not depend on timing; the bounds only turn a lost expiry or a
// deadlock into a failure instead of a hang.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "Common/OS/Linux/CWinTimerHandle.h"
#include "Common/OS/Linux/OSAL.h"
#include "Common/OS/Linux/WinEvent.h"

namespace {

constexpr DWORD kStuckMs = 10000;
constexpr int kTimers = 16;

// Completion routines may outlive a closed timer by one call: static storage.
std::atomic<int> s_routineCalls[kTimers + 1];

void countCall(void* arg, DWORD, DWORD) { ++*static_cast<std::atomic<int>*>(arg); }

LARGE_INTEGER due(std::int64_t hundredNs)
{
    LARGE_INTEGER d;
    d.QuadPart = hundredNs;
    return d;
}

TEST(CWinTimerHandleStressTest, TimersFireWhileEventsAreHammered)
{
    const size_t live = CWinTimerHandle::liveTimerCount();
    const LARGE_INTEGER oneMs = due(-10000);
    std::atomic<int> failures{0};

    std::vector<HANDLE> timers;
    for (int i = 0; i < kTimers; ++i) {
        HANDLE t = CreateWaitableTimer(nullptr, i % 2, nullptr);
        ASSERT_NE(nullptr, t);
        ASSERT_TRUE(SetWaitableTimer(t, &oneMs, 1, countCall, &s_routineCalls[i], FALSE));
        timers.push_back(t);
    }

    std::vector<std::thread> threads;
    // Ping-pong pairs on the event lock.
    constexpr int kPairs = 2, kRounds = 1000;
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

    // A wait-any server and its clients: subscribe/unsubscribe under the lock.
    constexpr int kClients = 3, kRequests = 300;
    HANDLE req[kClients], ack[kClients];
    for (int i = 0; i < kClients; ++i) {
        req[i] = CreateEvent(nullptr, FALSE, FALSE, nullptr);
        ack[i] = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    }
    threads.emplace_back([&] {
        int served = 0;
        const DWORD start = GetTickCount();
        while (served < kClients * kRequests) {
            const DWORD r = WaitForMultipleObjects(kClients, req, FALSE, 50);
            if (r < static_cast<DWORD>(kClients)) {
                SetEvent(ack[r]);
                ++served;
            } else if (GetTickCount() - start > kStuckMs) {
                ++failures;
                return;
            }
        }
    });
    for (int c = 0; c < kClients; ++c)
        threads.emplace_back([&, c] {
            for (int i = 0; i < kRequests; ++i) {
                SetEvent(req[c]);
                if (WaitForSingleObject(ack[c], kStuckMs) != WAIT_OBJECT_0) {
                    ++failures;
                    return;
                }
            }
        });

    // Churn: short-lived timers closed while their expiries are in flight.
    threads.emplace_back([&] {
        for (int i = 0; i < 100; ++i) {
            HANDLE t = CreateWaitableTimer(nullptr, i % 2, nullptr);
            if (t == nullptr || !SetWaitableTimer(t, &oneMs, 1, countCall, &s_routineCalls[kTimers], FALSE)) {
                ++failures;
                return;
            }
            if (i % 3 == 0) {
                if (WaitForSingleObject(t, kStuckMs) != WAIT_OBJECT_0) ++failures;
                if (!CancelWaitableTimer(t)) ++failures;
                if (!SetWaitableTimer(t, &oneMs, 1, nullptr, nullptr, FALSE)) ++failures;
            }
            CloseHandle(t);
        }
    });

    // Every long-lived timer keeps expiring through all of this.
    threads.emplace_back([&] {
        for (int round = 0; round < 5; ++round)
            for (HANDLE t : timers)
                if (WaitForSingleObject(t, kStuckMs) != WAIT_OBJECT_0) ++failures;
    });

    for (auto& t : threads) t.join();
    EXPECT_EQ(0, failures.load());
    for (int i = 0; i < kTimers; ++i) {
        const DWORD start = GetTickCount();
        while (s_routineCalls[i].load() == 0 && GetTickCount() - start < kStuckMs) Sleep(1);
        EXPECT_GT(s_routineCalls[i].load(), 0) << i;
    }
    for (HANDLE t : timers) EXPECT_TRUE(CloseHandle(t));
    EXPECT_EQ(live, CWinTimerHandle::liveTimerCount());
    for (HANDLE h : events) CloseHandle(h);
    for (int i = 0; i < kClients; ++i) {
        CloseHandle(req[i]);
        CloseHandle(ack[i]);
    }
}

} // namespace
