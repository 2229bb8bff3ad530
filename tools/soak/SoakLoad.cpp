#include "SoakLoad.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <random>
#include <sstream>

#include "Cr/CrDBCmd.h"
#include "SwitchSimulator.h"
#include "Os/TAVRO.h"
#include "TAVRO/TAVRORawStats.h"

namespace soak {

const char kSwitchPayloadHex[] = "736f616b2d7374617465"; // "soak-state"

namespace {

const unsigned char kSwitchPayload[] = {'s', 'o', 'a', 'k', '-', 's', 't', 'a', 't', 'e'};
constexpr std::uint64_t kMaxPrinted = 50;

const char* const kOpNames[] = {"idle", "command without response", "command with response", "raw statistics",
                                "bulk command without response"};

std::string describe(CrCmd& cmd)
{
    std::ostringstream os;
    os << COMMAND_CODE(cmd.GetCmdCode()) << " seq=" << cmd.GetSeqNbr();
    return os.str();
}

// The simulator's raw statistics reply for slot, in either byte order.
void checkRawStats(CrCmd& cmd, const CrRsp& rsp, std::uint16_t slot)
{
    const void* data = rsp.GetData();
    const int size = rsp.GetSize();
    const int want = int(TAVRO_RAW_STATS_HEAD_SIZE + kStatsPorts * TAVRO_RAW_STATS_ENTRY_SIZE);
    TAVRO_RAW_STATS_HEAD head{};
    std::ostringstream os;
    os << describe(cmd) << " for slot " << slot << ": ";
    if (data == nullptr || size != want) {
        os << size << " bytes, expected " << want;
    } else if (TAVRO_RawStatsHead(data, &head) != 0) {
        os << "unknown format";
    } else if (head.slotNbr != slot || head.nbrEntries != kStatsPorts) {
        os << "head says slot " << head.slotNbr << " with " << head.nbrEntries << " entries";
    } else {
        for (unsigned index : {0u, kStatsPorts - 1}) {
            TAVRO_RAW_PORT_STATS port;
            const unsigned nbr = index + 1;
            if (TAVRO_RawStatsPort(data, int(index), &port) != 0 || port.portNbr != nbr ||
                port.speedMbps != switchsim::SwitchSimulator::statsSpeedMbps(slot, nbr) ||
                (port.linkUp == 1) != switchsim::SwitchSimulator::statsLinkUp(slot, nbr)) {
                os << "entry " << index << " is not port " << nbr << " of that slot";
                violations().report(os.str());
                return;
            }
        }
        return;
    }
    violations().report(os.str());
}

void onSwitchCommand(COMMAND_CODE code, const void* data, std::uint32_t size, CrRsp* rsp)
{
    if (rsp == nullptr) {
        violations().report("a handler got no response to fill in");
        return;
    }
    if (code == kSwitchCode) {
        if (size != sizeof kSwitchPayload || data == nullptr || std::memcmp(data, kSwitchPayload, size) != 0) {
            violations().report("switch command " + std::to_string(int(code)) +
                                " seq=" + std::to_string(rsp->GetSeqNbr()) + " arrived with a different payload (" +
                                std::to_string(size) + " bytes)");
        }
        I_TAVRO_SetResponseData(rsp, data, size);
    }
    ledger().record(code, rsp->GetSeqNbr());
}

} // namespace

void Violations::report(const std::string& what)
{
    const std::uint64_t n = ++count_;
    if (n > kMaxPrinted) return;
    std::lock_guard<std::mutex> g(mu_);
    std::fprintf(stderr, "soak: VIOLATION: %s\n", what.c_str());
    if (n == kMaxPrinted) std::fprintf(stderr, "soak: further violations are only counted\n");
    std::fflush(stderr);
}

Violations& violations()
{
    static Violations* v = new Violations;
    return *v;
}

std::uint64_t nowMs()
{
    return std::uint64_t(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
            .count());
}

CrRsp* checkResponses(CrCmd& cmd, bool toUnserved, RSP_STATUS expected, std::atomic<std::uint64_t>& answered,
                      std::atomic<std::uint64_t>& timedOut)
{
    const int want = toUnserved ? 2 : 1;
    const int count = cmd.GetRspCount();
    if (count != want) {
        violations().report(describe(cmd) + ": " + std::to_string(count) + " responses for " + std::to_string(want) +
                            " destinations");
        return nullptr;
    }
    CrRsp* real = nullptr;
    bool seen[3] = {false, false, false};
    for (CrRsp* rsp = cmd.GetFirstRsp(); rsp != nullptr; rsp = cmd.GetNextRsp()) {
        const SlaveAddr& from = rsp->GetMsgAddr();
        const int addr = from.GetNextSlaveAddr(0);
        if (from.GetSlaveCount() != 1 || addr < 1 || addr > want || seen[addr]) {
            std::ostringstream os;
            os << describe(cmd) << ": a response from " << from << " is not the one from a destination";
            violations().report(os.str());
            return nullptr;
        }
        seen[addr] = true;
        if (rsp->GetSeqNbr() != cmd.GetSeqNbr() || rsp->GetCmdCode() != cmd.GetCmdCode()) {
            std::ostringstream os;
            os << describe(cmd) << ": paired with the response to " << COMMAND_CODE(rsp->GetCmdCode())
               << " seq=" << rsp->GetSeqNbr();
            violations().report(os.str());
            return nullptr;
        }
        const RSP_STATUS status = rsp->GetRspStat();
        if (status == RSP_TIME_OUT) {
            ++timedOut;
        } else if (addr == 1 && status == expected) {
            ++answered;
            real = rsp;
        } else {
            std::ostringstream os;
            os << describe(cmd) << ": status " << status << " from destination " << addr << ", expected "
               << (addr == 1 ? expected : RSP_TIME_OUT);
            violations().report(os.str());
            return nullptr;
        }
    }
    return real;
}

// ---------------------------------------------------------------------------

Load::Load(const LoadConfig& config) : config_(config), bulkPayload_(std::size_t{config.bulkKiB} * 1024)
{
    for (std::size_t i = 0; i < bulkPayload_.size(); ++i) bulkPayload_[i] = static_cast<unsigned char>(i * 31u);
}

Load::~Load()
{
    stop();
}

void Load::start()
{
    running_ = true;
    lastCompletion_ = nowMs();
    // All slots first: the threads read the vector while it is filled.
    for (unsigned i = 0; i < config_.threads; ++i) workers_.push_back(std::make_unique<Worker>());
    for (unsigned i = 0; i < config_.threads; ++i) workers_[i]->thread = std::thread(&Load::run, this, i);
}

void Load::stop()
{
    running_ = false;
    for (auto& w : workers_)
        if (w->thread.joinable()) w->thread.join();
}

LoadTotals Load::totals() const
{
    LoadTotals t;
    t.noRsp = noRsp_;
    t.bulk = bulk_;
    t.withRsp = withRsp_;
    t.rawStats = rawStats_;
    t.toUnserved = toUnserved_;
    t.answered = answered_;
    t.timedOut = timedOut_;
    return t;
}

std::uint64_t Load::longestBusyMs(std::uint64_t now) const
{
    std::uint64_t longest = 0;
    for (const auto& w : workers_) {
        const std::uint64_t since = w->busySince;
        if (since != 0 && now > since) longest = std::max(longest, now - since);
    }
    return longest;
}

std::string Load::busyReport(std::uint64_t now) const
{
    std::ostringstream os;
    for (std::size_t i = 0; i < workers_.size(); ++i) {
        const std::uint64_t since = workers_[i]->busySince;
        os << "  thread " << i << ": ";
        if (since == 0)
            os << "between commands\n";
        else
            os << kOpNames[workers_[i]->op] << " for " << (now - since) << " ms\n";
    }
    return os.str();
}

void Load::run(unsigned index)
{
    std::mt19937 rng(config_.seed * 7919u + index);
    Worker& me = *workers_[index];
    const bool bulk = index == 0 && !bulkPayload_.empty() && config_.threads > 1;
    while (running_ && bulk) {
        me.op = 4;
        me.busySince = nowMs();
        sendBulk();
        me.busySince = 0;
        me.op = 0;
        lastCompletion_ = nowMs();
        std::this_thread::sleep_for(std::chrono::milliseconds(config_.bulkEveryMs));
    }
    while (running_) {
        const std::uint32_t r = rng();
        const unsigned pick = r % 100;
        me.op = pick < 40 ? 1 : pick < 75 ? 2 : 3;
        me.busySince = nowMs();
        if (pick < 40)
            sendNoResponse(rng());
        else if (pick < 75)
            sendWithResponse(rng());
        else
            fetchRawStats(rng());
        me.busySince = 0;
        me.op = 0;
        lastCompletion_ = nowMs();
        if (config_.paceMs != 0) std::this_thread::sleep_for(std::chrono::milliseconds(rng() % (config_.paceMs + 1)));
    }
}

void Load::sendNoResponse(std::uint32_t r)
{
    unsigned char payload[64];
    const unsigned size = r % sizeof payload;
    for (unsigned i = 0; i < size; ++i) payload[i] = static_cast<unsigned char>(r >> (i % 24));
    I_TAVRO_SendCommandNoResponse(kNoRspCode, payload, size);
    ++noRsp_;
}

void Load::sendBulk()
{
    I_TAVRO_SendCommandNoResponse(kNoRspCode, bulkPayload_.data(), unsigned(bulkPayload_.size()));
    ++noRsp_;
    ++bulk_;
}

void Load::sendWithResponse(std::uint32_t r)
{
    unsigned char payload[32];
    const unsigned size = r % sizeof payload;
    std::memset(payload, int(r & 0xFF), sizeof payload);
    // Now and then also to a destination nobody serves, which must time out
    // alone; with a shorter time-out, as each of them waits it out.
    const bool toUnserved = (r >> 8) % 100 == 0;
    CrCmd cmd;
    cmd.SetCmdCode(kRspCode);
    cmd.SetMsgAddr(1);
    if (toUnserved) cmd.SetMsgAddr(2);
    cmd.SetRspReq(true);
    cmd.SetRspTimer(toUnserved ? std::max(config_.timeoutMs / 10, 10) : config_.timeoutMs);
    cmd.SetData(payload, int(size));
    cmd.Dispatch();
    ++withRsp_;
    if (toUnserved) ++toUnserved_;
    if (!cmd.WaitForRsp()) {
        violations().report(describe(cmd) + ": never reached the tracker");
        return;
    }
    checkResponses(cmd, toUnserved, kRspStatus, answered_, timedOut_);
}

void Load::fetchRawStats(std::uint32_t r)
{
    // The same request I_GetRawStats makes, with the soak's time-out.
    const std::uint16_t slot = std::uint16_t(r % switchsim::SwitchSimulator::kSlots);
    CrCmd cmd;
    cmd.SetCmdCode(kStatsCode);
    cmd.SetMsgAddr(1);
    cmd.SetRspReq(true);
    cmd.SetRspTimer(config_.timeoutMs);
    cmd.SetData(&slot, sizeof slot);
    cmd.SetNetworkOrder(false);
    cmd.Dispatch();
    ++rawStats_;
    if (!cmd.WaitForRsp()) {
        violations().report(describe(cmd) + ": never reached the tracker");
        return;
    }
    if (CrRsp* rsp = checkResponses(cmd, false, RSP_OK, answered_, timedOut_)) checkRawStats(cmd, *rsp, slot);
}

// ---------------------------------------------------------------------------

void SwitchLedger::install()
{
    I_TAVRO_RegisterCommandHandler(CMD_HEARTBEAT, onSwitchCommand);
    I_TAVRO_RegisterCommandHandler(kSwitchCode, onSwitchCommand);
}

void SwitchLedger::record(COMMAND_CODE code, int seqNbr)
{
    bool duplicate;
    {
        std::lock_guard<std::mutex> g(mu_);
        duplicate = !seen_.insert(seqNbr).second;
        if (duplicate) {
            ++current_.duplicates;
            ++total_.duplicates;
        } else {
            ++current_.handled;
            ++total_.handled;
        }
    }
    if (duplicate)
        violations().report("switch command " + std::to_string(int(code)) + " seq=" + std::to_string(seqNbr) +
                            " handled twice");
}

LedgerTally SwitchLedger::rotate()
{
    std::lock_guard<std::mutex> g(mu_);
    const LedgerTally t = current_;
    current_ = LedgerTally{};
    seen_.clear();
    return t;
}

LedgerTally SwitchLedger::total() const
{
    std::lock_guard<std::mutex> g(mu_);
    return total_;
}

SwitchLedger& ledger()
{
    static SwitchLedger* l = new SwitchLedger;
    return *l;
}

} // namespace soak
