#include "Common/OS/Linux/CWinTimerHandle.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdint>
#include <limits>

#include "Common/OS/Linux/CWinEventHandle.h"
#include "PlatformTestSupport.h"

namespace {

using tavro_test::eventually;

// Generous bound for "fires at all": expiries are tens of ms, qemu is slow.
constexpr DWORD kFireBoundMs = 5000;
constexpr std::int64_t kMs = 10000; // 100-ns units per millisecond

// Completion routines may outlive a test on their thread: static storage.
struct Calls {
    std::atomic<int> n{0};
    std::atomic<DWORD> low{99}, high{99};
};

void countCall(void* arg, DWORD low, DWORD high)
{
    Calls* c = static_cast<Calls*>(arg);
    c->low = low;
    c->high = high;
    ++c->n;
}

BOOL arm(HANDLE t, std::int64_t due, LONG periodMs, Calls* calls = nullptr)
{
    LARGE_INTEGER d;
    d.QuadPart = due;
    return SetWaitableTimer(t, &d, periodMs, calls ? countCall : nullptr, calls, FALSE);
}

CWinEventHandle* timerEvent(HANDLE t)
{
    return castToWinEventHandle(castToWinTimerHandle(t)->timerEvent());
}

TEST(CWinTimerHandleTest, DueTimeAndPeriodConversion)
{
    const std::uint64_t fullSec = 922337203685ULL, maxSec = std::numeric_limits<time_t>::max();
    const time_t clampedSec = static_cast<time_t>(fullSec < maxSec ? fullSec : maxSec);
    const struct {
        std::int64_t due;
        LONG period;
        bool relative;
        time_t sec, isec;
        long nsec, insec;
    } cases[] = {{-10000000, 0, true, 1, 0, 0, 0},
                 {-500000, 20, true, 0, 0, 50000000, 20000000},
                 {0, 1000, false, 0, 1, 0, 0},
                 {12345678901LL, 1500, false, 1234, 1, 567890100, 500000000},
                 // Magnitude of the most negative value, clamped where time_t is short.
                 {std::numeric_limits<std::int64_t>::min(), 0, true, clampedSec, 0, 477580800, 0},
                 // Left negative so that arming refuses it.
                 {-1, -1, true, 0, 0, 100, -1000000}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.due << " / " << c.period);
        itimerspec v;
        bool relative = !c.relative;
        timerValueFromDueTime(c.due, c.period, &v, &relative);
        EXPECT_EQ(c.relative, relative);
        EXPECT_EQ(c.sec, v.it_value.tv_sec);
        EXPECT_EQ(c.nsec, v.it_value.tv_nsec);
        EXPECT_EQ(c.isec, v.it_interval.tv_sec);
        EXPECT_EQ(c.insec, v.it_interval.tv_nsec);
    }
}

