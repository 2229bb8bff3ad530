#pragma once

// The application side of the soak: threads that send commands with and
// without responses and fetch raw statistics through the library, checking
// every outcome as it comes, and the handlers that count the commands the
// switch sends.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Ap/ApBase.h"

class CrCmd;
class CrRsp;

namespace soak {

// Commands the load sends, and how the simulator is told to answer them.
constexpr COMMAND_CODE kNoRspCode = CMD_CONN_PORT;
constexpr COMMAND_CODE kRspCode = CMD_RTRV_PORT_CONN;
constexpr RSP_STATUS kRspStatus = RSP_NO_CONNECTIONS; // --status for kRspCode
constexpr COMMAND_CODE kStatsCode = CMD_GET_BLADE_RAW_STATS;
constexpr unsigned kStatsPorts = 8; // the simulator's default reply size
// Switch-initiated commands: the heartbeat, and one with a known payload.
constexpr COMMAND_CODE kSwitchCode = CMD_DEVICE_STATE_UPDATE;
extern const char kSwitchPayloadHex[];

// Invariant violations: printed as they happen (the first ones), counted.
class Violations {
public:
    void report(const std::string& what);
    std::uint64_t count() const { return count_.load(); }

private:
    std::atomic<std::uint64_t> count_{0};
    std::mutex mu_;
};
Violations& violations();

// Milliseconds of a monotonic clock.
std::uint64_t nowMs();

// After WaitForRsp: exactly one response per destination (1, and 2 when
// toUnserved), each paired with cmd; from 1 the expected status or a
// time-out, from 2, which no connection serves, a time-out. Reports what is
// wrong as a violation; counts the outcomes. The real response from 1, or null.
CrRsp* checkResponses(CrCmd& cmd, bool toUnserved, RSP_STATUS expected, std::atomic<std::uint64_t>& answered,
                      std::atomic<std::uint64_t>& timedOut);

struct LoadConfig {
    unsigned threads = 8;
    int timeoutMs = 1000; // per command
    unsigned paceMs = 2;  // each thread rests up to this long between commands
    // Thread 0 sends bulkKiB without response every bulkEveryMs instead, so
    // that a peer that stops reading soon has full buffers (0: no bulk).
    unsigned bulkKiB = 256;
    unsigned bulkEveryMs = 50;
    std::uint32_t seed = 1;
};

struct LoadTotals {
    std::uint64_t noRsp = 0;
    std::uint64_t bulk = 0; // of noRsp
    std::uint64_t withRsp = 0;
    std::uint64_t rawStats = 0;
    std::uint64_t toUnserved = 0; // with response, also to a destination nobody serves
    // Responses, one per destination of each command with response:
    std::uint64_t answered = 0; // real ones
    std::uint64_t timedOut = 0; // RSP_TIME_OUT made up by the library
};

class Load {
public:
    explicit Load(const LoadConfig& config);
    ~Load(); // stops and joins
    void start();
    // Asks the threads to finish their command and end; joins them.
    void stop();

    LoadTotals totals() const;
    // When a command last completed (nowMs()).
    std::uint64_t lastCompletionMs() const { return lastCompletion_.load(); }
    // The longest any thread has been inside one command now, and a line per
    // busy thread for a report.
    std::uint64_t longestBusyMs(std::uint64_t now) const;
    std::string busyReport(std::uint64_t now) const;

private:
    struct Worker {
        std::thread thread;
        std::atomic<std::uint64_t> busySince{0}; // 0: between commands
        std::atomic<int> op{0};
    };
    void run(unsigned index);
    void sendNoResponse(std::uint32_t r);
    void sendBulk();
    void sendWithResponse(std::uint32_t r);
    void fetchRawStats(std::uint32_t r);

    const LoadConfig config_;
    std::atomic<bool> running_{false};
    std::vector<std::unique_ptr<Worker>> workers_;
    std::vector<unsigned char> bulkPayload_;
    std::atomic<std::uint64_t> lastCompletion_{0};
    std::atomic<std::uint64_t> noRsp_{0}, bulk_{0}, withRsp_{0}, rawStats_{0}, toUnserved_{0}, answered_{0},
        timedOut_{0};
};

// Switch-initiated commands handled, by sequence number, per simulator run
// (sequence numbers start again with every simulator).
struct LedgerTally {
    std::uint64_t handled = 0;
    std::uint64_t duplicates = 0;
};

class SwitchLedger {
public:
    // Registers the library handlers; once, before connecting.
    static void install();
    // Closes the tally of the run that ended and starts a new one.
    LedgerTally rotate();
    LedgerTally total() const;

    void record(COMMAND_CODE code, int seqNbr);

private:
    mutable std::mutex mu_;
    std::set<int> seen_;
    LedgerTally current_, total_;
};
SwitchLedger& ledger();

} // namespace soak
