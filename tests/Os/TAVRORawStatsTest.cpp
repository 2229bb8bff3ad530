// The public reading of I_GetRawStats blocks against the library's own
// record: every field of it read back, in either byte order.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "Ap/ApRawStats.h"
#include "TAVRO/TAVRORawStats.h"

namespace {

using Bytes = std::vector<unsigned char>;

// Every byte of every counter differs, so a missed or misplaced swap shows.
std::uint64_t counter(unsigned port, unsigned i, bool tx)
{
    return 0x0102030405060708ull * (port + 1) + (std::uint64_t(i) << 8) + (tx ? 0x8000000000000000ull : 0);
}

// A reply of `entries` ports built with the library's record, in host order
// or converted by the library's own Swap.
Bytes reply(std::uint16_t entries, std::uint16_t format, bool reversed)
{
    Bytes out(I_RAW_STATS_REPLY::sizeofThis(entries));
    I_RAW_STATS_HEAD head{entries, 0x0113, format};
    std::memcpy(out.data(), &head, sizeof head);
    for (unsigned p = 0; p < entries; ++p) {
        I_RAW_PORT_STATS e{};
        e.portNbr = std::uint16_t(0x0201 + p);
        e.linkUp = p % 2;
        e.speedMbps = 0x01020304u + p;
        for (unsigned i = 0; i < 59; ++i) {
            e.rxCounters[i] = counter(p, i, false);
            e.txCounters[i] = counter(p, i, true);
        }
        std::memcpy(out.data() + sizeof head + p * sizeof e, &e, sizeof e);
    }
    if (reversed) {
        EXPECT_EQ(int(entries), I_RAW_STATS_REPLY::Swap(out.data(), out.size(), true));
    }
    return out;
}

TEST(TAVRORawStats, ReadsEveryFieldInHostOrderWhateverOrderTheSwitchUsed)
{
    for (bool reversed : {false, true}) {
        SCOPED_TRACE(reversed ? "reversed" : "host order");
        // 0x0101 entries read the same in both orders: the whole block is there.
        const Bytes block = reply(0x0101, TAVRO_RAW_STATS_FORMAT, reversed);
        EXPECT_EQ(int(reversed), TAVRO_RawStatsReversed(block.data()));
        TAVRO_RAW_STATS_HEAD head{};
        ASSERT_EQ(0, TAVRO_RawStatsHead(block.data(), &head));
        EXPECT_EQ(0x0101, +head.nbrEntries);
        EXPECT_EQ(0x0113, +head.slotNbr);
        EXPECT_EQ(TAVRO_RAW_STATS_FORMAT, +head.formatVersion);
        ASSERT_EQ(0x0101, TAVRO_RawStatsEntries(block.data()));
        for (int p : {0, 1, 0x0100}) {
            TAVRO_RAW_PORT_STATS e{};
            ASSERT_EQ(0, TAVRO_RawStatsPort(block.data(), p, &e));
            EXPECT_EQ(0x0201 + p, +e.portNbr);
            EXPECT_EQ(p % 2, +e.linkUp);
            EXPECT_EQ(0x01020304u + p, +e.speedMbps);
            for (unsigned i = 0; i < 59; ++i) {
                ASSERT_EQ(counter(p, i, false), std::uint64_t(e.rxCounters[i])) << "rx " << i;
                ASSERT_EQ(counter(p, i, true), std::uint64_t(e.txCounters[i])) << "tx " << i;
            }
        }
    }
}

TEST(TAVRORawStats, RefusesWhatItCannotReadInsteadOfReadingPastTheBlock)
{
    TAVRO_RAW_STATS_HEAD head{};
    TAVRO_RAW_PORT_STATS e{};
    const struct {
        const char* name;
        std::uint16_t entries, format;
        bool reversed;
        int readable; // entries TAVRO_RawStatsEntries reports
    } cases[] = {
        {"no entries", 0, TAVRO_RAW_STATS_FORMAT, false, 0},
        {"unknown format", 2, 2, false, -1},
        {"unknown format, reversed", 2, 2, true, -1},
        // I_GetRawStats sizes the block by the count read in host order:
        // 2 reversed reads 0x0200, so only the 2 real entries may be read.
        {"reversed count larger in host order", 2, TAVRO_RAW_STATS_FORMAT, true, 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const Bytes block = reply(c.entries, c.format, c.reversed);
        EXPECT_EQ(c.readable, TAVRO_RawStatsEntries(block.data()));
        EXPECT_EQ(c.readable < 0 ? -1 : 0, TAVRO_RawStatsHead(block.data(), &head));
        EXPECT_EQ(-1, TAVRO_RawStatsPort(block.data(), c.readable < 0 ? 0 : c.readable, &e));
        EXPECT_EQ(-1, TAVRO_RawStatsPort(block.data(), -1, &e));
    }
    // The other way round: 0x0300 entries reversed read as 3 in host order,
    // and the block I_GetRawStats returns then holds only 3.
    Bytes full = reply(0x0300, TAVRO_RAW_STATS_FORMAT, true);
    full.resize(I_RAW_STATS_REPLY::sizeofThis(3));
    full.shrink_to_fit(); // so that AddressSanitizer sees any read past it
    EXPECT_EQ(3, TAVRO_RawStatsEntries(full.data()));
    EXPECT_EQ(0, TAVRO_RawStatsPort(full.data(), 2, &e));
    EXPECT_EQ(-1, TAVRO_RawStatsPort(full.data(), 3, &e));

    EXPECT_EQ(-1, TAVRO_RawStatsReversed(nullptr));
    EXPECT_EQ(-1, TAVRO_RawStatsEntries(nullptr));
    EXPECT_EQ(-1, TAVRO_RawStatsHead(full.data(), nullptr));
    EXPECT_EQ(-1, TAVRO_RawStatsPort(full.data(), 0, nullptr));
}

} // namespace