TEST(CWinTimerHandleTest, OneShotPeriodicAndAbsoluteTimers)
{
    static Calls oneShot[2], first, second, disarmed;
    for (BOOL manual : {FALSE, TRUE}) {
        SCOPED_TRACE(manual ? "manual" : "auto");
        HANDLE t = CreateWaitableTimer(nullptr, manual, "ignored");
        const DWORD start = GetTickCount();
        ASSERT_TRUE(arm(t, -50 * kMs, 0, &oneShot[manual]));
        ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(t, kFireBoundMs));
        // Timer clock and tick clock differ slightly.
        EXPECT_GE(GetTickCount() - start, 45u);
        EXPECT_EQ(manual ? WAIT_OBJECT_0 : WAIT_TIMEOUT, WaitForSingleObject(t, 0));
        ASSERT_TRUE(eventually([&] { return oneShot[manual].n == 1; }));
        EXPECT_EQ(0u, oneShot[manual].low | oneShot[manual].high);
        // A manual timer stays signalled until it is armed again.
        EXPECT_TRUE(!manual || arm(t, -10000 * kMs, 0));
        EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(t, manual ? 0 : 150));
        EXPECT_EQ(1, oneShot[manual].n.load());
        EXPECT_TRUE(CloseHandle(t));
    }

    HANDLE t = CreateWaitableTimer(nullptr, FALSE, nullptr);
    ASSERT_TRUE(arm(t, -10000 * kMs, 0, &first));
    ASSERT_TRUE(arm(t, -20 * kMs, 20, &second));
    for (int i = 0; i < 3; ++i) ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(t, kFireBoundMs)) << i;
    EXPECT_TRUE(eventually([&] { return first.n >= 3; }));
    EXPECT_EQ(0, second.n.load());
    EXPECT_TRUE(CloseHandle(t));

    // An absolute due time is real time since the epoch.
    t = CreateWaitableTimer(nullptr, TRUE, nullptr);
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    ASSERT_TRUE(arm(t, (static_cast<std::int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec) / 100 + 50 * kMs, 0));
    EXPECT_FALSE(timerEvent(t)->signaled());
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(t, kFireBoundMs));
    // Due time 0 disarms, yet counts as set, so it can be cancelled.
    for (LONG period : {0, 20}) {
        EXPECT_TRUE(arm(t, 0, period, &disarmed));
        EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(t, 100)) << period;
        EXPECT_TRUE(CancelWaitableTimer(t));
    }
    EXPECT_EQ(0, disarmed.n.load());
    EXPECT_TRUE(CloseHandle(t));
}

TEST(CWinTimerHandleTest, CancelStopsAnArmedTimerOnlyFailedSetReleasesWaitersAndCallsAreCounted)
{
    static Calls calls;
    TimerStats& s = timerStats();
    const unsigned create = s.nCallsToCreateTimer, close = s.nCallsToCloseTimer, set = s.nCallsToSetTimer,
                   cancel = s.nCallsToCancelTimer, elapsed = s.nCallsToElapsedTimer;
    HANDLE t = CreateWaitableTimer(nullptr, TRUE, nullptr);
    EXPECT_FALSE(CancelWaitableTimer(t)) << "never armed";
    ASSERT_TRUE(arm(t, -1 * kMs, 1, &calls));
    ASSERT_TRUE(eventually([&] { return calls.n >= 2; }));
    const size_t live = CWinTimerHandle::liveTimerCount();
    ASSERT_TRUE(CancelWaitableTimer(t));
    EXPECT_EQ(live - 1, CWinTimerHandle::liveTimerCount()) << "a cancelled timer takes no more expiries";
    EXPECT_FALSE(CancelWaitableTimer(t)) << "already cancelled";
    // The event keeps its state through a cancel.
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(t, 0));
    const int atCancel = calls.n;
    ResetEvent(castToWinTimerHandle(t)->timerEvent());
    // Expiries in flight are dropped; a woken routine may finish one call.
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(t, 100));
    EXPECT_LE(calls.n.load(), atCancel + 1);
    // Setting again makes (and counts) a new POSIX timer, which fires.
    ASSERT_TRUE(arm(t, -20 * kMs, 0));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(t, kFireBoundMs));
    EXPECT_TRUE(CloseHandle(t));
    EXPECT_EQ(create + 2, s.nCallsToCreateTimer);
    EXPECT_EQ(close + 1, s.nCallsToCloseTimer);
    EXPECT_EQ(set + 2, s.nCallsToSetTimer);
    EXPECT_EQ(cancel + 1, s.nCallsToCancelTimer);
    EXPECT_GE(s.nCallsToElapsedTimer, elapsed + 3);

    HANDLE ev = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    for (HANDLE notTimer : {ev, HANDLE(nullptr)}) {
        EXPECT_FALSE(CancelWaitableTimer(notTimer));
        EXPECT_FALSE(arm(notTimer, -20 * kMs, 0));
    }
    CloseHandle(ev);

    // A failed set releases the waiters at once.
    static Calls failed;
    t = CreateWaitableTimer(nullptr, TRUE, nullptr);
    std::thread waiter([&] { EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(t, kFireBoundMs)); });
    EXPECT_TRUE(eventually([&] { return timerEvent(t)->waiters() == 1; }));
    // A negative period is refused by the kernel.
    EXPECT_FALSE(arm(t, -10000 * kMs, -5, &failed));
    waiter.join();
    EXPECT_TRUE(eventually([&] { return failed.n == 1; }));
    EXPECT_FALSE(SetWaitableTimer(t, nullptr, 0, nullptr, nullptr, FALSE));
    EXPECT_TRUE(CloseHandle(t));
}

