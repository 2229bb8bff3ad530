// tavro-soak: the library against a misbehaving switch for a set time. See --help.

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>

#include "Io/IoDBClient.h"
#include "Os/TAVRO.h"
#include "SoakLoad.h"
#include "SoakPhaseCheck.h"
#include "SoakResources.h"
#include "SoakSchedule.h"
#include "SoakSwitchProcess.h"

namespace {

const char kUsage[] =
    "Usage: tavro-soak --seconds N [options]\n"
    "\n"
    "Runs libTAVRO against the switch simulator (tavro-switchsim, a child process) for N\n"
    "seconds (at least 30): application threads send commands with and without responses\n"
    "and fetch raw statistics while the simulator's faults rotate phase by phase (a new\n"
    "simulator per phase): none, reversed byte order, delayed answers, dropped answers,\n"
    "connections closed after N frames, and a simulator stopped with SIGSTOP for a while.\n"
    "Connects to the PCE process service, 127.0.0.1 port 58992, which must be free.\n"
    "\n"
    "Checked throughout: every command ends with exactly one response or time-out per\n"
    "destination, paired with it (some commands also go to a destination nobody serves);\n"
    "every switch-initiated command is handled at most once and every answer the\n"
    "simulator got comes from a handled one; RSS, threads and descriptors stay flat once\n"
    "warm; some command completes at least every 30 s.\n"
    "\n"
    "Options:\n"
    "  --seconds N          length of the run (required)\n"
    "  --threads N          application threads (default 8)\n"
    "  --timeout-ms N       response time-out per command (default 1000)\n"
    "  --pace-ms N          each thread rests up to N ms between commands (default 2)\n"
    "  --bulk-kib N         the first thread only sends commands of N KiB without response,\n"
    "                       one every --bulk-every-ms (default 256 KiB every 50 ms; 0: none),\n"
    "                       so that a stopped simulator soon leaves the library's sends blocked\n"
    "  --bulk-every-ms N\n"
    "  --seed N             seed of the threads' choices (default: from the clock)\n"
    "  --switchsim PATH     the simulator (default: ../switchsim/tavro-switchsim from here)\n"
    "  --workdir DIR        where the library writes log/Test.Debug.log and the application's\n"
    "                       standard output goes (application-stdout.log); default: current\n"
    "  --watchdog-s N       fail when no command completes for N s (default 30)\n"
    "  --rss-slack-mib N    allowed RSS growth over the warm-up peak (default 16; 64 under\n"
    "                       ThreadSanitizer, 512 under AddressSanitizer)\n"
    "  --verbose            one line per phase on standard error\n"
    "  --help               this text\n"
    "\n"
    "Prints one summary on standard output. Exit status: 0 every check held; 1 a check\n"
    "failed; 2 bad usage; 3 the set-up failed (simulator or first connection); 4 the\n"
    "watchdog fired (no progress); 130 interrupted (SIGINT or SIGTERM).\n";

#if defined(__SANITIZE_ADDRESS__)
constexpr unsigned kDefaultRssSlackMiB = 512; // the quarantine of freed memory fills for a while
#elif defined(__SANITIZE_THREAD__)
constexpr unsigned kDefaultRssSlackMiB = 64; // shadow memory and history
#else
constexpr unsigned kDefaultRssSlackMiB = 16;
#endif

constexpr unsigned kSimStartMs = 10000;
constexpr unsigned kSimStopMs = 15000;
constexpr unsigned kDisconnectNoticeMs = 10000;
constexpr unsigned kReconnectMs = 100;

struct Options {
    unsigned seconds = 0;
    soak::LoadConfig load;
    std::string switchsim;
    std::string workdir;
    unsigned watchdogS = 30;
    unsigned rssSlackMiB = kDefaultRssSlackMiB;
    bool verbose = false;
};

std::atomic<int> g_signal{0};

void onSignal(int sig)
{
    g_signal = sig;
}

int usageError(const std::string& what)
{
    std::cerr << "tavro-soak: " << what << "\n(try --help)\n";
    return 2;
}

bool parseNumber(const char* s, unsigned long max, unsigned long& out)
{
    if (s == nullptr || *s < '0' || *s > '9') return false;
    char* end = nullptr;
    errno = 0;
    const unsigned long v = std::strtoul(s, &end, 10);
    if (errno != 0 || *end != '\0' || v > max) return false;
    out = v;
    return true;
}

std::string besideSelf(const std::string& relative)
{
    char self[4096];
    const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0) return relative;
    self[n] = '\0';
    std::string dir(self);
    dir.erase(dir.rfind('/') + 1);
    return dir + relative;
}

