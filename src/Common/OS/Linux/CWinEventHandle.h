#pragma once

// Win32-style event on a pthread mutex and condition variable, and the
// process-wide registry of open events.
#include <pthread.h>

#include <atomic>
#include <set>
#include <string>

#include "Common/OS/Linux/WinEvent.h"

class CWinEventHandle final : public CBaseHandle {
public:
    CWinEventHandle(bool manualReset, bool initialState, const char* name);
    ~CWinEventHandle() override;
    DWORD wait(DWORD ms) override;
    bool close() override;

    // Sets the event, bumps the generation, wakes the waiters and signals
    // every subscriber. Called under the event lock.
    void signal();
    // signal() split for SetEvent: the state change and the subscribers under
    // the event lock, the wake-up of this event's own waiters after every
    // lock is released, so that a woken thread never has to block on a lock
    // its waker still holds. A reference pins the event in between.
    void signalAndPin();
    void wakeAndUnpin();
    void pulse();
    void reset();
    DWORD wait() { return wait(INFINITE); }
    // Subscriber changes must be made under the event lock.
    void subscribe(CWinEventHandle* ev);
    void unSubscribe(CWinEventHandle* ev);
    void resetIfAuto();
    // Adds a reference unless the count already reached zero (the event is
    // being freed); false then.
    bool incRefCount();
    int decRefCount();
    bool signaled() const { return m_Signaled.load(std::memory_order_relaxed); }
    std::string name() const { return m_Name; }
    bool manualReset() const { return m_ManualReset; }
    clockid_t clockId() const { return m_ClockId; }
    // Threads blocked in wait() right now, and wait-any calls subscribed:
    // lets tests know a waiter is in place before they signal.
    int waiters();
    size_t subscriberCount();

private:
    pthread_mutex_t m_Mutex;
    pthread_cond_t m_Cond;
    clockid_t m_ClockId;
    bool m_ManualReset;
    // Written under m_Mutex; read unguarded by signaled().
    std::atomic<bool> m_Signaled;
    int m_Count;
    // Open handles, plus one per SetEvent in flight. Atomic: SetEvent drops
    // its pin without any lock.
    std::atomic<int> m_RefCount;
    std::string m_Name;
    std::set<CWinEventHandle*> m_Subscriber;
    int m_Waiters;
};

class CWinEventHandleSet {
public:
    static std::set<CWinEventHandle*>& s_Set();
    static CWinEventHandle* createEvent(bool manualReset, bool initialState, const char* name);
    static CWinEventHandle* openEvent(const char* name);
    static void closeHandle(CWinEventHandle* ev);
};
