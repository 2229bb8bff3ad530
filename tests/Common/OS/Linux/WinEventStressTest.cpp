// Bounded stress of events, mutexes and timers; every exchange is a counted
// handshake, so results never depend on timing.
#include <gtest/gtest.h>

#include "Common/OS/Linux/CWinEventHandle.h"
#include "Common/OS/Linux/CWinTimerHandle.h"
#include "Common/OS/Linux/OSAL.h"
#include "PlatformTestSupport.h"

namespace {

using namespace tavro_test;

// Client i sets req[i] and waits for ack[i], `requests` times; this thread
// serves them through wait-any; a client never served counts as a failure.
void serveWaitAny(Events& req, Events& ack, int requests, std::atomic<int>& failures)
{
    const DWORD n = static_cast<DWORD>(req.h.size());
    std::vector<std::thread> clients;
    for (DWORD i = 0; i < n; ++i)
        clients.emplace_back([&, i] {
            for (int k = 0; k < requests; ++k) {
                SetEvent(req.h[i]);
                if (WaitForSingleObject(ack.h[i], kStuckMs) != WAIT_OBJECT_0) {
                    ++failures;
                    return;
                }
            }
        });
    for (DWORD total = 0; total < n * requests && failures == 0;) {
        const DWORD start = GetTickCount();
        const DWORD r = WaitForMultipleObjects(n, req.h.data(), FALSE, kStuckMs);
        if (r < n) {
            ++total;
            SetEvent(ack.h[r]);
        } else if (GetTickCount() - start >= kStuckMs) {
            // Only a lost wake-up runs the whole time-out.
            ++failures;
        }
    }
    for (auto& t : clients) t.join();
}

constexpr int kTimers = 16;

// Completion routines may outlive a closed timer by one call: static storage.
std::atomic<int> s_routineCalls[kTimers + 1];

void countCall(void* arg, DWORD, DWORD)
{
    ++*static_cast<std::atomic<int>*>(arg);
}

// 1 ms timers expire, are re-armed, cancelled and closed while wait-any is
// hammered, woken threads close events still inside SetEvent and a mutex is
// taken by blocking and by polling waits.
TEST(WinEventStressTest, EventsMutexesAndTimersUnderLoad)
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

    Events req(4, FALSE), ack(4, FALSE);
    std::vector<std::thread> threads;
    threads.emplace_back([&] { serveWaitAny(req, ack, 1000, failures); });
    threads.emplace_back([&] {
        for (int i = 0; i < 300; ++i) {
            HANDLE h = CreateEvent(nullptr, i % 2, FALSE, nullptr);
            std::thread closer([h, &failures] {
                failures += WaitForSingleObject(h, kStuckMs) != WAIT_OBJECT_0;
                CloseHandle(h);
            });
            SetEvent(h);
            closer.join();
        }
    });
    HANDLE m = CreateMutex(nullptr, FALSE, nullptr);
    long counter = 0;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 10000; ++i) {
                if (t % 2 == 0) WaitForSingleObject(m, INFINITE);
                while (t % 2 == 1 && WaitForSingleObject(m, 0) != WAIT_OBJECT_0) std::this_thread::yield();
                // Recursive; a zero wait fails if the tick turns before its try.
                const bool again = WaitForSingleObject(m, 0) == WAIT_OBJECT_0;
                ++counter;
                if (again) ReleaseMutex(m);
                ReleaseMutex(m);
            }
        });
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
    EXPECT_EQ(40000, counter);
    CloseHandle(m);
    for (HANDLE h : req.h) EXPECT_EQ(0u, castToWinEventHandle(h)->subscriberCount());

    for (int i = 0; i < kTimers; ++i) EXPECT_TRUE(eventually([i] { return s_routineCalls[i] > 0; })) << i;
    for (HANDLE t : timers) EXPECT_TRUE(CloseHandle(t));
    EXPECT_EQ(live, CWinTimerHandle::liveTimerCount());
}

} // namespace
