#pragma once

// Events and mutexes that short-lived objects (a command, its tracker
// record) borrow and give back, instead of creating and closing their
// handles every time. A borrowed handle is an ordinary handle of the layer:
// unnamed, registered like any event, non-signalled and unowned when lent.
#include "Common/OS/Linux/WinTypes.h"

namespace tavro_internal {

HANDLE borrowEvent(bool manualReset);
// The event may still be in the hands of a SetEvent finishing its wake-up;
// that only wakes a later borrower's wait early, and such a wait looks again.
void returnEvent(HANDLE h, bool manualReset);
HANDLE borrowMutex();
// A mutex still held by another thread is closed, as CloseHandle would have
// done, rather than lent again.
void returnMutex(HANDLE h);

} // namespace tavro_internal
