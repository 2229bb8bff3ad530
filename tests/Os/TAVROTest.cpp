#include "Os/TAVRO.h"

#include <gmock/gmock.h>
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "Common/OS/Linux/OSAL.h"
#include "Common/OS/OsSocket.h"
#include "Common/Utility/UtlDebug.h"
#include "Cr/CrDBTracker.h"
#include "Io/FakeSwitch.h"
#include "Io/IoDBClient.h"
#include "Io/IoDBRouter.h"
#include "Io/IoRouteTable.h"
#include "Os/UDBControl.h"
#include "Os/UDBServ.h"
#include "TestSupport.h"

using fake_switch::FakeSwitch;
using fake_switch::Frame;
using fake_switch::Routed;
using testing::HasSubstr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using Bytes = std::vector<unsigned char>;

namespace {

// Every test runs initialised, in a directory of its own (the debug log and
// the configuration file are relative paths).
struct Api : testing::Test {
    void SetUp() override
    {
        tavro_internal::resetApiSeams();
        tavro_internal::resetRouteTableSeams();
        tavro_internal::routeTableSeams().maxDrainWaits = 0;
        ::mkdir("log", 0755); // already there when an earlier test of this process initialised
        ASSERT_EQ(I_SwitchInitialize(), I_SUCCESS);
    }
    void TearDown() override { tavro_internal::resetApiSeams(); }

    static std::string log()
    {
        UtlDebug::GetTheUtlDebug()->WaitUntilDrained(30000);
        return tavro_test::readFile("log/Test.Debug.log");
    }
    static RouteTable& switchTable() { return *RouteTable::getIt(SMN_SWI_TABLE); }

