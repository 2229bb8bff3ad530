// The configuration file: the input is written as a TAVRO.CONF and read into
// the start-up record, and a second, simple reader splits the same bytes into
// KEY=VALUE arguments by the file's rules; applying those arguments to the
// same defaults must give the same record.
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "Os/UDBServ.h"

namespace {

SYS_PARM g_defaults;
std::string g_file; // a TAVRO.CONF in a directory of this process

// Lines end at "\n"; only the first MAX_CONFIG_LINE - 1 bytes of a line
// count, and a NUL ends the text of a line. The first blank-free word of a
// line is an argument unless the line starts with a line end, "#" or "*".
std::vector<std::string> simpleSplit(const std::uint8_t* data, std::size_t size)
{
    std::vector<std::string> args(1);
    std::size_t at = 0;
    while (at < size && args.size() < MAX_CONFIG_ARGS) {
        std::size_t end = at;
        while (end < size && data[end] != '\n') ++end;
        const std::size_t withNewline = end < size ? end + 1 : end;
        std::string line(reinterpret_cast<const char*>(data) + at,
                         std::min<std::size_t>(withNewline - at, MAX_CONFIG_LINE - 1));
        at = withNewline;
        line = line.c_str(); // text ends at a NUL
        if (line.empty() || line[0] == '\n' || line[0] == '\r' || line[0] == '#' || line[0] == '*') continue;
        std::size_t p = 0;
        while (p < line.size() && (line[p] == ' ' || line[p] == '\t')) ++p;
        std::size_t q = p;
        while (q < line.size() && line[q] != '\r' && line[q] != '\n' && line[q] != ' ' && line[q] != '\t') ++q;
        if (q > p) args.push_back(line.substr(p, q - p));
    }
    return args;
}

void resetRecord()
{
    char* temp = sysParm.pTempDir;
    char* backup = sysParm.pBackupDir;
    delete[] sysParm.pMacAddr;
    // Byte for byte, padding included: the two records are compared so.
    std::memcpy(static_cast<void*>(&sysParm), &g_defaults, sizeof sysParm);
    sysParm.pTempDir = temp;
    sysParm.pBackupDir = backup;
    std::memset(temp, 0, SYS_PARM_PATH_SIZE);
    std::memset(backup, 0, SYS_PARM_PATH_SIZE);
}

struct Snapshot {
    std::vector<unsigned char> record;
    std::string temp, backup;
    std::vector<unsigned char> mac;
};

Snapshot snapshot()
{
    Snapshot s;
    SYS_PARM copy;
    std::memcpy(static_cast<void*>(&copy), &sysParm, sizeof copy);
    copy.pTempDir = copy.pBackupDir = nullptr;
    copy.pMacAddr = nullptr;
    s.record.resize(sizeof copy);
    std::memcpy(s.record.data(), &copy, sizeof copy);
    // Every text buffer stays terminated inside its size.
    FUZZ_CHECK(strnlen(sysParm.pTempDir, SYS_PARM_PATH_SIZE) < SYS_PARM_PATH_SIZE);
    FUZZ_CHECK(strnlen(sysParm.pBackupDir, SYS_PARM_PATH_SIZE) < SYS_PARM_PATH_SIZE);
    FUZZ_CHECK(strnlen(sysParm.previousLabel, sizeof sysParm.previousLabel) < sizeof sysParm.previousLabel);
    s.temp = sysParm.pTempDir;
    s.backup = sysParm.pBackupDir;
    if (sysParm.pMacAddr != nullptr) s.mac.assign(sysParm.pMacAddr, sysParm.pMacAddr + 6);
    return s;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz_support::quietStdout();
    char dir[] = "/tmp/tavro-fuzz-conf-XXXXXX";
    if (mkdtemp(dir) == nullptr) fuzz_support::fail(__FILE__, __LINE__, "no temporary directory");
    g_file = std::string(dir) + "/TAVRO.CONF";
    static std::string s_dir = dir;
    std::atexit([] {
        std::remove(g_file.c_str());
        ::rmdir(s_dir.c_str());
    });
    std::memset(static_cast<void*>(&g_defaults), 0, sizeof g_defaults);
    g_defaults = SYS_PARM();
    g_defaults.pLogDir = nullptr;
    g_defaults.pTempDir = g_defaults.pBackupDir = nullptr;
    g_defaults.pMacAddr = nullptr;
    sysParm = g_defaults;
    sysParm.pTempDir = new char[SYS_PARM_PATH_SIZE]();
    sysParm.pBackupDir = new char[SYS_PARM_PATH_SIZE]();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FILE* f = std::fopen(g_file.c_str(), "wb");
    FUZZ_CHECK(f != nullptr);
    FUZZ_CHECK(std::fwrite(data, 1, size, f) == size);
    std::fclose(f);

    resetRecord();
    GetBaseConfiguration(g_file.c_str());
    const Snapshot fromFile = snapshot();

    resetRecord();
    std::vector<std::string> args = simpleSplit(data, size);
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(&a[0]);
    getBaseParameters(static_cast<unsigned>(argv.size()), argv.data());
    const Snapshot fromArgs = snapshot();

    FUZZ_CHECK(fromFile.record == fromArgs.record);
    FUZZ_CHECK(fromFile.temp == fromArgs.temp);
    FUZZ_CHECK(fromFile.backup == fromArgs.backup);
    FUZZ_CHECK(fromFile.mac == fromArgs.mac);
    return 0;
}
