#include "Common/System/MarloSystemStreamers.h"

#include <gtest/gtest.h>

#include <iomanip>
#include <sstream>
#include <string>

namespace {

template <class T>
std::string text(T code)
{
    std::ostringstream os;
    os << code;
    return os.str();
}

TEST(MarloSystemStreamers, UseTypePrintsDisplayWords)
{
    EXPECT_EQ(text(USE_TYPE_NORMAL), "Normal");
    EXPECT_EQ(text(USE_TYPE_TEST), "Test");
    EXPECT_EQ(text(USE_TYPE_MIRROR), "Mirror");
    EXPECT_EQ(text(USE_TYPE_XSL), "xSL");
    EXPECT_EQ(text(USE_TYPE_CLONE), "Clone");
    EXPECT_EQ(text(USE_TYPE_ISL), "iSL");
    // The values are sparse: the gaps and a combination of flags are not names.
    for (int gap : {0, 3, 4, 9, 17, 34, 48}) {
        EXPECT_EQ(text(static_cast<USE_TYPE>(gap)).rfind("UNKNOWN USE_TYPE[", 0), 0u) << gap;
    }
}

TEST(MarloSystemStreamers, OtherTypesPrintEnumeratorNamesAndTheirOwnTypeWhenUnknown)
{
    const struct {
        std::string known, expectedKnown, unknown, expectedUnknown;
    } cases[] = {
        {text(PORT_INTERFACE_QSFP28), "PORT_INTERFACE_QSFP28", text(static_cast<PORT_INTERFACE>(11)),
         "UNKNOWN PORT_INTERFACE[11][0x0000000b]"},
        {text(PORT_CON_ROLE_MONITOR), "PORT_CON_ROLE_MONITOR", text(static_cast<PORT_CON_ROLE>(-1)),
         "UNKNOWN PORT_CON_ROLE[-1][0xffffffff]"},
        {text(PORT_CON_TYPE_WEAVE), "PORT_CON_TYPE_WEAVE", text(static_cast<PORT_CON_TYPE>(10)),
         "UNKNOWN PORT_CON_TYPE[10][0x0000000a]"},
        {text(PORT_INPUT_VLAN_TAG_ACTION_STRIP), "PORT_INPUT_VLAN_TAG_ACTION_STRIP",
         text(static_cast<PORT_INPUT_VLAN_TAG_ACTION>(4)), "UNKNOWN PORT_INPUT_VLAN_TAG_ACTION[4][0x00000004]"},
        {text(SNMP_AGENT_STATUS_DISABLED), "SNMP_AGENT_STATUS_DISABLED", text(static_cast<SNMP_AGENT_STATUS>(2)),
         "UNKNOWN SNMP_AGENT_STATUS[2][0x00000002]"},
        {text(SNMP_AGENT_AUTHENTICATION_PROTOCOL_SHA), "SNMP_AGENT_AUTHENTICATION_PROTOCOL_SHA",
         text(static_cast<SNMP_AGENT_AUTHENTICATION_PROTOCOL>(5)),
         "UNKNOWN SNMP_AGENT_AUTHENTICATION_PROTOCOL[5][0x00000005]"},
        {text(SNMP_AGENT_PRIVACY_PROTOCOL_AES256), "SNMP_AGENT_PRIVACY_PROTOCOL_AES256",
         text(static_cast<SNMP_AGENT_PRIVACY_PROTOCOL>(255)), "UNKNOWN SNMP_AGENT_PRIVACY_PROTOCOL[255][0x000000ff]"},
        {text(LBG_HASHING_PROFILE_L3_L4), "LBG_HASHING_PROFILE_L3_L4", text(static_cast<LBG_HASHING_PROFILE>(7)),
         "UNKNOWN LBG_HASHING_PROFILE[7][0x00000007]"},
        {text(THRESHOLD_SCOPE_PORT), "THRESHOLD_SCOPE_PORT", text(static_cast<THRESHOLD_SCOPE>(0)),
         "UNKNOWN THRESHOLD_SCOPE[0][0x00000000]"},
        {text(BACKPLANE_MODE_HYBRID), "BACKPLANE_MODE_HYBRID", text(static_cast<BACKPLANE_MODE>(4)),
         "UNKNOWN BACKPLANE_MODE[4][0x00000004]"},
        {text(PORT_POWER_ON_CONTROL_LAST_STATE), "PORT_POWER_ON_CONTROL_LAST_STATE",
         text(static_cast<PORT_POWER_ON_CONTROL>(3)), "UNKNOWN PORT_POWER_ON_CONTROL[3][0x00000003]"},
        {text(HISTORICAL_STAT_COLLECTION_CONTROL_STOP), "HISTORICAL_STAT_COLLECTION_CONTROL_STOP",
         text(static_cast<HISTORICAL_STAT_COLLECTION_CONTROL>(4)),
         "UNKNOWN HISTORICAL_STAT_COLLECTION_CONTROL[4][0x00000004]"},
        {text(PACKET_DEF_PAYLOAD_TYPE_PRBS), "PACKET_DEF_PAYLOAD_TYPE_PRBS",
         text(static_cast<PACKET_DEF_PAYLOAD_TYPE>(6)), "UNKNOWN PACKET_DEF_PAYLOAD_TYPE[6][0x00000006]"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.known, c.expectedKnown);
        EXPECT_EQ(c.unknown, c.expectedUnknown);
    }
}

TEST(MarloSystemStreamers, TextSitsInsideATraceLineWithoutDisturbingIt)
{
    std::ostringstream os;
    os << std::hex << "port: [" << USE_TYPE_XSL << "][" << static_cast<USE_TYPE>(3) << "] " << 255;
    EXPECT_EQ(os.str(), "port: [xSL][UNKNOWN USE_TYPE[3][0x00000003]] ff");
}

} // namespace
