#include "Ap/ApEvents.h"

#include <algorithm>

namespace {

using RecordSwap = int (*)(unsigned char*);

template <typename R>
int swapRecordAt(unsigned char* p)
{
    return reinterpret_cast<R*>(p)->Swap();
}

// What an event type carries: the record's size and its conversion.
struct EventKind {
    unsigned int size;
    RecordSwap swap;
};

// clang-format off
#define AP_KIND(R) EventKind{sizeof(R), &swapRecordAt<R>}
// No record at all (connection lost).
constexpr EventKind kEmpty{0, nullptr};
// No record of a size known here: the event fills the whole structure and
// its data is left as it is.
constexpr EventKind kUnsized{sizeof(API_EVENT_DATA), nullptr};
// Association events are sized and converted by hand (variable tail).
constexpr EventKind kAssociation{sizeof(I_PACKET_ASSOCIATION_EVT), nullptr};

const EventKind kKinds[I_EVENT_TYPE_LAST + 1] = {
    kUnsized,                       // 0: not a type
    AP_KIND(I_SWITCH),              // 1
    AP_KIND(I_PIM),                 // 2
    AP_KIND(I_PORT),                // 3
    AP_KIND(I_GROUP),               // 4
    AP_KIND(I_CONNECTION),          // 5
    AP_KIND(I_ALARM),               // 6
    AP_KIND(I_TRANLOG),             // 7
    AP_KIND(I_MAINTENANCE),         // 8
    kEmpty,                         // 9 connection lost
    AP_KIND(I_SUPERGROUP),          // 10
    AP_KIND(I_GROUP_MEMBER),        // 11
    AP_KIND(I_EQUIPMENT),           // 12
    AP_KIND(I_USER),                // 13
    AP_KIND(I_SUPERGROUP_MEMBER),   // 14
    AP_KIND(I_BOARD_INFO),          // 15
    AP_KIND(I_CIRCUIT),             // 16
    AP_KIND(I_CONNECTION_SET),      // 17
    AP_KIND(I_DATAGEN_RESULTS),     // 18
    AP_KIND(I_DOMAIN),              // 19
    AP_KIND(I_SERVER_SHUTDOWN),     // 20
    AP_KIND(I_HARDWARE_ALARM),      // 21
    AP_KIND(I_CHASSIS),             // 22
    AP_KIND(I_XSL_ASSOCIATION),     // 23
    AP_KIND(I_XSL_COUNTS),          // 24
    AP_KIND(I_DIAG_BAD_PATH),       // 25
    AP_KIND(I_RESTORE_STANDBY_DB),  // 26
    AP_KIND(I_SUBPORT),             // 27
    kUnsized,                       // 28 packet connection
    AP_KIND(I_PACKET_COUNTS),       // 29
    AP_KIND(I_PACKET_MEMBER),       // 30
    AP_KIND(I_PACKET_STATUS),       // 31
    AP_KIND(I_INGRESS),             // 32
    AP_KIND(I_INGRESS_MEMBER),      // 33
    AP_KIND(I_FILTER),              // 34
    AP_KIND(I_FILTER_MEMBER),       // 35
    AP_KIND(I_EGRESS),              // 36
    kAssociation,                   // 37
    AP_KIND(I_RULE),                // 38
    AP_KIND(I_RULE_MEMBER),         // 39
    AP_KIND(I_SUPERINGRESS),        // 40
    AP_KIND(I_SUPERINGRESS_MEMBER), // 41
    AP_KIND(I_SUPEREGRESS),         // 42
    AP_KIND(I_EGRESS_MEMBER),       // 43
    AP_KIND(I_SUPERFILTER),         // 44
    AP_KIND(I_PORT_STATISTICS),     // 45
    kUnsized,                       // 46 port statistics reset
    AP_KIND(I_THRESHOLD),           // 47
    AP_KIND(I_SUPEREGRESS_MEMBER),  // 48
    AP_KIND(I_SERVER_CLOCK),        // 49
    AP_KIND(I_DPI_PROTOCOL),        // 50
    AP_KIND(I_SYSTEM_PARAMETERS),   // 51
    AP_KIND(I_UTILIZATION),         // 52
    AP_KIND(I_PCE_PORT),            // 53
    AP_KIND(I_XSL_TRUNK_MEMBER),    // 54
    AP_KIND(I_PCE_STATISTICS),      // 55
    AP_KIND(I_SYSTEM_PARAMETERS),   // 56 standby
    AP_KIND(I_XSL_TRUNK),           // 57
    AP_KIND(I_IMPAIRMENT),          // 58
    kUnsized,                       // 59 impairment group
    kUnsized,                       // 60 trunk alarm
    AP_KIND(I_IMPAIRMENT_GROUP_MEMBER), // 61
    AP_KIND(I_DPI_PROTOCOL_ENTRY),  // 62
    AP_KIND(I_TRUNK_STATISTICS),    // 63
    AP_KIND(I_BACKPLANE_STATE),     // 64
    AP_KIND(I_RECONCILE),           // 65
    AP_KIND(I_PACKET_DEFINITION),   // 66
    AP_KIND(I_STREAM),              // 67
    AP_KIND(I_STREAM_MEMBER),       // 68
    AP_KIND(I_PROBE),               // 69
    AP_KIND(I_STICKY_NOTE),         // 70
    AP_KIND(I_PROBE_STATISTICS),    // 71
    AP_KIND(I_DEVICE),              // 72
    AP_KIND(I_PACKET_RESERVATION),  // 73
    AP_KIND(I_REMOTE_SERVER),       // 74
    AP_KIND(I_REMOTE_EXEC),         // 75
    AP_KIND(I_RECONCILE_PROGRESS),  // 76
    AP_KIND(I_DBVERIFY_PROGRESS),   // 77
    kUnsized,                       // 78 device member
    kUnsized,                       // 79 reservation report
    kUnsized,                       // 80 external tool
    kUnsized,                       // 81 remote execution output
    kUnsized,                       // 82 probe member
    kUnsized,                       // 83 reservation member
    AP_KIND(I_APP_STATUS),          // 84
    AP_KIND(I_APP_STATUS),          // 85
    AP_KIND(I_DEVICE_APP),          // 86
};
// clang-format on
#undef AP_KIND

const EventKind& kindOf(std::int32_t type)
{
    if (type < I_EVENT_TYPE_FIRST || type > I_EVENT_TYPE_LAST) return kKinds[0];
    return kKinds[type];
}

bool isKnownType(std::int32_t type)
{
    return type >= I_EVENT_TYPE_FIRST && type <= I_EVENT_TYPE_LAST;
}

constexpr std::size_t kBase = 12;
constexpr std::size_t kTypeAt = 4;
constexpr std::size_t kNbrTrunksAt = kBase + offsetof(I_PACKET_ASSOCIATION_EVT, nbrTrunks);
constexpr std::size_t kTrunkIdsAt = kBase + offsetof(I_PACKET_ASSOCIATION_EVT, trunkIds);

// Byte-level access: an event near the end of a packet may be only partly
// inside it, so nothing here touches an API_EVENT as a whole object.
template <typename T>
T loadAt(const unsigned char* p)
{
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

template <typename T>
void swapAt(unsigned char* p)
{
    const T v = ApSwap::value(loadAt<T>(p));
    std::memcpy(p, &v, sizeof v);
}

// Converts the event at p, which has `room` bytes of storage. Returns the
// event's size in a packet, or 0 if not even its base fits.
unsigned int swapEventAt(unsigned char* p, std::size_t room, bool hostOrderNow)
{
    if (room < kBase) return 0;
    std::int32_t type = loadAt<std::int32_t>(p + kTypeAt);
    if (!hostOrderNow) type = ApSwap::value(type);
    swapAt<std::uint32_t>(p);    // SwitchHandle
    swapAt<std::int32_t>(p + 4); // EventType
    swapAt<std::int32_t>(p + 8); // EventAction
    const std::size_t dataRoom = room - kBase;

    if (type != I_EVENT_TYPE_PACKET_ASSOCIATION) {
        const EventKind& kind = kindOf(type);
        if (kind.swap && kind.size <= dataRoom) kind.swap(p + kBase);
        return static_cast<unsigned int>(kBase + kind.size);
    }

    // Association event: convert what lies inside the room, the count
    // before the ids, so that a second pass sees the same count.
    if (dataRoom >= sizeof(I_PACKET_ASSOCIATION)) reinterpret_cast<I_PACKET_ASSOCIATION*>(p + kBase)->Swap();
    std::uint32_t nbrTrunks = 0;
    if (room >= kNbrTrunksAt + sizeof(std::uint32_t)) {
        nbrTrunks = loadAt<std::uint32_t>(p + kNbrTrunksAt);
        swapAt<std::uint32_t>(p + kNbrTrunksAt);
        if (!hostOrderNow) nbrTrunks = ApSwap::value(nbrTrunks);
    }
    const unsigned int size = API_EVENT::sizeofEvent(type, nbrTrunks);
    if (room > kTrunkIdsAt) {
        const std::size_t idsFitting = (room - kTrunkIdsAt) / sizeof(std::uint16_t);
        const std::size_t ids = std::min<std::size_t>(std::max<std::uint32_t>(nbrTrunks, 1), idsFitting);
        for (std::size_t i = 0; i < ids; ++i) swapAt<std::uint16_t>(p + kTrunkIdsAt + i * sizeof(std::uint16_t));
    }
    return size;
}

} // namespace

int API_HDR::Swap()
{
    AP_SWAP(iCategory);
    return 1;
}

int API_UNSOLICITED_HDR::Swap()
{
    apiHdr.Swap();
    AP_SWAP(iDataSize);
    return 1;
}

unsigned int API_EVENT::sizeofEvent(std::int32_t eventType, std::uint32_t nbrTrunks)
{
    if (eventType == I_EVENT_TYPE_PACKET_ASSOCIATION) {
        const unsigned int rec = I_PACKET_ASSOCIATION_EVT::sizeofThis(nbrTrunks);
        return rec > 0xFFFFFFFFu - kBase ? 0xFFFFFFFFu : static_cast<unsigned int>(kBase + rec);
    }
    return static_cast<unsigned int>(kBase + kindOf(eventType).size);
}

unsigned int API_EVENT::sizeofThis() const
{
    const auto* p = reinterpret_cast<const unsigned char*>(this);
    const std::int32_t type = loadAt<std::int32_t>(p + kTypeAt);
    if (type != I_EVENT_TYPE_PACKET_ASSOCIATION) return sizeofEvent(type, 0);
    return sizeofEvent(type, loadAt<std::uint32_t>(p + kNbrTrunksAt));
}

API_EVENT* API_EVENT::getNextEvent()
{
    return reinterpret_cast<API_EVENT*>(reinterpret_cast<unsigned char*>(this) + sizeofThis());
}

const API_EVENT* API_EVENT::getNextEvent() const
{
    return reinterpret_cast<const API_EVENT*>(reinterpret_cast<const unsigned char*>(this) + sizeofThis());
}

unsigned int API_EVENT::swapWithin(std::size_t room, bool hostOrderNow)
{
    return swapEventAt(reinterpret_cast<unsigned char*>(this), room, hostOrderNow);
}

int API_EVENT::Swap()
{
    const std::int32_t type = EventType;
    if (isKnownType(type)) {
        swapWithin(sizeof(API_EVENT), true);
    } else if (isKnownType(ApSwap::value(type))) {
        swapWithin(sizeof(API_EVENT), false);
    } else {
        // Unknown in both orders: the data cannot be interpreted.
        AP_SWAP(SwitchHandle);
        AP_SWAP(EventType);
        AP_SWAP(EventAction);
    }
    return 1;
}

int API_EVENT_PKT::Swap()
{
    const std::uint32_t size = currentSize;
    bool hostOrderNow = true;
    std::uint32_t used = 0;
    if (size <= sizeof(Events)) {
        used = size;
    } else if (swapl(size) <= sizeof(Events)) {
        hostOrderNow = false;
        used = swapl(size);
    }
    const std::uint32_t count = hostOrderNow ? EventCount : swapl(EventCount);

    hdr.Swap();
    AP_SWAP(EventCount);
    AP_SWAP(currentSize);

    std::size_t offset = 0;
    for (std::uint32_t i = 0; i < count && offset < used; ++i) {
        const std::size_t room = used - offset;
        const unsigned int eventSize = swapEventAt(Events + offset, room, hostOrderNow);
        if (eventSize == 0 || eventSize > room) break;
        offset += eventSize;
    }
    return 1;
}
