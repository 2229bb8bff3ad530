#include "Ap/ApEvents.h"
#include "ApSwapCheck.h"

#include <algorithm>
#include <memory>

using namespace apcheck;

namespace {

constexpr unsigned kWhole = 48137;

// What each event type carries: bytes added to the 12-byte base, and the
// record's own conversion (tested on its own in ApRecordsTest).
struct TypeCase {
    std::int32_t type;
    unsigned added;
    SwapFn swap;
};

const TypeCase kTypes[] = {
    {1, 919, swapAs<I_SWITCH>},          {2, 296, swapAs<I_PIM>},
    {3, 1054, swapAs<I_PORT>},           {4, 252, swapAs<I_GROUP>},
    {5, 436, swapAs<I_CONNECTION>},      {6, 563, swapAs<I_ALARM>},
    {7, 344, swapAs<I_TRANLOG>},         {8, 776, swapAs<I_MAINTENANCE>},
    {9, 0, nullptr},                     {10, 279, swapAs<I_SUPERGROUP>},
    {11, 24, swapAs<I_MEMBER>},          {12, 106, swapAs<I_EQUIPMENT>},
    {13, 1283, swapAs<I_USER>},          {14, 24, swapAs<I_MEMBER>},
    {15, 190, swapAs<I_BOARD_INFO>},     {16, 268, swapAs<I_CIRCUIT>},
    {17, 570, swapAs<I_CONNECTION_SET>}, {18, 36, swapAs<I_DATAGEN_RESULTS>},
    {19, 72, swapAs<I_DOMAIN>},          {20, 161, swapAs<I_SERVER_SHUTDOWN>},
    {21, 256, swapAs<I_HARDWARE_ALARM>}, {22, 55, swapAs<I_CHASSIS>},
    {23, 20, swapAs<I_XSL_ASSOCIATION>}, {24, 16, swapAs<I_XSL_COUNTS>},
    {25, 12, swapAs<I_DIAG_BAD_PATH>},   {26, 288, swapAs<I_RESTORE_STANDBY_DB>},
    {27, 4224, swapAs<I_SUBPORT>},       {28, 48125, nullptr},
    {29, 12, swapAs<I_PACKET_COUNTS>},   {30, 20, swapAs<I_REF_MEMBER>},
    {31, 8, swapAs<I_PACKET_STATUS>},    {32, 589, swapAs<I_INGRESS>},
    {33, 20, swapAs<I_REF_MEMBER>},      {34, 331, swapAs<I_FILTER>},
    {35, 44, swapAs<I_FILTER_MEMBER>},   {36, 123, swapAs<I_EGRESS>},
    {38, 264, swapAs<I_RULE>},           {39, 28, swapAs<I_ORDERED_MEMBER>},
    {40, 325, swapAs<I_SUPERINGRESS>},   {41, 20, swapAs<I_REF_MEMBER>},
    {42, 289, swapAs<I_SUPEREGRESS>},    {43, 24, swapAs<I_MEMBER>},
    {44, 1117, swapAs<I_SUPERFILTER>},   {45, 324, swapAs<I_PORT_STATISTICS>},
    {46, 48125, nullptr},                {47, 107, swapAs<I_THRESHOLD>},
    {48, 24, swapAs<I_MEMBER>},          {49, 314, swapAs<I_SERVER_CLOCK>},
    {50, 420, swapAs<I_DPI_PROTOCOL>},   {51, 2130, swapAs<I_SYSTEM_PARAMETERS>},
    {52, 283, swapAs<I_UTILIZATION>},    {53, 40, swapAs<I_PCE_PORT>},
    {54, 24, swapAs<I_MEMBER>},          {55, 300, swapAs<I_PCE_STATISTICS>},
    {56, 2130, swapAs<I_SYSTEM_PARAMETERS>}, {57, 322, swapAs<I_XSL_TRUNK>},
    {58, 329, swapAs<I_IMPAIRMENT>},     {59, 48125, nullptr},
    {60, 48125, nullptr},                {61, 28, swapAs<I_ORDERED_MEMBER>},
    {62, 44, swapAs<I_DPI_PROTOCOL_ENTRY>}, {63, 52, swapAs<I_TRAFFIC_COUNTERS>},
    {64, 59, swapAs<I_BACKPLANE_STATE>}, {65, 4, swapAs<I_RECONCILE>},
    {66, 48125, swapAs<I_PACKET_DEFINITION>}, {67, 305, swapAs<I_STREAM>},
    {68, 20, swapAs<I_REF_MEMBER>},      {69, 313, swapAs<I_PROBE>},
    {70, 489, swapAs<I_STICKY_NOTE>},    {71, 52, swapAs<I_TRAFFIC_COUNTERS>},
    {72, 254, swapAs<I_DEVICE>},         {73, 531, swapAs<I_PACKET_RESERVATION>},
    {74, 96, swapAs<I_REMOTE_SERVER>},   {75, 2314, swapAs<I_REMOTE_EXEC>},
    {76, 8, swapAs<I_PROGRESS>},         {77, 8, swapAs<I_PROGRESS>},
    {78, 48125, nullptr},                {79, 48125, nullptr},
    {80, 48125, nullptr},                {81, 48125, nullptr},
    {82, 48125, nullptr},                {83, 48125, nullptr},
    {84, 55, swapAs<I_APP_STATUS>},      {85, 55, swapAs<I_APP_STATUS>},
    {86, 2300, swapAs<I_DEVICE_APP>},
};

constexpr std::size_t kPktHead = 16; // hdr, EventCount, currentSize
constexpr std::size_t kNbrTrunksAt = 12 + 253;

void reverseAt(Bytes& v, std::size_t at, std::size_t width)
{
    std::reverse(v.begin() + static_cast<long>(at), v.begin() + static_cast<long>(at + width));
}

Bytes bytesOf(const void* p, std::size_t n)
{
    const auto* c = static_cast<const unsigned char*>(p);
    return Bytes(c, c + n);
}

TEST(ApEvents, SizeOfAnEventFollowsItsTypeAndUnknownTypesTakeTheWholeStructure)
{
    EXPECT_EQ(API_EVENT::getBaseSize(), 12u);
    EXPECT_EQ(sizeof(kTypes) / sizeof(kTypes[0]), 85u); // all but 37, checked below
    auto ev = std::make_unique<API_EVENT>();
    for (const TypeCase& c : kTypes) {
        ev->EventType = static_cast<I_EVENT_TYPE>(c.type);
        EXPECT_EQ(ev->sizeofThis(), 12 + c.added) << "type " << c.type;
    }
    for (std::int32_t unknown : {0, -1, 87, 1000, 0x01000000}) {
        ev->EventType = static_cast<I_EVENT_TYPE>(unknown);
        EXPECT_EQ(ev->sizeofThis(), kWhole) << "type " << unknown;
        EXPECT_EQ(reinterpret_cast<unsigned char*>(ev->getNextEvent()) -
                      reinterpret_cast<unsigned char*>(ev.get()),
                  static_cast<long>(kWhole));
    }
    ev->EventType = I_EVENT_TYPE_PACKET_ASSOCIATION;
    for (std::uint32_t n : {0u, 1u, 3u}) {
        ev->Data.packetAssociation.nbrTrunks = n;
        EXPECT_EQ(ev->sizeofThis(), 12 + I_PACKET_ASSOCIATION_EVT::sizeofThis(n));
    }
    ev->Data.packetAssociation.nbrTrunks = 0xFFFFFFFFu;
    EXPECT_EQ(ev->sizeofThis(), 0xFFFFFFFFu) << "saturates, never wraps";
}

TEST(ApEvents, SwapConvertsTheBaseAndExactlyTheRecordTheTypeCarries)
{
    std::vector<TypeCase> cases(std::begin(kTypes), std::end(kTypes));
    cases.push_back({37, 0, nullptr});
    cases.push_back({1000, 0, nullptr}); // unknown in both orders
    for (const TypeCase& c : cases) {
        SCOPED_TRACE(c.type);
        Bytes buf = pattern(sizeof(API_EVENT), static_cast<unsigned>(c.type));
        putAt<std::int32_t>(buf.data() + 4, c.type);
        if (c.type == 37)
            putAt<std::uint32_t>(buf.data() + kNbrTrunksAt, 2);
        const Bytes original = buf;

        Bytes expected = original;
        for (std::size_t at : {0, 4, 8})
            reverseAt(expected, at, 4);
        if (c.swap)
            c.swap(expected.data() + 12);
        if (c.type == 37)
            reinterpret_cast<I_PACKET_ASSOCIATION_EVT*>(expected.data() + 12)->Swap(2);

        auto* ev = reinterpret_cast<API_EVENT*>(buf.data());
        EXPECT_EQ(ev->Swap(), 1);
        EXPECT_TRUE(buf == expected);
        ev->Swap(); // now sees a reversed type and must recognise it
        EXPECT_TRUE(buf == original);
    }
}

// Builds host-order packets event by event.
class PacketBuilder {
public:
    PacketBuilder() : pkt_(new API_EVENT_PKT)
    {
        pkt_->hdr.iDataSize = 0x00010203;
        pkt_->EventCount = 0;
        pkt_->currentSize = 0;
        Bytes fill = pattern(sizeof(pkt_->Events), 99);
        std::memcpy(pkt_->Events, fill.data(), fill.size());
    }

