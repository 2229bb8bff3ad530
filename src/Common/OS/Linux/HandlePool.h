#pragma once

// Events that short-lived objects (a command, its tracker record) borrow and
// give back, instead of creating and closing them every time: each creation
// and close takes the process-wide event lock and changes the registry. A
// borrowed event is an ordinary one: unnamed, registered, non-signalled.
// (Mutexes are not pooled: they are not registered, so they cost little to
// make, and whether the returning thread still holds one cannot be told.)
#include "Common/OS/Linux/WinTypes.h"

namespace tavro_internal {

HANDLE borrowEvent(bool manualReset);
// The event may still be in the hands of a SetEvent finishing its wake-up;
// that only wakes a later borrower's wait early, and such a wait looks again.
void returnEvent(HANDLE h, bool manualReset);

} // namespace tavro_internal
