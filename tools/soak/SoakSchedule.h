#pragma once

// The order in which the soak misbehaves: the run is cut into phases of equal
// length, each with a fresh switch simulator started with one set of faults,
// rotating through every fault kind. Pure, so that it can be tested alone.

#include <string>
#include <vector>

namespace soak {

enum class FaultKind { None, Reverse, Delay, Drop, Close, Stop };

const char* faultKindName(FaultKind kind);

struct PhasePlan {
    unsigned index = 0;
    FaultKind kind = FaultKind::None;
    unsigned startMs = 0; // from the start of the run
    unsigned lengthMs = 0;
    // The simulator's fault options for the phase (see tavro-switchsim --help).
    std::vector<std::string> simArgs;
    // Stop phases: the simulator is stopped stopAtMs into the phase and
    // resumed stopForMs later.
    unsigned stopAtMs = 0;
    unsigned stopForMs = 0;
    std::string description;
};

struct SoakPlan {
    std::vector<PhasePlan> phases;
    unsigned warmMs = 0; // resource baselines are taken at this point
};

// Kinds in one round; every run of at least kMinSeconds sees each of them.
constexpr unsigned kKindsPerRound = 6;
constexpr unsigned kMinSeconds = 30;
constexpr unsigned kMinPhaseMs = 5000;
constexpr unsigned kMaxPhaseMs = 20000;
// The longest stop, well inside the 30 s the watchdog allows.
constexpr unsigned kMaxStopMs = 12000;

// The plan for a run of totalSeconds (at least kMinSeconds). Later rounds
// vary the numbers and combine faults, so a long run is not one round
// repeated.
SoakPlan planSoak(unsigned totalSeconds, int commandTimeoutMs);

} // namespace soak
