#include "Os/UDBControl.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "Common/OS/Linux/OSAL.h"
#include "Common/Utility/UtlQueue.h"
#include "Cr/CrDBTracker.h"
#include "Io/IoDBRouter.h"
#include "Io/IoRouteTable.h"

using testing::HasSubstr;
using testing::Not;

namespace {

class Control : public testing::Test {
protected:
    void SetUp() override { UDBControl::ResetStaticsForTest(); }
    void TearDown() override { UDBControl::ResetStaticsForTest(); }

    // Builds a bare control block (no route tables, no threads) and returns
    // what it traced.
    std::string build(SYS_PARM& parm)
    {
        testing::internal::CaptureStdout();
        ctl = new UDBControl(&parm, UDBControl::SKIP_PREPARE);
        return testing::internal::GetCapturedStdout();
    }
    void destroy()
    {
        delete ctl;
        ctl = nullptr;
    }
    UDBControl* ctl = nullptr;
};

TEST_F(Control, ConstructionRegistersTheParametersAndTraces)
{
    int other = 0;
    UDBControl::InsertClassRef(SMN_TRACKER, &other); // cleared by construction
    SYS_PARM parm;
    EXPECT_THAT(build(parm), HasSubstr("SetCtlState:   CTL: state[CTL_INITIAL]"));
    EXPECT_EQ(UDBControl::getIt(), ctl);
    EXPECT_EQ(UDBControl::GetClassRef(SMN_SYS_PARM), &parm);
    EXPECT_EQ(SYS_PARM::getIt(), &parm);
    EXPECT_EQ(UDBControl::GetClassRef(SMN_TRACKER), nullptr);
    EXPECT_EQ(ctl->GetCtlState(), CTL_INITIAL);
    EXPECT_EQ(UDBControl::GetDefaultMsgTimeout(), 10000);
    EXPECT_NE(ctl->GetEventLock(), nullptr);
    EXPECT_FALSE(ctl->IsFailedOver());
    destroy();
    EXPECT_EQ(UDBControl::getIt(), nullptr);
}

TEST_F(Control, NoMsgTimeoutWaitsForEver)
{
    SYS_PARM parm;
    parm.noMsgTimeout = true;
    build(parm);
    EXPECT_EQ(UDBControl::GetDefaultMsgTimeout(), -1);
    destroy();
}

TEST_F(Control, DiscoveryModeSilencesTheStateTrace)
{
    SYS_PARM parm;
    parm.bDiscoverSwitches = true;
    EXPECT_THAT(build(parm), Not(HasSubstr("SetCtlState")));
    testing::internal::CaptureStdout();
    ctl->SetCtlState(CTL_INIT);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(ctl->GetCtlState(), CTL_INIT);

    parm.bDiscoverSwitches = false;
    testing::internal::CaptureStdout();
    ctl->SetCtlState(CTL_INIT);
    EXPECT_THAT(testing::internal::GetCapturedStdout(), HasSubstr("SetCtlState:   CTL: state[CTL_INIT]"));
    destroy();
}

TEST_F(Control, ClassTableRange)
{
    int object = 0;
    UDBControl::InsertClassRef(SMN_POLL_TABLE, &object);
    EXPECT_EQ(UDBControl::GetClassRef(SMN_POLL_TABLE), &object);

    struct Case {
        int type;
        const char* line;
    } cases[] = {
        {26, "ORVControl::InsertClassRef( type[26] ): out of range"},
        {1000, "ORVControl::InsertClassRef( type[1000] ): out of range"},
        {-1, "ORVControl::InsertClassRef( type[-1] ): out of range"},
    };
    for (const auto& c : cases) {
        testing::internal::CaptureStdout();
        UDBControl::InsertClassRef(static_cast<CLASS_TYPE>(c.type), &object);
        EXPECT_THAT(testing::internal::GetCapturedStdout(), HasSubstr(c.line));
        EXPECT_EQ(UDBControl::GetClassRef(static_cast<CLASS_TYPE>(c.type)), nullptr);
    }
    for (int t = SMN_UNUSED; t < SMN_POLL_TABLE; ++t)
        EXPECT_EQ(UDBControl::GetClassRef(static_cast<CLASS_TYPE>(t)), nullptr) << t;
}

TEST_F(Control, SequenceNumbersSkipZero)
{
    struct Case {
        std::uint32_t last;
        std::vector<std::uint32_t> next;
    } cases[] = {
        {0, {1, 2, 3}},
        {4294967294u, {4294967295u, 1, 2}},
        {4294967295u, {1}},
    };
    for (const auto& c : cases) {
        UDBControl::SetSeqNbrForTest(c.last);
        for (std::uint32_t expected : c.next) EXPECT_EQ(UDBControl::GenSeqNbr(), expected) << c.last;
    }
}

TEST_F(Control, SequenceNumbersAreUniqueAcrossThreads)
{
    UDBControl::SetSeqNbrForTest(4294967295u - 5000);
    constexpr int kThreads = 4, kEach = 5000;
    std::vector<std::vector<std::uint32_t>> got(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&got, t] {
            for (int i = 0; i < kEach; ++i) got[t].push_back(UDBControl::GenSeqNbr());
        });
    for (auto& t : threads) t.join();
    std::vector<std::uint32_t> all;
    for (auto& g : got) all.insert(all.end(), g.begin(), g.end());
    std::sort(all.begin(), all.end());
    EXPECT_EQ(std::adjacent_find(all.begin(), all.end()), all.end());
    EXPECT_EQ(std::count(all.begin(), all.end(), 0u), 0);
    EXPECT_EQ(all.size(), static_cast<size_t>(kThreads * kEach));
}

