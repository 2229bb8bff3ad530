#include "Common/Utility/UtlStreamers.h"

#include <gtest/gtest.h>

#include <climits>
#include <iomanip>
#include <set>
#include <sstream>
#include <string>

namespace {

template <class T>
std::string text(const T& code)
{
    std::ostringstream os;
    os << code;
    return os.str();
}

bool isUnknown(const std::string& s) { return s.rfind("UNKNOWN ", 0) == 0; }

TEST(UtlStreamers, UnknownValueShowsDecimalAndEightHexDigits)
{
    const struct {
        int value;
        const char* expected;
    } cases[] = {
        {13, "UNKNOWN MGR_CLASS[13][0x0000000d]"},
        {0, "UNKNOWN MGR_CLASS[0][0x00000000]"},
        {-1, "UNKNOWN MGR_CLASS[-1][0xffffffff]"},
        {INT_MIN, "UNKNOWN MGR_CLASS[-2147483648][0x80000000]"},
        {INT_MAX, "UNKNOWN MGR_CLASS[2147483647][0x7fffffff]"},
        {0x4C494E4B, "UNKNOWN MGR_CLASS[1279872587][0x4c494e4b]"},
    };
    for (const auto& c : cases) {
        std::ostringstream os;
        streamUnknownTypeValueString(os, "MGR_CLASS", c.value);
        EXPECT_EQ(os.str(), c.expected);
    }
}

TEST(UtlStreamers, UnknownValueLeavesCallerFormattingAsItWas)
{
    std::ostringstream os;
    os << std::oct << std::setfill('#') << std::left << std::showbase << std::uppercase << std::showpos;
    const std::ios_base::fmtflags before = os.flags();
    os << SWI_CMD(-1);
    EXPECT_EQ(os.str(), "UNKNOWN SWI_CMD[-1][0xffffffff]") << "caller flags must not leak into the text";
    EXPECT_EQ(os.flags(), before);
    EXPECT_EQ(os.fill(), '#');
    os << ' ' << std::setw(6) << 8;
    EXPECT_EQ(os.str(), "UNKNOWN SWI_CMD[-1][0xffffffff] 010###");

    // A width set for the next item is still pending afterwards.
    std::ostringstream pending;
    pending.width(7);
    streamUnknownTypeValueString(pending, "X", 5);
    EXPECT_EQ(pending.str(), "UNKNOWN X[5][0x00000005]");
    EXPECT_EQ(pending.width(), 7);
}

TEST(UtlStreamers, KnownCommandFamilyValuesPrintTheirEnumeratorName)
{
    EXPECT_EQ(text(SWI_CMD(SWI_CMD::SWI_GET)), "SWI_GET");
    EXPECT_EQ(text(PORT_CMD(PORT_CMD::PORT_SET_VLAN_TAG_ACTION)), "PORT_SET_VLAN_TAG_ACTION");
    EXPECT_EQ(text(CATEGORY(CATEGORY::CATEGORY_SNMP_AGENT)), "CATEGORY_SNMP_AGENT");
    EXPECT_EQ(text(CATEGORY_COMMAND(CATEGORY_COMMAND::CATEGORY_COMMAND_LOCK)), "CATEGORY_COMMAND_LOCK");
    EXPECT_EQ(text(THRESHLD_CMD(THRESHLD_CMD::THRESHLD_DELETE)), "THRESHLD_DELETE");
    EXPECT_EQ(text(IMPAIRMENT_CMD(IMPAIRMENT_CMD::IMPAIRMENT_REMOVE)), "IMPAIRMENT_REMOVE");
    EXPECT_EQ(text(STREAM_GENERATOR_CMD(STREAM_GENERATOR_CMD::STREAM_GENERATOR_STOP)), "STREAM_GENERATOR_STOP");
    EXPECT_EQ(text(LOG_CMD(LOG_CMD::LOG_SET_SYSLOG)), "LOG_SET_SYSLOG");
    EXPECT_EQ(text(SNMPAGENT_CMD(4)), "SNMPAGENT_DISABLE");
    // Families share numbers; the type alone picks the name.
    EXPECT_EQ(text(GROUP_CMD(1)), "GROUP_GET");
    EXPECT_EQ(text(EGRESS_CMD(1)), "EGRESS_GET");
    EXPECT_EQ(text(SNMP_CMD(1)), "SNMP_GET");
}

// Checked for every family: each listed operation prints its own name (a
// value given twice would print the other name), names carry the family's
// prefix (an entry pasted into the wrong list would not), and values the
// family lacks print the unknown text under the family's type name.
template <class Family>
void checkFamily(const char* typeName, std::initializer_list<std::pair<int, const char*>> entries)
{
    SCOPED_TRACE(typeName);
    std::string prefix = typeName;
    if (prefix.size() > 4 && prefix.compare(prefix.size() - 4, 4, "_CMD") == 0) prefix.resize(prefix.size() - 4);
    prefix += '_';
    std::set<std::string> seen;
    int highest = 0;
    for (const auto& [value, name] : entries) {
        EXPECT_EQ(text(Family(value)), name);
        EXPECT_EQ(std::string(name).rfind(prefix, 0), 0u) << name;
        seen.insert(name);
        highest = std::max(highest, value);
    }
    EXPECT_EQ(seen.size(), entries.size());
    const std::string type(typeName);
    EXPECT_EQ(text(Family(0)), "UNKNOWN " + type + "[0][0x00000000]");
    EXPECT_EQ(text(Family(-1)), "UNKNOWN " + type + "[-1][0xffffffff]");
    EXPECT_TRUE(isUnknown(text(Family(highest + 1))));
}

TEST(UtlStreamers, EveryCommandFamilyNamesEachOperationOnce)
{
#define TAVRO_TEST_ENTRY(name, value) {value, #name},
#define TAVRO_TEST_FAMILY(TYPE) checkFamily<TYPE>(#TYPE, {TAVRO_##TYPE##_LIST(TAVRO_TEST_ENTRY)});
    TAVRO_COMMAND_FAMILIES(TAVRO_TEST_FAMILY)
#undef TAVRO_TEST_FAMILY
#undef TAVRO_TEST_ENTRY
}

TEST(UtlStreamers, EventTypesAndActionsHaveDistinctNamesOverTheirWholeRange)
{
    std::set<std::string> types;
    for (int v = 1; v <= 86; ++v) {
        const std::string s = text(static_cast<I_EVENT_TYPE>(v));
        EXPECT_EQ(s.rfind("I_EVENT_TYPE_", 0), 0u) << v << ": " << s;
        types.insert(s);
    }
    EXPECT_EQ(types.size(), 86u);
    EXPECT_EQ(text(I_EVENT_TYPE_PORT_STATISTICS), "I_EVENT_TYPE_PORT_STATISTICS");
    EXPECT_EQ(text(I_EVENT_TYPE_DEVICE_APP), "I_EVENT_TYPE_DEVICE_APP");
    EXPECT_EQ(text(static_cast<I_EVENT_TYPE>(0)), "UNKNOWN I_EVENT_TYPE[0][0x00000000]");
    EXPECT_EQ(text(static_cast<I_EVENT_TYPE>(87)), "UNKNOWN I_EVENT_TYPE[87][0x00000057]");

    std::set<std::string> actions;
    for (int v = 1; v <= 13; ++v) {
        const std::string s = text(static_cast<I_EVENT_ACTION>(v));
        EXPECT_EQ(s.rfind("I_EVENT_ACTION_", 0), 0u) << v << ": " << s;
        actions.insert(s);
    }
    EXPECT_EQ(actions.size(), 13u);
    EXPECT_EQ(text(I_EVENT_ACTION_UPDATE_STATUS), "I_EVENT_ACTION_UPDATE_STATUS");
    EXPECT_EQ(text(static_cast<I_EVENT_ACTION>(14)), "UNKNOWN I_EVENT_ACTION[14][0x0000000e]");
    EXPECT_EQ(text(static_cast<I_EVENT_ACTION>(-2)), "UNKNOWN I_EVENT_ACTION[-2][0xfffffffe]");
}

TEST(UtlStreamers, LookupPrefersTheFirstOfDuplicateValues)
{
    const UtlCodeName table[] = {{3, "PRIMARY"}, {3, "ALIAS"}, {-7, "NEG"}};
    EXPECT_STREQ(findCodeName(table, 3, 3), "PRIMARY");
    EXPECT_STREQ(findCodeName(table, 3, -7), "NEG");
    EXPECT_EQ(findCodeName(table, 3, 4), nullptr);
    EXPECT_EQ(findCodeName(table, 0, 3), nullptr);
}

} // namespace
