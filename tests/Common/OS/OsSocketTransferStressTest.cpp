// Bounded stress of framed transfer: a stream cut at every byte and at the
// piece boundaries, and many senders sharing one socket.
#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "Common/OS/SocketTestSupport.h"

using namespace sock_test;

namespace {

constexpr unsigned kBuf = 8192;

// A stream mixing both byte orders, link test headers and the sizes around
// the 2048-byte piece.
struct Stream {
    std::string bytes;
    std::vector<FrameSpec> frames;
    std::vector<std::size_t> frameStart; // offset of each frame in bytes
};

Stream mixedStream(const std::vector<unsigned>& payloads = {0, 1, 2020, 2021, 2048 - 28 + 1, 4096, 5000})
{
    Stream s;
    std::uint32_t seq = 1;
    for (unsigned p : payloads) {
        for (Order o : {Order::Big, Order::Little}) {
            if (seq % 3 == 0) s.bytes += linkTestHeader(o == Order::Big ? Order::Little : Order::Big);
            FrameSpec f;
            f.order = o;
            f.payload = p;
            f.seqNbr = seq;
            f.tag = seq;
            f.manager = seq % 12;
            ++seq;
            s.frameStart.push_back(s.bytes.size());
            s.bytes += buildFrame(f);
            s.frames.push_back(f);
        }
    }
    return s;
}

// Reads every frame of the stream with the socket on fd while write(peer)
// feeds it; checks each frame.
template <typename Feed>
void readStream(const Stream& s, Feed feed)
{
    SeamGuard seams;
    FdPair fds;
    unixPair(fds);
    OsSocket sock;
    sock.SetSocket(fds.a);
    fds.a = -1;
    const int readerFd = sock.GetSocket();
    std::thread peer([&] { feed(fds.b, readerFd); });
    std::vector<char> body(kBuf);
    ORV_CTL_MSG ctl;
    testing::internal::CaptureStdout();
    for (const auto& f : s.frames) {
        SCOPED_TRACE(f.seqNbr);
        ASSERT_TRUE(sock.GetOrvMessage(&ctl, reinterpret_cast<ORV_APP_MSG*>(body.data()), kBuf));
        expectFrame(ctl, body.data(), f);
    }
    peer.join();
    const std::string out = testing::internal::GetCapturedStdout();
    // Only the link test headers are mentioned.
    EXPECT_EQ(countOf(out, "\n"), countOf(out, "ReadCtlMsgCommon: IP[0.0.0.0] Test msg\n")) << out;
}

// Writes the stream in pieces ending at the given offsets, each only after
// the reader has taken everything before it.
void feedInPieces(int peer, int readerFd, const std::string& bytes, const std::vector<std::size_t>& cuts)
{
    std::size_t at = 0;
    for (std::size_t cut : cuts) {
        if (cut <= at || cut > bytes.size()) continue;
        if (!writeAll(peer, bytes.data() + at, cut - at) || !waitDrained(readerFd)) {
            ADD_FAILURE() << "peer stalled at " << cut;
            return;
        }
        at = cut;
    }
    if (at < bytes.size()) writeAll(peer, bytes.data() + at, bytes.size() - at);
}

} // namespace

TEST(FrameStreamStress, OneByteAtATime)
{
    // Every header position, both orders, and one body crossing a piece.
    const Stream s = mixedStream({0, 3, 2021});
    std::vector<std::size_t> cuts;
    for (std::size_t i = 1; i <= s.bytes.size(); ++i) cuts.push_back(i);
    readStream(s, [&](int peer, int readerFd) { feedInPieces(peer, readerFd, s.bytes, cuts); });
}

