#pragma once

// A thread that runs PeriodicAction at a fixed period, with a pacemaker that
// absorbs the action's own run time.
#include <string>

#include "Common/OS/OsThread.h"

enum PACEMAKER_MODE {
    PACEMAKER_CATCHUP_MODE = 0, // late: run back to back until caught up
    PACEMAKER_SKIP_MODE = 1,    // late: drop whole missed periods
};

// The pacemaker's clock: get_ticks() in 600 us rounding steps, times 16, as an
// unsigned 32-bit value that the pacemaker compares with microsecond periods.
unsigned pacemakerClock(long long ticks);

struct PacemakerStep {
    unsigned sleep;   // time to sleep, 0 for none
    unsigned nextDue; // the next due time (E after the step)
    unsigned took;    // the action's run time
    unsigned late;    // lateness against the due time, after any skip
};

// One pacemaker step: now and start in clock units, due is the current due
// time E, period P.
PacemakerStep pacemakerStep(unsigned now, unsigned start, unsigned due, unsigned period, PACEMAKER_MODE mode);

class PeriodicThread : public OsThread {
public:
    static constexpr unsigned STACK_SIZE = 0x40000;

    PeriodicThread(unsigned periodMsec, const char* name, PACEMAKER_MODE mode);
    ~PeriodicThread() override;
    void* Execute(void* arg) override;
    virtual void PeriodicAction() {}

    void SetDebugPacemaker(bool on) { m_DebugPacemaker = on; }
    unsigned PeriodUsec() const { return m_PeriodUsec; }
    const std::string& Name() const { return m_Name; }
    PACEMAKER_MODE Mode() const { return m_PacemakerMode; }

    static bool s_EnableDebugEvents;

protected:
    // Sleeps out the rest of the period that began at start.
    void Pacemaker(unsigned start);
    static unsigned Clock();

    unsigned m_PeriodMsec;
    unsigned m_PeriodUsec;
    std::string m_Name;
    bool m_DebugPacemaker;
    unsigned m_PeriodicExecTimeUsec;
    PACEMAKER_MODE m_PacemakerMode;
};
