// Bounded stress of framed transfer: a stream written in random chunks while
// it is read, many senders sharing one socket, and shutdown during traffic.
#include <algorithm>
#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "Common/OS/SocketTestSupport.h"

using namespace sock_test;

namespace {

// A reading socket on one end of a TCP connection; the test plays the peer.
struct Reader {
    SeamGuard seams;
    FdPair fds;
    OsSocket sock;
    std::vector<char> body = std::vector<char>(260000);
    Reader()
    {
        tcpPair(fds);
        sock.SetSocket(fds.a);
        fds.a = -1;
    }
    // Reads one frame, with the allocating reader or into the buffer.
    void expectNext(const FrameSpec& f, bool allocating)
    {
        ORV_CTL_MSG ctl;
        ORV_APP_MSG* app = reinterpret_cast<ORV_APP_MSG*>(body.data());
        if (allocating) app = nullptr;
        ASSERT_TRUE(allocating ? sock.GetOrvMessageWithAppMsgMemAlloc(&ctl, app)
                               : sock.GetOrvMessage(&ctl, app, static_cast<unsigned>(body.size())));
        expectFrame(ctl, reinterpret_cast<char*>(app), f);
        if (allocating) delete[] reinterpret_cast<char*>(app);
    }
};

// Frame i of sender t.
FrameSpec sentFrame(std::uint32_t t, std::uint32_t i, unsigned payload)
{
    FrameSpec f;
    f.order = (i % 2) ? Order::Big : Order::Little;
    f.manager = t;
    f.seqNbr = i;
    f.tag = t * 1000 + i;
    f.payload = payload;
    return f;
}

} // namespace

// Frames around the 2048-byte piece and the read-ahead, both byte orders and
// link test headers, written in pseudo-random chunks so that the read-ahead
// and the in-place body reads meet every kind of boundary.
TEST(FrameStreamStress, RandomChunksAcrossTheReadAhead)
{
    const unsigned ahead = OsSocket::READ_AHEAD_SIZE;
    std::string bytes;
    std::vector<FrameSpec> frames;
    std::uint32_t seq = 1;
    for (unsigned p : {0u, 1u, 3u, 2021u, 4096u, ahead - 40, ahead - 39, ahead, ahead + 2048, 3 * ahead + 7, 250000u})
        for (Order o : {Order::Big, Order::Little}) {
            if (seq % 3 == 0) bytes += linkTestHeader(o);
            frames.push_back(sentFrame(seq % 12, seq, p));
            frames.back().order = o;
            bytes += buildFrame(frames.back());
            ++seq;
        }
    Reader r;
    std::thread peer([&] {
        std::uint32_t seed = 12345;
        for (int round = 0; round < 3; ++round)
            for (std::size_t at = 0; at < bytes.size();) {
                seed = seed * 1103515245u + 12345u;
                // Mostly small chunks, now and then a large one.
                const std::size_t chunk = (seed >> 16) % 8 == 0 ? (seed >> 8) % 300000 + 1 : (seed >> 8) % 3000 + 1;
                const std::size_t n = std::min(chunk, bytes.size() - at);
                if (!writeAll(r.fds.b, bytes.data() + at, n)) return;
                at += n;
            }
    });
    TraceCapture cap;
    bool allocating = false;
    for (int round = 0; round < 3 && !testing::Test::HasFatalFailure(); ++round)
        for (const auto& f : frames) {
            SCOPED_TRACE(f.seqNbr);
            allocating = !allocating;
            r.expectNext(f, allocating);
            if (testing::Test::HasFatalFailure()) break;
        }
    if (testing::Test::HasFatalFailure()) r.sock.Close();
    peer.join();
}

// Several threads send whole frames through one socket at once; the peer
// checks every byte, so an interleaved chain shows up as a bad frame. Then a
// reader blocked in the frame reader is stopped from another thread while a
// sender keeps sending.
TEST(SendStress, ConcurrentChainsNeverInterleaveAndShutdownEndsTraffic)
{
    Reader r;
    OsSocket sender;
    sender.SetSocket(r.fds.b);
    r.fds.b = -1;
    const unsigned sizes[] = {0, 5, 100, 2048, 7000, 30000};
    constexpr std::uint32_t kThreads = 4, kFrames = 150;
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (std::uint32_t t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (std::uint32_t i = 0; i < kFrames; ++i) {
                const std::string wire = buildFrame(sentFrame(t, i, sizes[(i + t) % 6]));
                // Three descriptors, as the router builds them.
                std::string ctl = wire.substr(0, 12), app = wire.substr(12, 28), payload = wire.substr(40);
                TCP_BD bd3{&payload[0], static_cast<std::int32_t>(payload.size()), nullptr};
                TCP_BD bd2{&app[0], 28, payload.empty() ? nullptr : &bd3};
                TCP_BD bd1{&ctl[0], 12, &bd2};
                if (!sender.SendBD(&bd1)) ++failures;
            }
        });
    std::vector<std::uint32_t> nextSeq(kThreads, 0);
    TraceCapture cap;
    for (std::uint32_t n = 0; n < kThreads * kFrames; ++n) {
        ORV_CTL_MSG ctl;
        ASSERT_TRUE(r.sock.GetOrvMessage(&ctl, reinterpret_cast<ORV_APP_MSG*>(r.body.data()), 40000)) << n;
        const std::uint32_t t = ctl.manager;
        ASSERT_LT(t, kThreads);
        const std::uint32_t i = reinterpret_cast<const ORV_APP_MSG*>(r.body.data())->seqNbr;
        ASSERT_EQ(i, nextSeq[t]++) << "thread " << t; // each sender's frames stay in its order
        expectFrame(ctl, r.body.data(), sentFrame(t, i, sizes[(i + t) % 6]));
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(cap.text(), "");
    EXPECT_EQ(failures.load(), 0);

    std::atomic<bool> stop{false};
    std::thread tx([&] {
        const std::string wire = buildFrame(sentFrame(0, 0, 3000));
        while (!stop.load() && sender.Send(wire.data(), static_cast<unsigned>(wire.size()))) {
        }
    });
    std::thread rx([&] {
        ORV_CTL_MSG ctl;
        while (r.sock.GetOrvMessage(&ctl, reinterpret_cast<ORV_APP_MSG*>(r.body.data()), 8192)) {
        }
    });
    TraceCapture cap2;
    waitDrained(r.sock.GetSocket());
    r.sock.SignalShutdown();
    r.sock.Close();
    rx.join();
    stop = true;
    sender.Close();
    tx.join();
}
