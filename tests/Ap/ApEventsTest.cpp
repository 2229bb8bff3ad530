#include "Ap/ApEvents.h"
#include "ApSwapCheck.h"

#include <algorithm>
#include <memory>

using namespace apcheck;

namespace {

constexpr unsigned kWhole = 48137;

// What each event type carries after the 12-byte base: the record (its size
// and conversion are checked in ApRecordsTest), nothing, or the whole rest.
struct TypeCase {
    std::int32_t type;
    unsigned added;
    SwapFn swap;
};
// clang-format off
#define EV(t, R) {t, sizeof(R), swapAs<R>}
#define WHOLE(t) {t, 48125, nullptr}
const TypeCase kTypes[] = {
    EV(1, I_SWITCH), EV(2, I_PIM), EV(3, I_PORT), EV(4, I_GROUP), EV(5, I_CONNECTION), EV(6, I_ALARM),
    EV(7, I_TRANLOG), EV(8, I_MAINTENANCE), {9, 0, nullptr}, EV(10, I_SUPERGROUP), EV(11, I_MEMBER),
    EV(12, I_EQUIPMENT), EV(13, I_USER), EV(14, I_MEMBER), EV(15, I_BOARD_INFO), EV(16, I_CIRCUIT),
    EV(17, I_CONNECTION_SET), EV(18, I_DATAGEN_RESULTS), EV(19, I_DOMAIN), EV(20, I_SERVER_SHUTDOWN),
    EV(21, I_HARDWARE_ALARM), EV(22, I_CHASSIS), EV(23, I_XSL_ASSOCIATION), EV(24, I_XSL_COUNTS),
    EV(25, I_DIAG_BAD_PATH), EV(26, I_RESTORE_STANDBY_DB), EV(27, I_SUBPORT), WHOLE(28), EV(29, I_PACKET_COUNTS),
    EV(30, I_REF_MEMBER), EV(31, I_PACKET_STATUS), EV(32, I_INGRESS), EV(33, I_REF_MEMBER), EV(34, I_FILTER),
    EV(35, I_FILTER_MEMBER), EV(36, I_EGRESS), EV(38, I_RULE), EV(39, I_ORDERED_MEMBER), EV(40, I_SUPERINGRESS),
    EV(41, I_REF_MEMBER), EV(42, I_SUPEREGRESS), EV(43, I_MEMBER), EV(44, I_SUPERFILTER), EV(45, I_PORT_STATISTICS),
    WHOLE(46), EV(47, I_THRESHOLD), EV(48, I_MEMBER), EV(49, I_SERVER_CLOCK), EV(50, I_DPI_PROTOCOL),
    EV(51, I_SYSTEM_PARAMETERS), EV(52, I_UTILIZATION), EV(53, I_PCE_PORT), EV(54, I_MEMBER),
    EV(55, I_PCE_STATISTICS), EV(56, I_SYSTEM_PARAMETERS), EV(57, I_XSL_TRUNK), EV(58, I_IMPAIRMENT), WHOLE(59),
    WHOLE(60), EV(61, I_ORDERED_MEMBER), EV(62, I_DPI_PROTOCOL_ENTRY), EV(63, I_TRAFFIC_COUNTERS),
    EV(64, I_BACKPLANE_STATE), EV(65, I_RECONCILE), EV(66, I_PACKET_DEFINITION), EV(67, I_STREAM),
    EV(68, I_REF_MEMBER), EV(69, I_PROBE), EV(70, I_STICKY_NOTE), EV(71, I_TRAFFIC_COUNTERS), EV(72, I_DEVICE),
    EV(73, I_PACKET_RESERVATION), EV(74, I_REMOTE_SERVER), EV(75, I_REMOTE_EXEC), EV(76, I_PROGRESS),
    EV(77, I_PROGRESS), WHOLE(78), WHOLE(79), WHOLE(80), WHOLE(81), WHOLE(82), WHOLE(83), EV(84, I_APP_STATUS),
    EV(85, I_APP_STATUS), EV(86, I_DEVICE_APP),
};
// clang-format on

constexpr std::size_t kPktHead = 16; // hdr, EventCount, currentSize
constexpr std::size_t kNbrTrunksAt = 12 + 253;

void reverseAt(Bytes& v, std::size_t at, std::size_t width)
{
    std::reverse(v.begin() + long(at), v.begin() + long(at + width));
}

// Each type: its size, and a conversion of the base and exactly its record.
// Unknown types take the whole structure and convert only the base.
TEST(ApEvents, EachTypeHasItsSizeAndConvertsExactlyItsRecord)
{
    std::vector<TypeCase> cases(std::begin(kTypes), std::end(kTypes));
    for (std::int32_t unknown : {0, -1, 87, 1000}) cases.push_back({unknown, kWhole - 12, nullptr}); // either order
    cases.push_back({37, I_PACKET_ASSOCIATION_EVT::sizeofThis(2), nullptr});                         // two trunks
    for (const TypeCase& c : cases) {
        SCOPED_TRACE(c.type);
        Bytes buf = pattern(sizeof(API_EVENT), unsigned(c.type));
        putAt<std::int32_t>(buf.data() + 4, c.type);
        if (c.type == 37) putAt<std::uint32_t>(buf.data() + kNbrTrunksAt, 2);
        const Bytes original = buf;
        auto* ev = reinterpret_cast<API_EVENT*>(buf.data());
        EXPECT_EQ(ev->sizeofThis(), 12 + c.added);
        EXPECT_EQ(reinterpret_cast<unsigned char*>(ev->getNextEvent()) - buf.data(), long(12 + c.added));

        Bytes expected = original;
        for (std::size_t at : {0, 4, 8}) reverseAt(expected, at, 4);
        if (c.swap) c.swap(expected.data() + 12);
        if (c.type == 37) reinterpret_cast<I_PACKET_ASSOCIATION_EVT*>(expected.data() + 12)->Swap(2);
        EXPECT_EQ(ev->Swap(), 1);
        EXPECT_TRUE(buf == expected);
        ev->Swap(); // now sees a reversed type and must recognise it
        EXPECT_TRUE(buf == original);
    }
    auto ev = std::make_unique<API_EVENT>();
    ev->EventType = static_cast<I_EVENT_TYPE>(0x01000000); // a reversed 1 is unknown in host order
    EXPECT_EQ(ev->sizeofThis(), kWhole);
    ev->EventType = I_EVENT_TYPE_PACKET_ASSOCIATION;
    for (std::uint32_t n : {0u, 1u, 3u, 0xFFFFFFFFu}) { // saturates, never wraps
        ev->Data.packetAssociation.nbrTrunks = n;
        EXPECT_EQ(ev->sizeofThis(), n == 0xFFFFFFFFu ? n : 12 + I_PACKET_ASSOCIATION_EVT::sizeofThis(n));
    }
}

// Builds host-order packets event by event; record bytes are a pattern.
struct PacketBuilder {
    PacketBuilder() : pkt(new API_EVENT_PKT)
    {
        const Bytes fill = pattern(sizeof(API_EVENT_PKT), 99);
        std::memcpy(static_cast<void*>(pkt.get()), fill.data(), fill.size());
        pkt->hdr.iDataSize = 0x00010203;
        pkt->EventCount = pkt->currentSize = 0;
    }
    // Appends an event (with `trunks` for an association); returns its offset.
    std::size_t add(std::int32_t type, std::size_t size, const std::vector<std::uint16_t>& trunks = {})
    {
        const std::size_t at = pkt->currentSize;
        unsigned char* p = pkt->Events + at;
        putAt<std::uint32_t>(p, 0x0A0B0C0D);
        putAt<std::int32_t>(p + 4, type);
        putAt<std::int32_t>(p + 8, I_EVENT_ACTION_REVISE);
        if (type == 37) putAt<std::uint32_t>(p + kNbrTrunksAt, std::uint32_t(trunks.size()));
        for (std::size_t i = 0; i < trunks.size(); ++i) putAt<std::uint16_t>(p + kNbrTrunksAt + 4 + 2 * i, trunks[i]);
        pkt->EventCount += 1;
        pkt->currentSize += std::uint32_t(size);
        return at;
    }
    Bytes bytes() const
    {
        const auto* p = reinterpret_cast<const unsigned char*>(pkt.get());
        return Bytes(p, p + sizeof(API_EVENT_PKT));
    }
    std::unique_ptr<API_EVENT_PKT> pkt;
};

TEST(ApEvents, PacketOfMixedTypesIsWalkedAndConvertedEventByEvent)
{
    // Port statistics, an association with three trunks, connection lost, a
    // group member, and an event of unknown type.
    PacketBuilder b;
    const struct {
        std::size_t at;
        std::int32_t type;
    } placed[] = {{b.add(45, 12 + 324), 45},
                  {b.add(37, 12 + I_PACKET_ASSOCIATION_EVT::sizeofThis(3), {0x1111, 0x2233, 0x4455}), 37},
                  {b.add(9, 12), 9},
                  {b.add(11, 12 + 24), 11},
                  {b.add(999, kWhole), 999}};
    ASSERT_LE(val(b.pkt->currentSize), sizeof(b.pkt->Events));
    const auto* base = reinterpret_cast<const unsigned char*>(b.pkt->Events);
    const API_EVENT* ev = b.pkt->firstEvent();
    for (const auto& p : placed) {
        EXPECT_EQ(reinterpret_cast<const unsigned char*>(ev) - base, long(p.at));
        ev = ev->getNextEvent();
    }

    // Converting: the header, then each event's base and record.
    const Bytes original = b.bytes();
    Bytes expected = original;
    for (std::size_t at : {0, 4, 8, 12}) reverseAt(expected, at, 4);
    for (const auto& p : placed) {
        unsigned char* e = expected.data() + kPktHead + p.at;
        for (std::size_t at : {0, 4, 8}) reverseAt(expected, kPktHead + p.at + at, 4);
        if (p.type == 37) reinterpret_cast<I_PACKET_ASSOCIATION_EVT*>(e + 12)->Swap(3);
        for (const TypeCase& c : kTypes)
            if (c.type == p.type && c.swap) c.swap(e + 12);
    }
    EXPECT_EQ(b.pkt->Swap(), 1);
    const Bytes once = b.bytes();
    const auto diff = std::mismatch(once.begin(), once.end(), expected.begin());
    EXPECT_TRUE(diff.first == once.end()) << "first wrong byte at packet offset " << diff.first - once.begin();
    b.pkt->Swap(); // received in that order, the same call brings it back
    EXPECT_TRUE(b.bytes() == original);
}

// Packets whose counts lie: conversion stays inside currentSize (and the
// packet), and converting twice still restores the packet.
TEST(ApEvents, PacketSwapNeverGoesBeyondWhatThePacketSaysIsInUse)
{
    struct Case {
        const char* name;
        void (*build)(PacketBuilder&);
        bool eventsTouched;
    } const cases[] = {
        // clang-format off
        {"empty", [](PacketBuilder&) {}, false},
        {"currentSize fits in neither order: header only",
         [](PacketBuilder& b) { b.add(9, 12); b.pkt->currentSize = 0x00FFFF01u; }, false},
        {"fewer bytes in use than one event base", [](PacketBuilder& b) { b.add(9, 12); b.pkt->currentSize = 5; },
         false},
        {"count far beyond the events present",
         [](PacketBuilder& b) { b.add(9, 12); b.add(9, 12); b.pkt->EventCount = 0xFFFFFFFFu; }, true},
        {"trunk count far beyond the packet", [](PacketBuilder& b) {
             const std::size_t at = b.add(37, 12 + I_PACKET_ASSOCIATION_EVT::sizeofThis(2), {1, 2});
             putAt<std::uint32_t>(b.pkt->Events + at + kNbrTrunksAt, 0x7FFFFFFFu); }, true},
        {"record longer than the bytes in use",
         [](PacketBuilder& b) { b.add(9, 12); b.add(I_EVENT_TYPE_USER, 12 + 1283); b.pkt->currentSize -= 1000; }, true},
        {"unknown type filling the packet up to its end", [](PacketBuilder& b) {
             b.add(9, 12); b.add(12345, kWhole); b.pkt->currentSize = sizeof(b.pkt->Events); }, true},
        // clang-format on
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        PacketBuilder b;
        c.build(b);
        const long used = long(kPktHead + std::min<std::size_t>(b.pkt->currentSize, sizeof(b.pkt->Events)));
        const Bytes original = b.bytes();

        b.pkt->Swap();
        const Bytes once = b.bytes();
        EXPECT_TRUE(std::equal(once.begin() + used, once.end(), original.begin() + used)) << "changed past currentSize";
        EXPECT_EQ(!std::equal(once.begin() + kPktHead, once.end(), original.begin() + kPktHead), c.eventsTouched);
        for (std::size_t at : {0, 4, 8, 12})
            EXPECT_EQ(getAt<std::uint32_t>(once.data() + at), swapl(getAt<std::uint32_t>(original.data() + at)));

        b.pkt->Swap();
        EXPECT_TRUE(b.bytes() == original);
    }
}

} // namespace
