// tavroctl: a switch from the shell. See --help and tavroctl(1).
#include <TAVRO/TAVRO.h>
#include <TAVRO/TAVRORawStats.h>
#include <TAVRO/TAVRORequest.h>

#include <fnmatch.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "CodeTable.h"
#include "Hex.h"
#include "RawStatsText.h"

namespace {

using namespace tavroctl;

// What tavroctl prints goes here: the process's standard output as it was
// at start. The library's own chatter on standard output ("Send response
// result=..." when it answers the switch) is moved to standard error, so
// that scripts reading tavroctl's output get only that.
FILE* g_out = stdout;

void separateLibraryOutput()
{
    std::fflush(stdout);
    const int fd = ::dup(STDOUT_FILENO);
    if (fd < 0) return;
    FILE* f = ::fdopen(fd, "w");
    if (f == nullptr) {
        ::close(fd);
        return;
    }
    ::dup2(STDERR_FILENO, STDOUT_FILENO);
    g_out = f;
}

enum ExitCode {
    kOk = 0,
    kBadStatus = 1, // the switch answered, but not with RSP_OK
    kUsage = 2,     // bad command line: unknown name, bad hex, bad number
    kNoConnection = 3,
    kTimeOut = 4, // no answer within the time-out
    kLibrary = 5, // the library could not start
    kInterrupted = 130,
};

const char kUsageText[] =
    "Usage: tavroctl [options] COMMAND [ARGS]\n"
    "\n"
    "Talks to the switch through libTAVRO, which connects to the switch's services on\n"
    "this host (127.0.0.1): run it on the switch's controller or beside tavro-switchsim.\n"
    "To reach a switch elsewhere, forward its two service ports to this host first:\n"
    "  ssh -N -L 58991:127.0.0.1:58991 -L 58992:127.0.0.1:58992 user@switch-controller\n"
    "\n"
    "Commands:\n"
    "  send CODE [HEX]        send a command without waiting for an answer\n"
    "  request CODE [HEX]     send a command and print its answer: status and error code\n"
    "                         by name and number, payload as a hex dump\n"
    "  stats SLOT             raw counters of the blade in SLOT, as a table (or --json)\n"
    "  listen [CODE...]       print every command the switch sends (all codes, or those\n"
    "                         given) and answer those that ask, until Ctrl-C\n"
    "  codes [PATTERN]        list command codes whose name matches PATTERN (a part of the\n"
    "                         name, or a pattern with * and ?) or whose number is PATTERN\n"
    "  status NUMBER|NAME     look up a response status (RSP_...) or API status (I_...)\n"
    "\n"
    "CODE is a command name (CMD_CONN_PORT, or CONN_PORT) or number (10002, 0x2712).\n"
    "HEX is the payload as hex digits: 0a0b0c, 0a:0b:0c or 0x0a0b0c.\n"
    "\n"
    "Options:\n"
    "  --service pce|snmp     service to connect to (default pce, port 58992; snmp: 58991)\n"
    "  --connect-timeout S    give up connecting after S seconds (default 10)\n"
    "  --timeout MS           request: wait MS ms for the answer (default 0: the library's 10 s)\n"
    "  --json                 stats: print JSON instead of a table\n"
    "  --answer STATUS        listen: answer with STATUS (default RSP_OK)\n"
    "  --workdir DIR          where the library reads TAVRO.CONF and writes log/Test.Debug.log\n"
    "                         (default $XDG_STATE_HOME/tavroctl or ~/.local/state/tavroctl)\n"
    "  --version              print tavroctl's and the library's version\n"
    "  -h, --help             this text\n"
    "\n"
    "Exit status: 0 success; 1 the switch answered with a status other than RSP_OK (or an\n"
    "unusable reply); 2 bad command line; 3 no connection within the time allowed;\n"
    "4 no answer within the time-out; 5 the library did not start; 130 interrupted.\n";

struct Options {
    std::string command;
    std::vector<std::string> args;
    SW_SERVICE_TYPE service = SW_SERVICE_PCE;
    double connectTimeoutS = 10;
    long long timeoutMs = 0;
    bool json = false;
    long long answer = RSP_OK;
    std::string workdir;
    std::vector<std::string> given; // options seen, to refuse those that do not apply
};

int usageError(const std::string& message)
{
    std::fprintf(stderr, "tavroctl: %s\nTry 'tavroctl --help'.\n", message.c_str());
    return kUsage;
}

void printSuggestions(const std::string& type, const std::string& text)
{
    const std::vector<std::string> near = nearestNames(type, text);
    if (near.empty()) return;
    std::string list;
    for (const std::string& n : near) list += (list.empty() ? "" : ", ") + n;
    std::fprintf(stderr, "tavroctl: did you mean %s?\n", list.c_str());
}

bool parseCommandCode(const std::string& text, long long& code)
{
    if (parseCode("COMMAND_CODE", text, code)) return true;
    std::fprintf(stderr, "tavroctl: unknown command code '%s'\n", text.c_str());
    printSuggestions("COMMAND_CODE", text);
    return false;
}

bool parsePayload(const Options& o, std::size_t index, Bytes& payload)
{
    if (o.args.size() <= index) return true;
    std::string error;
    if (parseHex(o.args[index], payload, error)) return true;
    std::fprintf(stderr, "tavroctl: bad payload '%s': %s\n", o.args[index].c_str(), error.c_str());
    return false;
}

std::string codeText(const char* type, long long value)
{
    const char* name = nameOf(type, value);
    return std::string(name != nullptr ? name : "unnamed") + " (" + std::to_string(value) + ")";
}

bool parseNumberIn(const std::string& text, long long lo, long long hi, long long& value)
{
    char* end = nullptr;
    errno = 0;
    const long long v = std::strtoll(text.c_str(), &end, 10);
    if (text.empty() || errno != 0 || *end != '\0' || v < lo || v > hi) return false;
    value = v;
    return true;
}

int parseOptions(int argc, char** argv, Options& o)
{
    // The first word is the command; "-103" is an argument, not an option.
    auto positional = [&o](const std::string& word) {
        if (o.command.empty())
            o.command = word;
        else
            o.args.push_back(word);
    };
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg.size() < 2 || arg[0] != '-' || (arg[1] != '-' && arg != "-h")) {
            positional(arg);
            continue;
        }
        std::string value;
        bool hasValue = false;
        const std::size_t eq = arg.find('=');
        if (eq != std::string::npos) {
            value = arg.substr(eq + 1);
            arg = arg.substr(0, eq);
            hasValue = true;
        }
        auto next = [&](std::string& out) {
            if (hasValue) {
                out = value;
                return true;
            }
            if (i + 1 >= argc) return false;
            out = argv[++i];
            return true;
        };
        if (arg == "-h" || arg == "--help") {
            std::fputs(kUsageText, stdout);
            std::exit(kOk);
        }
        if (arg == "--version") {
            int major = 0, minor = 0, patch = 0;
            I_TAVRO_Version(&major, &minor, &patch);
            std::printf("tavroctl %d.%d.%d (libTAVRO %d.%d.%d)\n", TAVRO_VERSION_MAJOR, TAVRO_VERSION_MINOR,
                        TAVRO_VERSION_PATCH, major, minor, patch);
            std::exit(kOk);
        }
        if (arg == "--") {
            for (++i; i < argc; ++i) positional(argv[i]);
            break;
        }
        if (arg == "--json") {
            if (hasValue) return usageError("--json takes no value");
            o.json = true;
            o.given.push_back(arg);
            continue;
        }
        std::string v;
        if (arg != "--service" && arg != "--connect-timeout" && arg != "--timeout" && arg != "--answer" &&
            arg != "--workdir")
            return usageError("unknown option '" + arg + "'");
        if (!next(v)) return usageError(arg + " needs a value");
        o.given.push_back(arg);
        if (arg == "--service") {
            if (v == "pce")
                o.service = SW_SERVICE_PCE;
            else if (v == "snmp")
                o.service = SW_SERVICE_SNMP;
            else
                return usageError("--service is pce or snmp, not '" + v + "'");
        } else if (arg == "--connect-timeout") {
            char* end = nullptr;
            o.connectTimeoutS = std::strtod(v.c_str(), &end);
            if (v.empty() || *end != '\0' || !(o.connectTimeoutS > 0) || o.connectTimeoutS > 86400)
                return usageError("--connect-timeout takes seconds above 0, not '" + v + "'");
        } else if (arg == "--timeout") {
            if (!parseNumberIn(v, 0, 0x7FFFFFFF, o.timeoutMs))
                return usageError("--timeout takes milliseconds (0 or more), not '" + v + "'");
        } else if (arg == "--answer") {
            if (!parseCode("RSP_STATUS", v, o.answer)) {
                std::fprintf(stderr, "tavroctl: unknown response status '%s'\n", v.c_str());
                printSuggestions("RSP_STATUS", v);
                return kUsage;
            }
        } else {
            o.workdir = v;
        }
    }
    return -1;
}

