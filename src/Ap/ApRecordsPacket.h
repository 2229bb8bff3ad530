#pragma once

// Packet-side payload records: packet connections, ingress/filter/egress
// objects, rules, statistics, streams, probes, devices, reservations and the
// system-wide settings. Same conventions as ApRecords.h.

#include "Ap/ApRecords.h"

#pragma pack(push, 1)

// Members that share a shape share a record (and its Swap).
typedef I_REF_MEMBER I_PACKET_MEMBER;
typedef I_REF_MEMBER I_INGRESS_MEMBER;
typedef I_REF_MEMBER I_SUPERINGRESS_MEMBER;
typedef I_REF_MEMBER I_STREAM_MEMBER;
typedef I_MEMBER I_EGRESS_MEMBER;
typedef I_MEMBER I_SUPEREGRESS_MEMBER;
typedef I_MEMBER I_XSL_TRUNK_MEMBER;
typedef I_ORDERED_MEMBER I_RULE_MEMBER;
typedef I_ORDERED_MEMBER I_IMPAIRMENT_GROUP_MEMBER;
typedef I_PROGRESS I_RECONCILE_PROGRESS;
typedef I_PROGRESS I_DBVERIFY_PROGRESS;

// ---- packet connections -----------------------------------------------------

struct I_PACKET_COUNTS {
    std::uint32_t nbrConnections;
    std::uint32_t nbrIngress;
    std::uint32_t nbrEgress;
    int Swap();
};

struct I_PACKET_STATUS {
    std::uint32_t connectionId;
    std::uint16_t state;
    std::uint16_t reason;
    int Swap();
};

// Ties an ingress through a filter to an egress.
struct I_PACKET_ASSOCIATION {
    std::uint32_t associationId;
    char name[64];
    char description[128];
    std::uint32_t ingressId;
    std::uint32_t egressId;
    std::uint32_t filterId;
    std::uint32_t state;
    std::uint8_t active;
    std::uint8_t bidirectional;
    std::uint16_t priority;
    I_TIME_STAMP created;
    std::uint32_t domainId;
    std::uint32_t impairmentId;
    std::uint32_t connectionId;
    std::uint64_t matchedFrames;
    std::uint64_t matchedBytes;
    std::uint8_t truncate;
    int Swap();
};

// Association event: the association followed by the inter-switch trunks it
// runs over. trunkIds is declared with one element; the event carries
// max(nbrTrunks, 1) of them.
struct I_PACKET_ASSOCIATION_EVT {
    I_PACKET_ASSOCIATION association;
    std::uint32_t nbrTrunks;
    std::uint16_t trunkIds[1];

    // Bytes the record occupies when it carries nbrTrunks trunk ids. Counts
    // too large for any packet saturate at 0xFFFFFFFF instead of wrapping.
    static unsigned int sizeofThis(unsigned int nbrTrunks);

    // The fixed 259 bytes: association, nbrTrunks and the first trunk id.
    int Swap();
    // Swap() plus trunkIds[1 .. nbrTrunks-1]. nbrTrunks is given by the
    // caller in host order, because the field itself may be either; the
    // caller guarantees the storage for that many ids.
    int Swap(unsigned int nbrTrunks);
};

// ---- ingress, filter, egress, rules ---------------------------------------

struct I_INGRESS {
    std::uint32_t ingressId;
    char name[64];
    char description[128];
    std::uint32_t ingressType;
    std::uint32_t lineType;
    std::uint16_t nbrMembers;
    I_PORT_ADDR members[16];
    std::uint32_t filterId;
    std::uint32_t domainId;
    std::uint8_t security;
    std::uint8_t alarmed;
    std::uint16_t vlanId;
    std::uint8_t stripVlan;
    I_TIME_STAMP created;
    char owner[32];
    std::uint32_t partitionId;
    std::uint64_t rxFrames;
    std::uint64_t rxBytes;
    std::uint64_t dropped;
    char comment[46];
    int Swap();
};

