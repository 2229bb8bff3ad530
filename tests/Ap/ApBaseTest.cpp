#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "Ap/ApBase.h"
#include "TestSupport.h"

using tavro_test::text;

namespace {

// clang-format off
#define CODE(n, v) {n, #n, v}
// clang-format on

// Values peers rely on, and the last code of each block: a slip anywhere in
// a block's list moves its last code. Every block is named without gaps.
TEST(Codes, TellingValuesNamesAndBlocks)
{
    const struct {
        COMMAND_CODE code;
        const char* name;
        int value;
    } codes[] = {
        // clang-format off
        CODE(CMD_UNDEFINED, 0), CODE(CMD_CONN_PORT, 10002), CODE(CMD_DISC_PORT, 10003),
        CODE(CMD_SET_DATE_TIME, 10027), CODE(CMD_CONN_WEAVE, 10040), CODE(CMD_GET_SW_VERSION, 10043),
        CODE(CMD_RECONFIG_IMP_CONNECT, 10056), CODE(CMD_CARD_INIT, 20001), CODE(CMD_CARD_AUTOTRIM, 20008),
        CODE(CMD_CARD_DELAY_CONTROL, 20057), CODE(CMD_UDBSERV_BLADE_SNAPSHOT_EVENT, 30047),
        CODE(CMD_HEARTBEAT, 40010), CODE(CMD_LBG_LINK_DEVICE_STATE_CHANGE, 40016), CODE(CMD_TEST_21, 50005),
        CODE(CMD_UPDT_INIT, 70001), CODE(CMD_UPDATE, 70002), CODE(CMD_UPDATE_CHECK_FLASH_FPGA, 70005),
        CODE(CMD_PKT_CARD_INIT, 80001), CODE(CMD_PKT_GET_BLADE_RAW_STATS, 80011), CODE(CMD_PKT_XCVR_INSERTED, 80042),
        CODE(CMD_CONN_PACKET, 90002), CODE(CMD_FABRIC_CHECK, 90025), CODE(CMD_GET_BLADE_RAW_STATS, 100005),
        CODE(CMD_PKT_PROBE_COLLECT, 100014), CODE(CMD_PCE_CONFIGURE_PCE, 110001), CODE(CMD_PCE_GET_STATS, 110002),
        // clang-format on
    };
    for (const auto& c : codes) {
        EXPECT_EQ(c.value, int(c.code)) << c.name;
        EXPECT_EQ(c.name, text(c.code)) << c.value;
    }
    EXPECT_EQ("CMD_UPDATE", text(CMD_API_EVENT));

    const int blocks[][2] = {{0, 0},         {10000, 10056}, {20000, 20057},   {30000, 30047},
                             {40000, 40016}, {50000, 50005}, {60000, 60000},   {70000, 70005},
                             {80000, 80042}, {90000, 90025}, {100000, 100014}, {110000, 110002}};
    for (const auto& b : blocks) {
        for (int c = b[0]; c <= b[1]; ++c) EXPECT_NE(nullptr, commandCodeName(c)) << c;
        EXPECT_EQ(nullptr, commandCodeName(b[1] + 1)) << b[1] + 1;
    }
    EXPECT_EQ(nullptr, commandCodeName(-1));
}

TEST(CodeText, BoundaryUnknownAndOtherCodeSpaces)
{
    const char* const mgrNames[] = {"MGR_NULL",     "MGR_CONN",     "MGR_CARD",      "MGR_DIAG",
                                    "MGR_SYMN",     "MGR_USER",     "MGR_NBR",       "MGR_UPDT",
                                    "MGR_PKT_CARD", "MGR_PKT_CONN", "MGR_PKT_STATS", "MGR_PCE_PROC"};
    for (int i = 0; i < 12; ++i) EXPECT_EQ(mgrNames[i], text(MGR_CLASS(i)));
    // clang-format off
    const char* const boundaries[] = {
        "MGR_CONN_CMD (boundary value?   )", "MGR_CARD_CMD (boundary value?   )", "MGR_DIAG_CMD (boundary value?   )",
        "MGR_SYMN_CMD (boundary value?   )", "MGR_USER_CMD (boundary value?   )", "MGR_NBR_CMD (boundary value?)",
        "MGR_UPDT_CMD (boundary value?)", "MGR_PKT_CARD_CMD (boundary value?)", "MGR_PKT_CONN_CMD", "MGR_PKT_STATS_CMD",
        "MGR_PCE_PROC_CMD"};
    // clang-format on
    for (int i = 0; i < 11; ++i) EXPECT_EQ(boundaries[i], text(COMMAND_CODE(10000 * (i + 1))));

    const struct {
        std::string actual;
        const char* expected;
    } cases[] = {
        // clang-format off
        {text(COMMAND_CODE(10057)), "UNKNOWN COMMAND_CODE[10057][0x00002749]"},
        {text(MGR_MAX), "MGR_MAX???"}, {text(MGR_LINK), "MGR_LINK"},
        {text(MGR_CLASS(13)), "UNKNOWN MGR_CLASS[13][0x0000000d]"},
        {text(MGR_CLASS(-5)), "UNKNOWN MGR_CLASS[-5][0xfffffffb]"},
        {text(DB_MGR_NULL), "DB_MGR_NULL"}, {text(DB_MGR_API), "DB_MGR_API"}, {text(DB_MGR_POLL), "DB_MGR_POLL"},
        {text(DB_MGR_NBR), "DB_MGR_NBR???"}, {text(DBS_MGR_CLASS(5)), "UNKNOWN DBS_MGR_CLASS[5][0x00000005]"},
        {text(MSG_COMMAND), "MSG_COMMAND"}, {text(MSG_RESPONSE), "MSG_RESPONSE"}, {text(MSG_RSPONLIN), "MSG_RSPONLIN"},
        {text(MSG_RSPOFFLN), "MSG_RSPOFFLN"}, {text(MSG_TYPE(0x4D53473A)), "UNKNOWN MSG_TYPE[1297303354][0x4d53473a]"},
        {text(RSP_TIME_OUT), "RSP_TIME_OUT"}, {text(RSP_SIMULATION), "RSP_SIMULATION"},
        {text(RSP_INCORRECT_MODE), "RSP_INCORRECT_MODE"}, {text(RSP_STATUS(9)), "UNKNOWN RSP_STATUS[9][0x00000009]"},
        {text(CMD_WITHOUT_RSP), "CMD_WITHOUT_RSP"}, {text(CMD_WITH_RSP), "CMD_WITH_RSP"},
        {text(CMD_CONTROL(2)), "UNKNOWN CMD_CONTROL[2][0x00000002]"},
        // clang-format on
    };
    for (const auto& c : cases) EXPECT_EQ(c.expected, c.actual);
}

} // namespace
