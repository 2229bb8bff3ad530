#pragma once

// Payload records of the I_ family and their byte-order conversion.
//
// Every record is packed (no alignment gaps) and built from fixed-width
// fields only, so its layout is identical on 32- and 64-bit hosts of either
// byte order. Swap() reverses each multi-byte field in place and returns 1;
// applying it twice restores the record. Bytes, booleans and character
// arrays are never touched.
//
// Packet-side records (ingress, filter, egress, statistics, streams, ...)
// are in ApRecordsPacket.h.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

// Unconditional byte reversal; they never look at the host's order.
inline unsigned short swaps(unsigned short v)
{
    return static_cast<unsigned short>(__builtin_bswap16(v));
}
inline unsigned int swapl(unsigned int v)
{
    static_assert(sizeof(unsigned int) == 4, "32-bit int expected");
    return __builtin_bswap32(v);
}
inline unsigned long long swapll(unsigned long long v)
{
    static_assert(sizeof(unsigned long long) == 8, "64-bit long long expected");
    return __builtin_bswap64(v);
}
// Reverses the representation, not the value: the result is usually a
// meaningless float until it is reversed back.
inline float swapf(float v)
{
    static_assert(sizeof(float) == 4, "32-bit float expected");
    unsigned int bits;
    std::memcpy(&bits, &v, sizeof bits);
    bits = swapl(bits);
    std::memcpy(&v, &bits, sizeof bits);
    return v;
}

namespace ApSwap {

// The value of any 2-, 4- or 8-byte number or enumeration with its bytes
// reversed. Works by value, so it can be used on packed fields, which cannot
// bind to references. Floats go through their bit pattern (same result as
// swapf) so that no reversed pattern ever sits in a floating-point register.
template <typename T>
inline T value(T v)
{
    static_assert(std::is_arithmetic<T>::value || std::is_enum<T>::value,
                  "only numbers and enumerations are byte-reversed");
    static_assert(sizeof(T) == 2 || sizeof(T) == 4 || sizeof(T) == 8, "single bytes are never byte-reversed");
    if constexpr (sizeof(T) == 2) {
        unsigned short u;
        std::memcpy(&u, &v, 2);
        u = swaps(u);
        std::memcpy(&v, &u, 2);
    } else if constexpr (sizeof(T) == 4) {
        unsigned int u;
        std::memcpy(&u, &v, 4);
        u = swapl(u);
        std::memcpy(&v, &u, 4);
    } else {
        unsigned long long u;
        std::memcpy(&u, &v, 8);
        u = swapll(u);
        std::memcpy(&v, &u, 8);
    }
    return v;
}

} // namespace ApSwap

// Reverse one multi-byte field, or each element of a fixed array of numbers.
#define AP_SWAP(field) ((field) = ::ApSwap::value(field))
#define AP_SWAP_EACH(array)                                                                                            \
    for (std::size_t apIdx_ = 0; apIdx_ < sizeof(array) / sizeof((array)[0]); ++apIdx_) AP_SWAP((array)[apIdx_])

#pragma pack(push, 1)

// ---- shared sub-records ---------------------------------------------------

// Where a port sits: the port's address parts.
struct I_PORT_ADDR {
    std::uint32_t switchNbr;
    std::uint32_t slotNbr;
    std::uint32_t portNbr;
    std::uint32_t subportNbr; // 0 for the whole port
    int Swap();
};

struct I_TIME_STAMP {
    std::uint32_t seconds; // since 1970-01-01 UTC
    std::uint32_t microseconds;
    int Swap();
};

// Member of a group, supergroup, egress, superegress or trunk: a position in
// its owner and the port (or, for supergroups, the group) it stands for.
struct I_MEMBER {
    std::uint32_t ownerId;
    std::uint16_t position;
    std::uint8_t memberType;
    std::uint8_t direction;
    I_PORT_ADDR member;
    int Swap();
};
typedef I_MEMBER I_GROUP_MEMBER;
typedef I_MEMBER I_SUPERGROUP_MEMBER;

