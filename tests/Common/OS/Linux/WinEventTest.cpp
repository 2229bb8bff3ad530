#include "Common/OS/Linux/WinEvent.h"

#include <gtest/gtest.h>

#include "Common/OS/Linux/CWinEventHandle.h"
#include "Common/OS/Linux/HandlePool.h"
#include "Common/OS/Linux/OSAL.h"
#include "PlatformTestSupport.h"

namespace {

using tavro_test::Events;
using tavro_test::eventually;

CWinEventHandle* ev(HANDLE h)
{
    return castToWinEventHandle(h);
}

TEST(WinEventTest, SignalledStateFollowsResetModeAndBadHandlesAreRefused)
{
    for (BOOL manual : {FALSE, TRUE}) {
        SCOPED_TRACE(manual ? "manual" : "auto");
        HANDLE h = CreateEvent(nullptr, manual, TRUE, nullptr);
        EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(h, 0));
        EXPECT_EQ(manual ? WAIT_OBJECT_0 : WAIT_TIMEOUT, WaitForSingleObject(h, 0));
        EXPECT_TRUE(ResetEvent(h));
        EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(h, 0));
        EXPECT_TRUE(SetEvent(h));
        EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(h, INFINITE));
        // A pulse leaves the event signalled, unlike its Win32 namesake.
        EXPECT_TRUE(PulseEvent(h));
        EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(h, 0));
        EXPECT_EQ(manual != 0, ev(h)->signaled());
        EXPECT_TRUE(CloseHandle(h));
        // A pooled event is lent clear and of the kind asked.
        h = tavro_internal::borrowEvent(manual);
        SetEvent(h);
        tavro_internal::returnEvent(h, manual);
        h = tavro_internal::borrowEvent(manual);
        ASSERT_NE(nullptr, ev(h));
        EXPECT_FALSE(ev(h)->signaled());
        EXPECT_EQ(manual != 0, ev(h)->manualReset());
        tavro_internal::returnEvent(h, manual);
    }
    EXPECT_EQ(WAIT_FAILED, WaitForSingleObject(nullptr, 0));
    EXPECT_FALSE(CloseHandle(nullptr));
    EXPECT_FALSE(SetEvent(nullptr));
    EXPECT_FALSE(ReleaseMutex(nullptr));
    CBaseHandle plain;
    testing::internal::CaptureStdout();
    EXPECT_TRUE(CloseHandle(&plain));
    EXPECT_EQ("Closing unknown HANDLE type\n", testing::internal::GetCapturedStdout());
    EXPECT_EQ(0u, WaitForSingleObject(&plain, INFINITE));
}

TEST(WinEventTest, TimedWaitsLastTheTimeoutAndOneSetReleasesEveryWaiter)
{
    Events e(2, TRUE);
    for (DWORD count : {1u, 2u}) {
        const DWORD start = GetTickCount();
        const DWORD r = count == 1 ? WaitForSingleObject(e.h[0], 20) : WaitForMultipleObjects(2, e.h.data(), FALSE, 20);
        EXPECT_EQ(WAIT_TIMEOUT, r) << count;
        // The tick count and the condition clock differ; allow 1 ms.
        EXPECT_GE(GetTickCount() - start, 19u) << count;
    }
    EXPECT_EQ(0u, ev(e.h[0])->subscriberCount());
    // The deadline carries nanoseconds into seconds.
    for (DWORD ms : {0u, 1u, 999u, 1000u, 1500u, 86400000u, INFINITE - 1}) {
        SCOPED_TRACE(ms);
        timespec before, deadline;
        clock_gettime(CLOCK_MONOTONIC, &before);
        CBaseHandle::getTimeout(&deadline, ms, CLOCK_MONOTONIC);
        EXPECT_GE(deadline.tv_nsec, 0);
        EXPECT_LT(deadline.tv_nsec, 1000000000);
        const long double diffMs =
            (deadline.tv_sec - before.tv_sec) * 1000.0L + (deadline.tv_nsec - before.tv_nsec) / 1e6L;
        EXPECT_GE(diffMs, ms);
        EXPECT_LT(diffMs, ms + 1000.0L);
    }

    Events one(1, FALSE);
    std::atomic<int> released{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i)
        waiters.emplace_back([&] { released += WaitForSingleObject(one.h[0], INFINITE) == WAIT_OBJECT_0; });
    EXPECT_TRUE(eventually([&] { return ev(one.h[0])->waiters() == 3; }));
    SetEvent(one.h[0]);
    for (auto& t : waiters) t.join();
    EXPECT_EQ(3, released.load());
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(one.h[0], 0));
}

