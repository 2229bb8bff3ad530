#pragma once

// Raw counters of one blade, as fetched by I_GetRawStats: a 2-byte request
// naming the slot, and a reply made of a 6-byte head and one 951-byte entry
// per port of the blade.

#include "Ap/ApRecords.h"

#pragma pack(push, 1)

struct I_RAW_STATS_REQ {
    std::uint16_t slotNbr;
    int Swap();
};

struct I_RAW_STATS_HEAD {
    std::uint16_t nbrEntries; // entries that follow the head
    std::uint16_t slotNbr;
    std::uint16_t formatVersion;
    int Swap();
};

// Counters of one blade port. The counter sets are indexed by the blade's
// own counter numbering, receive side and transmit side alike.
struct I_RAW_PORT_STATS {
    std::uint16_t portNbr;
    std::uint8_t linkUp;
    std::uint32_t speedMbps;
    std::uint64_t rxCounters[59];
    std::uint64_t txCounters[59];
    int Swap();
};

// The reply: the head and nbrEntries entries (declared with one).
struct I_RAW_STATS_REPLY {
    I_RAW_STATS_HEAD head;
    I_RAW_PORT_STATS entries[1];

    // Bytes of a reply with n entries: 6 + 951 n.
    static std::size_t sizeofThis(unsigned int nbrEntries);

    // Converts the reply held in `bytes` bytes at `reply`: the head and as
    // many entries as both the count and the buffer allow. The count is
    // read in host order: before the conversion when the reply is in host
    // order now, after it otherwise. Returns the number of entries
    // converted, or -1 if the buffer cannot hold even the head.
    static int Swap(void* reply, std::size_t bytes, bool hostOrderNow);
};

#pragma pack(pop)

static_assert(sizeof(I_RAW_STATS_REQ) == 2, "wire size");
static_assert(sizeof(I_RAW_STATS_HEAD) == 6, "wire size");
static_assert(sizeof(I_RAW_PORT_STATS) == 951, "wire size");
static_assert(offsetof(I_RAW_STATS_REPLY, entries) == 6, "wire layout");
