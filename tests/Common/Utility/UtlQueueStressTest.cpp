// Bounded stress of UtlQueue: producers block on a small capacity, several
// consumers race for items; every item must arrive exactly once.
#include <gtest/gtest.h>

#include "Common/OS/Linux/PlatformTestSupport.h"
#include "Common/Utility/UtlQueue.h"

namespace {

TEST(UtlQueueStressTest, EveryItemArrivesOnceThroughABlockingQueue)
{
    constexpr int kProducers = 3, kConsumers = 2, kItems = 5000, kTotal = kProducers * kItems;
    UtlQueue q("stress", 8);
    std::atomic<int> consumed{0};
    std::atomic<bool> stuck{false};
    std::vector<std::atomic<int>> seen(kTotal);
    // Racing consumers may find the queue empty and say so on stdout.
    testing::internal::CaptureStdout();
    std::vector<std::thread> threads;
    for (int p = 0; p < kProducers; ++p)
        threads.emplace_back([&, p] {
            for (int i = 0; i < kItems; ++i) q.AddToQueue(new int(p * kItems + i), UtlQueue::WAIT_IF_OVERFLOW);
        });
    for (int c = 0; c < kConsumers; ++c)
        threads.emplace_back([&] {
            for (const DWORD start = GetTickCount(); consumed < kTotal && !stuck;) {
                stuck = GetTickCount() - start > 6 * tavro_test::kStuckMs;
                while (q.WaitNotEmpty(50) && !q.Empty())
                    if (int* v = static_cast<int*>(q.GetNext(true))) {
                        ++seen[*v];
                        ++consumed;
                        delete v;
                    }
            }
        });
    for (auto& t : threads) t.join();
    testing::internal::GetCapturedStdout();
    EXPECT_FALSE(stuck.load());
    EXPECT_EQ(kTotal, consumed.load());
    for (int i = 0; i < kTotal; ++i) ASSERT_EQ(1, seen[i].load()) << i;
    EXPECT_TRUE(q.Empty());
}

} // namespace
