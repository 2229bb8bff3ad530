#include "Ap/ApRawStats.h"

int I_RAW_STATS_REQ::Swap()
{
    AP_SWAP(slotNbr);
    return 1;
}

int I_RAW_STATS_HEAD::Swap()
{
    AP_SWAP(nbrEntries);
    AP_SWAP(slotNbr);
    AP_SWAP(formatVersion);
    return 1;
}

int I_RAW_PORT_STATS::Swap()
{
    AP_SWAP(portNbr);
    AP_SWAP(speedMbps);
    AP_SWAP_EACH(rxCounters);
    AP_SWAP_EACH(txCounters);
    return 1;
}

std::size_t I_RAW_STATS_REPLY::sizeofThis(unsigned int nbrEntries)
{
    return sizeof(I_RAW_STATS_HEAD) + sizeof(I_RAW_PORT_STATS) * std::size_t{nbrEntries};
}

int I_RAW_STATS_REPLY::Swap(void* reply, std::size_t bytes, bool hostOrderNow)
{
    if (reply == nullptr || bytes < sizeof(I_RAW_STATS_HEAD)) return -1;
    auto* p = static_cast<unsigned char*>(reply);
    // The buffer may end right after the head, so the head and each entry
    // are reached as records of their own, never through the whole reply.
    auto* head = reinterpret_cast<I_RAW_STATS_HEAD*>(p);
    std::uint16_t count = head->nbrEntries;
    head->Swap();
    if (!hostOrderNow) count = swaps(count);
    const std::size_t fitting = (bytes - sizeof(I_RAW_STATS_HEAD)) / sizeof(I_RAW_PORT_STATS);
    const std::size_t n = count < fitting ? count : fitting;
    for (std::size_t i = 0; i < n; ++i)
        reinterpret_cast<I_RAW_PORT_STATS*>(p + sizeof(I_RAW_STATS_HEAD) + i * sizeof(I_RAW_PORT_STATS))->Swap();
    return static_cast<int>(n);
}
