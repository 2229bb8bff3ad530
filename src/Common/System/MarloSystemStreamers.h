#pragma once

// Trace text of the system's attribute codes. USE_TYPE prints the words the
// switch's own user interface shows ("Normal", "xSL", ...); every other type
// prints its enumerator name. Unknown values print the UNKNOWN text.
#include <ostream>

#include "Common/System/MarloSystemTypes.h"

std::ostream& operator<<(std::ostream& os, USE_TYPE type);
std::ostream& operator<<(std::ostream& os, PORT_INTERFACE interface);
std::ostream& operator<<(std::ostream& os, PORT_CON_ROLE role);
std::ostream& operator<<(std::ostream& os, PORT_CON_TYPE type);
std::ostream& operator<<(std::ostream& os, PORT_INPUT_VLAN_TAG_ACTION action);
std::ostream& operator<<(std::ostream& os, SNMP_AGENT_STATUS status);
std::ostream& operator<<(std::ostream& os, SNMP_AGENT_AUTHENTICATION_PROTOCOL protocol);
std::ostream& operator<<(std::ostream& os, SNMP_AGENT_PRIVACY_PROTOCOL protocol);
std::ostream& operator<<(std::ostream& os, LBG_HASHING_PROFILE profile);
std::ostream& operator<<(std::ostream& os, THRESHOLD_SCOPE scope);
std::ostream& operator<<(std::ostream& os, BACKPLANE_MODE mode);
std::ostream& operator<<(std::ostream& os, PORT_POWER_ON_CONTROL control);
std::ostream& operator<<(std::ostream& os, HISTORICAL_STAT_COLLECTION_CONTROL control);
std::ostream& operator<<(std::ostream& os, PACKET_DEF_PAYLOAD_TYPE type);
