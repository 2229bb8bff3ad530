#include "Common/Utility/UtlDebug.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <iomanip>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Common/OS/Linux/OSAL.h"
#include "Common/OS/OsSocket.h"
#include "TestSupport.h"

namespace {

const char kLog[] = "log/Test.Debug.log";

// The log in unit-test mode, without a day change marker (midnight passing).
std::string readLog()
{
    std::string text = tavro_test::readFile(kLog);
    const std::string newDay = "\n[New Day]\n\n";
    for (size_t p; (p = text.find(newDay)) != std::string::npos;) text.erase(p, newDay.size());
    return text;
}

class UtlDebugTest : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(mkdir("log", 0777), 0);
        ASSERT_TRUE(UtlDebug::StartDebugThread());
        UtlDebug::SetUnitTestFriendly(true);
        debugSetLastDay(time(nullptr) / 86400); // past the start-up banner unless a test wants it
    }
    void TearDown() override { UtlDebug::SetUnitTestFriendly(false); }
    static void drain() { ASSERT_TRUE(UtlDebug::GetTheUtlDebug()->WaitUntilDrained(10000)); }

    tavro_test::ScopedTempDir dir;
};

} // namespace

// The owner may start the process's writer itself instead of through
// StartDebugThread: debugOut must queue to it all the same, and a later
// StartDebugThread must not start a second writer.
TEST(UtlDebugOwner, WriterStartedByItsOwnerGetsTheLines)
{
    tavro_test::ScopedTempDir dir;
    ASSERT_EQ(mkdir("log", 0777), 0);
    UtlDebug::SetUnitTestFriendly(true);
    debugSetLastDay(time(nullptr) / 86400);
    UtlDebug* d = UtlDebug::GetTheUtlDebug();
    ASSERT_TRUE(d->Start(nullptr));
    EXPECT_TRUE(UtlDebug::IsDebugThreadRunning());
    testing::internal::CaptureStdout();
    debugOut("owner started\n");
    EXPECT_TRUE(UtlDebug::StartDebugThread());
    EXPECT_TRUE(d->Start(nullptr));
    debugOutf("%s\n", "still one writer");
    ASSERT_TRUE(d->WaitUntilDrained(10000));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(readLog(), "[][] owner started\n[][] still one writer\n");
    UtlDebug::SetUnitTestFriendly(false);
}

TEST_F(UtlDebugTest, UnitTestModeBytesBannerOnceSysLogEchoAndLongText)
{
    const std::string longWord(5000, 'w');
    debugSetLastDay(0);
    testing::internal::CaptureStdout();
    debugOut("first\n");
    debugOut("to syslog\n", true);
    debugOut("");
    debugOut(nullptr);
    debugOutf("%s|%d|%s\n", "start", 17, longWord.c_str());
    drain();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "to syslog\n  EMPTY Debug message\n  EMPTY Debug message\n");
    EXPECT_EQ(readLog(),
              "\n[] -- Unknown Application STARTUP\n\n[][] first\n[][] to syslog\n[][] start|17|" + longWord + "\n");
}

TEST_F(UtlDebugTest, RealTimeStampsFromTheMessagesOwnStamp)
{
    UtlDebug::SetUnitTestFriendly(false);
    debugSetLastDay(0);
    timeval before{}, after{};
    gettimeofday(&before, nullptr);
    debugOut("hello\n");
    gettimeofday(&after, nullptr);
    drain();

    // The banner carries the stamp to the millisecond, in UTC.
    const std::string got = tavro_test::readFile(kLog);
    tm t{};
    int ms = 0;
    ASSERT_EQ(std::sscanf(got.c_str(), "\n[%2d/%2d/%4d %2d:%2d:%2d.%3d]", &t.tm_mon, &t.tm_mday, &t.tm_year, &t.tm_hour,
                          &t.tm_min, &t.tm_sec, &ms),
              7)
        << got;
    t.tm_mon -= 1;
    t.tm_year -= 1900;
    const long long stampMs = static_cast<long long>(timegm(&t)) * 1000 + ms;
    EXPECT_GE(stampMs, static_cast<long long>(before.tv_sec) * 1000 + before.tv_usec / 1000);
    EXPECT_LE(stampMs, static_cast<long long>(after.tv_sec) * 1000 + after.tv_usec / 1000);
    char line[64];
    std::snprintf(line, sizeof line, "%02d/%02d %02d:%02d:%02d %04u hello\n", t.tm_mon + 1, t.tm_mday, t.tm_hour,
                  t.tm_min, t.tm_sec, static_cast<unsigned>(GetCurrentThreadId()));
    EXPECT_EQ(got, "\n[" + got.substr(2, 23) + "] -- Unknown Application STARTUP\n\n" + line);
}

