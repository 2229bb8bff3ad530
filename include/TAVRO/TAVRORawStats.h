#pragma once

/*
 * The block I_GetRawStats returns: raw counters of one blade.
 *
 *   head     6 bytes   nbrEntries, slotNbr, formatVersion (16-bit each)
 *   entries  951 bytes each, one per port of the blade
 *
 * The block is exactly as the switch sent it, so its numbers may be in the
 * switch's byte order rather than this host's; the format word tells which.
 * Read it through the functions below, which copy a record out (the block
 * has no alignment) and put its numbers into host order:
 *
 *   void* block = I_GetRawStats(slot);
 *   int n = TAVRO_RawStatsEntries(block);          // -1: unknown format
 *   for (int i = 0; i < n; ++i) {
 *       TAVRO_RAW_PORT_STATS port;
 *       TAVRO_RawStatsPort(block, i, &port);
 *       ...
 *   }
 *   free(block);
 */
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#define TAVRO_RAW_STATS_FORMAT 1 /* the layout described here */
#define TAVRO_RAW_STATS_HEAD_SIZE 6
#define TAVRO_RAW_STATS_ENTRY_SIZE 951
#define TAVRO_RAW_STATS_COUNTERS 59 /* per direction, in the blade's own numbering */

#pragma pack(push, 1)

typedef struct TAVRO_RAW_STATS_HEAD {
    uint16_t nbrEntries; /* entries that follow the head */
    uint16_t slotNbr;
    uint16_t formatVersion;
} TAVRO_RAW_STATS_HEAD;

typedef struct TAVRO_RAW_PORT_STATS {
    uint16_t portNbr;
    uint8_t linkUp; /* 1 when the port's link is up */
    uint32_t speedMbps;
    uint64_t rxCounters[TAVRO_RAW_STATS_COUNTERS];
    uint64_t txCounters[TAVRO_RAW_STATS_COUNTERS];
} TAVRO_RAW_PORT_STATS;

#pragma pack(pop)

#ifdef __cplusplus
static_assert(sizeof(TAVRO_RAW_STATS_HEAD) == TAVRO_RAW_STATS_HEAD_SIZE, "wire size");
static_assert(sizeof(TAVRO_RAW_PORT_STATS) == TAVRO_RAW_STATS_ENTRY_SIZE, "wire size");
#endif

static inline uint16_t TAVRO_RawStatsSwap16(uint16_t v)
{
    return (uint16_t)((v >> 8) | (v << 8));
}

static inline uint32_t TAVRO_RawStatsSwap32(uint32_t v)
{
    return (v >> 24) | ((v >> 8) & 0xFF00u) | ((v << 8) & 0xFF0000u) | (v << 24);
}

static inline uint64_t TAVRO_RawStatsSwap64(uint64_t v)
{
    return ((uint64_t)TAVRO_RawStatsSwap32((uint32_t)v) << 32) | TAVRO_RawStatsSwap32((uint32_t)(v >> 32));
}

/* 0: the block is in host order; 1: byte-reversed; -1: null, or a format
 * this header does not describe. */
static inline int TAVRO_RawStatsReversed(const void* block)
{
    TAVRO_RAW_STATS_HEAD h;
    if (block == NULL) return -1;
    memcpy(&h, block, sizeof h);
    if (h.formatVersion == TAVRO_RAW_STATS_FORMAT) return 0;
    if (h.formatVersion == TAVRO_RawStatsSwap16(TAVRO_RAW_STATS_FORMAT)) return 1;
    return -1;
}

/* The head in host order. 0, or -1 as TAVRO_RawStatsReversed. */
static inline int TAVRO_RawStatsHead(const void* block, TAVRO_RAW_STATS_HEAD* head)
{
    const int reversed = TAVRO_RawStatsReversed(block);
    if (reversed < 0 || head == NULL) return -1;
    memcpy(head, block, sizeof *head);
    if (reversed) {
        head->nbrEntries = TAVRO_RawStatsSwap16(head->nbrEntries);
        head->slotNbr = TAVRO_RawStatsSwap16(head->slotNbr);
        head->formatVersion = TAVRO_RawStatsSwap16(head->formatVersion);
    }
    return 0;
}

/* Entries that can be read from the block, or -1. I_GetRawStats sized the
 * block by the first word read in host order; when the switch's order is
 * the other one, only the entries both counts cover are there. */
static inline int TAVRO_RawStatsEntries(const void* block)
{
    TAVRO_RAW_STATS_HEAD head;
    uint16_t allocated;
    if (TAVRO_RawStatsHead(block, &head) != 0) return -1;
    memcpy(&allocated, block, sizeof allocated);
    return head.nbrEntries < allocated ? head.nbrEntries : allocated;
}

/* Entry `index` in host order. 0, or -1 when the block cannot be read or
 * holds no such entry. */
static inline int TAVRO_RawStatsPort(const void* block, int index, TAVRO_RAW_PORT_STATS* port)
{
    int i;
    const int n = TAVRO_RawStatsEntries(block);
    if (n < 0 || index < 0 || index >= n || port == NULL) return -1;
    memcpy(port, (const unsigned char*)block + TAVRO_RAW_STATS_HEAD_SIZE + (size_t)index * TAVRO_RAW_STATS_ENTRY_SIZE,
           sizeof *port);
    if (TAVRO_RawStatsReversed(block) == 1) {
        port->portNbr = TAVRO_RawStatsSwap16(port->portNbr);
        port->speedMbps = TAVRO_RawStatsSwap32(port->speedMbps);
        for (i = 0; i < TAVRO_RAW_STATS_COUNTERS; ++i) {
            port->rxCounters[i] = TAVRO_RawStatsSwap64(port->rxCounters[i]);
            port->txCounters[i] = TAVRO_RawStatsSwap64(port->txCounters[i]);
        }
    }
    return 0;
}
