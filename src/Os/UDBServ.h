#pragma once

// Start-up parameters: the one SYS_PARM record, its defaults and the
// KEY=VALUE configuration file it is read from.
#include <arpa/inet.h>

#include <cstdint>
#include <string>

#include "Ap/ApBase.h"
#include "Common/Utility/UtlIp.h"

// Internal networks a blade is reachable on.
enum NET_CHANNEL {
    NETWORK_A = 0,
    NETWORK_B = 1,
    NETWORK_PEER = 2,
    NETWORK_EXTERNAL = 3,
    NUM_NET_CHANNELS = 4,
};

enum SWITCH_MODEL {
    SW_MODEL_UNDEFINED = 0,
    SW_MODEL_N511 = 1,
    SW_MODEL_N512 = 2,
    SW_MODEL_N512H = 3,
    SW_MODEL_N513 = 4,
    SW_MODEL_N514 = 5,
    SW_MODEL_R721 = 6,
    SW_MODEL_R723 = 7,
    SW_MODEL_R732 = 8,
    SW_MODEL_R732S = 9,
    SW_MODEL_R721_R = 10,
    SW_MODEL_OPTICAL = 11,
    SW_MODEL_HYBRID = 12,
    SW_MODEL_OTHER_VENDOR = 13,
    SW_MODEL_NUM_MODELS = 14,
};

// Size of every path buffer of the record (pLogDir, pTempDir, pBackupDir) and
// of a configuration value.
constexpr unsigned SYS_PARM_PATH_SIZE = 260;

// Field order is part of the record's contract. Ports are network byte order.
// The default member values are the built-in defaults (parseCommandArgs sets
// the same after clearing the record).
struct SYS_PARM {
    static constexpr int THIS_CHASSIS = -1;
    static constexpr int THIS_SLOT = -1;

    unsigned short socketPort = 0;
    SYS_ADDR mySysAddr = static_cast<SYS_ADDR>(0);
    c_inaddr localIp;
    c_inaddr secondIp;
    char hostname[260] = {};
    c_inaddr swiIp;
    std::uint32_t swiId = 0;
    unsigned short telnetPort = htons(35001);
    unsigned short radius = 0;
    unsigned short cliPort = 0;
    unsigned short switchPort = htons(3500);
    std::int32_t externalServer = 0;
    bool simulation = false;
    bool noMsgTimeout = false;
    bool makeSpeedy = false;
    bool noDbUpdate = false;
    char* pTempDir = nullptr;
    char* pHiddenDir = nullptr;
    char* pBackupDir = nullptr;
    char* pExecDir = nullptr;
    char* pLogDir = nullptr;
    std::string* pCmdArg = nullptr;
    std::string* pExecFile = nullptr;
    char currentLabel[50] = {};
    char previousLabel[50] = {};
    char databaseName[50] = {};
    bool cliEnabled = false;
    SWITCH_MODEL switchModel = SW_MODEL_R723;
    unsigned char* pMacAddr = nullptr;
    char* pBackupUDBServ = nullptr;
    std::uint32_t chassisNbr = 0;
    SYS_ADDR slotNbr = SYS_ADDR_UNDEFINED;
    bool redundancyEnabled = true;
    c_inaddr ipServer1;
    c_inaddr ipServer2;
    std::uint32_t cliIdleTimeOut = 0;
    unsigned short sshPort = 0;
    bool sshEnabled = false;
    unsigned short httpPort = 0;
    bool httpEnabled = false;
    unsigned short httpsPort = 0;
    bool httpsEnabled = false;
    char sshPassword[97] = {};
    bool bDiscoverSwitches = false;
    std::int32_t syslogFacility = 0;
    char ntpServer[101] = {};
    bool connCommentsEnabled = false;
    unsigned short pollPort = 0;

    // The record registered with the control block under SMN_SYS_PARM.
    static SYS_PARM* getIt();

    // Internal address of a blade; -1 chassis/slot mean this record's own.
    c_inaddr createIpAddress(NET_CHANNEL net, int chassis = THIS_CHASSIS, int slot = THIS_SLOT) const;
};

// The library's one record and the configuration file it is read from.
extern SYS_PARM sysParm;
extern const char configFile[];

// Arguments beyond this many list entries (entry 0 stays empty) are ignored.
constexpr unsigned MAX_CONFIG_ARGS = 256;
// Bytes of a configuration line that are looked at; the rest of a longer
// line is skipped.
constexpr unsigned MAX_CONFIG_LINE = 1024;

// Defaults, log directory, then configuration file, into sysParm.
void parseCommandArgs();
// Reads fileName into an argument list and applies it; a missing file is not
// an error.
void GetBaseConfiguration(const char* fileName);
// Applies KEY=VALUE arguments argv[1]..argv[argc-1] to sysParm.
void getBaseParameters(unsigned int argc, char** argv);

int tcharToChar(char* dst, const char* src);
char* SAFE_STRNCPY(char* dst, const char* src, unsigned int n);
int AsciiToString(const char* hex, int count, unsigned char* out);
