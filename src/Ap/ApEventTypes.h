#pragma once

#include <cstdint>

// Kinds of unsolicited event and what happened to the object it carries.
// Both travel as 32-bit words inside API_EVENT (see ApEvents.h).
//
// The comment after each type names the record that an event of that type
// carries; "none" means the event carries no record of a size known to this
// library, so such an event occupies a whole API_EVENT in a packet.

enum I_EVENT_TYPE : std::int32_t {
    I_EVENT_TYPE_SWITCH = 1,                     // I_SWITCH
    I_EVENT_TYPE_PIM = 2,                        // I_PIM
    I_EVENT_TYPE_PORT = 3,                       // I_PORT
    I_EVENT_TYPE_GROUP = 4,                      // I_GROUP
    I_EVENT_TYPE_CONNECTION = 5,                 // I_CONNECTION
    I_EVENT_TYPE_ALARM = 6,                      // I_ALARM
    I_EVENT_TYPE_TRANLOG = 7,                    // I_TRANLOG
    I_EVENT_TYPE_MAINTENANCE = 8,                // I_MAINTENANCE
    I_EVENT_TYPE_CONNECTION_LOST = 9,            // no record at all
    I_EVENT_TYPE_SUPERGROUP = 10,                // I_SUPERGROUP
    I_EVENT_TYPE_GROUP_MEMBER = 11,              // I_GROUP_MEMBER
    I_EVENT_TYPE_EQUIPMENT = 12,                 // I_EQUIPMENT
    I_EVENT_TYPE_USER = 13,                      // I_USER
    I_EVENT_TYPE_SUPERGROUP_MEMBER = 14,         // I_SUPERGROUP_MEMBER
    I_EVENT_TYPE_BOARD_INFO = 15,                // I_BOARD_INFO
    I_EVENT_TYPE_CIRCUIT = 16,                   // I_CIRCUIT
    I_EVENT_TYPE_CONNECTION_SET = 17,            // I_CONNECTION_SET
    I_EVENT_TYPE_DATAGEN_RESULTS = 18,           // I_DATAGEN_RESULTS
    I_EVENT_TYPE_DOMAIN = 19,                    // I_DOMAIN
    I_EVENT_TYPE_SERVER_SHUTDOWN = 20,           // I_SERVER_SHUTDOWN
    I_EVENT_TYPE_HARDWARE_ALARM = 21,            // I_HARDWARE_ALARM
    I_EVENT_TYPE_CHASSIS = 22,                   // I_CHASSIS
    I_EVENT_TYPE_XSL_ASSOCIATION = 23,           // I_XSL_ASSOCIATION
    I_EVENT_TYPE_XSL_COUNTS = 24,                // I_XSL_COUNTS
    I_EVENT_TYPE_DIAG_BAD_PATH = 25,             // I_DIAG_BAD_PATH
    I_EVENT_TYPE_RESTORE_STANDBY_DB = 26,        // I_RESTORE_STANDBY_DB
    I_EVENT_TYPE_SUBPORT = 27,                   // I_SUBPORT
    I_EVENT_TYPE_PACKET_CONNECTION = 28,         // none
    I_EVENT_TYPE_PACKET_COUNTS = 29,             // I_PACKET_COUNTS
    I_EVENT_TYPE_PACKET_MEMBER = 30,             // I_PACKET_MEMBER
    I_EVENT_TYPE_PACKET_STATUS = 31,             // I_PACKET_STATUS
    I_EVENT_TYPE_INGRESS = 32,                   // I_INGRESS
    I_EVENT_TYPE_INGRESS_MEMBER = 33,            // I_INGRESS_MEMBER
    I_EVENT_TYPE_FILTER = 34,                    // I_FILTER
    I_EVENT_TYPE_FILTER_MEMBER = 35,             // I_FILTER_MEMBER
    I_EVENT_TYPE_EGRESS = 36,                    // I_EGRESS
    I_EVENT_TYPE_PACKET_ASSOCIATION = 37,        // I_PACKET_ASSOCIATION_EVT
    I_EVENT_TYPE_RULE = 38,                      // I_RULE
    I_EVENT_TYPE_RULE_MEMBER = 39,               // I_RULE_MEMBER
    I_EVENT_TYPE_SUPERINGRESS = 40,              // I_SUPERINGRESS
    I_EVENT_TYPE_SUPERINGRESS_MEMBER = 41,       // I_SUPERINGRESS_MEMBER
    I_EVENT_TYPE_SUPEREGRESS = 42,               // I_SUPEREGRESS
    I_EVENT_TYPE_EGRESS_MEMBER = 43,             // I_EGRESS_MEMBER
    I_EVENT_TYPE_SUPERFILTER = 44,               // I_SUPERFILTER
    I_EVENT_TYPE_PORT_STATISTICS = 45,           // I_PORT_STATISTICS
    I_EVENT_TYPE_PORT_STATISTICS_RESET = 46,     // none
    I_EVENT_TYPE_THRESHOLD = 47,                 // I_THRESHOLD
    I_EVENT_TYPE_SUPEREGRESS_MEMBER = 48,        // I_SUPEREGRESS_MEMBER
    I_EVENT_TYPE_SERVER_CLOCK = 49,              // I_SERVER_CLOCK
    I_EVENT_TYPE_DPI_PROTOCOL = 50,              // I_DPI_PROTOCOL
    I_EVENT_TYPE_SYSTEM_PARAMETERS = 51,         // I_SYSTEM_PARAMETERS
    I_EVENT_TYPE_UTILIZATION = 52,               // I_UTILIZATION
    I_EVENT_TYPE_PCE_PORT = 53,                  // I_PCE_PORT
    I_EVENT_TYPE_XSL_TRUNK_MEMBER = 54,          // I_XSL_TRUNK_MEMBER
    I_EVENT_TYPE_PCE_STATISTICS = 55,            // I_PCE_STATISTICS
    I_EVENT_TYPE_STANDBY_SYSTEM_PARAMETERS = 56, // I_SYSTEM_PARAMETERS
    I_EVENT_TYPE_XSL_TRUNK = 57,                 // I_XSL_TRUNK
    I_EVENT_TYPE_IMPAIRMENT = 58,                // I_IMPAIRMENT
    I_EVENT_TYPE_IMPAIRMENT_GROUP = 59,          // none
    I_EVENT_TYPE_XSL_TRUNK_ALARM = 60,           // none
    I_EVENT_TYPE_IMPAIRMENT_GROUP_MEMBER = 61,   // I_IMPAIRMENT_GROUP_MEMBER
    I_EVENT_TYPE_DPI_PROTOCOL_ENTRY = 62,        // I_DPI_PROTOCOL_ENTRY
    I_EVENT_TYPE_TRUNK_STATISTICS = 63,          // I_TRUNK_STATISTICS
    I_EVENT_TYPE_BACKPLANE_STATE = 64,           // I_BACKPLANE_STATE
    I_EVENT_TYPE_RECONCILE = 65,                 // I_RECONCILE
    I_EVENT_TYPE_PACKET_DEFINITION = 66,         // I_PACKET_DEFINITION
    I_EVENT_TYPE_STREAM = 67,                    // I_STREAM
    I_EVENT_TYPE_STREAM_MEMBER = 68,             // I_STREAM_MEMBER
    I_EVENT_TYPE_PROBE = 69,                     // I_PROBE
    I_EVENT_TYPE_STICKY_NOTE = 70,               // I_STICKY_NOTE
    I_EVENT_TYPE_PROBE_STATISTICS = 71,          // I_PROBE_STATISTICS
    I_EVENT_TYPE_DEVICE = 72,                    // I_DEVICE
    I_EVENT_TYPE_PACKET_RESERVATION = 73,        // I_PACKET_RESERVATION
    I_EVENT_TYPE_REMOTE_SERVER = 74,             // I_REMOTE_SERVER
    I_EVENT_TYPE_REMOTE_EXEC = 75,               // I_REMOTE_EXEC
    I_EVENT_TYPE_RECONCILE_PROGRESS = 76,        // I_PROGRESS
    I_EVENT_TYPE_DBVERIFY_PROGRESS = 77,         // I_PROGRESS
    I_EVENT_TYPE_DEVICE_MEMBER = 78,             // none
    I_EVENT_TYPE_RESERVATION_REPORT = 79,        // none
    I_EVENT_TYPE_EXTERNAL_TOOL = 80,             // none
    I_EVENT_TYPE_REMOTE_EXEC_OUTPUT = 81,        // none
    I_EVENT_TYPE_PROBE_MEMBER = 82,              // none
    I_EVENT_TYPE_RESERVATION_MEMBER = 83,        // none
    I_EVENT_TYPE_EXTERNAL_TOOL_STATUS = 84,      // I_APP_STATUS
    I_EVENT_TYPE_DEVICE_APP_STATUS = 85,         // I_APP_STATUS
    I_EVENT_TYPE_DEVICE_APP = 86                 // I_DEVICE_APP
};

