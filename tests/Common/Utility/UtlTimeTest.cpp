#include "Common/Utility/UtlTime.h"

#include <gtest/gtest.h>

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <iomanip>
#include <sstream>
#include <string>
#include <thread>

// No debug writer runs in this process, so trace lines go straight to stdout.

namespace {

timeval tv(long s, long us)
{
    timeval t{};
    t.tv_sec = s;
    t.tv_usec = us;
    return t;
}

template <typename T>
std::string text(const T& v)
{
    std::ostringstream os;
    os << v;
    return os.str();
}

// The reader of time stamps works in local time; tests that read pick a zone.
void useTz(const char* tz)
{
    setenv("TZ", tz, 1);
    tzset();
}

struct Parsed {
    timeval value;
    std::string trace;
};

Parsed parse(const std::string& line)
{
    std::istringstream in(line);
    Parsed p{tv(-1, -1), {}};
    testing::internal::CaptureStdout();
    in >> p.value;
    p.trace = testing::internal::GetCapturedStdout();
    return p;
}

} // namespace

TEST(UtlTime, ComparisonOrdersBySecondsThenMicroseconds)
{
    struct Case {
        timeval a, b;
        int order; // sign of a - b
    } cases[] = {
        {tv(5, 10), tv(5, 10), 0},   {tv(5, 10), tv(5, 11), -1},  {tv(5, 999999), tv(6, 0), -1},
        {tv(6, 0), tv(5, 999999), 1}, {tv(-1, 0), tv(0, 0), -1},   {tv(-1, 500), tv(-1, 100), 1},
        {tv(0, -5), tv(0, 0), -1},   {tv(0x7fffffff, 0), tv(-0x7fffffff, 0), 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(text(c.a.tv_sec) + "." + text(c.a.tv_usec) + " vs " + text(c.b.tv_sec) + "." + text(c.b.tv_usec));
        EXPECT_EQ(c.a == c.b, c.order == 0);
        EXPECT_EQ(c.a != c.b, c.order != 0);
        EXPECT_EQ(c.a < c.b, c.order < 0);
        EXPECT_EQ(c.a > c.b, c.order > 0);
        EXPECT_EQ(c.a <= c.b, c.order <= 0);
        EXPECT_EQ(c.a >= c.b, c.order >= 0);
    }
}

TEST(UtlTime, TimevalPrintsUtcWithMillisecondsAndKeepsStreamState)
{
    EXPECT_EQ(text(tv(0, 0)), "01/01/1970 00:00:00.000");
    EXPECT_EQ(text(tv(1700000000, 123999)), "11/14/2023 22:13:20.123");
    EXPECT_EQ(text(tv(951782400 + 3 * 3600 + 4 * 60 + 5, 7000)), "02/29/2000 03:04:05.007");

    std::ostringstream os;
    os << std::hex << std::setfill('*') << std::left;
    os << tv(0, 0) << ' ' << std::setw(4) << 255;
    EXPECT_EQ(os.str(), "01/01/1970 00:00:00.000 ff**");
}

TEST(UtlTime, RecordsAndTimerSpecsPrintTheirParts)
{
    const timeval t = tv(1700000000, 4567); // 2023-11-14 22:13:20 UTC
    EXPECT_EQ(text(date(t)), "2023-11-14");
    EXPECT_EQ(text(monthDay(t)), "11/14");
    EXPECT_EQ(text(timeofday(t)), "22:13:20");
    EXPECT_EQ(text(precisetimeofday(t)), "22:13:20.004567");
    std::ostringstream os;
    os << std::hex << monthDay(tv(0, 0)) << ' ' << 10;
    EXPECT_EQ(os.str(), "01/01 a");

    itimerspec its{};
    its.it_value.tv_sec = 1;
    its.it_value.tv_nsec = 500;
    its.it_interval.tv_sec = 2;
    EXPECT_EQ(text(its), "it_value[1.500] it_interval[2.0]");
}

TEST(UtlTime, TextRoundTripsInUtcAndIsReadAsLocalTime)
{
    {
        useTz("UTC");
        const timeval t = tv(1700000000, 123000);
        const Parsed p = parse(text(t) + "\n");
        EXPECT_EQ(p.value, t);
        EXPECT_EQ(p.trace, "");
        // The last element counts milliseconds; fields need not be zero-filled.
        EXPECT_EQ(parse("01/01/1970 00:00:01.5\nrest").value, tv(1, 5000));
        EXPECT_EQ(parse("1/2/1970 0:0:0.0").value, tv(86400, 0));
    }
    {
        // Printed in UTC, read back as wall-clock time five hours behind it.
        useTz("EST5");
        const Parsed p = parse(text(tv(1700000000, 0)));
        EXPECT_EQ(p.value, tv(1700000000 + 5 * 3600, 0));
    }
}

TEST(UtlTime, OutOfRangeFieldsLeaveZeroWithoutMessage)
{
    useTz("UTC");
    for (const char* line : {"13/01/2020 00:00:00.000", "00/01/2020 00:00:00.000", "01/00/2020 00:00:00.000",
                             "01/32/2020 00:00:00.000", "01/01/1899 00:00:00.000", "01/01/2020 24:00:00.000",
                             "01/01/2020 00:60:00.000", "01/01/2020 00:00:60.000", "01/01/2020 -1:00:00.000",
                             "99999999999/01/2020 00:00:00.000", "x/y/z a:b:c.d"}) {
        SCOPED_TRACE(line);
        const Parsed p = parse(line);
        EXPECT_EQ(p.value, tv(0, 0));
        EXPECT_EQ(p.trace, "");
    }
}

TEST(UtlTime, LineEndingEarlyReportsElementAndPosition)
{
    struct Case {
        const char* line;
        const char* trace;
    } cases[] = {
        {"", "operator>>: Failed to read [MONTH] timestamp element at position[0] and ending with delimiter[/]\n"},
        {"11/14", "operator>>: Failed to read [YEAR] timestamp element at position[2] and ending with delimiter[ ]\n"},
        {"11/14/2023 22:13",
         "operator>>: Failed to read [SEC] timestamp element at position[5] and ending with delimiter[.]\n"},
        {"11/14/2023 22:13:20.",
         "operator>>: Failed to read [USEC] timestamp element at position[6] and ending with delimiter[\n]\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line);
        const Parsed p = parse(c.line);
        EXPECT_EQ(p.value, tv(0, 0));
        EXPECT_EQ(p.trace, c.trace);
    }
}

TEST(UtlTime, GmtimeConvertsAndRejectsNullAndUptimeIsKnown)
{
    tm out{};
    const long t = 1700000000;
    ASSERT_EQ(GMTIME(&t, &out), &out);
    EXPECT_EQ(out.tm_year, 123);
    EXPECT_EQ(out.tm_mon, 10);
    EXPECT_EQ(out.tm_mday, 14);
    EXPECT_EQ(out.tm_hour, 22);
    EXPECT_EQ(out.tm_yday, 317);
    EXPECT_EQ(GMTIME(nullptr, &out), nullptr);
    EXPECT_EQ(out.tm_mday, 0);
    EXPECT_EQ(GMTIME(&t, nullptr), nullptr);
    EXPECT_GT(get_uptime(), 0);
}

TEST(UtlTime, MicrosleepZeroReturnsAtOnce)
{
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(microsleep(0), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
}

namespace {
std::atomic<int> g_signals{0};
void countSignal(int) { g_signals.fetch_add(1); }
} // namespace

TEST(UtlTime, MicrosleepResumesAfterSignals)
{
    struct sigaction sa {};
    struct sigaction old {};
    sa.sa_handler = countSignal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0; // no SA_RESTART: nanosleep must see EINTR
    ASSERT_EQ(sigaction(SIGUSR2, &sa, &old), 0);

    std::atomic<bool> done{false};
    std::atomic<int> rc{-2};
    std::chrono::steady_clock::duration slept{};
    std::thread sleeper([&] {
        const auto start = std::chrono::steady_clock::now();
        rc = microsleep(200000);
        slept = std::chrono::steady_clock::now() - start;
        done = true;
    });
    // Keep interrupting until it finishes; at least one signal lands mid-sleep.
    int sent = 0;
    while (!done) {
        pthread_kill(sleeper.native_handle(), SIGUSR2);
        ++sent;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    sleeper.join();
    sigaction(SIGUSR2, &old, nullptr);

    EXPECT_EQ(rc, 0);
    EXPECT_GE(slept, std::chrono::milliseconds(200));
    EXPECT_GE(sent, 2);
    EXPECT_GE(g_signals.load(), 2);
}

TEST(UtlTime, Microsleep2TracesTicksAroundTheSleep)
{
    testing::internal::CaptureStdout();
    EXPECT_EQ(microsleep2(1000, false), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");

    testing::internal::CaptureStdout();
    EXPECT_EQ(microsleep2(1000, true), 0);
    const std::string line = testing::internal::GetCapturedStdout();
    long long start = -1, end = -1;
    int consumed = 0;
    ASSERT_EQ(std::sscanf(line.c_str(),
                          "microsleep2: arg microsleep [1000] start time [%lld] end time [%lld] - nanosleep return "
                          "[0]\n%n",
                          &start, &end, &consumed),
              2)
        << line;
    EXPECT_EQ(static_cast<size_t>(consumed), line.size()) << line;
    EXPECT_GE(end - start, 1000);
}
