#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <string>
#include <vector>

#include "Io/LoopbackPeer.h"
#include "SwitchSimulator.h"

using switchsim::SwitchSimulator;

namespace {

namespace lp = loopback_peer;
using lp::Bytes;

// Expected bytes come from the test's own packing, never from the
// simulator's encoder; "reversed" is relative to this machine's order.
Bytes frame(bool rev, std::uint32_t type, std::uint32_t code, std::uint32_t seq, std::uint32_t stat, std::uint32_t src,
            const Bytes& payload = {})
{
    return lp::Frame{lp::kMarker, code / 10000, type, code, seq, stat, src, 0, payload}.encode(lp::orderOf(rev));
}

std::uint64_t word(const Bytes& in, std::size_t at, unsigned width, bool rev)
{
    return at + width <= in.size() ? lp::getWord(in.data() + at, lp::orderOf(rev), width) : ~0ull;
}

Bytes linkTest(bool rev)
{
    return lp::linkTestBytes(lp::orderOf(rev));
}

Bytes slotRequest(std::uint16_t slot, bool rev)
{
    Bytes b;
    lp::putWord(b, slot, lp::orderOf(rev), 2);
    return b;
}

struct Client : lp::Peer {
    explicit Client(std::uint16_t port) { EXPECT_TRUE(connectTo(port)); }
    void send(const Bytes& b) { EXPECT_TRUE(write(b)); }
    Bytes readFrame(bool rev) { return Peer::readFrame(lp::orderOf(rev)); }
};

const std::uint32_t kCmd = lp::kCommand, kRsp = lp::kResponse;

class SwitchSimulatorTest : public ::testing::Test {
protected:
    void start(switchsim::Options o = {})
    {
        o.snmpPort = 0;
        o.pcePort = 0;
        o.statsClock = [] { return std::uint64_t(100); };
        o.transcript = [this](const std::string& line) {
            std::lock_guard<std::mutex> lk(mu);
            lines.push_back(line);
        };
        lines.clear();
        std::string error;
        ASSERT_TRUE(sim.start(o, &error)) << error;
    }
    // The simulator's threads use the members below; stop them first.
    void TearDown() override { sim.stop(); }