TEST_F(Control, ExecuteKeepsItsArgument)
{
    SYS_PARM parm;
    build(parm);
    int token = 0;
    EXPECT_EQ(ctl->Execute(&token), nullptr);
    EXPECT_EQ(UDBControl::GetExecuteArg(), &token);
    destroy();
}

TEST_F(Control, PrepareSystemStartsTheRouterAndTrackerOnItsTables)
{
    SYS_PARM parm;
    testing::internal::CaptureStdout();
    ctl = new UDBControl(&parm, UDBControl::PREPARE_SYSTEM);
    testing::internal::GetCapturedStdout();

    const struct {
        CLASS_TYPE slot;
        TCP_TYPE type;
    } tables[] = {{SMN_API_TABLE, TCP_SERVER}, {SMN_SWI_TABLE, TCP_CLIENT}, {SMN_POLL_TABLE, TCP_POLL}};
    for (const auto& t : tables) {
        ASSERT_NE(RouteTable::getIt(t.slot), nullptr) << t.slot;
        EXPECT_EQ(RouteTable::getIt(t.slot)->GetTableType(), t.type);
    }
    IoRouter* router = IoRouter::getIt();
    ASSERT_NE(router, nullptr);
    // The router was made after the tables, and found them.
    EXPECT_EQ(router->pApiRoute, RouteTable::getIt(SMN_API_TABLE));
    EXPECT_EQ(router->pSwiRoute, RouteTable::getIt(SMN_SWI_TABLE));
    EXPECT_EQ(router->pPollRoute, RouteTable::getIt(SMN_POLL_TABLE));
    EXPECT_EQ(router->pUDBCtl, ctl);
    ASSERT_NE(CrTracker::getIt(), nullptr);

    // Both threads run: a command passes the tracker (Dispatch returns once
    // it has), and the router's loop empties its event queue.
    CrCmd cmd;
    EXPECT_EQ(cmd.GetTracker(), CrTracker::getIt());
    cmd.SetCmdCode(CMD_CONN_PORT);
    cmd.SetMsgAddr(1);
    cmd.Dispatch();
    char event[16] = {};
    router->SendEvent(event, sizeof event);
    for (int i = 0; i < 10000 && !router->GetEventQueue()->Empty(); ++i) Sleep(1);
    EXPECT_TRUE(router->GetEventQueue()->Empty());

    EXPECT_TRUE(ctl->StopSystem(30000));
    for (CLASS_TYPE t : {SMN_API_TABLE, SMN_SWI_TABLE, SMN_POLL_TABLE, SMN_IOR, SMN_TRACKER})
        EXPECT_EQ(UDBControl::GetClassRef(t), nullptr) << t;
    destroy();
}

