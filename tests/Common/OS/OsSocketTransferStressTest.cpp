// Bounded stress of framed transfer: many senders share one socket.
#include <atomic>
#include <thread>
#include <vector>

#include "Common/OS/SocketTestSupport.h"

using namespace sock_test;

namespace {

// Frame i of sender t.
FrameShape sentFrame(std::uint32_t t, std::uint32_t i)
{
    const unsigned sizes[] = {0, 5, 100, 2048, 7000, 30000};
    FrameShape f;
    f.order = (i % 2) ? Order::Big : Order::Little;
    f.manager = t;
    f.seqNbr = i;
    f.tag = t * 1000 + i;
    f.payload = sizes[(i + t) % 6];
    return f;
}

} // namespace

// The peer checks every byte, so an interleaved chain shows up as a bad frame.
TEST(SendStress, ConcurrentChainsNeverInterleave)
{
    SeamGuard seams;
    FdPair fds;
    OsSocket reader, sender;
    reader.SetSocket(fds.take());
    sender.SetSocket(std::exchange(fds.b, -1));
    constexpr std::uint32_t kThreads = 4, kFrames = 150;
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (std::uint32_t t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (std::uint32_t i = 0; i < kFrames; ++i) {
                const std::string wire = buildFrame(sentFrame(t, i));
                // Three descriptors, as the router builds them.
                std::string ctl = wire.substr(0, 12), app = wire.substr(12, 28), payload = wire.substr(40);
                TCP_BD bd3{&payload[0], static_cast<std::int32_t>(payload.size()), nullptr};
                TCP_BD bd2{&app[0], 28, payload.empty() ? nullptr : &bd3};
                TCP_BD bd1{&ctl[0], 12, &bd2};
                if (!sender.SendBD(&bd1)) ++failures;
            }
        });
    std::vector<std::uint32_t> nextSeq(kThreads, 0);
    std::vector<char> body(40000);
    ORV_APP_MSG* app = reinterpret_cast<ORV_APP_MSG*>(body.data());
    ORV_CTL_MSG ctl;
    TraceCapture cap;
    for (std::uint32_t n = 0; n < kThreads * kFrames; ++n) {
        ASSERT_TRUE(reader.GetOrvMessage(&ctl, app, 40000)) << n;
        const std::uint32_t t = ctl.manager;
        ASSERT_LT(t, kThreads);
        ASSERT_EQ(app->seqNbr, nextSeq[t]++) << "thread " << t; // each sender's frames stay in its order
        expectFrame(ctl, body.data(), sentFrame(t, app->seqNbr));
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(cap.text(), "");
    EXPECT_EQ(failures.load(), 0);
}
