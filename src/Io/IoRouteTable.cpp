#include "Io/IoRouteTable.h"

#include <algorithm>
#include <sstream>

#include "Common/OS/Linux/OSAL.h"
#include "Common/OS/Linux/WinEvent.h"
#include "Common/OS/OsThread.h"
#include "Common/Utility/UtlDebug.h"
#include "Common/Utility/UtlTraceLine.h"
#include "Io/IoDBRouter.h"

namespace {

void sleepReal(unsigned ms)
{
    Sleep(ms);
}

tavro_internal::RouteTableSeams defaultSeams()
{
    return {sleepReal, 300, 1000};
}

tavro_internal::RouteTableSeams g_seams = defaultSeams();

std::atomic<unsigned> stcnt{0};

// Holds a table's listLock for a scope.
class ListLock {
public:
    explicit ListLock(HANDLE h) : h(h) { WaitForSingleObject(h, INFINITE); }
    ~ListLock() { ReleaseMutex(h); }
    ListLock(const ListLock&) = delete;
    ListLock& operator=(const ListLock&) = delete;

private:
    HANDLE h;
};

void trace(const std::string& text)
{
    debugOut(text.c_str(), false);
}

} // namespace

tavro_internal::RouteTableSeams& tavro_internal::routeTableSeams()
{
    return g_seams;
}

void tavro_internal::resetRouteTableSeams()
{
    g_seams = defaultSeams();
}

unsigned tavro_internal::netSocketHdlNoRouteCount()
{
    return stcnt.load();
}

const char* const pModel[10] = {"UNDEFINED", "N511", "N512", "N512H", "N513", "N514", "R721", "R723", "R732", "R732s"};

const char* switchModelName(int model)
{
    switch (model) {
    case SW_MODEL_R721_R: return "R721_R";
    case SW_MODEL_OPTICAL: return "OPTICAL";
    case SW_MODEL_HYBRID: return "HYBRID";
    case SW_MODEL_OTHER_VENDOR: return "OTHER_VENDOR";
    default: break;
    }
    if (model < 0 || model >= static_cast<int>(sizeof pModel / sizeof pModel[0])) return pModel[0];
    return pModel[model];
}

// ---------------------------------------------------------------------------
// IRouteTableEntry

void IRouteTableEntry::signalShutdown()
{
    OsThread* t = pWorkerThread.exchange(nullptr, std::memory_order_acq_rel);
    if (t != nullptr) t->SignalShutdown();
}

// ---------------------------------------------------------------------------
// RouteTable

RouteTable::RouteTable(TCP_TYPE type) : tableType(type), listLock(CreateMutex(nullptr, FALSE, nullptr)) {}

RouteTable::~RouteTable()
{
    CloseHandle(listLock);
}

RouteTable* RouteTable::getIt(CLASS_TYPE t)
{
    return static_cast<RouteTable*>(UDBControl::GetClassRef(t));
}

int RouteTable::AddRoute(const c_inaddr& ip, int id, IRouteTableEntry* entry)
{
    return AddRoute(ip, id, entry, c_inaddr());
}

int RouteTable::AddRoute(const c_inaddr& ipRef, int id, IRouteTableEntry* entry, const c_inaddr& ip2Ref)
{
    // Copies: the caller may pass an older route's addresses, freed below.
    const c_inaddr ip = ipRef;
    const c_inaddr ip2 = ip2Ref;
    DeleteRoute(ip, id, nullptr);
    {
        ListLock g(listLock);
        NET_SOCKET* route = new NET_SOCKET(ip, ip2, id, tableType, entry);
        netList.push_back(route);
        if (entry != nullptr) entry->setNetSocket(route);
    }
    std::ostringstream os;
    if (isSwitchTable()) {
        const SWITCH_CTL defaults;
        const SWITCH_CTL* ctl = entry ? entry->GetSwitchCtl() : nullptr;
        if (ctl == nullptr) ctl = &defaults;
        os << " ROUT: for [" << (ctl->typeR700() ? "R7xx" : "N5xx") << "] switch ID[" << id << "], Model["
           << switchModelName(ctl->swiModel) << "] added to routing table with IP[" << ip << "] and IP[" << ip2
           << "]\n";
    } else {
        os << " ROUT: Client [" << id << "] added to API routing table\n";
    }
    trace(os.str());
    return 1;
}

bool RouteTable::removeRoute(std::list<NET_SOCKET*>::iterator it)
{
    NET_SOCKET* route = *it;
    IRouteTableEntry* entry = route->pRouteEntry;
    if (entry != nullptr && pthread_equal(entry->getMyThread(), pthread_self())) {
        // The session removes its own route: nobody finds it any more, and it
        // is freed once the senders inside it have given their uses back.
        netList.erase(it);
        UTL_TRACE("DeleteRoute"
                  << ": id[" << route->id << "] ipaddr[" << route->ipAddr << "]\n");
        const tavro_internal::RouteTableSeams& seams = g_seams;
        for (unsigned waits = 0; route->useCounter != 0 && waits < seams.maxDrainWaits; ++waits) {
            ReleaseMutex(listLock);
            seams.sleepMs(seams.drainWaitMs);
            WaitForSingleObject(listLock, INFINITE);
        }
        if (route->pRouteEntry != nullptr && !route->doneShutdown) {
            route->doneShutdown = true;
            route->pRouteEntry->signalShutdown();
        }
        if (entry->getNetSocket() == route) entry->setNetSocket(nullptr);
        delete route;
        return true;
    }
    // Another thread asks: condemn the route and tell its session, once; the
    // session's thread frees it on its way out.
    if (entry == nullptr) return false;
    route->markDelete = true;
    if (route->doneShutdown) return false;
    route->doneShutdown = true;
    entry->signalShutdown();
    return false;
}

