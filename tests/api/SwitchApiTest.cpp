// The library as an application sees it: only the installed headers and
// libTAVRO.so, against the switch simulator on the SNMP service port. Each
// test is a process of its own under ctest and pays the first connect's 2 s
// once; nothing here sits through a response time-out.
#include <TAVRO/TAVRO.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <string>
#include <unistd.h>
#include <vector>

#include "SwitchSimulator.h"

using switchsim::Bytes;
using switchsim::OutFrame;
using switchsim::SimFrame;
using switchsim::SwitchSimulator;

namespace {

constexpr auto kWait = std::chrono::seconds(30);
constexpr std::uint32_t kCmd = 0x434D443A;   // "CMD:"
constexpr std::uint32_t kSnmpAgentAddr = 25; // the source address of everything this service sends

std::mutex g_handlerLock;
std::vector<Bytes> g_handled;

void answeringHandler(COMMAND_CODE, const void* data, uint32_t size, CrRsp* rsp)
{
    const auto* p = static_cast<const std::uint8_t*>(data);
    {
        std::lock_guard<std::mutex> g(g_handlerLock);
        g_handled.emplace_back(p, p + size);
    }
    const std::uint8_t answer[2] = {0x0A, 0x0B};
    I_TAVRO_SetResponseStatus(rsp, RSP_BUSY);
    I_TAVRO_SetResponseData(rsp, answer, sizeof answer);
}

class SwitchApi : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        char tmpl[] = "/tmp/tavro-api-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        ASSERT_EQ(chdir(tmpl), 0);
        ::mkdir("log", 0755);
        ASSERT_EQ(I_SwitchInitialize(), I_SUCCESS);
        switchsim::Options o;
        o.snmpPort = 58991;
        o.pcePort = -1;
        std::string error;
        ASSERT_TRUE(sim.start(o, &error)) << error;
        // Handlers are registered before traffic starts: the table is not locked.
        ASSERT_EQ(I_TAVRO_RegisterCommandHandler(CMD_CONN_PORT, answeringHandler), I_SUCCESS);
        ASSERT_EQ(I_SwitchConnect(SW_SERVICE_SNMP), I_SUCCESS);
        ASSERT_EQ(I_SwitchIsConnected(), I_SUCCESS);
        // Connected is not enough: the link test header may still be in flight.
        ASSERT_TRUE(sim.waitFor(
            [] {
                const std::vector<std::uint64_t> open = sim.openConnections();
                return !open.empty() && sim.receivedBytes(open.back()).size() >= 12;
            },
            kWait));
    }
    static void TearDownTestSuite()
    {
        I_SwitchDisconnect();
        sim.stop();
        std::error_code ignored;
        std::filesystem::remove_all(dir, ignored);
    }
    void TearDown() override
    {
        sim.setResponder(nullptr);
        sim.setFaults({});
    }

    static std::uint64_t conn() { return sim.openConnections().back(); }
    static std::vector<SimFrame> where(const std::function<bool(const SimFrame&)>& p)
    {
        std::vector<SimFrame> out;
        for (const SimFrame& f : sim.receivedFrames())
            if (p(f)) out.push_back(f);
        return out;
    }
    static std::vector<SimFrame> received(std::uint32_t code)
    {
        return where([=](const SimFrame& f) { return f.isCommand() && f.cmdCode == code; });
    }
    static std::vector<SimFrame> answersTo(std::uint32_t seq)
    {
        return where([=](const SimFrame& f) { return !f.isCommand() && f.seqNbr == seq; });
    }

    static SwitchSimulator sim;
    static std::string dir;
};

SwitchSimulator SwitchApi::sim;
std::string SwitchApi::dir;

} // namespace

TEST_F(SwitchApi, LinkTestThenACommandFrameByteForByte)
{
    const Bytes start = sim.receivedBytes(conn());
    std::uint32_t link[3];
    std::memcpy(link, start.data(), sizeof link);
    EXPECT_EQ(link[0], 0x5453543Au); // "TST:" "LINK" 12, in the sender's order
    EXPECT_EQ(link[1], 0x4C494E4Bu);
    EXPECT_EQ(link[2], 12u);

    const std::uint8_t payload[3] = {0xDE, 0xAD, 0xBE};
    ASSERT_EQ(I_TAVRO_SendCommandNoResponse(CMD_CONN_PORT, payload, 3), I_SUCCESS);
    ASSERT_TRUE(sim.waitFor([] { return !received(CMD_CONN_PORT).empty(); }, kWait));
    const SimFrame got = received(CMD_CONN_PORT).front();
    OutFrame expected;
    expected.manager = 1; // CMD_CONN_PORT / 10000
    expected.msgType = kCmd;
    expected.cmdCode = CMD_CONN_PORT;
    expected.seqNbr = got.seqNbr;
    expected.msgStat = 0; // no response wanted
    expected.srcAddr = kSnmpAgentAddr;
    expected.payload.assign(payload, payload + 3);
    EXPECT_NE(got.seqNbr, 0u);
    EXPECT_EQ(got.wire, expected.encode());
}

