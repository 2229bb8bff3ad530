#include "Common/Utility/UtlSystem.h"

#include <arpa/inet.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <mutex>
#include <vector>

#include "Common/Utility/UtlDebug.h"
#include "Common/Utility/UtlSystemInternal.h"

namespace {

const char* const LOCAL_CALL_IPADDR = "127.0.0.1";
const char* const TERMINATE_LINE = "coreDumpTERMINATE!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!\n";
// Lets the last lines reach the log before the process goes.
constexpr DWORD CORE_DUMP_DRAIN_MS = 2000;

std::mutex runnerLock;
utl_system_internal::CommandRunner runner;

std::string dotted(const in_addr& a)
{
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &a, text, sizeof text);
    return text;
}

bool isLocal(const c_inaddr& ip)
{
    return ip.s_addr == 0 || ip.s_addr == htonl(INADDR_LOOPBACK);
}

void trace(const std::ostringstream& os)
{
    debugOut(os.str().c_str());
}

} // namespace

namespace utl_system_internal {

CommandRunner setCommandRunner(CommandRunner r)
{
    std::lock_guard<std::mutex> g(runnerLock);
    CommandRunner previous = std::move(runner);
    runner = std::move(r);
    return previous;
}

int runCommand(const std::string& commandLine)
{
    CommandRunner r;
    {
        std::lock_guard<std::mutex> g(runnerLock);
        r = runner;
    }
    return r ? r(commandLine) : std::system(commandLine.c_str());
}

} // namespace utl_system_internal

int systemCall(const std::string& command, const c_inaddr& ip, SYSTEM_CALL_MODE mode, SYS_CALL_DEBUG_MODE debug,
               const char* caller)
{
    const char* tag = caller ? caller : "systemCall";
    const bool remote = !isLocal(ip);
    const std::string address = dotted(ip);
    if (debug == SYS_CALL_DEBUG_ALWAYS) {
        std::ostringstream os;
        os << tag << ": ipAddr[" << address << "]  LOCAL_CALL_IPADDR [" << LOCAL_CALL_IPADDR << "]  remote["
           << (remote ? "true" : "false") << "]\n";
        os << tag << ": bRemote[" << (remote ? "true" : "false") << "]\n";
        trace(os);
    }

    std::string line;
    if (remote) {
        line = "ssh -t -o StrictHostKeyChecking=no corvid@" + address;
        // A command with its own quoting is passed as it stands.
        if (command.find('\'') != std::string::npos)
            line += " " + command;
        else
            line += " 'cd /Tessara/Server; " + command + "'";
    } else {
        line = command;
    }
    if (mode == BACKGROUND_SYSTEM_CALL) line += " &";

    if (debug == SYS_CALL_DEBUG_ALWAYS) {
        std::ostringstream os;
        os << tag << ": Executing [" << line << "]\n";
        trace(os);
    }
    const int status = utl_system_internal::runCommand(line);
    const bool report = debug != SYS_CALL_NO_DEBUG;

    if ((status & 0x7F) != 0) {
        if (report) {
            std::ostringstream os;
            if (WIFSIGNALED(status))
                os << tag << ": KILLED BY SIGNAL [ " << WTERMSIG(status) << " ]: rc[" << status << "] from [" << line
                   << "]\n";
            else
                os << tag << ": ABNORMAL TERMINATION: rc[" << status << "] from [" << line << "]\n";
            trace(os);
        }
        return -1;
    }
    const int rc = (status >> 8) & 0xFF;
    if (rc != 0 && report) {
        std::ostringstream os;
        os << tag << " ERROR: rc[" << rc << "] from [" << line << "]\n";
        trace(os);
    }
    return rc;
}

int systemCall(const std::stringstream& command, const c_inaddr& ip, SYSTEM_CALL_MODE mode, SYS_CALL_DEBUG_MODE debug,
               const char* caller)
{
    return systemCall(command.str(), ip, mode, debug, caller);
}

