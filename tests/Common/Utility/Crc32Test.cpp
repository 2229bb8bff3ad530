#include "Common/Utility/Crc32.h"

#include <gtest/gtest.h>

TEST(Crc32, ChecksBeforeAndAfterTableGeneration)
{
    char check[] = "123456789", high[] = {'\xff', '\x80'};
    // Without a table every byte only shifts the accumulator.
    EXPECT_EQ(update_crc(0x12345678u, check, 1), 0x34567800u);
    EXPECT_EQ(update_crc(0x12345678u, check, 4), 0u);

    gen_crc_table();
    EXPECT_EQ(update_crc(0xFFFFFFFFu, check, 9), 0x0376E6E7u); // CRC-32/MPEG-2 check value
    EXPECT_EQ(update_crc(0u, check, 9), update_crc(update_crc(0u, check, 4), check + 4, 5))
        << "a CRC computed in pieces must equal the CRC over the whole";
    // 0xFF as first byte with a zero accumulator selects the last entry, not a negative index.
    EXPECT_EQ(update_crc(0u, high, 1), 0xB1F740B4u);
    EXPECT_EQ(update_crc(0xABCDEF01u, check, 0), 0xABCDEF01u);
    EXPECT_EQ(update_crc(0xABCDEF01u, check, -3), 0xABCDEF01u);
}