struct I_SUPERINGRESS {
    std::uint32_t superIngressId;
    char name[64];
    char description[128];
    std::uint16_t nbrIngress;
    std::uint32_t ingressIds[24];
    std::uint32_t domainId;
    std::uint8_t security;
    I_TIME_STAMP created;
    char owner[16];
    std::uint16_t vlanId;
    int Swap();
};

struct I_FILTER {
    std::uint32_t filterId;
    char name[64];
    char description[128];
    std::uint32_t filterType;
    std::uint32_t action;
    std::uint16_t nbrRules;
    std::uint32_t ruleIds[24];
    std::uint8_t enabled;
    std::uint8_t security;
    std::uint8_t alarmed;
    std::uint32_t domainId;
    I_TIME_STAMP modified;
    std::uint64_t matchedFrames;
    std::uint32_t egressId;
    std::uint16_t priority;
    int Swap();
};

// A rule's place in a filter.
struct I_FILTER_MEMBER {
    std::uint32_t filterId;
    std::uint32_t ruleId;
    std::uint16_t position;
    std::uint8_t action;
    std::uint8_t enabled;
    char ruleName[32];
    int Swap();
};

struct I_SUPERFILTER {
    std::uint32_t superFilterId;
    char name[64];
    char description[256];
    std::uint32_t combineMode;
    std::uint16_t nbrFilters;
    std::uint32_t filterIds[64];
    std::uint8_t enabled;
    std::uint32_t domainId;
    I_TIME_STAMP modified;
    std::uint64_t matchedFrames[64]; // per filter, same order as filterIds
    std::uint16_t priority;
    std::uint32_t egressId;
    int Swap();
};

struct I_EGRESS {
    std::uint32_t egressId;
    char name[64];
    std::uint32_t egressType;
    std::uint32_t lineType;
    std::uint16_t nbrMembers;
    std::uint8_t loadBalance;
    std::uint8_t hashMode;
    std::uint32_t domainId;
    std::uint32_t filterId;
    I_TIME_STAMP created;
    std::uint64_t txFrames;
    std::uint64_t txBytes;
    std::uint16_t vlanId;
    std::uint8_t security;
    std::uint8_t alarmed;
    std::uint32_t partitionId;
    std::uint16_t mtu;
    std::uint8_t stripVlan;
    int Swap();
};

struct I_SUPEREGRESS {
    std::uint32_t superEgressId;
    char name[64];
    char description[128];
    std::uint16_t nbrEgress;
    std::uint32_t egressIds[16];
    std::uint32_t domainId;
    std::uint8_t loadBalance;
    I_TIME_STAMP created;
    std::uint16_t hashMode;
    char owner[12];
    int Swap();
};

// Match criteria; addresses are kept as 16 bytes in wire order (IPv4 in the
// first four).
struct I_RULE {
    std::uint32_t ruleId;
    char name[64];
    std::uint32_t ruleType;
    std::uint8_t ipVersion;
    std::uint8_t ipProtocol;
    std::uint8_t srcIp[16];
    std::uint8_t srcMask[16];
    std::uint8_t dstIp[16];
    std::uint8_t dstMask[16];
    std::uint16_t srcPortLow;
    std::uint16_t srcPortHigh;
    std::uint16_t dstPortLow;
    std::uint16_t dstPortHigh;
    std::uint16_t vlanLow;
    std::uint16_t vlanHigh;
    std::uint16_t etherType;
    std::uint8_t srcMac[6];
    std::uint8_t dstMac[6];
    std::uint8_t dscp;
    std::uint8_t tcpFlags;
    std::uint32_t domainId;
    std::uint32_t mplsLabel;
    char description[90];
    int Swap();
};

struct I_DPI_PROTOCOL {
    std::uint32_t protocolId;
    char name[64];
    char description[128];
    std::uint8_t editable;
    std::uint8_t ipProtocol;
    std::uint16_t nbrEntries;
    std::uint16_t ports[32];
    char pattern[128];
    std::uint32_t domainId;
    I_TIME_STAMP modified;
    std::uint64_t matchedFrames;
    std::uint32_t category;
    std::uint32_t appId;
    int Swap();
};

