#pragma once

// Thread-safe FIFO of untyped item pointers with a soft capacity bound.
#include <deque>
#include <string>
#include <vector>

#include "Common/OS/Linux/WinTypes.h"

class CWinEventHandle;

class UtlQueue {
public:
    static constexpr DWORD DEFAULT_TIMEOUT = 10000;

    enum ADD_QUEUE_ACTION { RETURN_IF_OVERFLOW = 0, WAIT_IF_OVERFLOW = 1 };

    UtlQueue(const char* name, int maxItems);
    UtlQueue(const std::string& name, int maxItems);
    virtual ~UtlQueue();

    virtual void* GetNext(bool remove);
    virtual bool AddToQueue(void* item, ADD_QUEUE_ACTION action);
    virtual bool WaitNotEmpty(DWORD ms);
    virtual bool Empty();

    // Appends every queued item to out, front first, as that many removing
    // GetNext calls would take them (without the empty-queue lines); the count.
    std::size_t TakeAll(std::vector<void*>& out);

    const std::string& Name() const { return strQueueName; }

    UtlQueue(const UtlQueue&) = delete;
    UtlQueue& operator=(const UtlQueue&) = delete;

private:
    void Construct(int maxItems);
    // Sets waterMark after a removal; the event to wake after the unlock.
    CWinEventHandle* releaseProducers();

    std::deque<void*>* pQueue;
    std::string strQueueName;
    HANDLE lock;
    HANDLE wait;
    HANDLE waterMark;
    int maxItems;
};