// Everything the phases add up to.
struct RunTotals {
    soak::SwitchCounters sim;
    unsigned phases = 0;
    unsigned byKind[soak::kKindsPerRound] = {};
    std::uint64_t closesBySwitch = 0;
    std::uint64_t stoppedMs = 0;
};

class Soak {
public:
    explicit Soak(const Options& o)
        : opts_(o), plan_(soak::planSoak(o.seconds, o.load.timeoutMs)), sim_(o.switchsim), load_(o.load),
          watch_({std::uint64_t(o.rssSlackMiB) << 20, 0, 2})
    {
    }

    int run(std::FILE* out);

private:
    std::vector<std::string> simArgs(const soak::PhasePlan& p) const;
    bool startSim(const soak::PhasePlan& p);
    void endPhase(const soak::PhasePlan& p);
    void tick(std::uint64_t runStart);
    bool interrupted() const { return g_signal.load() != 0; }
    void startWatchdog();
    void stopWatchdog();
    void summary(std::FILE* out, const char* verdict, std::uint64_t ranMs) const;

    const Options opts_;
    const soak::SoakPlan plan_;
    soak::SwitchProcess sim_;
    soak::Load load_;
    soak::ResourceWatch watch_;
    RunTotals totals_;
    std::uint64_t nextSampleMs_ = 0;
    std::atomic<int> phase_{-1};
    long linkedAfterMs_ = -1;        // this phase: when the library was connected
    std::uint64_t longestGapMs_ = 0; // this phase: longest time without a completed command
    std::atomic<bool> watching_{false};
    std::thread watchdog_;
};

std::vector<std::string> Soak::simArgs(const soak::PhasePlan& p) const
{
    std::vector<std::string> a = {"--quiet", "--snmp-port", "off", "--pce-port", "58992", "--heartbeat-ms", "100",
                                  // Only a closed connection makes a switch command unanswered: a
                                  // stopped simulator would otherwise give up on answers it has not
                                  // yet read.
                                  "--answer-timeout-ms", "3600000", "--send",
                                  std::to_string(int(soak::kSwitchCode)) + ":" + soak::kSwitchPayloadHex,
                                  "--send-every", "150ms", "--status",
                                  std::to_string(int(soak::kRspCode)) + "=" + std::to_string(int(soak::kRspStatus)),
                                  "--ports", std::to_string(soak::kStatsPorts)};
    a.insert(a.end(), p.simArgs.begin(), p.simArgs.end());
    return a;
}

bool Soak::startSim(const soak::PhasePlan& p)
{
    std::string error;
    if (sim_.start(simArgs(p), kSimStartMs, &error)) return true;
    std::cerr << "tavro-soak: phase " << p.index + 1 << ": " << error << '\n';
    return false;
}

void Soak::tick(std::uint64_t runStart)
{
    const std::uint64_t now = soak::nowMs();
    if (now < nextSampleMs_) return;
    nextSampleMs_ = now + 1000;
    soak::ResourceSample s;
    if (!soak::sampleResources(s)) {
        soak::violations().report("cannot read /proc/self");
        return;
    }
    if (!watch_.warm() && now - runStart >= plan_.warmMs) {
        watch_.add(s);
        watch_.markWarm();
        return;
    }
    const std::string growth = watch_.add(s);
    if (!growth.empty())
        soak::violations().report("after " + std::to_string((now - runStart) / 1000) + " s: " + growth);
}

