#pragma once

// Stand-ins for sessions owning routes.
#include <pthread.h>

#include <atomic>
#include <string>

#include "Common/OS/OsThread.h"
#include "Io/IoRouteTable.h"

namespace route_test {

// A thread object that only counts how often it is told to stop.
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

class FakeEntry : public IRouteTableEntry {
public:
    explicit FakeEntry(int clientId, bool active = true) : clientId(clientId), active(active)
    {
        setWorkerThread(&thread);
    }
    int GetClientId() override { return clientId; }
    bool ActiveMgmt() override { return active.load(); }
    bool TcpSend(TCP_BD* chain) override
    {
        ++sends;
        lastChain = chain;
        return sendResult.load();
    }
    SWITCH_CTL* GetSwitchCtl() override { return describe ? &ctl : nullptr; }
    // Makes the calling thread the session's own thread.
    void ownedByThisThread() { setMyThread(pthread_self()); }
    int signals() const { return thread.signals.load(); }

    CountingThread thread;
    int clientId;
    std::atomic<bool> active;
    std::atomic<bool> sendResult{true};
    std::atomic<int> sends{0};
    std::atomic<TCP_BD*> lastChain{nullptr};
    SWITCH_CTL ctl;
    bool describe = false;
};

// Address word of dotted text, as GetIpMgmt takes it.
inline int ipWord(const char* dotted)
{
    return static_cast<int>(c_inaddr(dotted).s_addr);
}

} // namespace route_test
