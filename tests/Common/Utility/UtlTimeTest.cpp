#include "Common/Utility/UtlTime.h"

#include <gtest/gtest.h>

#include <pthread.h>
#include <signal.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <iomanip>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>

#include "TestSupport.h"

// No debug writer runs in this process, so trace lines go straight to stdout.

using tavro_test::text;

namespace {

timeval tv(long s, long us)
{
    timeval t{};
    t.tv_sec = s;
    t.tv_usec = us;
    return t;
}

// Reads a time stamp (in the local time of the zone given); the trace it wrote.
std::string parse(const std::string& line, timeval& value, const char* tz = "UTC")
{
    setenv("TZ", tz, 1);
    tzset();
    std::istringstream in(line);
    value = tv(-1, -1);
    testing::internal::CaptureStdout();
    in >> value;
    return testing::internal::GetCapturedStdout();
}

std::atomic<int> g_signals{0};
void countSignal(int)
{
    g_signals.fetch_add(1);
}

TEST(UtlTime, ComparisonAndUtcText)
{
    const std::tuple<timeval, timeval, int> cases[] = {
        // sign of a - b
        {tv(5, 10), tv(5, 10), 0},     {tv(5, 10), tv(5, 11), -1},
        {tv(5, 999999), tv(6, 0), -1}, {tv(6, 0), tv(5, 999999), 1},
        {tv(-1, 0), tv(0, 0), -1},     {tv(-1, 500), tv(-1, 100), 1},
        {tv(0, -5), tv(0, 0), -1},     {tv(0x7fffffff, 0), tv(-0x7fffffff, 0), 1}};
    for (const auto& [a, b, o] : cases) {
        EXPECT_EQ((std::array<bool, 6>{a == b, a != b, a<b, a> b, a <= b, a >= b}),
                  (std::array<bool, 6>{o == 0, o != 0, o<0, o> 0, o <= 0, o >= 0}))
            << a.tv_sec << "." << a.tv_usec << " vs " << b.tv_sec << "." << b.tv_usec;
    }

    const timeval t = tv(1700000000, 4567); // 2023-11-14 22:13:20 UTC
    itimerspec its{};
    its.it_value.tv_sec = 1;
    its.it_value.tv_nsec = 500;
    its.it_interval.tv_sec = 2;
    const std::pair<std::string, const char*> texts[] = {
        {text(tv(0, 0)), "01/01/1970 00:00:00.000"},
        {text(tv(1700000000, 123999)), "11/14/2023 22:13:20.123"},
        {text(tv(951782400 + 3 * 3600 + 4 * 60 + 5, 7000)), "02/29/2000 03:04:05.007"},
        {text(date(t)), "2023-11-14"},
        {text(monthDay(t)), "11/14"},
        {text(timeofday(t)), "22:13:20"},
        {text(precisetimeofday(t)), "22:13:20.004567"},
        {text(its), "it_value[1.500] it_interval[2.0]"}};
    for (const auto& [got, expected] : texts) EXPECT_EQ(got, expected);
    std::ostringstream os;
    os << std::hex << std::setfill('*') << std::left << tv(0, 0) << ' ' << monthDay(tv(0, 0)) << ' ' << std::setw(4)
       << 255;
    EXPECT_EQ(os.str(), "01/01/1970 00:00:00.000 01/01 ff**");
}

TEST(UtlTime, TextIsReadAsLocalTimeAndOnlyAnEarlyEndIsReported)
{
    timeval v{};
    EXPECT_EQ(parse(text(tv(1700000000, 123000)) + "\n", v), "");
    EXPECT_EQ(v, tv(1700000000, 123000));
    // The last element counts milliseconds; fields need not be zero-filled.
    parse("01/01/1970 00:00:01.5\nrest", v);
    EXPECT_EQ(v, tv(1, 5000));
    parse("1/2/1970 0:0:0.0", v);
    EXPECT_EQ(v, tv(86400, 0));
    // Printed in UTC, read back as wall-clock time five hours behind it.
    parse(text(tv(1700000000, 0)), v, "EST5");
    EXPECT_EQ(v, tv(1700000000 + 5 * 3600, 0));

    // Bad or short lines leave zero.
    const std::string early = "operator>>: Failed to read [";
    const std::pair<const char*, std::string> cases[] = {
        {"13/01/2020 00:00:00.000", ""},
        {"00/01/2020 00:00:00.000", ""},
        {"01/00/2020 00:00:00.000", ""},
        {"01/32/2020 00:00:00.000", ""},
        {"01/01/1899 00:00:00.000", ""},
        {"01/01/2020 24:00:00.000", ""},
        {"01/01/2020 00:60:00.000", ""},
        {"01/01/2020 00:00:60.000", ""},
        {"01/01/2020 -1:00:00.000", ""},
        {"99999999999/01/2020 00:00:00.000", ""},
        {"x/y/z a:b:c.d", ""},
        {"", early + "MONTH] timestamp element at position[0] and ending with delimiter[/]\n"},
        {"11/14", early + "YEAR] timestamp element at position[2] and ending with delimiter[ ]\n"},
        {"11/14/2023 22:13", early + "SEC] timestamp element at position[5] and ending with delimiter[.]\n"},
        {"11/14/2023 22:13:20.", early + "USEC] timestamp element at position[6] and ending with delimiter[\n]\n"}};
    for (const auto& [line, trace] : cases) {
        EXPECT_EQ(parse(line, v), trace) << line;
        EXPECT_EQ(v, tv(0, 0)) << line;
    }
}

TEST(UtlTime, GmtimeUptimeAndMicrosleepTrace)
{
    tm out{};
    const long t = 1700000000;
    ASSERT_EQ(GMTIME(&t, &out), &out);
    EXPECT_EQ(std::make_tuple(out.tm_year, out.tm_mon, out.tm_mday, out.tm_hour, out.tm_yday),
              std::make_tuple(123, 10, 14, 22, 317));
    EXPECT_EQ(GMTIME(nullptr, &out), nullptr);
    EXPECT_EQ(out.tm_mday, 0) << "cleared";
    EXPECT_EQ(GMTIME(&t, nullptr), nullptr);
    EXPECT_GT(get_uptime(), 0);

    EXPECT_EQ(microsleep(0), 0);
    testing::internal::CaptureStdout();
    EXPECT_EQ(microsleep2(1000, false), 0);
    EXPECT_EQ(microsleep2(1000, true), 0);
    const std::string line = testing::internal::GetCapturedStdout();
    long long from = -1, to = -1;
    int end = 0;
    const char* format =
        "microsleep2: arg microsleep [1000] start time [%lld] end time [%lld] - nanosleep return [0]\n%n";
    ASSERT_EQ(std::sscanf(line.c_str(), format, &from, &to, &end), 2) << line;
    EXPECT_EQ(static_cast<size_t>(end), line.size()) << line;
    EXPECT_GE(to - from, 1000);
}

TEST(UtlTime, MicrosleepResumesAfterSignals)
{
    struct sigaction sa {};
    struct sigaction old {};
    sa.sa_handler = countSignal; // no SA_RESTART: nanosleep must see EINTR
    sigemptyset(&sa.sa_mask);
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
    while (!done) {
        pthread_kill(sleeper.native_handle(), SIGUSR2);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    sleeper.join();
    sigaction(SIGUSR2, &old, nullptr);
    EXPECT_EQ(rc, 0);
    EXPECT_GE(slept, std::chrono::milliseconds(200));
    EXPECT_GE(g_signals.load(), 2);
}

} // namespace
