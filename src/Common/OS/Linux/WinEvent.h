#pragma once

// Win32-style waitable handles on POSIX threads: the exported function table,
// the handle root class, the process-wide event lock and the type tests.
// The handle classes live in CWinEventHandle.h and CWinMutexHandle.h.
#include <pthread.h>
#include <time.h>

#include "Common/OS/Linux/WinTypes.h"
#include "TavroExport.h"

extern "C" TAVRO_EXPORT HANDLE CreateEvent(SECURITY_ATTRIBUTES* attr, BOOL bManualReset, BOOL bInitialState,
                                           const char* name);
extern "C" TAVRO_EXPORT HANDLE OpenEvent(DWORD access, BOOL inherit, const char* name);
extern "C" TAVRO_EXPORT BOOL SetEvent(HANDLE h);
extern "C" TAVRO_EXPORT BOOL ResetEvent(HANDLE h);
extern "C" TAVRO_EXPORT BOOL PulseEvent(HANDLE h);
extern "C" TAVRO_EXPORT DWORD WaitForSingleObject(HANDLE h, DWORD ms);
extern "C" TAVRO_EXPORT DWORD WaitForMultipleObjects(DWORD count, HANDLE const* handles, BOOL waitAll, DWORD ms);
extern "C" TAVRO_EXPORT BOOL CloseHandle(HANDLE h);
extern "C" TAVRO_EXPORT HANDLE CreateMutex(SECURITY_ATTRIBUTES* attr, BOOL bInitialOwner, const char* name);
extern "C" TAVRO_EXPORT HANDLE OpenMutex(DWORD access, BOOL inherit, const char* name);
extern "C" TAVRO_EXPORT BOOL ReleaseMutex(HANDLE h);
extern "C" TAVRO_EXPORT DWORD GetTickCount();

// Root of every object behind a HANDLE. A HANDLE is always the address of the
// CBaseHandle sub-object.
class CBaseHandle {
public:
    CBaseHandle() = default;
    virtual ~CBaseHandle() = default;
    virtual DWORD wait(DWORD /*milliseconds*/) { return 0; }
    virtual bool close() { return false; }

    // Absolute deadline ms from now on clock clk, for a timed condition wait.
    static void getTimeout(timespec* ts, DWORD ms, clockid_t clk);

    CBaseHandle(const CBaseHandle&) = delete;
    CBaseHandle& operator=(const CBaseHandle&) = delete;
};

inline HANDLE toHandle(CBaseHandle* h)
{
    return static_cast<HANDLE>(h);
}
inline CBaseHandle* fromHandle(HANDLE h)
{
    return static_cast<CBaseHandle*>(h);
}

class CCriticalSection {
public:
    explicit CCriticalSection(bool recursive);
    ~CCriticalSection();
    void enter() { pthread_mutex_lock(&m_Mutex); }
    void leave() { pthread_mutex_unlock(&m_Mutex); }

    CCriticalSection(const CCriticalSection&) = delete;
    CCriticalSection& operator=(const CCriticalSection&) = delete;

private:
    pthread_mutex_t m_Mutex;
};

// The process-wide recursive lock over the event registry, SetEvent and the
// subscribe/scan phases of a wait-any.
CCriticalSection& eventLock();

class CEventLock {
public:
    CEventLock() { eventLock().enter(); }
    ~CEventLock() { eventLock().leave(); }
    CEventLock(const CEventLock&) = delete;
    CEventLock& operator=(const CEventLock&) = delete;
};

class CWinEventHandle;
class CWinMutexHandle;
class CWinTimerHandle;

// SetEvent in two steps, for a caller holding a lock that the woken thread
// takes next: SetEventNoWake makes the state change (and signals the
// subscribers) at once and returns the event pinned, or NULL for a NULL or
// non-event handle; WakeEvent, after the caller's unlock, wakes the event's
// waiters and unpins it. Any wait in between sees the event set, as after
// SetEvent; a waiter already blocked only wakes a little later.
CWinEventHandle* SetEventNoWake(HANDLE h);
void WakeEvent(CWinEventHandle* ev);

// NULL for a NULL handle or one of another class.
CWinEventHandle* castToWinEventHandle(HANDLE h);
CWinMutexHandle* castToWinMutexHandle(HANDLE h);
// Defined together with the waitable timer.
CWinTimerHandle* castToWinTimerHandle(HANDLE h);

// Abort with an assertion text, also in builds that compile assert() out.
[[noreturn]] void tavroAssertFail(const char* text, const char* file, unsigned line, const char* function);
#define TAVRO_ASSERT(cond, function)                                                                                   \
    do {                                                                                                               \
        if (!(cond)) tavroAssertFail(#cond, __FILE__, __LINE__, function);                                             \
    } while (0)
