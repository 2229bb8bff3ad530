#include "Common/Utility/UtlStreamers.h"

#include <iomanip>
#include <iterator>

#include "Common/Utility/UtlFormatGuard.h"

std::ostream& streamUnknownTypeValueString(std::ostream& os, const char* typeName, int value)
{
    UtlFormatGuard guard(os);
    os.width(0);
    // The text has one fixed form whatever the caller left set: no "+", no
    // second "0x" from showbase, lower-case hex digits.
    os.unsetf(std::ios_base::showpos | std::ios_base::showbase | std::ios_base::uppercase);
    os << "UNKNOWN " << typeName << "[" << std::dec << value << "][0x" << std::hex << std::setw(8) << std::setfill('0')
       << std::right << static_cast<std::uint32_t>(value) << "]";
    return os;
}

const char* findCodeName(const UtlCodeName* table, std::size_t count, int value)
{
    // Tables are short and only read for trace lines: a linear scan keeps
    // them free of ordering rules.
    for (std::size_t i = 0; i < count; ++i) {
        if (table[i].value == value) return table[i].name;
    }
    return nullptr;
}

std::ostream& streamCodeName(std::ostream& os, const char* typeName, const UtlCodeName* table, std::size_t count,
                             int value)
{
    if (const char* name = findCodeName(table, count, value)) return os << name;
    return streamUnknownTypeValueString(os, typeName, value);
}

#define TAVRO_NAME_ENTRY(name, value) {value, #name},
#define TAVRO_DEFINE_FAMILY_STREAMER(TYPE)                                                                             \
    std::ostream& operator<<(std::ostream& os, const TYPE& code)                                                       \
    {                                                                                                                  \
        static constexpr UtlCodeName kNames[] = {TAVRO_##TYPE##_LIST(TAVRO_NAME_ENTRY)};                               \
        return streamCodeName(os, #TYPE, kNames, code.getValue());                                                     \
    }
TAVRO_COMMAND_FAMILIES(TAVRO_DEFINE_FAMILY_STREAMER)
#undef TAVRO_DEFINE_FAMILY_STREAMER
#undef TAVRO_NAME_ENTRY

// The enumerator itself is named, so a renamed or removed one fails to compile.
#define TAVRO_ENUM_NAME(e)                                                                                             \
    {                                                                                                                  \
        e, #e                                                                                                          \
    }

std::ostream& operator<<(std::ostream& os, I_EVENT_TYPE type)
{
    static constexpr UtlCodeName kNames[] = {
        TAVRO_ENUM_NAME(I_EVENT_TYPE_SWITCH),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_PIM),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_PORT),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_GROUP),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_CONNECTION),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_ALARM),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_TRANLOG),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_MAINTENANCE),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_CONNECTION_LOST),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_SUPERGROUP),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_GROUP_MEMBER),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_EQUIPMENT),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_USER),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_SUPERGROUP_MEMBER),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_BOARD_INFO),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_CIRCUIT),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_CONNECTION_SET),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_DATAGEN_RESULTS),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_DOMAIN),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_SERVER_SHUTDOWN),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_HARDWARE_ALARM),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_CHASSIS),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_XSL_ASSOCIATION),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_XSL_COUNTS),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_DIAG_BAD_PATH),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_RESTORE_STANDBY_DB),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_SUBPORT),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_PACKET_CONNECTION),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_PACKET_COUNTS),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_PACKET_MEMBER),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_PACKET_STATUS),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_INGRESS),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_INGRESS_MEMBER),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_FILTER),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_FILTER_MEMBER),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_EGRESS),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_PACKET_ASSOCIATION),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_RULE),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_RULE_MEMBER),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_SUPERINGRESS),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_SUPERINGRESS_MEMBER),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_SUPEREGRESS),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_EGRESS_MEMBER),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_SUPERFILTER),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_PORT_STATISTICS),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_PORT_STATISTICS_RESET),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_THRESHOLD),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_SUPEREGRESS_MEMBER),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_SERVER_CLOCK),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_DPI_PROTOCOL),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_SYSTEM_PARAMETERS),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_UTILIZATION),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_PCE_PORT),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_XSL_TRUNK_MEMBER),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_PCE_STATISTICS),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_STANDBY_SYSTEM_PARAMETERS),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_XSL_TRUNK),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_IMPAIRMENT),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_IMPAIRMENT_GROUP),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_XSL_TRUNK_ALARM),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_IMPAIRMENT_GROUP_MEMBER),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_DPI_PROTOCOL_ENTRY),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_TRUNK_STATISTICS),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_BACKPLANE_STATE),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_RECONCILE),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_PACKET_DEFINITION),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_STREAM),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_STREAM_MEMBER),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_PROBE),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_STICKY_NOTE),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_PROBE_STATISTICS),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_DEVICE),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_PACKET_RESERVATION),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_REMOTE_SERVER),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_REMOTE_EXEC),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_RECONCILE_PROGRESS),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_DBVERIFY_PROGRESS),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_DEVICE_MEMBER),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_RESERVATION_REPORT),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_EXTERNAL_TOOL),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_REMOTE_EXEC_OUTPUT),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_PROBE_MEMBER),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_RESERVATION_MEMBER),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_EXTERNAL_TOOL_STATUS),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_DEVICE_APP_STATUS),
        TAVRO_ENUM_NAME(I_EVENT_TYPE_DEVICE_APP),
    };
    static_assert(std::size(kNames) == I_EVENT_TYPE_LAST - I_EVENT_TYPE_FIRST + 1, "one name per event type");
    return streamCodeName(os, "I_EVENT_TYPE", kNames, type);
}

std::ostream& operator<<(std::ostream& os, I_EVENT_ACTION action)
{
    static constexpr UtlCodeName kNames[] = {
        TAVRO_ENUM_NAME(I_EVENT_ACTION_ADD),           TAVRO_ENUM_NAME(I_EVENT_ACTION_REVISE),
        TAVRO_ENUM_NAME(I_EVENT_ACTION_DELETE),        TAVRO_ENUM_NAME(I_EVENT_ACTION_ON),
        TAVRO_ENUM_NAME(I_EVENT_ACTION_OFF),           TAVRO_ENUM_NAME(I_EVENT_ACTION_DELETE_DUP),
        TAVRO_ENUM_NAME(I_EVENT_ACTION_CLEAR),         TAVRO_ENUM_NAME(I_EVENT_ACTION_REFRESH),
        TAVRO_ENUM_NAME(I_EVENT_ACTION_PROMOTE),       TAVRO_ENUM_NAME(I_EVENT_ACTION_RESET),
        TAVRO_ENUM_NAME(I_EVENT_ACTION_UPDATE),        TAVRO_ENUM_NAME(I_EVENT_ACTION_RESTORE),
        TAVRO_ENUM_NAME(I_EVENT_ACTION_UPDATE_STATUS),
    };
    static_assert(std::size(kNames) == I_EVENT_ACTION_LAST - I_EVENT_ACTION_FIRST + 1, "one name per event action");
    return streamCodeName(os, "I_EVENT_ACTION", kNames, action);
}
