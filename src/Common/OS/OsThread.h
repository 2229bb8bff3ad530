#pragma once

// Base of every active object: a detached thread that deletes its object when
// Execute returns, and a manual-reset shutdown event to ask it to stop.
#include <atomic>
#include <string>

#include "Common/OS/Linux/WinTypes.h"

class OsThread {
public:
    explicit OsThread(unsigned stackSize);
    OsThread(const char* name, unsigned stackSize);

    virtual void Setup() {}
    virtual void* Execute(void* arg);
    virtual BOOL SignalShutdown();
    virtual ~OsThread();

    bool Start(void* arg);
    static void EntryPoint(OsThread* thread);
    void* Run(void* arg);

    bool Shuttingdown();
    bool ContinueRunning() { return !Shuttingdown(); }

    // Both return true when setpriority FAILED; callers rely on that sense.
    bool SetPriorityHigh();
    bool SetPriorityNormal();

    void SetThreadName(const char* name);
    const char* GetThreadName() const { return threadName; }
    bool IsTerminating() const { return bThreadTerminating; }
    unsigned GetStackSize() const { return stackSize; }

    OsThread(const OsThread&) = delete;
    OsThread& operator=(const OsThread&) = delete;

protected:
    HANDLE evntShutdownThread;
    void* pArg;
    // Read by other threads (IsTerminating, the destructor check).
    std::atomic<bool> bThreadTerminating;
    std::string streamToStringToCStr;
    int originalPriority;
    unsigned stackSize;
    char threadName[16];

private:
    void ConstructOsThread(unsigned stackSize);
    static void ThreadTrampoline(void* self);
};
