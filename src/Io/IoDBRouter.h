#pragma once

// The router: every outgoing command and response leaves the library here.
// It frames a message as three buffer descriptors on the caller's stack and
// hands them to the session owning each destination's route. Its own thread
// fans event packets out to logged-on API clients.
#include <list>

#include "Ap/ApEvents.h"
#include "Common/OS/Linux/WinTypes.h"
#include "Common/OS/OsThread.h"
#include "Cr/CrDBCmd.h"
#include "Cr/CrOrvMsg.h"

class RouteTable;
class UDBControl;
class UtlQueue;

// One API client's logon. This library has no API clients, so nothing fills
// these; the router's event loop still honours them when registered.
struct LogonCtl {
    LogonCtl() = default;
    ~LogonCtl();
    LogonCtl(const LogonCtl&) = delete;
    LogonCtl& operator=(const LogonCtl&) = delete;

    bool logonInProgress = false;
    TCP_TYPE tcpType = TCP_SERVER;
    // Events that reached us while the client was still logging on; owned.
    std::list<API_EVENT_PKT*> pendingEvents;
};

// The logged-on API clients (class slot SMN_LOGON_CTL).
class LogonList {
public:
    LogonList() = default;
    ~LogonList();
    LogonList(const LogonList&) = delete;
    LogonList& operator=(const LogonList&) = delete;

    // Clients that take events in host order (false) or network order (true).
    const SlaveAddr& GetBroadcastEndian(bool networkOrder) const { return broadcast[networkOrder ? 1 : 0]; }
    void SetBroadcastEndian(bool networkOrder, const SlaveAddr& addr) { broadcast[networkOrder ? 1 : 0] = addr; }
    // Owned.
    std::list<LogonCtl*>& Logons() { return logons; }

private:
    SlaveAddr broadcast[2];
    std::list<LogonCtl*> logons;
};

class IoRouter : public OsThread {
public:
    static constexpr unsigned STACK_SIZE = 262144;
    static constexpr int EVENT_QUEUE_SIZE = 4096;
    static constexpr DWORD POLL_MS = 100;

    // Result codes of the send operations.
    enum { SEND_OK = 0, SEND_TOO_LARGE = 1, SEND_NULL = 2, SEND_NO_ROUTE = 3 };

    // Takes the control block and the three route tables from the class table.
    IoRouter();
    // Explicit tables, for a router outside the system (tests, tools).
    IoRouter(RouteTable* api, RouteTable* swi, RouteTable* poll);
    ~IoRouter() override;

    void* Execute(void* arg) override;

    // The router registered with the control block (SMN_IOR).
    static IoRouter* getIt();

    int SendCmd(CrCmd* cmd);
    int SendR700Cmd(CrCmd* cmd);
    // False for a command SendR700Cmd refuses as too large.
    static bool FitsOnWire(const CrCmd& cmd);
    int SendRsp(CrRsp* rsp);
    int SendR700Rsp(CrRsp* rsp);
    // Queues a copy of data as an event command; the queue owns it.
    int SendEvent(void* data, int size);

    void establishTcpBufferDescriptors(TCP_BD* bd, ORV_CTL_MSG& ctl, ORV_APP_MSG& app, void* data, const char* caller);
    // 0 when at least one destination took the chain, else 3. A non-zero
    // client selects the route by that address for every destination.
    int SendMsg(TCP_BD* chain, const SlaveAddr& dst, TCP_TYPE type, int client);

    // The destructor sets ev (when given) as the thread's last act on shared
    // state, so whoever stops the router can tell when it is gone.
    void SetExitNotify(HANDLE ev) { hExitNotify = ev; }
    UtlQueue* GetEventQueue() const { return pEventQue; }

    // Read by NetSocketHdl::SelectSocket.
    UDBControl* pUDBCtl;
    RouteTable* pApiRoute;
    RouteTable* pSwiRoute;
    RouteTable* pPollRoute;

private:
    // Fans one event command out; eventlock is held by the caller.
    void FanOutEvent(CrCmd* item, LogonList* logons);

    UtlQueue* pEventQue;
    HANDLE hExitNotify = nullptr;
};
