// The library end to end through its exported API, against the switch
// simulator listening on the SNMP service port of this host. One initialised
// library and one connection serve every test of a process; a test that
// drops the connection leaves the next one to make it again.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Common/OS/Linux/OSAL.h"
#include "Common/Utility/UtlDebug.h"
#include "Cr/CrDBCmd.h"
#include "Io/IoDBClient.h"
#include "Io/LoopbackPeer.h"
#include "Os/TAVRO.h"
#include "SwitchSimulator.h"
#include "TestSupport.h"

using testing::HasSubstr;
namespace lp = loopback_peer;
using switchsim::OutFrame;
using switchsim::SimFrame;
using switchsim::SwitchSimulator;
using switchsim::WireOrder;

namespace {

constexpr auto kWait = std::chrono::seconds(30);

// Reconnections are quick once a test asks for it; the first connection of
// the process waits the real 2 s.
std::atomic<bool> g_quickReconnect{false};

DWORD e2eConnectDelay(int connectWait)
{
    return g_quickReconnect.load() ? 20 : static_cast<DWORD>(connectWait);
}

class World : public testing::Environment {
public:
    void SetUp() override
    {
        dir.reset(new tavro_test::ScopedTempDir);
        ::mkdir("log", 0755);
        tavro_internal::clientSeams().connectDelayMs = e2eConnectDelay;
        ASSERT_EQ(I_SwitchInitialize(), I_SUCCESS);
        switchsim::Options o;
        o.snmpPort = 58991;
        o.pcePort = -1;
        std::string error;
        ASSERT_TRUE(sim.start(o, &error)) << error;
    }
    void TearDown() override
    {
        I_SwitchDisconnect();
        sim.stop();
    }

    SwitchSimulator sim;
    std::unique_ptr<tavro_test::ScopedTempDir> dir;
};

World* g_world = nullptr;

class E2e : public testing::Test {
protected:
    void SetUp() override
    {
        sim().setFaults({});
        sim().setResponder(nullptr);
        tavro_internal::resetApiSeams();
        if (I_SwitchIsConnected() != I_SUCCESS) {
            ASSERT_EQ(I_SwitchConnect(SW_SERVICE_SNMP), I_SUCCESS);
        }
        ASSERT_TRUE(sim().waitFor([] { return !sim().openConnections().empty(); }, kWait));
    }
    void TearDown() override
    {
        sim().setResponder(nullptr);
        sim().setFaults({});
        tavro_internal::resetApiSeams();
    }

    static SwitchSimulator& sim() { return g_world->sim; }
    static std::uint64_t conn() { return sim().openConnections().back(); }

