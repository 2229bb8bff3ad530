#include "Common/OS/Linux/CWinTimerHandle.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <limits>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Common/OS/Linux/CWinEventHandle.h"
#include "Common/OS/Linux/WinEvent.h"

namespace {

// Generous bound for "fires at all": expiries are tens of ms, qemu is slow.
constexpr DWORD kFireBoundMs = 5000;

template <typename Cond>
bool eventually(Cond cond)
{
    for (int i = 0; i < 5000; ++i) {
        if (cond()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return cond();
}

// Completion routines may still run on their detached thread after a test
// has ended, so what they touch lives in static storage.
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

LARGE_INTEGER due(std::int64_t hundredNs)
{
    LARGE_INTEGER d;
    d.QuadPart = hundredNs;
    return d;
}

constexpr std::int64_t kMs = 10000; // 100-ns units per millisecond

bool signalled(HANDLE timer) { return castToWinEventHandle(castToWinTimerHandle(timer)->timerEvent())->signaled(); }

TEST(CWinTimerHandleTest, DueTimeAndPeriodConversion)
{
    const std::uint64_t fullSec = 922337203685ULL;
    const std::uint64_t maxSec = static_cast<std::uint64_t>(std::numeric_limits<time_t>::max());
    const time_t clampedSec = static_cast<time_t>(fullSec < maxSec ? fullSec : maxSec);
    struct Case {
        std::int64_t due;
        LONG period;
        bool relative;
        time_t sec;
        long nsec;
        time_t isec;
        long insec;
    } cases[] = {
        {-10000000, 0, true, 1, 0, 0, 0},
        {-500000, 20, true, 0, 50000000, 0, 20000000},
        {-1, 250, true, 0, 100, 0, 250000000},
        {0, 0, false, 0, 0, 0, 0},
        {0, 1000, false, 0, 0, 1, 0},
        {12345678901LL, 1500, false, 1234, 567890100, 1, 500000000},
        // Magnitude of the most negative value, clamped where time_t is short.
        {std::numeric_limits<std::int64_t>::min(), 0, true, clampedSec, 477580800, 0, 0},
        // Left negative so that arming refuses it.
        {-1, -1, true, 0, 100, 0, -1000000},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.due);
        SCOPED_TRACE(c.period);
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

TEST(CWinTimerHandleTest, OneShotFiresOnceAfterItsDueTime)
{
    static Calls calls;
    HANDLE t = CreateWaitableTimer(nullptr, FALSE, "ignored");
    ASSERT_NE(nullptr, t);
    const LARGE_INTEGER d = due(-50 * kMs);
    const DWORD start = GetTickCount();
    ASSERT_TRUE(SetWaitableTimer(t, &d, 0, countCall, &calls, FALSE));
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(t, kFireBoundMs));
    // Timer clock and tick clock differ slightly.
    EXPECT_GE(GetTickCount() - start, 45u);
    ASSERT_TRUE(eventually([&] { return calls.n == 1; }));
    EXPECT_EQ(0u, calls.low.load());
    EXPECT_EQ(0u, calls.high.load());
    // A period of 0 arms it once only.
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(t, 150));
    EXPECT_EQ(1, calls.n.load());
    EXPECT_TRUE(CloseHandle(t));
}

TEST(CWinTimerHandleTest, PeriodicTimerKeepsFiring)
{
    static Calls calls;
    HANDLE t = CreateWaitableTimer(nullptr, FALSE, nullptr);
    const LARGE_INTEGER d = due(-20 * kMs);
    ASSERT_TRUE(SetWaitableTimer(t, &d, 20, countCall, &calls, FALSE));
    for (int i = 0; i < 3; ++i) ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(t, kFireBoundMs)) << i;
    EXPECT_TRUE(eventually([&] { return calls.n >= 3; }));
    EXPECT_TRUE(CloseHandle(t));
}

TEST(CWinTimerHandleTest, AbsoluteDueTimeIsRealTimeSinceTheEpoch)
{
    HANDLE t = CreateWaitableTimer(nullptr, TRUE, nullptr);
    // Long past: due at once.
    LARGE_INTEGER d = due(1);
    ASSERT_TRUE(SetWaitableTimer(t, &d, 0, nullptr, nullptr, FALSE));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(t, kFireBoundMs));

    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    d = due((static_cast<std::int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec) / 100 + 50 * kMs);
    ASSERT_TRUE(SetWaitableTimer(t, &d, 0, nullptr, nullptr, FALSE));
    EXPECT_FALSE(signalled(t));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(t, kFireBoundMs));
    EXPECT_TRUE(CloseHandle(t));
}

