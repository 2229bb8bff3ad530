#include "Cr/CrDBTracker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Io/FakeSwitch.h"
#include "Io/IoDBRouter.h"
#include "Io/IoRouteTable.h"
#include "Os/UDBControl.h"

using fake_switch::FakeSwitch;
using fake_switch::Frame;
using fake_switch::Routed;
using testing::HasSubstr;
using testing::Not;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

int occurrences(const std::string& text, const std::string& what)
{
    int n = 0;
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

struct Answer {
    int addr;
    RSP_STATUS status;
    int size;
};

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

bool operator==(const Answer& a, const Answer& b)
{
    return a.addr == b.addr && a.status == b.status && a.size == b.size;
}

std::ostream& operator<<(std::ostream& os, const Answer& a)
{
    return os << "{" << a.addr << ", " << a.status << ", " << a.size << "}";
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
        if (thread.joinable()) stop();
        delete tracker;
        UDBControl::ResetStaticsForTest();
        tavro_internal::resetRouteTableSeams();
    }
    void start()
    {
        thread = std::thread([this] { tracker->Run(nullptr); });
    }
    void stop()
    {
        tracker->SignalShutdown();
        thread.join();
    }
    // Everything queued so far has been handled once a command to nobody,
    // queued behind it, has passed.
    void sync()
    {
        CrCmd marker;
        marker.SetCmdCode(CMD_CONN_INIT);
        marker.SetMsgAddr(100);
        marker.Dispatch();
    }
    // A switch that answers every frame with status.
    static void answering(FakeSwitch& sw, RSP_STATUS status, std::vector<unsigned char> data = {})
    {
        sw.reply = [status, data](FakeSwitch& s, const Frame& f) { s.answer(f, status, data); };
    }
    static CrCmd* command(std::initializer_list<int> dst, int timeoutMs)
    {
        auto* cmd = new CrCmd();
        cmd->SetCmdCode(CMD_CONN_PORT);
        for (int a : dst) cmd->SetMsgAddr(a);
        cmd->SetRspReq(true);
        cmd->SetRspTimer(timeoutMs);
        return cmd;
    }

    RouteTable api{TCP_SERVER};
    RouteTable swi{TCP_CLIENT};
    RouteTable poll{TCP_POLL};
    IoRouter router{&api, &swi, &poll};
    CrTracker* tracker = nullptr;
    std::thread thread;
};

TEST_F(TrackerTest, MissingAnswersAreMadeUpAsTimeOuts)
{
    FakeSwitch sw1(1), sw2(2), sw3(3);
    Routed r1(swi, sw1), r2(swi, sw2), r3(swi, sw3);
    answering(sw1, RSP_ERROR, {7, 7});
    answering(sw3, RSP_OK);
    const struct {
        std::vector<int> dst;
        std::vector<Answer> expected;
    } cases[] = {
        {{1, 2}, {{1, RSP_ERROR, 2}, {2, RSP_TIME_OUT, 0}}},
        {{2, 4, 9}, {{2, RSP_TIME_OUT, 0}, {4, RSP_TIME_OUT, 0}, {9, RSP_TIME_OUT, 0}}},
        {{3, 1, 2}, {{1, RSP_ERROR, 2}, {3, RSP_OK, 0}, {2, RSP_TIME_OUT, 0}}},
    };
    start();
    for (const auto& c : cases) {
        std::unique_ptr<CrCmd> cmd(command({}, 20));
        for (int a : c.dst) cmd->SetMsgAddr(a);
        CaptureStdout();
        cmd->Dispatch();
        EXPECT_TRUE(cmd->WaitForRsp());
        const std::string out = GetCapturedStdout();
        EXPECT_THAT(answersOf(*cmd), testing::ElementsAreArray(c.expected));
        EXPECT_THAT(out, HasSubstr("TimeoutAction TIMED OUT WAITING FOR RESPONSE: seqNbr["));
        EXPECT_EQ(cmd->GetTrackerInfo(), nullptr);
        EXPECT_EQ(tracker->PendingCount(), 0u);
    }
}

TEST_F(TrackerTest, CompleteAnswersEndTheWaitWithoutTimeOut)
{
    FakeSwitch sw1(1), sw2(2);
    Routed r1(swi, sw1), r2(swi, sw2);
    answering(sw1, RSP_OK, {1, 2, 3});
    answering(sw2, RSP_BUSY);
    start();
    CaptureStdout();
    std::unique_ptr<CrCmd> cmd(command({1, 2}, 10000));
    cmd->Dispatch();
    EXPECT_TRUE(cmd->WaitForRsp());
    EXPECT_THAT(GetCapturedStdout(), Not(HasSubstr("TimeoutAction")));
    EXPECT_THAT(answersOf(*cmd), testing::ElementsAre(Answer{1, RSP_OK, 3}, Answer{2, RSP_BUSY, 0}));
    EXPECT_EQ(tracker->PendingCount(), 0u);
}

TEST_F(TrackerTest, CommandWithoutResponseIsNeverListedAndItsAnswerIsAnOrphan)
{
    FakeSwitch sw1(1);
    Routed r1(swi, sw1);
    answering(sw1, RSP_OK);
    start();
    CaptureStdout();
    std::unique_ptr<CrCmd> cmd(command({1}, 10000));
    cmd->SetRspReq(false);
    cmd->Dispatch();
    // Dispatch returns after the tracker handled it: nothing was listed.
    EXPECT_EQ(tracker->PendingCount(), 0u);
    EXPECT_EQ(cmd->GetTrackerInfo(), nullptr);
    EXPECT_EQ(sw1.sentCount(), 1u);
    EXPECT_TRUE(cmd->WaitForRsp());
    sync();
    EXPECT_THAT(GetCapturedStdout(), HasSubstr("  Orphan RSP: 2712, Swi: 1, Status: 0\r\n"));
    EXPECT_EQ(cmd->GetRspCount(), 0);
}

