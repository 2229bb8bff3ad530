// A tour of the switch API as an application uses it, through the public
// headers alone: initialise, register a heartbeat handler, connect, fetch
// the raw counters of a blade, send a command without response, answer the
// switch's heartbeats for a while, disconnect.
//
//   SwitchTour [--service pce|snmp] [--slot N] [--heartbeats N] [--wait-s N]
//
// Run it from a directory where it may create "log/" (the debug trace).
#include <TAVRO/TAVRO.h>
#include <TAVRO/TAVRORawStats.h>

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

namespace {

const char kUsage[] =
    "Usage: SwitchTour [options]\n"
    "Walks through the libTAVRO switch API against a switch (or tavro-switchsim)\n"
    "on this host.\n"
    "  --service pce|snmp  service to connect to (default pce: TCP port 58992;\n"
    "                      snmp: 58991)\n"
    "  --slot N            blade slot whose raw counters to fetch, 0-19 (default 3)\n"
    "  --heartbeats N      switch heartbeats to answer before disconnecting (default 2)\n"
    "  --wait-s N          give up waiting for them after N seconds (default 30)\n"
    "  --help              this text\n"
    "Exit status: 0 when every step worked, 1 otherwise, 2 for bad options.\n";

std::atomic<int> g_heartbeats{0};

// Standard output is shared with the library's session thread.
void say(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void say(const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    std::vprintf(fmt, ap);
    va_end(ap);
    std::fflush(stdout);
}

const char* statusName(I_STATUS s)
{
    switch (s) {
    case I_SUCCESS: return "I_SUCCESS";
    case I_ERR_NO_CONNECTION: return "I_ERR_NO_CONNECTION";
    case I_ERR_INVALID_PARAMETER: return "I_ERR_INVALID_PARAMETER";
    case I_ERR_UNKNOWN: return "I_ERR_UNKNOWN";
    default: return "error";
    }
}

// Runs on the library's session thread, one command at a time: keep it short.
void onHeartbeat(COMMAND_CODE code, const void*, uint32_t size, CrRsp* response)
{
    const int n = ++g_heartbeats;
    say("  [handler] heartbeat #%d from the switch (command %d, %u payload bytes): answering RSP_OK\n", n, int(code),
        unsigned(size));
    I_TAVRO_SetResponseStatus(response, RSP_OK);
    // The library sends the response after this returns and reports it as
    // "Send response result=0" (0: sent).
}

void printRawStats(const void* block)
{
    TAVRO_RAW_STATS_HEAD head;
    if (TAVRO_RawStatsHead(block, &head) != 0) {
        say("  the reply has a format this program does not know; nothing to show\n");
        return;
    }
    const int n = TAVRO_RawStatsEntries(block);
    say("  slot %u, format %u, %d port entries (%s byte order)\n", unsigned(head.slotNbr), unsigned(head.formatVersion),
        n, TAVRO_RawStatsReversed(block) ? "reversed" : "host");
    say("  %4s  %-4s  %7s  %16s  %16s  %16s  %16s\n", "port", "link", "Mbit/s", "rx[0]", "tx[0]", "rx[1]", "tx[1]");
    for (int i = 0; i < n; ++i) {
        TAVRO_RAW_PORT_STATS p;
        if (TAVRO_RawStatsPort(block, i, &p) != 0) break;
        say("  %4u  %-4s  %7u  %16llu  %16llu  %16llu  %16llu\n", unsigned(p.portNbr), p.linkUp ? "up" : "down",
            unsigned(p.speedMbps), static_cast<unsigned long long>(p.rxCounters[0]),
            static_cast<unsigned long long>(p.txCounters[0]), static_cast<unsigned long long>(p.rxCounters[1]),
            static_cast<unsigned long long>(p.txCounters[1]));
    }
}

bool parseNumber(const char* s, long lo, long hi, long& out)
{
    char* end = nullptr;
    const long v = std::strtol(s, &end, 10);
    if (end == s || *end != '\0' || v < lo || v > hi) return false;
    out = v;
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    SW_SERVICE_TYPE service = SW_SERVICE_PCE;
    long slot = 3;
    long heartbeats = 2;
    long waitS = 30;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const char* v = i + 1 < argc ? argv[i + 1] : nullptr;
        bool ok = v != nullptr;
        if (a == "--help") {
            std::fputs(kUsage, stdout);
            return 0;
        } else if (a == "--service" && v) {
            if (std::strcmp(v, "pce") == 0)
                service = SW_SERVICE_PCE;
            else if (std::strcmp(v, "snmp") == 0)
                service = SW_SERVICE_SNMP;
            else
                ok = false;
        } else if (a == "--slot" && v) {
            ok = parseNumber(v, 0, 19, slot);
        } else if (a == "--heartbeats" && v) {
            ok = parseNumber(v, 0, 1000, heartbeats);
        } else if (a == "--wait-s" && v) {
            ok = parseNumber(v, 1, 3600, waitS);
        } else {
            ok = false;
        }
        if (!ok) {
            std::fprintf(stderr, "SwitchTour: bad option '%s'%s%s\n\n%s", a.c_str(), v ? " " : "", v ? v : "", kUsage);
            return 2;
        }
        ++i;
    }
    const bool pce = service == SW_SERVICE_PCE;
    ::mkdir("log", 0755); // the library's debug trace goes to log/Test.Debug.log

    say("1. I_SwitchInitialize(): starts the library's threads, reads ./TAVRO.CONF if there is one\n");
    I_STATUS st = I_SwitchInitialize();
    say("   -> %d %s\n", int(st), statusName(st));
    if (st != I_SUCCESS) return 1;

    say("2. I_TAVRO_RegisterCommandHandler(CMD_HEARTBEAT): the switch sends heartbeats and wants them answered\n");
    st = I_TAVRO_RegisterCommandHandler(CMD_HEARTBEAT, onHeartbeat);
    say("   -> %d %s\n", int(st), statusName(st));

    say("3. I_SwitchConnect(%s): TCP port %d on this host; the first attempt starts after 2 s\n",
        pce ? "SW_SERVICE_PCE" : "SW_SERVICE_SNMP", pce ? 58992 : 58991);
    const auto t0 = std::chrono::steady_clock::now();
    st = I_SwitchConnect(service);
    const double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    say("   -> %d %s after %.1f s\n", int(st), statusName(st), took);
    if (st != I_SUCCESS) {
        say("   no switch answered on port %d: start one (tavro-switchsim) and try again\n", pce ? 58992 : 58991);
        I_SwitchDisconnect();
        return 1;
    }
    st = I_SwitchIsConnected();
    say("   I_SwitchIsConnected() -> %d %s\n", int(st), statusName(st));

    int failures = 0;
    say("4. I_GetRawStats(%ld): raw counters of the blade in slot %ld (waits up to 10 s)\n", slot, slot);
    void* block = I_GetRawStats(static_cast<unsigned short>(slot));
    if (block == nullptr) {
        say("   -> null: no reply, a refusal, or a short reply\n");
        ++failures;
    } else {
        const int n = TAVRO_RawStatsEntries(block);
        say("   -> a block of %d bytes\n",
            n < 0 ? TAVRO_RAW_STATS_HEAD_SIZE : TAVRO_RAW_STATS_HEAD_SIZE + n * TAVRO_RAW_STATS_ENTRY_SIZE);
        printRawStats(block);
        std::free(block);
    }

    say("5. I_TAVRO_SendCommandNoResponse(CMD_HEARTBEAT, no payload): our own sign of life to the switch,\n"
        "   which answers nothing; the call returns once the frame is on its way\n");
    st = I_TAVRO_SendCommandNoResponse(CMD_HEARTBEAT, nullptr, 0);
    say("   -> %d %s\n", int(st), statusName(st));

    if (heartbeats > 0) {
        say("6. waiting for %ld heartbeat%s from the switch (at most %ld s)\n", heartbeats, heartbeats == 1 ? "" : "s",
            waitS);
        const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(waitS);
        while (g_heartbeats.load() < heartbeats && std::chrono::steady_clock::now() < until)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        // Leave the session a moment to send the last answer.
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        const int got = g_heartbeats.load();
        say("   answered %d heartbeat%s\n", got, got == 1 ? "" : "s");
        if (got < heartbeats) {
            say("   fewer than asked for: is the switch sending heartbeats (tavro-switchsim --heartbeat-ms)?\n");
            ++failures;
        }
    }

    say("7. I_TAVRO_UnRegisterCommandHandler(CMD_HEARTBEAT) -> %d; I_SwitchDisconnect(): closes the\n"
        "   connection (waits up to about 4 s)\n",
        int(I_TAVRO_UnRegisterCommandHandler(CMD_HEARTBEAT)));
    st = I_SwitchDisconnect();
    say("   -> %d %s; I_SwitchIsConnected() -> %d\n", int(st), statusName(st), int(I_SwitchIsConnected()));

    say("%s\n", failures == 0 ? "Tour complete." : "Tour finished with failures.");
    return failures == 0 ? 0 : 1;
}
