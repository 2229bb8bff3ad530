#pragma once

// Table-driven, MSB-first CRC-32 (polynomial 0x04C11DB7). No initial value,
// final XOR or reflection is applied here: the caller picks them.
#include "TavroExport.h"

extern "C" TAVRO_EXPORT void gen_crc_table(void);
extern "C" TAVRO_EXPORT unsigned long update_crc(unsigned long crc_accum, char* data_blk_ptr, int data_blk_size);
