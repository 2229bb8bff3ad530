#pragma once

// A stand-in for the switch: listens on the two service ports, reads the
// library's frames with its own plain-socket code (deliberately sharing
// nothing with the library's reader, so a mistake made on both sides cannot
// hide), answers commands, sends switch-initiated commands and can misbehave
// on purpose. Used by the command-line program and, in-process, by tests.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "PcapWriter.h"

namespace switchsim {

using Bytes = std::vector<std::uint8_t>;

// Order of a frame's words relative to the simulator's own host.
enum class WireOrder : std::uint8_t { Host, Reversed };

inline WireOrder opposite(WireOrder o)
{
    return o == WireOrder::Host ? WireOrder::Reversed : WireOrder::Host;
}
const char* orderName(WireOrder o);

// A frame as read from a client; header words decoded to host values, the
// size flags (bit 31) masked off, payload and frame bytes as they arrived.
struct SimFrame {
    std::uint64_t conn = 0;
    WireOrder order = WireOrder::Host;
    std::uint32_t manager = 0;
    std::uint32_t size = 0; // control header: 28 + payload
    std::uint32_t msgType = 0;
    std::uint32_t cmdCode = 0;
    std::uint32_t seqNbr = 0;
    std::uint32_t msgStat = 0;
    std::uint32_t srcAddr = 0;
    std::uint32_t appError = 0;
    std::uint32_t appSize = 0;
    Bytes payload;
    Bytes wire;

    bool isCommand() const;
    bool wantsResponse() const;
};

// A frame to send. The payload goes out as given; the header words are
// written in `order`.
struct OutFrame {
    std::uint32_t marker = 0x4D53473Au; // "MSG:"
    std::uint32_t manager = 0;
    std::uint32_t msgType = 0x5253503Au; // "RSP:"
    std::uint32_t cmdCode = 0;
    std::uint32_t seqNbr = 0;
    std::uint32_t msgStat = 0;
    std::uint32_t srcAddr = 1;
    std::uint32_t appError = 0;
    Bytes payload;
    WireOrder order = WireOrder::Host;

    Bytes encode() const;
};

// Misbehaviour on purpose. Drop and close counts are per connection.
struct Faults {
    bool reverse = false;    // speak the opposite byte order to the client's
    unsigned delayMs = 0;    // hold each default answer this long
    unsigned dropEvery = 0;  // swallow every Nth default answer (0: never)
    unsigned closeAfter = 0; // close after N frames received (0: never)
};

// A command the simulator sends on its own.
struct SwitchCommand {
    std::uint32_t code = 0;
    Bytes payload;
    bool rspReq = true;
};

struct Options {
    std::string address = "127.0.0.1";
    int snmpPort = 58991; // 0: any free port; negative: do not listen
    int pcePort = 58992;
    std::uint32_t ownAddr = 1; // srcAddr of everything sent
    unsigned heartbeatMs = 0;  // CMD_HEARTBEAT period to linked clients; 0: none
    unsigned answerTimeoutMs = 5000;
    // Sent to each client once its link test header arrived, and then
    // every sendEveryMs to all linked clients (0: only the first time).
    std::vector<SwitchCommand> sends;
    unsigned sendEveryMs = 0;
    Faults faults;
    std::map<std::uint32_t, std::uint32_t> status; // code -> RSP_STATUS
    unsigned statsPorts = 8;                       // entries per raw-statistics reply
    bool record = true;                            // keep frames and raw bytes for inspection
    // One call per transcript line (no line feed); null: silent.
    std::function<void(const std::string&)> transcript;
    // Seconds fed into the statistics counters; default: since start().
    std::function<std::uint64_t()> statsClock;
    // A pcap file of every connection's traffic as read and sent (empty:
    // none), and the largest TCP payload per packet in it (0: loopback's).
    std::string pcap;
    unsigned pcapSegment = 0;
};

struct Counters {
    std::uint64_t connections = 0; // accepted so far
    std::uint64_t linkTests = 0;
    std::uint64_t framesReceived = 0;
    std::uint64_t framesSent = 0;
    std::uint64_t answersDropped = 0;
    std::uint64_t badHeaders = 0;
    std::uint64_t commandsSent = 0; // switch-initiated, asking for an answer
    std::uint64_t answered = 0;
    std::uint64_t unanswered = 0;
    std::uint64_t unexpectedResponses = 0;
};

class SwitchSimulator {
public:
    // Called on the connection's reader thread for every command received,
    // before the default answer. Return true when the command is dealt with
    // (answered, kept for later or ignored); false lets the default answer go.
    // It may call send/answer/sendCommand, but never stop(): stop() joins
    // the thread it runs on. The same holds for the transcript callback.
    using Responder = std::function<bool(SwitchSimulator&, const SimFrame&)>;

    SwitchSimulator();
    ~SwitchSimulator();
    SwitchSimulator(const SwitchSimulator&) = delete;
    SwitchSimulator& operator=(const SwitchSimulator&) = delete;

    bool start(const Options& options, std::string* error = nullptr);
    void stop(); // joins every thread; safe to call twice

    std::uint16_t snmpPort() const { return boundSnmp_; }
    std::uint16_t pcePort() const { return boundPce_; }

