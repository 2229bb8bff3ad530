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
            f.seqNbr = f.tag = seq;
            f.manager = seq % 12;
            ++seq;
            s.frameStart.push_back(s.bytes.size());
            s.bytes += buildFrame(f);
            s.frames.push_back(f);
        }
    }
    return s;
}

// A reading socket on one end of a connection; the test plays the peer.
struct Reader {
    SeamGuard seams;
    FdPair fds;
    OsSocket sock;
    explicit Reader(bool tcp)
    {
        if (tcp)
            tcpPair(fds);
        else
            unixPair(fds);
        sock.SetSocket(fds.a);
        fds.a = -1;
    }
    // Reads one frame, with the allocating reader or into a buffer of size
    // bytes, and checks it against f.
    void expectNext(const FrameSpec& f, bool allocating = false, unsigned size = kBuf)
    {
        ORV_CTL_MSG ctl;
        if (allocating) {
            ORV_APP_MSG* app = nullptr;
            ASSERT_TRUE(sock.GetOrvMessageWithAppMsgMemAlloc(&ctl, app));
            expectFrame(ctl, reinterpret_cast<char*>(app), f);
            delete[] reinterpret_cast<char*>(app);
            return;
        }
        body.resize(size);
        ASSERT_TRUE(sock.GetOrvMessage(&ctl, reinterpret_cast<ORV_APP_MSG*>(body.data()), size));
        expectFrame(ctl, body.data(), f);
    }
    std::vector<char> body;
};

// Writes the stream in pieces ending at the given offsets, each only after
// the reader has taken everything before it, and reads every frame.
void readInPieces(const Stream& s, const std::vector<std::size_t>& cuts)
{
    Reader r(false);
    const int readerFd = r.sock.GetSocket();
    std::thread peer([&] {
        std::size_t at = 0;
        for (std::size_t cut : cuts) {
            if (cut <= at || cut > s.bytes.size()) continue;
            if (!writeAll(r.fds.b, s.bytes.data() + at, cut - at) || !waitDrained(readerFd)) {
                ADD_FAILURE() << "peer stalled at " << cut;
                return;
            }
            at = cut;
        }
        if (at < s.bytes.size()) writeAll(r.fds.b, s.bytes.data() + at, s.bytes.size() - at);
    });
    TraceCapture cap;
    for (const auto& f : s.frames) {
        SCOPED_TRACE(f.seqNbr);
        r.expectNext(f);
        if (testing::Test::HasFatalFailure()) break;
    }
    peer.join();
    const std::string out = cap.text();
    // Only the link test headers are mentioned.
    EXPECT_EQ(countOf(out, "\n"), countOf(out, "ReadCtlMsgCommon: IP[0.0.0.0] Test msg\n")) << out;
}

} // namespace

TEST(FrameStreamStress, OneByteAtATime)
{
    // Every header position, both orders, and one body crossing a piece.
    const Stream s = mixedStream({0, 3, 2021});
    std::vector<std::size_t> cuts;
    for (std::size_t i = 1; i <= s.bytes.size(); ++i) cuts.push_back(i);
    readInPieces(s, cuts);
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
    readInPieces(s, cuts);
}

// Frames smaller and larger than the read-ahead, written over TCP in
// pseudo-random chunk sizes, so that the read-ahead and the in-place body
// reads meet every kind of boundary; both readers take turns.
TEST(FrameStreamStress, RandomChunksAcrossTheReadAhead)
{
    const unsigned ahead = OsSocket::READ_AHEAD_SIZE;
    const Stream s = mixedStream({0, 3, 2021, ahead - 40, ahead - 39, ahead, ahead + 2048, 3 * ahead + 7, 1, 250000});
    Reader r(true);
    std::thread peer([&] {
        std::uint32_t seed = 12345;
        for (int round = 0; round < 3; ++round)
            for (std::size_t at = 0; at < s.bytes.size();) {
                seed = seed * 1103515245u + 12345u;
                // Mostly small chunks, now and then a large one.
                const std::size_t chunk = (seed >> 16) % 8 == 0 ? (seed >> 8) % 300000 + 1 : (seed >> 8) % 3000 + 1;
                const std::size_t n = std::min(chunk, s.bytes.size() - at);
                if (!writeAll(r.fds.b, s.bytes.data() + at, n)) return;
                at += n;
            }
    });
    TraceCapture cap;
    bool allocating = false;
    for (int round = 0; round < 3 && !testing::Test::HasFatalFailure(); ++round)
        for (const auto& f : s.frames) {
            SCOPED_TRACE(f.seqNbr);
            allocating = !allocating;
            r.expectNext(f, allocating, 260000);
            if (testing::Test::HasFatalFailure()) break;
        }
    if (testing::Test::HasFatalFailure()) r.sock.Close();
    peer.join();
}

