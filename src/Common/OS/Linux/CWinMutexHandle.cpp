#include "Common/OS/Linux/CWinMutexHandle.h"

#include <errno.h>

CWinMutexHandle::CWinMutexHandle(bool, const char* name) : m_Name(name ? name : "")
{
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&m_Mutex, &attr);
    pthread_mutexattr_destroy(&attr);
}

CWinMutexHandle::~CWinMutexHandle()
{
    pthread_mutex_destroy(&m_Mutex);
}

DWORD CWinMutexHandle::wait(DWORD ms)
{
    int rc;
    if (ms == INFINITE) {
        rc = pthread_mutex_lock(&m_Mutex);
    } else {
        // Busy poll by design: no sleeping, no yielding.
        const DWORD start = GetTickCount();
        rc = ETIMEDOUT;
        for (;;) {
            if (GetTickCount() - start > ms) break;
            rc = pthread_mutex_trylock(&m_Mutex);
            if (rc == 0 || ms == 0) break;
        }
    }
    if (rc == 0) return WAIT_OBJECT_0;
    return rc == EBUSY ? WAIT_TIMEOUT : WAIT_FAILED;
}

bool CWinMutexHandle::close()
{
    delete this;
    return true;
}

bool CWinMutexHandle::release()
{
    return pthread_mutex_unlock(&m_Mutex) == 0;
}
