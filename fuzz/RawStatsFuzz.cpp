// A raw statistics reply from the switch: the response is handed to the
// session, paired by the tracker with the waiting I_GetRawStats, and the
// returned block is read with the public reader of <TAVRO/TAVRORawStats.h>.
// Input: flags, response status, then the reply's payload.
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "Ap/ApRawStats.h"
#include "Cr/CrDBTracker.h"
#include "FuzzSupport.h"
#include "Io/IoDBClient.h"
#include "Os/TAVRO.h"
#include "TAVRO/TAVRORawStats.h"

namespace {

std::uint16_t load16(const std::uint8_t* p, bool reversed)
{
    std::uint16_t v;
    std::memcpy(&v, p, sizeof v);
    return reversed ? static_cast<std::uint16_t>(v >> 8 | v << 8) : v;
}

std::uint64_t loadN(const std::uint8_t* p, std::size_t n, bool reversed)
{
    std::uint8_t b[8] = {};
    std::memcpy(b, p, n);
    if (reversed) std::reverse(b, b + n);
    if (n == 4) {
        std::uint32_t v;
        std::memcpy(&v, b, 4);
        return v;
    }
    std::uint64_t v;
    std::memcpy(&v, b, 8);
    return v;
}

// The public reader against a plain decoding of the same bytes.
void readBlock(const std::uint8_t* block, std::size_t bytes)
{
    const std::uint16_t allocated = load16(block, false);
    const std::uint16_t format = load16(block + 4, false);
    const int reversed = TAVRO_RawStatsReversed(block);
    FUZZ_CHECK(reversed == (format == 1 ? 0 : format == 0x0100 ? 1 : -1));
    const int entries = TAVRO_RawStatsEntries(block);
    TAVRO_RAW_STATS_HEAD head;
    if (reversed < 0) {
        FUZZ_CHECK(entries == -1);
        FUZZ_CHECK(TAVRO_RawStatsHead(block, &head) == -1);
        return;
    }
    FUZZ_CHECK(TAVRO_RawStatsHead(block, &head) == 0);
    FUZZ_CHECK(head.nbrEntries == load16(block, reversed));
    FUZZ_CHECK(head.slotNbr == load16(block + 2, reversed));
    FUZZ_CHECK(head.formatVersion == 1);
    FUZZ_CHECK(entries == (head.nbrEntries < allocated ? head.nbrEntries : allocated));
    FUZZ_CHECK(TAVRO_RAW_STATS_HEAD_SIZE + std::size_t(entries) * TAVRO_RAW_STATS_ENTRY_SIZE <= bytes);
    TAVRO_RAW_PORT_STATS port;
    for (int i = 0; i < entries; ++i) {
        FUZZ_CHECK(TAVRO_RawStatsPort(block, i, &port) == 0);
        const std::uint8_t* e = block + TAVRO_RAW_STATS_HEAD_SIZE + std::size_t(i) * TAVRO_RAW_STATS_ENTRY_SIZE;
        FUZZ_CHECK(port.portNbr == load16(e, reversed));
        FUZZ_CHECK(port.linkUp == e[2]);
        FUZZ_CHECK(port.speedMbps == loadN(e + 3, 4, reversed));
        for (int c = 0; c < TAVRO_RAW_STATS_COUNTERS; ++c) {
            FUZZ_CHECK(port.rxCounters[c] == loadN(e + 7 + 8 * c, 8, reversed));
            FUZZ_CHECK(port.txCounters[c] == loadN(e + 7 + 8 * (TAVRO_RAW_STATS_COUNTERS + c), 8, reversed));
        }
    }
    FUZZ_CHECK(TAVRO_RawStatsPort(block, entries, &port) == -1);
    FUZZ_CHECK(TAVRO_RawStatsPort(block, -1, &port) == -1);
}

// The library's own conversion of a reply of `bytes` bytes, there and back.
void swapRoundTrip(const std::uint8_t* data, std::size_t bytes, bool hostOrderNow)
{
    if (bytes == 0) return;
    std::unique_ptr<std::uint8_t[]> copy(new std::uint8_t[bytes]);
    std::memcpy(copy.get(), data, bytes);
    const int first = I_RAW_STATS_REPLY::Swap(copy.get(), bytes, hostOrderNow);
    const int second = I_RAW_STATS_REPLY::Swap(copy.get(), bytes, !hostOrderNow);
    FUZZ_CHECK(first == second);
    FUZZ_CHECK(std::memcmp(copy.get(), data, bytes) == 0);
    FUZZ_CHECK(bytes >= sizeof(I_RAW_STATS_HEAD) || first == -1);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz_support::quietStdout();
    fuzz_support::tracker();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    CrTracker* tracker = fuzz_support::tracker();
    IoClientMgmt& session = fuzz_support::session();
    fuzz_support::Bytes in(data, size);
    const std::uint8_t flags = in.u8();
    const RSP_STATUS status = (flags & 1) ? RSP_STATUS(in.u8()) : RSP_OK;
    const std::uint8_t* payload = in.rest();
    const std::size_t payloadSize = in.restSize();

    swapRoundTrip(payload, payloadSize, (flags & 2) != 0);

    void* block = nullptr;
    std::thread caller([&block] { block = I_GetRawStats(3); });
    // The request is registered with the tracker before the reply comes.
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (tracker->PendingCount() == 0) {
        FUZZ_CHECK(std::chrono::steady_clock::now() < end);
        std::this_thread::yield();
    }

    // The reply as the reader leaves it: headers in host order, payload as sent.
    std::vector<char> body(sizeof(ORV_APP_MSG) + payloadSize);
    auto* app = reinterpret_cast<ORV_APP_MSG*>(body.data());
    app->msgType = static_cast<std::uint32_t>(MSG_RESPONSE);
    app->cmdCode = static_cast<std::uint32_t>(CMD_GET_BLADE_RAW_STATS);
    app->seqNbr = 0; // no router: the request keeps sequence number 0
    app->msgStat = static_cast<std::uint32_t>(status);
    app->setAppSize(static_cast<std::uint32_t>(payloadSize));
    if (flags & 4) app->setNetworkOrder();
    if (payloadSize > 0) std::memcpy(body.data() + sizeof(ORV_APP_MSG), payload, payloadSize);
    ORV_CTL_MSG ctl;
    ctl.marker = static_cast<std::uint32_t>(ORV_MSG_MARKER);
    ctl.manager = static_cast<std::uint32_t>(MGR_PKT_STATS);
    ctl.size = static_cast<std::uint32_t>(body.size());
    tavro_internal::deliverSessionMessage(session, ctl, app);
    caller.join();

    // The block is the reply's head and as many entries as its first word
    // counts, copied exactly; anything less is no block.
    std::size_t want = 0;
    if (payloadSize >= 2)
        want = std::size_t(load16(payload, false)) * TAVRO_RAW_STATS_ENTRY_SIZE + TAVRO_RAW_STATS_HEAD_SIZE;
    const bool expectBlock = status == RSP_OK && payloadSize >= 2 && payloadSize >= want;
    FUZZ_CHECK((block != nullptr) == expectBlock);
    if (block != nullptr) {
        FUZZ_CHECK(std::memcmp(block, payload, want) == 0);
        readBlock(static_cast<const std::uint8_t*>(block), want);
        std::free(block);
    }
    return 0;
}
