#pragma once

// Route tables: destination (switch number or peer address) -> the live
// session that owns the connection. Every lookup counts a use on the route,
// and a route is freed only by its own session's thread once the uses have
// drained, so a session can go away while a sender is inside it.
#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <list>

#include "Ap/ApBase.h"
#include "Common/OS/Linux/WinTypes.h"
#include "Common/Utility/UtlIp.h"
#include "Cr/CrOrvMsg.h"
#include "Io/IoSwitchCtl.h"
#include "Os/UDBControl.h"

class OsThread;
class IoRouter;
class IRouteTableEntry;

// One route, owned by its table. Every field is guarded by the table's listLock.
struct NET_SOCKET {
    NET_SOCKET(const c_inaddr& ip, const c_inaddr& ip2, int clientId, TCP_TYPE tableType, IRouteTableEntry* entry)
        : ipAddr(ip), ipAddr2(ip2), id(clientId), type(tableType), pRouteEntry(entry), useCounter(0), markDelete(false),
          doneShutdown(false)
    {
    }

    c_inaddr ipAddr;
    c_inaddr ipAddr2; // never a lookup key
    int id;
    TCP_TYPE type;
    IRouteTableEntry* pRouteEntry; // not owned
    std::uint32_t useCounter;
    bool markDelete;   // condemned: lookups no longer return it
    bool doneShutdown; // its session has been told to stop
};

// Base of every object that can own a route (the switch session).
class IRouteTableEntry {
public:
    IRouteTableEntry() : pWorkerThread(nullptr), myThread(pthread_t()), pNetSocket(nullptr) {}
    virtual ~IRouteTableEntry() = default;
    virtual int GetClientId() = 0;
    // False once the entry has been superseded or is stopping.
    virtual bool ActiveMgmt() = 0;
    virtual bool TcpSend(TCP_BD* chain) = 0;
    // The switch behind the entry, for the route table's log line; null when
    // the entry describes none.
    virtual SWITCH_CTL* GetSwitchCtl() { return nullptr; }

    NET_SOCKET* getNetSocket() const { return pNetSocket.load(std::memory_order_acquire); }
    void setNetSocket(NET_SOCKET* route) { pNetSocket.store(route, std::memory_order_release); }
    void setWorkerThread(OsThread* t) { pWorkerThread.store(t, std::memory_order_release); }
    void setMyThread(pthread_t t) { myThread.store(t, std::memory_order_release); }
    pthread_t getMyThread() const { return myThread.load(std::memory_order_acquire); }
    // Asks the worker thread to stop; only the first call does anything.
    void signalShutdown();

    IRouteTableEntry(const IRouteTableEntry&) = delete;
    IRouteTableEntry& operator=(const IRouteTableEntry&) = delete;

protected:
    std::atomic<OsThread*> pWorkerThread;
    std::atomic<pthread_t> myThread;
    std::atomic<NET_SOCKET*> pNetSocket;
};

// Search predicates; a search takes the first match in list order.
struct FindIpRoute {
    explicit FindIpRoute(const c_inaddr& ip) : ip(ip) {}
    bool operator()(const NET_SOCKET* r) const { return r->ipAddr.s_addr == ip.s_addr; }
    c_inaddr ip;
};

struct FindIdRoute {
    explicit FindIdRoute(int id) : id(id) {}
    bool operator()(const NET_SOCKET* r) const
    {
        return r->pRouteEntry != nullptr && r->pRouteEntry->GetClientId() == id && r->pRouteEntry->ActiveMgmt();
    }
    int id;
};

// Model names by SWITCH_MODEL 0-9.
extern const char* const pModel[10];
// pModel's text, our names for later models, "UNDEFINED" for anything else.
const char* switchModelName(int model);

class RouteTable {
public:
    explicit RouteTable(TCP_TYPE type);
    // Frees the list nodes, not the routes.
    ~RouteTable();

    // The table registered under t in the control block, or null.
    static RouteTable* getIt(CLASS_TYPE t);

    // Always 1. An older route to the same address and number is removed or
    // condemned first; a duplicate is never refused.
    int AddRoute(const c_inaddr& ip, int id, IRouteTableEntry* entry, const c_inaddr& ip2);
    int AddRoute(const c_inaddr& ip, int id, IRouteTableEntry* entry);
    // 1 when the route was freed now, else 0. which, when given, must be the
    // very route found.
    int DeleteRoute(const c_inaddr& ip, int id, NET_SOCKET* which);
    int DeleteRoute(int id);

    // Count a use on the route found; give it back with Done.
    NET_SOCKET* GetIoMgmt(int id);
    NET_SOCKET* GetIpMgmt(int ip);
    void Done(NET_SOCKET* route);
    c_inaddr GetClientIp(int id);

    TCP_TYPE GetTableType() const { return tableType; }
    // Routes in the list, condemned ones included.
    std::size_t RouteCount();
    // useCounter of a route still in the list, or -1.
    long UseCount(const NET_SOCKET* route);

    RouteTable(const RouteTable&) = delete;
    RouteTable& operator=(const RouteTable&) = delete;

private:
    // Table wording of the log lines: switch table or API/poll table.
    bool isSwitchTable() const { return tableType != TCP_SERVER && tableType != TCP_POLL; }
    // The removal step; listLock is held. True when the route was freed.
    bool removeRoute(std::list<NET_SOCKET*>::iterator it);
    template <typename Pred>
    NET_SOCKET* lookup(Pred pred);

    TCP_TYPE tableType;
    HANDLE listLock;
    std::list<NET_SOCKET*> netList;
};

// Holds one use of one route for the duration of a send.
class NetSocketHdl {
public:
    explicit NetSocketHdl(IoRouter* router);
    explicit NetSocketHdl(RouteTable* table);
    ~NetSocketHdl();

    // Picks the router's table for type and the route by address (ip not 0)
    // or by number; keeps it with its use. Gives back a route held before.
    void SelectSocket(TCP_TYPE type, int ip, int id);
    bool TcpSend(TCP_BD* chain);
    c_inaddr GetClientIp(int id);
    NET_SOCKET* GetNetSocket() const { return m_netSocketPtr; }

    NetSocketHdl(const NetSocketHdl&) = delete;
    NetSocketHdl& operator=(const NetSocketHdl&) = delete;

private:
    friend class RouteTable;
    void release();

    NET_SOCKET* m_netSocketPtr;
    IoRouter* m_ioRouterPtr;
    RouteTable* m_routeTablePtr;
};

namespace tavro_internal {
// The wait for a route's uses to drain, replaceable by tests (never exported).
struct RouteTableSeams {
    void (*sleepMs)(unsigned ms);
    unsigned maxDrainWaits; // 300
    unsigned drainWaitMs;   // 1000
};
RouteTableSeams& routeTableSeams();
void resetRouteTableSeams();
// Sends attempted through a handle without a route (stcnt).
unsigned netSocketHdlNoRouteCount();
} // namespace tavro_internal