struct I_DPI_PROTOCOL_ENTRY {
    std::uint32_t protocolId;
    std::uint16_t entryNbr;
    std::uint16_t portLow;
    std::uint16_t portHigh;
    std::uint8_t ipProtocol;
    std::uint8_t transport;
    char pattern[32];
    int Swap();
};

// ---- statistics and monitoring ----------------------------------------------

struct I_PORT_STATISTICS {
    I_PORT_ADDR port;
    std::uint32_t intervalSec;
    I_TIME_STAMP sampled;
    std::uint64_t rxFrames;
    std::uint64_t txFrames;
    std::uint64_t rxBytes;
    std::uint64_t txBytes;
    std::uint64_t rxUnicast;
    std::uint64_t rxMulticast;
    std::uint64_t rxBroadcast;
    std::uint64_t txUnicast;
    std::uint64_t txMulticast;
    std::uint64_t txBroadcast;
    std::uint64_t rxCrcErrors;
    std::uint64_t rxUndersize;
    std::uint64_t rxOversize;
    std::uint64_t rxFragments;
    std::uint64_t rxJabbers;
    std::uint64_t rxDrops;
    std::uint64_t txDrops;
    std::uint64_t txErrors;
    // Frame length bins: 64, 65-127, 128-255, 256-511, 512-1023,
    // 1024-1518, 1519 and longer.
    std::uint64_t rxSizeBins[7];
    std::uint64_t txSizeBins[7];
    std::uint64_t rxPause;
    std::uint64_t txPause;
    std::uint64_t linkDowns;
    std::uint64_t symbolErrors;
    float rxUtilizationPct;
    float txUtilizationPct;
    int Swap();
};

// Counters of one trunk or probe.
struct I_TRAFFIC_COUNTERS {
    std::uint32_t objectId;
    std::uint64_t rxFrames;
    std::uint64_t txFrames;
    std::uint64_t rxBytes;
    std::uint64_t txBytes;
    std::uint64_t drops;
    float rxUtilizationPct;
    float txUtilizationPct;
    int Swap();
};
typedef I_TRAFFIC_COUNTERS I_TRUNK_STATISTICS;
typedef I_TRAFFIC_COUNTERS I_PROBE_STATISTICS;

struct I_THRESHOLD {
    std::uint32_t thresholdId;
    char name[32];
    std::uint32_t statistic;
    std::uint64_t low;
    std::uint64_t high;
    std::uint32_t intervalSec;
    std::uint8_t enabled;
    std::uint8_t alarmSeverity;
    I_PORT_ADDR port;
    I_TIME_STAMP lastCrossed;
    std::uint32_t crossCount;
    std::uint8_t state;
    char owner[16];
    int Swap();
};

struct I_UTILIZATION {
    std::uint32_t utilizationId;
    char name[32];
    I_PORT_ADDR port;
    std::uint32_t intervalSec;
    I_TIME_STAMP sampled;
    float rxPct;
    float txPct;
    float rxPeakPct;
    float txPeakPct;
    std::uint64_t rxBitsPerSec;
    std::uint64_t txBitsPerSec;
    float rxHistory[23]; // oldest first
    float txHistory[23];
    std::uint8_t enabled;
    std::uint16_t thresholdPct;
    int Swap();
};

struct I_PCE_PORT {
    std::uint32_t pceId;
    I_PORT_ADDR port;
    std::uint32_t state;
    std::uint32_t speedMbps;
    std::uint32_t mtu;
    std::uint16_t nbrQueues;
    std::uint8_t enabled;
    std::uint8_t mode;
    std::uint32_t flags;
    int Swap();
};

