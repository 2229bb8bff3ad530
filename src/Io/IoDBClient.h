#pragma once

// The switch client session: one TCP connection to a switch service, run on
// a thread of its own. It connects and reconnects with a growing back-off,
// proves the link with the link test header, enters itself in the switch
// route table so that the router can send through it, and reads frames:
// switch-initiated commands go to the dispatcher, responses to the tracker.
//
// Ownership: the caller of startClient owns the session. Unlike other thread
// objects it is NOT deleted by its thread when the loop ends, because its
// owner keeps polling GetProcState after asking it to stop. Deleting it stops
// the loop and waits for the thread to leave it. A session that was started
// by startClient and never deleted is reclaimed by a later startClient once
// its loop has ended, so the owner must not touch a stopped session after
// starting another one.
#include <atomic>
#include <cstddef>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "Common/OS/Linux/WinTypes.h"
#include "Common/OS/OsThread.h"
#include "Common/Utility/UtlIp.h"
#include "Cr/CrDBCmd.h"
#include "Io/IoRouteTable.h"
#include "Io/IoSwitchCtl.h"

class CrTracker;
class IoClientMgmt;
class OsSocket;
class UDBControl;

enum TCP_PROC_STATE {
    TCP_NONE = 0,
    TCP_CONNECT = 1,
    TCP_TEST_CONNECT = 2,
    TCP_DISCONNECT = 3,
    TCP_STOP = 4,
    TCP_NORMAL = 5,
};

// Back-off state: attempts since the wait last changed, and the wait.
struct CONNECT_BACKOFF {
    int connectErr;
    int connectWait; // milliseconds before the next attempt
};

namespace tavro_internal {
// The session's fixed waits, replaceable by tests (never exported). Set
// before sessions start; restore with resetClientSeams() once they ended.
struct ClientSeams {
    // Milliseconds actually waited before an attempt scheduled connectWait ms
    // after the previous one; the identity by default.
    DWORD (*connectDelayMs)(int connectWait);
    // The pause between passes while the program is terminating (2000).
    DWORD terminatingWaitMs;
};
ClientSeams& clientSeams();
void resetClientSeams();
// Sessions made by startClient and not yet deleted or reclaimed.
std::size_t clientSessionCount();
// Hands one frame, as the reader left it, to the session's own handling
// (commands to its dispatcher, responses to the tracker), without a socket.
void deliverSessionMessage(IoClientMgmt& session, const ORV_CTL_MSG& ctl, ORV_APP_MSG* app);
} // namespace tavro_internal

class IoClientMgmt : public OsThread, public IRouteTableEntry {
public:
    using Dispatcher = void (*)(CrCmd*);

    static constexpr unsigned STACK_SIZE = 262144;
    static constexpr int INITIAL_CONNECT_WAIT = 2000;
    static constexpr int MAX_CONNECT_ERR = 29;
    static constexpr int MAX_DOUBLED_WAIT = 160000; // doubled only below this
    static constexpr DWORD TERMINATING_WAIT = 2000;

    // A session to 127.0.0.1:port (port in host order), active manager, its
    // thread started. Reclaims earlier startClient sessions whose loop ended.
    static IoClientMgmt* startClient(int clientNbr, unsigned short port, Dispatcher dispatcher);

    // ctl is accepted and ignored: the session's own SWITCH_CTL starts from
    // its defaults.
    IoClientMgmt(const c_sockaddr& addr, SWITCH_CTL* ctl, int clientNbr, Dispatcher dispatcher);
    // Stops the loop if it runs and waits for the thread to leave it.
    ~IoClientMgmt() override;

    // The next back-off step before a connection attempt: one more attempt;
    // after 29 at one wait, the wait doubles (while below 160 s) or starts
    // again at 2 s. Pure; the loop runs every attempt through it.
    static CONNECT_BACKOFF nextConnectBackoff(int connectErr, int connectWait);

