#include "Common/Utility/UtlQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "Common/OS/Linux/OSAL.h"
#include "Common/OS/Linux/WinEvent.h"

namespace {

int* item(int v) { return new int(v); }

int take(UtlQueue& q)
{
    int* p = static_cast<int*>(q.GetNext(true));
    if (p == nullptr) return -1;
    const int v = *p;
    delete p;
    return v;
}

TEST(UtlQueueTest, FirstInFirstOutAndNotEmptyEventFollowsContents)
{
    UtlQueue q("fifo", 10);
    EXPECT_EQ("fifo", q.Name());
    EXPECT_TRUE(q.Empty());
    EXPECT_FALSE(q.WaitNotEmpty(0));
    for (int i = 1; i <= 3; ++i) EXPECT_TRUE(q.AddToQueue(item(i), UtlQueue::RETURN_IF_OVERFLOW));
    EXPECT_TRUE(q.WaitNotEmpty(0));
    EXPECT_FALSE(q.Empty());
    EXPECT_EQ(1, take(q));
    EXPECT_EQ(2, take(q));
    EXPECT_TRUE(q.WaitNotEmpty(0));
    EXPECT_EQ(3, take(q));
    EXPECT_FALSE(q.WaitNotEmpty(0));
    EXPECT_TRUE(q.Empty());
}

TEST(UtlQueueTest, PeekLeavesTheItemAndTheEvent)
{
    UtlQueue q(std::string("peek"), 4);
    int* p = item(7);
    q.AddToQueue(p, UtlQueue::WAIT_IF_OVERFLOW);
    EXPECT_EQ(p, q.GetNext(false));
    EXPECT_EQ(p, q.GetNext(false));
    EXPECT_TRUE(q.WaitNotEmpty(0));
    EXPECT_EQ(7, take(q));
}

TEST(UtlQueueTest, OverflowReturnsFalseAndKeepsContents)
{
    UtlQueue q("small", 2);
    EXPECT_TRUE(q.AddToQueue(item(1), UtlQueue::RETURN_IF_OVERFLOW));
    EXPECT_TRUE(q.AddToQueue(item(2), UtlQueue::RETURN_IF_OVERFLOW));
    int* third = item(3);
    EXPECT_FALSE(q.AddToQueue(third, UtlQueue::RETURN_IF_OVERFLOW));
    delete third;
    EXPECT_EQ(1, take(q));
    EXPECT_EQ(2, take(q));
    EXPECT_TRUE(q.Empty());
}

TEST(UtlQueueTest, WaitIfOverflowBlocksUntilAnItemIsRemoved)
{
    UtlQueue q("blocking", 2);
    q.AddToQueue(item(1), UtlQueue::RETURN_IF_OVERFLOW);
    q.AddToQueue(item(2), UtlQueue::RETURN_IF_OVERFLOW);
    std::atomic<bool> added{false};
    std::thread producer([&] {
        EXPECT_TRUE(q.AddToQueue(item(3), UtlQueue::WAIT_IF_OVERFLOW));
        added = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(added.load());
    EXPECT_EQ(1, take(q));
    producer.join();
    EXPECT_TRUE(added.load());
    EXPECT_EQ(2, take(q));
    EXPECT_EQ(3, take(q));
}

TEST(UtlQueueTest, ConsumerWakesWhenAnItemArrives)
{
    UtlQueue q("wake", 4);
    std::thread consumer([&] {
        ASSERT_TRUE(q.WaitNotEmpty(10000));
        EXPECT_EQ(42, take(q));
    });
    q.AddToQueue(item(42), UtlQueue::RETURN_IF_OVERFLOW);
    consumer.join();
    const DWORD start = GetTickCount();
    EXPECT_FALSE(q.WaitNotEmpty(20));
    EXPECT_GE(GetTickCount() - start, 19u);
}

TEST(UtlQueueTest, BadInputIsReportedOnStandardOutput)
{
    UtlQueue q("bad", 2);
    testing::internal::CaptureStdout();
    EXPECT_FALSE(q.AddToQueue(nullptr, UtlQueue::RETURN_IF_OVERFLOW));
    EXPECT_EQ("  BAD pointer to queue\n", testing::internal::GetCapturedStdout());

    for (bool remove : {true, false}) {
        testing::internal::CaptureStdout();
        EXPECT_EQ(nullptr, q.GetNext(remove));
        EXPECT_EQ("  BAD queue state\n  BAD queue pointer\n", testing::internal::GetCapturedStdout());
    }
    EXPECT_FALSE(q.WaitNotEmpty(0));
}

TEST(UtlQueueTest, DestructionFreesLeftoverItems)
{
    // Leak checking (ASan) fails this test if the items survive the queue.
    auto* q = new UtlQueue("leftovers", 8);
    for (int i = 0; i < 5; ++i) q->AddToQueue(::operator new(64), UtlQueue::RETURN_IF_OVERFLOW);
    delete q;
}

} // namespace