int s_appHandlerCalls = 0;

// The handler signals only the timer a timer signal names; expiry never runs
// on application threads.
TEST(CWinTimerHandleTest, SignalHandling)
{
    HANDLE t = CreateWaitableTimer(nullptr, TRUE, nullptr);
    // A stray SIGUSR1 must reach the handler with a siginfo it can read.
    struct sigaction now {};
    ASSERT_EQ(0, sigaction(SIGUSR1, nullptr, &now));
    EXPECT_NE(0, now.sa_flags & SA_SIGINFO);
    siginfo_t info{};
    info.si_code = SI_TIMER;
    WinTimerHandler(SIGUSR1, &info, nullptr);
    WinTimerHandler(SIGUSR1, nullptr, nullptr);
    // Stray signals name no timer, whatever their value holds.
    info.si_code = SI_USER;
    info.si_value.sival_ptr = castToWinTimerHandle(t);
    WinTimerHandler(SIGUSR1, &info, nullptr);
    EXPECT_EQ(0, kill(getpid(), SIGUSR1));
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(t, 50));
    info.si_code = SI_TIMER;
    WinTimerHandler(SIGUSR1, &info, nullptr);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(t, 0));
    EXPECT_TRUE(CloseHandle(t));

    t = CreateWaitableTimer(nullptr, FALSE, nullptr);
    // The application takes SIGUSR1 over and blocks it: expiry still works.
    struct sigaction app {
    }, old{};
    app.sa_handler = [](int) { ++s_appHandlerCalls; };
    sigemptyset(&app.sa_mask);
    ASSERT_EQ(0, sigaction(SIGUSR1, &app, &old));
    sigset_t set, oldMask;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &set, &oldMask);
    ASSERT_TRUE(arm(t, -5 * kMs, 5));
    for (int i = 0; i < 3; ++i) EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(t, kFireBoundMs)) << i;
    EXPECT_TRUE(CloseHandle(t));
    pthread_sigmask(SIG_SETMASK, &oldMask, nullptr);
    sigaction(SIGUSR1, &old, nullptr);
    EXPECT_EQ(0, s_appHandlerCalls);
}

TEST(CWinTimerHandleTest, LeakReport)
{
    TimerStats& s = timerStats();
    // As in a fresh process.
    s.nCallsToCreateTimer = 0;
    s.nCallsToCloseTimer = 0;
    setCheckStatsThreshold(7);
    std::vector<HANDLE> timers;
    auto createCaptured = [&] {
        testing::internal::CaptureStdout();
        timers.push_back(CreateWaitableTimer(nullptr, FALSE, nullptr));
        return testing::internal::GetCapturedStdout();
    };
    for (int i = 0; i < 7; ++i) EXPECT_EQ("", createCaptured()) << i;
    EXPECT_EQ("checkStats: more timer create calls[8] than close calls[0]", createCaptured());
    EXPECT_EQ("checkStats: more timer create calls[9] than close calls[0]", createCaptured());
    // Back below the raised threshold: silent.
    CloseHandle(timers.back());
    timers.pop_back();
    EXPECT_EQ("", createCaptured());
    EXPECT_EQ(9u, checkStatsThreshold());
    for (HANDLE t : timers) CloseHandle(t);
}

} // namespace
