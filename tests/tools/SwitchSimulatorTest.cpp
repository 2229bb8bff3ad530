#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "Ap/ApRawStats.h"
#include "SwitchSimulator.h"

using namespace std::chrono_literals;
using switchsim::Bytes;
using switchsim::SwitchSimulator;

namespace {

// Expected bytes are built from shifts here, never with the simulator's
// encoder, and "host order" is whatever this machine is.
bool hostIsBig()
{
    const std::uint16_t one = 1;
    std::uint8_t first;
    std::memcpy(&first, &one, 1);
    return first == 0;
}

void putWord(Bytes& out, std::uint64_t v, unsigned width, bool reversed)
{
    const bool big = hostIsBig() != reversed;
    for (unsigned i = 0; i < width; ++i) {
        const unsigned shift = big ? 8 * (width - 1 - i) : 8 * i;
        out.push_back(std::uint8_t(v >> shift));
    }
}

std::uint64_t getWord(const Bytes& in, std::size_t at, unsigned width, bool reversed)
{
    const bool big = hostIsBig() != reversed;
    std::uint64_t v = 0;
    for (unsigned i = 0; i < width; ++i) {
        const unsigned shift = big ? 8 * (width - 1 - i) : 8 * i;
        v |= std::uint64_t(in.at(at + i)) << shift;
    }
    return v;
}

constexpr std::uint32_t kMsg = 0x4D53473A, kTst = 0x5453543A, kLink = 0x4C494E4B;
constexpr std::uint32_t kCmd = 0x434D443A, kRsp = 0x5253503A;

Bytes linkTest(bool rev)
{
    Bytes b;
    for (std::uint32_t w : {kTst, kLink, 12u}) putWord(b, w, 4, rev);
    return b;
}

Bytes frame(bool rev, std::uint32_t type, std::uint32_t code, std::uint32_t seq, std::uint32_t stat,
            std::uint32_t src, const Bytes& payload = {}, std::uint32_t mgr = ~0u)
{
    Bytes b;
    const auto len = std::uint32_t(payload.size());
    for (std::uint32_t w : {kMsg, mgr == ~0u ? code / 10000 : mgr, 28 + len}) putWord(b, w, 4, rev);
    for (std::uint32_t w : {type, code, seq, stat, src, 0u, len}) putWord(b, w, 4, rev);
    b.insert(b.end(), payload.begin(), payload.end());
    return b;
}

Bytes slotRequest(std::uint16_t slot, bool rev)
{
    Bytes b;
    putWord(b, slot, 2, rev);
    return b;
}

class Client {
public:
    explicit Client(std::uint16_t port)
    {
        fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in sa{};
        sa.sin_family = AF_INET;
        sa.sin_port = htons(port);
        sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(0, ::connect(fd_, reinterpret_cast<sockaddr*>(&sa), sizeof sa));
    }
    ~Client() { ::close(fd_); }
    void send(const Bytes& b) { ASSERT_EQ(ssize_t(b.size()), ::send(fd_, b.data(), b.size(), MSG_NOSIGNAL)); }
    // Exactly n bytes, or fewer when the peer closed first.
    Bytes read(std::size_t n)
    {
        Bytes out;
        while (out.size() < n) {
            pollfd p{fd_, POLLIN, 0};
            if (::poll(&p, 1, 5000) != 1) break;
            std::uint8_t buf[65536];
            const ssize_t r = ::recv(fd_, buf, std::min(sizeof buf, n - out.size()), 0);
            if (r <= 0) break;
            out.insert(out.end(), buf, buf + r);
        }
        return out;
    }
    // One frame whose order the test knows.
    Bytes readFrame(bool rev)
    {
        Bytes f = read(12);
        if (f.size() < 12) return f;
        Bytes rest = read(std::size_t(getWord(f, 8, 4, rev) & 0x7FFFFFFF));
        f.insert(f.end(), rest.begin(), rest.end());
        return f;
    }
    bool closedByPeer()
    {
        pollfd p{fd_, POLLIN, 0};
        std::uint8_t b;
        return ::poll(&p, 1, 5000) == 1 && ::recv(fd_, &b, 1, 0) == 0;
    }

private:
    int fd_ = -1;
};

class SwitchSimulatorTest : public ::testing::Test {
protected:
    void start(switchsim::Options o = {})
    {
        o.snmpPort = 0;
        o.pcePort = 0;
        o.statsClock = [this] { return clock.load(); };
        o.transcript = [this](const std::string& line) {
            std::lock_guard<std::mutex> lk(mu);
            lines.push_back(line);
        };
        std::string error;
        ASSERT_TRUE(sim.start(o, &error)) << error;
    }
    // The simulator's threads use the members below; stop them first.
    void TearDown() override { sim.stop(); }
    std::vector<std::string> transcript()
    {
        std::lock_guard<std::mutex> lk(mu);
        return lines;
    }