    static std::string log()
    {
        UtlDebug::GetTheUtlDebug()->WaitUntilDrained(30000);
        return tavro_test::readFile("log/Test.Debug.log");
    }
    static bool logEventually(const std::string& text)
    {
        for (int i = 0; i < 3000; ++i) {
            if (log().find(text) != std::string::npos) return true;
            Sleep(10);
        }
        return false;
    }
    // Commands of a code the simulator has read so far.
    static std::vector<SimFrame> received(std::uint32_t code)
    {
        std::vector<SimFrame> out;
        for (const SimFrame& f : sim().receivedFrames())
            if (f.cmdCode == code) out.push_back(f);
        return out;
    }
    // Responses to the simulator's own command seq.
    static std::vector<SimFrame> answersTo(std::uint32_t seq)
    {
        std::vector<SimFrame> out;
        for (const SimFrame& f : sim().receivedFrames())
            if (!f.isCommand() && f.seqNbr == seq) out.push_back(f);
        return out;
    }
    // Every frame the session sends goes out in order: once a later
    // command arrived, an earlier one was either sent or never will be.
    static void barrier()
    {
        const std::size_t before = received(CMD_CONN_INIT).size();
        I_TAVRO_SendCommandNoResponse(CMD_CONN_INIT, nullptr, 0);
        ASSERT_TRUE(sim().waitFor([&] { return received(CMD_CONN_INIT).size() > before; }, kWait));
    }
};

// ------------------------------------------------------------------ wire

TEST_F(E2e, LinkTestAndCommandBytesOnTheWireAreTheHostOrderWords)
{
    const lp::Order host = lp::hostOrder();
    const std::uint64_t c = conn();
    const lp::Bytes start = sim().receivedBytes(c);
    ASSERT_GE(start.size(), 12u);
    EXPECT_EQ(lp::Bytes(start.begin(), start.begin() + 12), lp::linkTestBytes(host));

    struct Case {
        COMMAND_CODE code;
        lp::Bytes payload;
    } cases[] = {{CMD_CONN_PORT, {0xDE, 0xAD, 0xBE}}, {CMD_HEARTBEAT, {}}};
    for (const Case& k : cases) {
        SCOPED_TRACE(k.code);
        const std::size_t before = sim().receivedBytes(c).size();
        const std::size_t frames = received(k.code).size();
        ASSERT_EQ(I_TAVRO_SendCommandNoResponse(k.code, k.payload.empty() ? nullptr : k.payload.data(),
                                                unsigned(k.payload.size())),
                  I_SUCCESS);
        ASSERT_TRUE(sim().waitFor([&] { return received(k.code).size() > frames; }, kWait));
        const lp::Bytes all = sim().receivedBytes(c);
        const lp::Bytes wire(all.begin() + long(before), all.end());
        ASSERT_EQ(wire.size(), 40 + k.payload.size());
        lp::Frame expected;
        expected.manager = k.code / 10000;
        expected.msgType = lp::kCommand;
        expected.cmdCode = k.code;
        expected.seqNbr = lp::getWord(wire.data() + 20, host);
        expected.msgStat = 0; // no response wanted
        expected.srcAddr = SYS_SNMP_AGENT;
        expected.payload = k.payload;
        EXPECT_NE(expected.seqNbr, 0u);
        EXPECT_EQ(wire, expected.encode(host));
    }
}

TEST_F(E2e, LargestPayloadIsSentAndOneByteMoreIsRefused)
{
    for (std::uint32_t size : {MAX_TCP_MSG_SIZE - 1, MAX_TCP_MSG_SIZE}) {
        CrCmd cmd;
        cmd.SetCmdCode(CMD_CONN_PORT);
        cmd.SetMsgAddr(1);
        std::vector<std::uint8_t> data(size, 0x5A);
        data.back() = 0xA5;
        cmd.SetData(data.data(), int(size));
        cmd.Dispatch();
    }
    barrier();
    const std::vector<SimFrame> big = received(CMD_CONN_PORT);
    ASSERT_FALSE(big.empty());
    EXPECT_EQ(big.back().payload.size(), MAX_TCP_MSG_SIZE - 1);
    EXPECT_EQ(big.back().payload.back(), 0xA5);
    for (const SimFrame& f : big) EXPECT_LT(f.payload.size(), MAX_TCP_MSG_SIZE);
    EXPECT_TRUE(logEventually("SendR700Cmd: MESSAGE TOO LARGE.  appSize[2559936]"));
}

// ------------------------------------------------------------------ switch-initiated commands

std::mutex g_handlerLock;
std::vector<std::pair<COMMAND_CODE, lp::Bytes>> g_handled;

void answeringHandler(COMMAND_CODE code, const void* data, uint32_t size, CrRsp* rsp)
{
    const auto* p = static_cast<const std::uint8_t*>(data);
    {
        std::lock_guard<std::mutex> g(g_handlerLock);
        g_handled.emplace_back(code, lp::Bytes(p, p + size));
    }
    const std::uint8_t answer[2] = {0x0A, 0x0B};
    I_TAVRO_SetResponseStatus(rsp, RSP_BUSY);
    I_TAVRO_SetResponseData(rsp, answer, sizeof answer);
}

std::size_t handledCount()
{
    std::lock_guard<std::mutex> g(g_handlerLock);
    return g_handled.size();
}

TEST_F(E2e, HandlersAnswerExactlyWhenAskedInBothByteOrders)
{
    ASSERT_EQ(I_TAVRO_RegisterCommandHandler(CMD_CONN_PORT, answeringHandler), I_SUCCESS);
    ASSERT_EQ(I_TAVRO_UnRegisterCommandHandler(CMD_DISC_PORT), I_SUCCESS);
    for (bool reverse : {false, true}) {
        SCOPED_TRACE(reverse ? "reversed" : "same order");
        switchsim::Faults f;
        f.reverse = reverse;
        sim().setFaults(f);
        const std::size_t calls = handledCount();

        const std::uint32_t quiet = sim().sendCommand(conn(), CMD_CONN_PORT, {1, 2, 3}, false);
        const std::uint32_t asked = sim().sendCommand(conn(), CMD_CONN_PORT, {4, 5}, true);
        testing::internal::CaptureStdout();
        const std::uint32_t unhandled = sim().sendCommand(conn(), CMD_DISC_PORT, {6}, true);
        ASSERT_NE(quiet, 0u);
        ASSERT_TRUE(sim().waitFor([&] { return !answersTo(asked).empty(); }, kWait));
        // A later answered command: everything before it has been handled.
        const std::uint32_t after = sim().sendCommand(conn(), CMD_CONN_PORT, {}, true);
        ASSERT_TRUE(sim().waitFor([&] { return !answersTo(after).empty(); }, kWait));
        const std::string out = testing::internal::GetCapturedStdout();

        EXPECT_EQ(handledCount(), calls + 3);
        {
            std::lock_guard<std::mutex> g(g_handlerLock);
            EXPECT_EQ(g_handled[calls].second, (lp::Bytes{1, 2, 3}));
            EXPECT_EQ(g_handled[calls + 1].second, (lp::Bytes{4, 5}));
        }
        EXPECT_TRUE(answersTo(quiet).empty());
        EXPECT_TRUE(answersTo(unhandled).empty());
        const std::vector<SimFrame> rsp = answersTo(asked);
        ASSERT_EQ(rsp.size(), 1u);
        EXPECT_EQ(rsp[0].cmdCode, std::uint32_t(CMD_CONN_PORT));
        EXPECT_EQ(rsp[0].msgStat, std::uint32_t(RSP_BUSY));
        EXPECT_EQ(rsp[0].payload, (lp::Bytes{0x0A, 0x0B}));
        EXPECT_EQ(rsp[0].srcAddr, std::uint32_t(SYS_SNMP_AGENT));
        EXPECT_THAT(out, HasSubstr("GOT AN UNHANDLED COMMAND!!!\n\n"));
        EXPECT_THAT(out, HasSubstr("Send response result=0\n"));
    }
    EXPECT_TRUE(logEventually("STR_DBG_OUT"));
    I_TAVRO_UnRegisterCommandHandler(CMD_CONN_PORT);
}

// ------------------------------------------------------------------ raw statistics

TEST_F(E2e, RawStatsReturnTheExactBlockOrNull)
{
    // The simulator's own answer: 8 entries for the slot asked.
    void* block = I_GetRawStats(3);
    ASSERT_NE(block, nullptr);
    std::uint16_t head[2];
    std::memcpy(head, block, sizeof head);
    EXPECT_EQ(head[0], 8);
    EXPECT_EQ(head[1], 3);
    std::free(block);
    const std::vector<SimFrame> asked = received(CMD_GET_BLADE_RAW_STATS);
    ASSERT_FALSE(asked.empty());
    EXPECT_EQ(asked.back().payload.size(), 2u);
    EXPECT_EQ(asked.back().msgStat, std::uint32_t(CMD_WITH_RSP));

    struct Case {
        const char* name;
        std::size_t size;
        std::uint32_t status;
        bool block;
    } cases[] = {{"count 2, 1908 bytes", 1908, RSP_OK, true},
                 {"count 2, 1907 bytes", 1907, RSP_OK, false},
                 {"count 2, excess dropped", 2000, RSP_OK, true},
                 {"bad status", 1908, RSP_BUSY, false},
                 {"no payload", 0, RSP_OK, false}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        lp::Bytes payload(c.size);
        for (std::size_t i = 0; i < c.size; ++i) payload[i] = std::uint8_t(i * 7 + 1);
        if (c.size >= 2) {
            const std::uint16_t two = 2;
            std::memcpy(payload.data(), &two, 2);
        }
        sim().setResponder([&](SwitchSimulator& s, const SimFrame& f) {
            if (f.cmdCode != CMD_GET_BLADE_RAW_STATS) return false;
            OutFrame r;
            r.manager = f.manager;
            r.cmdCode = f.cmdCode;
            r.seqNbr = f.seqNbr;
            r.msgStat = c.status;
            r.payload = payload;
            s.send(f.conn, r);
            return true;
        });
        void* got = I_GetRawStats(1);
        EXPECT_EQ(got != nullptr, c.block);
        if (got != nullptr) {
            EXPECT_EQ(std::memcmp(got, payload.data(), 1908), 0);
            std::free(got);
        }
    }
    // Nobody answers: the tracker's time-out ends the wait.
    tavro_internal::apiSeams().rawStatsTimeoutMs = 200;
    sim().setResponder([](SwitchSimulator&, const SimFrame& f) { return f.cmdCode == CMD_GET_BLADE_RAW_STATS; });
    EXPECT_EQ(I_GetRawStats(1), nullptr);
}

// ------------------------------------------------------------------ tracking

CrCmd* command(COMMAND_CODE code, std::initializer_list<int> to, int timeoutMs)
{
    auto* cmd = new CrCmd;
    cmd->SetCmdCode(code);
    for (int a : to) cmd->SetMsgAddr(a);
    cmd->SetRspReq(true);
    cmd->SetRspTimer(timeoutMs);
    return cmd;
}

TEST_F(E2e, DestinationsThatDoNotAnswerGetTimeOutResponses)
{
    std::unique_ptr<CrCmd> cmd(command(CMD_CONN_PORT, {1, 2}, 300));
    const std::uint8_t data[1] = {42};
    cmd->SetData(data, 1);
    cmd->Dispatch();
    ASSERT_TRUE(cmd->WaitForRsp());
    ASSERT_EQ(cmd->GetRspCount(), 2);
    CrRsp* one = cmd->GetRsp(1);
    CrRsp* two = cmd->GetRsp(2);
    ASSERT_NE(one, nullptr);
    ASSERT_NE(two, nullptr);
    EXPECT_EQ(one->GetRspStat(), RSP_OK);
    EXPECT_EQ(two->GetRspStat(), RSP_TIME_OUT);
    EXPECT_EQ(two->GetSize(), 0);
    EXPECT_EQ(two->GetSeqNbr(), cmd->GetSeqNbr());
    // Only switch 1 has a route: the command went out once.
    EXPECT_EQ(received(CMD_CONN_PORT).back().payload, (lp::Bytes{42}));
}

TEST_F(E2e, DuplicateAndUnaskedResponsesAreOrphans)
{
    // Every command of these codes is answered twice, asked or not.
    sim().setResponder([](SwitchSimulator& s, const SimFrame& f) {
        if (f.cmdCode != CMD_CONN_PORT && f.cmdCode != CMD_HEARTBEAT) return false;
        for (std::uint8_t n : {1, 2}) {
            OutFrame r;
            r.manager = f.manager;
            r.cmdCode = f.cmdCode;
            r.seqNbr = f.seqNbr;
            r.payload = {n};
            s.send(f.conn, r);
        }
        return true;
    });
    std::unique_ptr<CrCmd> cmd(command(CMD_CONN_PORT, {1}, 30000));
    cmd->Dispatch();
    ASSERT_TRUE(cmd->WaitForRsp());
    ASSERT_EQ(cmd->GetRspCount(), 1);
    const auto* p = static_cast<const std::uint8_t*>(cmd->GetFirstRsp()->GetData());
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p[0], 1); // the first one wins
    EXPECT_TRUE(logEventually("  Orphan RSP: 2712, Swi: 1, Status: 0\r\n"));

