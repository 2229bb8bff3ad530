#pragma once

// Timing of round trips, shared by the library's benchmark and the ZeroMQ
// yardstick so that both report the same figures the same way: median and
// p99 in microseconds and process CPU time per round trip.
#include <time.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <vector>

namespace bench_timing {

using Clock = std::chrono::steady_clock;

// CPU time of the whole process (every thread), in microseconds. Pinned to
// one CPU, this is what a round trip costs whatever else the machine runs.
inline double processCpuUs()
{
    timespec ts{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return double(ts.tv_sec) * 1e6 + double(ts.tv_nsec) / 1e3;
}

inline double percentile(std::vector<double>& v, double p)
{
    if (v.empty()) return 0;
    const std::size_t k = std::min(v.size() - 1, std::size_t(p * double(v.size() - 1) + 0.5));
    std::nth_element(v.begin(), v.begin() + std::ptrdiff_t(k), v.end());
    return v[k];
}

struct Timed {
    Clock::time_point began{}; // first timed round trip of this thread
    Clock::time_point ended{};
    std::size_t count = 0; // round trips timed
    double medianUs = 0;
    double cpuUs = 0; // process CPU time per round trip
};

// Warms the path, then times one round trip per iteration and sets the
// counters cpu_us, median_us and p99_us.
template <typename RoundTrip>
Timed timeRoundTrips(benchmark::State& state, RoundTrip roundTrip)
{
    std::vector<double> us;
    us.reserve(1 << 20);
    for (int i = 0; i < 20; ++i) roundTrip();
    Timed t;
    double cpu0 = 0;
    for (auto _ : state) {
        if (t.began == Clock::time_point{}) {
            t.began = Clock::now();
            cpu0 = processCpuUs();
        }
        const auto t0 = Clock::now();
        const bool ok = roundTrip();
        const double s = std::chrono::duration<double>(Clock::now() - t0).count();
        state.SetIterationTime(s);
        if (!ok) {
            state.SkipWithError("no or wrong reply");
            break;
        }
        us.push_back(s * 1e6);
    }
    const double cpu = processCpuUs() - cpu0;
    state.SetItemsProcessed(state.iterations());
    t.count = us.size();
    t.ended = Clock::now();
    if (us.empty()) return t;
    t.cpuUs = cpu / double(us.size() * std::size_t(state.threads()));
    t.medianUs = percentile(us, 0.5);
    state.counters["cpu_us"] = benchmark::Counter(t.cpuUs, benchmark::Counter::kAvgThreads);
    state.counters["median_us"] = benchmark::Counter(t.medianUs, benchmark::Counter::kAvgThreads);
    state.counters["p99_us"] = benchmark::Counter(percentile(us, 0.99), benchmark::Counter::kAvgThreads);
    return t;
}

} // namespace bench_timing