// Options that only some commands take.
int checkApplies(const Options& o)
{
    struct Rule {
        const char* option;
        const char* command;
    } const rules[] = {{"--timeout", "request"}, {"--json", "stats"}, {"--answer", "listen"}};
    for (const Rule& r : rules)
        for (const std::string& g : o.given)
            if (g == r.option && o.command != r.command)
                return usageError(std::string(r.option) + " applies to '" + r.command + "' only");
    return -1;
}

// ---------------------------------------------------------------------------
// Signals: one thread takes SIGINT and SIGTERM for the whole process, so the
// library's own threads never see them.

std::mutex g_stopLock;
std::condition_variable g_stopChanged;
bool g_stop = false;
bool g_listening = false;

void blockStopSignals(sigset_t& set)
{
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void startSignalThread(const sigset_t& set)
{
    std::thread([set] {
        int sig = 0;
        while (sigwait(&set, &sig) != 0) {
        }
        std::unique_lock<std::mutex> lk(g_stopLock);
        if (!g_listening) {
            std::fputs("tavroctl: interrupted\n", stderr);
            std::fflush(g_out);
            std::_Exit(kInterrupted);
        }
        g_stop = true;
        g_stopChanged.notify_all();
    }).detach();
}

// ---------------------------------------------------------------------------

bool enterWorkdir(const Options& o)
{
    std::string dir = o.workdir;
    if (dir.empty()) {
        const char* state = std::getenv("XDG_STATE_HOME");
        const char* home = std::getenv("HOME");
        if (state != nullptr && *state != '\0')
            dir = std::string(state) + "/tavroctl";
        else if (home != nullptr && *home != '\0')
            dir = std::string(home) + "/.local/state/tavroctl";
        else
            dir = "/tmp/tavroctl-" + std::to_string(getuid());
        // mkdir -p
        for (std::size_t slash = 1; slash != std::string::npos; slash = dir.find('/', slash + 1))
            ::mkdir(dir.substr(0, slash).c_str(), 0700);
        ::mkdir(dir.c_str(), 0700);
    }
    if (::chdir(dir.c_str()) == 0) return true;
    std::fprintf(stderr, "tavroctl: cannot use '%s' as working directory: %s\n", dir.c_str(), std::strerror(errno));
    return false;
}

const char* serviceName(SW_SERVICE_TYPE s)
{
    return s == SW_SERVICE_SNMP ? "SNMP agent" : "PCE process";
}

int servicePort(SW_SERVICE_TYPE s)
{
    return s == SW_SERVICE_SNMP ? 58991 : 58992;
}

// Keeps the switch's heartbeats answered while a command runs, as any
// client of the switch does, unless `listen` shows them.
bool g_listensToHeartbeat = false;

void onHeartbeat(COMMAND_CODE, const void*, uint32_t, CrRsp* response)
{
    I_TAVRO_SetResponseStatus(response, RSP_OK);
}

// Starts the library and connects within the time the user allows.
// I_SwitchConnect waits about 8 s whatever that is, so it runs aside.
int connectSwitch(const Options& o)
{
    if (!enterWorkdir(o)) return kUsage;
    separateLibraryOutput();
    if (!g_listensToHeartbeat) I_TAVRO_RegisterCommandHandler(CMD_HEARTBEAT, onHeartbeat);
    if (I_TAVRO_Initialize() != I_SUCCESS) {
        std::fputs("tavroctl: the library did not start (see log/Test.Debug.log in the working directory)\n", stderr);
        return kLibrary;
    }
    struct Attempt {
        std::mutex lock;
        std::condition_variable done;
        bool finished = false;
        I_STATUS result = I_ERR_NO_CONNECTION;
    };
    auto attempt = std::make_shared<Attempt>();
    const SW_SERVICE_TYPE service = o.service;
    std::thread([attempt, service] {
        const I_STATUS r = I_SwitchConnect(service);
        std::lock_guard<std::mutex> g(attempt->lock);
        attempt->result = r;
        attempt->finished = true;
        attempt->done.notify_all();
    }).detach();

    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(static_cast<long long>(o.connectTimeoutS * 1000));
    bool finished;
    {
        std::unique_lock<std::mutex> lk(attempt->lock);
        attempt->done.wait_until(lk, deadline, [&] { return attempt->finished; });
        finished = attempt->finished;
        if (finished && attempt->result == I_SUCCESS) return kOk;
    }
    // The session keeps trying after I_SwitchConnect gives up.
    while (finished && std::chrono::steady_clock::now() < deadline) {
        if (I_SwitchIsConnected() == I_SUCCESS) return kOk;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    std::fprintf(stderr,
                 "tavroctl: no connection to the switch's %s service on 127.0.0.1:%d within %g s\n"
                 "tavroctl: is the switch (or tavro-switchsim) running on this host, or its ports forwarded here?\n",
                 serviceName(o.service), servicePort(o.service), o.connectTimeoutS);
    std::fflush(g_out);
    // A connection attempt may still be under way inside the library.
    std::_Exit(kNoConnection);
}

int finish(int code)
{
    I_SwitchDisconnect();
    return code;
}

int cmdSend(const Options& o)
{
    long long code;
    Bytes payload;
    if (o.args.empty() || o.args.size() > 2) return usageError("send takes CODE [HEX]");
    if (!parseCommandCode(o.args[0], code) || !parsePayload(o, 1, payload)) return kUsage;
    const int rc = connectSwitch(o);
    if (rc != kOk) return rc;
    I_TAVRO_SendCommandNoResponse(COMMAND_CODE(code), payload.data(), unsigned(payload.size()));
    std::fprintf(g_out, "sent %s, %zu payload bytes\n", codeText("COMMAND_CODE", code).c_str(), payload.size());
    return finish(kOk);
}

// Sends and waits; prints nothing. kOk when an answer (of any status) came.
int exchange(const Options& o, long long code, const Bytes& payload, TAVRO_RESPONSE& rsp)
{
    const I_STATUS r = I_TAVRO_SendCommandWithResponse(COMMAND_CODE(code), payload.data(), unsigned(payload.size()),
                                                       unsigned(o.timeoutMs), &rsp);
    if (r == I_ERR_NO_CONNECTION) {
        std::fprintf(stderr, "tavroctl: the connection to the switch's %s service was lost\n", serviceName(o.service));
        return kNoConnection;
    }
    if (r != I_SUCCESS) {
        std::fprintf(stderr, "tavroctl: the library refused the command: %s\n", codeText("I_STATUS", r).c_str());
        return kUsage;
    }
    if (rsp.status == RSP_TIME_OUT) {
        std::fprintf(stderr, "tavroctl: no answer to %s within %lld ms\n", codeText("COMMAND_CODE", code).c_str(),
                     o.timeoutMs != 0 ? o.timeoutMs : 10000LL);
        return kTimeOut;
    }
    return kOk;
}

int cmdRequest(const Options& o)
{
    long long code;
    Bytes payload;
    if (o.args.empty() || o.args.size() > 2) return usageError("request takes CODE [HEX]");
    if (!parseCommandCode(o.args[0], code) || !parsePayload(o, 1, payload)) return kUsage;
    int rc = connectSwitch(o);
    if (rc != kOk) return rc;
    TAVRO_RESPONSE rsp;
    rc = exchange(o, code, payload, rsp);
    if (rc == kOk) {
        std::fprintf(g_out, "%s: status %s, error %s, %u payload bytes\n", codeText("COMMAND_CODE", code).c_str(),
                     codeText("RSP_STATUS", rsp.status).c_str(), codeText("I_STATUS", rsp.errorCode).c_str(),
                     rsp.dataSize);
        std::fputs(hexDump(static_cast<const std::uint8_t*>(rsp.data), rsp.dataSize).c_str(), g_out);
        if (rsp.status != RSP_OK) rc = kBadStatus;
    }
    I_TAVRO_FreeResponse(&rsp);
    return finish(rc);
}

int cmdStats(const Options& o)
{
    long long slot;
    if (o.args.size() != 1) return usageError("stats takes SLOT");
    if (!parseNumberIn(o.args[0], 0, 65535, slot))
        return usageError("SLOT is a number from 0 to 65535, not '" + o.args[0] + "'");
    int rc = connectSwitch(o);
    if (rc != kOk) return rc;
    // The same request I_GetRawStats makes, so that a refusal or a time-out
    // can be told apart from a short reply.
    const std::uint16_t req = std::uint16_t(slot);
    const Bytes payload(reinterpret_cast<const std::uint8_t*>(&req), reinterpret_cast<const std::uint8_t*>(&req) + 2);
    TAVRO_RESPONSE rsp;
    rc = exchange(o, CMD_GET_BLADE_RAW_STATS, payload, rsp);
    if (rc == kOk && rsp.status != RSP_OK) {
        std::fprintf(stderr, "tavroctl: the switch refused raw statistics of slot %lld: %s\n", slot,
                     codeText("RSP_STATUS", rsp.status).c_str());
        rc = kBadStatus;
    }
    if (rc == kOk) {
        std::string text;
        const int n = TAVRO_RawStatsEntries(rsp.data);
        if (n >= 0 && rsp.dataSize >= std::size_t(TAVRO_RAW_STATS_HEAD_SIZE + n * TAVRO_RAW_STATS_ENTRY_SIZE))
            text = o.json ? rawStatsJson(rsp.data) : rawStatsTable(rsp.data);
        if (text.empty()) {
            std::fprintf(
                stderr,
                "tavroctl: the reply for slot %lld is not a raw statistics block this tool can read (%u bytes)\n", slot,
                rsp.dataSize);
            rc = kBadStatus;
        }
        std::fputs(text.c_str(), g_out);
    }
    I_TAVRO_FreeResponse(&rsp);
    return finish(rc);
}

RSP_STATUS g_answer = RSP_OK;
std::mutex g_printLock;

void onSwitchCommand(COMMAND_CODE code, const void* data, uint32_t size, CrRsp* response)
{
    char stamp[32];
    const auto now = std::chrono::system_clock::now();
    const std::time_t secs = std::chrono::system_clock::to_time_t(now);
    const long ms = long(std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000);
    std::tm tm;
    localtime_r(&secs, &tm);
    std::strftime(stamp, sizeof stamp, "%H:%M:%S", &tm);
    const std::string hex = hexString(static_cast<const std::uint8_t*>(data), size);
    {
        std::lock_guard<std::mutex> g(g_printLock);
        std::fprintf(g_out, "%s.%03ld  %s  seq=%u  %u bytes%s%s\n", stamp, ms, codeText("COMMAND_CODE", code).c_str(),
                     I_TAVRO_GetResponseSeqNbr(response), size, hex.empty() ? "" : "  ", hex.c_str());
        std::fflush(g_out);
    }
    I_TAVRO_SetResponseStatus(response, g_answer);
}

int cmdListen(const Options& o)
{
    std::vector<long long> codes;
    for (const std::string& a : o.args) {
        long long code;
        if (!parseCommandCode(a, code)) return kUsage;
        codes.push_back(code);
    }
    if (codes.empty())
        for (const CodeEntry* e : codesOfType("COMMAND_CODE")) codes.push_back(e->value);
    g_answer = RSP_STATUS(o.answer);
    for (long long c : codes) g_listensToHeartbeat = g_listensToHeartbeat || c == CMD_HEARTBEAT;
    for (long long c : codes) I_TAVRO_RegisterCommandHandler(COMMAND_CODE(c), onSwitchCommand);
    {
        std::lock_guard<std::mutex> g(g_stopLock);
        g_listening = true;
    }
    std::fprintf(stderr, "tavroctl: listening to the switch's %s service (127.0.0.1:%d); Ctrl-C stops\n",
                 serviceName(o.service), servicePort(o.service));
    const int rc = connectSwitch(o);
    if (rc != kOk) return rc;
    {
        std::unique_lock<std::mutex> lk(g_stopLock);
        g_stopChanged.wait(lk, [] { return g_stop; });
    }
    // The handler table is not locked: it stays as it is while the session
    // may still dispatch; the process ends right after.
    return finish(kOk);
}

int cmdCodes(const Options& o)
{
    if (o.args.size() > 1) return usageError("codes takes at most one PATTERN");
    const std::string pattern = o.args.empty() ? "*" : o.args[0];
    long long number;
    const bool isNumber = parseNumberIn(pattern, INT32_MIN, INT32_MAX, number) ||
                          (pattern.rfind("0x", 0) == 0 && parseCode("COMMAND_CODE", pattern, number));
    const bool glob = pattern.find_first_of("*?[") != std::string::npos;
    int shown = 0;
    for (const CodeEntry* e : codesOfType("COMMAND_CODE")) {
        bool match;
        if (isNumber)
            match = e->value == number;
        else if (glob)
            match = fnmatch(pattern.c_str(), e->name, FNM_CASEFOLD) == 0;
        else
            match = strcasestr(e->name, pattern.c_str()) != nullptr;
        if (!match) continue;
        std::fprintf(g_out, "%7lld  %s\n", e->value, e->name);
        ++shown;
    }
    if (shown != 0) return kOk;
    std::fprintf(stderr, "tavroctl: no command code matches '%s'\n", pattern.c_str());
    if (!isNumber) printSuggestions("COMMAND_CODE", pattern);
    return kUsage;
}

int cmdStatus(const Options& o)
{
    if (o.args.size() != 1) return usageError("status takes NUMBER or NAME");
    const std::string& text = o.args[0];
    int shown = 0;
    for (const char* type : {"RSP_STATUS", "I_STATUS"}) {
        long long value;
        if (!parseCode(type, text, value)) continue;
        const char* name = nameOf(type, value);
        if (name == nullptr) continue;
        std::fprintf(g_out, "%-10s  %7lld  %s\n", type, value, name);
        ++shown;
    }
    if (shown != 0) return kOk;
    std::fprintf(stderr, "tavroctl: no response or API status is called or numbered '%s'\n", text.c_str());
    std::vector<std::string> near = nearestNames("RSP_STATUS", text, 2);
    for (const std::string& n : nearestNames("I_STATUS", text, 3)) near.push_back(n);
    if (!near.empty()) {
        std::string list;
        for (const std::string& n : near) list += (list.empty() ? "" : ", ") + n;
        std::fprintf(stderr, "tavroctl: did you mean %s?\n", list.c_str());
    }
    return kUsage;
}

} // namespace

int main(int argc, char** argv)
{
    Options o;
    int rc = parseOptions(argc, argv, o);
    if (rc >= 0) return rc;
    if (o.command.empty()) return usageError("no command given");
    rc = checkApplies(o);
    if (rc >= 0) return rc;

    sigset_t stopSignals;
    blockStopSignals(stopSignals);
    startSignalThread(stopSignals);

    struct Command {
        const char* name;
        int (*run)(const Options&);
    } const commands[] = {{"send", cmdSend},     {"request", cmdRequest}, {"stats", cmdStats},
                          {"listen", cmdListen}, {"codes", cmdCodes},     {"status", cmdStatus}};
    for (const Command& c : commands)
        if (o.command == c.name) {
            rc = c.run(o);
            std::fflush(g_out);
            return rc;
        }
    return usageError("unknown command '" + o.command + "'");
}