TEST_F(TrackerTest, SecondAnswerFromOneAddressIsAnOrphan)
{
    FakeSwitch sw1(1), sw2(2);
    Routed r1(swi, sw1), r2(swi, sw2);
    sw1.reply = [](FakeSwitch& s, const Frame& f) {
        s.answer(f, RSP_OK);
        s.answer(f, RSP_BUSY);
    };
    answering(sw2, RSP_OK);
    start();
    CaptureStdout();
    std::unique_ptr<CrCmd> cmd(command({1, 2}, 10000));
    cmd->Dispatch();
    EXPECT_TRUE(cmd->WaitForRsp());
    const std::string out = GetCapturedStdout();
    EXPECT_THAT(answersOf(*cmd), testing::ElementsAre(Answer{1, RSP_OK, 0}, Answer{2, RSP_OK, 0}));
    EXPECT_THAT(out, HasSubstr("  Orphan RSP: 2712, Swi: 1, Status: 7\r\n"));
    EXPECT_EQ(occurrences(out, "Orphan RSP"), 1);
}

TEST_F(TrackerTest, OnlyCodeSequenceAndAddressTogetherMatch)
{
    FakeSwitch sw1(1);
    Routed r1(swi, sw1);
    sw1.reply = [](FakeSwitch&, const Frame& f) {
        const struct {
            int codeDelta, seqDelta, addr;
        } wrong[] = {{1, 0, 1}, {0, 1, 1}, {0, 0, 2}};
        for (const auto& w : wrong) {
            auto* rsp = new CrRsp();
            rsp->SetCmdCode(COMMAND_CODE(f.app.getCmdCode() + w.codeDelta));
            rsp->SetSeqNbr(int(f.app.getSeqNbr()) + w.seqDelta);
            rsp->SetMsgAddr(w.addr);
            CrTracker::getIt()->ReceiveRsp(rsp);
        }
    };
    start();
    CaptureStdout();
    std::unique_ptr<CrCmd> cmd(command({1}, 20));
    cmd->Dispatch();
    EXPECT_TRUE(cmd->WaitForRsp());
    const std::string out = GetCapturedStdout();
    EXPECT_THAT(answersOf(*cmd), testing::ElementsAre(Answer{1, RSP_TIME_OUT, 0}));
    EXPECT_EQ(occurrences(out, "Orphan RSP"), 3);
    EXPECT_THAT(out, HasSubstr("  Orphan RSP: 2713, Swi: 1, Status: 0\r\n"));
    EXPECT_THAT(out, HasSubstr("  Orphan RSP: 2712, Swi: 2, Status: 0\r\n"));
}

TEST_F(TrackerTest, AnswerAfterTheMadeUpOneIsAnOrphan)
{
    FakeSwitch sw1(1);
    Routed r1(swi, sw1);
    start();
    CaptureStdout();
    std::unique_ptr<CrCmd> cmd(command({1}, 10));
    cmd->Dispatch();
    EXPECT_TRUE(cmd->WaitForRsp());
    ASSERT_EQ(sw1.sentCount(), 1u);
    sw1.answer(sw1.sent()[0], RSP_OK);
    sync();
    EXPECT_THAT(GetCapturedStdout(), HasSubstr("  Orphan RSP: 2712, Swi: 1, Status: 0\r\n"));
    EXPECT_THAT(answersOf(*cmd), testing::ElementsAre(Answer{1, RSP_TIME_OUT, 0}));
}

TEST_F(TrackerTest, AnswerBeforeTheMadeUpOneWins)
{
    // Driven by hand: the time-out's answer is queued, then the real one is
    // handled before the queue is.
    std::unique_ptr<CrCmd> cmd(command({1}, 10));
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
    EXPECT_THAT(answersOf(*cmd), testing::ElementsAre(Answer{1, RSP_BUSY, 0}));
}

TEST_F(TrackerTest, WithoutTimeLimitTheSenderWaitsForTheAnswer)
{
    FakeSwitch sw1(1);
    Routed r1(swi, sw1);
    start();
    CaptureStdout();
    std::unique_ptr<CrCmd> cmd(command({1}, -1));
    std::thread sender([&] {
        cmd->Dispatch();
        cmd->WaitForRsp();
    });
    ASSERT_TRUE(sw1.waitFor(1));
    sw1.answer(sw1.sent()[0], RSP_OK);
    sender.join();
    EXPECT_THAT(GetCapturedStdout(), Not(HasSubstr("TimeoutAction")));
    EXPECT_THAT(answersOf(*cmd), testing::ElementsAre(Answer{1, RSP_OK, 0}));
}

TEST_F(TrackerTest, BadMessagesAreReportedAndDropped)
{
    CaptureStdout();
    tracker->ReceiveRsp(nullptr);
    auto* odd = new TrackerMsg(static_cast<CrRsp*>(nullptr));
    odd->SetTrackerType(TRACKER_TIMEOUT);
    tracker->ProcessMsg(odd);
    EXPECT_EQ(GetCapturedStdout(), "  Tracker: Received bad message\r\n  Tracker: Unknown Cmd Type\n");
}

} // namespace
