// The soak driver's parts that can go wrong without a switch.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "Cr/CrDBCmd.h"
#include "SoakLoad.h"
#include "SoakPhaseCheck.h"
#include "SoakResources.h"
#include "SoakSchedule.h"
#include "SoakSwitchProcess.h"

namespace {

using soak::FaultKind;

struct Reply {
    int addr;
    RSP_STATUS status;
    int seqDelta; // added to the command's sequence number
};

TEST(SoakResponses, OnePairedResponseOrTimeOutPerDestination)
{
    constexpr RSP_STATUS kExpected = RSP_NO_CONNECTIONS;
    struct Case {
        const char* name;
        bool toUnserved;
        std::vector<Reply> replies;
        bool violation;
        unsigned answered, timedOut;
        bool real; // the response from 1 comes back
    };
    const Case cases[] = {
        {"answered", false, {{1, kExpected, 0}}, false, 1, 0, true},
        {"timed out", false, {{1, RSP_TIME_OUT, 0}}, false, 0, 1, false},
        {"none", false, {}, true, 0, 0, false},
        {"two for one destination", false, {{1, kExpected, 0}, {1, RSP_TIME_OUT, 0}}, true, 0, 0, false},
        {"from another destination", false, {{3, kExpected, 0}}, true, 0, 0, false},
        {"paired with another command", false, {{1, kExpected, 1}}, true, 0, 0, false},
        {"an unexpected status", false, {{1, RSP_OK, 0}}, true, 0, 0, false},
        {"answered, unserved timed out", true, {{2, RSP_TIME_OUT, 0}, {1, kExpected, 0}}, false, 1, 1, true},
        {"both timed out", true, {{1, RSP_TIME_OUT, 0}, {2, RSP_TIME_OUT, 0}}, false, 0, 2, false},
        {"the unserved one answered", true, {{1, kExpected, 0}, {2, kExpected, 0}}, true, 1, 0, false},
        {"the unserved one missing", true, {{1, kExpected, 0}}, true, 0, 0, false},
    };
    for (const Case& c : cases) {
        CrCmd cmd;
        cmd.SetCmdCode(CMD_RTRV_PORT_CONN);
        cmd.SetSeqNbr(41);
        cmd.SetMsgAddr(1);
        if (c.toUnserved) cmd.SetMsgAddr(2); // a second destination
        for (const Reply& r : c.replies) {
            auto* rsp = new CrRsp(&cmd);
            SlaveAddr from; // the response starts with the command's destinations
            from.SetSlaveAddr(r.addr);
            rsp->SetMsgAddr(from);
            rsp->SetRspStat(r.status);
            rsp->SetSeqNbr(41 + r.seqDelta);
            cmd.AddToRspList(rsp);
        }
        std::atomic<std::uint64_t> answered{0}, timedOut{0};
        const std::uint64_t before = soak::violations().count();
        CrRsp* real = soak::checkResponses(cmd, c.toUnserved, kExpected, answered, timedOut);
        EXPECT_EQ(soak::violations().count() - before, c.violation ? 1u : 0u) << c.name;
        EXPECT_EQ(answered.load(), c.answered) << c.name;
        EXPECT_EQ(timedOut.load(), c.timedOut) << c.name;
        EXPECT_EQ(real != nullptr, c.real) << c.name;
        EXPECT_TRUE(real == nullptr || real->GetMsgAddr().SlaveAddrSet(1)) << c.name;
    }
}

TEST(SoakPhaseCheck, TheSwitchsCountsAndTheHandledOnesMustAgree)
{
    auto sim = [](std::uint64_t commands, std::uint64_t answered, std::uint64_t unanswered,
                  std::uint64_t unexpected = 0) {
        return soak::SwitchCounters{0, 0, 0, 0, commands, answered, unanswered, unexpected};
    };
    struct Case {
        const char* name;
        soak::SwitchCounters sim;
        std::uint64_t handled;
        std::vector<std::string> complaints;
    };
    const Case cases[] = {
        {"all answered", sim(10, 10, 0), 10, {}},
        {"lost before they were handled", sim(10, 8, 2), 8, {}},
        {"lost after they were handled", sim(10, 8, 2), 10, {}},
        {"stray answer", sim(10, 10, 0, 1), 10, {"the switch got 1 answers to commands it had no open record of"}},
        {"neither", sim(10, 8, 1), 9, {"the switch sent 10 commands but counts 8 answered and 1 unanswered"}},
        {"handled more than sent", sim(10, 10, 0), 11, {"handled 11 switch commands, the switch sent 10"}},
        {"answered without handling", sim(10, 10, 0), 9, {"the switch got 10 answers to 9 handled commands"}},
    };
    for (const Case& c : cases) {
        soak::LedgerTally t;
        t.handled = c.handled;
        EXPECT_EQ(soak::phaseViolations(c.sim, t), c.complaints) << c.name;
    }
}

// Long runs also delay past the time-out and combine faults.
TEST(SoakSchedule, EveryRunCoversTheWholeTimeAndEveryFault)
{
    for (unsigned seconds : {30u, 31u, 35u, 45u, 179u, 600u, 3600u}) {
        SCOPED_TRACE(seconds);
        const soak::SoakPlan plan = soak::planSoak(seconds, 1000);
        unsigned at = 0;
        std::set<FaultKind> kinds;
        std::set<std::string> delays;
        bool dropAndReverse = false;
        for (const soak::PhasePlan& p : plan.phases) {
            EXPECT_EQ(p.startMs, at) << "phase " << p.index;
            EXPECT_GE(p.lengthMs, soak::kMinPhaseMs);
            at += p.lengthMs;
            kinds.insert(p.kind);
            if (p.kind == FaultKind::Stop) {
                EXPECT_GT(p.stopForMs, 0u);
                EXPECT_LE(p.stopForMs, soak::kMaxStopMs); // the watchdog allows 30 s
                EXPECT_LT(p.stopAtMs + p.stopForMs, p.lengthMs) << "resumed before the phase ends";
            } else {
                EXPECT_EQ(p.stopForMs, 0u);
            }
            // The stop is a signal, not a simulator option.
            const auto& a = p.simArgs;
            EXPECT_EQ(a.empty(), p.kind == FaultKind::None || p.kind == FaultKind::Stop);
            for (std::size_t i = 0; i + 1 < a.size(); ++i)
                if (a[i] == "--delay-ms" && p.kind == FaultKind::Delay) delays.insert(a[i + 1]);
            if (p.kind == FaultKind::Drop && std::find(a.begin(), a.end(), "--reverse") != a.end())
                dropAndReverse = true;
        }
        EXPECT_EQ(at, seconds * 1000);
        EXPECT_EQ(kinds.size(), soak::kKindsPerRound);
        EXPECT_GT(plan.warmMs, 0u);
        EXPECT_LE(plan.warmMs, seconds * 1000 / 3);
        if (seconds == 600) {
            EXPECT_EQ(delays, (std::set<std::string>{"250", "1500"})); // under and over the 1000 ms time-out
            EXPECT_TRUE(dropAndReverse);
        }
    }
}

TEST(SoakResources, GrowthCountsOnlyOnceWarmAndPastTheSlack)
{
    constexpr std::uint64_t MiB = 1 << 20;
    soak::ResourceWatch w({4 * MiB, 0, 2});
    // Warming up: anything goes, and the peak RSS becomes the baseline.
    EXPECT_EQ(w.add({10 * MiB, 12, 8}), "");
    EXPECT_EQ(w.add({30 * MiB, 40, 90}), "");
    EXPECT_EQ(w.add({20 * MiB, 15, 9}), "");
    w.markWarm();
    EXPECT_EQ(w.warmPeakRss(), 30 * MiB);
    struct Case {
        soak::ResourceSample s;
        const char* complaint; // "" for none
    };
    const Case cases[] = {
        {{34 * MiB, 15, 11}, ""},
        {{35 * MiB, 15, 9}, "RSS 35.0 MiB grew past the warm-up peak 30.0 MiB + 4.0 MiB"},
        {{20 * MiB, 16, 9}, "threads 16 grew past 15 + 0"},
        {{20 * MiB, 15, 12}, "descriptors 12 grew past 9 + 2"},
        {{20 * MiB, 14, 5}, ""},
    };
    for (const Case& c : cases) EXPECT_EQ(w.add(c.s), c.complaint);
    EXPECT_EQ(w.peakThreads(), 40u);
}

// A stand-in for the simulator: prints the start line and, on SIGTERM, the
// line and exit status given; with no line it ignores SIGTERM.
std::vector<std::string> fakeSim(const std::string& onTerm, int status = 0, bool listen = true)
{
    std::string script = onTerm.empty() ? "trap '' TERM; "
                                        : "trap 'echo \"" + onTerm + "\"; exit " + std::to_string(status) + "' TERM; ";
    if (listen) script += "echo 'tavro-switchsim: listening on 127.0.0.1'; ";
    script += "while :; do sleep 0.02; done";
    return {"-c", script};
}

const char kStopLine[] =
    "tavro-switchsim: stopped; connections=1 received=2 sent=3 dropped=0 answered=4 unanswered=0 commands=4 "
    "unexpected=0";

TEST(SoakSwitchProcess, StopsAFrozenChildAndReportsEveryUncleanEnd)
{
    soak::SwitchProcess frozen("/bin/sh");
    std::string error;
    ASSERT_TRUE(frozen.start(fakeSim(kStopLine), 5000, &error)) << error;
    EXPECT_TRUE(frozen.freeze());
    // A stopped child handles SIGTERM only once it is resumed.
    soak::SwitchCounters c;
    ASSERT_TRUE(frozen.stop(5000, &c, &error)) << error;
    EXPECT_EQ(std::make_tuple(c.answered, c.commands, frozen.running()), std::make_tuple(4u, 4u, false));

    const struct {
        const char* program;
        std::vector<std::string> args;
        unsigned startMs;
        const char* error;
    } cases[] = {
        {"/bin/sh", fakeSim(kStopLine, 66), 5000, "the simulator ended with exit status 66"},
        {"/bin/sh", fakeSim("bye"), 5000, "the simulator ended without its counters line"},
        {"/bin/sh", fakeSim(""), 5000, "the simulator did not end within 300 ms; killed"},
        {"/bin/sh", fakeSim(kStopLine, 0, false), 200, "did not start listening within 200 ms; killed"},
        {"/nonexistent/tavro-switchsim", {}, 2000, "ended with exit status 127 before it listened"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.error);
        soak::SwitchProcess p(c.program);
        error.clear();
        if (p.start(c.args, c.startMs, &error)) {
            error.clear();
            EXPECT_FALSE(p.stop(300, nullptr, &error));
            EXPECT_EQ(error, c.error);
        } else {
            EXPECT_NE(error.find(c.error), std::string::npos) << error;
        }
        EXPECT_FALSE(p.running());
    }
}

} // namespace
