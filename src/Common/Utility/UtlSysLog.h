#pragma once

// Forwarding of the system's syslog messages to up to three remote servers,
// through a configuration file of the syslog daemon.
#include <cstdint>

#include "Common/OS/TavroExport.h"

enum ALARM_PRIORITY : std::int32_t {
    ALARM_PRIORITY_EMERGENCY = 0,
    ALARM_PRIORITY_ALERT = 1,
    ALARM_PRIORITY_CRITICAL = 2,
    ALARM_PRIORITY_ERROR = 3,
    ALARM_PRIORITY_WARNING = 4,
    ALARM_PRIORITY_NOTICE = 5,
    ALARM_PRIORITY_NORMAL = ALARM_PRIORITY_NOTICE,
    ALARM_PRIORITY_INFO = 6,
    ALARM_PRIORITY_DEBUG = 7,
    // Forwards exactly this priority ("info"), not everything above it.
    ALARM_PRIORITY_AUDIT_TRAIL_ONLY = 8,
};

#pragma pack(push, 1)
struct SYSLOG_REC {
    std::uint32_t ipv4;            // server address, network byte order (as c_inaddr)
    std::uint16_t sysLogPort;      // UDP port, host byte order
    ALARM_PRIORITY alarmThreshold; // lowest priority forwarded
    bool enabled;                  // a disabled server's line is written as a comment
};
#pragma pack(pop)
static_assert(sizeof(SYSLOG_REC) == 11, "SYSLOG_REC is 11 bytes");

// Number of records writeSysLogCfg takes.
constexpr int SYSLOG_SERVER_COUNT = 3;

// "emerg" ... "debug" for 0-7, "info" for the audit-trail-only threshold,
// "Invalid" otherwise.
TAVRO_EXPORT const char* getSysLogPriorityText(const ALARM_PRIORITY& priority);
// "local0" ... "local7"; anything else "local0".
TAVRO_EXPORT const char* getSysLogFacilityText(int facility);
// Syslog facility code of local0 ... local7 ((16 + n) * 8); anything else local0.
TAVRO_EXPORT int getSysLogFacility(int facility);

// Writes "/etc/rsyslog.d/Tessara.conf" for recs[0..2] and removes the old
// per-server files. The daemon reads it only after restartSysLog.
TAVRO_EXPORT bool writeSysLogCfg(int facility, SYSLOG_REC* recs);
// Reopens this process's syslog connection with the facility and restarts
// the daemon. Returns 1.
TAVRO_EXPORT int restartSysLog(int facility);
