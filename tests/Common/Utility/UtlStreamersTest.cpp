#include "Common/Utility/UtlStreamers.h"

#include <gtest/gtest.h>

#include <climits>
#include <iomanip>
#include <set>
#include <sstream>
#include <string>
#include "TestSupport.h"

using tavro_test::text;

namespace {

std::string unknown(const std::string& type, int value)
{
    std::ostringstream os;
    streamUnknownTypeValueString(os, type.c_str(), value);
    return os.str();
}

TEST(UtlStreamers, UnknownValueShowsDecimalAndHexAndLeavesCallerFormattingAsItWas)
{
    const std::pair<int, const char*> cases[] = {{13, "UNKNOWN MGR_CLASS[13][0x0000000d]"},
                                                 {-1, "UNKNOWN MGR_CLASS[-1][0xffffffff]"},
                                                 {INT_MIN, "UNKNOWN MGR_CLASS[-2147483648][0x80000000]"},
                                                 {INT_MAX, "UNKNOWN MGR_CLASS[2147483647][0x7fffffff]"}};
    for (const auto& [value, expected] : cases) EXPECT_EQ(unknown("MGR_CLASS", value), expected);

    std::ostringstream os;
    os << std::oct << std::setfill('#') << std::left << std::showbase << std::uppercase << std::showpos;
    const std::ios_base::fmtflags before = os.flags();
    os << SWI_CMD(-1);
    EXPECT_EQ(os.str(), "UNKNOWN SWI_CMD[-1][0xffffffff]") << "caller flags must not leak into the text";
    EXPECT_EQ(os.flags(), before);
    os << ' ' << std::setw(6) << 8;
    EXPECT_EQ(os.str(), "UNKNOWN SWI_CMD[-1][0xffffffff] 010###");

    // A width set for the next item is still pending afterwards.
    std::ostringstream pending;
    pending.width(7);
    streamUnknownTypeValueString(pending, "X", 5);
    EXPECT_EQ(pending.str(), "UNKNOWN X[5][0x00000005]");
    EXPECT_EQ(pending.width(), 7);
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
    for (int missing : {0, -1, highest + 1}) EXPECT_EQ(text(Family(missing)), unknown(typeName, missing));
}

// Every value of the range has its own name with the type's prefix; the
// values around it are unknown.
template <class E>
void checkRange(const char* type, int last)
{
    SCOPED_TRACE(type);
    std::set<std::string> names;
    for (int v = 1; v <= last; ++v) {
        const std::string s = text(static_cast<E>(v));
        EXPECT_EQ(s.rfind(std::string(type) + "_", 0), 0u) << v << ": " << s;
        names.insert(s);
    }
    EXPECT_EQ(names.size(), static_cast<size_t>(last));
    for (int missing : {0, -2, last + 1}) EXPECT_EQ(text(static_cast<E>(missing)), unknown(type, missing));
}

TEST(UtlStreamers, EveryFamilyAndEventRangeNamesEachValueOnce)
{
#define TAVRO_TEST_ENTRY(name, value) {value, #name},
#define TAVRO_TEST_FAMILY(TYPE) checkFamily<TYPE>(#TYPE, {TAVRO_##TYPE##_LIST(TAVRO_TEST_ENTRY)});
    TAVRO_COMMAND_FAMILIES(TAVRO_TEST_FAMILY)
#undef TAVRO_TEST_FAMILY
#undef TAVRO_TEST_ENTRY
    // Families share numbers; the type alone picks the name.
    EXPECT_EQ(text(GROUP_CMD(1)) + text(EGRESS_CMD(1)) + text(SNMP_CMD(1)), "GROUP_GETEGRESS_GETSNMP_GET");
    EXPECT_EQ(text(SNMPAGENT_CMD(4)), "SNMPAGENT_DISABLE");

    checkRange<I_EVENT_TYPE>("I_EVENT_TYPE", 86);
    checkRange<I_EVENT_ACTION>("I_EVENT_ACTION", 13);
    EXPECT_EQ(text(I_EVENT_TYPE_PORT_STATISTICS), "I_EVENT_TYPE_PORT_STATISTICS");
    EXPECT_EQ(text(I_EVENT_TYPE_DEVICE_APP), "I_EVENT_TYPE_DEVICE_APP");
    EXPECT_EQ(text(I_EVENT_ACTION_UPDATE_STATUS), "I_EVENT_ACTION_UPDATE_STATUS");
}

} // namespace
