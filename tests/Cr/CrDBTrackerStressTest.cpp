// Many senders through one tracker, against switches that answer, one that
// never does, and a stream of stray responses: every command must end with
// exactly one response per destination, and no record may outlive its wait.
#include "Cr/CrDBTracker.h"

#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include "Io/FakeSwitch.h"
#include "Io/IoDBRouter.h"
#include "Io/IoRouteTable.h"
#include "Os/UDBControl.h"

using fake_switch::FakeSwitch;
using fake_switch::Frame;
using fake_switch::Routed;

namespace {

constexpr int kSilent = 4; // the switch that never answers

// One command to a random non-empty subset of switches 1..4; the number of
// faults found in what came back.
int sendOne(std::mt19937& rng)
{
    CrCmd cmd;
    cmd.SetCmdCode(CMD_CONN_PORT);
    const unsigned mask = 1u + rng() % 15u;
    for (int a = 1; a <= 4; ++a)
        if (mask & (1u << (a - 1))) cmd.SetMsgAddr(a);
    const bool wantRsp = rng() % 5 != 0;
    cmd.SetRspReq(wantRsp);
    // Answers of live switches are queued before the sender is released, so
    // even a tiny time-out only ever hits the silent one.
    cmd.SetRspTimer(cmd.GetMsgAddr().SlaveAddrSet(kSilent) ? 2 : 60000);
    cmd.Dispatch();
    int faults = cmd.WaitForRsp() ? 0 : 1;
    if (!wantRsp) return faults + (cmd.GetRspCount() != 0);
    int seen[5] = {};
    for (CrRsp* r = cmd.GetFirstRsp(); r != nullptr; r = cmd.GetNextRsp()) {
        const int a = r->GetMsgAddr().GetNextSlaveAddr(0);
        if (a < 1 || a > 4 || r->GetSeqNbr() != cmd.GetSeqNbr()) return faults + 1;
        ++seen[a];
        faults += r->GetRspStat() != (a == kSilent ? RSP_TIME_OUT : RSP_OK);
    }
    for (int a = 1; a <= 4; ++a) faults += seen[a] != (cmd.GetMsgAddr().SlaveAddrSet(a) ? 1 : 0);
    return faults;
}

TEST(TrackerStressTest, EveryDestinationEndsWithExactlyOneResponse)
{
    UDBControl::ResetStaticsForTest();
    tavro_internal::resetRouteTableSeams();
    tavro_internal::routeTableSeams().maxDrainWaits = 0;
    RouteTable api(TCP_SERVER), swi(TCP_CLIENT), poll(TCP_POLL);
    IoRouter router(&api, &swi, &poll);
    UDBControl::InsertClassRef(SMN_IOR, &router);
    auto* tracker = new CrTracker();
    UDBControl::InsertClassRef(SMN_TRACKER, tracker);
    FakeSwitch sw1(1), sw2(2), sw3(3), silent(kSilent);
    Routed r1(swi, sw1), r2(swi, sw2), r3(swi, sw3), r4(swi, silent);
    for (FakeSwitch* sw : {&sw1, &sw2, &sw3}) sw->reply = [](FakeSwitch& s, const Frame& f) { s.answer(f, RSP_OK); };
    testing::internal::CaptureStdout(); // orphan and time-out lines by the thousand
    std::thread pump([tracker] { tracker->Run(nullptr); });
    std::atomic<bool> sendersDone{false};
    std::thread strays([&] {
        std::mt19937 rng(99);
        for (int i = 0; i < 1500 && !sendersDone; ++i) {
            auto* rsp = new CrRsp();
            rsp->SetCmdCode(CMD_CONN_PORT);
            rsp->SetSeqNbr(int(rng() % 100000) + 1000000); // never handed out in this run
            rsp->SetMsgAddr(int(rng() % 5));
            tracker->ReceiveRsp(rsp);
        }
    });
    std::atomic<int> faults{0};
    std::vector<std::thread> senders;
    for (int t = 0; t < 8; ++t)
        senders.emplace_back([t, &faults] {
            std::mt19937 rng(unsigned(t) * 7919u + 1u);
            for (int i = 0; i < 120; ++i) faults += sendOne(rng);
        });
    for (auto& s : senders) s.join();
    sendersDone = true;
    strays.join();
    CrCmd marker; // to nobody: passes the tracker only after every stray queued before it
    marker.SetCmdCode(CMD_CONN_INIT);
    marker.SetMsgAddr(100);
    marker.Dispatch();
    tracker->SignalShutdown();
    pump.join();
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(faults.load(), 0);
    EXPECT_EQ(tracker->PendingCount(), 0u);
    delete tracker;
    UDBControl::ResetStaticsForTest();
    tavro_internal::resetRouteTableSeams();
}

} // namespace
