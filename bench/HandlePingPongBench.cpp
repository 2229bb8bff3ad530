// Round trip between two threads: SetEvent/WaitForSingleObject on two
// auto-reset events, against the same exchange over a std::mutex and a
// std::condition_variable. Run pinned (taskset -c 0) for stable figures.
#include <benchmark/benchmark.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "Common/OS/Linux/WinEvent.h"

namespace {

void BM_EventPingPong(benchmark::State& state)
{
    HANDLE ping = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    HANDLE pong = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    std::atomic<bool> stop{false};
    std::thread partner([&] {
        for (;;) {
            WaitForSingleObject(ping, INFINITE);
            if (stop.load(std::memory_order_relaxed)) return;
            SetEvent(pong);
        }
    });
    for (auto _ : state) {
        SetEvent(ping);
        WaitForSingleObject(pong, INFINITE);
    }
    stop = true;
    SetEvent(ping);
    partner.join();
    CloseHandle(ping);
    CloseHandle(pong);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_EventPingPong)->UseRealTime();

void BM_CondVarPingPong(benchmark::State& state)
{
    std::mutex m;
    std::condition_variable pingCv, pongCv;
    bool ping = false, pong = false, stop = false;
    std::thread partner([&] {
        std::unique_lock<std::mutex> lock(m);
        for (;;) {
            pingCv.wait(lock, [&] { return ping; });
            ping = false;
            if (stop) return;
            pong = true;
            pongCv.notify_one();
        }
    });
    for (auto _ : state) {
        std::unique_lock<std::mutex> lock(m);
        ping = true;
        pingCv.notify_one();
        pongCv.wait(lock, [&] { return pong; });
        pong = false;
    }
    {
        std::lock_guard<std::mutex> lock(m);
        stop = ping = true;
    }
    pingCv.notify_one();
    partner.join();
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_CondVarPingPong)->UseRealTime();

// The same with the notification made after the unlock, for reference: the
// event layer wakes its waiters after releasing its locks too.
void BM_CondVarPingPongNotifyUnlocked(benchmark::State& state)
{
    std::mutex m;
    std::condition_variable pingCv, pongCv;
    bool ping = false, pong = false, stop = false;
    std::thread partner([&] {
        for (;;) {
            {
                std::unique_lock<std::mutex> lock(m);
                pingCv.wait(lock, [&] { return ping; });
                ping = false;
                if (stop) return;
                pong = true;
            }
            pongCv.notify_one();
        }
    });
    for (auto _ : state) {
        {
            std::lock_guard<std::mutex> lock(m);
            ping = true;
        }
        pingCv.notify_one();
        std::unique_lock<std::mutex> lock(m);
        pongCv.wait(lock, [&] { return pong; });
        pong = false;
    }
    {
        std::lock_guard<std::mutex> lock(m);
        stop = ping = true;
    }
    pingCv.notify_one();
    partner.join();
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_CondVarPingPongNotifyUnlocked)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
