#include "Common/Utility/UtlThread.h"

#include <stdio.h>

#include <cstdint>
#include <sstream>

#include "Common/OS/Linux/OSAL.h"
#include "Common/Utility/UtlDebug.h"
#include "Common/Utility/UtlTime.h"

bool PeriodicThread::s_EnableDebugEvents = false;

unsigned pacemakerClock(long long ticks)
{
    // Computed wide and truncated: the 32-bit value then wraps smoothly, so
    // unsigned differences stay right across the wrap.
    return static_cast<unsigned>(static_cast<std::uint64_t>((ticks + 300) / 600) * 16u);
}

PacemakerStep pacemakerStep(unsigned now, unsigned start, unsigned due, unsigned period, PACEMAKER_MODE mode)
{
    PacemakerStep r;
    r.took = now - start;
    unsigned late = now - due;
    if (mode == PACEMAKER_SKIP_MODE && period != 0 && late > period) {
        due += (late / period) * period;
        late = now - due;
    }
    if (static_cast<int>(now - due) < 0)
        r.sleep = period + due - now;
    else if (late < period)
        r.sleep = period - late;
    else
        r.sleep = 0;
    r.late = late;
    r.nextDue = due + period;
    return r;
}

PeriodicThread::PeriodicThread(unsigned periodMsec, const char* name, PACEMAKER_MODE mode)
    : OsThread(STACK_SIZE), m_PeriodMsec(periodMsec), m_PeriodUsec(periodMsec * 1000), m_Name(name ? name : "Periodic"),
      m_DebugPacemaker(false), m_PeriodicExecTimeUsec(0), m_PacemakerMode(mode)
{
    char buf[16];
    snprintf(buf, sizeof buf, "P-%-13s", m_Name.c_str());
    SetThreadName(buf);
}

PeriodicThread::~PeriodicThread() = default;

unsigned PeriodicThread::Clock()
{
    return pacemakerClock(get_ticks());
}

void* PeriodicThread::Execute(void* arg)
{
    pArg = arg;
    m_PeriodicExecTimeUsec = Clock();
    while (ContinueRunning()) {
        const unsigned start = Clock();
        PeriodicAction();
        Pacemaker(start);
    }
    return nullptr;
}

void PeriodicThread::Pacemaker(unsigned start)
{
    const PacemakerStep step = pacemakerStep(Clock(), start, m_PeriodicExecTimeUsec, m_PeriodUsec, m_PacemakerMode);
    if (m_DebugPacemaker) {
        std::ostringstream os;
        os << "Pacemaker time before sleep [" << Clock() << "]. Time to sleep [" << step.sleep << "]";
        debugOut(os.str().c_str());
    }
    if (step.sleep != 0) {
        microsleep2(step.sleep, m_DebugPacemaker);
        if (m_DebugPacemaker) {
            std::ostringstream os;
            os << "Pacemaker time after sleep [" << Clock() << "]";
            debugOut(os.str().c_str());
        }
    }
    if (step.took >= m_PeriodUsec && s_EnableDebugEvents) {
        std::ostringstream os;
        os << "Periodic Action [" << m_Name << "] took more time ([" << step.took
           << "]  usecs) than the timer period ([" << m_PeriodUsec << "] usecs)!";
        debugOut(os.str().c_str());
    }
    m_PeriodicExecTimeUsec = step.nextDue;
}
