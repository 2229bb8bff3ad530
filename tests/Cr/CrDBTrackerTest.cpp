#include "Cr/CrDBTracker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "Common/OS/Linux/CWinEventHandle.h"
#include "Cr/CrOrvMsg.h"
#include "Io/FakeSwitch.h"
#include "Io/IoDBRouter.h"
#include "Io/IoRouteTable.h"
#include "Os/UDBControl.h"

using fake_switch::FakeSwitch;
using fake_switch::Frame;
using fake_switch::Routed;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

using Answer = std::tuple<int, RSP_STATUS, int>; // address, status, payload size

std::vector<Answer> answersOf(CrCmd& cmd)
{
    std::vector<Answer> out;
    for (CrRsp* r = cmd.GetFirstRsp(); r != nullptr; r = cmd.GetNextRsp()) {
        EXPECT_EQ(r->GetMsgAddr().GetSlaveCount(), 1);
        EXPECT_EQ(r->GetSeqNbr(), cmd.GetSeqNbr());
        EXPECT_EQ(r->GetCmdCode(), cmd.GetCmdCode());
        out.push_back({r->GetMsgAddr().GetNextSlaveAddr(0), r->GetRspStat(), r->GetSize()});
    }
    return out;
}

struct TrackerTest : testing::Test {
    void SetUp() override
    {
        UDBControl::ResetStaticsForTest();
        tavro_internal::resetRouteTableSeams();
        tavro_internal::routeTableSeams().maxDrainWaits = 0;
        UDBControl::InsertClassRef(SMN_IOR, &router);
        tracker = new CrTracker();
        UDBControl::InsertClassRef(SMN_TRACKER, tracker);
    }
    void TearDown() override
    {
        if (thread.joinable()) {
            tracker->SignalShutdown();
            thread.join();
        }
        delete tracker;
        UDBControl::ResetStaticsForTest();
        tavro_internal::resetRouteTableSeams();
    }
    void start()
    {
        thread = std::thread([this] { tracker->Run(nullptr); });
    }
    // Everything queued so far has been handled once a command to nobody,
    // queued behind it, has passed.
    static void sync()
    {
        CrCmd marker;
        marker.SetCmdCode(CMD_CONN_INIT);
        marker.SetMsgAddr(100);
        marker.Dispatch();
    }
    static void answering(FakeSwitch& sw, RSP_STATUS status, std::vector<unsigned char> data = {})
    {
        sw.reply = [status, data](FakeSwitch& s, const Frame& f) { s.answer(f, status, data); };
    }
    static std::unique_ptr<CrCmd> command(const std::vector<int>& dst, int timeoutMs, bool rspReq = true)
    {
        std::unique_ptr<CrCmd> cmd(new CrCmd());
        cmd->SetCmdCode(CMD_CONN_PORT);
        for (int a : dst) cmd->SetMsgAddr(a);
        cmd->SetRspReq(rspReq);
        cmd->SetRspTimer(timeoutMs);
        return cmd;
    }

    RouteTable api{TCP_SERVER}, swi{TCP_CLIENT}, poll{TCP_POLL};
    IoRouter router{&api, &swi, &poll};
    CrTracker* tracker = nullptr;
    std::thread thread;
};