    SwitchSimulator sim;
    std::mutex mu;
    std::vector<std::string> lines;
};

TEST_F(SwitchSimulatorTest, AnswersInTheClientsOrderOrTheOppositeOneByteForByte)
{
    for (bool clientRev : {true, false}) {
        for (bool reverseFault : {false, true}) {
            SCOPED_TRACE(::testing::Message() << "client reversed=" << clientRev << " --reverse=" << reverseFault);
            switchsim::Options o;
            o.faults.reverse = reverseFault;
            start(o);
            Client cl(sim.snmpPort());
            const Bytes cmd = frame(clientRev, kCmd, 10002, 77, 1, 25, {1, 2, 3, 4});
            Bytes sent = linkTest(clientRev);
            sent.insert(sent.end(), cmd.begin(), cmd.end());
            cl.send(sent);
            const bool rspRev = clientRev != reverseFault;
            EXPECT_EQ(frame(rspRev, kRsp, 10002, 77, 0, 1), cl.readFrame(rspRev));

            ASSERT_EQ(1u, sim.receivedFrames().size());
            const switchsim::SimFrame f = sim.receivedFrames()[0];
            EXPECT_EQ(clientRev, f.order == switchsim::WireOrder::Reversed);
            EXPECT_EQ(
                std::make_tuple(1u, 32u, 10002u, 77u, 1u, 25u, 4u, Bytes{1, 2, 3, 4}),
                std::make_tuple(f.manager, f.size, f.cmdCode, f.seqNbr, f.msgStat, f.srcAddr, f.appSize, f.payload));
            EXPECT_EQ(sent, sim.receivedBytes(f.conn));
            EXPECT_EQ(1u, sim.counters().linkTests);
            sim.stop(); // the transcript is complete
            if (clientRev && !reverseFault) {
                EXPECT_THAT(lines,
                            testing::Contains(
                                "<< #1 CMD: CMD_CONN_PORT seq=77 CMD_WITH_RSP src=25 payload=4 frame=44 reversed"));
                EXPECT_THAT(lines,
                            testing::Contains(
                                ">> #1 RSP: CMD_CONN_PORT seq=77 RSP_OK err=0 src=1 payload=0 frame=40 reversed"));
            }
        }
    }
}

TEST_F(SwitchSimulatorTest, RawStatsReplyHasCountAndEntriesOfTheSlotInBothOrders)
{
    switchsim::Options o;
    o.statsPorts = 4; // port 4 of slot 7 is down
    start(o);
    Client cl(sim.snmpPort());
    const std::size_t len = 6 + 4 * 951;
    auto fetch = [&](bool rev) {
        cl.send(frame(rev, kCmd, 100005, 5, 1, 25, slotRequest(7, rev)));
        const Bytes r = cl.readFrame(rev);
        const Bytes expected = frame(rev, kRsp, 100005, 5, 0, 1, Bytes(len));
        if (r.size() != expected.size()) return Bytes();
        EXPECT_EQ(Bytes(expected.begin(), expected.begin() + 40), Bytes(r.begin(), r.begin() + 40));
        return Bytes(r.begin() + 40, r.end());
    };
    for (bool rev : {false, true}) {
        SCOPED_TRACE(rev);
        const Bytes p = fetch(rev);
        ASSERT_EQ(len, p.size());
        EXPECT_EQ(4u, word(p, 0, 2, rev));
        EXPECT_EQ(7u, word(p, 2, 2, rev));
        for (unsigned port = 1; port <= 4; ++port) {
            const std::size_t e = 6 + (port - 1) * 951;
            EXPECT_EQ(port, word(p, e, 2, rev));
            EXPECT_EQ(SwitchSimulator::statsLinkUp(7, port) ? 1u : 0u, p[e + 2]);
            EXPECT_EQ(SwitchSimulator::statsSpeedMbps(7, port), word(p, e + 3, 4, rev));
            EXPECT_EQ(SwitchSimulator::statsCounter(7, port, 0, false, 100), word(p, e + 7, 8, rev));
            EXPECT_EQ(SwitchSimulator::statsCounter(7, port, 58, true, 100), word(p, e + 7 + 117 * 8, 8, rev));
        }
    }
}

TEST_F(SwitchSimulatorTest, StatusPerCodeRefusedStatsRequestsAndStopWithClientsConnected)
{
    start();
    sim.setStatus(10002, 4);
    Client cl(sim.snmpPort()), other(sim.pcePort());
    const struct {
        std::uint32_t code;
        Bytes payload;
        std::uint32_t status;
    } cases[] = {
        {10002, {}, 4},                      // set for the code
        {10003, {}, 0},                      // everything else: RSP_OK
        {100005, slotRequest(20, false), 2}, // no such slot: RSP_NO_DEVICE
        {100005, {1}, 4},                    // request too short: RSP_INV_CMD
    };
    std::uint32_t seq = 40;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.code);
        cl.send(frame(false, kCmd, c.code, ++seq, 1, 25, c.payload));
        EXPECT_EQ(frame(false, kRsp, c.code, seq, c.status, 1), cl.readFrame(false));
    }
    // Without CMD_WITH_RSP nothing comes back: the next frame answers seq 99.
    cl.send(frame(false, kCmd, 10003, 98, 0, 25));
    cl.send(frame(false, kCmd, 10003, 99, 1, 25));
    EXPECT_EQ(frame(false, kRsp, 10003, 99, 0, 1), cl.readFrame(false));
    sim.clearStatus(10002);
    other.send(frame(false, kCmd, 10002, 100, 1, 26));
    EXPECT_EQ(frame(false, kRsp, 10002, 100, 0, 1), other.readFrame(false));
    sim.stop();
    EXPECT_TRUE(cl.seesClose());
    EXPECT_TRUE(other.seesClose());
    EXPECT_TRUE(sim.openConnections().empty());
}

TEST_F(SwitchSimulatorTest, DropsEveryNthAnswer)
{
    switchsim::Options o;
    o.faults.dropEvery = 2;
    start(o);
    Client cl(sim.snmpPort());
    for (std::uint32_t seq = 1; seq <= 5; ++seq) cl.send(frame(false, kCmd, 10002, seq, 1, 25));
    for (std::uint32_t seq : {1u, 3u, 5u}) EXPECT_EQ(frame(false, kRsp, 10002, seq, 0, 1), cl.readFrame(false));
    EXPECT_EQ(2u, sim.counters().answersDropped);
}

// A bad header closes the connection too: see the dissector's tests.
TEST_F(SwitchSimulatorTest, ClosesAfterNFrames)
{
    switchsim::Options o;
    o.faults.closeAfter = 2;
    start(o);
    {
        Client cl(sim.snmpPort());
        cl.send(linkTest(false)); // not counted
        for (std::uint32_t seq = 1; seq <= 3; ++seq) cl.send(frame(false, kCmd, 10002, seq, 1, 25));
        for (std::uint32_t seq = 1; seq <= 2; ++seq)
            EXPECT_EQ(frame(false, kRsp, 10002, seq, 0, 1), cl.readFrame(false));
        EXPECT_TRUE(cl.seesClose());
    }
    EXPECT_EQ(2u, sim.counters().framesReceived);
}

// The capture itself is read back by tshark in the dissector's tests.
TEST_F(SwitchSimulatorTest, AnUnwritableCaptureFileIsReported)
{
    switchsim::Options o;
    o.pcap = "/nonexistent-dir/x.pcap";
    std::string error;
    EXPECT_FALSE(sim.start(o, &error));
    EXPECT_NE(error.find("/nonexistent-dir/x.pcap"), std::string::npos) << error;
}

} // namespace
