#pragma once

// One line of trace text, built with stream insertion and handed to the
// debug writer only when `enabled` holds: a line whose trace bit is off
// costs one test, not a string.
//   UTL_TRACE_IF(sockTraceOn(SOCK_TRACE_WAIT), "waitForReadySocket: fd[" << fd << "]\n");
//   UTL_TRACE("DeleteRoute: id[" << id << "]\n");
#include <sstream>

#include "Common/Utility/UtlDebug.h"

#define UTL_TRACE_IF(enabled, expr)                                                                                    \
    do {                                                                                                               \
        if (enabled) {                                                                                                 \
            std::ostringstream utlTraceLine_;                                                                          \
            utlTraceLine_ << expr;                                                                                     \
            debugOut(utlTraceLine_.str().c_str(), false);                                                              \
        }                                                                                                              \
    } while (0)

#define UTL_TRACE(expr) UTL_TRACE_IF(true, expr)