struct I_PCE_STATISTICS {
    std::uint32_t pceId;
    I_TIME_STAMP sampled;
    float cpuPct;
    float memoryPct;
    std::uint64_t rxFrames;
    std::uint64_t txFrames;
    std::uint64_t rxBytes;
    std::uint64_t txBytes;
    std::uint64_t rxDrops;
    std::uint64_t txDrops;
    std::uint64_t matchedFrames;
    std::uint64_t unmatchedFrames;
    std::uint64_t dedupDrops;
    std::uint64_t truncated;
    std::uint64_t sliced;
    std::uint64_t timestamped;
    std::uint64_t hashCollisions;
    std::uint64_t bufferOverruns;
    std::uint64_t tunnelsTerminated;
    std::uint64_t reassembled;
    std::uint64_t fragmentsDropped;
    std::uint64_t sessionsOpened;
    std::uint64_t sessionsClosed;
    std::uint64_t queueFrames[8];
    std::uint64_t queueDrops[8];
    int Swap();
};

// ---- inter-switch trunks, impairments -------------------------------------

struct I_XSL_TRUNK {
    std::uint32_t trunkId;
    char name[64];
    char description[128];
    std::uint32_t remoteSwitchId;
    std::uint16_t nbrMembers;
    std::uint8_t state;
    std::uint8_t loadBalance;
    std::uint16_t vlanId;
    std::uint32_t alarmThresholdPct;
    I_TIME_STAMP created;
    std::uint64_t txFrames;
    std::uint64_t rxFrames;
    std::uint64_t txBytes;
    std::uint64_t rxBytes;
    std::uint16_t memberSlots[16];
    std::uint16_t memberPorts[16];
    std::uint32_t domainId;
    std::uint32_t mtu;
    int Swap();
};

struct I_IMPAIRMENT {
    std::uint32_t impairmentId;
    char name[64];
    char description[128];
    std::uint32_t impairmentType;
    float delayMs;
    float jitterMs;
    float lossPct;
    float duplicatePct;
    float reorderPct;
    float corruptPct;
    std::uint32_t bandwidthKbps;
    std::uint8_t enabled;
    std::uint8_t direction;
    std::uint32_t domainId;
    I_TIME_STAMP modified;
    std::uint32_t burstSize;
    std::uint64_t impairedFrames;
    char owner[32];
    std::uint32_t seed;
    char comment[39];
    int Swap();
};

// ---- packet definitions, streams, probes ------------------------------------

// One editable field of a packet definition (e.g. an incrementing address).
struct I_PACKET_FIELD {
    char name[24];
    std::uint16_t byteOffset;
    std::uint8_t bitOffset;
    std::uint8_t bitWidth;
    std::uint32_t mode; // fixed, increment, random, ...
    std::uint64_t value;
    std::uint64_t step;
    int Swap();
};

struct I_PACKET_FRAME {
    std::uint16_t length; // bytes of data in use
    std::uint16_t flags;
    std::uint32_t repeatCount;
    std::uint8_t data[2040];
    int Swap();
};

// The largest event record: a packet definition with its field table and
// frame templates.
struct I_PACKET_DEFINITION {
    std::uint32_t packetDefId;
    char name[64];
    char description[256];
    std::uint32_t protocolStack;
    std::uint16_t frameLength;
    std::uint16_t nbrFields;
    std::uint16_t nbrFrames;
    I_PACKET_FIELD fields[256];
    I_PACKET_FRAME frames[17];
    std::uint32_t domainId;
    I_TIME_STAMP modified;
    std::uint8_t checksumMode;
    std::uint8_t editable;
    char owner[32];
    char comment[641];
    int Swap();
};

struct I_STREAM {
    std::uint32_t streamId;
    char name[64];
    char description[128];
    std::uint32_t packetDefId;
    std::uint16_t nbrMembers;
    std::uint32_t rateMode;
    std::uint64_t rate;
    std::uint32_t burstSize;
    std::uint32_t loopCount;
    std::uint8_t enabled;
    std::uint8_t state;
    I_PORT_ADDR port;
    I_TIME_STAMP started;
    std::uint64_t framesSent;
    std::uint64_t bytesSent;
    std::uint32_t domainId;
    char owner[32];
    std::uint32_t generatorId;
    std::uint8_t priority;
    int Swap();
};