    tavro_test::ScopedTempDir dir;
};

TEST_F(Api, InitializeOnceBuildsTheSystemAndSetsUpTheProcess)
{
    UDBControl* ctl = UDBControl::getIt();
    CrTracker* tracker = CrTracker::getIt();
    IoRouter* router = IoRouter::getIt();
    ASSERT_TRUE(ctl && tracker && router);
    EXPECT_EQ(SYS_PARM::getIt(), &sysParm);
    EXPECT_TRUE(UtlDebug::IsDebugThreadRunning());
    EXPECT_EQ(I_SwitchInitialize(), I_SUCCESS); // a second call changes nothing
    EXPECT_EQ(std::make_tuple(UDBControl::getIt(), CrTracker::getIt(), IoRouter::getIt()),
              std::make_tuple(ctl, tracker, router));
    // The control block's own thread ran its body and left the block alive.
    for (int i = 0; i < 10000 && UDBControl::GetExecuteArg() == nullptr; ++i) Sleep(1);
    EXPECT_EQ(UDBControl::GetExecuteArg(), &sysParm);

    struct rlimit core;
    ASSERT_EQ(getrlimit(RLIMIT_CORE, &core), 0);
    EXPECT_EQ(core.rlim_cur, core.rlim_max);
    // Signals only tell the socket layer; the process lives on.
    struct sigaction sa;
    ASSERT_EQ(sigaction(SIGPIPE, nullptr, &sa), 0);
    EXPECT_EQ(sa.sa_handler, SIG_IGN);
    for (int sig : {SIGTERM, SIGINT}) {
        ASSERT_EQ(sigaction(sig, nullptr, &sa), 0);
        EXPECT_TRUE(sa.sa_handler != SIG_DFL && sa.sa_handler != SIG_IGN) << sig;
    }
    EXPECT_FALSE(OsSocket::isProgramTerminating());
    raise(SIGTERM);
    EXPECT_TRUE(OsSocket::isProgramTerminating());
    OsSocket::setProgramTerminating(false);
}

TEST_F(Api, ConnectRefusesUnsupportedServicesAndOtherwiseLeavesTheSessionTrying)
{
    const SYS_ADDR ownBefore = sysParm.mySysAddr;
    for (int service : {0, 1, 2, 5, -1}) {
        SCOPED_TRACE(service);
        EXPECT_EQ(I_SwitchConnect(static_cast<SW_SERVICE_TYPE>(service)), -107);
        EXPECT_EQ(tavro_internal::switchClient(), nullptr);
        EXPECT_THAT(log(), HasSubstr("I_SwitchConnect: Unsupported service type[" + std::to_string(service) + "]"));
    }
    EXPECT_EQ(sysParm.mySysAddr, ownBefore);
    EXPECT_EQ(I_SwitchDisconnect(), 0) << "nothing to disconnect is success";

    // Supported services: keep the session waiting for its first attempt.
    tavro_internal::clientSeams().connectDelayMs = [](int) -> DWORD { return 600000; };
    tavro_internal::apiSeams().connectPolls = tavro_internal::apiSeams().disconnectPolls = 3;
    tavro_internal::apiSeams().connectPollMs = tavro_internal::apiSeams().disconnectPollMs = 1;
    const struct {
        SW_SERVICE_TYPE service;
        SYS_ADDR own;
        unsigned short port;
    } rows[] = {{SW_SERVICE_SNMP, SYS_SNMP_AGENT, 58991}, {SW_SERVICE_PCE, SYS_PCE_PROCESS, 58992}};
    for (const auto& r : rows) {
        SCOPED_TRACE(r.service);
        EXPECT_EQ(I_SwitchConnect(r.service), I_ERR_NO_CONNECTION);
        EXPECT_EQ(sysParm.mySysAddr, r.own);
        IoClientMgmt* session = tavro_internal::switchClient();
        ASSERT_NE(session, nullptr);
        EXPECT_EQ(ntohs(session->GetSockAddr().sin_port), r.port);
        EXPECT_EQ(I_SwitchDisconnect(), I_SUCCESS);
        EXPECT_EQ(tavro_internal::switchClient(), nullptr);
        EXPECT_TRUE(session->WaitFinished(30000));
    }
    tavro_internal::resetClientSeams();
}

int g_calls = 0;
Bytes g_data;

void recordAndAnswer(COMMAND_CODE code, const void* data, uint32_t size, CrRsp* rsp)
{
    ++g_calls;
    EXPECT_EQ(code, CMD_CONN_PORT);
    g_data.assign(static_cast<const unsigned char*>(data), static_cast<const unsigned char*>(data) + size);
    const unsigned char answer[3] = {0xAA, 0xBB, 0xCC};
    EXPECT_EQ(I_TAVRO_SetResponseStatus(rsp, RSP_BUSY), I_SUCCESS);
    EXPECT_EQ(I_TAVRO_SetResponseError(rsp, I_ERR_NOT_SUPPORTED), I_SUCCESS);
    EXPECT_EQ(I_TAVRO_SetResponseData(rsp, answer, sizeof answer), I_SUCCESS);
}

void otherHandler(COMMAND_CODE, const void*, uint32_t, CrRsp*)
{
    g_calls += 100;
}

// A command as the session hands it over: from switch 1, source TCP_CLIENT.
std::unique_ptr<CrCmd> incoming(bool rspReq, int seq)
{
    std::unique_ptr<CrCmd> cmd(new CrCmd());
    cmd->SetCmdCode(CMD_CONN_PORT);
    cmd->SetSeqNbr(seq);
    cmd->SetRspReq(rspReq);
    cmd->SetMsgAddr(1);
    cmd->SetSourceNet(TCP_CLIENT);
    cmd->SetData("\1\2\3\4", 4);
    return cmd;
}

// Registering replaces an earlier handler; DispatchCommand calls the handler
// and answers only when asked, and says so on standard output.
TEST_F(Api, DispatchAnswersOnlyWhenAskedAndOnlyWithAHandler)
{
    FakeSwitch sw(1);
    const struct {
        const char* name;
        TAVRO_COMMAND_HANDLER handler;
        bool registered, rspReq, routed;
        int calls;
        std::size_t frames;
        const char* out;
    } cases[] = {
        {"handled, no response wanted", recordAndAnswer, true, false, true, 1, 0, ""},
        {"handled, response wanted", recordAndAnswer, true, true, true, 1, 1, "Send response result=0\n"},
        {"handled, switch unreachable", recordAndAnswer, true, true, false, 1, 0, "Send response result=3\n"},
        {"null handler, response wanted", nullptr, true, true, true, 0, 1, "Send response result=0\n"},
        {"no handler, response wanted", nullptr, false, true, true, 0, 0, "GOT AN UNHANDLED COMMAND!!!\n\n"},
    };
    int seq = 40;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        g_calls = 0;
        g_data.clear();
        EXPECT_EQ(I_TAVRO_UnRegisterCommandHandler(CMD_CONN_PORT), I_SUCCESS);
        if (c.registered) {
            EXPECT_EQ(I_TAVRO_RegisterCommandHandler(CMD_CONN_PORT, otherHandler), I_SUCCESS);
            EXPECT_EQ(I_TAVRO_RegisterCommandHandler(CMD_CONN_PORT, c.handler), I_SUCCESS);
        }
        EXPECT_EQ(tavro_internal::handlerCount(), c.registered ? 1u : 0u);
        std::unique_ptr<Routed> route(c.routed ? new Routed(switchTable(), sw) : nullptr);
        const std::size_t before = sw.sentCount();
        CaptureStdout();
        DispatchCommand(incoming(c.rspReq, ++seq).get());
        EXPECT_EQ(GetCapturedStdout(), c.out);
        EXPECT_EQ(g_calls, c.calls);
        EXPECT_EQ(g_data, (c.calls == 1 ? Bytes{1, 2, 3, 4} : Bytes{}));
        ASSERT_EQ(sw.sentCount() - before, c.frames);
        if (c.frames == 0) continue;
        const Frame f = sw.sent().back();
        EXPECT_EQ(std::make_tuple(f.app.getMsgType(), f.app.getSeqNbr(), f.app.getCmdCode()),
                  std::make_tuple(MSG_RESPONSE, std::uint32_t(seq), CMD_CONN_PORT));
        EXPECT_EQ(std::make_tuple(f.app.getRspStatus(), f.app.getAppError(), f.payload()),
                  (c.handler ? std::make_tuple(RSP_BUSY, I_ERR_NOT_SUPPORTED, Bytes{0xAA, 0xBB, 0xCC})
                             : std::make_tuple(RSP_OK, I_SUCCESS, Bytes{})));
    }
    EXPECT_THAT(log(), HasSubstr("STR_DBG_OUT"));
    for (COMMAND_CODE code : {CMD_CONN_PORT, CMD_DISC_PORT})
        EXPECT_EQ(I_TAVRO_UnRegisterCommandHandler(code), I_SUCCESS);
    EXPECT_EQ(tavro_internal::handlerCount(), 0u);
}