    std::atomic<std::uint64_t> clock{100};
    SwitchSimulator sim;
    std::mutex mu;
    std::vector<std::string> lines;
};

TEST_F(SwitchSimulatorTest, AnswersInTheClientsOrderOrTheOppositeOneByteForByte)
{
    struct Case {
        bool clientRev;
        bool reverseFault;
    };
    for (const Case& c : {Case{false, false}, Case{true, false}, Case{false, true}, Case{true, true}}) {
        SCOPED_TRACE(::testing::Message() << "client reversed=" << c.clientRev << " --reverse=" << c.reverseFault);
        switchsim::Options o;
        o.faults.reverse = c.reverseFault;
        start(o);
        Client cl(sim.snmpPort());
        const Bytes cmd = frame(c.clientRev, kCmd, 10002, 77, 1, 25, {1, 2, 3, 4});
        Bytes sent = linkTest(c.clientRev);
        sent.insert(sent.end(), cmd.begin(), cmd.end());
        cl.send(sent);
        const bool rspRev = c.clientRev != c.reverseFault;
        EXPECT_EQ(frame(rspRev, kRsp, 10002, 77, 0, 1), cl.readFrame(rspRev));

        ASSERT_EQ(1u, sim.receivedFrames().size());
        const switchsim::SimFrame f = sim.receivedFrames()[0];
        EXPECT_EQ(c.clientRev, f.order == switchsim::WireOrder::Reversed);
        EXPECT_EQ(std::make_tuple(1u, 32u, 10002u, 77u, 1u, 25u, 4u), std::make_tuple(f.manager, f.size, f.cmdCode,
                                                                                       f.seqNbr, f.msgStat, f.srcAddr,
                                                                                       f.appSize));
        EXPECT_EQ((Bytes{1, 2, 3, 4}), f.payload);
        EXPECT_EQ(cmd, f.wire);
        EXPECT_EQ(sent, sim.receivedBytes(f.conn));
        EXPECT_EQ(1u, sim.counters().linkTests);
        sim.stop();
    }
}

TEST_F(SwitchSimulatorTest, TranscriptNamesCodeSequenceStatusSizeAndOrder)
{
    start();
    Client cl(sim.pcePort());
    cl.send(frame(true, kCmd, 10002, 9, 1, 26));
    cl.readFrame(true);
    sim.stop();
    const auto t = transcript();
    auto has = [&](const std::string& s) {
        for (const auto& l : t)
            if (l == s) return true;
        return false;
    };
    EXPECT_TRUE(has("<< #1 CMD: CMD_CONN_PORT seq=9 CMD_WITH_RSP src=26 payload=0 frame=40 reversed"));
    EXPECT_TRUE(has(">> #1 RSP: CMD_CONN_PORT seq=9 RSP_OK err=0 src=1 payload=0 frame=40 reversed"));
}

TEST_F(SwitchSimulatorTest, RawStatsReplyHasCountAndEntriesOfTheSlotInBothOrders)
{
    switchsim::Options o;
    o.statsPorts = 3;
    start(o);
    Client cl(sim.snmpPort());
    Bytes payloads[2];
    for (bool rev : {false, true}) {
        cl.send(frame(rev, kCmd, 100005, 5, 1, 25, slotRequest(7, rev)));
        const Bytes r = cl.readFrame(rev);
        const std::size_t len = 6 + 3 * 951;
        ASSERT_EQ(40 + len, r.size());
        const Bytes expected = frame(rev, kRsp, 100005, 5, 0, 1, Bytes(len));
        EXPECT_EQ(Bytes(expected.begin(), expected.begin() + 40), Bytes(r.begin(), r.begin() + 40));
        payloads[rev].assign(r.begin() + 40, r.end());
        const Bytes& p = payloads[rev];
        EXPECT_EQ(3u, getWord(p, 0, 2, rev));
        EXPECT_EQ(7u, getWord(p, 2, 2, rev));
        for (unsigned port = 1; port <= 3; ++port) {
            const std::size_t e = 6 + (port - 1) * 951;
            EXPECT_EQ(port, getWord(p, e, 2, rev));
            EXPECT_EQ(SwitchSimulator::statsLinkUp(7, port) ? 1u : 0u, p[e + 2]);
            EXPECT_EQ(SwitchSimulator::statsSpeedMbps(7, port), getWord(p, e + 3, 4, rev));
            EXPECT_EQ(SwitchSimulator::statsCounter(7, port, 0, false, 100), getWord(p, e + 7, 8, rev));
            EXPECT_EQ(SwitchSimulator::statsCounter(7, port, 58, true, 100), getWord(p, e + 7 + 117 * 8, 8, rev));
        }
    }
    // The library's own record agrees: the reversed reply converted by it
    // equals the host-order one, and its layout reads the same fields.
    Bytes converted = payloads[1];
    EXPECT_EQ(3, I_RAW_STATS_REPLY::Swap(converted.data(), converted.size(), false));
    EXPECT_EQ(payloads[0], converted);
    I_RAW_PORT_STATS second;
    std::memcpy(&second, payloads[0].data() + offsetof(I_RAW_STATS_REPLY, entries) + sizeof(I_RAW_PORT_STATS),
                sizeof second);
    const unsigned portNbr = second.portNbr; // packed fields: copy, never bind
    const std::uint64_t tx3 = second.txCounters[3];
    EXPECT_EQ(2u, portNbr);
    EXPECT_EQ(SwitchSimulator::statsCounter(7, 2, 3, true, 100), tx3);
}

TEST_F(SwitchSimulatorTest, RawStatsCountersGrowWithTimeOnLinksThatAreUp)
{
    switchsim::Options o;
    o.statsPorts = 4;
    start(o);
    Client cl(sim.snmpPort());
    auto fetch = [&] {
        cl.send(frame(false, kCmd, 100005, 1, 1, 25, slotRequest(0, false)));
        const Bytes r = cl.readFrame(false);
        return Bytes(r.begin() + 40, r.end());
    };
    const Bytes before = fetch();
    clock = 160;
    const Bytes after = fetch();
    ASSERT_EQ(before.size(), after.size());
    unsigned up = 0, down = 0;
    for (unsigned port = 1; port <= 4; ++port) {
        const std::size_t at = 6 + (port - 1) * 951 + 7 + 5 * 8; // rx counter 5
        const auto b = getWord(before, at, 8, false), a = getWord(after, at, 8, false);
        if (SwitchSimulator::statsLinkUp(0, port)) {
            EXPECT_GT(a, b);
            ++up;
        } else {
            EXPECT_EQ(a, b);
            ++down;
        }
    }
    EXPECT_GT(up, 0u);
    EXPECT_GT(down, 0u);
}

TEST_F(SwitchSimulatorTest, StatusPerCodeAndRefusedStatsRequests)
{
    start();
    sim.setStatus(10002, 4);
    Client cl(sim.snmpPort());
    struct Case {
        std::uint32_t code;
        Bytes payload;
        std::uint32_t status;
    };
    const Case cases[] = {
        {10002, {}, 4},                            // set on the command line
        {10003, {}, 0},                            // everything else: RSP_OK
        {100005, slotRequest(20, false), 2},       // no such slot: RSP_NO_DEVICE
        {100005, {1}, 4},                          // request too short: RSP_INV_CMD
    };
    std::uint32_t seq = 40;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.code);
        cl.send(frame(false, kCmd, c.code, ++seq, 1, 25, c.payload));
        EXPECT_EQ(frame(false, kRsp, c.code, seq, c.status, 1), cl.readFrame(false));
    }
    // Without CMD_WITH_RSP nothing comes back: the next frame answers seq 99.
    cl.send(frame(false, kCmd, 10003, 98, 0, 25));
    cl.send(frame(false, kCmd, 10003, 99, 1, 25));
    EXPECT_EQ(frame(false, kRsp, 10003, 99, 0, 1), cl.readFrame(false));
    sim.clearStatus(10002);
    cl.send(frame(false, kCmd, 10002, 100, 1, 25));
    EXPECT_EQ(frame(false, kRsp, 10002, 100, 0, 1), cl.readFrame(false));
}