TEST(FrameStreamStress, CutsAroundHeadersAndPieceBoundaries)
{
    const Stream s = mixedStream();
    std::vector<std::size_t> cuts;
    for (std::size_t start : s.frameStart)
        for (std::size_t off :
             {1u, 11u, 12u, 13u, 39u, 40u, 12u + 2047u, 12u + 2048u, 12u + 2049u, 12u + 4096u, 12u + 4097u})
            cuts.push_back(start + off);
    std::sort(cuts.begin(), cuts.end());
    readStream(s, [&](int peer, int readerFd) { feedInPieces(peer, readerFd, s.bytes, cuts); });
}

TEST(FrameStreamStress, WholeStreamAtOnceOverTcp)
{
    SeamGuard seams;
    const Stream s = mixedStream();
    FdPair fds;
    tcpPair(fds);
    OsSocket sock;
    sock.SetSocket(fds.a);
    fds.a = -1;
    std::thread peer([&] {
        for (int i = 0; i < 20; ++i) writeAll(fds.b, s.bytes);
    });
    std::vector<char> body(kBuf);
    ORV_CTL_MSG ctl;
    testing::internal::CaptureStdout();
    for (int i = 0; i < 20; ++i)
        for (const auto& f : s.frames) {
            ASSERT_TRUE(sock.GetOrvMessage(&ctl, reinterpret_cast<ORV_APP_MSG*>(body.data()), kBuf));
            expectFrame(ctl, body.data(), f);
        }
    peer.join();
    testing::internal::GetCapturedStdout();
}

// Frames smaller and larger than the read-ahead, written in pseudo-random
// chunk sizes, so that the read-ahead and the in-place body reads meet every
// kind of boundary; both readers take turns.
TEST(FrameStreamStress, RandomChunksAcrossTheReadAhead)
{
    SeamGuard seams;
    const unsigned ahead = OsSocket::READ_AHEAD_SIZE;
    const Stream s = mixedStream({0, 3, 2021, ahead - 40, ahead - 39, ahead, ahead + 2048, 3 * ahead + 7, 1, 250000});
    FdPair fds;
    tcpPair(fds);
    OsSocket sock;
    sock.SetSocket(fds.a);
    fds.a = -1;
    std::thread peer([&] {
        std::uint32_t seed = 12345;
        for (int round = 0; round < 3; ++round)
            for (std::size_t at = 0; at < s.bytes.size();) {
                seed = seed * 1103515245u + 12345u;
                // Mostly small chunks, now and then a large one.
                const std::size_t chunk = (seed >> 16) % 8 == 0 ? (seed >> 8) % 300000 + 1 : (seed >> 8) % 3000 + 1;
                const std::size_t n = std::min(chunk, s.bytes.size() - at);
                if (!writeAll(fds.b, s.bytes.data() + at, n)) return;
                at += n;
            }
    });
    std::vector<char> body(260000);
    ORV_CTL_MSG ctl;
    testing::internal::CaptureStdout();
    bool allocating = false;
    for (int round = 0; round < 3; ++round)
        for (const auto& f : s.frames) {
            SCOPED_TRACE(f.seqNbr);
            allocating = !allocating;
            if (allocating) {
                ORV_APP_MSG* app = nullptr;
                ASSERT_TRUE(sock.GetOrvMessageWithAppMsgMemAlloc(&ctl, app));
                expectFrame(ctl, reinterpret_cast<char*>(app), f);
                delete[] reinterpret_cast<char*>(app);
            } else {
                ASSERT_TRUE(sock.GetOrvMessage(&ctl, reinterpret_cast<ORV_APP_MSG*>(body.data()),
                                               static_cast<unsigned>(body.size())));
                expectFrame(ctl, body.data(), f);
            }
        }
    peer.join();
    testing::internal::GetCapturedStdout();
}

