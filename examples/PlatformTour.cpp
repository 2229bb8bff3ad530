// A tour of the platform layer: events, a worker thread, the bounded queue
// and the debug trace. Run it from a directory where "log/" may be created.
#include <cstdio>
#include <sys/stat.h>

#include "Common/OS/Linux/OSAL.h"
#include "Common/OS/Linux/WinEvent.h"
#include "Common/OS/OsThread.h"
#include "Common/Utility/UtlDebug.h"
#include "Common/Utility/UtlQueue.h"

namespace {

struct Job {
    int number;
};

// Takes jobs off the queue until it is asked to stop, then deletes itself.
class Worker : public OsThread {
public:
    Worker(UtlQueue& queue, HANDLE done) : OsThread("Worker", 0), queue_(queue), done_(done) {}

    void* Execute(void*) override
    {
        while (ContinueRunning()) {
            if (!queue_.WaitNotEmpty(100)) continue;
            while (Job* job = static_cast<Job*>(queue_.GetNext(true))) {
                debugOutf("Worker: job[%d] squared is [%d]\n", job->number, job->number * job->number);
                delete job;
                if (queue_.Empty()) break;
            }
        }
        debugOut("Worker: shutting down\n");
        SetEvent(done_);
        return nullptr;
    }

private:
    UtlQueue& queue_;
    HANDLE done_;
};

} // namespace

int main()
{
    mkdir("log", 0777);
    UtlDebug::StartDebugThread();
    debugOut("PlatformTour: started\n");

    HANDLE done = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    UtlQueue queue("Jobs", 4);
    Worker* worker = new Worker(queue, done);
    worker->Start(nullptr);

    const DWORD t0 = GetTickCount();
    for (int i = 1; i <= 10; ++i)
        queue.AddToQueue(new Job{i}, UtlQueue::WAIT_IF_OVERFLOW); // blocks while 4 are pending
    while (!queue.Empty()) Sleep(5);

    worker->SignalShutdown(); // the worker deletes itself once Execute returns
    const DWORD rc = WaitForSingleObject(done, 5000);
    std::printf("worker stopped: %s after %u ms\n", rc == WAIT_OBJECT_0 ? "yes" : "no",
                static_cast<unsigned>(GetTickCount() - t0));

    HANDLE a = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    HANDLE b = CreateEvent(nullptr, FALSE, TRUE, nullptr);
    HANDLE both[] = {a, b};
    std::printf("wait-any on (clear, set) returns index %u\n",
                static_cast<unsigned>(WaitForMultipleObjects(2, both, FALSE, 0)));
    CloseHandle(a);
    CloseHandle(b);
    CloseHandle(done);

    debugOut("PlatformTour: finished\n");
    UtlDebug::GetTheUtlDebug()->WaitUntilDrained(2000);
    return 0;
}
