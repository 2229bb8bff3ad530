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
#include <vector>

#include "Ap/ApRawStats.h"
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
using testing::Not;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

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

TEST_F(Api, InitializeOnceBuildsTheSystem)
{
    UDBControl* ctl = UDBControl::getIt();
    ASSERT_NE(ctl, nullptr);
    CrTracker* tracker = CrTracker::getIt();
    IoRouter* router = IoRouter::getIt();
    ASSERT_NE(tracker, nullptr);
    ASSERT_NE(router, nullptr);
    EXPECT_EQ(SYS_PARM::getIt(), &sysParm);
    EXPECT_TRUE(UtlDebug::IsDebugThreadRunning());

    // A second call changes nothing.
    EXPECT_EQ(I_SwitchInitialize(), I_SUCCESS);
    EXPECT_EQ(UDBControl::getIt(), ctl);
    EXPECT_EQ(CrTracker::getIt(), tracker);
    EXPECT_EQ(IoRouter::getIt(), router);

    // The control block's own thread ran its body and left the block alive.
    for (int i = 0; i < 10000 && UDBControl::GetExecuteArg() == nullptr; ++i) Sleep(1);
    EXPECT_EQ(UDBControl::GetExecuteArg(), &sysParm);

    struct rlimit core;
    ASSERT_EQ(getrlimit(RLIMIT_CORE, &core), 0);
    EXPECT_EQ(core.rlim_cur, core.rlim_max);
}

TEST_F(Api, SignalsOnlyTellTheSocketLayer)
{
    struct sigaction pipe;
    ASSERT_EQ(sigaction(SIGPIPE, nullptr, &pipe), 0);
    EXPECT_EQ(pipe.sa_handler, SIG_IGN);
    for (int sig : {SIGTERM, SIGINT}) {
        struct sigaction sa;
        ASSERT_EQ(sigaction(sig, nullptr, &sa), 0);
        EXPECT_NE(sa.sa_handler, SIG_DFL) << sig;
        EXPECT_NE(sa.sa_handler, SIG_IGN) << sig;
    }
    EXPECT_FALSE(OsSocket::isProgramTerminating());
    raise(SIGTERM); // the process lives on
    EXPECT_TRUE(OsSocket::isProgramTerminating());
    OsSocket::setProgramTerminating(false);
}

TEST_F(Api, UnsupportedServicesAreRefusedAndStartNothing)
{
    const SYS_ADDR ownBefore = sysParm.mySysAddr;
    for (int service : {0, 1, 2, 5, -1}) {
        SCOPED_TRACE(service);
        EXPECT_EQ(I_SwitchConnect(static_cast<SW_SERVICE_TYPE>(service)), I_ERR_INVALID_PARAMETER);
        EXPECT_EQ(tavro_internal::switchClient(), nullptr);
        EXPECT_EQ(I_SwitchIsConnected(), I_ERR_NO_CONNECTION);
        EXPECT_THAT(log(), HasSubstr("I_SwitchConnect: Unsupported service type[" + std::to_string(service) + "]"));
    }
    EXPECT_EQ(sysParm.mySysAddr, ownBefore);
}

TEST_F(Api, DisconnectWithoutConnectionSucceeds)
{
    EXPECT_EQ(I_SwitchDisconnect(), I_SUCCESS);
    EXPECT_EQ(I_SwitchIsConnected(), I_ERR_NO_CONNECTION);
}

DWORD neverSoon(int)
{
    return 600000;
}

TEST_F(Api, ConnectWithoutSwitchLeavesTheSessionTrying)
{
    // The session waits before its first attempt; keep it waiting, so that no
    // listener on this machine can make it connect.
    tavro_internal::clientSeams().connectDelayMs = neverSoon;
    tavro_internal::apiSeams().connectPolls = 3;
    tavro_internal::apiSeams().connectPollMs = 1;
    tavro_internal::apiSeams().disconnectPolls = 3;
    tavro_internal::apiSeams().disconnectPollMs = 1;

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
        EXPECT_EQ(session->GetClientId(), 1);
        EXPECT_EQ(I_SwitchIsConnected(), I_ERR_NO_CONNECTION);
        EXPECT_EQ(I_SwitchDisconnect(), I_SUCCESS);
        EXPECT_EQ(tavro_internal::switchClient(), nullptr);
        EXPECT_TRUE(session->WaitFinished(30000));
    }
    tavro_internal::resetClientSeams();
}

// ------------------------------------------------------------ handlers

struct HandlerCall {
    int calls = 0;
    COMMAND_CODE code = CMD_UNDEFINED;
    std::vector<unsigned char> data;
};
HandlerCall g_call;

