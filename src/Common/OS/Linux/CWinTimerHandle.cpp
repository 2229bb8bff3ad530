#include "Common/OS/Linux/CWinTimerHandle.h"

#include <errno.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <condition_variable>
#include <limits>
#include <mutex>
#include <ostream>
#include <sstream>
#include <unordered_map>

#include "Common/OS/Linux/CWinEventHandle.h"
#include "Common/OS/Linux/OSAL.h"
#include "Common/Utility/UtlDebug.h"

namespace {

// The dispatcher: one process-lifetime thread that receives every timer
// signal. Its lock guards the registry and every timer's event handles as the
// dispatcher sees them, so a timer leaves the registry (and drops its events)
// atomically with respect to an expiry being handled.
// Lock order: a timer's m_mutexLock, then this lock, then the event lock.
struct Dispatcher {
    std::mutex lock;
    std::condition_variable ready;
    std::unordered_map<uintptr_t, CWinTimerHandle*> live;
    uintptr_t lastToken = 0;
    bool starting = false;
    pid_t tid = 0;
};

Dispatcher& dispatcher()
{
    // Never destroyed: its thread runs until the process ends.
    static Dispatcher* d = new Dispatcher;
    return *d;
}

void dispatcherMain(void*)
{
    Dispatcher& d = dispatcher();
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR1);
    // Only this thread blocks SIGUSR1: it takes the signal synchronously.
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    char name[] = "TimerSignals";
    set_thread_name(name);
    {
        std::lock_guard<std::mutex> g(d.lock);
        d.tid = static_cast<pid_t>(syscall(SYS_gettid));
    }
    d.ready.notify_all();

    for (;;) {
        siginfo_t info;
        const int sig = sigwaitinfo(&set, &info);
        if (sig != SIGUSR1 || info.si_code != SI_TIMER) continue;
        std::lock_guard<std::mutex> g(d.lock);
        auto it = d.live.find(reinterpret_cast<uintptr_t>(info.si_value.sival_ptr));
        if (it == d.live.end()) continue; // cancelled or closed meanwhile
        info.si_value.sival_ptr = it->second;
        WinTimerHandler(sig, &info, nullptr);
    }
}

// Thread id of the dispatcher, started on first use; 0 if it cannot run.
pid_t dispatcherTid()
{
    Dispatcher& d = dispatcher();
    std::unique_lock<std::mutex> g(d.lock);
    if (d.tid == 0 && !d.starting) {
        d.starting = true;
        g.unlock();
        const bool started = _beginthread(dispatcherMain, 0, nullptr) != OSAL_BEGINTHREAD_FAILED;
        g.lock();
        if (!started) {
            d.starting = false;
            d.ready.notify_all();
        }
    }
    d.ready.wait(g, [&] { return d.tid != 0 || !d.starting; });
    return d.tid;
}

std::mutex s_thresholdLock;
unsigned s_threshold = 7;

} // namespace

TimerStats& timerStats()
{
    static TimerStats* stats = new TimerStats;
    return *stats;
}

unsigned checkStatsThreshold()
{
    std::lock_guard<std::mutex> g(s_thresholdLock);
    return s_threshold;
}

void setCheckStatsThreshold(unsigned threshold)
{
    std::lock_guard<std::mutex> g(s_thresholdLock);
    s_threshold = threshold;
}

std::ostream& operator<<(std::ostream& os, const TimerStats& s)
{
    return os << "create calls[" << s.nCallsToCreateTimer.load() << "]     close calls[" << s.nCallsToCloseTimer.load()
              << "]\n"
              << "set    calls[" << s.nCallsToSetTimer.load() << "]  elapsed timers[" << s.nCallsToElapsedTimer.load()
              << "]  cancel calls[" << s.nCallsToCancelTimer.load() << "]";
}

void timerValueFromDueTime(std::int64_t dueTime, LONG periodMs, itimerspec* value, bool* relative)
{
    *relative = dueTime < 0;
    // Unsigned negation: the most negative due time has no signed magnitude.
    const std::uint64_t a = *relative ? 0 - static_cast<std::uint64_t>(dueTime) : static_cast<std::uint64_t>(dueTime);
    const std::uint64_t sec = a / 10000000u;
    const std::uint64_t maxSec = static_cast<std::uint64_t>(std::numeric_limits<time_t>::max());
    value->it_value.tv_sec = static_cast<time_t>(sec > maxSec ? maxSec : sec);
    value->it_value.tv_nsec = static_cast<long>(a % 10000000u) * 100;
    // A negative period stays negative, so timer_settime refuses it.
    value->it_interval.tv_sec = static_cast<time_t>(periodMs / 1000);
    value->it_interval.tv_nsec = static_cast<long>(periodMs % 1000) * 1000000L;
}

CWinTimerHandle* castToWinTimerHandle(HANDLE h)
{
    return h ? dynamic_cast<CWinTimerHandle*>(fromHandle(h)) : nullptr;
}

