#pragma once

// Win32-style waitable timer: a handle whose event is set when a POSIX
// interval timer expires, with an optional completion routine run on a
// private thread.
//
// Expiry arrives as SIGUSR1, aimed (SIGEV_THREAD_ID) at one dispatcher thread
// of the library that takes it with sigwaitinfo and calls WinTimerHandler.
// The handler thus never runs on an application thread that might hold the
// event lock it needs. WinTimerHandler is still installed for SIGUSR1 so that
// a stray SIGUSR1 does not kill the process.
#include <signal.h>
#include <time.h>

#include <atomic>
#include <cstdint>
#include <iosfwd>
#include <string>

#include "Common/OS/Linux/CWinMutexHandle.h"
#include "Common/OS/Linux/WinEvent.h"
#include "TavroExport.h"

typedef void (*PTIMERAPCROUTINE)(void* arg, DWORD low, DWORD high);

extern "C" TAVRO_EXPORT HANDLE CreateWaitableTimer(SECURITY_ATTRIBUTES* attr, BOOL bManualReset, const char* name);
extern "C" TAVRO_EXPORT BOOL SetWaitableTimer(HANDLE h, const _LARGE_INTEGER* dueTime, LONG periodMs,
                                              PTIMERAPCROUTINE fn, void* arg, BOOL resume);
extern "C" TAVRO_EXPORT BOOL CancelWaitableTimer(HANDLE h);
extern "C" TAVRO_EXPORT void WinTimerHandler(int sig, siginfo_t* info, void* ctx);

// Owned by the completion thread, which frees it on exit.
struct TimerThreadParameters {
    TimerThreadParameters(PTIMERAPCROUTINE fn, void* arg, HANDLE threadEvent, timer_t timerId)
        : m_pfnCompletionRoutine(fn), m_lpArgToCompletionRoutine(arg), m_TimerId(timerId), m_threadEvent(threadEvent),
          m_bRunning(true)
    {
    }
    PTIMERAPCROUTINE m_pfnCompletionRoutine;
    void* m_lpArgToCompletionRoutine;
    timer_t m_TimerId;
    HANDLE m_threadEvent;
    // Cleared by the timer's owner while the thread may be reading it.
    std::atomic<bool> m_bRunning;
};

// Process-wide call counters of the timer layer.
struct TimerStats {
    std::atomic<unsigned> nCallsToCreateTimer{0};
    std::atomic<unsigned> nCallsToCloseTimer{0};
    std::atomic<unsigned> nCallsToSetTimer{0};
    std::atomic<unsigned> nCallsToElapsedTimer{0};
    std::atomic<unsigned> nCallsToCancelTimer{0};
};
std::ostream& operator<<(std::ostream& os, const TimerStats& stats);

// The one instance.
TimerStats& timerStats();
// Leak report threshold of checkStats; tests reset it.
unsigned checkStatsThreshold();
void setCheckStatsThreshold(unsigned threshold);

// 100-ns due time (negative: relative; otherwise absolute on CLOCK_REALTIME
// since the Unix epoch) and period in ms, as timer_settime wants them.
void timerValueFromDueTime(std::int64_t dueTime, LONG periodMs, itimerspec* value, bool* relative);

class CWinTimerHandle final : public CBaseHandle {
public:
    static constexpr uintptr_t NO_THREAD = 0xFFFFFFFFu;
    static constexpr unsigned THREAD_STACK_SIZE = 8192;

    CWinTimerHandle(bool manualReset, const char* name);
    ~CWinTimerHandle() override;
    DWORD wait(DWORD ms) override;
    // Frees the object.
    bool close() override;
    DWORD wait() { return 0; }

    bool createTimer();
    bool setTimer(itimerspec* value, PTIMERAPCROUTINE fn, void* arg, bool relative);
    bool cancelTimer();
    // Sets the timer's event and wakes the completion thread.
    bool timerElapsed();
    void resetTimer();
    bool createThread(PTIMERAPCROUTINE fn, void* arg);
    void killThread();
    void stopThreadRunning();
    static void checkStats();

    HANDLE timerEvent() const { return m_timerEvent; }
    bool hasTimer() const { return m_TimerValid; }
    bool hasThread() const { return m_threadId != NO_THREAD; }

    // Timers the dispatcher currently accepts expiries for.
    static size_t liveTimerCount();

private:
    static void timerThread(void* params);

    bool m_ManualReset;
    HANDLE m_timerEvent;
    std::string m_Name;
    timer_t m_TimerId;
    struct sigaction m_SigAct;
    struct sigevent m_SigEvent;
    itimerspec m_TimerValue;
    CWinMutexHandle m_mutexLock;
    HANDLE m_threadEvent;
    std::atomic<bool>* m_pbRunning;
    uintptr_t m_threadId;
    // A kernel timer id may be 0, so m_TimerId alone cannot tell "none".
    bool m_TimerValid;
    // Set by a SetWaitableTimer since the POSIX timer was created; only such
    // a timer can be cancelled.
    bool m_Armed;
    // Carried in the expiry signal instead of the object's address, so that
    // a signal still in flight after cancel or close finds nothing.
    uintptr_t m_Token;
};
