#pragma once

// What must hold between the simulator's counters and the handlers' tally
// once a simulator run (one phase) is over.

#include <string>
#include <vector>

#include "SoakLoad.h"
#include "SoakSwitchProcess.h"

namespace soak {

// One text per broken rule; empty when the phase is consistent. (A command
// handled twice is reported by the ledger as it happens.)
std::vector<std::string> phaseViolations(const SwitchCounters& sim, const LedgerTally& handled);

} // namespace soak
