#include "Os/UDBServ.h"

#include <strings.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "Common/Utility/UtlIp.h"
#include "Common/Utility/UtlSysLog.h"
#include "Os/UDBControl.h"

SYS_PARM sysParm;

namespace {
// The syslog configuration names the program from these parameters.
const bool sysLogNamesProgram = [] {
    setSysLogProgramName([] {
        const SYS_PARM* parm = SYS_PARM::getIt();
        if (parm == nullptr) parm = &sysParm;
        return parm->pExecFile != nullptr ? *parm->pExecFile : std::string();
    });
    return true;
}();
} // namespace
const char configFile[] = "./TAVRO.CONF";

SYS_PARM* SYS_PARM::getIt()
{
    return static_cast<SYS_PARM*>(UDBControl::GetClassRef(SMN_SYS_PARM));
}

c_inaddr SYS_PARM::createIpAddress(NET_CHANNEL net, int chassis, int slot) const
{
    // These models run everything on one blade.
    if (switchModel == SW_MODEL_R721 || switchModel == SW_MODEL_R721_R) return c_inaddr("127.0.0.1");

    long long c = chassis == THIS_CHASSIS ? static_cast<long long>(chassisNbr) : chassis;
    long long s = slot == THIS_SLOT ? static_cast<long long>(slotNbr) : slot;
    std::ostringstream text;
    switch (net) {
    case NETWORK_A: text << "192.168." << c << "." << (s + 1); break;
    case NETWORK_B: text << "172.16." << c << "." << (s + 1); break;
    default: return c_inaddr();
    }
    return c_inaddr(text.str().c_str());
}

int tcharToChar(char* dst, const char* src)
{
    if (dst == nullptr) return 0;
    if (src == nullptr) {
        dst[0] = '\0';
        return 0;
    }
    size_t len = std::strlen(src);
    std::memcpy(dst, src, len + 1);
    return static_cast<int>(len);
}

char* SAFE_STRNCPY(char* dst, const char* src, unsigned int n)
{
    if (n == 0 || dst == nullptr) return dst;
    unsigned int i = 0;
    if (src != nullptr) {
        for (; i + 1 < n && src[i] != '\0'; ++i) dst[i] = src[i];
    }
    dst[i] = '\0';
    return dst;
}

int AsciiToString(const char* hex, int count, unsigned char* out)
{
    if (hex == nullptr || out == nullptr || count <= 0) return 0;
    int produced = 0;
    for (int i = 0; i < count; ++i) {
        int c = static_cast<unsigned char>(hex[i]);
        // Letters sit 7 codes above "9"+1; lower case lands on the same nibble.
        int nibble = (c >= 58 ? c - 7 : c) & 15;
        if (i % 2 == 0) {
            out[i / 2] = static_cast<unsigned char>(nibble << 4);
        } else {
            out[i / 2] = static_cast<unsigned char>(out[i / 2] | nibble);
            ++produced;
        }
    }
    return produced;
}

namespace {

unsigned short portValue(const char* value)
{
    // atoi semantics without its undefined overflow.
    return htons(static_cast<unsigned short>(static_cast<int>(std::strtol(value, nullptr, 10))));
}

bool is(const char* value, const char* word)
{
    return strcasecmp(value, word) == 0;
}

void releaseBuffers(SYS_PARM& parm)
{
    delete[] parm.pLogDir;
    delete[] parm.pTempDir;
    delete[] parm.pBackupDir;
    delete[] parm.pMacAddr;
    parm.pLogDir = parm.pTempDir = parm.pBackupDir = nullptr;
    parm.pMacAddr = nullptr;
}

bool isBlank(char c)
{
    return c == ' ' || c == '\t';
}

// Reads one line into buf (at most size-1 bytes kept); the rest of a longer
// line is consumed and dropped so that it never becomes an argument of its
// own. False at end of file with nothing read.
bool readLine(FILE* f, char* buf, size_t size)
{
    size_t n = 0;
    int c;
    bool any = false;
    while ((c = std::getc(f)) != EOF) {
        any = true;
        if (n + 1 < size) buf[n++] = static_cast<char>(c);
        if (c == '\n') break;
    }
    buf[n] = '\0';
    return any;
}

} // namespace

