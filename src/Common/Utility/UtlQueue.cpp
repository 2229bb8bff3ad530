#include "Common/Utility/UtlQueue.h"

#include <stdio.h>

#include <new>

#include "Common/OS/Linux/CWinEventHandle.h"
#include "Common/OS/Linux/WinEvent.h"

UtlQueue::UtlQueue(const char* name, int maxItems) : pQueue(nullptr), strQueueName(name ? name : "")
{
    Construct(maxItems);
}

UtlQueue::UtlQueue(const std::string& name, int maxItems) : pQueue(nullptr), strQueueName(name)
{
    Construct(maxItems);
}

void UtlQueue::Construct(int max)
{
    lock = CreateMutex(nullptr, FALSE, nullptr);
    wait = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    pQueue = new std::deque<void*>;
    maxItems = max;
    waterMark = CreateEvent(nullptr, TRUE, TRUE, nullptr);
}

UtlQueue::~UtlQueue()
{
    CloseHandle(lock);
    CloseHandle(wait);
    CloseHandle(waterMark);
    // Items left behind are plain storage as far as the queue knows.
    for (void* item : *pQueue) ::operator delete(item);
    delete pQueue;
}

bool UtlQueue::AddToQueue(void* item, ADD_QUEUE_ACTION action)
{
    if (item == nullptr) {
        puts("  BAD pointer to queue");
        return false;
    }
    WaitForSingleObject(lock, INFINITE);
    if (pQueue->size() >= static_cast<size_t>(maxItems < 0 ? 0 : maxItems)) {
        ResetEvent(waterMark);
        ReleaseMutex(lock);
        if (action != WAIT_IF_OVERFLOW) return false;
        WaitForSingleObject(waterMark, INFINITE);
        // The bound is soft: no second look after the wake-up.
        WaitForSingleObject(lock, INFINITE);
    }
    // `wait` is on whenever the queue holds anything, so only the first item
    // sets it; its waiters wake after the unlock, so that the consumer does
    // not run only to block on the lock we still hold.
    const bool wasEmpty = pQueue->empty();
    pQueue->push_back(item);
    CWinEventHandle* wake = wasEmpty ? SetEventNoWake(wait) : nullptr;
    ReleaseMutex(lock);
    WakeEvent(wake);
    return true;
}

void* UtlQueue::GetNext(bool remove)
{
    void* item = nullptr;
    CWinEventHandle* wake = nullptr;
    WaitForSingleObject(lock, INFINITE);
    if (!pQueue->empty()) {
        item = pQueue->front();
        if (remove) {
            pQueue->pop_front();
            wake = releaseProducers();
        }
        if (pQueue->empty()) ResetEvent(wait);
    } else {
        puts("  BAD queue state");
    }
    ReleaseMutex(lock);
    WakeEvent(wake);
    if (item == nullptr) puts("  BAD queue pointer");
    return item;
}

CWinEventHandle* UtlQueue::releaseProducers()
{
    // Only a producer that found the queue full resets waterMark, under
    // `lock` as here: when it is on, setting it again changes nothing.
    if (castToWinEventHandle(waterMark)->signaled()) return nullptr;
    return SetEventNoWake(waterMark);
}

std::size_t UtlQueue::TakeAll(std::vector<void*>& out)
{
    CWinEventHandle* wake = nullptr;
    WaitForSingleObject(lock, INFINITE);
    const std::size_t n = pQueue->size();
    if (n != 0) {
        for (void* item : *pQueue) out.push_back(item);
        pQueue->clear();
        wake = releaseProducers();
        ResetEvent(wait);
    }
    ReleaseMutex(lock);
    WakeEvent(wake);
    return n;
}

bool UtlQueue::WaitNotEmpty(DWORD ms)
{
    return WaitForSingleObject(wait, ms) == WAIT_OBJECT_0;
}

bool UtlQueue::Empty()
{
    WaitForSingleObject(lock, INFINITE);
    const bool empty = pQueue->empty();
    ReleaseMutex(lock);
    return empty;
}