TEST(CWinTimerHandleTest, DueTimeZeroDisarms)
{
    static Calls calls;
    for (LONG period : {0, 20}) {
        SCOPED_TRACE(period);
        HANDLE t = CreateWaitableTimer(nullptr, TRUE, nullptr);
        const LARGE_INTEGER d = due(0);
        EXPECT_TRUE(SetWaitableTimer(t, &d, period, countCall, &calls, FALSE));
        EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(t, 100));
        EXPECT_EQ(0, calls.n.load());
        // It counts as set, so it can be cancelled.
        EXPECT_TRUE(CancelWaitableTimer(t));
        EXPECT_TRUE(CloseHandle(t));
    }
}

TEST(CWinTimerHandleTest, FirstCompletionRoutineStaysInForce)
{
    static Calls first, second;
    HANDLE t = CreateWaitableTimer(nullptr, FALSE, nullptr);
    const LARGE_INTEGER later = due(-10000 * kMs), soon = due(-20 * kMs);
    ASSERT_TRUE(SetWaitableTimer(t, &later, 0, countCall, &first, FALSE));
    ASSERT_TRUE(SetWaitableTimer(t, &soon, 0, countCall, &second, FALSE));
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(t, kFireBoundMs));
    EXPECT_TRUE(eventually([&] { return first.n == 1; }));
    EXPECT_EQ(0, second.n.load());
    EXPECT_TRUE(CloseHandle(t));
}

TEST(CWinTimerHandleTest, ResetModeDecidesHowLongExpiryIsSeen)
{
    for (BOOL manual : {FALSE, TRUE}) {
        SCOPED_TRACE(manual ? "manual" : "auto");
        HANDLE t = CreateWaitableTimer(nullptr, manual, nullptr);
        const LARGE_INTEGER d = due(-20 * kMs);
        ASSERT_TRUE(SetWaitableTimer(t, &d, 0, nullptr, nullptr, FALSE));
        ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(t, kFireBoundMs));
        EXPECT_EQ(manual ? WAIT_OBJECT_0 : WAIT_TIMEOUT, WaitForSingleObject(t, 0));
        EXPECT_EQ(manual ? WAIT_OBJECT_0 : WAIT_TIMEOUT, WaitForSingleObject(t, 0));
        // Arming again clears it.
        const LARGE_INTEGER later = due(-10000 * kMs);
        ASSERT_TRUE(SetWaitableTimer(t, &later, 0, nullptr, nullptr, FALSE));
        EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(t, 0));
        EXPECT_TRUE(CloseHandle(t));
    }
}

TEST(CWinTimerHandleTest, CancelNeedsAnArmedTimer)
{
    HANDLE t = CreateWaitableTimer(nullptr, TRUE, nullptr);
    EXPECT_FALSE(CancelWaitableTimer(t)) << "never armed";
    const LARGE_INTEGER later = due(-10000 * kMs);
    ASSERT_TRUE(SetWaitableTimer(t, &later, 0, nullptr, nullptr, FALSE));
    EXPECT_TRUE(CancelWaitableTimer(t));
    EXPECT_FALSE(castToWinTimerHandle(t)->hasTimer());
    EXPECT_FALSE(CancelWaitableTimer(t)) << "already cancelled";

    // Setting again makes a new POSIX timer, which fires.
    const LARGE_INTEGER soon = due(-20 * kMs);
    ASSERT_TRUE(SetWaitableTimer(t, &soon, 0, nullptr, nullptr, FALSE));
    EXPECT_TRUE(castToWinTimerHandle(t)->hasTimer());
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(t, kFireBoundMs));
    // The event keeps its state through a cancel.
    EXPECT_TRUE(CancelWaitableTimer(t));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(t, 0));
    EXPECT_TRUE(CloseHandle(t));

    HANDLE ev = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    EXPECT_FALSE(CancelWaitableTimer(ev));
    EXPECT_FALSE(CancelWaitableTimer(nullptr));
    EXPECT_FALSE(SetWaitableTimer(ev, &soon, 0, nullptr, nullptr, FALSE));
    EXPECT_FALSE(SetWaitableTimer(nullptr, &soon, 0, nullptr, nullptr, FALSE));
    EXPECT_EQ(nullptr, castToWinTimerHandle(ev));
    EXPECT_EQ(nullptr, castToWinTimerHandle(nullptr));
    CloseHandle(ev);
}

