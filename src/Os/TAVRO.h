#pragma once

// The exported switch API (declared in the public header) and what stays
// inside: the dispatcher of incoming commands and the waits tests shorten.
#include <cstddef>

#include "Ap/ApBase.h"
#include "Common/OS/Linux/WinTypes.h"

#define TAVRO_INTERNAL_CODES 1
#include "TAVRO/TAVRO.h"

class CrCmd;
class CrRsp;
class IoClientMgmt;

// Called by the switch session, on its thread, for each command it reads:
// runs the registered handler and answers when the switch asked for it.
void DispatchCommand(CrCmd* cmd);

namespace tavro_internal {

// The API's fixed waits, replaceable by tests (never exported).
struct ApiSeams {
    unsigned connectPolls;    // 200
    DWORD connectPollMs;      // 40
    unsigned disconnectPolls; // 100
    DWORD disconnectPollMs;   // 40
    int rawStatsTimeoutMs;    // 10000
};
ApiSeams& apiSeams();
void resetApiSeams();

// The one switch session, or null.
IoClientMgmt* switchClient();
// Handlers registered, and the one for code (null when none or null).
std::size_t handlerCount();
bool hasHandler(COMMAND_CODE code);

// Sends cmd to the switch (address 1) asking for a response, waits up to
// timeoutMs (0 or less: the command's own time-out) and returns the first
// response, which cmd owns. Shared by every exported call that waits.
CrRsp* dispatchAndWait(CrCmd& cmd, int timeoutMs);

} // namespace tavro_internal