    ASSERT_EQ(I_TAVRO_SendCommandNoResponse(CMD_HEARTBEAT, nullptr, 0), I_SUCCESS);
    EXPECT_TRUE(logEventually("  Orphan RSP: 9c4a, Swi: 1, Status: 0\r\n"));
}

TEST_F(E2e, ConcurrentCallersEachGetTheirOwnResponse)
{
    constexpr int kThreads = 8;
    constexpr int kRounds = 6;
    // Answers go back a batch of eight at a time, shuffled.
    std::mutex batchLock;
    std::vector<SimFrame> batch;
    std::mt19937 shuffle(12345);
    sim().setResponder([&](SwitchSimulator& s, const SimFrame& f) {
        if (f.cmdCode != CMD_CONN_PORT) return false;
        std::vector<SimFrame> ready;
        {
            std::lock_guard<std::mutex> g(batchLock);
            batch.push_back(f);
            if (batch.size() < std::size_t(kThreads)) return true;
            ready.swap(batch);
            std::shuffle(ready.begin(), ready.end(), shuffle);
        }
        for (const SimFrame& c : ready) {
            OutFrame r;
            r.manager = c.manager;
            r.cmdCode = c.cmdCode;
            r.seqNbr = c.seqNbr;
            r.payload = c.payload; // echo
            s.send(c.conn, r);
        }
        return true;
    });
    std::atomic<int> mismatches{0}, failures{0};
    std::vector<std::thread> callers;
    for (int t = 0; t < kThreads; ++t) {
        callers.emplace_back([&, t] {
            for (int round = 0; round < kRounds; ++round) {
                std::unique_ptr<CrCmd> cmd(command(CMD_CONN_PORT, {1}, 60000));
                const std::uint8_t mine[2] = {std::uint8_t(t), std::uint8_t(round)};
                cmd->SetData(mine, 2);
                cmd->Dispatch();
                if (!cmd->WaitForRsp() || cmd->GetRspCount() != 1) {
                    ++failures;
                    continue;
                }
                CrRsp* rsp = cmd->GetFirstRsp();
                const auto* p = static_cast<const std::uint8_t*>(rsp->GetData());
                if (rsp->GetRspStat() != RSP_OK || rsp->GetSeqNbr() != cmd->GetSeqNbr() || rsp->GetSize() != 2 ||
                    p == nullptr || p[0] != mine[0] || p[1] != mine[1])
                    ++mismatches;
            }
        });
    }
    for (std::thread& c : callers) c.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(mismatches.load(), 0);
}