CWinTimerHandle::CWinTimerHandle(bool manualReset, const char*)
    : m_ManualReset(manualReset), m_timerEvent(nullptr), m_TimerId(nullptr), m_SigAct(), m_SigEvent(), m_TimerValue(),
      m_mutexLock(false, nullptr), m_threadEvent(nullptr), m_pbRunning(nullptr), m_threadId(NO_THREAD),
      m_TimerValid(false), m_Armed(false), m_Token(0)
{
}

CWinTimerHandle::~CWinTimerHandle() = default;

DWORD CWinTimerHandle::wait(DWORD ms)
{
    return WaitForSingleObject(m_timerEvent, ms);
}

bool CWinTimerHandle::createTimer()
{
    m_mutexLock.wait();
    ++timerStats().nCallsToCreateTimer;
    checkStats();
    bool ok = false;
    do {
        memset(&m_SigAct, 0, sizeof m_SigAct);
        m_SigAct.sa_sigaction = WinTimerHandler;
        sigemptyset(&m_SigAct.sa_mask);
        m_SigAct.sa_flags = SA_SIGINFO;
        if (sigaction(SIGUSR1, &m_SigAct, nullptr) != 0) break;

        const pid_t target = dispatcherTid();
        if (target == 0) break;
        Dispatcher& d = dispatcher();
        uintptr_t token;
        {
            std::lock_guard<std::mutex> g(d.lock);
            token = ++d.lastToken;
            if (token == 0) token = ++d.lastToken; // 0 would read as "no timer"
        }
        memset(&m_SigEvent, 0, sizeof m_SigEvent);
        m_SigEvent.sigev_notify = SIGEV_THREAD_ID;
        m_SigEvent.sigev_signo = SIGUSR1;
        m_SigEvent.sigev_value.sival_ptr = reinterpret_cast<void*>(token);
#ifdef sigev_notify_thread_id
        m_SigEvent.sigev_notify_thread_id = target;
#else
        m_SigEvent._sigev_un._tid = target;
#endif
        timer_t id;
        if (timer_create(CLOCK_REALTIME, &m_SigEvent, &id) != 0) break;
        m_TimerId = id;
        m_TimerValid = true;
        m_Armed = false;

        if (m_timerEvent == nullptr) {
            HANDLE ev = CreateEvent(nullptr, m_ManualReset, FALSE, nullptr);
            if (ev == nullptr) break;
            std::lock_guard<std::mutex> g(d.lock);
            m_timerEvent = ev;
        }
        std::lock_guard<std::mutex> g(d.lock);
        m_Token = token;
        d.live[token] = this;
        ok = true;
    } while (false);
    m_mutexLock.release();
    return ok;
}

bool CWinTimerHandle::setTimer(itimerspec* value, PTIMERAPCROUTINE fn, void* arg, bool relative)
{
    m_mutexLock.wait();
    ++timerStats().nCallsToSetTimer;
    m_TimerValue = *value;
    bool ok = true;
    if (!m_TimerValid) {
        ok = createTimer() && m_TimerValid;
        if (ok) resetTimer();
    }
    if (ok) m_Armed = true;
    if (ok && fn != nullptr) ok = createThread(fn, arg);
    if (ok) {
        resetTimer();
        ok = timer_settime(m_TimerId, relative ? 0 : TIMER_ABSTIME, &m_TimerValue, nullptr) != -1;
    }
    m_mutexLock.release();
    if (!ok) {
        // Release waiters at once instead of leaving them blocked for ever.
        std::lock_guard<std::mutex> g(dispatcher().lock);
        timerElapsed();
    }
    return ok;
}

bool CWinTimerHandle::timerElapsed()
{
    ++timerStats().nCallsToElapsedTimer;
    bool ok = SetEvent(m_timerEvent) != FALSE;
    if (m_threadEvent != nullptr && !SetEvent(m_threadEvent)) ok = false;
    return ok;
}

void CWinTimerHandle::resetTimer()
{
    ResetEvent(m_timerEvent);
}

bool CWinTimerHandle::createThread(PTIMERAPCROUTINE fn, void* arg)
{
    // The routine of the first call stays in force.
    if (m_threadId != NO_THREAD) return true;
    HANDLE ev = CreateEvent(nullptr, m_ManualReset, FALSE, nullptr);
    if (ev == nullptr) return false;
    // The thread owns the event, but once told to stop it may close it at any
    // moment, also before killThread's wake-up: the timer keeps a reference of
    // its own for that wake-up.
    castToWinEventHandle(ev)->incRefCount();
    TimerThreadParameters* params = new TimerThreadParameters(fn, arg, ev, m_TimerId);
    {
        std::lock_guard<std::mutex> g(dispatcher().lock);
        m_threadEvent = ev;
        m_pbRunning = &params->m_bRunning;
    }
    m_threadId = _beginthread(timerThread, THREAD_STACK_SIZE, params);
    if (m_threadId != NO_THREAD) return true;
    {
        std::lock_guard<std::mutex> g(dispatcher().lock);
        m_threadEvent = nullptr;
        m_pbRunning = nullptr;
    }
    CloseHandle(ev);
    CloseHandle(ev);
    delete params;
    return false;
}