TEST_F(SwitchSimulatorTest, DropsEveryNthAnswerAndDelaysInOrder)
{
    switchsim::Options o;
    o.faults.dropEvery = 2;
    start(o);
    Client cl(sim.snmpPort());
    for (std::uint32_t seq = 1; seq <= 5; ++seq) cl.send(frame(false, kCmd, 10002, seq, 1, 25));
    for (std::uint32_t seq : {1u, 3u, 5u}) EXPECT_EQ(frame(false, kRsp, 10002, seq, 0, 1), cl.readFrame(false));
    EXPECT_EQ(2u, sim.counters().answersDropped);

    sim.setFaults({false, 30, 0, 0});
    const auto t0 = std::chrono::steady_clock::now();
    for (std::uint32_t seq = 6; seq <= 8; ++seq) cl.send(frame(false, kCmd, 10002, seq, 1, 25));
    for (std::uint32_t seq = 6; seq <= 8; ++seq) EXPECT_EQ(frame(false, kRsp, 10002, seq, 0, 1), cl.readFrame(false));
    EXPECT_GE(std::chrono::steady_clock::now() - t0, 30ms);
}

TEST_F(SwitchSimulatorTest, ClosesAfterNFramesAndOnABadHeader)
{
    switchsim::Options o;
    o.faults.closeAfter = 2;
    start(o);
    {
        Client cl(sim.snmpPort());
        cl.send(linkTest(false)); // not counted
        for (std::uint32_t seq = 1; seq <= 3; ++seq) cl.send(frame(false, kCmd, 10002, seq, 1, 25));
        for (std::uint32_t seq = 1; seq <= 2; ++seq) EXPECT_EQ(frame(false, kRsp, 10002, seq, 0, 1), cl.readFrame(false));
        EXPECT_TRUE(cl.closedByPeer());
    }
    Client bad(sim.pcePort());
    Bytes garbage;
    for (std::uint32_t w : {0x12345678u, 1u, 28u}) putWord(garbage, w, 4, false);
    bad.send(garbage);
    EXPECT_TRUE(bad.closedByPeer());
    EXPECT_TRUE(sim.waitFor([&] { return sim.counters().badHeaders == 1; }, 5s));
    EXPECT_EQ(2u, sim.counters().framesReceived);
}

