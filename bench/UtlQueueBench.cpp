// Hand-off throughput of UtlQueue from one producer thread to one consumer,
// against a plain bounded deque with a mutex and two condition variables.
#include <benchmark/benchmark.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include "Common/Utility/UtlQueue.h"

namespace {

int g_item;

void BM_UtlQueueHandOff(benchmark::State& state)
{
    UtlQueue q("bench", static_cast<int>(state.range(0)));
    const auto total = state.max_iterations;
    std::thread producer([&] {
        for (benchmark::IterationCount i = 0; i < total; ++i) q.AddToQueue(&g_item, UtlQueue::WAIT_IF_OVERFLOW);
    });
    for (auto _ : state) {
        while (q.Empty()) q.WaitNotEmpty(1000);
        benchmark::DoNotOptimize(q.GetNext(true));
    }
    producer.join();
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_UtlQueueHandOff)->Arg(1)->Arg(64)->UseRealTime();

void BM_CondVarQueueHandOff(benchmark::State& state)
{
    const size_t cap = static_cast<size_t>(state.range(0));
    std::deque<void*> q;
    std::mutex m;
    std::condition_variable notEmpty, notFull;
    const auto total = state.max_iterations;
    std::thread producer([&] {
        for (benchmark::IterationCount i = 0; i < total; ++i) {
            std::unique_lock<std::mutex> lock(m);
            notFull.wait(lock, [&] { return q.size() < cap; });
            q.push_back(&g_item);
            notEmpty.notify_one();
        }
    });
    for (auto _ : state) {
        std::unique_lock<std::mutex> lock(m);
        notEmpty.wait(lock, [&] { return !q.empty(); });
        benchmark::DoNotOptimize(q.front());
        q.pop_front();
        notFull.notify_one();
    }
    producer.join();
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_CondVarQueueHandOff)->Arg(1)->Arg(64)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
