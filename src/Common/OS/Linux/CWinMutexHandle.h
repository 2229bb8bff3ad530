#pragma once

// Win32-style mutex: a recursive pthread mutex. Timed waits poll it.
#include <pthread.h>

#include <string>

#include "Common/OS/Linux/WinEvent.h"

class CWinMutexHandle final : public CBaseHandle {
public:
    CWinMutexHandle(bool unused, const char* name);
    ~CWinMutexHandle() override;
    DWORD wait(DWORD ms) override;
    bool close() override;

    DWORD wait() { return wait(INFINITE); }
    // True when the unlock succeeded.
    bool release();
    const std::string& name() const { return m_Name; }

private:
    pthread_mutex_t m_Mutex;
    std::string m_Name;
};