TEST_F(UtlDebugTest, LineFormatFollowsTheStampsDayAndKeepsStreamState)
{
    const long t0 = 1700000000; // 2023-11-14 22:13:20 UTC
    const struct {
        timeval stamp;
        std::uint32_t thread;
        bool unitTest;
        const char* text;
        const char* line;
    } steps[] = {
        {{t0, 123456},
         42,
         false,
         "a\n",
         "\n[11/14/2023 22:13:20.123] -- Unknown Application STARTUP\n\n11/14 22:13:20 0042 a\n"},
        {{t0 + 60, 0}, 123456, false, "b\n", "11/14 22:14:20 123456 b\n"},
        {{t0 + 86400, 0}, 7, false, "c", "\n2023-11-15 \n\n11/15 22:13:20 0007 c"},
        {{t0 + 86400 + 5, 0}, 0, false, "", "11/15 22:13:25 0000 "},
        {{t0 + 2 * 86400, 0}, 7, true, "d\n", "\n[New Day]\n\n[][] d\n"},
        {{t0 + 2 * 86400, 1}, 7, true, "e\n", "[][] e\n"},
        {{t0, 0}, 7, false, "f\n", "\n2023-11-14 \n\n11/14 22:13:20 0007 f\n"}, // an earlier day changes too
    };
    debugSetLastDay(0);
    for (const auto& s : steps) {
        SCOPED_TRACE(s.line);
        UtlDebug::SetUnitTestFriendly(s.unitTest);
        const DEBUG_MSG msg(s.text, false, s.stamp, s.thread);
        std::ostringstream os;
        os << std::hex << std::setfill('*') << std::left << msg << std::setw(4) << 255;
        EXPECT_EQ(os.str(), std::string(s.line) + "ff**");
    }
    EXPECT_EQ(debugLastDay(), t0 / 86400);
}

TEST_F(UtlDebugTest, FullQueueBlocksTheCallerUntilTheWriterDrainsOne)
{
    // A private instance whose writer is held back; without a log directory
    // its lines are dropped silently.
    ASSERT_EQ(rmdir("log"), 0);
    UtlDebug inst;
    for (int i = 0; i < UtlDebug::MAX_PENDING; ++i) inst.DebugOut("x", false);
    std::atomic<bool> returned{false};
    std::thread producer([&] {
        inst.DebugOut("last\n", false);
        returned = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(returned.load());
    EXPECT_FALSE(inst.WaitUntilDrained(0));
    std::thread writer([&] { inst.Run(nullptr); });
    producer.join();
    EXPECT_TRUE(inst.WaitUntilDrained(60000));
    inst.SignalShutdown();
    writer.join();
}

TEST_F(UtlDebugTest, ListenersGetTheTextWithoutPrefix)
{
    int a[2], b[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, a), 0);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, b), 0);
    OsSocket first, second, sameAsFirst;
    first.SetSocket(a[0]);
    second.SetSocket(b[0]);
    sameAsFirst.SetSocket(a[0]);
    auto received = [](int fd) {
        char buf[256];
        const ssize_t n = recv(fd, buf, sizeof buf, MSG_DONTWAIT);
        return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
    };
    UtlDebug* d = UtlDebug::GetTheUtlDebug();
    d->Register(&first);
    d->Register(&first); // no second copy
    d->Register(&second);
    debugOut("to both\n");
    drain();
    EXPECT_EQ(received(a[1]), "to both\n");
    EXPECT_EQ(received(b[1]), "to both\n");

    d->Deregister(&sameAsFirst); // matched by descriptor, not by object
    debugOut("second only\n");
    drain();
    EXPECT_EQ(received(a[1]), "");
    EXPECT_EQ(received(b[1]), "second only\n");

    // A listener whose peer is gone neither stops the writer nor raises SIGPIPE.
    close(b[1]);
    debugOut("peer gone\n");
    drain();
    d->Deregister(&second);
    EXPECT_EQ(readLog(), "[][] to both\n[][] second only\n[][] peer gone\n");
    sameAsFirst.SetSocket(-1); // only one object may close a[0]
    close(a[1]);
}

TEST_F(UtlDebugTest, ConcurrentStartsAndWritersLoseNothingAndKeepOrder)
{
    constexpr int kThreads = 4, kEach = 300;
    std::atomic<int> started{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([t, &started] {
            started += UtlDebug::StartDebugThread() ? 1 : 0;
            for (int i = 0; i < kEach; ++i) debugOutf("T%d %d\n", t, i);
        });
    for (auto& t : threads) t.join();
    drain();
    EXPECT_EQ(started, kThreads);

    std::istringstream in(readLog());
    int next[kThreads] = {}, lines = 0;
    for (std::string line; std::getline(in, line); ++lines) {
        int t = -1, i = -1;
        ASSERT_EQ(std::sscanf(line.c_str(), "[][] T%d %d", &t, &i), 2) << line;
        ASSERT_TRUE(t >= 0 && t < kThreads);
        EXPECT_EQ(i, next[t]++);
    }
    EXPECT_EQ(lines, kThreads * kEach);
}
