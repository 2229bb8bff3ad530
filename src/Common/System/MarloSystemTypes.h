#pragma once

// Attribute codes of switches, ports and packet features as the switch
// reports them. All travel as 32-bit words; the fixed underlying type keeps
// any received value representable, named or not.
#include <cstdint>

// What a port is used for. The values are the switch's own; iSL is a
// normal port that also carries inter-switch traffic.
enum USE_TYPE : std::int32_t {
    USE_TYPE_NORMAL = 1,
    USE_TYPE_TEST = 2,
    USE_TYPE_MIRROR = 8,
    USE_TYPE_XSL = 16,
    USE_TYPE_CLONE = 32,
    USE_TYPE_ISL = 33
};

// Physical interface behind a port.
enum PORT_INTERFACE : std::int32_t {
    PORT_INTERFACE_NONE = 0,
    PORT_INTERFACE_RJ45 = 1,
    PORT_INTERFACE_SFP = 2,
    PORT_INTERFACE_SFP_PLUS = 3,
    PORT_INTERFACE_SFP28 = 4,
    PORT_INTERFACE_QSFP_PLUS = 5,
    PORT_INTERFACE_QSFP28 = 6,
    PORT_INTERFACE_QSFP_DD = 7,
    PORT_INTERFACE_XFP = 8,
    PORT_INTERFACE_CFP = 9,
    PORT_INTERFACE_BACKPLANE = 10
};

// Side a port takes in a connection.
enum PORT_CON_ROLE : std::int32_t {
    PORT_CON_ROLE_NONE = 0,
    PORT_CON_ROLE_INPUT = 1,
    PORT_CON_ROLE_OUTPUT = 2,
    PORT_CON_ROLE_DUPLEX = 3,
    PORT_CON_ROLE_MONITOR = 4,
    PORT_CON_ROLE_TEST = 5,
    PORT_CON_ROLE_MIRROR = 6
};

// Kind of connection a port is part of.
enum PORT_CON_TYPE : std::int32_t {
    PORT_CON_TYPE_NONE = 0,
    PORT_CON_TYPE_PORT = 1,
    PORT_CON_TYPE_TEST = 2,
    PORT_CON_TYPE_MONITOR = 3,
    PORT_CON_TYPE_BROADCAST = 4,
    PORT_CON_TYPE_MULTICAST = 5,
    PORT_CON_TYPE_MIRROR = 6,
    PORT_CON_TYPE_SUBPORT = 7,
    PORT_CON_TYPE_PACKET = 8,
    PORT_CON_TYPE_WEAVE = 9
};

// What a packet port does to the VLAN tag of a frame it receives.
enum PORT_INPUT_VLAN_TAG_ACTION : std::int32_t {
    PORT_INPUT_VLAN_TAG_ACTION_NONE = 0,
    PORT_INPUT_VLAN_TAG_ACTION_ADD = 1,
    PORT_INPUT_VLAN_TAG_ACTION_STRIP = 2,
    PORT_INPUT_VLAN_TAG_ACTION_REPLACE = 3
};

enum SNMP_AGENT_STATUS : std::int32_t {
    SNMP_AGENT_STATUS_DISABLED = 0,
    SNMP_AGENT_STATUS_ENABLED = 1
};

// SNMPv3 user security.
enum SNMP_AGENT_AUTHENTICATION_PROTOCOL : std::int32_t {
    SNMP_AGENT_AUTHENTICATION_PROTOCOL_NONE = 0,
    SNMP_AGENT_AUTHENTICATION_PROTOCOL_MD5 = 1,
    SNMP_AGENT_AUTHENTICATION_PROTOCOL_SHA = 2,
    SNMP_AGENT_AUTHENTICATION_PROTOCOL_SHA256 = 3,
    SNMP_AGENT_AUTHENTICATION_PROTOCOL_SHA512 = 4
};

enum SNMP_AGENT_PRIVACY_PROTOCOL : std::int32_t {
    SNMP_AGENT_PRIVACY_PROTOCOL_NONE = 0,
    SNMP_AGENT_PRIVACY_PROTOCOL_DES = 1,
    SNMP_AGENT_PRIVACY_PROTOCOL_AES128 = 2,
    SNMP_AGENT_PRIVACY_PROTOCOL_AES192 = 3,
    SNMP_AGENT_PRIVACY_PROTOCOL_AES256 = 4
};

// Header fields a load-balance group hashes to spread flows over its ports.
enum LBG_HASHING_PROFILE : std::int32_t {
    LBG_HASHING_PROFILE_DEFAULT = 0,
    LBG_HASHING_PROFILE_L2 = 1,
    LBG_HASHING_PROFILE_L3 = 2,
    LBG_HASHING_PROFILE_L3_L4 = 3,
    LBG_HASHING_PROFILE_SRC_IP = 4,
    LBG_HASHING_PROFILE_DST_IP = 5,
    LBG_HASHING_PROFILE_SYMMETRIC_L3_L4 = 6
};

// Object a utilisation threshold watches.
enum THRESHOLD_SCOPE : std::int32_t {
    THRESHOLD_SCOPE_PORT = 1,
    THRESHOLD_SCOPE_SUBPORT = 2,
    THRESHOLD_SCOPE_INGRESS = 3,
    THRESHOLD_SCOPE_EGRESS = 4,
    THRESHOLD_SCOPE_FILTER = 5,
    THRESHOLD_SCOPE_SYSTEM = 6
};

// How the chassis backplane joins the blades.
enum BACKPLANE_MODE : std::int32_t {
    BACKPLANE_MODE_NONE = 0,
    BACKPLANE_MODE_PHYSICAL = 1,
    BACKPLANE_MODE_PACKET = 2,
    BACKPLANE_MODE_HYBRID = 3
};

// State a port takes when its blade powers up.
enum PORT_POWER_ON_CONTROL : std::int32_t {
    PORT_POWER_ON_CONTROL_OFF = 0,
    PORT_POWER_ON_CONTROL_ON = 1,
    PORT_POWER_ON_CONTROL_LAST_STATE = 2
};

enum HISTORICAL_STAT_COLLECTION_CONTROL : std::int32_t {
    HISTORICAL_STAT_COLLECTION_CONTROL_STOP = 0,
    HISTORICAL_STAT_COLLECTION_CONTROL_START = 1,
    HISTORICAL_STAT_COLLECTION_CONTROL_PAUSE = 2,
    HISTORICAL_STAT_COLLECTION_CONTROL_CLEAR = 3
};

// How a generated packet's payload bytes are filled.
enum PACKET_DEF_PAYLOAD_TYPE : std::int32_t {
    PACKET_DEF_PAYLOAD_TYPE_FIXED = 0,
    PACKET_DEF_PAYLOAD_TYPE_INCREMENTING = 1,
    PACKET_DEF_PAYLOAD_TYPE_DECREMENTING = 2,
    PACKET_DEF_PAYLOAD_TYPE_RANDOM = 3,
    PACKET_DEF_PAYLOAD_TYPE_PRBS = 4,
    PACKET_DEF_PAYLOAD_TYPE_USER_PATTERN = 5
};
