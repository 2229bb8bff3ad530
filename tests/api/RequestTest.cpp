// Commands that wait for their answer, through the public headers only,
// against the switch simulator on the PCE service port of this host.
#include <TAVRO/TAVRO.h>
#include <TAVRO/TAVRORequest.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "SwitchSimulator.h"

using switchsim::Bytes;
using switchsim::OutFrame;
using switchsim::SimFrame;
using switchsim::SwitchSimulator;

namespace {

constexpr auto kWait = std::chrono::seconds(30);

class World : public testing::Environment {
public:
    void SetUp() override
    {
        char tmpl[] = "/tmp/tavro-request-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        ASSERT_EQ(chdir(tmpl), 0);
        ::mkdir("log", 0755);
        ASSERT_EQ(I_TAVRO_Initialize(), I_SUCCESS);
        switchsim::Options o;
        o.snmpPort = -1;
        std::string error;
        ASSERT_TRUE(sim.start(o, &error)) << error;
    }
    void TearDown() override
    {
        I_SwitchDisconnect();
        sim.stop();
        if (chdir("/") == 0 && !dir.empty()) std::system(("rm -rf '" + dir + "'").c_str());
    }

    SwitchSimulator sim;
    std::string dir;
};

World* const g_world = static_cast<World*>(testing::AddGlobalTestEnvironment(new World));

SwitchSimulator& sim()
{
    return g_world->sim;
}

// The switch echoes every CMD_CONN_PORT payload back, reversed, with error
// code -1234 beside the status it was told to give.
bool echoReversed(SwitchSimulator& s, const SimFrame& f)
{
    if (f.cmdCode != CMD_CONN_PORT) return false;
    OutFrame r = s.defaultResponse(f);
    r.payload.assign(f.payload.rbegin(), f.payload.rend());
    r.appError = std::uint32_t(-1234);
    return s.send(f.conn, r);
}

struct Answer {
    I_STATUS result;
    RSP_STATUS status;
    I_STATUS error;
    Bytes payload;
};

Answer request(COMMAND_CODE code, const Bytes& payload, unsigned timeoutMs)
{
    TAVRO_RESPONSE rsp;
    std::memset(&rsp, 0xA5, sizeof rsp);
    Answer a;
    a.result = I_TAVRO_SendCommandWithResponse(code, payload.data(), unsigned(payload.size()), timeoutMs, &rsp);
    a.status = rsp.status;
    a.error = rsp.errorCode;
    const auto* d = static_cast<const std::uint8_t*>(rsp.data);
    if (d != nullptr) a.payload.assign(d, d + rsp.dataSize);
    EXPECT_EQ(d == nullptr, rsp.dataSize == 0u);
    I_TAVRO_FreeResponse(&rsp);
    EXPECT_EQ(rsp.data, nullptr);
    return a;
}

TEST(Request, RefusesBadArgumentsAndReportsNoConnectionWithoutSending)
{
    TAVRO_RESPONSE rsp;
    const std::uint8_t byte = 1;
    EXPECT_EQ(I_TAVRO_SendCommandWithResponse(CMD_CONN_PORT, nullptr, 0, 0, nullptr), I_ERR_INVALID_PARAMETER);
    EXPECT_EQ(I_TAVRO_SendCommandWithResponse(CMD_CONN_PORT, nullptr, 1, 0, &rsp), I_ERR_INVALID_PARAMETER);
    EXPECT_EQ(I_TAVRO_SendCommandWithResponse(CMD_CONN_PORT, &byte, 2559936, 0, &rsp), I_ERR_INVALID_PARAMETER);
    EXPECT_EQ(I_TAVRO_SendCommandWithResponse(CMD_CONN_PORT, &byte, 1, 0x80000000u, &rsp), I_ERR_INVALID_PARAMETER);
    EXPECT_EQ(rsp.data, nullptr);
    const std::uint64_t frames = sim().counters().framesReceived;
    ASSERT_EQ(I_SwitchIsConnected(), I_ERR_NO_CONNECTION);
    EXPECT_EQ(I_TAVRO_SendCommandWithResponse(CMD_CONN_PORT, &byte, 1, 0, &rsp), I_ERR_NO_CONNECTION);
    EXPECT_EQ(sim().counters().framesReceived, frames);
    I_TAVRO_FreeResponse(nullptr);
}

TEST(Request, AnswersInBothOrdersTimeOutsAndEightCallers)
{
    ASSERT_EQ(I_SwitchConnect(SW_SERVICE_PCE), I_SUCCESS);
    sim().setResponder(echoReversed);

    // Status, error code and payload come back as the switch sent them,
    // whichever byte order it speaks; a code told to fail fails alone.
    sim().setStatus(CMD_DISC_PORT, RSP_INV_CMD);
    for (bool reverse : {false, true}) {
        SCOPED_TRACE(reverse ? "reversed" : "same order");
        switchsim::Faults f;
        f.reverse = reverse;
        sim().setFaults(f);
        const Answer echo = request(CMD_CONN_PORT, {1, 2, 3, 4, 5}, 0);
        EXPECT_EQ(echo.result, I_SUCCESS);
        EXPECT_EQ(echo.status, RSP_OK);
        EXPECT_EQ(echo.error, I_STATUS(-1234));
        EXPECT_EQ(echo.payload, (Bytes{5, 4, 3, 2, 1}));
        const Answer refused = request(CMD_DISC_PORT, {}, 0);
        EXPECT_EQ(std::make_tuple(refused.result, refused.status, refused.payload),
                  std::make_tuple(I_SUCCESS, RSP_INV_CMD, Bytes{}));
    }

    // An answer later than the caller's time-out: the tracker's RSP_TIME_OUT.
    switchsim::Faults slow;
    slow.delayMs = 600;
    sim().setFaults(slow);
    const std::uint64_t sent = sim().counters().framesSent;
    const Answer late = request(CMD_DISC_PORT, {9}, 150);
    EXPECT_EQ(std::make_tuple(late.result, late.status, late.error, late.payload),
              std::make_tuple(I_SUCCESS, RSP_TIME_OUT, I_SUCCESS, Bytes{}));
    sim().setFaults({});
    ASSERT_TRUE(sim().waitFor([sent] { return sim().counters().framesSent > sent; }, kWait));

    // Eight callers at once each get the echo of their own command.
    std::atomic<int> wrong{0};
    std::vector<std::thread> callers;
    for (int t = 0; t < 8; ++t) {
        callers.emplace_back([&wrong, t] {
            for (int round = 0; round < 25; ++round) {
                const Answer a = request(CMD_CONN_PORT, {std::uint8_t(t), std::uint8_t(round)}, 0);
                if (a.result != I_SUCCESS || a.status != RSP_OK ||
                    a.payload != Bytes{std::uint8_t(round), std::uint8_t(t)})
                    ++wrong;
            }
        });
    }
    for (std::thread& c : callers) c.join();
    EXPECT_EQ(wrong.load(), 0);
    sim().setResponder(nullptr);
    sim().clearStatus(CMD_DISC_PORT);
}

} // namespace