// Member referenced by id: packet connections, ingresses, superingresses,
// streams.
struct I_REF_MEMBER {
    std::uint32_t ownerId;
    std::uint32_t memberId;
    std::uint16_t position;
    std::uint16_t memberType;
    std::uint32_t flags;
    std::uint32_t state;
    int Swap();
};

// Ordered member with a priority: rules, impairment groups.
struct I_ORDERED_MEMBER {
    std::uint32_t ownerId;
    std::uint32_t memberId;
    std::uint32_t position;
    std::uint32_t priority;
    I_TIME_STAMP added;
    std::uint8_t enabled;
    std::uint8_t action;
    std::uint16_t flags;
    int Swap();
};

// Progress of a long operation (reconcile, database verify).
struct I_PROGRESS {
    std::uint32_t done;
    std::uint32_t total;
    int Swap();
};

// ---- switch, chassis and ports ---------------------------------------------

struct I_SWITCH {
    std::uint32_t switchId;
    char name[64];
    char description[128];
    char location[64];
    char contact[64];
    char model[32];
    char serialNbr[32];
    char swVersion[32];
    char hwVersion[32];
    std::uint32_t ipAddress;
    std::uint32_t subnetMask;
    std::uint32_t gateway;
    std::uint8_t macAddress[6];
    std::uint16_t tcpPort;
    std::uint32_t state;
    std::uint32_t mode;
    std::uint8_t redundant;
    std::uint8_t isPrimary;
    std::uint16_t nbrSlots;
    std::uint16_t nbrPorts;
    std::uint32_t nbrConnections;
    I_TIME_STAMP bootTime;
    I_TIME_STAMP lastChange;
    std::uint64_t uptimeMs;
    float temperature;
    std::uint32_t alarmCounts[4]; // critical, major, minor, warning
    char snmpCommunity[32];
    char timeZone[64];
    char domainName[128];
    std::uint8_t bannerEnabled;
    char loginBanner[160];
    int Swap();
};

// Port interface module.
struct I_PIM {
    std::uint32_t pimId;
    std::uint16_t slotNbr;
    std::uint16_t pimNbr;
    char name[32];
    char pimType[32];
    char serialNbr[32];
    char partNbr[32];
    char hwRevision[16];
    char fwVersion[16];
    std::uint32_t state;
    std::uint32_t adminState;
    std::uint16_t nbrPorts;
    std::uint32_t speedMbps;
    std::uint8_t present;
    std::uint8_t mismatch;
    float temperature;
    float voltage;
    I_TIME_STAMP inserted;
    std::uint64_t powerOnHours;
    char description[64];
    char location[24];
    int Swap();
};

struct I_PORT {
    I_PORT_ADDR addr;
    std::uint32_t portId;
    char name[64];
    char description[256];
    char owner[32];
    std::uint32_t portType;
    std::uint32_t lineType;
    std::uint32_t speedMbps;
    std::uint32_t adminState;
    std::uint32_t operState;
    std::uint8_t linkUp;
    std::uint8_t lightDetected;
    std::uint8_t autoNegotiation;
    std::uint8_t fullDuplex;
    std::uint16_t mtu;
    std::uint16_t vlanId;
    float rxPowerDbm;
    float txPowerDbm;
    float temperature;
    std::uint8_t sfpPresent;
    char sfpVendor[32];
    char sfpPartNbr[32];
    char sfpSerialNbr[32];
    std::uint32_t sfpWavelengthNm;
    std::uint8_t macAddress[6];
    std::uint32_t connectionId;
    std::uint32_t groupId;
    std::uint32_t domainId;
    I_TIME_STAMP lastStateChange;
    std::uint64_t rxFrames;
    std::uint64_t txFrames;
    std::uint64_t rxBytes;
    std::uint64_t txBytes;
    std::uint64_t rxErrors;
    std::uint64_t txErrors;
    char notes[256];
    std::uint32_t subportIds[32];
    std::uint16_t nbrSubports;
    char alias[80];
    std::uint8_t beacon;
    int Swap();
};