TEST(CWinTimerHandleTest, CancelStopsAPeriodicTimer)
{
    static Calls calls;
    HANDLE t = CreateWaitableTimer(nullptr, TRUE, nullptr);
    const LARGE_INTEGER d = due(-1 * kMs);
    ASSERT_TRUE(SetWaitableTimer(t, &d, 1, countCall, &calls, FALSE));
    ASSERT_TRUE(eventually([&] { return calls.n >= 2; }));
    ASSERT_TRUE(CancelWaitableTimer(t));
    EXPECT_FALSE(castToWinTimerHandle(t)->hasThread());
    const int atCancel = calls.n;
    ResetEvent(castToWinTimerHandle(t)->timerEvent());
    // Expiries still in flight are dropped, so nothing sets it again.
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(t, 100));
    // A routine already woken may still finish its one call.
    EXPECT_LE(calls.n.load(), atCancel + 1);
    EXPECT_TRUE(CloseHandle(t));
}

TEST(CWinTimerHandleTest, FailedSetReleasesWaitersAtOnce)
{
    static Calls calls;
    HANDLE t = CreateWaitableTimer(nullptr, TRUE, nullptr);
    const LARGE_INTEGER d = due(-10000 * kMs);
    std::thread waiter([&] { EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(t, kFireBoundMs)); });
    ASSERT_TRUE(eventually([&] {
        return castToWinEventHandle(castToWinTimerHandle(t)->timerEvent())->waiters() == 1;
    }));
    // A negative period is refused by the kernel.
    EXPECT_FALSE(SetWaitableTimer(t, &d, -5, countCall, &calls, FALSE));
    waiter.join();
    EXPECT_TRUE(eventually([&] { return calls.n == 1; }));
    EXPECT_FALSE(SetWaitableTimer(t, nullptr, 0, nullptr, nullptr, FALSE));
    EXPECT_TRUE(CloseHandle(t));
}

TEST(CWinTimerHandleTest, HandlerSignalsTheTimerNamedInTheSignal)
{
    HANDLE t = CreateWaitableTimer(nullptr, TRUE, nullptr);
    siginfo_t info{};
    info.si_code = SI_TIMER;
    info.si_value.sival_ptr = nullptr;
    WinTimerHandler(SIGUSR1, &info, nullptr);
    WinTimerHandler(SIGUSR1, nullptr, nullptr);
    // Not from a timer: the value is not looked at.
    info.si_code = SI_USER;
    info.si_value.sival_ptr = castToWinTimerHandle(t);
    WinTimerHandler(SIGUSR1, &info, nullptr);
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(t, 0));
    info.si_code = SI_TIMER;
    WinTimerHandler(SIGUSR1, &info, nullptr);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(t, 0));
    EXPECT_TRUE(CloseHandle(t));
}

TEST(CWinTimerHandleTest, StraySigusr1IsHarmless)
{
    HANDLE t = CreateWaitableTimer(nullptr, TRUE, nullptr);
    // Lands on this thread, whose handler finds no timer in it.
    EXPECT_EQ(0, raise(SIGUSR1));
    EXPECT_EQ(0, kill(getpid(), SIGUSR1));
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(t, 50));
    EXPECT_TRUE(CloseHandle(t));
}

int s_appHandlerCalls = 0;
void appHandler(int) { ++s_appHandlerCalls; }

