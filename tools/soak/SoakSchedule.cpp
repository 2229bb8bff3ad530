#include "SoakSchedule.h"

#include <algorithm>
#include <sstream>

namespace soak {

const char* faultKindName(FaultKind kind)
{
    switch (kind) {
    case FaultKind::None: return "none";
    case FaultKind::Reverse: return "reverse";
    case FaultKind::Delay: return "delay";
    case FaultKind::Drop: return "drop";
    case FaultKind::Close: return "close";
    case FaultKind::Stop: return "stop";
    }
    return "?";
}

namespace {

std::string seconds(unsigned ms)
{
    std::ostringstream os;
    os << ms / 1000;
    if (ms % 1000 != 0) os << '.' << (ms % 1000) / 100;
    return os.str() + " s";
}

void addDelay(PhasePlan& p, unsigned ms)
{
    p.simArgs.insert(p.simArgs.end(), {"--delay-ms", std::to_string(ms)});
    p.description += (p.description.empty() ? "" : ", ") + std::string("answers delayed ") + std::to_string(ms) + " ms";
}

void addReverse(PhasePlan& p)
{
    p.simArgs.push_back("--reverse");
    p.description += (p.description.empty() ? "" : ", ") + std::string("reversed byte order");
}

} // namespace

SoakPlan planSoak(unsigned totalSeconds, int commandTimeoutMs)
{
    SoakPlan plan;
    const unsigned totalMs = std::max(totalSeconds, kMinSeconds) * 1000;
    const unsigned phaseMs = std::clamp(totalMs / kKindsPerRound, kMinPhaseMs, kMaxPhaseMs);
    const unsigned count = totalMs / phaseMs;
    const unsigned timeout = commandTimeoutMs > 0 ? unsigned(commandTimeoutMs) : 1000;
    static const FaultKind kRound[kKindsPerRound] = {FaultKind::None, FaultKind::Reverse, FaultKind::Delay,
                                                     FaultKind::Drop, FaultKind::Close,   FaultKind::Stop};
    for (unsigned i = 0; i < count; ++i) {
        PhasePlan p;
        p.index = i;
        p.kind = kRound[i % kKindsPerRound];
        p.startMs = i * phaseMs;
        // The last phase takes what the division left over.
        p.lengthMs = i + 1 == count ? totalMs - p.startMs : phaseMs;
        // Odd rounds push harder: answers later than the time-out, more
        // drops and closes, and two faults at once.
        const bool odd = (i / kKindsPerRound) % 2 == 1;
        switch (p.kind) {
        case FaultKind::None: p.description = "no faults"; break;
        case FaultKind::Reverse: addReverse(p); break;
        case FaultKind::Delay: addDelay(p, odd ? timeout + timeout / 2 : timeout / 4); break;
        case FaultKind::Drop: {
            const unsigned every = odd ? 3 : 7;
            p.simArgs.insert(p.simArgs.end(), {"--drop-every", std::to_string(every)});
            p.description = "every " + std::to_string(every) + (every == 3 ? "rd" : "th") + " answer dropped";
            if (odd) addReverse(p);
            break;
        }
        case FaultKind::Close: {
            const unsigned frames = odd ? 500 : 3000;
            p.simArgs.insert(p.simArgs.end(), {"--close-after", std::to_string(frames)});
            p.description = "connection closed after " + std::to_string(frames) + " frames";
            if (odd) addDelay(p, timeout / 10);
            break;
        }
        case FaultKind::Stop:
            p.stopAtMs = p.lengthMs / 5;
            p.stopForMs = std::min(p.lengthMs / 2, kMaxStopMs);
            p.description = "stopped reading (SIGSTOP) for " + seconds(p.stopForMs);
            break;
        }
        plan.phases.push_back(p);
    }
    // Warm once every kind has run, or after a third of a short run.
    plan.warmMs = std::min(kKindsPerRound * phaseMs, totalMs / 3);
    return plan;
}

} // namespace soak