    Counters counters() const;
    std::vector<SimFrame> receivedFrames() const; // link test headers excluded
    std::vector<SimFrame> sentFrames() const;
    Bytes receivedBytes(std::uint64_t conn) const; // everything read, as read
    std::vector<std::uint64_t> openConnections() const;

    // Each waits until the condition holds or the time-out passes.
    bool waitFor(const std::function<bool()>& pred, std::chrono::milliseconds timeout) const;
    bool waitForFrames(std::size_t n, std::chrono::milliseconds timeout) const;
    bool waitForConnections(std::size_t n, std::chrono::milliseconds timeout) const; // open ones
    bool waitForLinkTests(std::size_t n, std::chrono::milliseconds timeout) const;

    void setStatus(std::uint32_t code, std::uint32_t status);
    void clearStatus(std::uint32_t code);
    void setFaults(const Faults& faults);
    void setResponder(Responder responder);

    // What the default answer to `cmd` is (statistics included), in the
    // order the current faults ask for.
    OutFrame defaultResponse(const SimFrame& cmd) const;
    // The default handling of a command: answer with drop and delay applied.
    void answer(const SimFrame& cmd);
    bool send(std::uint64_t conn, const OutFrame& frame);
    bool sendRaw(std::uint64_t conn, const Bytes& bytes);
    // A switch-initiated command in the client's order (reversed when the
    // faults say so); its answer is tracked when rspReq. Returns the
    // sequence number used, 0 if nothing was sent.
    std::uint32_t sendCommand(std::uint64_t conn, std::uint32_t code, const Bytes& payload = {}, bool rspReq = true);
    bool closeConnection(std::uint64_t conn);

    // The raw-statistics reply for a slot: a 6-byte head (count, slot,
    // format 1) and `ports` entries of 951 bytes, all in `order`.
    static Bytes buildRawStats(std::uint16_t slot, unsigned ports, std::uint64_t seconds, WireOrder order);
    // One counter of that reply; grows with `seconds` while the link is up.
    static std::uint64_t statsCounter(std::uint16_t slot, unsigned port, unsigned index, bool tx,
                                      std::uint64_t seconds);
    static bool statsLinkUp(std::uint16_t slot, unsigned port);
    static std::uint32_t statsSpeedMbps(std::uint16_t slot, unsigned port);

    static constexpr std::uint32_t kHeartbeatCode = 40010; // CMD_HEARTBEAT
    static constexpr std::uint32_t kRawStatsCode = 100005; // CMD_GET_BLADE_RAW_STATS
    static constexpr unsigned kStatsHeadSize = 6;
    static constexpr unsigned kStatsEntrySize = 951;
    static constexpr unsigned kStatsCounters = 59;
    static constexpr unsigned kSlots = 20;

private:
    struct Conn;
    struct Pending {
        std::uint64_t conn;
        std::uint32_t code;
        std::uint32_t seq;
        std::chrono::steady_clock::time_point sentAt;
    };
    struct Delayed {
        std::chrono::steady_clock::time_point due;
        std::uint64_t conn;
        OutFrame frame;
    };

    bool listenOn(const std::string& address, int port, int& fd, std::uint16_t& bound, std::string* error);
    void acceptLoop();
    void readLoop(std::shared_ptr<Conn> conn);
    void schedulerLoop();
    bool handleFrame(const std::shared_ptr<Conn>& conn, SimFrame& frame);
    void handleResponse(const SimFrame& frame);
    void countBadHeader();
    void sendSwitchCommands(std::uint64_t conn);
    bool sendOn(const std::shared_ptr<Conn>& conn, const Bytes& bytes, const OutFrame* frame);
    std::shared_ptr<Conn> findConn(std::uint64_t id) const;
    std::uint32_t nextSeq();
    void note(const std::string& line) const;
    void finishConn(const std::shared_ptr<Conn>& conn);
    WireOrder sendOrder(WireOrder clientOrder) const;
    std::uint64_t statsSeconds() const;
    void captureOpened(std::uint64_t conn, int fd);
    void noteArrival(std::uint64_t conn, const std::uint8_t* p, std::size_t n);

    mutable std::mutex mu_;
    mutable std::condition_variable changed_; // any event, for waitFor
    std::condition_variable schedWake_;
    std::uint64_t events_ = 0;
    mutable std::mutex transcriptMu_;

    Options opts_;
    Responder responder_;
    bool running_ = false;
    bool stopping_ = false;
    std::chrono::steady_clock::time_point started_;
    int listenSnmp_ = -1;
    int listenPce_ = -1;
    std::uint16_t boundSnmp_ = 0;
    std::uint16_t boundPce_ = 0;
    int wakePipe_[2] = {-1, -1};
    std::thread acceptor_;
    std::thread scheduler_;
    std::uint64_t nextConnId_ = 1;
    std::uint32_t seq_ = 0;
    std::vector<std::shared_ptr<Conn>> conns_;
    std::vector<Pending> pending_;
    std::deque<Delayed> delayed_; // FIFO: every answer waits the same delay
    std::vector<SimFrame> received_;
    std::vector<SimFrame> sent_;
    std::map<std::uint64_t, Bytes> raw_;
    Counters counters_;
    PcapWriter pcap_;
};

} // namespace switchsim
