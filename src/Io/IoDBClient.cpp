#include "Io/IoDBClient.h"

#include <arpa/inet.h>
#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <new>
#include <sstream>
#include <vector>

#include "Common/OS/Linux/CWinTimerHandle.h"
#include "Common/OS/Linux/WinEvent.h"
#include "Common/OS/OsSocket.h"
#include "Common/Utility/UtlDebug.h"
#include "Common/Utility/UtlTraceLine.h"
#include "Cr/CrDBTracker.h"
#include "Os/UDBControl.h"

namespace {

DWORD scheduledWait(int connectWait)
{
    return connectWait < 0 ? 0 : static_cast<DWORD>(connectWait);
}

tavro_internal::ClientSeams defaultSeams()
{
    return {scheduledWait, IoClientMgmt::TERMINATING_WAIT};
}

tavro_internal::ClientSeams g_seams = defaultSeams();

// Sessions made by startClient that their owners have not deleted. Never
// destroyed, so that it is usable until the very end of the process.
struct SessionRegistry {
    std::mutex lock;
    std::vector<IoClientMgmt*> sessions;
};

SessionRegistry& registry()
{
    static SessionRegistry* r = new SessionRegistry;
    return *r;
}

void forgetSession(IoClientMgmt* s)
{
    SessionRegistry& r = registry();
    std::lock_guard<std::mutex> g(r.lock);
    r.sessions.erase(std::remove(r.sessions.begin(), r.sessions.end(), s), r.sessions.end());
}

// Deletes the registered sessions whose loop has ended.
void reclaimFinishedSessions()
{
    std::vector<IoClientMgmt*> done;
    {
        SessionRegistry& r = registry();
        std::lock_guard<std::mutex> g(r.lock);
        for (auto it = r.sessions.begin(); it != r.sessions.end();) {
            if ((*it)->HasFinished()) {
                done.push_back(*it);
                it = r.sessions.erase(it);
            } else {
                ++it;
            }
        }
    }
    for (IoClientMgmt* s : done) delete s;
}

// A received frame whose header promises more than the frame carries.
void traceBadFrame(const c_sockaddr& peer, std::uint32_t frameSize, std::uint32_t appSize)
{
    UTL_TRACE("IoClientMgmt::Execute"
              << ": IP[" << peer.address() << "] ORV_CTL_MSG size[" << frameSize
              << "] too small for ORV_APP_MSG appSize[" << appSize << "].  MESSAGE DROPPED!\n");
}

// The kernel copies a large body into the buffer several times slower when
// the destination lies just above its source modulo a page (4 KiB
// aliasing), and the source starts near a page boundary: so the body starts
// in the middle of a page.
constexpr std::size_t kRcvPage = 4096;
constexpr std::size_t kRcvBodyAt = kRcvPage / 2;

ORV_APP_MSG* placeForBody(char* buffer)
{
    const auto body = reinterpret_cast<std::uintptr_t>(buffer) + sizeof(ORV_APP_MSG);
    const std::size_t pad = (kRcvBodyAt + kRcvPage - body % kRcvPage) % kRcvPage;
    return reinterpret_cast<ORV_APP_MSG*>(buffer + pad);
}

} // namespace

tavro_internal::ClientSeams& tavro_internal::clientSeams()
{
    return g_seams;
}

void tavro_internal::resetClientSeams()
{
    g_seams = defaultSeams();
}

void tavro_internal::deliverSessionMessage(IoClientMgmt& session, const ORV_CTL_MSG& ctl, ORV_APP_MSG* app)
{
    session.handleMessage(ctl, app);
}

std::size_t tavro_internal::clientSessionCount()
{
    SessionRegistry& r = registry();
    std::lock_guard<std::mutex> g(r.lock);
    return r.sessions.size();
}

// Runs the session's loop on a thread object of its own: a started OsThread
// deletes itself when its body returns, and the session must outlive that.
class IoClientMgmt::SessionThread : public OsThread {
public:
    explicit SessionThread(IoClientMgmt* session) : OsThread("IoClientMgmt", STACK_SIZE), session(session) {}
    void* Execute(void* arg) override
    {
        session->Execute(arg);
        session->markFinished(); // the last touch of the session
        return nullptr;
    }

private:
    IoClientMgmt* session;
};