struct I_PROBE {
    std::uint32_t probeId;
    char name[64];
    char description[128];
    std::uint32_t probeType;
    std::uint32_t state;
    std::uint8_t active;
    std::uint8_t locked;
    std::uint16_t nbrMembers;
    I_PORT_ADDR ports[4];
    std::uint32_t rovTimeSec;
    I_TIME_STAMP activated;
    char lockedBy[24];
    std::uint32_t domainId;
    std::uint8_t bridgeMode;
    int Swap();
};

// ---- system-wide settings ---------------------------------------------------

struct I_SERVER_CLOCK {
    I_TIME_STAMP now;
    std::int32_t utcOffsetMin;
    std::uint8_t ntpEnabled;
    std::uint8_t synchronized;
    std::uint16_t nbrServers;
    char ntpServers[4][64];
    std::uint32_t stratum;
    float offsetMs;
    float jitterMs;
    char timeZone[30];
    int Swap();
};

struct I_SYSTEM_PARAMETERS {
    char hostName[64];
    char domainName[64];
    std::uint32_t ipAddress;
    std::uint32_t subnetMask;
    std::uint32_t gateway;
    std::uint32_t dnsServers[4];
    std::uint32_t ntpServers[4];
    std::uint16_t httpPort;
    std::uint16_t httpsPort;
    std::uint16_t cliPort;
    std::uint16_t restPort;
    std::uint16_t restsPort;
    std::uint16_t snmpPort;
    std::uint8_t snmpEnabled;
    char snmpReadCommunity[32];
    char snmpWriteCommunity[32];
    std::uint32_t trapDestinations[8];
    std::uint16_t sessionTimeoutMin;
    std::uint8_t passwordPolicy;
    std::uint32_t logLevel;
    char syslogServers[4][64];
    std::uint8_t syslogEnabled;
    char loginBanner[1024];
    char contact[64];
    char location[64];
    char timeZone[64];
    std::uint32_t statsIntervalsSec[4];
    std::uint64_t diskQuotaBytes;
    float cpuAlarmPct;
    float memoryAlarmPct;
    float diskAlarmPct;
    char motd[333];
    int Swap();
};

// ---- notes, devices, reservations, remote servers -----------------------------

struct I_STICKY_NOTE {
    std::uint32_t noteId;
    std::uint32_t objectType;
    std::uint32_t objectId;
    char author[32];
    I_TIME_STAMP created;
    I_TIME_STAMP modified;
    std::uint32_t color;
    std::uint8_t pinned;
    char title[64];
    char text[360];
    int Swap();
};

struct I_DEVICE {
    std::uint32_t deviceId;
    char name[64];
    char description[128];
    std::uint32_t deviceType;
    std::uint16_t nbrMembers;
    std::uint32_t ipAddress;
    std::uint8_t macAddress[6];
    std::uint8_t state;
    std::uint32_t domainId;
    I_TIME_STAMP added;
    char vendor[24];
    std::uint32_t appId;
    std::uint8_t managed;
    int Swap();
};

struct I_PACKET_RESERVATION {
    std::uint32_t reservationId;
    char name[64];
    char description[128];
    char owner[32];
    I_TIME_STAMP start;
    I_TIME_STAMP end;
    std::uint32_t state;
    std::uint32_t repeatMode;
    std::uint16_t nbrResources;
    std::uint32_t resourceIds[32];
    std::uint32_t domainId;
    std::uint8_t exclusive;
    char comment[128];
    I_TIME_STAMP created;
    std::uint32_t reportId;
    std::uint32_t priority;
    int Swap();
};

struct I_REMOTE_SERVER {
    std::uint32_t serverId;
    char name[32];
    char host[40];
    std::uint16_t port;
    std::uint8_t protocol;
    std::uint8_t enabled;
    std::uint32_t state;
    I_TIME_STAMP lastContact;
    std::uint32_t timeoutSec;
    int Swap();
};

