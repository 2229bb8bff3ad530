// The request call as an application sees it: only the installed headers and
// libTAVRO.so, against the switch simulator.
#include <TAVRO/TAVRO.h>
#include <TAVRO/TAVRORequest.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <tuple>

#include "../TestSupport.h"
#include "SwitchSimulator.h"

using switchsim::Bytes;
using switchsim::OutFrame;
using switchsim::SimFrame;
using switchsim::SwitchSimulator;

namespace {

class World : public testing::Environment {
public:
    void SetUp() override
    {
        dir.reset(new tavro_test::ScopedTempDir);
        ::mkdir("log", 0755);
        ASSERT_EQ(I_TAVRO_Initialize(), I_SUCCESS); // the bindings' name for I_SwitchInitialize
        std::string error;
        ASSERT_TRUE(sim.start(switchsim::Options{}, &error)) << error;
    }
    void TearDown() override
    {
        I_SwitchDisconnect();
        sim.stop();
        dir.reset();
    }

    SwitchSimulator sim;
    std::unique_ptr<tavro_test::ScopedTempDir> dir;
};

World* const g_world = static_cast<World*>(testing::AddGlobalTestEnvironment(new World));

struct Answer {
    I_STATUS result;
    RSP_STATUS status;
    I_STATUS error;
    Bytes payload;
};

Answer request(COMMAND_CODE code, const Bytes& payload)
{
    TAVRO_RESPONSE rsp;
    std::memset(&rsp, 0xA5, sizeof rsp);
    Answer a;
    a.result = I_TAVRO_SendCommandWithResponse(code, payload.data(), unsigned(payload.size()), 0, &rsp);
    a.status = rsp.status;
    a.error = rsp.errorCode;
    const auto* d = static_cast<const std::uint8_t*>(rsp.data);
    if (d != nullptr) a.payload.assign(d, d + rsp.dataSize);
    EXPECT_EQ(d == nullptr, rsp.dataSize == 0u);
    I_TAVRO_FreeResponse(&rsp);
    EXPECT_EQ(rsp.data, nullptr);
    return a;
}

TEST(Request, RefusesBadArgumentsReportsNoConnectionAndAnswersInBothOrders)
{
    SwitchSimulator& sim = g_world->sim;
    TAVRO_RESPONSE rsp;
    const std::uint8_t byte = 1;
    EXPECT_EQ(I_TAVRO_SendCommandWithResponse(CMD_CONN_PORT, nullptr, 0, 0, nullptr), I_ERR_INVALID_PARAMETER);
    EXPECT_EQ(I_TAVRO_SendCommandWithResponse(CMD_CONN_PORT, nullptr, 1, 0, &rsp), I_ERR_INVALID_PARAMETER);
    EXPECT_EQ(I_TAVRO_SendCommandWithResponse(CMD_CONN_PORT, &byte, 2559936, 0, &rsp), I_ERR_INVALID_PARAMETER);
    EXPECT_EQ(I_TAVRO_SendCommandWithResponse(CMD_CONN_PORT, &byte, 1, 0x80000000u, &rsp), I_ERR_INVALID_PARAMETER);
    EXPECT_EQ(rsp.data, nullptr);
    ASSERT_EQ(I_SwitchIsConnected(), I_ERR_NO_CONNECTION);
    EXPECT_EQ(I_TAVRO_SendCommandWithResponse(CMD_CONN_PORT, &byte, 1, 0, &rsp), I_ERR_NO_CONNECTION);
    I_TAVRO_FreeResponse(nullptr);

    ASSERT_EQ(I_SwitchConnect(SW_SERVICE_PCE), I_SUCCESS);
    EXPECT_EQ(sim.counters().framesReceived, 0u) << "nothing was sent before";
    // The switch echoes CMD_CONN_PORT payloads reversed, with error code
    // -1234; a code told to fail fails alone, whichever order the switch speaks.
    sim.setResponder([](SwitchSimulator& s, const SimFrame& f) {
        if (f.cmdCode != CMD_CONN_PORT) return false;
        OutFrame r = s.defaultResponse(f);
        r.payload.assign(f.payload.rbegin(), f.payload.rend());
        r.appError = std::uint32_t(-1234);
        return s.send(f.conn, r);
    });
    sim.setStatus(CMD_DISC_PORT, RSP_INV_CMD);
    for (bool reverse : {false, true}) {
        SCOPED_TRACE(reverse ? "reversed" : "same order");
        switchsim::Faults f;
        f.reverse = reverse;
        sim.setFaults(f);
        const Answer echo = request(CMD_CONN_PORT, {1, 2, 3, 4, 5});
        EXPECT_EQ(std::make_tuple(echo.result, echo.status, echo.error, echo.payload),
                  std::make_tuple(I_SUCCESS, RSP_OK, I_STATUS(-1234), Bytes{5, 4, 3, 2, 1}));
        EXPECT_EQ(request(CMD_CONN_PORT, {9}).payload, Bytes{9}); // one byte is an answer too
        const Answer refused = request(CMD_DISC_PORT, {});
        EXPECT_EQ(std::make_tuple(refused.result, refused.status, refused.payload),
                  std::make_tuple(I_SUCCESS, RSP_INV_CMD, Bytes{}));
    }
    sim.setResponder(nullptr);
}

} // namespace