TEST_F(SwitchSimulatorTest, HeartbeatGoesInTheClientsOrderAndItsAnswerIsMatched)
{
    for (bool rev : {false, true}) {
        SCOPED_TRACE(rev);
        switchsim::Options o;
        o.heartbeatMs = 5;
        start(o);
        Client cl(sim.snmpPort());
        cl.send(linkTest(rev));
        const Bytes hb = cl.readFrame(rev);
        ASSERT_EQ(40u, hb.size());
        const auto seq = std::uint32_t(getWord(hb, 20, 4, rev));
        EXPECT_EQ(frame(rev, kCmd, 40010, seq, 1, 1), hb);
        cl.send(frame(rev, kRsp, 40010, seq + 1000, 0, 25)); // answers nothing
        cl.send(frame(rev, kRsp, 40010, seq, 0, 25));
        EXPECT_TRUE(sim.waitFor([&] { return sim.counters().answered >= 1; }, 5s));
        EXPECT_EQ(1u, sim.counters().unexpectedResponses);
        sim.stop();
    }
}

TEST_F(SwitchSimulatorTest, UnansweredCommandIsReportedAfterItsTimeout)
{
    switchsim::Options o;
    o.answerTimeoutMs = 10;
    start(o);
    Client cl(sim.snmpPort());
    cl.send(linkTest(false));
    ASSERT_TRUE(sim.waitForLinkTests(1, 5s));
    const std::uint64_t conn = sim.openConnections().at(0);
    const std::uint32_t seq = sim.sendCommand(conn, 70002, {0xA, 0xB}, true);
    ASSERT_NE(0u, seq);
    EXPECT_EQ(frame(false, kCmd, 70002, seq, 1, 1, {0xA, 0xB}), cl.readFrame(false));
    EXPECT_TRUE(sim.waitFor([&] { return sim.counters().unanswered == 1; }, 5s));
    cl.send(frame(false, kRsp, 70002, seq, 0, 25)); // too late
    EXPECT_TRUE(sim.waitFor([&] { return sim.counters().unexpectedResponses == 1; }, 5s));
    EXPECT_EQ(0u, sim.counters().answered);
}

