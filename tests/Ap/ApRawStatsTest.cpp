#include "Ap/ApRawStats.h"
#include "ApSwapCheck.h"

using namespace apcheck;

namespace {

const std::string HEAD = rep(U16, 3);
const std::string ENTRY = U16 + b(1) + U32 + rep(U64, 118);

TEST(ApRawStats, RecordsHaveTheirWireSizesAndConvertExactlyTheirNumbers)
{
    checkRecord(recordCase<I_RAW_STATS_REQ>("I_RAW_STATS_REQ", 2, U16));
    checkRecord(recordCase<I_RAW_STATS_HEAD>("I_RAW_STATS_HEAD", 6, HEAD));
    checkRecord(recordCase<I_RAW_PORT_STATS>("I_RAW_PORT_STATS", 951, ENTRY));
}

TEST(ApRawStats, ReplySizeIsTheHeadPlusOneEntryPerPort)
{
    EXPECT_EQ(I_RAW_STATS_REPLY::sizeofThis(0), 6u);
    EXPECT_EQ(I_RAW_STATS_REPLY::sizeofThis(2), 1908u);
    EXPECT_EQ(I_RAW_STATS_REPLY::sizeofThis(65535), 6u + 951u * 65535u);
}

// Builds a host-order reply of `count` entries in a buffer of `bytes`.
Bytes reply(std::uint16_t count, std::size_t bytes)
{
    Bytes v = pattern(bytes);
    if (bytes >= 2)
        putAt<std::uint16_t>(v.data(), count);
    return v;
}

TEST(ApRawStats, ReplyConvertsHeadAndTheEntriesThatAreThere)
{
    struct Case {
        const char* name;
        std::uint16_t count;
        std::size_t bytes;
        int converted;
    } const cases[] = {
        {"exact", 2, 1908, 2},
        {"excess bytes stay as they are", 2, 1908 + 500, 2},
        {"count beyond the buffer", 3, 6 + 951 + 900, 1},
        {"head only", 0, 6, 0},
        {"count with no room for entries", 40, 6, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Bytes buf = reply(c.count, c.bytes);
        const Bytes original = buf;
        Bytes expected = original;
        applyLayout(HEAD + rep(ENTRY, c.converted), expected.data(), expected.size());

        EXPECT_EQ(I_RAW_STATS_REPLY::Swap(buf.data(), buf.size(), true), c.converted);
        EXPECT_TRUE(buf == expected);
        // Back again: the count is now reversed and must be read after
        // converting.
        EXPECT_EQ(I_RAW_STATS_REPLY::Swap(buf.data(), buf.size(), false), c.converted);
        EXPECT_TRUE(buf == original);
    }
}

TEST(ApRawStats, ReplyTooShortForItsHeadIsLeftAlone)
{
    Bytes buf = reply(1, 5);
    const Bytes original = buf;
    EXPECT_EQ(I_RAW_STATS_REPLY::Swap(buf.data(), buf.size(), true), -1);
    EXPECT_TRUE(buf == original);
    EXPECT_EQ(I_RAW_STATS_REPLY::Swap(nullptr, 100, true), -1);
}

} // namespace
