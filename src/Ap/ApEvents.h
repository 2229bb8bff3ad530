#pragma once

// Unsolicited events and the packet that carries them back to back.

#include "Ap/ApEventTypes.h"
#include "Ap/ApRecords.h"
#include "Ap/ApRecordsPacket.h"

#pragma pack(push, 1)

struct API_HDR {
    std::int32_t iCategory;
    API_HDR() : iCategory(-1) {}
    int Swap();
};

struct API_UNSOLICITED_HDR {
    API_HDR apiHdr;
    std::int32_t iDataSize;
    API_UNSOLICITED_HDR() : iDataSize(0) {}
    int Swap();
};

// The records an event can carry, one per record shape.
union API_EVENT_DATA {
    I_SWITCH sw;
    I_PIM pim;
    I_PORT port;
    I_GROUP group;
    I_CONNECTION connection;
    I_ALARM alarm;
    I_TRANLOG tranlog;
    I_MAINTENANCE maintenance;
    I_SUPERGROUP supergroup;
    I_MEMBER member; // group, supergroup, egress, superegress, trunk members
    I_EQUIPMENT equipment;
    I_USER user;
    I_BOARD_INFO boardInfo;
    I_CIRCUIT circuit;
    I_CONNECTION_SET connectionSet;
    I_DATAGEN_RESULTS datagenResults;
    I_DOMAIN domain;
    I_SERVER_SHUTDOWN serverShutdown;
    I_HARDWARE_ALARM hardwareAlarm;
    I_CHASSIS chassis;
    I_XSL_ASSOCIATION xslAssociation;
    I_XSL_COUNTS xslCounts;
    I_DIAG_BAD_PATH diagBadPath;
    I_RESTORE_STANDBY_DB restoreStandbyDb;
    I_SUBPORT subport;
    I_PACKET_COUNTS packetCounts;
    I_REF_MEMBER refMember; // packet, ingress, superingress, stream members
    I_PACKET_STATUS packetStatus;
    I_INGRESS ingress;
    I_FILTER filter;
    I_FILTER_MEMBER filterMember;
    I_EGRESS egress;
    I_PACKET_ASSOCIATION_EVT packetAssociation;
    I_RULE rule;
    I_ORDERED_MEMBER orderedMember; // rule, impairment group members
    I_SUPERINGRESS superIngress;
    I_SUPEREGRESS superEgress;
    I_SUPERFILTER superFilter;
    I_PORT_STATISTICS portStatistics;
    I_THRESHOLD threshold;
    I_SERVER_CLOCK serverClock;
    I_DPI_PROTOCOL dpiProtocol;
    I_SYSTEM_PARAMETERS systemParameters;
    I_UTILIZATION utilization;
    I_PCE_PORT pcePort;
    I_PCE_STATISTICS pceStatistics;
    I_XSL_TRUNK xslTrunk;
    I_IMPAIRMENT impairment;
    I_DPI_PROTOCOL_ENTRY dpiProtocolEntry;
    I_TRAFFIC_COUNTERS trafficCounters; // trunk, probe statistics
    I_BACKPLANE_STATE backplaneState;
    I_RECONCILE reconcile;
    I_PACKET_DEFINITION packetDefinition;
    I_STREAM stream;
    I_PROBE probe;
    I_STICKY_NOTE stickyNote;
    I_DEVICE device;
    I_PACKET_RESERVATION packetReservation;
    I_REMOTE_SERVER remoteServer;
    I_REMOTE_EXEC remoteExec;
    I_PROGRESS progress; // reconcile, database verify progress
    I_APP_STATUS appStatus;
    I_DEVICE_APP deviceApp;
};

struct API_EVENT {
    std::uint32_t SwitchHandle;
    I_EVENT_TYPE EventType;
    I_EVENT_ACTION EventAction;
    API_EVENT_DATA Data;

    static unsigned int getBaseSize() { return 12; }

    // Bytes an event of this type occupies in a packet: the base plus the
    // carried record; for an association event the record's length follows
    // its nbrTrunks; an unknown type takes the whole structure. Saturates
    // at 0xFFFFFFFF for absurd trunk counts.
    static unsigned int sizeofEvent(std::int32_t eventType, std::uint32_t nbrTrunks);

    // Reads EventType (and nbrTrunks) as they stand, so the event must be in
    // host order: call it before a Swap that prepares an event for sending,
    // or after the Swap that restores a received one.
    unsigned int sizeofThis() const;

    // this + sizeofThis(): the next event of a packet. Only meaningful while
    // that address is still inside the packet; check with sizeofThis first.
    API_EVENT* getNextEvent();
    const API_EVENT* getNextEvent() const;

    // Converts the base and the carried record. The byte order the event is
    // in now is told by EventType, which is in 1..86 in exactly one of the
    // two orders; an event whose type is unknown in both has only its base
    // converted. Trunk ids of an association event are converted as far as
    // they fit in this structure.
    int Swap();

    // As Swap, for an event that has `room` bytes of storage from `this`
    // and whose current order is known. Converts nothing that lies beyond
    // `room`. Returns the event's size in a packet (host-order view).
    unsigned int swapWithin(std::size_t room, bool hostOrderNow);
};

// Payload of an event command: events packed back to back.
struct API_EVENT_PKT {
    API_UNSOLICITED_HDR hdr;
    std::uint32_t EventCount;  // events packed in Events
    std::uint32_t currentSize; // bytes of Events in use
    unsigned char Events[49152];

    API_EVENT* firstEvent() { return reinterpret_cast<API_EVENT*>(Events); }
    const API_EVENT* firstEvent() const { return reinterpret_cast<const API_EVENT*>(Events); }

    // Converts the header and every event. currentSize tells the current
    // order: it is at most sizeof(Events) in exactly one order (0 reads the
    // same in both). A packet whose currentSize fits in neither order is
    // not trusted: only its header is converted. Events are walked within
    // min(EventCount, currentSize) and nothing beyond currentSize is
    // touched, whatever the counts say.
    int Swap();
};

#pragma pack(pop)

static_assert(sizeof(API_HDR) == 4, "wire size");
static_assert(sizeof(API_UNSOLICITED_HDR) == 8, "wire size");
static_assert(sizeof(API_EVENT_DATA) == 48125, "wire size");
static_assert(offsetof(API_EVENT, Data) == 12, "wire layout");
static_assert(sizeof(API_EVENT) == 48137, "wire size");
static_assert(sizeof(API_EVENT_PKT) == 49168, "wire size");