void Soak::endPhase(const soak::PhasePlan& p)
{
    soak::SwitchCounters c;
    std::string error;
    if (!sim_.stop(kSimStopMs, &c, &error))
        soak::violations().report("phase " + std::to_string(p.index + 1) + ": " + error);
    // Whatever the simulator sent is read and dispatched before the session
    // sees the end of the connection; only then is the phase's tally whole.
    const std::uint64_t deadline = soak::nowMs() + kDisconnectNoticeMs;
    IoClientMgmt* session = tavro_internal::switchClient();
    while (session != nullptr && session->GetProcState() == TCP_NORMAL && soak::nowMs() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    if (session != nullptr && session->GetProcState() == TCP_NORMAL)
        soak::violations().report("the library did not notice the simulator's end within " +
                                  std::to_string(kDisconnectNoticeMs) + " ms");
    const soak::LedgerTally t = soak::ledger().rotate();

    const std::string where = "phase " + std::to_string(p.index + 1) + " (" + p.description + "): ";
    for (const std::string& v : soak::phaseViolations(c, t)) soak::violations().report(where + v);

    totals_.sim.connections += c.connections;
    totals_.sim.received += c.received;
    totals_.sim.sent += c.sent;
    totals_.sim.dropped += c.dropped;
    totals_.sim.commands += c.commands;
    totals_.sim.answered += c.answered;
    totals_.sim.unanswered += c.unanswered;
    totals_.sim.unexpected += c.unexpected;
    ++totals_.phases;
    ++totals_.byKind[int(p.kind)];
    if (p.kind == soak::FaultKind::Close && c.connections > 0) totals_.closesBySwitch += c.connections - 1;
    if (opts_.verbose) {
        const soak::LoadTotals l = load_.totals();
        std::fprintf(stderr,
                     "soak: phase %u/%zu %-50s linked after %ld ms, longest gap %llu ms, connections=%llu frames "
                     "in=%llu out=%llu dropped=%llu switch commands=%llu handled=%llu answered=%llu lost=%llu | app "
                     "answered=%llu timed out=%llu\n",
                     p.index + 1, plan_.phases.size(), p.description.c_str(), linkedAfterMs_,
                     (unsigned long long)longestGapMs_, (unsigned long long)c.connections,
                     (unsigned long long)c.received, (unsigned long long)c.sent, (unsigned long long)c.dropped,
                     (unsigned long long)c.commands, (unsigned long long)t.handled, (unsigned long long)c.answered,
                     (unsigned long long)c.unanswered, (unsigned long long)l.answered, (unsigned long long)l.timedOut);
    }
}

void Soak::startWatchdog()
{
    watching_ = true;
    watchdog_ = std::thread([this] {
        const std::uint64_t limit = std::uint64_t(opts_.watchdogS) * 1000;
        while (watching_) {
            std::this_thread::sleep_for(std::chrono::milliseconds(250));
            const std::uint64_t now = soak::nowMs();
            const std::uint64_t idle = now - std::min(now, load_.lastCompletionMs());
            const std::uint64_t busy = load_.longestBusyMs(now);
            if (idle < limit && busy < limit) continue;
            const int phase = phase_;
            std::fprintf(stderr, "soak: FAIL: watchdog: %s for %llu s in phase %d (%s); threads:\n%s",
                         idle >= limit ? "no command completed" : "one command has not completed",
                         (unsigned long long)(std::max(idle, busy) / 1000), phase + 1,
                         phase >= 0 ? plan_.phases[std::size_t(phase)].description.c_str() : "?",
                         load_.busyReport(now).c_str());
            std::fflush(stderr);
            sim_.killNow();
            _exit(4); // threads are stuck: no orderly end is possible
        }
    });
}

void Soak::stopWatchdog()
{
    watching_ = false;
    if (watchdog_.joinable()) watchdog_.join();
}

int Soak::run(std::FILE* out)
{
    soak::SwitchLedger::install();
    const std::uint64_t runStart = soak::nowMs();
    bool started = false;
    const char* verdict = nullptr;
    for (const soak::PhasePlan& p : plan_.phases) {
        if (interrupted()) break;
        phase_ = int(p.index);
        if (!startSim(p)) {
            verdict = "FAIL (the simulator did not start)";
            break;
        }
        if (!started) {
            if (I_SwitchConnect(SW_SERVICE_PCE) != I_SUCCESS) {
                std::cerr << "tavro-soak: the library did not connect to the simulator\n";
                sim_.stop(kSimStopMs, nullptr, nullptr);
                summary(out, "FAIL (no first connection)", soak::nowMs() - runStart);
                return 3;
            }
            load_.start();
            startWatchdog();
            started = true;
        }
        const std::uint64_t phaseStart = soak::nowMs();
        const std::uint64_t end = runStart + p.startMs + p.lengthMs;
        bool frozen = false, resumed = false;
        linkedAfterMs_ = -1;
        longestGapMs_ = 0;
        while (!interrupted()) {
            const std::uint64_t now = soak::nowMs();
            if (now >= end) break;
            if (linkedAfterMs_ < 0 && I_SwitchIsConnected() == I_SUCCESS) linkedAfterMs_ = long(now - phaseStart);
            const std::uint64_t last = load_.lastCompletionMs();
            if (now > last) longestGapMs_ = std::max(longestGapMs_, now - last);
            if (p.kind == soak::FaultKind::Stop && !frozen && now >= phaseStart + p.stopAtMs) {
                frozen = sim_.freeze();
                if (!frozen) soak::violations().report("could not stop the simulator");
            }
            if (frozen && !resumed && now >= phaseStart + p.stopAtMs + p.stopForMs) {
                resumed = sim_.unfreeze();
                totals_.stoppedMs += now - phaseStart - p.stopAtMs;
            }
            tick(runStart);
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        if (frozen && !resumed) totals_.stoppedMs += soak::nowMs() - phaseStart - p.stopAtMs;
        if (&p == &plan_.phases.back() || interrupted()) {
            // The end sample is the last one with the load running.
            nextSampleMs_ = 0;
            tick(runStart);
            load_.stop();
            stopWatchdog();
        }
        endPhase(p);
    }
    if (started) {
        load_.stop();
        stopWatchdog();
        I_SwitchDisconnect();
    }
    const std::uint64_t ranMs = soak::nowMs() - runStart;
    if (verdict == nullptr && interrupted()) verdict = "INTERRUPTED";
    if (verdict == nullptr) verdict = soak::violations().count() == 0 ? "PASS" : "FAIL";
    summary(out, verdict, ranMs);
    if (std::strcmp(verdict, "INTERRUPTED") == 0) return 130;
    if (std::strcmp(verdict, "PASS") == 0) return 0;
    return started ? 1 : 3;
}

void Soak::summary(std::FILE* out, const char* verdict, std::uint64_t ranMs) const
{
    using ull = unsigned long long;
    const soak::LoadTotals l = load_.totals();
    const soak::LedgerTally t = soak::ledger().total();
    const soak::SwitchCounters& c = totals_.sim;
    const std::uint64_t restarts = totals_.phases > 0 ? totals_.phases - 1 : 0;
    const std::uint64_t reconnections = c.connections > 0 ? c.connections - 1 : 0;
    std::fprintf(out, "soak: %s after %.1f s: %u of %zu phases, %u threads, time-out %d ms, seed %u\n", verdict,
                 double(ranMs) / 1000.0, totals_.phases, plan_.phases.size(), opts_.load.threads, opts_.load.timeoutMs,
                 opts_.load.seed);
    std::fprintf(
        out,
        "  commands sent     %llu (%llu without response, %llu of them of %u KiB; %llu with response; %llu raw "
        "statistics)\n",
        ull(l.noRsp + l.withRsp + l.rawStats), ull(l.noRsp), ull(l.bulk), opts_.load.bulkKiB, ull(l.withRsp),
        ull(l.rawStats));
    std::fprintf(out, "  answered          %llu (responses, one per destination)\n", ull(l.answered));
    std::fprintf(out, "  timed out         %llu (%llu of them by a destination no connection serves)\n",
                 ull(l.timedOut), ull(l.toUnserved));
    std::fprintf(out,
                 "  switch commands   %llu sent, %llu handled, %llu answers received, %llu lost with a connection\n",
                 ull(c.commands), ull(t.handled), ull(c.answered), ull(c.unanswered));
    std::fprintf(out, "  reconnections     %llu (%llu simulator restarts, %llu connections closed by the switch)\n",
                 ull(reconnections), ull(restarts), ull(totals_.closesBySwitch));
    std::fprintf(out,
                 "  faults injected   %u phases: reversed order %u, delayed answers %u, dropped answers %u (%llu "
                 "dropped), closed connections %u, stopped peer %u (%.1f s stopped)\n",
                 totals_.phases - totals_.byKind[int(soak::FaultKind::None)],
                 totals_.byKind[int(soak::FaultKind::Reverse)], totals_.byKind[int(soak::FaultKind::Delay)],
                 totals_.byKind[int(soak::FaultKind::Drop)], ull(c.dropped),
                 totals_.byKind[int(soak::FaultKind::Close)], totals_.byKind[int(soak::FaultKind::Stop)],
                 double(totals_.stoppedMs) / 1000.0);
    const soak::ResourceSample& first = watch_.first();
    const soak::ResourceSample& last = watch_.last();
    std::fprintf(out, "  peak RSS          %s (%s at start, %s peak while warming up, %s at end)\n",
                 soak::mebibytes(watch_.peakRss()).c_str(), soak::mebibytes(first.rssBytes).c_str(),
                 soak::mebibytes(watch_.warmPeakRss()).c_str(), soak::mebibytes(last.rssBytes).c_str());
    std::fprintf(out, "  threads           %u at start, %u at end (peak %u)\n", first.threads, last.threads,
                 watch_.peakThreads());
    std::fprintf(out, "  descriptors       %u at start, %u at end (peak %u)\n", first.descriptors, last.descriptors,
                 watch_.peakDescriptors());
    std::fprintf(out, "  violations        %llu\n", ull(soak::violations().count()));
    std::fflush(out);
}

} // namespace

int main(int argc, char** argv)
{
    Options o;
    o.load.seed = std::uint32_t(std::chrono::steady_clock::now().time_since_epoch().count());
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        unsigned long n = 0;
        auto number = [&](unsigned long min, unsigned long max) {
            if (!parseNumber(value, max, n) || n < min) return false;
            ++i;
            return true;
        };
        if (arg == "--help" || arg == "-h") {
            std::cout << kUsage;
            return 0;
        } else if (arg == "--verbose") {
            o.verbose = true;
        } else if (arg == "--seconds") {
            if (!number(soak::kMinSeconds, 7 * 24 * 3600))
                return usageError("--seconds needs a number of seconds, at least " + std::to_string(soak::kMinSeconds));
            o.seconds = unsigned(n);
        } else if (arg == "--threads") {
            if (!number(1, 256)) return usageError("--threads needs a number from 1 to 256");
            o.load.threads = unsigned(n);
        } else if (arg == "--timeout-ms") {
            if (!number(10, 600000)) return usageError("--timeout-ms needs a number from 10 to 600000");
            o.load.timeoutMs = int(n);
        } else if (arg == "--pace-ms") {
            if (!number(0, 60000)) return usageError("--pace-ms needs a number of milliseconds");
            o.load.paceMs = unsigned(n);
        } else if (arg == "--bulk-kib") {
            if (!number(0, 2048)) return usageError("--bulk-kib needs a number from 0 to 2048");
            o.load.bulkKiB = unsigned(n);
        } else if (arg == "--bulk-every-ms") {
            if (!number(1, 60000)) return usageError("--bulk-every-ms needs a number of milliseconds");
            o.load.bulkEveryMs = unsigned(n);
        } else if (arg == "--seed") {
            if (!number(0, 0xFFFFFFFFul)) return usageError("--seed needs a number");
            o.load.seed = std::uint32_t(n);
        } else if (arg == "--watchdog-s") {
            if (!number(1, 3600)) return usageError("--watchdog-s needs a number from 1 to 3600");
            o.watchdogS = unsigned(n);
        } else if (arg == "--rss-slack-mib") {
            if (!number(0, 1u << 20)) return usageError("--rss-slack-mib needs a number");
            o.rssSlackMiB = unsigned(n);
        } else if (arg == "--switchsim" || arg == "--workdir") {
            if (value == nullptr || *value == '\0') return usageError(arg + " needs a path");
            (arg == "--switchsim" ? o.switchsim : o.workdir) = value;
            ++i;
        } else {
            return usageError("unknown option " + arg);
        }
    }
    if (o.seconds == 0) return usageError("--seconds is required");
    if (o.switchsim.empty()) o.switchsim = besideSelf("../switchsim/tavro-switchsim");
    // Started from the work directory later.
    if (o.switchsim[0] != '/') {
        char cwd[4096];
        if (getcwd(cwd, sizeof cwd) != nullptr) o.switchsim = std::string(cwd) + "/" + o.switchsim;
    }
    if (access(o.switchsim.c_str(), X_OK) != 0) {
        std::cerr << "tavro-soak: cannot run the simulator " << o.switchsim << ": " << std::strerror(errno)
                  << " (use --switchsim)\n";
        return 3;
    }
    if (!o.workdir.empty()) {
        if (mkdir(o.workdir.c_str(), 0755) != 0 && errno != EEXIST) {
            std::cerr << "tavro-soak: cannot create " << o.workdir << ": " << std::strerror(errno) << '\n';
            return 3;
        }
        if (chdir(o.workdir.c_str()) != 0) {
            std::cerr << "tavro-soak: cannot enter " << o.workdir << ": " << std::strerror(errno) << '\n';
            return 3;
        }
    }
    mkdir("log", 0755);
    // The library prints a line per response it sends; the summary keeps
    // standard output to itself.
    const int summaryFd = fcntl(1, F_DUPFD_CLOEXEC, 3);
    const int appOut = open("application-stdout.log", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    std::FILE* out = summaryFd >= 0 ? fdopen(summaryFd, "w") : nullptr;
    if (out == nullptr || appOut < 0 || dup2(appOut, 1) < 0) {
        std::cerr << "tavro-soak: cannot set up application-stdout.log: " << std::strerror(errno) << '\n';
        return 3;
    }
    close(appOut);

    // Reconnections follow at once instead of after the library's 2 s.
    tavro_internal::clientSeams().connectDelayMs = [](int) { return DWORD(kReconnectMs); };
    if (I_SwitchInitialize() != I_SUCCESS) {
        std::cerr << "tavro-soak: I_SwitchInitialize failed\n";
        return 3;
    }
    // After the library's own handlers: an interrupted run still stops the
    // simulator and reports.
    struct sigaction sa {};
    sa.sa_handler = onSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);

    Soak soak(o);
    return soak.run(out);
}