void recordAndAnswer(COMMAND_CODE code, const void* data, uint32_t size, CrRsp* rsp)
{
    ++g_call.calls;
    g_call.code = code;
    const auto* p = static_cast<const unsigned char*>(data);
    g_call.data.assign(p, p + size);
    const unsigned char answer[3] = {0xAA, 0xBB, 0xCC};
    EXPECT_EQ(I_TAVRO_SetResponseStatus(rsp, RSP_BUSY), I_SUCCESS);
    EXPECT_EQ(I_TAVRO_SetResponseError(rsp, I_ERR_NOT_SUPPORTED), I_SUCCESS);
    EXPECT_EQ(I_TAVRO_SetResponseData(rsp, answer, sizeof answer), I_SUCCESS);
}

void otherHandler(COMMAND_CODE, const void*, uint32_t, CrRsp*)
{
    g_call.calls += 100;
}

// A command as the session hands it over: from switch 1, source TCP_CLIENT.
std::unique_ptr<CrCmd> incoming(COMMAND_CODE code, bool rspReq, int seq)
{
    std::unique_ptr<CrCmd> cmd(new CrCmd());
    cmd->SetCmdCode(code);
    cmd->SetSeqNbr(seq);
    cmd->SetRspReq(rspReq);
    cmd->SetMsgAddr(1);
    cmd->SetSourceNet(TCP_CLIENT);
    const unsigned char payload[4] = {1, 2, 3, 4};
    cmd->SetData(payload, sizeof payload);
    return cmd;
}

TEST_F(Api, RegistrationReplacesAndRemovalAlwaysSucceeds)
{
    g_call = HandlerCall();
    const COMMAND_CODE code = CMD_CONN_PORT;
    EXPECT_EQ(I_TAVRO_RegisterCommandHandler(code, recordAndAnswer), I_SUCCESS);
    EXPECT_EQ(I_TAVRO_RegisterCommandHandler(code, otherHandler), I_SUCCESS);
    EXPECT_EQ(tavro_internal::handlerCount(), 1u);
    CaptureStdout();
    DispatchCommand(incoming(code, false, 5).get());
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_EQ(g_call.calls, 100);

    EXPECT_EQ(I_TAVRO_UnRegisterCommandHandler(code), I_SUCCESS);
    EXPECT_FALSE(tavro_internal::hasHandler(code));
    EXPECT_EQ(I_TAVRO_UnRegisterCommandHandler(code), I_SUCCESS);
    EXPECT_EQ(I_TAVRO_UnRegisterCommandHandler(CMD_DISC_PORT), I_SUCCESS);
    EXPECT_EQ(tavro_internal::handlerCount(), 0u);
}

TEST_F(Api, DispatchAnswersOnlyWhenAskedAndOnlyWithAHandler)
{
    FakeSwitch sw(1);
    const struct {
        const char* name;
        TAVRO_COMMAND_HANDLER handler; // registered unless `registered` is false
        bool registered;
        bool rspReq;
        bool routed;
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
        g_call = HandlerCall();
        I_TAVRO_UnRegisterCommandHandler(CMD_CONN_PORT);
        if (c.registered) I_TAVRO_RegisterCommandHandler(CMD_CONN_PORT, c.handler);
        std::unique_ptr<Routed> route(c.routed ? new Routed(switchTable(), sw) : nullptr);
        const std::size_t before = sw.sentCount();
        auto cmd = incoming(CMD_CONN_PORT, c.rspReq, ++seq);

        CaptureStdout();
        DispatchCommand(cmd.get());
        EXPECT_EQ(GetCapturedStdout(), c.out);
        EXPECT_EQ(g_call.calls, c.calls);
        if (c.calls != 0) {
            EXPECT_EQ(g_call.code, CMD_CONN_PORT);
            EXPECT_EQ(g_call.data, std::vector<unsigned char>({1, 2, 3, 4}));
        }
        ASSERT_EQ(sw.sentCount() - before, c.frames);
        if (c.frames == 0) continue;
        const Frame f = sw.sent().back();
        EXPECT_EQ(f.app.getMsgType(), MSG_RESPONSE);
        EXPECT_EQ(f.app.getSeqNbr(), std::uint32_t(seq));
        EXPECT_EQ(f.app.getCmdCode(), CMD_CONN_PORT);
        if (c.handler != nullptr) {
            EXPECT_EQ(f.app.getRspStatus(), RSP_BUSY);
            EXPECT_EQ(f.app.getAppError(), I_ERR_NOT_SUPPORTED);
            EXPECT_EQ(f.payload(), std::vector<unsigned char>({0xAA, 0xBB, 0xCC}));
        } else {
            EXPECT_EQ(f.app.getRspStatus(), RSP_OK);
            EXPECT_EQ(f.app.getAppError(), I_SUCCESS);
            EXPECT_TRUE(f.payload().empty());
        }
    }
    EXPECT_THAT(log(), HasSubstr("STR_DBG_OUT"));
    I_TAVRO_UnRegisterCommandHandler(CMD_CONN_PORT);
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
    EXPECT_EQ(I_TAVRO_SetResponseData(&rsp, data, 2), I_SUCCESS);
    EXPECT_EQ(rsp.GetSize(), 2);
    // Null data of size 0 takes the payload away again.
    EXPECT_EQ(I_TAVRO_SetResponseData(&rsp, nullptr, 0), I_SUCCESS);
    EXPECT_EQ(rsp.GetSize(), 0);
    EXPECT_EQ(rsp.GetData(), nullptr);
}