// Lowest and highest defined event type; everything in between is defined.
constexpr std::int32_t I_EVENT_TYPE_FIRST = I_EVENT_TYPE_SWITCH;
constexpr std::int32_t I_EVENT_TYPE_LAST = I_EVENT_TYPE_DEVICE_APP;

enum I_EVENT_ACTION : std::int32_t {
    I_EVENT_ACTION_ADD = 1,
    I_EVENT_ACTION_REVISE = 2,
    I_EVENT_ACTION_DELETE = 3,
    I_EVENT_ACTION_ON = 4,
    I_EVENT_ACTION_OFF = 5,
    I_EVENT_ACTION_DELETE_DUP = 6,
    I_EVENT_ACTION_CLEAR = 7,
    I_EVENT_ACTION_REFRESH = 8,
    I_EVENT_ACTION_PROMOTE = 9,
    I_EVENT_ACTION_RESET = 10,
    I_EVENT_ACTION_UPDATE = 11,
    I_EVENT_ACTION_RESTORE = 12,
    I_EVENT_ACTION_UPDATE_STATUS = 13
};

constexpr std::int32_t I_EVENT_ACTION_FIRST = I_EVENT_ACTION_ADD;
constexpr std::int32_t I_EVENT_ACTION_LAST = I_EVENT_ACTION_UPDATE_STATUS;
