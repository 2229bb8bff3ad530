#include "Common/System/MarloSystemStreamers.h"

#include "Common/Utility/UtlStreamers.h"

// The enumerator itself is named, so a renamed or removed one fails to compile.
#define N(e)                                                                                                           \
    {                                                                                                                  \
        e, #e                                                                                                          \
    }

std::ostream& operator<<(std::ostream& os, USE_TYPE type)
{
    static constexpr UtlCodeName kNames[] = {
        {USE_TYPE_NORMAL, "Normal"}, {USE_TYPE_TEST, "Test"},   {USE_TYPE_MIRROR, "Mirror"},
        {USE_TYPE_XSL, "xSL"},       {USE_TYPE_CLONE, "Clone"}, {USE_TYPE_ISL, "iSL"},
    };
    return streamCodeName(os, "USE_TYPE", kNames, type);
}

std::ostream& operator<<(std::ostream& os, PORT_INTERFACE interface)
{
    static constexpr UtlCodeName kNames[] = {
        N(PORT_INTERFACE_NONE),  N(PORT_INTERFACE_RJ45),      N(PORT_INTERFACE_SFP),       N(PORT_INTERFACE_SFP_PLUS),
        N(PORT_INTERFACE_SFP28), N(PORT_INTERFACE_QSFP_PLUS), N(PORT_INTERFACE_QSFP28),    N(PORT_INTERFACE_QSFP_DD),
        N(PORT_INTERFACE_XFP),   N(PORT_INTERFACE_CFP),       N(PORT_INTERFACE_BACKPLANE),
    };
    return streamCodeName(os, "PORT_INTERFACE", kNames, interface);
}

std::ostream& operator<<(std::ostream& os, PORT_CON_ROLE role)
{
    static constexpr UtlCodeName kNames[] = {
        N(PORT_CON_ROLE_NONE),    N(PORT_CON_ROLE_INPUT), N(PORT_CON_ROLE_OUTPUT), N(PORT_CON_ROLE_DUPLEX),
        N(PORT_CON_ROLE_MONITOR), N(PORT_CON_ROLE_TEST),  N(PORT_CON_ROLE_MIRROR),
    };
    return streamCodeName(os, "PORT_CON_ROLE", kNames, role);
}

std::ostream& operator<<(std::ostream& os, PORT_CON_TYPE type)
{
    static constexpr UtlCodeName kNames[] = {
        N(PORT_CON_TYPE_NONE),      N(PORT_CON_TYPE_PORT),      N(PORT_CON_TYPE_TEST),   N(PORT_CON_TYPE_MONITOR),
        N(PORT_CON_TYPE_BROADCAST), N(PORT_CON_TYPE_MULTICAST), N(PORT_CON_TYPE_MIRROR), N(PORT_CON_TYPE_SUBPORT),
        N(PORT_CON_TYPE_PACKET),    N(PORT_CON_TYPE_WEAVE),
    };
    return streamCodeName(os, "PORT_CON_TYPE", kNames, type);
}

std::ostream& operator<<(std::ostream& os, PORT_INPUT_VLAN_TAG_ACTION action)
{
    static constexpr UtlCodeName kNames[] = {
        N(PORT_INPUT_VLAN_TAG_ACTION_NONE),
        N(PORT_INPUT_VLAN_TAG_ACTION_ADD),
        N(PORT_INPUT_VLAN_TAG_ACTION_STRIP),
        N(PORT_INPUT_VLAN_TAG_ACTION_REPLACE),
    };
    return streamCodeName(os, "PORT_INPUT_VLAN_TAG_ACTION", kNames, action);
}

std::ostream& operator<<(std::ostream& os, SNMP_AGENT_STATUS status)
{
    static constexpr UtlCodeName kNames[] = {
        N(SNMP_AGENT_STATUS_DISABLED),
        N(SNMP_AGENT_STATUS_ENABLED),
    };
    return streamCodeName(os, "SNMP_AGENT_STATUS", kNames, status);
}

std::ostream& operator<<(std::ostream& os, SNMP_AGENT_AUTHENTICATION_PROTOCOL protocol)
{
    static constexpr UtlCodeName kNames[] = {
        N(SNMP_AGENT_AUTHENTICATION_PROTOCOL_NONE),   N(SNMP_AGENT_AUTHENTICATION_PROTOCOL_MD5),
        N(SNMP_AGENT_AUTHENTICATION_PROTOCOL_SHA),    N(SNMP_AGENT_AUTHENTICATION_PROTOCOL_SHA256),
        N(SNMP_AGENT_AUTHENTICATION_PROTOCOL_SHA512),
    };
    return streamCodeName(os, "SNMP_AGENT_AUTHENTICATION_PROTOCOL", kNames, protocol);
}

