#include "Common/OS/OsThread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>

#include <atomic>
#include <string>
#include <thread>

#include "Common/OS/Linux/WinEvent.h"

// Global-namespace workers: their demangled names are what unnamed threads get.
struct WorkerState {
    HANDLE started = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    HANDLE destroyed = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    std::string nameInThread;
    void* argInThread = nullptr;
    bool terminatingInThread = true;
    size_t stackInThread = 0;
    ~WorkerState()
    {
        CloseHandle(started);
        CloseHandle(destroyed);
    }
};

class OsThreadTestWorker : public OsThread {
public:
    OsThreadTestWorker(WorkerState& s, const char* name, unsigned stack) : OsThread(name, stack), s_(s) {}
    explicit OsThreadTestWorker(WorkerState& s) : OsThread(0), s_(s) {}
    ~OsThreadTestWorker() override { SetEvent(s_.destroyed); }
    void* Execute(void* arg) override
    {
        s_.nameInThread = GetThreadName();
        s_.argInThread = arg;
        s_.terminatingInThread = IsTerminating();
        pthread_attr_t attr;
        pthread_getattr_np(pthread_self(), &attr);
        pthread_attr_getstacksize(&attr, &s_.stackInThread);
        pthread_attr_destroy(&attr);
        SetEvent(s_.started);
        while (ContinueRunning()) WaitForSingleObject(evntShutdownThread, 1000);
        return nullptr;
    }

private:
    WorkerState& s_;
};

template <int N>
class TplWorker : public OsThreadTestWorker {
public:
    explicit TplWorker(WorkerState& s) : OsThreadTestWorker(s) {}
};

namespace {

// Starts t, waits until its body runs, stops it and waits for its self-deletion.
void runToCompletion(OsThread* t, WorkerState& s, void* arg)
{
    ASSERT_TRUE(t->Start(arg));
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(s.started, 10000));
    EXPECT_TRUE(t->SignalShutdown());
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(s.destroyed, 10000));
}

TEST(OsThreadTest, StartedThreadRunsUntilShutdownAndDeletesItself)
{
    WorkerState s;
    int arg = 0;
    auto* t = new OsThreadTestWorker(s, "worker", 0x40000);
    EXPECT_TRUE(t->IsTerminating());
    runToCompletion(t, s, &arg);
    EXPECT_EQ(&arg, s.argInThread);
    EXPECT_FALSE(s.terminatingInThread);
    EXPECT_EQ("worker", s.nameInThread);
    // glibc may hand out a cached stack up to four times larger.
    EXPECT_GE(s.stackInThread, 0x40000u);
    EXPECT_LE(s.stackInThread, 4 * 0x40000u);
}

TEST(OsThreadTest, UnnamedThreadTakesItsDemangledClassName)
{
    {
        WorkerState s;
        runToCompletion(new OsThreadTestWorker(s), s, nullptr);
        EXPECT_EQ("OsThreadTestWor", s.nameInThread);
    }
    {
        WorkerState s;
        runToCompletion(new TplWorker<3>(s), s, nullptr);
        EXPECT_EQ("TplWorker<3>", s.nameInThread);
    }
}

TEST(OsThreadTest, ThreadNameIsCutToFifteenCharacters)
{
    WorkerState s;
    OsThreadTestWorker t(s, "0123456789abcdefXYZ", 0);
    EXPECT_STREQ("0123456789abcde", t.GetThreadName());
    t.SetThreadName("short");
    EXPECT_STREQ("short", t.GetThreadName());
    t.SetThreadName(nullptr);
    EXPECT_STREQ("", t.GetThreadName());
}

TEST(OsThreadTest, RunExecutesInTheCallingThreadAfterSetup)
{
    struct Inline : OsThread {
        Inline() : OsThread("inline", 0) {}
        void Setup() override { order += "S"; }
        void* Execute(void* arg) override
        {
            order += "E";
            return arg;
        }
        std::string order;
    } t;
    int x;
    EXPECT_EQ(&x, t.Run(&x));
    EXPECT_EQ("SE", t.order);
    EXPECT_TRUE(t.IsTerminating());
}

TEST(OsThreadTest, DestroyingARunningObjectIsReported)
{
    struct Running : OsThread {
        Running() : OsThread("running", 0) { bThreadTerminating = false; }
    };
    testing::internal::CaptureStdout();
    delete new Running;
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                testing::HasSubstr("~OsThread: CALLED OUTSIDE OF EXECUTION THREAD FOR APP TYPE["));

    testing::internal::CaptureStdout();
    WorkerState s;
    delete new OsThreadTestWorker(s);
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
}

TEST(OsThreadTest, PriorityCallsReportFailureAsTrue)
{
    // setpriority acts on the calling thread; use a throw-away one.
    std::thread([] {
        WorkerState s;
        OsThreadTestWorker t(s);
        const int before = getpriority(PRIO_PROCESS, 0);
        const bool highFailed = t.SetPriorityHigh();
        EXPECT_EQ(highFailed, getpriority(PRIO_PROCESS, 0) != -10);
        // Going back to the original value is always allowed: success is false.
        EXPECT_FALSE(t.SetPriorityNormal());
        EXPECT_EQ(before, getpriority(PRIO_PROCESS, 0));
    }).join();
}

} // namespace