// ------------------------------------------------------------------ losing the connection

TEST_F(E2e, SessionReconnectsAfterThePeerClosed)
{
    g_quickReconnect = true;
    const std::uint64_t links = sim().counters().linkTests;
    ASSERT_TRUE(sim().closeConnection(conn()));
    ASSERT_TRUE(sim().waitForLinkTests(std::size_t(links + 1), kWait));
    for (int i = 0; i < 3000 && I_SwitchIsConnected() != I_SUCCESS; ++i) Sleep(10);
    EXPECT_EQ(I_SwitchIsConnected(), I_SUCCESS);
    void* block = I_GetRawStats(2);
    EXPECT_NE(block, nullptr);
    std::free(block);
    g_quickReconnect = false;
}

TEST_F(E2e, DisconnectThenConnectAgain)
{
    g_quickReconnect = true;
    ASSERT_EQ(I_SwitchDisconnect(), I_SUCCESS);
    EXPECT_EQ(tavro_internal::switchClient(), nullptr);
    EXPECT_EQ(I_SwitchIsConnected(), I_ERR_NO_CONNECTION);
    EXPECT_TRUE(sim().waitFor([] { return sim().openConnections().empty(); }, kWait));
    EXPECT_EQ(I_SwitchDisconnect(), I_SUCCESS);
    EXPECT_EQ(I_SwitchConnect(SW_SERVICE_BLADE), I_ERR_INVALID_PARAMETER);
    EXPECT_EQ(tavro_internal::switchClient(), nullptr);

    // Nothing leaves while there is no connection.
    const std::size_t before = received(CMD_DISC_PORT).size();
    EXPECT_EQ(I_TAVRO_SendCommandNoResponse(CMD_DISC_PORT, nullptr, 0), I_SUCCESS);
    tavro_internal::apiSeams().rawStatsTimeoutMs = 200;
    EXPECT_EQ(I_GetRawStats(1), nullptr);
    tavro_internal::resetApiSeams();

    ASSERT_EQ(I_SwitchConnect(SW_SERVICE_SNMP), I_SUCCESS);
    EXPECT_EQ(I_SwitchIsConnected(), I_SUCCESS);
    barrier();
    EXPECT_EQ(received(CMD_DISC_PORT).size(), before);
    void* block = I_GetRawStats(4);
    EXPECT_NE(block, nullptr);
    std::free(block);
    g_quickReconnect = false;
}

} // namespace

int registerWorld = [] {
    g_world = new World;
    testing::AddGlobalTestEnvironment(g_world);
    return 0;
}();