void getBaseParameters(unsigned int argc, char** argv)
{
    if (argv == nullptr) return;
    SYS_PARM& parm = sysParm;
    for (unsigned int i = 1; i < argc; ++i) {
        if (argv[i] == nullptr) continue;
        std::vector<char> arg(std::strlen(argv[i]) + 1);
        if (tcharToChar(arg.data(), argv[i]) == 0) continue;

        char value[SYS_PARM_PATH_SIZE];
        value[0] = '\0';
        char* eq = std::strchr(arg.data(), '=');
        if (eq != nullptr) {
            *eq = '\0';
            SAFE_STRNCPY(value, eq + 1, sizeof value);
        }
        const char* key = arg.data();

        if (is(key, "TELN")) {
            parm.telnetPort = portValue(value);
        } else if (is(key, "RADIUS")) {
            parm.radius = portValue(value);
        } else if (is(key, "EMBEDDED")) {
            parm.externalServer = is(value, "YES") ? 0 : 1;
        } else if (is(key, "CLIPORT")) {
            parm.cliPort = portValue(value);
        } else if (is(key, "SWIPORT")) {
            parm.switchPort = portValue(value);
        } else if (is(key, "PORT")) {
            parm.socketPort = portValue(value);
        } else if (is(key, "SIM")) {
            parm.simulation = is(value, "ON");
        } else if (is(key, "SPEEDY")) {
            parm.makeSpeedy = is(value, "ON");
        } else if (is(key, "NODB")) {
            parm.noDbUpdate = is(value, "ON");
        } else if (is(key, "REDUNDANCY")) {
            parm.redundancyEnabled = !is(value, "NO");
        } else if (is(key, "IPSERVER1")) {
            parm.ipServer1 = c_inaddr(value);
        } else if (is(key, "IPSERVER2")) {
            parm.ipServer2 = c_inaddr(value);
        } else if (is(key, "TIMEOUT")) {
            parm.noMsgTimeout = is(value, "OFF");
        } else if (is(key, "TEMP")) {
            if (parm.pTempDir != nullptr) SAFE_STRNCPY(parm.pTempDir, value, SYS_PARM_PATH_SIZE);
        } else if (is(key, "BACKUP")) {
            if (parm.pBackupDir != nullptr) SAFE_STRNCPY(parm.pBackupDir, value, SYS_PARM_PATH_SIZE);
        } else if (is(key, "MAC")) {
            // Right-aligned in twelve digits, "0"-filled on the left.
            char digits[13];
            size_t len = std::strlen(value);
            if (len >= 12) {
                std::memcpy(digits, value, 12);
            } else {
                std::memset(digits, '0', 12 - len);
                std::memcpy(digits + (12 - len), value, len);
            }
            digits[12] = '\0';
            auto* mac = new unsigned char[6];
            AsciiToString(digits, 12, mac);
            delete[] parm.pMacAddr;
            parm.pMacAddr = mac;
        } else if (is(key, "PREVIOUS_LABEL")) {
            SAFE_STRNCPY(parm.previousLabel, value, sizeof parm.previousLabel);
        } else if (is(key, "IP2")) {
            parm.secondIp = c_inaddr(value);
            std::cout << "\tOther BPIM Address:" << parm.secondIp << std::endl;
        } else if (is(key, "DISCOVER")) {
            parm.bDiscoverSwitches = true;
            std::cout << "\n\n\nDISCOVERING OTHER SWITCHES!\n\n\n" << std::flush;
        } else if (is(key, "LOCALIP") || is(key, "IP")) {
            parm.localIp = c_inaddr(value);
            std::cout << "\n\nOverriding default IP Address selection!  Using " << parm.localIp << " instead."
                      << std::endl;
        }
        // Unknown keys are ignored without a word.
    }
}

void GetBaseConfiguration(const char* fileName)
{
    if (fileName == nullptr) return;
    FILE* f = std::fopen(fileName, "r");
    if (f == nullptr) return;

    std::vector<std::string> args(1); // entry 0 stays empty, like a program name
    char line[MAX_CONFIG_LINE];
    while (args.size() < MAX_CONFIG_ARGS && readLine(f, line, sizeof line)) {
        char first = line[0];
        if (first == '\n' || first == '\r' || first == '\0' || first == '#' || first == '*') continue;
        const char* p = line;
        while (isBlank(*p)) ++p;
        const char* end = p;
        while (*end != '\0' && *end != '\r' && *end != '\n' && !isBlank(*end)) ++end;
        if (end == p) continue;
        args.emplace_back(p, end);
    }
    std::fclose(f);

    if (args.size() < 2) return;
    std::vector<char*> argv;
    argv.reserve(args.size());
    for (auto& a : args) argv.push_back(&a[0]);
    getBaseParameters(static_cast<unsigned int>(argv.size()), argv.data());
}

void parseCommandArgs()
{
    releaseBuffers(sysParm);
    std::memset(static_cast<void*>(&sysParm), 0, sizeof sysParm);

    // Warms the resolver; the answer itself is not needed.
    if (addrinfo* local = GetAddrInfo("localhost", AF_INET)) myfreeaddrinfo(local);

    sysParm.slotNbr = SYS_ADDR_UNDEFINED;
    sysParm.telnetPort = htons(35001);
    sysParm.switchPort = htons(3500);
    sysParm.switchModel = SW_MODEL_R723;
    sysParm.redundancyEnabled = true;

    sysParm.pLogDir = new char[SYS_PARM_PATH_SIZE]();
    // A working directory too long for the buffer falls back to a relative
    // "./log" rather than "/log" at the root.
    if (getcwd(sysParm.pLogDir, SYS_PARM_PATH_SIZE) == nullptr) SAFE_STRNCPY(sysParm.pLogDir, ".", SYS_PARM_PATH_SIZE);
    size_t used = std::strlen(sysParm.pLogDir);
    SAFE_STRNCPY(sysParm.pLogDir + used, "/log", static_cast<unsigned int>(SYS_PARM_PATH_SIZE - used));

    // The keys TEMP and BACKUP copy into these.
    sysParm.pTempDir = new char[SYS_PARM_PATH_SIZE]();
    sysParm.pBackupDir = new char[SYS_PARM_PATH_SIZE]();

    std::string logDir = sysParm.pLogDir;
    std::string mkdir = "mkdir " + logDir + " > /dev/null 2>&1";
    std::string chmod = "chmod 777 " + logDir + " > /dev/null 2>&1";
    if (std::system(mkdir.c_str()) != 0) {
    }
    if (std::system(chmod.c_str()) != 0) {
    }

    GetBaseConfiguration(configFile);
}
