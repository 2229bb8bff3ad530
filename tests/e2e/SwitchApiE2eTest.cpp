// The library against the switch simulator where a test needs its seams or
// command objects.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Common/OS/Linux/OSAL.h"
#include "Cr/CrDBCmd.h"
#include "Io/IoDBClient.h"
#include "Os/TAVRO.h"
#include "SwitchSimulator.h"
#include "TestSupport.h"

using switchsim::OutFrame;
using switchsim::SimFrame;
using switchsim::SwitchSimulator;

namespace {

constexpr auto kWait = std::chrono::seconds(30);

class World : public testing::Environment {
public:
    void SetUp() override
    {
        dir.reset(new tavro_test::ScopedTempDir);
        ::mkdir("log", 0755);
        tavro_internal::clientSeams().connectDelayMs = [](int) { return DWORD(20); };
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

World* const g_world = static_cast<World*>(testing::AddGlobalTestEnvironment(new World));

class E2e : public testing::Test {
protected:
    void SetUp() override
    {
        if (I_SwitchIsConnected() != I_SUCCESS) {
            ASSERT_EQ(I_SwitchConnect(SW_SERVICE_SNMP), I_SUCCESS);
        }
        // Connected is not enough: the link test may still be in flight.
        ASSERT_TRUE(sim().waitForConnections(1, kWait));
        ASSERT_TRUE(sim().waitForLinkTests(std::size_t(sim().counters().connections), kWait));
    }
    void TearDown() override
    {
        sim().setResponder(nullptr);
        tavro_internal::resetApiSeams();
    }

    static SwitchSimulator& sim() { return g_world->sim; }

    // Commands of a code the simulator has read so far.
    static std::vector<SimFrame> received(std::uint32_t code)
    {
        std::vector<SimFrame> out;
        for (const SimFrame& f : sim().receivedFrames())
            if (f.cmdCode == code) out.push_back(f);
        return out;
    }
};

// Eight callers at once, answers going back a batch of eight at a time,
// shuffled: each caller gets the echo of its own command.
TEST_F(E2e, EightConcurrentCallers)
{
    constexpr int kThreads = 8, kRounds = 6;
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
            OutFrame echo = s.defaultResponse(c);
            echo.payload = c.payload;
            s.send(c.conn, echo);
        }
        return true;
    });
    std::atomic<int> mismatches{0};
    std::vector<std::thread> callers;
    for (int t = 0; t < kThreads; ++t) {
        callers.emplace_back([&, t] {
            for (int round = 0; round < kRounds; ++round) {
                const switchsim::Bytes mine = {std::uint8_t(t), std::uint8_t(round)};
                CrCmd own;
                own.SetCmdCode(CMD_CONN_PORT);
                own.SetMsgAddr(1);
                own.SetRspReq(true);
                own.SetRspTimer(60000);
                own.SetData(mine.data(), 2);
                own.Dispatch();
                CrRsp* rsp = own.WaitForRsp() && own.GetRspCount() == 1 ? own.GetFirstRsp() : nullptr;
                const auto* d = rsp ? static_cast<const std::uint8_t*>(rsp->GetData()) : nullptr;
                if (rsp == nullptr || rsp->GetRspStat() != RSP_OK || rsp->GetSeqNbr() != own.GetSeqNbr() ||
                    rsp->GetSize() != 2 || d == nullptr || switchsim::Bytes(d, d + 2) != mine)
                    ++mismatches;
            }
        });
    }
    for (std::thread& c : callers) c.join();
    EXPECT_EQ(mismatches.load(), 0);
}

// The application disconnects: nothing leaves until it connects again.
TEST_F(E2e, NothingLeavesAfterDisconnectUntilConnectingAgain)
{
    ASSERT_EQ(I_SwitchDisconnect(), I_SUCCESS);
    EXPECT_EQ(tavro_internal::switchClient(), nullptr);
    EXPECT_EQ(I_SwitchIsConnected(), I_ERR_NO_CONNECTION);
    EXPECT_TRUE(sim().waitFor([] { return sim().openConnections().empty(); }, kWait));
    EXPECT_EQ(I_SwitchDisconnect(), I_SUCCESS);
    const std::size_t before = received(CMD_DISC_PORT).size();
    EXPECT_EQ(I_TAVRO_SendCommandNoResponse(CMD_DISC_PORT, nullptr, 0), I_SUCCESS);
    tavro_internal::apiSeams().rawStatsTimeoutMs = 200;
    EXPECT_EQ(I_GetRawStats(1), nullptr);
    tavro_internal::resetApiSeams();

    ASSERT_EQ(I_SwitchConnect(SW_SERVICE_SNMP), I_SUCCESS);
    EXPECT_EQ(I_SwitchIsConnected(), I_SUCCESS);
    // The session sends in order: once a later command arrived, the earlier one never will.
    const std::size_t inits = received(CMD_CONN_INIT).size();
    I_TAVRO_SendCommandNoResponse(CMD_CONN_INIT, nullptr, 0);
    ASSERT_TRUE(sim().waitFor([&] { return received(CMD_CONN_INIT).size() > inits; }, kWait));
    EXPECT_EQ(received(CMD_DISC_PORT).size(), before);
    void* block = I_GetRawStats(4);
    EXPECT_NE(block, nullptr);
    std::free(block);
}

} // namespace