// ---------------------------------------------------------------------------

CONNECT_BACKOFF IoClientMgmt::nextConnectBackoff(int connectErr, int connectWait)
{
    ++connectErr;
    if (connectErr > MAX_CONNECT_ERR) {
        connectErr = 0;
        connectWait = connectWait < MAX_DOUBLED_WAIT ? connectWait * 2 : INITIAL_CONNECT_WAIT;
    }
    return {connectErr, connectWait};
}

IoClientMgmt* IoClientMgmt::startClient(int clientNbr, unsigned short port, Dispatcher dispatcher)
{
    reclaimFinishedSessions();
    const c_sockaddr addr(AF_INET, c_inaddr("127.0.0.1"), htons(port));
    auto* session = new IoClientMgmt(addr, nullptr, clientNbr, dispatcher);
    session->SetActiveMgmt(true);
    {
        SessionRegistry& r = registry();
        std::lock_guard<std::mutex> g(r.lock);
        r.sessions.push_back(session);
    }
    session->Start(nullptr);
    return session;
}

IoClientMgmt::IoClientMgmt(const c_sockaddr& addr, SWITCH_CTL*, int clientNbr, Dispatcher dispatcher)
    : OsThread(STACK_SIZE), pSocket(nullptr), pUDBCtl(UDBControl::getIt()), processState(TCP_NONE),
      myDispatcher(dispatcher), switchState(SWI_OP_UNDEFINED), swiType(SW_TYPE_UNDEF), bConnect(false), bActive(false),
      bStarted(false), rcvCount(0), lastRcv(0), sockAddr(addr), hTimer(nullptr), syncLock(nullptr), connectErr(0),
      connectWait(INITIAL_CONNECT_WAIT), clientNbr(clientNbr)
{
    setWorkerThread(this);
    switchAdr = SlaveAddr();
    switchAdr.SetSlaveAddr(clientNbr);
    hTimer = CreateWaitableTimer(nullptr, FALSE, nullptr);
    syncLock = CreateMutex(nullptr, FALSE, nullptr);
}

IoClientMgmt::~IoClientMgmt()
{
    forgetSession(this);
    if (!HasFinished()) {
        SignalShutdown();
        std::unique_lock<std::mutex> lk(finishLock);
        finishCond.wait(lk, [this] { return !threadRunning; });
    }
    if (hTimer != nullptr) CloseHandle(hTimer);
    if (syncLock != nullptr) CloseHandle(syncLock);
    delete pSocket.load();
}

bool IoClientMgmt::Start(void* arg)
{
    {
        std::lock_guard<std::mutex> g(finishLock);
        if (threadRunning) return false;
        threadRunning = true;
    }
    auto* t = new SessionThread(this);
    if (t->OsThread::Start(arg)) return true;
    delete t;
    markFinished();
    return false;
}

void IoClientMgmt::markFinished()
{
    std::lock_guard<std::mutex> g(finishLock);
    threadRunning = false;
    finishCond.notify_all();
}

bool IoClientMgmt::HasFinished()
{
    std::lock_guard<std::mutex> g(finishLock);
    return !threadRunning;
}

bool IoClientMgmt::WaitFinished(DWORD ms)
{
    std::unique_lock<std::mutex> lk(finishLock);
    if (ms == INFINITE) {
        finishCond.wait(lk, [this] { return !threadRunning; });
        return true;
    }
    return finishCond.wait_for(lk, std::chrono::milliseconds(ms), [this] { return !threadRunning; });
}

// ---------------------------------------------------------------------------
// The loop