TEST_F(TrackerTest, EveryDestinationEndsWithOneAnswerMissingOnesAsTimeOuts)
{
    FakeSwitch sw0(0), sw1(1), sw2(2), sw3(3);
    Routed r0(swi, sw0), r1(swi, sw1), r2(swi, sw2), r3(swi, sw3);
    answering(sw0, RSP_BUSY);
    answering(sw1, RSP_ERROR, {7, 7});
    answering(sw3, RSP_OK);
    const std::tuple<std::vector<int>, int, std::vector<Answer>> cases[] = {
        {{1, 2}, 20, {{1, RSP_ERROR, 2}, {2, RSP_TIME_OUT, 0}}},
        {{2, 4, 9}, 20, {{2, RSP_TIME_OUT, 0}, {4, RSP_TIME_OUT, 0}, {9, RSP_TIME_OUT, 0}}},
        {{3, 1, 2}, 20, {{1, RSP_ERROR, 2}, {3, RSP_OK, 0}, {2, RSP_TIME_OUT, 0}}},
        {{3, 1}, -1, {{1, RSP_ERROR, 2}, {3, RSP_OK, 0}}}, // no time limit: the wait ends with the answers
        {{0}, 5000, {{0, RSP_BUSY, 0}}},                   // the lowest address answers like any other
    };
    start();
    for (const auto& [dst, timeoutMs, expected] : cases) {
        std::unique_ptr<CrCmd> cmd = command(dst, timeoutMs);
        CaptureStdout();
        cmd->Dispatch();
        EXPECT_NE(cmd->GetTrackerInfo(), nullptr) << "registered before Dispatch returns";
        EXPECT_TRUE(cmd->WaitForRsp());
        const std::string out = GetCapturedStdout();
        EXPECT_THAT(answersOf(*cmd), ElementsAreArray(expected));
        const bool timedOut = std::any_of(expected.begin(), expected.end(),
                                          [](const Answer& a) { return std::get<1>(a) == RSP_TIME_OUT; });
        EXPECT_EQ(out.find("TimeoutAction TIMED OUT WAITING FOR RESPONSE: seqNbr[") != std::string::npos, timedOut);
        EXPECT_EQ(cmd->GetTrackerInfo(), nullptr);
        EXPECT_EQ(tracker->PendingCount(), 0u);
    }
}

TEST(TrackerInfoTest, GivesBackTheEventItTook)
{
    CrCmd cmd;
    cmd.SetMsgAddr(3);
    {
        TrackerInfo warm(&cmd);
    } // the pool now holds an event
    const std::size_t before = CWinEventHandleSet::s_Set().size();
    for (int i = 0; i < 50; ++i) {
        TrackerInfo info(&cmd);
        EXPECT_TRUE(info.ExpectedRsp(3));
    }
    EXPECT_EQ(CWinEventHandleSet::s_Set().size(), before);
}

TEST_F(TrackerTest, StrayAnswersAreOrphans)
{
    FakeSwitch sw1(1), sw2(2);
    Routed r1(swi, sw1), r2(swi, sw2);
    answering(sw2, RSP_OK);
    const struct {
        const char* name;
        std::vector<int> dst;
        bool rspReq;
        int timeoutMs;
        FakeSwitch::Reply reply;
        bool lateAnswer; // switch 1 answers after the wait ended
        std::vector<Answer> expected;
        std::string orphans;
    } cases[] = {
        // clang-format off
        {"answer to a command that wanted none", {1}, false, 10000,
         [](FakeSwitch& s, const Frame& f) { s.answer(f, RSP_OK); }, false, {},
         "  Orphan RSP: 2712, Swi: 1, Status: 0\r\n"},
        {"second answer from one address", {1, 2}, true, 10000,
         [](FakeSwitch& s, const Frame& f) { s.answer(f, RSP_OK); s.answer(f, RSP_BUSY); }, false,
         {{1, RSP_OK, 0}, {2, RSP_OK, 0}}, "  Orphan RSP: 2712, Swi: 1, Status: 7\r\n"},
        {"answer after the made-up time-out", {1}, true, 10, nullptr, true, {{1, RSP_TIME_OUT, 0}},
         "  Orphan RSP: 2712, Swi: 1, Status: 0\r\n"},
        {"only code, sequence and address together match", {1}, true, 20,
         [](FakeSwitch&, const Frame& f) {
             const int wrong[][3] = {{1, 0, 1}, {0, 1, 1}, {0, 0, 2}}; // code, sequence, address
             for (const auto& w : wrong) {
                 auto* rsp = new CrRsp();
                 rsp->SetCmdCode(COMMAND_CODE(f.app.getCmdCode() + w[0]));
                 rsp->SetSeqNbr(int(f.app.getSeqNbr()) + w[1]);
                 rsp->SetMsgAddr(w[2]);
                 CrTracker::getIt()->ReceiveRsp(rsp);
             }
         }, false, {{1, RSP_TIME_OUT, 0}},
         "  Orphan RSP: 2713, Swi: 1, Status: 0\r\n  Orphan RSP: 2712, Swi: 1, Status: 0\r\n"
         "  Orphan RSP: 2712, Swi: 2, Status: 0\r\n"},
        // clang-format on
    };
    start();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        sw1.reply = c.reply;
        std::unique_ptr<CrCmd> cmd = command(c.dst, c.timeoutMs, c.rspReq);
        CaptureStdout();
        cmd->Dispatch();
        if (!c.rspReq) {
            // Dispatch returns after the tracker handled it: nothing was listed.
            EXPECT_EQ(tracker->PendingCount(), 0u);
            EXPECT_EQ(cmd->GetTrackerInfo(), nullptr);
        }
        EXPECT_TRUE(cmd->WaitForRsp());
        if (c.lateAnswer) sw1.answer(sw1.sent().back(), RSP_OK);
        sync();
        const std::string out = GetCapturedStdout();
        EXPECT_THAT(answersOf(*cmd), ElementsAreArray(c.expected));
        std::string orphans;
        for (std::size_t at = out.find("  Orphan"); at != std::string::npos; at = out.find("  Orphan", at + 1))
            orphans += out.substr(at, out.find('\n', at) + 1 - at);
        EXPECT_EQ(orphans, c.orphans);
    }
}