struct I_SUBPORT_ENTRY {
    std::uint16_t subportNbr;
    std::uint32_t subportId;
    std::uint32_t speedMbps;
    std::uint32_t adminState;
    std::uint32_t operState;
    std::uint8_t linkUp;
    std::uint8_t lightDetected;
    std::uint32_t connectionId;
    std::uint32_t groupId;
    float rxPowerDbm;
    float txPowerDbm;
    char name[28];
    int Swap();
};

// The sub-ports of one broken-out port.
struct I_SUBPORT {
    I_PORT_ADDR port;
    std::uint32_t portId;
    std::uint32_t breakoutMode;
    std::uint32_t lineType;
    std::uint16_t nbrSubports;
    char name[64];
    char description[34];
    I_SUBPORT_ENTRY subports[64];
    int Swap();
};

struct I_BOARD_INFO {
    std::uint16_t slotNbr;
    std::uint32_t boardType;
    char name[32];
    char serialNbr[24];
    char partNbr[24];
    char hwRevision[8];
    char fwVersion[16];
    char swVersion[16];
    std::uint32_t state;
    std::uint16_t nbrPorts;
    std::uint8_t present;
    std::uint8_t master;
    float temperature;
    float voltage;
    I_TIME_STAMP bootTime;
    std::uint64_t uptimeMs;
    std::uint8_t macAddress[6];
    std::uint32_t ipAddress;
    char fpgaVersion[16];
    std::uint16_t fanRpm[3];
    int Swap();
};

struct I_CHASSIS {
    std::uint32_t chassisId;
    char model[24];
    char serialNbr[16];
    std::uint16_t nbrSlots;
    std::uint8_t state;
    std::uint8_t nbrFans;
    std::uint8_t fanState[4];
    std::int16_t temperature;
    std::uint8_t powerState;
    int Swap();
};

struct I_HARDWARE_ALARM {
    std::uint32_t alarmId;
    std::uint32_t severity;
    std::uint32_t component;
    std::uint16_t slotNbr;
    std::uint16_t unitNbr;
    I_TIME_STAMP raised;
    std::uint8_t active;
    float measured;
    float threshold;
    char componentName[32];
    char text[191];
    int Swap();
};

struct I_BACKPLANE_STATE {
    std::uint16_t slotNbr;
    std::uint16_t peerSlotNbr;
    std::uint32_t linkMask;
    std::uint8_t nbrLinks;
    std::uint8_t linkState[16];
    std::uint32_t state;
    I_TIME_STAMP changed;
    std::uint32_t errorCount;
    std::uint64_t crcErrors;
    float utilizationPct;
    std::uint16_t laneSpeedGbps;
    std::uint32_t resyncCount;
    int Swap();
};

// ---- groups, connections, circuits ---------------------------------------

struct I_GROUP {
    std::uint32_t groupId;
    char name[64];
    char description[128];
    std::uint32_t groupType;
    std::uint32_t lineType;
    std::uint16_t nbrMembers;
    std::uint16_t maxMembers;
    std::uint32_t domainId;
    std::uint32_t connectionId;
    std::uint8_t locked;
    std::uint8_t security;
    I_TIME_STAMP created;
    char owner[24];
    std::uint16_t partition;
    int Swap();
};

struct I_SUPERGROUP {
    std::uint32_t supergroupId;
    char name[64];
    char description[128];
    std::uint32_t lineType;
    std::uint16_t nbrGroups;
    std::uint32_t groupIds[16];
    std::uint8_t locked;
    I_TIME_STAMP created;
    std::uint32_t domainId;
    int Swap();
};

struct I_CONNECTION {
    std::uint32_t connectionId;
    std::uint32_t connectionType;
    I_PORT_ADDR source;
    I_PORT_ADDR destination;
    std::uint32_t state;
    std::uint32_t direction;
    char name[64];
    char description[128];
    char owner[32];
    I_TIME_STAMP created;
    I_TIME_STAMP scheduledStart;
    I_TIME_STAMP scheduledEnd;
    std::uint32_t circuitId;
    std::uint32_t connectionSetId;
    std::uint32_t groupId;
    std::uint8_t bidirectional;
    std::uint8_t locked;
    std::uint8_t persistent;
    std::uint16_t nbrHops;
    I_PORT_ADDR path[4];
    std::uint64_t durationMs;
    char comment[51];
    int Swap();
};