TEST_F(Control, ControlThreadRunsItsBodyWhileTheBlockLivesOn)
{
    SYS_PARM parm;
    build(parm);
    int token = 0;
    ASSERT_TRUE(ctl->StartControlThread(&token));
    for (int i = 0; i < 10000 && UDBControl::GetExecuteArg() != &token; ++i) Sleep(1);
    EXPECT_EQ(UDBControl::GetExecuteArg(), &token);
    // The thread object that ran the body deleted itself; this one is intact.
    EXPECT_EQ(UDBControl::getIt(), ctl);
    EXPECT_NE(ctl->GetEventLock(), nullptr);
    EXPECT_EQ(ctl->GetSysParm(), &parm);
    destroy();
}

TEST(PortNum, Words)
{
    PORT_NUM p(0x04030201u);
    EXPECT_EQ(p.portId, 1);
    EXPECT_EQ(p.pimId, 2);
    EXPECT_EQ(p.ccId, 3);
    EXPECT_EQ(p.swId, 4);
    EXPECT_EQ(p.value(), 0x04030201u);

    const PORT_NUM& inv = PORT_NUM::INVALID_PORT_NUM;
    EXPECT_EQ(inv.value(), 0xFFFFFFFFu);
    const PORT_NUM& all = PORT_NUM::ALL_PORT_NUMS;
    EXPECT_EQ(all.portId, 254);
    EXPECT_EQ(all.pimId, 255);
    EXPECT_EQ(all.ccId, 255);
    EXPECT_EQ(all.swId, 255);

    // Sub-port words are one-based in every byte, the sub-port too.
    SUBPORT_NUM s(0x01020304);
    EXPECT_EQ(s.ccId, 0);
    EXPECT_EQ(s.pimId, 1);
    EXPECT_EQ(s.portId, 2);
    EXPECT_EQ(s.subportId, 3);
    const SUBPORT_NUM& sinv = SUBPORT_NUM::INVALID_SUBPORT_NUM;
    EXPECT_EQ(sinv.ccId, 254);
    EXPECT_EQ(sinv.pimId, 254);
    EXPECT_EQ(sinv.portId, 254);
    EXPECT_EQ(sinv.subportId, 254);
    SUBPORT_NUM wrap(0);
    EXPECT_EQ(wrap.ccId, 255);
    EXPECT_EQ(wrap.subportId, 255);
}

TEST(PortNum, Validity)
{
    struct Parts {
        unsigned cc, pim, port;
        bool valid;
    } parts[] = {
        {0, 0, 0, true},  {7, 11, 200, true}, {8, 0, 0, false},
        {0, 12, 0, false}, {7, 11, 255, true},
    };
    for (const auto& c : parts) {
        PORT_NUM p(c.port | c.pim << 8 | c.cc << 16);
        EXPECT_EQ(p.isValid(), c.valid) << c.cc << "." << c.pim << "." << c.port;
    }
    EXPECT_FALSE(PORT_NUM::INVALID_PORT_NUM.isValid());
    EXPECT_TRUE(PORT_NUM::ALL_PORT_NUMS.isValid());
    EXPECT_FALSE(PORT_NUM().isValid());
}