// Several threads send whole frames through one socket at once; the peer
// reads them with the frame reader and checks every byte, so an interleaved
// chain shows up as a bad header or a wrong payload.
TEST(SendStress, ConcurrentChainsNeverInterleave)
{
    SeamGuard seams;
    FdPair fds;
    tcpPair(fds);
    OsSocket sender, receiver;
    sender.SetSocket(fds.b);
    receiver.SetSocket(fds.a);
    fds.a = fds.b = -1;

    constexpr int kThreads = 4;
    constexpr int kFrames = 150;
    const unsigned sizes[] = {0, 5, 100, 2048, 7000, 30000};
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kFrames; ++i) {
                FrameSpec f;
                f.order = (i % 2) ? Order::Big : Order::Little;
                f.manager = static_cast<std::uint32_t>(t);
                f.seqNbr = static_cast<std::uint32_t>(i);
                f.tag = static_cast<std::uint32_t>(t * 1000 + i);
                f.payload = sizes[(i + t) % 6];
                const std::string wire = buildFrame(f);
                // Three descriptors, as the router builds them.
                std::string ctl = wire.substr(0, 12), app = wire.substr(12, 28), payload = wire.substr(40);
                TCP_BD bd3{&payload[0], static_cast<std::int32_t>(payload.size()), nullptr};
                TCP_BD bd2{&app[0], 28, payload.empty() ? nullptr : &bd3};
                TCP_BD bd1{&ctl[0], 12, &bd2};
                if (!sender.SendBD(&bd1)) ++failures;
            }
        });
    }
    std::vector<int> nextSeq(kThreads, 0);
    std::vector<char> body(40000);
    ORV_CTL_MSG ctl;
    testing::internal::CaptureStdout();
    for (int n = 0; n < kThreads * kFrames; ++n) {
        ASSERT_TRUE(receiver.GetOrvMessage(&ctl, reinterpret_cast<ORV_APP_MSG*>(body.data()), 40000)) << n;
        const std::uint32_t t = ctl.manager;
        ASSERT_LT(t, static_cast<std::uint32_t>(kThreads));
        const ORV_APP_MSG* app = reinterpret_cast<const ORV_APP_MSG*>(body.data());
        const int i = static_cast<int>(app->seqNbr);
        ASSERT_EQ(i, nextSeq[t]) << "thread " << t; // each sender's frames stay in its order
        ++nextSeq[t];
        FrameSpec f;
        f.order = (i % 2) ? Order::Big : Order::Little;
        f.manager = t;
        f.seqNbr = static_cast<std::uint32_t>(i);
        f.tag = t * 1000 + static_cast<std::uint32_t>(i);
        f.payload = sizes[(static_cast<unsigned>(i) + t) % 6];
        expectFrame(ctl, body.data(), f);
    }
    for (auto& th : threads) th.join();
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out, "");
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(sender.MsgSent() >= static_cast<unsigned>(kThreads * kFrames * 2), true);
}

// A reader blocked in the frame reader is stopped by shutdown and close from
// another thread while a sender keeps sending; nothing hangs or crashes.
TEST(SendStress, ShutdownDuringTraffic)
{
    SeamGuard seams;
    for (int round = 0; round < 20; ++round) {
        FdPair fds;
        tcpPair(fds);
        auto sender = std::make_unique<OsSocket>();
        auto receiver = std::make_unique<OsSocket>();
        sender->SetSocket(fds.b);
        receiver->SetSocket(fds.a);
        fds.a = fds.b = -1;
        std::atomic<bool> stop{false};
        std::thread tx([&] {
            FrameSpec f;
            f.payload = 3000;
            const std::string wire = buildFrame(f);
            while (!stop.load() && sender->Send(wire.data(), static_cast<unsigned>(wire.size()))) {
            }
        });
        testing::internal::CaptureStdout();
        std::thread rx([&] {
            std::vector<char> body(kBuf);
            ORV_CTL_MSG ctl;
            while (receiver->GetOrvMessage(&ctl, reinterpret_cast<ORV_APP_MSG*>(body.data()), kBuf)) {
            }
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(round % 5));
        receiver->SignalShutdown();
        receiver->Close();
        rx.join();
        stop = true;
        sender->Close();
        tx.join();
        testing::internal::GetCapturedStdout();
    }
}