    // Appends an event whose record bytes are a pattern; returns its offset.
    std::size_t add(std::int32_t type, std::size_t size, std::uint32_t handle = 0x0A0B0C0D)
    {
        const std::size_t at = pkt_->currentSize;
        unsigned char* p = pkt_->Events + at;
        putAt<std::uint32_t>(p, handle);
        putAt<std::int32_t>(p + 4, type);
        putAt<std::int32_t>(p + 8, I_EVENT_ACTION_REVISE);
        pkt_->EventCount += 1;
        pkt_->currentSize += static_cast<std::uint32_t>(size);
        return at;
    }

    std::size_t addAssociation(const std::vector<std::uint16_t>& trunks)
    {
        const std::uint32_t n = static_cast<std::uint32_t>(trunks.size());
        const std::size_t at = add(37, 12 + I_PACKET_ASSOCIATION_EVT::sizeofThis(n));
        unsigned char* p = pkt_->Events + at;
        putAt<std::uint32_t>(p + kNbrTrunksAt, n);
        for (std::size_t i = 0; i < trunks.size(); ++i)
            putAt<std::uint16_t>(p + kNbrTrunksAt + 4 + 2 * i, trunks[i]);
        return at;
    }

    API_EVENT_PKT& pkt() { return *pkt_; }
    Bytes bytes() const { return bytesOf(pkt_.get(), sizeof(API_EVENT_PKT)); }

private:
    std::unique_ptr<API_EVENT_PKT> pkt_;
};

struct Placed {
    std::size_t at;
    std::int32_t type;
    std::uint32_t trunks;
};

// port statistics, association with three trunks, connection lost, a group
// member, and an event of unknown type.
std::vector<Placed> buildMixed(PacketBuilder& b)
{
    std::vector<Placed> placed;
    placed.push_back({b.add(45, 12 + 324), 45, 0});
    placed.push_back({b.addAssociation({0x1111, 0x2233, 0x4455}), 37, 3});
    placed.push_back({b.add(9, 12), 9, 0});
    placed.push_back({b.add(11, 12 + 24), 11, 0});
    placed.push_back({b.add(999, kWhole), 999, 0});
    return placed;
}

TEST(ApEvents, GetNextEventWalksAPacketOfMixedTypes)
{
    PacketBuilder b;
    const std::vector<Placed> placed = buildMixed(b);
    const API_EVENT_PKT& pkt = b.pkt();
    ASSERT_EQ(val(pkt.currentSize), 336u + 275u + 12u + 36u + kWhole);
    ASSERT_LE(val(pkt.currentSize), sizeof(pkt.Events));

    const auto* base = reinterpret_cast<const unsigned char*>(pkt.Events);
    const API_EVENT* ev = pkt.firstEvent();
    for (const Placed& p : placed) {
        EXPECT_EQ(reinterpret_cast<const unsigned char*>(ev) - base, static_cast<long>(p.at));
        EXPECT_EQ(val(ev->EventType), p.type);
        EXPECT_EQ(val(ev->EventAction), I_EVENT_ACTION_REVISE);
        ev = ev->getNextEvent();
    }
    EXPECT_EQ(reinterpret_cast<const unsigned char*>(ev) - base, static_cast<long>(val(pkt.currentSize)));

    const auto* assoc = reinterpret_cast<const API_EVENT*>(base + placed[1].at);
    EXPECT_EQ(val(assoc->Data.packetAssociation.nbrTrunks), 3u);
    EXPECT_EQ(getAt<std::uint16_t>(base + placed[1].at + kNbrTrunksAt + 4 + 4), 0x4455);
}

TEST(ApEvents, PacketSwapConvertsHeaderAndEveryEventAndIsItsOwnInverse)
{
    PacketBuilder b;
    const std::vector<Placed> placed = buildMixed(b);
    const Bytes original = b.bytes();

    Bytes expected = original;
    for (std::size_t at : {0, 4, 8, 12})
        reverseAt(expected, at, 4);
    for (const Placed& p : placed) {
        unsigned char* ev = expected.data() + kPktHead + p.at;
        for (std::size_t at : {0, 4, 8})
            reverseAt(expected, kPktHead + p.at + at, 4);
        if (p.type == 37) {
            reinterpret_cast<I_PACKET_ASSOCIATION_EVT*>(ev + 12)->Swap(p.trunks);
            continue;
        }
        for (const TypeCase& c : kTypes)
            if (c.type == p.type && c.swap)
                c.swap(ev + 12);
    }

    EXPECT_EQ(b.pkt().Swap(), 1);
    const Bytes once = b.bytes();
    for (std::size_t i = 0; i < once.size(); ++i)
        if (once[i] != expected[i]) {
            ADD_FAILURE() << "first wrong byte at packet offset " << i;
            break;
        }
    // Received in that order, the same call brings it back.
    b.pkt().Swap();
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
    };
    const Case cases[] = {
        {"currentSize fits in neither order: header only",
         [](PacketBuilder& b) {
             b.add(9, 12);
             b.pkt().currentSize = 0x00FFFF01u;
         },
         false},
        {"count far beyond the events present",
         [](PacketBuilder& b) {
             b.add(9, 12);
             b.add(9, 12);
             b.pkt().EventCount = 0xFFFFFFFFu;
         },
         true},
        {"trunk count far beyond the packet",
         [](PacketBuilder& b) {
             const std::size_t at = b.addAssociation({1, 2});
             putAt<std::uint32_t>(b.pkt().Events + at + kNbrTrunksAt, 0x7FFFFFFFu);
         },
         true},
        {"record longer than the bytes in use",
         [](PacketBuilder& b) {
             b.add(9, 12);
             b.add(I_EVENT_TYPE_USER, 12 + 1283);
             b.pkt().currentSize -= 1000;
         },
         true},
        {"fewer bytes in use than one event base",
         [](PacketBuilder& b) {
             b.add(9, 12);
             b.pkt().currentSize = 5;
         },
         false},
        {"unknown type filling the packet up to its end",
         [](PacketBuilder& b) {
             b.add(9, 12);
             b.add(12345, kWhole);
             b.pkt().currentSize = sizeof(b.pkt().Events);
         },
         true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        PacketBuilder b;
        c.build(b);
        const std::size_t used = std::min<std::size_t>(b.pkt().currentSize, sizeof(b.pkt().Events));
        const Bytes original = b.bytes();

        b.pkt().Swap();
        const Bytes once = b.bytes();
        EXPECT_TRUE(std::equal(once.begin() + static_cast<long>(kPktHead + used), once.end(),
                               original.begin() + static_cast<long>(kPktHead + used)))
            << "bytes past currentSize changed";
        EXPECT_EQ(!std::equal(once.begin() + kPktHead, once.end(), original.begin() + kPktHead),
                  c.eventsTouched);
        EXPECT_EQ(getAt<std::uint32_t>(once.data() + 12), swapl(getAt<std::uint32_t>(original.data() + 12)));

        b.pkt().Swap();
        EXPECT_TRUE(b.bytes() == original);
    }
}

TEST(ApEvents, EmptyPacketConvertsOnlyItsHeader)
{
    PacketBuilder b;
    b.pkt().hdr.apiHdr.iCategory = 7;
    const Bytes original = b.bytes();
    b.pkt().Swap();
    const Bytes once = b.bytes();
    EXPECT_EQ(val(b.pkt().hdr.apiHdr.iCategory), 0x07000000);
    EXPECT_EQ(val(b.pkt().hdr.iDataSize), 0x03020100);
    EXPECT_TRUE(std::equal(once.begin() + kPktHead, once.end(), original.begin() + kPktHead));
}

} // namespace