TEST_F(SwitchApi, HandlersAnswerExactlyWhenAskedInEitherByteOrder)
{
    for (bool reverse : {false, true}) {
        SCOPED_TRACE(reverse ? "reversed" : "same order");
        switchsim::Faults f;
        f.reverse = reverse;
        sim.setFaults(f);
        {
            std::lock_guard<std::mutex> g(g_handlerLock);
            g_handled.clear();
        }
        const std::uint32_t quiet = sim.sendCommand(conn(), CMD_CONN_PORT, {1, 2, 3}, false);
        const std::uint32_t asked = sim.sendCommand(conn(), CMD_CONN_PORT, {4, 5}, true);
        const std::uint32_t unhandled = sim.sendCommand(conn(), CMD_DISC_PORT, {6}, true);
        // A later answered command: everything before it has been handled.
        const std::uint32_t after = sim.sendCommand(conn(), CMD_CONN_PORT, {}, true);
        ASSERT_TRUE(sim.waitFor([&] { return !answersTo(after).empty(); }, kWait));
        {
            std::lock_guard<std::mutex> g(g_handlerLock);
            EXPECT_EQ(g_handled, (std::vector<Bytes>{{1, 2, 3}, {4, 5}, {}}));
        }
        EXPECT_TRUE(answersTo(quiet).empty());
        EXPECT_TRUE(answersTo(unhandled).empty());
        const std::vector<SimFrame> rsp = answersTo(asked);
        ASSERT_EQ(rsp.size(), 1u);
        EXPECT_EQ(
            std::make_tuple(rsp[0].cmdCode, rsp[0].msgStat, rsp[0].srcAddr, rsp[0].payload),
            std::make_tuple(std::uint32_t(CMD_CONN_PORT), std::uint32_t(RSP_BUSY), kSnmpAgentAddr, Bytes{0x0A, 0x0B}));
    }
}

TEST_F(SwitchApi, RawStatsAreTheBlockTheSwitchSentOrNothing)
{
    // n entries are 6 + 951 * n bytes: a byte short or a bad status gives nothing.
    const struct {
        std::size_t size;
        std::uint32_t status;
        bool block;
    } cases[] = {{1908, RSP_OK, true}, {1907, RSP_OK, false}, {1908, RSP_BUSY, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.size << " bytes, status " << c.status);
        Bytes payload(c.size);
        for (std::size_t i = 0; i < c.size; ++i) payload[i] = std::uint8_t(i * 7 + 1);
        const std::uint16_t two = 2;
        std::memcpy(payload.data(), &two, 2);
        sim.setResponder([&](SwitchSimulator& s, const SimFrame& f) {
            if (f.cmdCode != CMD_GET_BLADE_RAW_STATS) return false;
            OutFrame r;
            r.manager = f.manager;
            r.cmdCode = f.cmdCode;
            r.seqNbr = f.seqNbr;
            r.msgStat = c.status;
            r.payload = payload;
            return s.send(f.conn, r);
        });
        void* got = I_GetRawStats(1);
        ASSERT_EQ(got != nullptr, c.block);
        if (got != nullptr) {
            EXPECT_EQ(std::memcmp(got, payload.data(), 1908), 0);
        }
        std::free(got);
    }
    // The simulator's own answer, asked for slot 3.
    sim.setResponder(nullptr);
    void* block = I_GetRawStats(3);
    ASSERT_NE(block, nullptr);
    std::uint16_t count = 0, slot = 0;
    std::memcpy(&count, block, 2);
    std::memcpy(&slot, static_cast<char*>(block) + 2, 2);
    EXPECT_EQ(count, 8);
    EXPECT_EQ(slot, 3);
    std::free(block);
    const std::vector<SimFrame> asked = received(CMD_GET_BLADE_RAW_STATS);
    ASSERT_FALSE(asked.empty());
    EXPECT_TRUE(asked.back().wantsResponse());
}

TEST_F(SwitchApi, AfterDisconnectNothingLeavesAndOnlyServedServicesConnect)
{
    ASSERT_EQ(I_SwitchDisconnect(), I_SUCCESS);
    EXPECT_EQ(I_SwitchIsConnected(), I_ERR_NO_CONNECTION);
    EXPECT_TRUE(sim.waitFor([] { return sim.openConnections().empty(); }, kWait));
    EXPECT_EQ(I_SwitchDisconnect(), I_SUCCESS);
    for (SW_SERVICE_TYPE s : {SW_SERVICE_INVALID, SW_SERVICE_BLADE, SW_SERVICE_UDBSERV})
        EXPECT_EQ(I_SwitchConnect(s), I_ERR_INVALID_PARAMETER) << s;
    EXPECT_EQ(I_SwitchIsConnected(), I_ERR_NO_CONNECTION);
    EXPECT_EQ(I_TAVRO_SendCommandNoResponse(CMD_DISC_PORT, nullptr, 0), I_SUCCESS);
    EXPECT_EQ(sim.counters().connections, 1u);
}
