#include "Common/OS/Linux/OSAL.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <cstdlib>
#include <string>

#include "Common/OS/Linux/WinEvent.h"
#include "TestSupport.h"

namespace {

// Runs fn on a thread made by _beginthread and waits until it finished.
struct OnOsalThread {
    void (*fn)(OnOsalThread*);
    HANDLE done = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    size_t stackSize = 0;
    std::string name;
    char* nameIn = nullptr;
    int rc = -1;

    static void body(void* p)
    {
        auto* self = static_cast<OnOsalThread*>(p);
        self->fn(self);
        SetEvent(self->done);
    }
    bool run(unsigned stack)
    {
        if (_beginthread(body, stack, this) == OSAL_BEGINTHREAD_FAILED) return false;
        return WaitForSingleObject(done, 10000) == WAIT_OBJECT_0;
    }
    ~OnOsalThread() { CloseHandle(done); }
};

void readStackSize(OnOsalThread* t)
{
    pthread_attr_t attr;
    pthread_getattr_np(pthread_self(), &attr);
    pthread_attr_getstacksize(&attr, &t->stackSize);
    pthread_attr_destroy(&attr);
}

TEST(OSALTest, BeginThreadRaisesStackToTheMinimum)
{
    const struct {
        unsigned requested;
        size_t expected;
    } cases[] = {{0x40000, 0x40000}, {0, 0x20000}, {8192, 0x20000}, {0x20000, 0x20000}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.requested);
        OnOsalThread t;
        t.fn = readStackSize;
        ASSERT_TRUE(t.run(c.requested));
        // glibc may reuse a cached stack up to four times the size asked for
        // (ThreadSanitizer's runtime reports up to 1 MiB); the 8 MiB default
        // would be far outside.
        EXPECT_GE(t.stackSize, c.expected);
#if defined(__SANITIZE_THREAD__)
        EXPECT_LE(t.stackSize, std::max<size_t>(4 * c.expected, 0x100000));
#else
        EXPECT_LE(t.stackSize, 4 * c.expected);
#endif
    }
}

TEST(OSALTest, BeginThreadReportsCreationFailure)
{
    OnOsalThread t;
    t.fn = readStackSize;
    testing::internal::CaptureStdout();
    // No stack of that size can be mapped.
    const uintptr_t id = _beginthread(OnOsalThread::body, 0xFFFFFFF0u, &t);
    const std::string out = testing::internal::GetCapturedStdout();
    if (id != OSAL_BEGINTHREAD_FAILED) {
        WaitForSingleObject(t.done, 10000);
        GTEST_SKIP() << "this machine mapped a 4 GiB stack";
    }
    EXPECT_EQ(0u, out.find("pthread_create() failed: rc["));
    EXPECT_EQ("]\r\n", out.substr(out.size() - 3));
}

void nameThread(OnOsalThread* t)
{
    t->rc = set_thread_name(t->nameIn);
    char buf[32] = {};
    pthread_getname_np(pthread_self(), buf, sizeof buf);
    t->name = buf;
}

TEST(OSALTest, SetThreadNameNamesTheCallingThread)
{
    char empty[] = "";
    char shortName[] = "worker";
    char longName[] = "a-name-longer-than-fifteen";
    const struct {
        char* in;
        const char* expected;
    } cases[] = {{nullptr, "----------"}, {empty, "----------"}, {shortName, "worker"}, {longName, "a-name-longer-t"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.expected);
        OnOsalThread t;
        t.fn = nameThread;
        t.nameIn = c.in;
        ASSERT_TRUE(t.run(0));
        EXPECT_EQ(0, t.rc);
        EXPECT_EQ(c.expected, t.name);
    }
}

TEST(OSALTest, StrnicmpComparesCaseBlind)
{
    const struct {
        const char* a;
        const char* b;
        unsigned n;
        int expected;
    } cases[] = {
        {"abc", "ABD", 2, 0},   {"abc", "ABD", 3, 'C' - 'D'}, {"abc", "ABD", 0, 0},     {"abc", "abc", 10, 0},
        {"ab", "abc", 5, -'C'}, {"Zeta", "alpha", 4, 'Z' - 'A'}, {"x\0yz", "X\0ab", 4, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.a) + "/" + c.b + "/" + std::to_string(c.n));
        EXPECT_EQ(c.expected, strnicmp(c.a, c.b, c.n));
    }
    char s[] = "MiXed 09-z";
    EXPECT_EQ(s, strupr(s));
    EXPECT_STREQ("MIXED 09-Z", s);
}

TEST(OSALTest, SystemTimeIsLocalWithZeroBasedMonth)
{
    setenv("TZ", "UTC0", 1);
    tzset();
    _SYSTEMTIME st;
    time_t before = time(nullptr);
    GetSystemTime(&st);
    time_t after = time(nullptr);
    tm t;
    // The clock may tick between the calls; accept either second.
    bool matched = false;
    for (time_t x : {before, after}) {
        localtime_r(&x, &t);
        matched = matched || (st.wYear == t.tm_year + 1900 && st.wMonth == t.tm_mon && st.wDay == t.tm_mday &&
                              st.wDayOfWeek == t.tm_wday && st.wHour == t.tm_hour && st.wMinute == t.tm_min &&
                              st.wSecond == t.tm_sec);
    }
    EXPECT_TRUE(matched);
    EXPECT_LE(st.wMonth, 11);
    EXPECT_EQ(0, st.wMilliseconds);
    EXPECT_EQ(0u, elapseTime(&st, &st));
}

TEST(OSALTest, GetCurrentDirectoryReturnsPathLength)
{
    tavro_test::ScopedTempDir dir;
    char buf[4096];
    const DWORD n = GetCurrentDirectory(sizeof buf, buf);
    char real[4096];
    ASSERT_NE(nullptr, realpath(dir.path().c_str(), real));
    EXPECT_EQ(std::string(real), buf);
    EXPECT_EQ(strlen(real), n);
    char tiny[4];
    EXPECT_EQ(0u, GetCurrentDirectory(sizeof tiny, tiny));
}

TEST(OSALTest, SleepAndTicks)
{
    const long long t0 = get_ticks();
    const DWORD k0 = GetTickCount();
    Sleep(20);
    const long long us = get_ticks() - t0;
    EXPECT_GE(us, 19000);
    EXPECT_GE(GetTickCount() - k0, 19u);
    Sleep(0);
}

} // namespace