TEST(PortNum, Text)
{
    struct Case {
        const char* text;
        bool parsed;
        unsigned cc, pim, port;
    } cases[] = {
        {"1.2.3", true, 0, 1, 2},
        {"  8.12.255 \t", true, 7, 11, 254},
        {"01.02.03", true, 0, 1, 2},
        {"1.1.256", false, 0, 0, 0},
        {"0.2.3", false, 0, 0, 0},
        {"1.0.3", false, 0, 0, 0},
        {"1.2.0", false, 0, 0, 0},
        {"1.2", false, 0, 0, 0},
        {"1.2.3.4", false, 0, 0, 0},
        {"1.2.3.", false, 0, 0, 0},
        {"1.x.3", false, 0, 0, 0},
        {"1..23", false, 0, 0, 0},
        {"-1.2.3", false, 0, 0, 0},
        {"", false, 0, 0, 0},
        {nullptr, false, 0, 0, 0},
        {"99999999999999999999.1.1", false, 0, 0, 0},
    };
    for (const auto& c : cases) {
        PORT_NUM p(c.text);
        const char* name = c.text ? c.text : "(null)";
        if (!c.parsed) {
            EXPECT_EQ(p, PORT_NUM::INVALID_PORT_NUM) << name;
            continue;
        }
        EXPECT_EQ(p.ccId, c.cc) << name;
        EXPECT_EQ(p.pimId, c.pim) << name;
        EXPECT_EQ(p.portId, c.port) << name;
        EXPECT_EQ(p.swId, 0) << name;
    }
    // Only the first 63 characters are looked at.
    std::string padded = std::string(60, ' ') + "1.2.3";
    EXPECT_EQ(PORT_NUM(padded.c_str()), PORT_NUM::INVALID_PORT_NUM);
    std::string fits = std::string(58, ' ') + "1.2.3";
    EXPECT_EQ(PORT_NUM(fits.c_str()).toString(), "1.2.3");

    EXPECT_EQ(PORT_NUM("3.4.5").toString(), "3.4.5");
    EXPECT_EQ(PORT_NUM::INVALID_PORT_NUM.toString(), "INVALID");
    EXPECT_EQ(PORT_NUM::ALL_PORT_NUMS.toString(), "ALL");
}

TEST(SubportNum, Text)
{
    struct Case {
        const char* text;
        bool parsed;
        unsigned cc, pim, port, sub;
    } cases[] = {
        {"1.1.1.2", true, 0, 0, 0, 2},
        {"2.3.4.1", true, 1, 2, 3, 1},
        {"2.3.4.0", true, 1, 2, 3, 0},
        {"1.1.1", false, 0, 0, 0, 0},
        {"1.1.1.2.3", false, 0, 0, 0, 0},
        {"0.1.1.1", false, 0, 0, 0, 0},
        {"1.1.1.", false, 0, 0, 0, 0},
        {"1.1.a.1", false, 0, 0, 0, 0},
        {"1.1.1.256", false, 0, 0, 0, 0},
        {nullptr, false, 0, 0, 0, 0},
    };
    for (const auto& c : cases) {
        SUBPORT_NUM s(c.text);
        const char* name = c.text ? c.text : "(null)";
        if (!c.parsed) {
            EXPECT_EQ(s, SUBPORT_NUM::INVALID_SUBPORT_NUM) << name;
            continue;
        }
        EXPECT_EQ(s.ccId, c.cc) << name;
        EXPECT_EQ(s.pimId, c.pim) << name;
        EXPECT_EQ(s.portId, c.port) << name;
        EXPECT_EQ(s.subportId, c.sub) << name;
    }
    EXPECT_TRUE(SUBPORT_NUM("1.1.1.1").isValid());
    EXPECT_TRUE(SUBPORT_NUM("1.1.1.2").isValid());
    EXPECT_FALSE(SUBPORT_NUM("1.1.1.3").isValid());
    EXPECT_FALSE(SUBPORT_NUM::INVALID_SUBPORT_NUM.isValid());
    EXPECT_EQ(SUBPORT_NUM("2.3.4.1").toString(), "2.3.4.1");
    EXPECT_EQ(SUBPORT_NUM("2.3.4.1").port(), PORT_NUM("2.3.4"));
}

} // namespace
