#include "Common/Utility/UtlQueue.h"

#include <stdio.h>

#include <new>

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
    pQueue->push_back(item);
    SetEvent(wait);
    ReleaseMutex(lock);
    return true;
}

void* UtlQueue::GetNext(bool remove)
{
    void* item = nullptr;
    WaitForSingleObject(lock, INFINITE);
    if (!pQueue->empty()) {
        item = pQueue->front();
        if (remove) {
            pQueue->pop_front();
            SetEvent(waterMark);
        }
        if (pQueue->empty()) ResetEvent(wait);
    } else {
        puts("  BAD queue state");
    }
    ReleaseMutex(lock);
    if (item == nullptr) puts("  BAD queue pointer");
    return item;
}

bool UtlQueue::WaitNotEmpty(DWORD ms) { return WaitForSingleObject(wait, ms) == WAIT_OBJECT_0; }

bool UtlQueue::Empty()
{
    WaitForSingleObject(lock, INFINITE);
    const bool empty = pQueue->empty();
    ReleaseMutex(lock);
    return empty;
}