TEST_F(Api, ResponseAccessRefusesBadArguments)
{
    CrRsp rsp;
    const unsigned char data[2] = {5, 6};
    EXPECT_EQ(I_TAVRO_SetResponseStatus(nullptr, RSP_OK), I_ERR_INVALID_PARAMETER);
    EXPECT_EQ(I_TAVRO_SetResponseError(nullptr, I_SUCCESS), I_ERR_INVALID_PARAMETER);
    EXPECT_EQ(I_TAVRO_SetResponseData(nullptr, data, 2), I_ERR_INVALID_PARAMETER);
    EXPECT_EQ(I_TAVRO_SetResponseData(&rsp, nullptr, 2), I_ERR_INVALID_PARAMETER);
    EXPECT_EQ(I_TAVRO_SetResponseData(&rsp, data, 0x80000000u), I_ERR_INVALID_PARAMETER);
    ASSERT_EQ(I_TAVRO_SetResponseData(&rsp, data, 2), I_SUCCESS);
    EXPECT_EQ(I_TAVRO_SetResponseData(&rsp, nullptr, 0), I_SUCCESS); // takes the payload away again
    EXPECT_EQ(std::make_tuple(rsp.GetSize(), rsp.GetData()), std::make_tuple(0, static_cast<const void*>(nullptr)));
}

TEST_F(Api, CommandWithoutResponseIsSentUnlessOversize)
{
    FakeSwitch sw(1);
    Routed route(switchTable(), sw);
    const Bytes data(8, 9);
    EXPECT_EQ(I_TAVRO_SendCommandNoResponse(CMD_CONN_PORT, data.data(), 0xFFFFFFFFu), I_SUCCESS);
    EXPECT_EQ(sw.sentCount(), 0u); // the router refuses it before reading a byte
    EXPECT_EQ(I_TAVRO_SendCommandNoResponse(CMD_CONN_PORT, data.data(), 5), I_SUCCESS);
    ASSERT_EQ(sw.sentCount(), 1u);
    EXPECT_EQ(sw.sent().back().bytes.size(), 45u);
    EXPECT_EQ(CrTracker::getIt()->PendingCount(), 0u);
}

TEST_F(Api, RawStatsKeepExactlyTheCountedLength)
{
    FakeSwitch sw(1);
    Routed route(switchTable(), sw);
    const struct {
        const char* name;
        bool answer;
        RSP_STATUS status;
        std::uint16_t count;
        std::size_t payload;
        std::size_t block; // 0: null expected
    } cases[] = {
        {"two entries exactly", true, RSP_OK, 2, 1908, 1908},
        {"one byte short", true, RSP_OK, 2, 1907, 0},
        {"no entries", true, RSP_OK, 0, 6, 6},
        {"no count word", true, RSP_OK, 0, 1, 0},
        {"no payload", true, RSP_OK, 0, 0, 0},
        {"bad status", true, RSP_ERROR, 2, 1908, 0},
        {"no answer", false, RSP_OK, 0, 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Bytes reply(c.payload);
        for (std::size_t i = 0; i < reply.size(); ++i) reply[i] = static_cast<unsigned char>(i * 7 + 1);
        if (reply.size() >= 2) std::memcpy(reply.data(), &c.count, 2);
        sw.reply = nullptr;
        if (c.answer) sw.reply = [&](FakeSwitch& s, const Frame& f) { s.answer(f, c.status, reply); };
        // Time-outs only where nothing comes; the seam keeps them short.
        tavro_internal::apiSeams().rawStatsTimeoutMs = c.answer ? 60000 : 20;
        const unsigned short slot = 7;
        void* block = I_GetRawStats(slot);

        const Frame f = sw.sent().back();
        const auto* slotBytes = reinterpret_cast<const unsigned char*>(&slot);
        EXPECT_EQ(std::make_tuple(f.app.getCmdCode(), f.app.getCmdControl(), f.reversed, f.payload()),
                  std::make_tuple(CMD_GET_BLADE_RAW_STATS, CMD_WITH_RSP, false, Bytes(slotBytes, slotBytes + 2)));
        if (c.block == 0) {
            EXPECT_EQ(block, nullptr);
            continue;
        }
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(std::memcmp(block, reply.data(), c.block), 0);
        std::free(block);
    }
    EXPECT_EQ(CrTracker::getIt()->PendingCount(), 0u);
}

} // namespace