int RouteTable::DeleteRoute(const c_inaddr& ipRef, int id, NET_SOCKET* which)
{
    // A copy: the caller may pass the very route's address, freed below.
    const c_inaddr ip = ipRef;
    bool freed = false;
    {
        ListLock g(listLock);
        auto it = std::find_if(netList.begin(), netList.end(), FindIpRoute(ip));
        if (it != netList.end() && (*it)->id == id && (which == nullptr || which == *it)) freed = removeRoute(it);
    }
    if (freed) {
        std::ostringstream os;
        if (isSwitchTable())
            os << " ROUT: R700 switch [" << ip << "] removed from Switch routing table\n";
        else
            os << " ROUT: Client [" << ip << "] removed from API routing table\n";
        trace(os.str());
    }
    return freed ? 1 : 0;
}

int RouteTable::DeleteRoute(int id)
{
    bool freed = false;
    {
        ListLock g(listLock);
        auto it = std::find_if(netList.begin(), netList.end(), FindIdRoute(id));
        if (it != netList.end()) freed = removeRoute(it);
    }
    if (freed) {
        std::ostringstream os;
        if (isSwitchTable())
            os << " ROUT: R700 switch [" << id << "] removed from Switch routing table\n";
        else
            os << " ROUT: Client [" << id << "] removed from API routing table\n";
        trace(os.str());
    }
    return freed ? 1 : 0;
}

template <typename Pred>
NET_SOCKET* RouteTable::lookup(Pred pred)
{
    ListLock g(listLock);
    auto it = std::find_if(netList.begin(), netList.end(), pred);
    // A condemned route hides any later one with the same key until it is freed.
    if (it == netList.end() || (*it)->markDelete) return nullptr;
    ++(*it)->useCounter;
    return *it;
}

NET_SOCKET* RouteTable::GetIoMgmt(int id)
{
    return lookup(FindIdRoute(id));
}

NET_SOCKET* RouteTable::GetIpMgmt(int ip)
{
    return lookup(FindIpRoute(c_inaddr(ip)));
}

void RouteTable::Done(NET_SOCKET* route)
{
    if (route == nullptr) return;
    ListLock g(listLock);
    if (route->useCounter > 0) --route->useCounter;
}

c_inaddr RouteTable::GetClientIp(int id)
{
    NetSocketHdl hdl(this);
    hdl.m_netSocketPtr = GetIoMgmt(id);
    return hdl.m_netSocketPtr ? hdl.m_netSocketPtr->ipAddr : c_inaddr();
}

std::size_t RouteTable::RouteCount()
{
    ListLock g(listLock);
    return netList.size();
}

long RouteTable::UseCount(const NET_SOCKET* route)
{
    ListLock g(listLock);
    for (const NET_SOCKET* r : netList)
        if (r == route) return static_cast<long>(r->useCounter);
    return -1;
}

// ---------------------------------------------------------------------------
// NetSocketHdl

NetSocketHdl::NetSocketHdl(IoRouter* router) : m_netSocketPtr(nullptr), m_ioRouterPtr(router), m_routeTablePtr(nullptr)
{
}

NetSocketHdl::NetSocketHdl(RouteTable* table) : m_netSocketPtr(nullptr), m_ioRouterPtr(nullptr), m_routeTablePtr(table)
{
}

NetSocketHdl::~NetSocketHdl()
{
    release();
}

void NetSocketHdl::release()
{
    if (m_netSocketPtr != nullptr && m_routeTablePtr != nullptr) m_routeTablePtr->Done(m_netSocketPtr);
    m_netSocketPtr = nullptr;
}

void NetSocketHdl::SelectSocket(TCP_TYPE type, int ip, int id)
{
    if (m_ioRouterPtr == nullptr) return;
    release();
    RouteTable* table;
    switch (type) {
    case TCP_SERVER: table = m_ioRouterPtr->pApiRoute; break;
    case TCP_POLL: table = m_ioRouterPtr->pPollRoute; break;
    default: table = m_ioRouterPtr->pSwiRoute; break;
    }
    m_routeTablePtr = table;
    if (table == nullptr) return;
    m_netSocketPtr = ip != 0 ? table->GetIpMgmt(ip) : table->GetIoMgmt(id);
}

bool NetSocketHdl::TcpSend(TCP_BD* chain)
{
    if (m_netSocketPtr == nullptr || m_netSocketPtr->pRouteEntry == nullptr) {
        stcnt.fetch_add(1, std::memory_order_relaxed);
        return false;
    }
    return m_netSocketPtr->pRouteEntry->TcpSend(chain);
}

c_inaddr NetSocketHdl::GetClientIp(int id)
{
    return m_routeTablePtr ? m_routeTablePtr->GetClientIp(id) : c_inaddr();
}
