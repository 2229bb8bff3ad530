#include "Common/OS/Linux/CWinEventHandle.h"

#include <errno.h>

CWinEventHandle::CWinEventHandle(bool manualReset, bool initialState, const char* name)
    : m_ClockId(CLOCK_MONOTONIC), m_ManualReset(manualReset), m_Signaled(initialState), m_Count(0), m_RefCount(1),
      m_Name(name ? name : ""), m_Waiters(0)
{
    pthread_mutex_init(&m_Mutex, nullptr);
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    if (pthread_condattr_setclock(&attr, CLOCK_MONOTONIC) != 0) {
        pthread_condattr_setclock(&attr, CLOCK_REALTIME);
        m_ClockId = CLOCK_REALTIME;
    }
    pthread_cond_init(&m_Cond, &attr);
    pthread_condattr_destroy(&attr);
}

CWinEventHandle::~CWinEventHandle()
{
    pthread_cond_destroy(&m_Cond);
    pthread_mutex_destroy(&m_Mutex);
}

void CWinEventHandle::signal()
{
    pthread_mutex_lock(&m_Mutex);
    m_Signaled.store(true, std::memory_order_relaxed);
    ++m_Count;
    pthread_cond_broadcast(&m_Cond);
    pthread_mutex_unlock(&m_Mutex);
    // Subscribers are the private events of wait-any calls; the caller holds
    // the event lock, which also guards this set.
    for (CWinEventHandle* sub : m_Subscriber) sub->signal();
}

void CWinEventHandle::signalAndPin()
{
    m_RefCount.fetch_add(1, std::memory_order_relaxed);
    pthread_mutex_lock(&m_Mutex);
    m_Signaled.store(true, std::memory_order_relaxed);
    ++m_Count;
    pthread_mutex_unlock(&m_Mutex);
    for (CWinEventHandle* sub : m_Subscriber) sub->signal();
}

void CWinEventHandle::wakeAndUnpin()
{
    // A waiter either saw the new state under m_Mutex or was already in the
    // condition wait when it changed, so a broadcast after the unlock loses
    // no wake-up.
    pthread_cond_broadcast(&m_Cond);
    if (m_RefCount.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        // Every handle was closed while we signalled: the last one out frees.
        CEventLock lock;
        CWinEventHandleSet::s_Set().erase(this);
        delete this;
    }
}

void CWinEventHandle::pulse()
{
    // Same as signal(), and like it the event stays signalled. The event lock
    // is taken only for the subscriber walk: without it a wait-any could
    // unsubscribe and destroy its private event under our feet.
    pthread_mutex_lock(&m_Mutex);
    m_Signaled.store(true, std::memory_order_relaxed);
    ++m_Count;
    pthread_cond_broadcast(&m_Cond);
    pthread_mutex_unlock(&m_Mutex);
    CEventLock lock;
    for (CWinEventHandle* sub : m_Subscriber) sub->signal();
}

void CWinEventHandle::reset()
{
    pthread_mutex_lock(&m_Mutex);
    m_Signaled.store(false, std::memory_order_relaxed);
    pthread_mutex_unlock(&m_Mutex);
}

void CWinEventHandle::resetIfAuto()
{
    if (!m_ManualReset) reset();
}

DWORD CWinEventHandle::wait(DWORD ms)
{
    pthread_mutex_lock(&m_Mutex);
    const int start = m_Count;
    int rc = 0;
    if (ms == 0 && !m_Signaled.load(std::memory_order_relaxed)) {
        // A zero wait's deadline has already passed: report the time-out
        // without a kernel round trip (every Shuttingdown() poll lands here).
        rc = ETIMEDOUT;
    } else if (!m_Signaled.load(std::memory_order_relaxed) && m_Count == start) {
        timespec deadline;
        const bool timed = ms < INFINITE;
        if (timed) getTimeout(&deadline, ms, m_ClockId);
        ++m_Waiters;
        // Leaves on any generation change: one signal releases every thread
        // that was waiting when it ran, even if another consumed the state.
        while (!m_Signaled.load(std::memory_order_relaxed) && m_Count == start) {
            rc = timed ? pthread_cond_timedwait(&m_Cond, &m_Mutex, &deadline) : pthread_cond_wait(&m_Cond, &m_Mutex);
            if (rc != 0) break;
        }
        --m_Waiters;
    }
    if (!m_ManualReset) m_Signaled.store(false, std::memory_order_relaxed);
    pthread_mutex_unlock(&m_Mutex);
    if (rc == 0) return WAIT_OBJECT_0;
    return rc == ETIMEDOUT ? WAIT_TIMEOUT : WAIT_FAILED;
}

bool CWinEventHandle::close()
{
    CWinEventHandleSet::closeHandle(this);
    return true;
}

void CWinEventHandle::subscribe(CWinEventHandle* ev)
{
    m_Subscriber.insert(ev);
}

void CWinEventHandle::unSubscribe(CWinEventHandle* ev)
{
    m_Subscriber.erase(ev);
}

int CWinEventHandle::waiters()
{
    pthread_mutex_lock(&m_Mutex);
    const int n = m_Waiters;
    pthread_mutex_unlock(&m_Mutex);
    return n;
}

size_t CWinEventHandle::subscriberCount()
{
    CEventLock lock;
    return m_Subscriber.size();
}

bool CWinEventHandle::incRefCount()
{
    int n = m_RefCount.load(std::memory_order_relaxed);
    while (n > 0)
        if (m_RefCount.compare_exchange_weak(n, n + 1, std::memory_order_acq_rel)) return true;
    return false;
}

int CWinEventHandle::decRefCount()
{
    return m_RefCount.fetch_sub(1, std::memory_order_acq_rel) - 1;
}

std::set<CWinEventHandle*>& CWinEventHandleSet::s_Set()
{
    static std::set<CWinEventHandle*>* set = new std::set<CWinEventHandle*>;
    return *set;
}

CWinEventHandle* CWinEventHandleSet::createEvent(bool manualReset, bool initialState, const char* name)
{
    CWinEventHandle* ev = new CWinEventHandle(manualReset, initialState, name);
    CEventLock lock;
    s_Set().insert(ev);
    return ev;
}

CWinEventHandle* CWinEventHandleSet::openEvent(const char* name)
{
    const std::string wanted = name ? name : "";
    CEventLock lock;
    for (CWinEventHandle* ev : s_Set()) {
        // One whose last handle is gone is only waiting for its last
        // SetEvent to finish; it is not there any more.
        if (ev->name() == wanted && ev->incRefCount()) return ev;
    }
    return nullptr;
}

void CWinEventHandleSet::closeHandle(CWinEventHandle* ev)
{
    CEventLock lock;
    if (ev->decRefCount() == 0) {
        s_Set().erase(ev);
        delete ev;
    }
}