// OpenEvent matches the name exactly (empty: any unnamed); opens add references.
TEST(WinEventTest, OpenEventMatchesTheNameAndCountsReferences)
{
    const char* name = "WinEventTest.OpenEvent";
    HANDLE a = CreateEvent(nullptr, TRUE, FALSE, name);
    EXPECT_EQ(a, OpenEvent(0, FALSE, name));
    EXPECT_EQ(nullptr, OpenEvent(0, FALSE, "winEventTest.OpenEvent"));
    CloseHandle(a);
    EXPECT_EQ(a, OpenEvent(0, FALSE, name)) << "still alive through the second reference";
    CloseHandle(a);
    CloseHandle(a);
    EXPECT_EQ(nullptr, OpenEvent(0, FALSE, name));
    Events unnamed(1, FALSE);
    HANDLE any = OpenEvent(0, FALSE, "");
    ASSERT_NE(nullptr, any);
    EXPECT_EQ("", ev(any)->name());
    CloseHandle(any);
}

// Wait-any picks the lowest signalled index and resets only auto events.
TEST(WinEventTest, WaitMultiple)
{
    for (BOOL manual : {FALSE, TRUE}) {
        SCOPED_TRACE(manual ? "manual" : "auto");
        Events e(4, manual);
        EXPECT_EQ(WAIT_TIMEOUT, WaitForMultipleObjects(4, e.h.data(), FALSE, 0));
        SetEvent(e.h[3]);
        SetEvent(e.h[1]);
        EXPECT_EQ(1u, WaitForMultipleObjects(4, e.h.data(), FALSE, 0));
        EXPECT_EQ(manual != 0, ev(e.h[1])->signaled());
        EXPECT_TRUE(ev(e.h[3])->signaled());
        EXPECT_EQ(manual ? 1u : 3u, WaitForMultipleObjects(4, e.h.data(), FALSE, INFINITE));
    }
    // A wait woken by a signal reports a time-out; the next call the index.
    Events e(3, FALSE);
    std::atomic<DWORD> first{12345};
    std::thread waiter([&] { first = WaitForMultipleObjects(3, e.h.data(), FALSE, INFINITE); });
    // Subscribed to every event once the last one has a subscriber.
    EXPECT_TRUE(eventually([&] { return ev(e.h[2])->subscriberCount() == 1; }));
    SetEvent(e.h[2]);
    waiter.join();
    EXPECT_EQ(WAIT_TIMEOUT, first.load());
    for (HANDLE h : e.h) EXPECT_EQ(0u, ev(h)->subscriberCount());
    EXPECT_TRUE(ev(e.h[2])->signaled());
    EXPECT_EQ(2u, WaitForMultipleObjects(3, e.h.data(), FALSE, 0));
    EXPECT_FALSE(ev(e.h[2])->signaled());

    // Wait-all reports object zero only when every wait timed out.
    Events single(1, FALSE), two(2, TRUE);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForMultipleObjects(1, single.h.data(), TRUE, 10));
    SetEvent(single.h[0]);
    EXPECT_EQ(WAIT_TIMEOUT, WaitForMultipleObjects(1, single.h.data(), TRUE, 10));
    EXPECT_FALSE(ev(single.h[0])->signaled()) << "the auto-reset event is consumed";
    SetEvent(two.h[1]);
    // The second wait finds its event signalled or the budget spent: time-out.
    EXPECT_EQ(WAIT_TIMEOUT, WaitForMultipleObjects(2, two.h.data(), TRUE, 10));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForMultipleObjects(0, nullptr, TRUE, 0));
}

// A zero wait fails if the tick turns before its one try; look again then.
DWORD tryOnce(HANDLE m)
{
    DWORD r = WAIT_FAILED;
    for (int i = 0; i < 5 && r == WAIT_FAILED; ++i) r = WaitForSingleObject(m, 0);
    return r;
}

TEST(WinMutexTest, OwnerMayReenterAndOthersTimeOutBySpinning)
{
    HANDLE m = CreateMutex(nullptr, TRUE, nullptr);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(m, INFINITE));
    DWORD other = 0, elapsed = 0;
    std::thread([&] {
        const DWORD start = GetTickCount();
        other = WaitForSingleObject(m, 50);
        elapsed = GetTickCount() - start;
    }).join();
    EXPECT_EQ(WAIT_TIMEOUT, other);
    EXPECT_GE(elapsed, 50u);
    // Locked twice: the first release still leaves it owned.
    for (DWORD expected : {WAIT_TIMEOUT, WAIT_OBJECT_0}) {
        EXPECT_TRUE(ReleaseMutex(m));
        std::thread([&] {
            other = tryOnce(m);
            if (other == WAIT_OBJECT_0) ReleaseMutex(m);
        }).join();
        EXPECT_EQ(expected, other);
    }
    EXPECT_TRUE(CloseHandle(m));
}

} // namespace
