// Event packets and their byte-order conversion. Input: mode byte, then the
// bytes of a packet (padded with zeros to a whole packet, as the router pads
// a short one) or of a single event of exactly that many bytes.
#include <cstring>
#include <memory>
#include <vector>

#include "Ap/ApEvents.h"
#include "FuzzSupport.h"

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz_support::quietStdout();
    return 0;
}

namespace {

// Converting twice must give back the bytes that arrived.
void packetRoundTrip(const std::uint8_t* data, std::size_t size)
{
    std::unique_ptr<API_EVENT_PKT> pkt(new API_EVENT_PKT);
    std::memset(static_cast<void*>(pkt.get()), 0, sizeof *pkt);
    std::memcpy(static_cast<void*>(pkt.get()), data, size < sizeof *pkt ? size : sizeof *pkt);
    std::vector<unsigned char> before(sizeof *pkt);
    std::memcpy(before.data(), pkt.get(), sizeof *pkt);
    FUZZ_CHECK(pkt->Swap() == 1);
    FUZZ_CHECK(pkt->Swap() == 1);
    FUZZ_CHECK(std::memcmp(before.data(), pkt.get(), sizeof *pkt) == 0);
}

// One event with only `size` bytes of storage: converted in place within
// them and back, whichever order it is taken to be in now.
void eventWithinRoom(const std::uint8_t* data, std::size_t size, bool hostOrderNow)
{
    if (size == 0) return;
    std::unique_ptr<unsigned char[]> buf(new unsigned char[size]);
    std::memcpy(buf.get(), data, size);
    auto* ev = reinterpret_cast<API_EVENT*>(buf.get());
    const unsigned first = ev->swapWithin(size, hostOrderNow);
    const unsigned second = ev->swapWithin(size, !hostOrderNow);
    FUZZ_CHECK(first == second);
    FUZZ_CHECK(std::memcmp(buf.get(), data, size) == 0);
    if (size >= API_EVENT::getBaseSize()) {
        std::int32_t type;
        std::memcpy(&type, data + 4, sizeof type);
        if (!hostOrderNow) type = static_cast<std::int32_t>(fuzz_support::reverse32(static_cast<std::uint32_t>(type)));
        // The size reported is the event's size in a packet, whatever the room.
        if (type != I_EVENT_TYPE_PACKET_ASSOCIATION) FUZZ_CHECK(first == API_EVENT::sizeofEvent(type, 0));
    } else {
        FUZZ_CHECK(first == 0);
    }
}

// A whole event structure: Swap decides the order by the type.
void wholeEventRoundTrip(const std::uint8_t* data, std::size_t size)
{
    std::unique_ptr<API_EVENT> ev(new API_EVENT);
    std::memset(static_cast<void*>(ev.get()), 0, sizeof *ev);
    std::memcpy(static_cast<void*>(ev.get()), data, size < sizeof *ev ? size : sizeof *ev);
    std::vector<unsigned char> before(sizeof *ev);
    std::memcpy(before.data(), ev.get(), sizeof *ev);
    const unsigned sizeBefore = ev->sizeofThis();
    ev->Swap();
    ev->Swap();
    FUZZ_CHECK(std::memcmp(before.data(), ev.get(), sizeof *ev) == 0);
    FUZZ_CHECK(ev->sizeofThis() == sizeBefore);
    FUZZ_CHECK(sizeBefore >= API_EVENT::getBaseSize());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz_support::Bytes in(data, size);
    const std::uint8_t mode = in.u8();
    switch (mode % 3) {
    case 0: packetRoundTrip(in.rest(), in.restSize()); break;
    case 1: eventWithinRoom(in.rest(), in.restSize(), (mode & 0x80) != 0); break;
    default: wholeEventRoundTrip(in.rest(), in.restSize()); break;
    }
    return 0;
}