void* IoClientMgmt::Execute(void*)
{
    pTracker = CrTracker::getIt();
    pSwiTable = RouteTable::getIt(SMN_SWI_TABLE);
    {
        std::lock_guard<std::mutex> g(sockLock);
        pSocket.store(new OsSocket(sockAddr.address().toString().c_str(), sockAddr, TCP_CLIENT, 0),
                      std::memory_order_release);
    }
    pRcvBuffer = new (std::nothrow) char[MAX_TCP_MSG_SIZE + kRcvPage];
    if (pRcvBuffer == nullptr) {
        debugOut("IoClientMgmt::Execute: no memory for the receive buffer!\n");
        processState.store(TCP_DISCONNECT, std::memory_order_release);
        return nullptr;
    }
    pRcvApp = placeForBody(pRcvBuffer);
    processState.store(TCP_CONNECT, std::memory_order_release);
    setMyThread(pthread_self());
    if (pSwiTable != nullptr) pSwiTable->AddRoute(sockAddr.address(), switchCtl.switchId, this);

    while (!Shuttingdown()) {
        switch (GetProcState()) {
        case TCP_CONNECT: passConnect(); break;
        case TCP_TEST_CONNECT: passTestConnect(); break;
        case TCP_NORMAL: passNormal(); break;
        case TCP_DISCONNECT: passDisconnect(); break;
        case TCP_NONE:
        case TCP_STOP: break;
        }
    }

    if (pSwiTable != nullptr) {
        // A condemned older route to the same address ahead of ours hides
        // ours from the removal; it goes once that session has left.
        while (getNetSocket() != nullptr) {
            pSwiTable->DeleteRoute(sockAddr.address(), switchCtl.switchId, getNetSocket());
            if (getNetSocket() != nullptr) Sleep(50);
        }
    }
    delete[] pRcvBuffer;
    pRcvBuffer = nullptr;
    pRcvApp = nullptr;
    bConnect.store(false, std::memory_order_release);
    bActive.store(false, std::memory_order_release);
    Close();
    // Whoever stopped the session polls for this.
    processState.store(TCP_DISCONNECT, std::memory_order_release);
    return nullptr;
}

void IoClientMgmt::pause(DWORD ms)
{
    if (ms != 0) WaitForSingleObject(evntShutdownThread, ms);
}

bool IoClientMgmt::prepareSocket()
{
    std::lock_guard<std::mutex> g(sockLock);
    if (Shuttingdown()) return false;
    OsSocket* s = pSocket.load(std::memory_order_acquire);
    // A sender that saw TCP_NORMAL before the drop finishes (and fails) on
    // the old descriptor before the new one exists.
    s->LockSendMutex();
    const bool ok = s->PrepareSocket();
    s->ReleaseSendMutex();
    return ok;
}

void IoClientMgmt::passConnect()
{
    const CONNECT_BACKOFF next = nextConnectBackoff(GetConnectErr(), GetConnectWait());
    connectErr.store(next.connectErr, std::memory_order_release);
    connectWait.store(next.connectWait, std::memory_order_release);
    pause(g_seams.connectDelayMs(next.connectWait));
    if (Shuttingdown()) return;
    OsSocket* s = pSocket.load(std::memory_order_acquire);
    if (!prepareSocket() || !s->Connect()) {
        s->Close();
        return;
    }
    processState.store(TCP_TEST_CONNECT, std::memory_order_release);
}

void IoClientMgmt::passTestConnect()
{
    OsSocket* s = pSocket.load(std::memory_order_acquire);
    if (!s->Send(&ORV_LINK_TEST_MSG, sizeof ORV_LINK_TEST_MSG)) {
        s->Close();
        processState.store(TCP_CONNECT, std::memory_order_release);
        setSwiStateBit(SWITCH_CTL::STATE_LINK_TEST_FAILED);
        return;
    }
    rcvCount.store(4, std::memory_order_release);
    lastRcv.store(0, std::memory_order_release);
    bConnect.store(true, std::memory_order_release);
    bActive.store(true, std::memory_order_release);
    setSwiStateBit(SWITCH_CTL::STATE_LINK_TEST_PASSED);
    processState.store(TCP_NORMAL, std::memory_order_release);
}

void IoClientMgmt::passNormal()
{
    OsSocket* s = pSocket.load(std::memory_order_acquire);
    ORV_CTL_MSG ctl;
    ORV_APP_MSG* app = pRcvApp;
    if (!s->GetOrvMessage(&ctl, app, MAX_TCP_MSG_SIZE)) {
        processState.store(TCP_DISCONNECT, std::memory_order_release);
        return;
    }
    rcvCount.fetch_add(1, std::memory_order_acq_rel);
    handleMessage(ctl, app);
}

