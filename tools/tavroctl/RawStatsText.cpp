#include "RawStatsText.h"

#include <TAVRO/TAVRORawStats.h>

#include <cinttypes>
#include <cstdarg>
#include <cstdio>

namespace tavroctl {
namespace {

const char* orderText(const void* block)
{
    return TAVRO_RawStatsReversed(block) == 1 ? "reversed" : "host";
}

std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char* fmt, ...)
{
    char buf[256];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    return buf;
}

} // namespace

std::string rawStatsTable(const void* block)
{
    TAVRO_RAW_STATS_HEAD head;
    if (TAVRO_RawStatsHead(block, &head) != 0) return "";
    const int n = TAVRO_RawStatsEntries(block);
    std::string out = format("slot %u, format %u, %d ports, sent in %s byte order\n\n", head.slotNbr,
                             head.formatVersion, n, orderText(block));
    out += "port  link   Mbit/s\n";
    for (int i = 0; i < n; ++i) {
        TAVRO_RAW_PORT_STATS p{};
        TAVRO_RawStatsPort(block, i, &p);
        out += format("%4u  %-4s %8" PRIu32 "\n", p.portNbr, p.linkUp ? "up" : "down", p.speedMbps);
    }
    // One row per counter, one rx/tx column pair per port.
    for (int first = 0; first < n; first += 4) {
        const int last = first + 4 < n ? first + 4 : n;
        out += "\ncounter";
        for (int i = first; i < last; ++i) {
            TAVRO_RAW_PORT_STATS p{};
            TAVRO_RawStatsPort(block, i, &p);
            out += format(" %13s %-3u%11s", "rx port", p.portNbr, "tx");
        }
        out += "\n";
        TAVRO_RAW_PORT_STATS ports[4]{};
        for (int i = first; i < last; ++i) TAVRO_RawStatsPort(block, i, &ports[i - first]);
        for (int c = 0; c < TAVRO_RAW_STATS_COUNTERS; ++c) {
            out += format("%7d", c);
            for (int i = first; i < last; ++i)
                out +=
                    format(" %17" PRIu64 " %10" PRIu64, ports[i - first].rxCounters[c], ports[i - first].txCounters[c]);
            out += "\n";
        }
    }
    return out;
}

std::string rawStatsJson(const void* block)
{
    TAVRO_RAW_STATS_HEAD head;
    if (TAVRO_RawStatsHead(block, &head) != 0) return "";
    const int n = TAVRO_RawStatsEntries(block);
    std::string out = format("{\"slot\": %u, \"format\": %u, \"byteOrder\": \"%s\", \"ports\": [", head.slotNbr,
                             head.formatVersion, orderText(block));
    for (int i = 0; i < n; ++i) {
        TAVRO_RAW_PORT_STATS p{};
        TAVRO_RawStatsPort(block, i, &p);
        out += format("%s\n  {\"port\": %u, \"linkUp\": %s, \"speedMbps\": %" PRIu32 ", ", i ? "," : "", p.portNbr,
                      p.linkUp ? "true" : "false", p.speedMbps);
        // Counters are read member by member: the packed record has no alignment.
        for (int dir = 0; dir < 2; ++dir) {
            out += dir == 0 ? "\"rx\": [" : ", \"tx\": [";
            for (int k = 0; k < TAVRO_RAW_STATS_COUNTERS; ++k)
                out += format("%s%" PRIu64, k ? ", " : "", dir == 0 ? p.rxCounters[k] : p.txCounters[k]);
            out += "]";
        }
        out += "}";
    }
    out += "\n]}\n";
    return out;
}

} // namespace tavroctl