TEST_F(TrackerTest, BadMessagesAreDroppedAndAnAnswerBeforeTheMadeUpOneWins)
{
    CaptureStdout();
    tracker->ReceiveRsp(nullptr);
    auto* odd = new TrackerMsg(static_cast<CrRsp*>(nullptr));
    odd->SetTrackerType(TRACKER_TIMEOUT);
    tracker->ProcessMsg(odd);
    EXPECT_EQ(GetCapturedStdout(), "  Tracker: Received bad message\r\n  Tracker: Unknown Cmd Type\n");

    // Driven by hand: the time-out's answer is queued, then the real one is
    // handled before the queue is.
    std::unique_ptr<CrCmd> cmd = command({1}, 10);
    tracker->ProcessMsg(new TrackerMsg(cmd.get()));
    ASSERT_NE(cmd->GetTrackerInfo(), nullptr);
    CaptureStdout();
    cmd->GetTrackerInfo()->TimeoutAction();
    auto* real = new CrRsp(cmd.get());
    real->SetRspStat(RSP_BUSY);
    tracker->ProcessMsg(new TrackerMsg(real));
    start();
    sync();
    EXPECT_THAT(GetCapturedStdout(), HasSubstr("  Orphan RSP: 2712, Swi: 1, Status: 3\r\n"));
    EXPECT_TRUE(cmd->WaitForRsp()); // already complete: no second time-out
    EXPECT_THAT(answersOf(*cmd), ElementsAre(Answer{1, RSP_BUSY, 0}));
}

// A frame is held for its follower in a batch only when the follower surely
// goes down the same connections right after it, or the held frame would wait
// for a timer. Responses are matched, not sent: they neither hold nor are held.
TEST(TrackerBatch, OnlyAFollowingCommandDownTheSameConnectionsHoldsAFrame)
{
    static char big[1];
    auto command = [](int addr, TCP_TYPE net = TCP_CLIENT, int client = 0, int size = 0) {
        auto* cmd = new CrCmd();
        cmd->SetMsgAddr(addr);
        cmd->SetSourceNet(net);
        cmd->SetClient(client);
        cmd->SetFastData(big, size, false);
        return cmd;
    };
    const std::unique_ptr<CrCmd> cur(command(3));
    const std::unique_ptr<CrRsp> rsp(new CrRsp(cur.get()));
    TrackerMsg curMsg(cur.get()), rspMsg(rsp.get());
    const std::pair<CrCmd*, bool> rows[] = {{command(3), true},
                                            {command(4), false},
                                            {command(3, TCP_SERVER), false},
                                            {command(3, TCP_CLIENT, 7), false},
                                            {command(3, TCP_CLIENT, 0, int(MAX_TCP_MSG_SIZE - 1)), true},
                                            {command(3, TCP_CLIENT, 0, int(MAX_TCP_MSG_SIZE)), false}};
    for (const auto& [next, together] : rows) {
        TrackerMsg nextMsg(next);
        EXPECT_EQ(tavro_internal::sentTogether(&curMsg, &nextMsg), together) << next->GetSize();
        EXPECT_FALSE(tavro_internal::sentTogether(&rspMsg, &nextMsg));
        delete next;
    }
    EXPECT_FALSE(tavro_internal::sentTogether(&curMsg, &rspMsg));
}

} // namespace