void IoClientMgmt::handleMessage(const ORV_CTL_MSG& ctl, ORV_APP_MSG* app)
{
    // Unknown managers (link test echoes among them) are dropped.
    const std::uint32_t mgr = ctl.manager;
    if (mgr >= static_cast<std::uint32_t>(MGR_MAX)) return;
    // The buffer beyond the frame holds older bytes: never read into them.
    const std::uint32_t frameSize = ctl.getSize();
    if (frameSize < sizeof(ORV_APP_MSG) || app->getAppSize() > frameSize - sizeof(ORV_APP_MSG)) {
        traceBadFrame(sockAddr, frameSize, frameSize < sizeof(ORV_APP_MSG) ? 0 : app->getAppSize());
        return;
    }
    if (app->getMsgType() == MSG_COMMAND) {
        auto* cmd = new CrCmd(static_cast<MGR_CLASS>(mgr), app, nullptr);
        cmd->SetSourceNet(TCP_CLIENT);
        cmd->SetMsgAddr(switchAdr);
        if (myDispatcher != nullptr) myDispatcher(cmd);
        delete cmd;
        return;
    }
    auto* rsp = new CrRsp(static_cast<MGR_CLASS>(mgr), app, nullptr);
    rsp->SetNetworkOrder(app->isNetworkOrder());
    rsp->SetMsgAddr(switchAdr);
    if (pTracker == nullptr) pTracker = CrTracker::getIt();
    if (pTracker == nullptr) {
        delete rsp;
        return;
    }
    pTracker->ReceiveRsp(rsp);
}

void IoClientMgmt::passDisconnect()
{
    bConnect.store(false, std::memory_order_release);
    pSocket.load(std::memory_order_acquire)->Close();
    bActive.store(false, std::memory_order_release);
    connectWait.store(INITIAL_CONNECT_WAIT, std::memory_order_release);
    connectErr.store(0, std::memory_order_release);
    if (OsSocket::isProgramTerminating()) {
        pause(g_seams.terminatingWaitMs);
        return;
    }
    processState.store(TCP_CONNECT, std::memory_order_release);
}

void IoClientMgmt::setSwiStateBit(std::uint64_t bit)
{
    std::lock_guard<std::mutex> g(ctlLock);
    switchCtl.swiState |= bit;
}

std::uint64_t IoClientMgmt::GetSwiState()
{
    std::lock_guard<std::mutex> g(ctlLock);
    return switchCtl.swiState;
}

// ---------------------------------------------------------------------------
// From other threads

BOOL IoClientMgmt::SignalShutdown()
{
    // Entered under switchId, removed under the client number: the keys
    // differ here, so this finds nothing and the loop's end removes the
    // route. They agree only where switchId is filled in.
    if (RouteTable* table = RouteTable::getIt(SMN_SWI_TABLE))
        table->DeleteRoute(sockAddr.address(), GetClientId(), getNetSocket());
    // The flag first: a loop that has not made its socket yet, or is about
    // to make a new descriptor, sees it under sockLock and stops instead.
    const BOOL rc = OsThread::SignalShutdown();
    std::lock_guard<std::mutex> g(sockLock);
    if (OsSocket* s = pSocket.load(std::memory_order_acquire)) {
        s->SignalShutdown();
        s->Close();
    }
    return rc;
}

bool IoClientMgmt::TcpSend(TCP_BD* chain)
{
    if (GetProcState() != TCP_NORMAL) return false;
    OsSocket* s = pSocket.load(std::memory_order_acquire);
    if (s == nullptr) return false;
    // Checked again under the send mutex, which a reconnection takes before
    // it makes a new descriptor.
    s->LockSendMutex();
    const bool ok = GetProcState() == TCP_NORMAL && s->SendBD(chain);
    s->ReleaseSendMutex();
    return ok;
}

int IoClientMgmt::GetClientId()
{
    return switchAdr.GetNextSlaveAddr(0);
}

void IoClientMgmt::Close()
{
    std::lock_guard<std::mutex> g(sockLock);
    if (OsSocket* s = pSocket.load(std::memory_order_acquire)) s->Close();
}
