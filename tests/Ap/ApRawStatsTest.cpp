#include "Ap/ApRawStats.h"
#include "ApSwapCheck.h"

using namespace apcheck;

namespace {

const std::string HEAD = "2x3 ";
const std::string ENTRY = "(2 b1 4 8x118)";

TEST(ApRawStats, RecordsAndRepliesConvertExactlyTheNumbersThatAreThere)
{
    for (const RecordCase& c : {AP_RECORD(I_RAW_STATS_REQ, 2, "2"), AP_RECORD(I_RAW_STATS_HEAD, 6, HEAD),
                                AP_RECORD(I_RAW_PORT_STATS, 951, ENTRY)})
        checkRecord(c);
    EXPECT_EQ(I_RAW_STATS_REPLY::sizeofThis(0), 6u);
    EXPECT_EQ(I_RAW_STATS_REPLY::sizeofThis(2), 1908u);
    EXPECT_EQ(I_RAW_STATS_REPLY::sizeofThis(65535), 6u + 951u * 65535u);

    struct Case {
        const char* name;
        std::uint16_t count;
        std::size_t bytes;
        int converted; // -1: too short for its head, left alone
    } const cases[] = {
        {"exact", 2, 1908, 2},
        {"excess bytes stay as they are", 2, 1908 + 500, 2},
        {"count beyond the buffer", 3, 6 + 951 + 900, 1},
        {"head only", 0, 6, 0},
        {"count with no room for entries", 40, 6, 0},
        {"shorter than the head", 1, 5, -1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Bytes buf = pattern(c.bytes);
        putAt<std::uint16_t>(buf.data(), c.count);
        const Bytes original = buf;
        Bytes expected = original;
        if (c.converted >= 0)
            applyLayout(HEAD + ENTRY + "x" + std::to_string(c.converted), expected.data(), expected.size());

        EXPECT_EQ(I_RAW_STATS_REPLY::Swap(buf.data(), buf.size(), true), c.converted);
        EXPECT_TRUE(buf == expected);
        // Back again: the count is now reversed and must be read after converting.
        EXPECT_EQ(I_RAW_STATS_REPLY::Swap(buf.data(), buf.size(), false), c.converted);
        EXPECT_TRUE(buf == original);
    }
    EXPECT_EQ(I_RAW_STATS_REPLY::Swap(nullptr, 100, true), -1);
}

} // namespace