struct I_REMOTE_EXEC {
    std::uint32_t execId;
    std::uint32_t serverId;
    char command[256];
    char user[32];
    I_TIME_STAMP started;
    I_TIME_STAMP finished;
    std::int32_t exitCode;
    std::uint32_t state;
    std::uint32_t timeoutSec;
    std::uint32_t outputLength;
    char output[1984];
    std::uint8_t truncated;
    std::uint8_t async;
    int Swap();
};

// Status of an external tool or a device application.
struct I_APP_STATUS {
    std::uint32_t appId;
    std::uint16_t state;
    std::uint8_t running;
    char version[16];
    char message[32];
    int Swap();
};

struct I_DEVICE_APP {
    std::uint32_t appId;
    std::uint32_t deviceId;
    char name[64];
    char version[16];
    char vendor[32];
    char description[256];
    std::uint32_t state;
    std::uint8_t enabled;
    std::uint8_t autoStart;
    std::uint16_t port;
    std::uint32_t memoryKb;
    float cpuPct;
    I_TIME_STAMP installed;
    I_TIME_STAMP started;
    char configuration[1892];
    int Swap();
};

#pragma pack(pop)

static_assert(sizeof(I_PACKET_COUNTS) == 12, "wire size");
static_assert(sizeof(I_PACKET_STATUS) == 8, "wire size");
static_assert(sizeof(I_PACKET_ASSOCIATION) == 253, "wire size");
static_assert(offsetof(I_PACKET_ASSOCIATION_EVT, nbrTrunks) == 253, "wire layout");
static_assert(sizeof(I_PACKET_ASSOCIATION_EVT) == 259, "wire size");
static_assert(sizeof(I_INGRESS) == 589, "wire size");
static_assert(sizeof(I_SUPERINGRESS) == 325, "wire size");
static_assert(sizeof(I_FILTER) == 331, "wire size");
static_assert(sizeof(I_FILTER_MEMBER) == 44, "wire size");
static_assert(sizeof(I_SUPERFILTER) == 1117, "wire size");
static_assert(sizeof(I_EGRESS) == 123, "wire size");
static_assert(sizeof(I_SUPEREGRESS) == 289, "wire size");
static_assert(sizeof(I_RULE) == 264, "wire size");
static_assert(sizeof(I_DPI_PROTOCOL) == 420, "wire size");
static_assert(sizeof(I_DPI_PROTOCOL_ENTRY) == 44, "wire size");
static_assert(sizeof(I_PORT_STATISTICS) == 324, "wire size");
static_assert(sizeof(I_TRAFFIC_COUNTERS) == 52, "wire size");
static_assert(sizeof(I_THRESHOLD) == 107, "wire size");
static_assert(sizeof(I_UTILIZATION) == 283, "wire size");
static_assert(sizeof(I_PCE_PORT) == 40, "wire size");
static_assert(sizeof(I_PCE_STATISTICS) == 300, "wire size");
static_assert(sizeof(I_XSL_TRUNK) == 322, "wire size");
static_assert(sizeof(I_IMPAIRMENT) == 329, "wire size");
static_assert(sizeof(I_PACKET_FIELD) == 48, "wire size");
static_assert(sizeof(I_PACKET_FRAME) == 2048, "wire size");
static_assert(sizeof(I_PACKET_DEFINITION) == 48125, "wire size");
static_assert(sizeof(I_STREAM) == 305, "wire size");
static_assert(sizeof(I_PROBE) == 313, "wire size");
static_assert(sizeof(I_SERVER_CLOCK) == 314, "wire size");
static_assert(sizeof(I_SYSTEM_PARAMETERS) == 2130, "wire size");
static_assert(sizeof(I_STICKY_NOTE) == 489, "wire size");
static_assert(sizeof(I_DEVICE) == 254, "wire size");
static_assert(sizeof(I_PACKET_RESERVATION) == 531, "wire size");
static_assert(sizeof(I_REMOTE_SERVER) == 96, "wire size");
static_assert(sizeof(I_REMOTE_EXEC) == 2314, "wire size");
static_assert(sizeof(I_APP_STATUS) == 55, "wire size");
static_assert(sizeof(I_DEVICE_APP) == 2300, "wire size");
