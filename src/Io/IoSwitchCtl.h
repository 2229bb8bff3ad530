#pragma once

// Description of the switch behind a session's connection. The session fills
// little of it; the route table's log line and code describing switches read it.
#include <cstdint>

#include "Common/OS/Linux/WinTypes.h"
#include "Os/UDBServ.h"

enum SWITCH_TYPE {
    SW_TYPE_UNDEF = 0,
    SW_TYPE_R700 = 14,
};

enum SWI_ACT_RESULT {
    SWI_ACT_NOERR = 0,
    SWI_LOAD_ERR = 1,
    SWI_DIAG_ERR = 2,
    SWI_NO_SIM = 3,
    SWI_NOT_IDLE = 4,
};

// Operational state of a switch; no states are settled beyond the initial one.
enum SWI_OP_STATE {
    SWI_OP_UNDEFINED = 0,
};

enum SWI_ACTIVITY {
    SWI_ACTIVITY_NONE = 0,
};

enum SWI_ABORT_OP {
    SWI_ABORT_NONE = 0,
};

enum I_MAINTENANCE_ACTION {
    I_MAINT_NONE = 0,
};

struct SWITCH_CTL {
    // swiState bits the session sets when a link test passes or fails.
    static constexpr std::uint64_t STATE_LINK_TEST_PASSED = 1ull << 52;
    static constexpr std::uint64_t STATE_LINK_TEST_FAILED = 1ull << 53;
    static constexpr unsigned PROGRESS_SIZE = 132;

    SWITCH_TYPE swiType = SW_TYPE_UNDEF;
    SWITCH_MODEL swiModel = SW_MODEL_UNDEFINED;
    std::uint64_t swiState = 0;
    I_MAINTENANCE_ACTION swiLoad = I_MAINT_NONE;
    int switchId = 0;
    std::uint32_t switchIp = 0;
    std::uint32_t switchSecIp = 0;
    SWI_ACTIVITY swiActivity = SWI_ACTIVITY_NONE;
    SWI_ACT_RESULT swiActResult = SWI_ACT_NOERR;
    SWI_ABORT_OP swiAbort = SWI_ABORT_NONE;
    char progress[PROGRESS_SIZE] = {};
    int activeCtlr = -1;
    std::uint32_t swiLastState = 0;
    HANDLE lock = nullptr;
    int errorCount = 0;
    int swiVersion = 0;

    bool typeR700() const { return swiType == SW_TYPE_R700; }
};