namespace {

// Frame i of sender t in SendStress.
FrameSpec sentFrame(std::uint32_t t, std::uint32_t i)
{
    const unsigned sizes[] = {0, 5, 100, 2048, 7000, 30000};
    FrameSpec f;
    f.order = (i % 2) ? Order::Big : Order::Little;
    f.manager = t;
    f.seqNbr = i;
    f.tag = t * 1000 + i;
    f.payload = sizes[(i + t) % 6];
    return f;
}

} // namespace

// Several threads send whole frames through one socket at once; the peer
// reads them with the frame reader and checks every byte, so an interleaved
// chain shows up as a bad header or a wrong payload.
TEST(SendStress, ConcurrentChainsNeverInterleave)
{
    Reader r(true);
    OsSocket sender;
    sender.SetSocket(r.fds.b);
    r.fds.b = -1;

    constexpr std::uint32_t kThreads = 4, kFrames = 150;
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (std::uint32_t t = 0; t < kThreads; ++t) {
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
    }
    std::vector<std::uint32_t> nextSeq(kThreads, 0);
    std::vector<char> body(40000);
    ORV_CTL_MSG ctl;
    TraceCapture cap;
    for (std::uint32_t n = 0; n < kThreads * kFrames; ++n) {
        ASSERT_TRUE(r.sock.GetOrvMessage(&ctl, reinterpret_cast<ORV_APP_MSG*>(body.data()), 40000)) << n;
        const std::uint32_t t = ctl.manager;
        ASSERT_LT(t, kThreads);
        const std::uint32_t i = reinterpret_cast<const ORV_APP_MSG*>(body.data())->seqNbr;
        ASSERT_EQ(i, nextSeq[t]++) << "thread " << t; // each sender's frames stay in its order
        expectFrame(ctl, body.data(), sentFrame(t, i));
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(cap.text(), "");
    EXPECT_EQ(failures.load(), 0);
    EXPECT_GE(sender.MsgSent(), kThreads * kFrames * 2);
}

// A reader blocked in the frame reader is stopped by shutdown and close from
// another thread while a sender keeps sending; nothing hangs or crashes.
TEST(SendStress, ShutdownDuringTraffic)
{
    for (int round = 0; round < 20; ++round) {
        auto r = std::make_unique<Reader>(true);
        auto sender = std::make_unique<OsSocket>();
        sender->SetSocket(r->fds.b);
        r->fds.b = -1;
        std::atomic<bool> stop{false};
        std::thread tx([&] {
            FrameSpec f;
            f.payload = 3000;
            const std::string wire = buildFrame(f);
            while (!stop.load() && sender->Send(wire.data(), static_cast<unsigned>(wire.size()))) {
            }
        });
        TraceCapture cap;
        std::thread rx([&] {
            std::vector<char> body(kBuf);
            ORV_CTL_MSG ctl;
            while (r->sock.GetOrvMessage(&ctl, reinterpret_cast<ORV_APP_MSG*>(body.data()), kBuf)) {
            }
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(round % 5));
        r->sock.SignalShutdown();
        r->sock.Close();
        rx.join();
        stop = true;
        sender->Close();
        tx.join();
    }
}
