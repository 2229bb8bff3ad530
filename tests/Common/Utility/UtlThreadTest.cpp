#include "Common/Utility/UtlThread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>

#include "Common/OS/Linux/PlatformTestSupport.h"

namespace {

constexpr unsigned P = 1000;

TEST(PacemakerTest, ClockAndStepsSkipOrCatchUp)
{
    const std::pair<long long, unsigned> clocks[] = {{0, 0},    {299, 0},  {300, 16},
                                                     {899, 16}, {900, 32}, {600000, 16000}};
    for (const auto& [ticks, clk] : clocks) EXPECT_EQ(clk, pacemakerClock(ticks)) << ticks;
    // Across the 32-bit wrap the differences stay exact.
    const long long wrap = (1LL << 32) / 16 * 600;
    for (long long t = wrap - 3000; t < wrap + 3000; t += 600)
        EXPECT_EQ(16u, pacemakerClock(t + 600) - pacemakerClock(t)) << t;

    // Single steps; the later rows are the steps of late runs.
    const struct {
        const char* what;
        unsigned now, start, due;
        PACEMAKER_MODE mode;
        unsigned sleep, nextDue, took;
    } cases[] = {{"on time, quick action", 1100, 1000, 1000, PACEMAKER_CATCHUP_MODE, 900, 2000, 100},
                 {"on time, skip mode", 1100, 1000, 1000, PACEMAKER_SKIP_MODE, 900, 2000, 100},
                 {"woke before due", 900, 900, 1000, PACEMAKER_CATCHUP_MODE, 1100, 2000, 0},
                 {"exactly one period late", 2000, 1000, 1000, PACEMAKER_CATCHUP_MODE, 0, 2000, 1000},
                 {"one period late, skip", 2000, 1000, 1000, PACEMAKER_SKIP_MODE, 0, 2000, 1000},
                 {"late past the wrap", 500, 0xFFFFFF00u, 0xFFFFFF00u, PACEMAKER_CATCHUP_MODE, 244, 0x2E8, 756},
                 // 3.5 or 2.3 periods late: the sleep ends on the next period boundary.
                 {"skip 3.5 periods", 8500, 5000, 5000, PACEMAKER_SKIP_MODE, 500, 9000, 3500},
                 {"skip 2.3 periods", 7300, 5000, 5000, PACEMAKER_SKIP_MODE, 700, 8000, 2300},
                 {"after skipping", 8200, 8000, 8000, PACEMAKER_SKIP_MODE, 800, 9000, 200},
                 // Actions follow back to back until caught up, the last sleeps to the boundary.
                 {"catch up 3.5 periods", 8500, 5000, 5000, PACEMAKER_CATCHUP_MODE, 0, 6000, 3500},
                 {"still behind", 8500, 8500, 7000, PACEMAKER_CATCHUP_MODE, 0, 8000, 0},
                 {"caught up", 8500, 8500, 8000, PACEMAKER_CATCHUP_MODE, 500, 9000, 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const PacemakerStep s = pacemakerStep(c.now, c.start, c.due, P, c.mode);
        EXPECT_EQ(c.sleep, s.sleep);
        EXPECT_EQ(c.nextDue, s.nextDue);
        EXPECT_EQ(c.took, s.took);
    }
}

class CountingThread : public PeriodicThread {
public:
    CountingThread(const char* name, PACEMAKER_MODE mode, HANDLE reached = nullptr, HANDLE destroyed = nullptr)
        : PeriodicThread(1, name, mode), reached_(reached), destroyed_(destroyed)
    {
    }
    ~CountingThread() override { SetEvent(destroyed_); }
    void PeriodicAction() override
    {
        if (++count_ == 3) SetEvent(reached_);
    }
    // One pacemaker step with a chosen past; returns what it printed.
    std::string step(unsigned startAgo, unsigned dueAgo)
    {
        testing::internal::CaptureStdout();
        const unsigned now = Clock();
        m_PeriodicExecTimeUsec = now - dueAgo;
        Pacemaker(now - startAgo);
        return testing::internal::GetCapturedStdout();
    }

private:
    HANDLE reached_, destroyed_;
    std::atomic<int> count_{0};
};

TEST(PeriodicThreadTest, NameIsPaddedAndActionsRunUntilShutdown)
{
    const char* const cases[][3] = {{"TenLetters", "TenLetters", "P-TenLetters   "},
                                    {nullptr, "Periodic", "P-Periodic     "},
                                    {"AVeryLongPeriodicName", "AVeryLongPeriodicName", "P-AVeryLongPeri"}};
    for (const auto& c : cases) {
        CountingThread t(c[0], PACEMAKER_SKIP_MODE);
        EXPECT_EQ(c[1], t.Name());
        EXPECT_STREQ(c[2], t.GetThreadName());
        EXPECT_EQ(0x40000u, t.GetStackSize());
    }

    for (PACEMAKER_MODE mode : {PACEMAKER_CATCHUP_MODE, PACEMAKER_SKIP_MODE}) {
        tavro_test::Events e(2, TRUE);
        auto* t = new CountingThread("count", mode, e.h[0], e.h[1]);
        ASSERT_TRUE(t->Start(nullptr));
        EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(e.h[0], tavro_test::kStuckMs)) << mode;
        t->SignalShutdown();
        EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(e.h[1], tavro_test::kStuckMs)) << mode;
    }
}

TEST(PeriodicThreadTest, PacemakerTraceTexts)
{
    using testing::HasSubstr;
    using testing::Not;
    CountingThread t("Tracer", PACEMAKER_CATCHUP_MODE);
    PeriodicThread::s_EnableDebugEvents = true;
    // Two periods late and the action took a whole period: no sleep, one report.
    std::string out = t.step(P, 2 * P);
    EXPECT_THAT(out, HasSubstr("Periodic Action [Tracer] took more time (["));
    EXPECT_THAT(out, HasSubstr("]  usecs) than the timer period ([1000] usecs)!"));
    EXPECT_THAT(out, Not(HasSubstr("Pacemaker time")));

    t.SetDebugPacemaker(true);
    out = t.step(0, 0);
    EXPECT_THAT(out, testing::ContainsRegex("Pacemaker time before sleep \\[[0-9]+\\]\\. Time to sleep \\[[0-9]+\\]"));
    EXPECT_THAT(out, testing::ContainsRegex("Pacemaker time after sleep \\[[0-9]+\\]"));
    EXPECT_THAT(out, Not(HasSubstr("took more time")));

    PeriodicThread::s_EnableDebugEvents = false;
    t.SetDebugPacemaker(false);
    EXPECT_EQ("", t.step(P, 2 * P));
}

} // namespace
