// tavro-switchsim: a switch on the desk. See --help.

#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <sstream>
#include <string>
#include <unistd.h>

#include "Ap/ApBase.h"
#include "SwitchSimulator.h"

namespace {

const char kUsage[] =
    "Usage: tavro-switchsim [options]\n"
    "\n"
    "Simulates the switch for applications built on libTAVRO: listens on the two\n"
    "switch services, answers the library's commands, sends switch-initiated\n"
    "commands, and prints one line per frame. Stops on SIGINT or SIGTERM.\n"
    "\n"
    "Listening:\n"
    "  --address ADDR         IPv4 address to listen on (default 127.0.0.1)\n"
    "  --snmp-port PORT       SNMP agent service port (default 58991; 0: any free port; off: none)\n"
    "  --pce-port PORT        PCE process service port (default 58992; 0: any free port; off: none)\n"
    "  --own-addr N           source address put on everything sent (default 1)\n"
    "\n"
    "Answers (to every command that asks for one):\n"
    "  --status CODE=STATUS   answer CODE with STATUS instead of RSP_OK; repeatable; numbers or\n"
    "                         names, e.g. --status 10002=4 or --status CMD_CONN_PORT=RSP_INV_CMD\n"
    "  --ports N              entries (blade ports) per raw-statistics reply (default 8)\n"
    "  CMD_GET_BLADE_RAW_STATS (100005) is answered with counters of the requested slot\n"
    "  (0-19; others get RSP_NO_DEVICE) that grow with the seconds since start.\n"
    "\n"
    "Switch-initiated commands:\n"
    "  --heartbeat-ms N       send CMD_HEARTBEAT (answer required) to every linked client\n"
    "                         every N ms (default 10000; 0: never)\n"
    "  --answer-timeout-ms N  report a command as unanswered after N ms (default 5000)\n"
    "  --send CODE[:HEX]      send CODE with payload HEX (e.g. 40010:0a0b0c) to each client once\n"
    "                         its link test header has arrived; repeatable\n"
    "  --send-every DUR       send the --send commands again every DUR to every linked client\n"
    "                         (e.g. 500ms, 5s; a plain number is milliseconds)\n"
    "  --send-no-rsp          send the --send commands without asking for an answer\n"
    "\n"
    "Faults:\n"
    "  --reverse              answer and send in the opposite byte order to the client's\n"
    "  --delay-ms N           hold every answer N ms (answers keep their order)\n"
    "  --drop-every N         swallow every Nth answer on a connection\n"
    "  --close-after N        close a connection once it has sent N frames (link tests not counted)\n"
    "\n"
    "Output:\n"
    "  --quiet                no transcript, only the start and end lines\n"
    "  --pcap FILE            write every connection's traffic, as read and sent, to FILE as a\n"
    "                         pcap of TCP/IPv4 packets (one packet per read; see tools/wireshark)\n"
    "  --pcap-segment N       at most N payload bytes per packet in that file (default 65495)\n"
    "  --help                 this text\n"
    "\n"
    "Transcript: '<<' a frame received, '>>' a frame sent, '--' an event, '!!' a problem;\n"
    "#N is the connection. A frame line shows the type, command, sequence number,\n"
    "status (CMD_WITH_RSP... for commands, RSP_... and err= for responses), source\n"
    "address, payload and frame bytes, and the byte order relative to this host.\n";

// SIGINT and SIGTERM stay blocked in every thread and are taken by
// sigwait: a handler could run on any thread, and a sanitizer runtime may
// hold a signal back until that thread's next library call, which a thread
// idle in poll() never makes.
sigset_t stopSignals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

void waitForStopSignal()
{
    const sigset_t set = stopSignals();
    int sig = 0;
    while (sigwait(&set, &sig) != 0) {
    }
}

bool parseUnsigned(const std::string& s, unsigned long max, unsigned long& out)
{
    if (s.empty() || s[0] == '-' || s[0] == '+') return false;
    char* end = nullptr;
    errno = 0;
    const unsigned long v = std::strtoul(s.c_str(), &end, 0);
    if (errno != 0 || *end != '\0' || v > max) return false;
    out = v;
    return true;
}

bool parseCode(const std::string& s, std::uint32_t& code)
{
    unsigned long v;
    if (parseUnsigned(s, 0xFFFFFFFFul, v)) {
        code = std::uint32_t(v);
        return true;
    }
    for (std::int32_t c = 0; c < 120000; ++c) {
        const char* name = commandCodeName(c);
        if (name && s == name) {
            code = std::uint32_t(c);
            return true;
        }
    }
    return false;
}

bool parseStatus(const std::string& s, std::uint32_t& status)
{
    unsigned long v;
    if (parseUnsigned(s, 0xFFFFFFFFul, v)) {
        status = std::uint32_t(v);
        return true;
    }
    for (std::int32_t st = 0; st < 32; ++st) {
        std::ostringstream os;
        os << RSP_STATUS(st);
        if (os.str() == s) {
            status = std::uint32_t(st);
            return true;
        }
    }
    return false;
}

bool parseHex(std::string s, switchsim::Bytes& out)
{
    if (s.size() >= 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X')) s.erase(0, 2);
    if (s.size() % 2 != 0) return false;
    out.clear();
    for (std::size_t i = 0; i < s.size(); i += 2) {
        unsigned long v;
        if (!std::isxdigit(static_cast<unsigned char>(s[i])) || !std::isxdigit(static_cast<unsigned char>(s[i + 1])) ||
            !parseUnsigned("0x" + s.substr(i, 2), 0xFF, v))
            return false;
        out.push_back(std::uint8_t(v));
    }
    return true;
}

bool parseDurationMs(std::string s, unsigned& ms)
{
    unsigned long scale = 1;
    if (s.size() > 2 && s.compare(s.size() - 2, 2, "ms") == 0)
        s.erase(s.size() - 2);
    else if (s.size() > 1 && s.back() == 's') {
        s.pop_back();
        scale = 1000;
    }
    unsigned long v;
    if (!parseUnsigned(s, 0xFFFFFFFFul / scale, v)) return false;
    ms = unsigned(v * scale);
    return true;
}

bool parsePort(const std::string& s, int& port)
{
    unsigned long v;
    if (s == "off") {
        port = -1;
        return true;
    }
    if (!parseUnsigned(s, 65535, v)) return false;
    port = int(v);
    return true;
}

int usageError(const std::string& what)
{
    std::cerr << "tavro-switchsim: " << what << "\n(try --help)\n";
    return 2;
}

} // namespace

int main(int argc, char** argv)
{
    switchsim::Options opts;
    opts.heartbeatMs = 10000;
    opts.record = false; // a long run must not grow without bound
    bool quiet = false;
    bool sendNoRsp = false;

    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&](std::string& v) {
            if (i + 1 >= argc) return false;
            v = argv[++i];
            return true;
        };
        std::string v;
        unsigned long n = 0;
        if (arg == "--help" || arg == "-h") {
            std::cout << kUsage;
            return 0;
        } else if (arg == "--quiet") {
            quiet = true;
        } else if (arg == "--reverse") {
            opts.faults.reverse = true;
        } else if (arg == "--send-no-rsp") {
            sendNoRsp = true;
        } else if (arg == "--pcap") {
            if (!value(opts.pcap) || opts.pcap.empty()) return usageError("--pcap needs a file name");
        } else if (arg == "--address") {
            if (!value(opts.address)) return usageError("--address needs a value");
        } else if (arg == "--snmp-port" || arg == "--pce-port") {
            int& port = arg == "--snmp-port" ? opts.snmpPort : opts.pcePort;
            if (!value(v) || !parsePort(v, port)) return usageError(arg + " needs a port number or off");
        } else if (arg == "--status") {
            const auto eq = value(v) ? v.find('=') : std::string::npos;
            std::uint32_t code, status;
            if (eq == std::string::npos || !parseCode(v.substr(0, eq), code) || !parseStatus(v.substr(eq + 1), status))
                return usageError("--status needs CODE=STATUS, e.g. 10002=4");
            opts.status[code] = status;
        } else if (arg == "--send") {
            switchsim::SwitchCommand cmd;
            if (!value(v)) return usageError("--send needs CODE[:HEX]");
            const auto colon = v.find(':');
            if (!parseCode(v.substr(0, colon), cmd.code) ||
                (colon != std::string::npos && !parseHex(v.substr(colon + 1), cmd.payload)))
                return usageError("--send needs CODE[:HEX], e.g. 40010:0a0b0c");
            opts.sends.push_back(cmd);
        } else if (arg == "--send-every") {
            if (!value(v) || !parseDurationMs(v, opts.sendEveryMs))
                return usageError("--send-every needs a duration such as 500ms or 5s");
        } else if (arg == "--heartbeat-ms" || arg == "--answer-timeout-ms" || arg == "--delay-ms" ||
                   arg == "--drop-every" || arg == "--close-after" || arg == "--ports" || arg == "--own-addr" ||
                   arg == "--pcap-segment") {
            if (!value(v) || !parseUnsigned(v, arg == "--ports" ? 0xFFFFul : 0xFFFFFFFFul, n))
                return usageError(arg + " needs a number");
            if (arg == "--heartbeat-ms") opts.heartbeatMs = unsigned(n);
            if (arg == "--answer-timeout-ms") opts.answerTimeoutMs = unsigned(n);
            if (arg == "--delay-ms") opts.faults.delayMs = unsigned(n);
            if (arg == "--drop-every") opts.faults.dropEvery = unsigned(n);
            if (arg == "--close-after") opts.faults.closeAfter = unsigned(n);
            if (arg == "--ports") opts.statsPorts = unsigned(n);
            if (arg == "--own-addr") opts.ownAddr = std::uint32_t(n);
            if (arg == "--pcap-segment") opts.pcapSegment = unsigned(n);
        } else {
            return usageError("unknown option " + arg);
        }
    }
    for (auto& cmd : opts.sends) cmd.rspReq = !sendNoRsp;
    if (!quiet)
        opts.transcript = [](const std::string& line) {
            std::fputs(line.c_str(), stdout);
            std::fputc('\n', stdout);
            std::fflush(stdout);
        };

    const sigset_t stop = stopSignals();
    if (pthread_sigmask(SIG_BLOCK, &stop, nullptr) != 0) { // before any thread starts
        std::perror("tavro-switchsim: pthread_sigmask");
        return 1;
    }
    std::signal(SIGPIPE, SIG_IGN);

    switchsim::SwitchSimulator sim;
    std::string error;
    if (!sim.start(opts, &error)) {
        std::cerr << "tavro-switchsim: " << error << '\n';
        return 1;
    }
    std::ostringstream os;
    os << "tavro-switchsim: listening on " << opts.address;
    if (opts.snmpPort >= 0) os << ", SNMP agent port " << sim.snmpPort();
    if (opts.pcePort >= 0) os << ", PCE process port " << sim.pcePort();
    std::cout << os.str() << std::endl;

    waitForStopSignal();
    sim.stop();
    const switchsim::Counters c = sim.counters();
    std::cout << "tavro-switchsim: stopped; connections=" << c.connections << " received=" << c.framesReceived
              << " sent=" << c.framesSent << " dropped=" << c.answersDropped << " answered=" << c.answered
              << " unanswered=" << c.unanswered << " commands=" << c.commandsSent
              << " unexpected=" << c.unexpectedResponses << std::endl;
    return 0;
}
