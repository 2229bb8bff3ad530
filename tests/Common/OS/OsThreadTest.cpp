#include "Common/OS/OsThread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <string>

#include "Common/OS/Linux/PlatformTestSupport.h"

struct WorkerState {
    tavro_test::Events events{2, TRUE};
    HANDLE started = events.h[0], destroyed = events.h[1];
    std::string name;
    void* arg = nullptr;
    bool terminating = true, setUp = false;
};

// Global namespace: the demangled names are what unnamed threads get.
class OsThreadTestWorker : public OsThread {
public:
    OsThreadTestWorker(WorkerState& s, const char* name, unsigned stack) : OsThread(name, stack), s_(s) {}
    explicit OsThreadTestWorker(WorkerState& s) : OsThread(0), s_(s) {}
    ~OsThreadTestWorker() override { SetEvent(s_.destroyed); }
    void Setup() override { s_.setUp = true; }
    void* Execute(void* arg) override
    {
        s_.name = GetThreadName();
        s_.arg = arg;
        s_.terminating = IsTerminating();
        if (GetStackSize() != 0) tavro_test::expectOwnStackOf(GetStackSize());
        SetEvent(s_.started);
        while (ContinueRunning()) WaitForSingleObject(evntShutdownThread, 1000);
        return arg;
    }

private:
    WorkerState& s_;
};

namespace {

// Starts t, waits until its body runs, stops it and waits for its self-deletion.
void runToCompletion(OsThread* t, WorkerState& s, void* arg)
{
    ASSERT_TRUE(t->Start(arg));
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(s.started, tavro_test::kStuckMs));
    EXPECT_TRUE(t->SignalShutdown());
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(s.destroyed, tavro_test::kStuckMs));
}

TEST(OsThreadTest, ThreadsRunStartedOrInlineAndAreNamed)
{
    WorkerState s;
    int arg = 0;
    auto* t = new OsThreadTestWorker(s, "worker", 0x40000);
    EXPECT_TRUE(t->IsTerminating());
    runToCompletion(t, s, &arg);
    EXPECT_EQ(&arg, s.arg);
    EXPECT_FALSE(s.terminating);
    EXPECT_EQ("worker", s.name);

    // Unnamed threads get the demangled class name, cut to 15 characters.
    WorkerState s1;
    runToCompletion(new OsThreadTestWorker(s1), s1, nullptr);
    EXPECT_EQ("OsThreadTestWor", s1.name);

    // Run executes inline after Setup; only destroying a running object is
    // reported.
    OsThreadTestWorker named(s1, "0123456789abcdefXYZ", 0);
    EXPECT_STREQ("0123456789abcde", named.GetThreadName());
    named.SignalShutdown(); // lets the body return at once
    EXPECT_EQ(&arg, named.Run(&arg));
    EXPECT_TRUE(s1.setUp);
    EXPECT_TRUE(s1.terminating);
    named.SetThreadName(nullptr);
    EXPECT_STREQ("", named.GetThreadName());
    testing::internal::CaptureStdout();
    delete new OsThreadTestWorker(s);
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    struct Running : OsThread {
        Running() : OsThread("running", 0) { bThreadTerminating = false; }
    };
    testing::internal::CaptureStdout();
    delete new Running;
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                testing::HasSubstr("~OsThread: CALLED OUTSIDE OF EXECUTION THREAD FOR APP TYPE["));
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