struct I_CIRCUIT {
    std::uint32_t circuitId;
    char name[64];
    char description[128];
    std::uint32_t circuitType;
    std::uint32_t state;
    std::uint16_t nbrConnections;
    std::uint32_t connectionIds[8];
    I_TIME_STAMP created;
    std::uint32_t domainId;
    char owner[16];
    std::uint8_t protectedPath;
    std::uint8_t enabled;
    int Swap();
};

struct I_CONNECTION_SET {
    std::uint32_t connectionSetId;
    char name[64];
    char description[256];
    std::uint32_t state;
    std::uint16_t nbrConnections;
    std::uint32_t connectionIds[48];
    I_TIME_STAMP activated;
    std::uint8_t active;
    std::uint8_t exclusive;
    char owner[32];
    std::uint32_t domainId;
    std::uint16_t priority;
    int Swap();
};

// ---- alarms, logs, maintenance -------------------------------------------

struct I_ALARM {
    std::uint32_t alarmId;
    std::uint32_t severity;
    std::uint32_t alarmType;
    std::uint32_t objectType;
    std::uint32_t objectId;
    I_PORT_ADDR addr;
    I_TIME_STAMP raised;
    I_TIME_STAMP cleared;
    std::uint8_t active;
    std::uint8_t acknowledged;
    char ackUser[32];
    char text[256];
    char probableCause[128];
    std::uint32_t occurrences;
    char additionalInfo[89];
    int Swap();
};

// One entry of the switch's transaction log.
struct I_TRANLOG {
    std::uint32_t sequenceNbr;
    I_TIME_STAMP time;
    char user[32];
    char client[28];
    std::uint32_t commandCode;
    std::int32_t result;
    std::uint32_t objectType;
    std::uint32_t objectId;
    char text[256];
    int Swap();
};

struct I_MAINTENANCE {
    std::uint32_t maintenanceId;
    char name[64];
    char description[256];
    std::uint32_t maintenanceType;
    std::uint32_t state;
    I_TIME_STAMP start;
    I_TIME_STAMP end;
    std::uint32_t repeatIntervalSec;
    char user[32];
    std::uint16_t nbrPorts;
    I_PORT_ADDR ports[24];
    std::uint8_t notify;
    std::uint8_t progressPct;
    std::int32_t result;
    int Swap();
};

struct I_DIAG_BAD_PATH {
    std::uint16_t fromSlot;
    std::uint16_t fromPort;
    std::uint16_t toSlot;
    std::uint16_t toPort;
    std::uint32_t pathId;
    int Swap();
};

struct I_DATAGEN_RESULTS {
    std::uint32_t sessionId;
    I_PORT_ADDR port;
    std::uint64_t framesSent;
    std::uint64_t errors;
    int Swap();
};

struct I_SERVER_SHUTDOWN {
    std::uint32_t reason;
    std::int32_t delaySec;
    I_TIME_STAMP when;
    char user[32];
    char message[112];
    std::uint8_t restart;
    int Swap();
};

struct I_RESTORE_STANDBY_DB {
    std::uint32_t restoreId;
    std::uint32_t state;
    std::uint32_t progressPct;
    I_TIME_STAMP started;
    I_TIME_STAMP finished;
    std::int32_t result;
    char sourceHost[64];
    char fileName[128];
    char user[32];
    std::uint64_t bytesRestored;
    std::uint64_t bytesTotal;
    char dbVersion[16];
    int Swap();
};

struct I_RECONCILE {
    std::uint32_t state;
    int Swap();
};

// ---- users, domains, equipment -------------------------------------------

struct I_USER {
    std::uint32_t userId;
    char name[32];
    char fullName[64];
    char email[64];
    char phone[32];
    char passwordHash[64];
    std::uint32_t role;
    std::uint32_t privileges;
    std::uint32_t domainIds[32];
    std::uint8_t enabled;
    std::uint8_t locked;
    std::uint16_t failedLogins;
    I_TIME_STAMP lastLogin;
    I_TIME_STAMP passwordChanged;
    std::uint32_t sessionTimeoutSec;
    char description[256];
    char sshPublicKey[600];
    std::uint32_t radiusServerId;
    std::uint16_t maxSessions;
    std::uint8_t authType;
    int Swap();
};

