#include "Common/System/MarloSystemStreamers.h"

#include <gtest/gtest.h>

#include <string>
#include "TestSupport.h"

using tavro_test::text;

namespace {

// A known value prints its enumerator; an unknown one names its own type.
#define ROW(known, TYPE, bad)                                                                                          \
    {                                                                                                                  \
        text(known), #known, text(static_cast<TYPE>(bad)), "UNKNOWN " #TYPE "[" #bad "]"                               \
    }

TEST(MarloSystemStreamers, KnownValuesPrintTheirNamesAndUnknownOnesTheirOwnType)
{
    EXPECT_EQ(text(USE_TYPE_NORMAL) + text(USE_TYPE_TEST) + text(USE_TYPE_MIRROR) + text(USE_TYPE_XSL) +
                  text(USE_TYPE_CLONE) + text(USE_TYPE_ISL),
              "NormalTestMirrorxSLCloneiSL");
    // The values are sparse: the gaps and a combination of flags are not names.
    for (int gap : {0, 3, 4, 9, 17, 34, 48})
        EXPECT_EQ(text(static_cast<USE_TYPE>(gap)).rfind("UNKNOWN USE_TYPE[", 0), 0u) << gap;

    const struct {
        std::string known, expectedKnown, unknown, unknownPrefix;
    } cases[] = {ROW(PORT_INTERFACE_QSFP28, PORT_INTERFACE, 11),
                 ROW(PORT_CON_ROLE_MONITOR, PORT_CON_ROLE, -1),
                 ROW(PORT_CON_TYPE_WEAVE, PORT_CON_TYPE, 10),
                 ROW(PORT_INPUT_VLAN_TAG_ACTION_STRIP, PORT_INPUT_VLAN_TAG_ACTION, 4),
                 ROW(SNMP_AGENT_STATUS_DISABLED, SNMP_AGENT_STATUS, 2),
                 ROW(SNMP_AGENT_AUTHENTICATION_PROTOCOL_SHA, SNMP_AGENT_AUTHENTICATION_PROTOCOL, 5),
                 ROW(SNMP_AGENT_PRIVACY_PROTOCOL_AES256, SNMP_AGENT_PRIVACY_PROTOCOL, 255),
                 ROW(LBG_HASHING_PROFILE_L3_L4, LBG_HASHING_PROFILE, 7),
                 ROW(THRESHOLD_SCOPE_PORT, THRESHOLD_SCOPE, 0),
                 ROW(BACKPLANE_MODE_HYBRID, BACKPLANE_MODE, 4),
                 ROW(PORT_POWER_ON_CONTROL_LAST_STATE, PORT_POWER_ON_CONTROL, 3),
                 ROW(HISTORICAL_STAT_COLLECTION_CONTROL_STOP, HISTORICAL_STAT_COLLECTION_CONTROL, 4),
                 ROW(PACKET_DEF_PAYLOAD_TYPE_PRBS, PACKET_DEF_PAYLOAD_TYPE, 6)};
    for (const auto& c : cases) {
        EXPECT_EQ(c.known, c.expectedKnown);
        EXPECT_EQ(c.unknown.rfind(c.unknownPrefix + "[0x", 0), 0u) << c.unknown;
    }
}
#undef ROW

} // namespace
