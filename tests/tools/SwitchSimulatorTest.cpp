#include <gtest/gtest.h>

#include <chrono>
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
        std::string error;
        ASSERT_TRUE(sim.start(o, &error)) << error;
    }
    void TearDown() override { sim.stop(); }

    SwitchSimulator sim;
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
            Bytes sent = lp::linkTestBytes(lp::orderOf(clientRev));
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
            sim.stop();
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
        {10002, {}, 4},   // set for the code
        {10003, {}, 0},   // everything else: RSP_OK
        {100005, {1}, 4}, // request too short: RSP_INV_CMD
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

// A bad header closes the connection too: see the dissector's tests.
TEST_F(SwitchSimulatorTest, DropsEveryNthAnswerAndClosesAfterNFrames)
{
    switchsim::Options o;
    o.faults.dropEvery = 2;
    o.faults.closeAfter = 4;
    start(o);
    Client cl(sim.snmpPort());
    cl.send(lp::linkTestBytes(lp::orderOf(false))); // not counted
    for (std::uint32_t seq = 1; seq <= 5; ++seq) cl.send(frame(false, kCmd, 10002, seq, 1, 25));
    for (std::uint32_t seq : {1u, 3u}) EXPECT_EQ(frame(false, kRsp, 10002, seq, 0, 1), cl.readFrame(false));
    EXPECT_TRUE(cl.seesClose());
    EXPECT_EQ(2u, sim.counters().answersDropped);
    EXPECT_EQ(4u, sim.counters().framesReceived);
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
