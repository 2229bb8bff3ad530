#include "Common/OS/Linux/OSAL.h"

#include <gtest/gtest.h>
#include <string.h>
#include <time.h>

#include <functional>
#include <string>

#include "PlatformTestSupport.h"
#include "TestSupport.h"

namespace {

// Runs fn on a thread made by _beginthread and waits until it finished.
bool onOsalThread(unsigned stack, std::function<void()> fn)
{
    struct Job {
        std::function<void()> fn;
        HANDLE done;
    } job{std::move(fn), CreateEvent(nullptr, TRUE, FALSE, nullptr)};
    auto body = [](void* p) {
        static_cast<Job*>(p)->fn();
        SetEvent(static_cast<Job*>(p)->done);
    };
    const bool ok = _beginthread(body, stack, &job) != OSAL_BEGINTHREAD_FAILED &&
                    WaitForSingleObject(job.done, tavro_test::kStuckMs) == WAIT_OBJECT_0;
    CloseHandle(job.done);
    return ok;
}

// Stacks are raised to the minimum; set_thread_name names the calling thread.
TEST(OSALTest, BeginThreadStackThreadNameAndFailure)
{
    char empty[] = "", shortName[] = "worker", longName[] = "a-name-longer-than-fifteen";
    const struct {
        unsigned requested;
        size_t expected;
        char* name;
        const char* shown;
    } cases[] = {{0x40000, 0x40000, nullptr, "----------"},
                 {0, 0x20000, empty, "----------"},
                 {8192, 0x20000, shortName, "worker"},
                 {0x20000, 0x20000, longName, "a-name-longer-t"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.requested);
        int rc = -1;
        char name[32] = {};
        EXPECT_TRUE(onOsalThread(c.requested, [&] {
            tavro_test::expectOwnStackOf(c.expected);
            rc = set_thread_name(c.name);
            pthread_getname_np(pthread_self(), name, sizeof name);
        }));
        EXPECT_EQ(0, rc);
        EXPECT_STREQ(c.shown, name);
    }

    HANDLE done = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    testing::internal::CaptureStdout();
    // No stack of that size can be mapped on the 32-bit target.
    const uintptr_t id = _beginthread([](void* e) { SetEvent(e); }, 0xFFFFFFF0u, done);
    const std::string out = testing::internal::GetCapturedStdout();
    if (id == OSAL_BEGINTHREAD_FAILED) {
        EXPECT_EQ(0u, out.find("pthread_create() failed: rc["));
        EXPECT_EQ("]\r\n", out.substr(out.size() - 3));
    } else {
        WaitForSingleObject(done, tavro_test::kStuckMs); // this machine mapped a 4 GiB stack
    }
    CloseHandle(done);
}

TEST(OSALTest, StringTimeDirectoryAndTickHelpers)
{
    const struct {
        const char *a, *b;
        unsigned n;
        int expected;
    } cases[] = {{"abc", "ABD", 2, 0},    {"abc", "ABD", 3, 'C' - 'D'}, {"abc", "ABD", 0, 0},
                 {"abc", "abc", 10, 0},   {"ab", "abc", 5, -'C'},       {"Zeta", "alpha", 4, 'Z' - 'A'},
                 {"x\0yz", "X\0ab", 4, 0}};
    for (const auto& c : cases) EXPECT_EQ(c.expected, strnicmp(c.a, c.b, c.n)) << c.a << "/" << c.b << "/" << c.n;
    char s[] = "MiXed 09-z";
    EXPECT_EQ(s, strupr(s));
    EXPECT_STREQ("MIXED 09-Z", s);

    // System time is local, with a zero-based month.
    setenv("TZ", "UTC0", 1);
    tzset();
    _SYSTEMTIME st;
    const time_t before = time(nullptr);
    GetSystemTime(&st);
    const time_t after = time(nullptr);
    auto matches = [&st](time_t x) {
        tm t;
        localtime_r(&x, &t);
        return st.wYear == t.tm_year + 1900 && st.wMonth == t.tm_mon && st.wDay == t.tm_mday &&
               st.wDayOfWeek == t.tm_wday && st.wHour == t.tm_hour && st.wMinute == t.tm_min && st.wSecond == t.tm_sec;
    };
    // The clock may tick between the calls; accept either second.
    EXPECT_TRUE(matches(before) || matches(after));
    EXPECT_EQ(0, st.wMilliseconds);
    EXPECT_EQ(0u, elapseTime(&st, &st));

    tavro_test::ScopedTempDir dir;
    char buf[4096], real[4096], tiny[4];
    ASSERT_NE(nullptr, realpath(dir.path().c_str(), real));
    EXPECT_EQ(strlen(real), GetCurrentDirectory(sizeof buf, buf));
    EXPECT_STREQ(real, buf);
    EXPECT_EQ(0u, GetCurrentDirectory(sizeof tiny, tiny));

    const long long t0 = get_ticks();
    const DWORD k0 = GetTickCount();
    Sleep(20);
    EXPECT_GE(get_ticks() - t0, 19000);
    EXPECT_GE(GetTickCount() - k0, 19u);
}

} // namespace
