#include "Common/Utility/Crc32.h"

#include <cstdint>

namespace {
constexpr std::uint32_t POLYNOMIAL = 0x04C11DB7u;
std::uint32_t crc_table[256];
} // namespace

void gen_crc_table(void)
{
    for (std::uint32_t i = 0; i < 256; ++i) {
        std::uint32_t c = i << 24;
        for (int bit = 0; bit < 8; ++bit) c = (c & 0x80000000u) ? (c << 1) ^ POLYNOMIAL : c << 1;
        crc_table[i] = c;
    }
}

unsigned long update_crc(unsigned long crc_accum, char* data_blk_ptr, int data_blk_size)
{
    // unsigned long is 64 bits on LP64 hosts; the CRC is kept to 32.
    std::uint32_t crc = static_cast<std::uint32_t>(crc_accum);
    if (data_blk_size <= 0) return crc_accum;
    for (int j = 0; j < data_blk_size; ++j) {
        const unsigned idx = ((crc >> 24) ^ static_cast<unsigned char>(data_blk_ptr[j])) & 0xFFu;
        crc = (crc << 8) ^ crc_table[idx];
    }
    return crc;
}