void CWinTimerHandle::timerThread(void* p)
{
    TimerThreadParameters* params = static_cast<TimerThreadParameters*>(p);
    while (params->m_bRunning) {
        WaitForSingleObject(params->m_threadEvent, INFINITE);
        ResetEvent(params->m_threadEvent);
        if (params->m_bRunning) params->m_pfnCompletionRoutine(params->m_lpArgToCompletionRoutine, 0, 0);
    }
    CloseHandle(params->m_threadEvent);
    delete params;
    _endthread();
}

void CWinTimerHandle::stopThreadRunning()
{
    if (m_pbRunning != nullptr) *m_pbRunning = false;
    m_pbRunning = nullptr;
}

void CWinTimerHandle::killThread()
{
    if (m_threadId == NO_THREAD) return;
    m_threadId = NO_THREAD;
    HANDLE ev;
    {
        // Under the dispatcher's lock, so that no expiry signals the event
        // once the timer has let go of it.
        std::lock_guard<std::mutex> g(dispatcher().lock);
        stopThreadRunning();
        ev = m_threadEvent;
        if (ev != nullptr) SetEvent(ev);
        m_threadEvent = nullptr;
    }
    if (ev != nullptr) CloseHandle(ev);
}

bool CWinTimerHandle::cancelTimer()
{
    m_mutexLock.wait();
    bool ok = false;
    if (m_TimerValid && m_Armed) {
        ++timerStats().nCallsToCancelTimer;
        {
            std::lock_guard<std::mutex> g(dispatcher().lock);
            dispatcher().live.erase(m_Token);
        }
        killThread();
        if (timer_delete(m_TimerId) == 0) {
            m_TimerId = nullptr;
            m_TimerValid = false;
            m_Armed = false;
            ok = true;
        }
    }
    m_mutexLock.release();
    return ok;
}

bool CWinTimerHandle::close()
{
    m_mutexLock.wait();
    ++timerStats().nCallsToCloseTimer;
    HANDLE ev;
    {
        std::lock_guard<std::mutex> g(dispatcher().lock);
        dispatcher().live.erase(m_Token);
        ev = m_timerEvent;
        m_timerEvent = nullptr;
    }
    CloseHandle(ev);
    killThread();
    if (m_TimerValid) timer_delete(m_TimerId);
    // Released only so that the mutex is not destroyed locked.
    m_mutexLock.release();
    delete this;
    return true;
}

void CWinTimerHandle::checkStats()
{
    // Never destroyed: timers may still be closed by threads during exit.
    static CCriticalSection* lock = new CCriticalSection(true);
    lock->enter();
    const TimerStats& s = timerStats();
    const unsigned create = s.nCallsToCreateTimer.load();
    const unsigned closed = s.nCallsToCloseTimer.load();
    const unsigned threshold = checkStatsThreshold();
    if (create - closed > threshold && create > closed) {
        std::ostringstream os;
        os << "checkStats"
           << ": more timer create calls[" << create << "] than close calls[" << closed << "]";
        debugOut(os.str().c_str());
        setCheckStatsThreshold(threshold + 1);
    }
    lock->leave();
}

size_t CWinTimerHandle::liveTimerCount()
{
    std::lock_guard<std::mutex> g(dispatcher().lock);
    return dispatcher().live.size();
}

HANDLE CreateWaitableTimer(SECURITY_ATTRIBUTES*, BOOL bManualReset, const char*)
{
    CWinTimerHandle* t = new CWinTimerHandle(bManualReset != 0, nullptr);
    if (!t->createTimer()) {
        CloseHandle(toHandle(t));
        return nullptr;
    }
    return toHandle(t);
}

BOOL SetWaitableTimer(HANDLE h, const _LARGE_INTEGER* dueTime, LONG periodMs, PTIMERAPCROUTINE fn, void* arg, BOOL)
{
    CWinTimerHandle* t = castToWinTimerHandle(h);
    if (t == nullptr || dueTime == nullptr) return FALSE;
    itimerspec value;
    bool relative;
    timerValueFromDueTime(dueTime->QuadPart, periodMs, &value, &relative);
    return t->setTimer(&value, fn, arg, relative) ? TRUE : FALSE;
}

BOOL CancelWaitableTimer(HANDLE h)
{
    CWinTimerHandle* t = castToWinTimerHandle(h);
    if (t == nullptr) return FALSE;
    return t->cancelTimer() ? TRUE : FALSE;
}

void WinTimerHandler(int, siginfo_t* info, void*)
{
    // Only a timer's signal names a timer: what kill or raise leaves in the
    // value is not to be trusted (not every kernel or emulator zeroes it).
    if (info == nullptr || info->si_code != SI_TIMER) return;
    CWinTimerHandle* t = static_cast<CWinTimerHandle*>(info->si_value.sival_ptr);
    if (t != nullptr) t->timerElapsed();
}