std::ostream& operator<<(std::ostream& os, SNMP_AGENT_PRIVACY_PROTOCOL protocol)
{
    static constexpr UtlCodeName kNames[] = {
        N(SNMP_AGENT_PRIVACY_PROTOCOL_NONE),   N(SNMP_AGENT_PRIVACY_PROTOCOL_DES),
        N(SNMP_AGENT_PRIVACY_PROTOCOL_AES128), N(SNMP_AGENT_PRIVACY_PROTOCOL_AES192),
        N(SNMP_AGENT_PRIVACY_PROTOCOL_AES256),
    };
    return streamCodeName(os, "SNMP_AGENT_PRIVACY_PROTOCOL", kNames, protocol);
}

std::ostream& operator<<(std::ostream& os, LBG_HASHING_PROFILE profile)
{
    static constexpr UtlCodeName kNames[] = {
        N(LBG_HASHING_PROFILE_DEFAULT),         N(LBG_HASHING_PROFILE_L2),     N(LBG_HASHING_PROFILE_L3),
        N(LBG_HASHING_PROFILE_L3_L4),           N(LBG_HASHING_PROFILE_SRC_IP), N(LBG_HASHING_PROFILE_DST_IP),
        N(LBG_HASHING_PROFILE_SYMMETRIC_L3_L4),
    };
    return streamCodeName(os, "LBG_HASHING_PROFILE", kNames, profile);
}

std::ostream& operator<<(std::ostream& os, THRESHOLD_SCOPE scope)
{
    static constexpr UtlCodeName kNames[] = {
        N(THRESHOLD_SCOPE_PORT),   N(THRESHOLD_SCOPE_SUBPORT), N(THRESHOLD_SCOPE_INGRESS),
        N(THRESHOLD_SCOPE_EGRESS), N(THRESHOLD_SCOPE_FILTER),  N(THRESHOLD_SCOPE_SYSTEM),
    };
    return streamCodeName(os, "THRESHOLD_SCOPE", kNames, scope);
}

std::ostream& operator<<(std::ostream& os, BACKPLANE_MODE mode)
{
    static constexpr UtlCodeName kNames[] = {
        N(BACKPLANE_MODE_NONE),
        N(BACKPLANE_MODE_PHYSICAL),
        N(BACKPLANE_MODE_PACKET),
        N(BACKPLANE_MODE_HYBRID),
    };
    return streamCodeName(os, "BACKPLANE_MODE", kNames, mode);
}

std::ostream& operator<<(std::ostream& os, PORT_POWER_ON_CONTROL control)
{
    static constexpr UtlCodeName kNames[] = {
        N(PORT_POWER_ON_CONTROL_OFF),
        N(PORT_POWER_ON_CONTROL_ON),
        N(PORT_POWER_ON_CONTROL_LAST_STATE),
    };
    return streamCodeName(os, "PORT_POWER_ON_CONTROL", kNames, control);
}

std::ostream& operator<<(std::ostream& os, HISTORICAL_STAT_COLLECTION_CONTROL control)
{
    static constexpr UtlCodeName kNames[] = {
        N(HISTORICAL_STAT_COLLECTION_CONTROL_STOP),
        N(HISTORICAL_STAT_COLLECTION_CONTROL_START),
        N(HISTORICAL_STAT_COLLECTION_CONTROL_PAUSE),
        N(HISTORICAL_STAT_COLLECTION_CONTROL_CLEAR),
    };
    return streamCodeName(os, "HISTORICAL_STAT_COLLECTION_CONTROL", kNames, control);
}

std::ostream& operator<<(std::ostream& os, PACKET_DEF_PAYLOAD_TYPE type)
{
    static constexpr UtlCodeName kNames[] = {
        N(PACKET_DEF_PAYLOAD_TYPE_FIXED),        N(PACKET_DEF_PAYLOAD_TYPE_INCREMENTING),
        N(PACKET_DEF_PAYLOAD_TYPE_DECREMENTING), N(PACKET_DEF_PAYLOAD_TYPE_RANDOM),
        N(PACKET_DEF_PAYLOAD_TYPE_PRBS),         N(PACKET_DEF_PAYLOAD_TYPE_USER_PATTERN),
    };
    return streamCodeName(os, "PACKET_DEF_PAYLOAD_TYPE", kNames, type);
}