TEST(CWinTimerHandleTest, ExpiryNeverRunsOnApplicationThreads)
{
    HANDLE t = CreateWaitableTimer(nullptr, FALSE, nullptr);
    // The application takes SIGUSR1 over and blocks it here; expiry still
    // reaches the timer, and never the application's handler.
    struct sigaction app {}, old {};
    app.sa_handler = appHandler;
    sigemptyset(&app.sa_mask);
    ASSERT_EQ(0, sigaction(SIGUSR1, &app, &old));
    sigset_t set, oldMask;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &set, &oldMask);

    const LARGE_INTEGER d = due(-5 * kMs);
    ASSERT_TRUE(SetWaitableTimer(t, &d, 5, nullptr, nullptr, FALSE));
    for (int i = 0; i < 3; ++i) EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(t, kFireBoundMs)) << i;
    EXPECT_TRUE(CloseHandle(t));

    pthread_sigmask(SIG_SETMASK, &oldMask, nullptr);
    sigaction(SIGUSR1, &old, nullptr);
    EXPECT_EQ(0, s_appHandlerCalls);
}

TEST(CWinTimerHandleTest, CallCountersFollowTheOperations)
{
    TimerStats& s = timerStats();
    const unsigned create = s.nCallsToCreateTimer, close = s.nCallsToCloseTimer, set = s.nCallsToSetTimer,
                   cancel = s.nCallsToCancelTimer, elapsed = s.nCallsToElapsedTimer;
    HANDLE t = CreateWaitableTimer(nullptr, TRUE, nullptr);
    EXPECT_FALSE(CancelWaitableTimer(t));
    const LARGE_INTEGER later = due(-10000 * kMs), soon = due(-10 * kMs);
    SetWaitableTimer(t, &later, 0, nullptr, nullptr, FALSE);
    CancelWaitableTimer(t);
    // Re-arming after a cancel creates a POSIX timer again, and counts it.
    SetWaitableTimer(t, &soon, 0, nullptr, nullptr, FALSE);
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(t, kFireBoundMs));
    CloseHandle(t);
    EXPECT_EQ(create + 2, s.nCallsToCreateTimer);
    EXPECT_EQ(close + 1, s.nCallsToCloseTimer);
    EXPECT_EQ(set + 2, s.nCallsToSetTimer);
    EXPECT_EQ(cancel + 1, s.nCallsToCancelTimer);
    EXPECT_GE(s.nCallsToElapsedTimer, elapsed + 1);
}

TEST(CWinTimerHandleTest, StatsTextLabelsEveryCounter)
{
    TimerStats s;
    s.nCallsToCreateTimer = 1;
    s.nCallsToCloseTimer = 2;
    s.nCallsToSetTimer = 3;
    s.nCallsToElapsedTimer = 4;
    s.nCallsToCancelTimer = 5;
    std::ostringstream os;
    os << s;
    EXPECT_EQ("create calls[1]     close calls[2]\nset    calls[3]  elapsed timers[4]  cancel calls[5]", os.str());
}

TEST(CWinTimerHandleTest, EachLeakedTimerBeyondSevenIsReportedOnce)
{
    TimerStats& s = timerStats();
    const unsigned create = s.nCallsToCreateTimer, close = s.nCallsToCloseTimer, threshold = checkStatsThreshold();
    // As in a fresh process.
    s.nCallsToCreateTimer = 0;
    s.nCallsToCloseTimer = 0;
    setCheckStatsThreshold(7);

    std::vector<HANDLE> timers;
    testing::internal::CaptureStdout();
    for (int i = 0; i < 7; ++i) timers.push_back(CreateWaitableTimer(nullptr, FALSE, nullptr));
    EXPECT_EQ("", testing::internal::GetCapturedStdout());

    testing::internal::CaptureStdout();
    timers.push_back(CreateWaitableTimer(nullptr, FALSE, nullptr));
    EXPECT_EQ("checkStats: more timer create calls[8] than close calls[0]", testing::internal::GetCapturedStdout());

    testing::internal::CaptureStdout();
    timers.push_back(CreateWaitableTimer(nullptr, FALSE, nullptr));
    EXPECT_EQ("checkStats: more timer create calls[9] than close calls[0]", testing::internal::GetCapturedStdout());

    // Back below the raised threshold: silent.
    CloseHandle(timers.back());
    timers.pop_back();
    testing::internal::CaptureStdout();
    timers.push_back(CreateWaitableTimer(nullptr, FALSE, nullptr));
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_EQ(9u, checkStatsThreshold());

    for (HANDLE t : timers) CloseHandle(t);
    s.nCallsToCreateTimer += create;
    s.nCallsToCloseTimer += close;
    setCheckStatsThreshold(threshold);
}

} // namespace