struct I_DOMAIN {
    std::uint32_t domainId;
    char name[32];
    std::uint16_t nbrUsers;
    std::uint16_t nbrPorts;
    std::uint32_t parentDomainId;
    I_TIME_STAMP created;
    char owner[20];
    int Swap();
};

struct I_EQUIPMENT {
    std::uint32_t equipmentId;
    char name[32];
    char vendor[24];
    char model[24];
    std::uint32_t equipmentType;
    std::uint32_t ipAddress;
    std::uint16_t nbrPorts;
    std::uint32_t domainId;
    I_TIME_STAMP added;
    int Swap();
};

// ---- inter-switch links ---------------------------------------------------

struct I_XSL_ASSOCIATION {
    std::uint32_t associationId;
    std::uint16_t localSlot;
    std::uint16_t localPort;
    std::uint32_t remoteSwitchId;
    std::uint16_t remoteSlot;
    std::uint16_t remotePort;
    std::uint8_t state;
    std::uint8_t linkUp;
    std::uint16_t vlanId;
    int Swap();
};

struct I_XSL_COUNTS {
    std::uint32_t nbrXsl;
    std::uint32_t nbrActive;
    std::uint32_t nbrTrunks;
    std::uint32_t nbrAssociations;
    int Swap();
};

#pragma pack(pop)

static_assert(sizeof(I_PORT_ADDR) == 16, "wire size");
static_assert(sizeof(I_TIME_STAMP) == 8, "wire size");
static_assert(sizeof(I_MEMBER) == 24, "wire size");
static_assert(sizeof(I_REF_MEMBER) == 20, "wire size");
static_assert(sizeof(I_ORDERED_MEMBER) == 28, "wire size");
static_assert(sizeof(I_PROGRESS) == 8, "wire size");
static_assert(sizeof(I_SWITCH) == 919, "wire size");
static_assert(sizeof(I_PIM) == 296, "wire size");
static_assert(sizeof(I_PORT) == 1054, "wire size");
static_assert(sizeof(I_SUBPORT_ENTRY) == 64, "wire size");
static_assert(sizeof(I_SUBPORT) == 4224, "wire size");
static_assert(sizeof(I_BOARD_INFO) == 190, "wire size");
static_assert(sizeof(I_CHASSIS) == 55, "wire size");
static_assert(sizeof(I_HARDWARE_ALARM) == 256, "wire size");
static_assert(sizeof(I_BACKPLANE_STATE) == 59, "wire size");
static_assert(sizeof(I_GROUP) == 252, "wire size");
static_assert(sizeof(I_SUPERGROUP) == 279, "wire size");
static_assert(sizeof(I_CONNECTION) == 436, "wire size");
static_assert(sizeof(I_CIRCUIT) == 268, "wire size");
static_assert(sizeof(I_CONNECTION_SET) == 570, "wire size");
static_assert(sizeof(I_ALARM) == 563, "wire size");
static_assert(sizeof(I_TRANLOG) == 344, "wire size");
static_assert(sizeof(I_MAINTENANCE) == 776, "wire size");
static_assert(sizeof(I_DIAG_BAD_PATH) == 12, "wire size");
static_assert(sizeof(I_DATAGEN_RESULTS) == 36, "wire size");
static_assert(sizeof(I_SERVER_SHUTDOWN) == 161, "wire size");
static_assert(sizeof(I_RESTORE_STANDBY_DB) == 288, "wire size");
static_assert(sizeof(I_RECONCILE) == 4, "wire size");
static_assert(sizeof(I_USER) == 1283, "wire size");
static_assert(sizeof(I_DOMAIN) == 72, "wire size");
static_assert(sizeof(I_EQUIPMENT) == 106, "wire size");
static_assert(sizeof(I_XSL_ASSOCIATION) == 20, "wire size");
static_assert(sizeof(I_XSL_COUNTS) == 16, "wire size");
