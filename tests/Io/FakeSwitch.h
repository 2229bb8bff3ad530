#pragma once

// A session stand-in behind a real route: records every frame the router
// hands it and, if told to, answers through the tracker as a session would.
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "Common/OS/OsThread.h"
#include "Cr/CrDBCmd.h"
#include "Cr/CrDBTracker.h"
#include "Cr/CrOrvMsg.h"
#include "Io/IoRouteTable.h"

namespace fake_switch {

struct Frame {
    std::vector<unsigned char> bytes; // the whole chain, flattened
    int pieces = 0;
    const void* payloadPiece = nullptr; // pBuf of the third descriptor, if linked
    bool reversed = false;              // headers arrived byte-reversed
    ORV_CTL_MSG ctl;                    // host order
    ORV_APP_MSG app;                    // host order

    std::vector<unsigned char> payload() const
    {
        return std::vector<unsigned char>(bytes.begin() + std::min<long>(40, long(bytes.size())), bytes.end());
    }
};

// A session thread that only counts how often it is told to stop.
class CountingThread : public OsThread {
public:
    CountingThread() : OsThread("fake", 0x20000) {}
    BOOL SignalShutdown() override
    {
        ++signals;
        return TRUE;
    }
    std::atomic<int> signals{0};
};

class FakeSwitch : public IRouteTableEntry {
public:
    // Runs on the sender's thread after the frame was recorded.
    using Reply = std::function<void(FakeSwitch&, const Frame&)>;

    explicit FakeSwitch(int id, bool active = true) : id(id), active(active) { setWorkerThread(&thread); }

    int GetClientId() override { return id; }
    bool ActiveMgmt() override { return active.load(); }
    SWITCH_CTL* GetSwitchCtl() override { return describe ? &ctl : nullptr; }
    bool TcpSend(TCP_BD* chain) override
    {
        ++sends;
        if (chain == nullptr) return sendResult;
        Frame f;
        for (TCP_BD* bd = chain; bd != nullptr; bd = bd->pNextBD) {
            if (++f.pieces == 3) f.payloadPiece = bd->pBuf;
            const auto* p = static_cast<const unsigned char*>(bd->pBuf);
            if (p != nullptr && bd->size > 0) f.bytes.insert(f.bytes.end(), p, p + bd->size);
        }
        if (f.bytes.size() >= 40) {
            std::memcpy(static_cast<void*>(&f.ctl), f.bytes.data(), 12);
            std::memcpy(static_cast<void*>(&f.app), f.bytes.data() + 12, 28);
            f.reversed = f.ctl.marker == __builtin_bswap32(std::uint32_t(ORV_MSG_MARKER));
            if (f.reversed) {
                f.ctl.fromNetwork();
                f.app.fromNetwork();
            }
        }
        std::unique_lock<std::mutex> g(lock);
        frames.push_back(f);
        g.unlock();
        arrived.notify_all();
        if (reply) reply(*this, f);
        return sendResult;
    }

    // Queues a response to f from this switch to the tracker.
    void answer(const Frame& f, RSP_STATUS status, const std::vector<unsigned char>& data = {})
    {
        auto* rsp = new CrRsp();
        rsp->SetSeqNbr(int(f.app.getSeqNbr()));
        rsp->SetCmdCode(f.app.getCmdCode());
        rsp->SetRspStat(status);
        rsp->SetMsgAddr(id);
        if (!data.empty()) rsp->SetData(data.data(), int(data.size()));
        CrTracker::getIt()->ReceiveRsp(rsp);
    }

    std::vector<Frame> sent()
    {
        std::lock_guard<std::mutex> g(lock);
        return frames;
    }
    std::size_t sentCount() { return sent().size(); }
    bool waitFor(std::size_t n)
    {
        std::unique_lock<std::mutex> g(lock);
        return arrived.wait_for(g, std::chrono::seconds(30), [&] { return frames.size() >= n; });
    }
    void ownedByThisThread() { setMyThread(pthread_self()); }
    int signals() const { return thread.signals.load(); }

    const int id;
    std::atomic<bool> active;
    std::atomic<bool> sendResult{true};
    std::atomic<int> sends{0};
    Reply reply;
    CountingThread thread;
    SWITCH_CTL ctl;
    bool describe = false;

private:
    std::mutex lock;
    std::condition_variable arrived;
    std::vector<Frame> frames;
};

// Enters sw in table under its id (address 10.0.0.<id> unless given) for the
// scope, owned by the constructing thread so that it can free it again.
class Routed {
public:
    Routed(RouteTable& table, FakeSwitch& sw, const char* ip = nullptr)
        : table(table), ip(c_inaddr(ip ? std::string(ip) : "10.0.0." + std::to_string(sw.id))), id(sw.id)
    {
        sw.ownedByThisThread();
        table.AddRoute(this->ip, id, &sw);
    }
    ~Routed() { table.DeleteRoute(ip, id, nullptr); }
    Routed(const Routed&) = delete;
    Routed& operator=(const Routed&) = delete;

    RouteTable& table;
    const c_inaddr ip;
    const int id;
};

// Address word of dotted text, as GetIpMgmt takes it.
inline int ipWord(const char* dotted)
{
    return static_cast<int>(c_inaddr(dotted).s_addr);
}

} // namespace fake_switch