TEST_F(SwitchSimulatorTest, ResponderAnswersShuffledWithDuplicatesAndOrphans)
{
    start();
    std::mutex held;
    std::vector<switchsim::SimFrame> kept;
    sim.setResponder([&](SwitchSimulator& s, const switchsim::SimFrame& cmd) {
        if (cmd.cmdCode != 10002) return false; // default answer
        std::lock_guard<std::mutex> lk(held);
        kept.push_back(cmd);
        if (kept.size() == 3) {
            for (auto it = kept.rbegin(); it != kept.rend(); ++it) s.send(cmd.conn, s.defaultResponse(*it));
            s.answer(kept[0]); // a duplicate
            switchsim::OutFrame orphan = s.defaultResponse(kept[0]);
            orphan.seqNbr = 999;
            s.send(cmd.conn, orphan);
        }
        return true;
    });
    Client cl(sim.snmpPort());
    for (std::uint32_t seq = 1; seq <= 3; ++seq) cl.send(frame(false, kCmd, 10002, seq, 1, 25));
    cl.send(frame(false, kCmd, 10003, 4, 1, 25));
    for (std::uint32_t seq : {3u, 2u, 1u, 1u, 999u}) EXPECT_EQ(frame(false, kRsp, 10002, seq, 0, 1), cl.readFrame(false));
    EXPECT_EQ(frame(false, kRsp, 10003, 4, 0, 1), cl.readFrame(false));
    sim.stop(); // before the responder's state goes
}

TEST_F(SwitchSimulatorTest, SeveralClientsAndStopWithClientsConnected)
{
    start();
    Client a(sim.snmpPort()), b(sim.pcePort()), c(sim.snmpPort());
    ASSERT_TRUE(sim.waitForConnections(3, 5s));
    b.send(frame(false, kCmd, 10002, 2, 1, 26));
    EXPECT_EQ(frame(false, kRsp, 10002, 2, 0, 1), b.readFrame(false));
    sim.stop();
    EXPECT_TRUE(a.closedByPeer());
    EXPECT_TRUE(c.closedByPeer());
    EXPECT_TRUE(sim.openConnections().empty());
}

} // namespace