int changeOwnerToCorvid(const std::string& path, const c_inaddr& ip, CHANGE_OWNER_MODE mode)
{
    // The command is quoted as a whole for ssh; a local shell would take the
    // quoted text as one program name, so locally the outer quotes are left off.
    const std::string quote = isLocal(ip) ? "" : "'";
    std::string command;
    if (mode == CHANGE_OWNER_MODE_CHECK_FILE_EXIST)
        command =
            quote + "sudo /bin/sh -c \"if [ -f " + path + " ]; then chown corvid:corvid " + path + "; fi\"" + quote;
    else
        command = quote + "sudo chown corvid:corvid " + path + quote;

    const int rc = systemCall(command, ip, FOREGROUND_SYSTEM_CALL, SYS_CALL_DEBUG_ON_ERROR, "changeOwnerToCorvid");
    if (rc != 0) debugOut(("Can't change owner to corvid for " + path + " on " + dotted(ip) + "\n").c_str());
    return rc;
}

int changeOwnerToCorvid(const char* dir, const char* file, const c_inaddr& ip, CHANGE_OWNER_MODE mode)
{
    if (dir == nullptr || file == nullptr) return -1;
    return changeOwnerToCorvid(std::string(dir) + file, ip, mode);
}

int replaceLineToken(std::string& line, tokenreplace_t* tokens)
{
    int count = 0;
    for (tokenreplace_t* t = tokens; t != nullptr && !t->aSrcToken.empty(); ++t) {
        for (size_t pos = line.find(t->aSrcToken); pos != std::string::npos;
             pos = line.find(t->aSrcToken, pos + t->aReplaceToken.size())) {
            line.replace(pos, t->aSrcToken.size(), t->aReplaceToken);
            ++count;
        }
    }
    return count;
}

bool replaceFileToken(const char* inFile, const char* outFile, tokenreplace_t* tokens)
{
    if (inFile == nullptr || outFile == nullptr) return false;
    // Read everything first so that a file can be rewritten in place.
    std::ifstream in(inFile, std::ios::binary);
    if (!in) return false;
    std::vector<std::string> lines;
    bool lastEnded = true;
    for (std::string line; std::getline(in, line);) {
        lastEnded = !in.eof();
        lines.push_back(std::move(line));
    }
    if (in.bad()) return false;
    in.close();

    std::ofstream out(outFile, std::ios::binary | std::ios::trunc);
    if (!out) return false;
    for (size_t i = 0; i < lines.size(); ++i) {
        replaceLineToken(lines[i], tokens);
        out << lines[i];
        if (i + 1 < lines.size() || lastEnded) out << '\n';
    }
    out.close();
    return !out.fail();
}

int GetIpSwitchStr(const char* text, const char* separators, char (*out)[16])
{
    if (text == nullptr || out == nullptr) return -1;
    const char* seps = (separators && *separators) ? separators : " \t,;";
    int count = 0;
    const char* p = text;
    while (*p && count < IP_SWITCH_STR_MAX) {
        const size_t len = std::strcspn(p, seps);
        if (len > 0 && len < INET_ADDRSTRLEN) {
            char piece[INET_ADDRSTRLEN];
            std::memcpy(piece, p, len);
            piece[len] = '\0';
            in_addr a;
            if (inet_pton(AF_INET, piece, &a) == 1 && inet_ntop(AF_INET, &a, out[count], 16) != nullptr) ++count;
        }
        p += len;
        if (*p) ++p;
    }
    return count;
}

void coreDump(const char* reason)
{
    debugOut(TERMINATE_LINE);
    if (reason != nullptr && *reason) debugOut(("coreDump" + std::string(reason) + "\n").c_str());
    debugOut(TERMINATE_LINE);
    if (UtlDebug::IsDebugThreadRunning()) UtlDebug::GetTheUtlDebug()->WaitUntilDrained(CORE_DUMP_DRAIN_MS);
    std::cout.flush();
    std::fflush(nullptr);
    std::abort();
}
