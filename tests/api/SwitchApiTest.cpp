// The library as an application sees it: only the installed headers and
// libTAVRO.so, against the switch simulator on both service ports. Each test
// is a process of its own under ctest and pays the first connect's 2 s once.
#include <TAVRO/TAVRO.h>
#include <TAVRO/TAVRORequest.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "SwitchSimulator.h"

using switchsim::Bytes;
using switchsim::OutFrame;
using switchsim::SimFrame;
using switchsim::SwitchSimulator;

namespace {

constexpr auto kWait = std::chrono::seconds(30);
constexpr std::uint32_t kSnmpAgentAddr = 25; // the source address of everything this service sends

class World : public testing::Environment {
public:
    void SetUp() override
    {
        char tmpl[] = "/tmp/tavro-api-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        ASSERT_EQ(chdir(tmpl), 0);
        ::mkdir("log", 0755);
        ASSERT_EQ(I_TAVRO_Initialize(), I_SUCCESS); // the bindings' name for I_SwitchInitialize
        std::string error;
        ASSERT_TRUE(sim.start(switchsim::Options{}, &error)) << error;
    }
    void TearDown() override
    {
        I_SwitchDisconnect();
        sim.stop();
        std::error_code ignored;
        if (chdir("/") == 0) std::filesystem::remove_all(dir, ignored);
    }

    SwitchSimulator sim;
    std::string dir;
};

World* const g_world = static_cast<World*>(testing::AddGlobalTestEnvironment(new World));

SwitchSimulator& sim()
{
    return g_world->sim;
}

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
        // Handlers are registered before traffic starts: the table is not locked.
        ASSERT_EQ(I_TAVRO_RegisterCommandHandler(CMD_CONN_PORT, answeringHandler), I_SUCCESS);
        ASSERT_EQ(I_SwitchConnect(SW_SERVICE_SNMP), I_SUCCESS);
        ASSERT_EQ(I_SwitchIsConnected(), I_SUCCESS);
        // Connected is not enough: the link test header may still be in flight.
        ASSERT_TRUE(sim().waitFor(
            [] {
                const std::vector<std::uint64_t> open = sim().openConnections();
                return !open.empty() && sim().receivedBytes(open.back()).size() >= 12;
            },
            kWait));
    }
    static void TearDownTestSuite() { I_SwitchDisconnect(); }
    void TearDown() override
    {
        sim().setResponder(nullptr);
        sim().setFaults({});
    }

    static std::uint64_t conn() { return sim().openConnections().back(); }
    static std::vector<SimFrame> answersTo(std::uint32_t seq)
    {
        std::vector<SimFrame> out;
        for (const SimFrame& f : sim().receivedFrames())
            if (f.conn == conn() && !f.isCommand() && f.seqNbr == seq) out.push_back(f);
        return out;
    }
};

TEST_F(SwitchApi, HandlersAnswerExactlyWhenAskedInEitherByteOrder)
{
    for (bool reverse : {false, true}) {
        SCOPED_TRACE(reverse ? "reversed" : "same order");
        switchsim::Faults f;
        f.reverse = reverse;
        sim().setFaults(f);
        {
            std::lock_guard<std::mutex> g(g_handlerLock);
            g_handled.clear();
        }
        const std::uint32_t quiet = sim().sendCommand(conn(), CMD_CONN_PORT, {1, 2, 3}, false);
        const std::uint32_t asked = sim().sendCommand(conn(), CMD_CONN_PORT, {4, 5}, true);
        const std::uint32_t unhandled = sim().sendCommand(conn(), CMD_DISC_PORT, {6}, true);
        // A later answered command: everything before it has been handled.
        const std::uint32_t after = sim().sendCommand(conn(), CMD_CONN_PORT, {}, true);
        ASSERT_TRUE(sim().waitFor([&] { return !answersTo(after).empty(); }, kWait));
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

TEST(Request, AnswersInBothOrders)
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
        EXPECT_EQ(std::make_tuple(echo.result, echo.status, echo.error, echo.payload),
                  std::make_tuple(I_SUCCESS, RSP_OK, I_STATUS(-1234), Bytes{5, 4, 3, 2, 1}));
        const Answer refused = request(CMD_DISC_PORT, {}, 0);
        EXPECT_EQ(std::make_tuple(refused.result, refused.status, refused.payload),
                  std::make_tuple(I_SUCCESS, RSP_INV_CMD, Bytes{}));
    }

    sim().setResponder(nullptr);
    sim().clearStatus(CMD_DISC_PORT);
}

} // namespace