    // Starts the session's thread. Shadows OsThread::Start, whose thread
    // would delete the session when the loop ends. False if no thread.
    bool Start(void* arg);
    void Setup() override {}
    void* Execute(void* arg) override;
    // From any thread; never waits for the loop to end.
    BOOL SignalShutdown() override;

    // Sends only in TCP_NORMAL.
    bool TcpSend(TCP_BD* chain) override;
    int GetClientId() override;
    bool ActiveMgmt() override { return bActive.load(std::memory_order_acquire); }
    void SetActiveMgmt(bool active) { bActive.store(active, std::memory_order_release); }
    TCP_PROC_STATE GetProcState() const { return processState.load(std::memory_order_acquire); }
    SWITCH_CTL* GetSwitchCtl() override { return &switchCtl; }
    void Close();

    // Inspection (tests, diagnostics).
    const c_sockaddr& GetSockAddr() const { return sockAddr; }
    const SlaveAddr& GetSwitchAdr() const { return switchAdr; }
    bool IsConnected() const { return bConnect.load(std::memory_order_acquire); }
    int GetRcvCount() const { return rcvCount.load(std::memory_order_acquire); }
    int GetLastRcv() const { return lastRcv.load(std::memory_order_acquire); }
    int GetConnectErr() const { return connectErr.load(std::memory_order_acquire); }
    int GetConnectWait() const { return connectWait.load(std::memory_order_acquire); }
    // switchCtl.swiState, read safely while the loop runs.
    std::uint64_t GetSwiState();
    HANDLE GetTimer() const { return hTimer; }
    HANDLE GetSyncLock() const { return syncLock; }
    // True once the thread has left the loop (or never started).
    bool HasFinished();
    // Waits up to ms for HasFinished; true when it is.
    bool WaitFinished(DWORD ms);

    IoClientMgmt(const IoClientMgmt&) = delete;
    IoClientMgmt& operator=(const IoClientMgmt&) = delete;

private:
    class SessionThread;
    friend class SessionThread;
    friend void tavro_internal::deliverSessionMessage(IoClientMgmt&, const ORV_CTL_MSG&, ORV_APP_MSG*);

    // Creates the descriptor for a new attempt unless shutdown has been
    // signalled; under sockLock so that SignalShutdown cannot miss it.
    bool prepareSocket();
    void setSwiStateBit(std::uint64_t bit);
    // Pauses ms unless shutdown is signalled first.
    void pause(DWORD ms);
    void handleMessage(const ORV_CTL_MSG& ctl, ORV_APP_MSG* app);
    void passConnect();
    void passTestConnect();
    void passNormal();
    void passDisconnect();
    void markFinished();

    std::atomic<OsSocket*> pSocket;
    UDBControl* pUDBCtl;
    SlaveAddr switchAdr;
    std::atomic<TCP_PROC_STATE> processState;
    SWITCH_CTL switchCtl;
    Dispatcher myDispatcher;
    SWI_OP_STATE switchState;
    SWITCH_TYPE swiType;
    std::atomic<bool> bConnect;
    std::atomic<bool> bActive;
    bool bStarted;
    std::atomic<int> rcvCount;
    std::atomic<int> lastRcv;
    c_sockaddr sockAddr;
    HANDLE hTimer;
    HANDLE syncLock;
    std::atomic<int> connectErr;
    std::atomic<int> connectWait;
    int clientNbr;

    // Loop-local resources, valid while Execute runs.
    CrTracker* pTracker = nullptr;
    RouteTable* pSwiTable = nullptr;
    char* pRcvBuffer = nullptr;
    ORV_APP_MSG* pRcvApp = nullptr; // where frames are read, inside pRcvBuffer

    // Guards pSocket's creation against SignalShutdown from other threads.
    std::mutex sockLock;
    // Guards switchCtl.swiState.
    std::mutex ctlLock;
    // The thread's hand-over at its end.
    std::mutex finishLock;
    std::condition_variable finishCond;
    bool threadRunning = false;
};
