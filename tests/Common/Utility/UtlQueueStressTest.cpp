// Bounded stress of UtlQueue: producers block on a small capacity, several
// consumers race for items; every item must arrive exactly once.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "Common/OS/Linux/WinEvent.h"
#include "Common/Utility/UtlQueue.h"

namespace {

TEST(UtlQueueStressTest, EveryItemArrivesOnceThroughABlockingQueue)
{
    constexpr int kProducers = 3, kConsumers = 2, kItems = 5000, kCapacity = 8;
    UtlQueue q("stress", kCapacity);
    std::atomic<int> consumed{0};
    std::atomic<long long> sum{0};
    std::atomic<bool> stuck{false};
    std::vector<std::atomic<int>> seen(kProducers * kItems);

    // Racing consumers may find the queue empty and say so on stdout.
    testing::internal::CaptureStdout();
    std::vector<std::thread> threads;
    for (int p = 0; p < kProducers; ++p)
        threads.emplace_back([&, p] {
            for (int i = 0; i < kItems; ++i) q.AddToQueue(new int(p * kItems + i), UtlQueue::WAIT_IF_OVERFLOW);
        });
    for (int c = 0; c < kConsumers; ++c)
        threads.emplace_back([&] {
            const DWORD start = GetTickCount();
            while (consumed < kProducers * kItems) {
                if (GetTickCount() - start > 60000) {
                    stuck = true;
                    return;
                }
                if (!q.WaitNotEmpty(50)) continue;
                while (int* v = static_cast<int*>(q.GetNext(true))) {
                    ++seen[*v];
                    sum += *v;
                    delete v;
                    ++consumed;
                }
            }
        });
    for (auto& t : threads) t.join();
    testing::internal::GetCapturedStdout();

    EXPECT_FALSE(stuck.load());
    EXPECT_EQ(kProducers * kItems, consumed.load());
    const long long n = kProducers * kItems;
    EXPECT_EQ(n * (n - 1) / 2, sum.load());
    for (auto& s : seen) ASSERT_EQ(1, s.load());
    EXPECT_TRUE(q.Empty());
}

} // namespace