// ------------------------------------------------------------ commands

TEST_F(Api, CommandWithoutResponseIsSentBeforeTheCallReturns)
{
    FakeSwitch sw(1);
    Routed route(switchTable(), sw);
    const unsigned char data[5] = {9, 8, 7, 6, 5};
    const struct {
        const void* data;
        unsigned size;
        std::size_t bytes;
    } cases[] = {{data, 5, 45}, {data, 0, 40}, {nullptr, 0, 40}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.size);
        const std::size_t before = sw.sentCount();
        EXPECT_EQ(I_TAVRO_SendCommandNoResponse(CMD_CONN_PORT, c.data, c.size), I_SUCCESS);
        ASSERT_EQ(sw.sentCount(), before + 1);
        const Frame f = sw.sent().back();
        EXPECT_EQ(f.bytes.size(), c.bytes);
        EXPECT_EQ(f.app.getCmdCode(), CMD_CONN_PORT);
        EXPECT_EQ(f.ctl.getManagerClass(), MGR_CONN);
        EXPECT_EQ(f.app.getCmdControl(), CMD_WITHOUT_RSP);
        EXPECT_EQ(CrTracker::getIt()->PendingCount(), 0u);
    }
}

TEST_F(Api, FailedSendsOfCommandsAreNotReported)
{
    // No switch at all.
    EXPECT_EQ(I_TAVRO_SendCommandNoResponse(CMD_CONN_PORT, "x", 1), I_SUCCESS);
    // A payload the router refuses, with its line.
    FakeSwitch sw(1);
    Routed route(switchTable(), sw);
    std::vector<unsigned char> big(MAX_TCP_MSG_SIZE);
    EXPECT_EQ(I_TAVRO_SendCommandNoResponse(CMD_CONN_PORT, big.data(), unsigned(big.size())), I_SUCCESS);
    EXPECT_EQ(I_TAVRO_SendCommandNoResponse(CMD_CONN_PORT, big.data(), 0xFFFFFFFFu), I_SUCCESS);
    EXPECT_EQ(sw.sentCount(), 0u);
    EXPECT_THAT(log(), HasSubstr("SendR700Cmd: MESSAGE TOO LARGE.  appSize[2559936]"));
}

// ------------------------------------------------------------ raw statistics

std::vector<unsigned char> rawReply(std::uint16_t count, std::size_t bytes)
{
    std::vector<unsigned char> b(bytes);
    for (std::size_t i = 0; i < bytes; ++i) b[i] = static_cast<unsigned char>(i * 7 + 1);
    if (bytes >= 2) std::memcpy(b.data(), &count, 2);
    return b;
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
        {"excess dropped", true, RSP_OK, 2, 2500, 1908},
        {"no entries", true, RSP_OK, 0, 6, 6},
        {"head cut short", true, RSP_OK, 0, 5, 0},
        {"no count word", true, RSP_OK, 0, 1, 0},
        {"no payload", true, RSP_OK, 0, 0, 0},
        {"bad status", true, RSP_ERROR, 2, 1908, 0},
        {"no answer", false, RSP_OK, 0, 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::vector<unsigned char> reply = rawReply(c.count, c.payload);
        sw.reply = nullptr;
        if (c.answer) sw.reply = [&](FakeSwitch& s, const Frame& f) { s.answer(f, c.status, reply); };
        // Time-outs only where nothing comes; the seam keeps them short.
        tavro_internal::apiSeams().rawStatsTimeoutMs = c.answer ? 60000 : 20;
        const unsigned short slot = 7;
        void* block = I_GetRawStats(slot);

        const Frame f = sw.sent().back();
        EXPECT_EQ(f.app.getCmdCode(), CMD_GET_BLADE_RAW_STATS);
        EXPECT_EQ(f.app.getCmdControl(), CMD_WITH_RSP);
        EXPECT_FALSE(f.reversed);
        const std::vector<unsigned char> req = f.payload();
        ASSERT_EQ(req.size(), 2u);
        std::uint16_t asked;
        std::memcpy(&asked, req.data(), 2);
        EXPECT_EQ(asked, slot);

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
