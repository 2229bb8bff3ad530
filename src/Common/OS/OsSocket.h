#pragma once

// One IPv4 socket with the state the switch session and the route table
// need: its role, readiness, a sticky error flag with the last errno, a
// per-socket send mutex and a shutdown event. Creation, options, connect,
// accept and close are in OsSocket.cpp; framed transfer in
// OsSocketTransfer.cpp; the optional trace bits in OsSocketDebug.h.
#include <netinet/in.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "Ap/ApBase.h"
#include "Common/OS/Linux/WinTypes.h"
#include "Cr/CrOrvMsg.h"
#include "Common/Utility/UtlIp.h"

enum TCP_STATE {
    TCP_NOT_INIT = 0,
    TCP_INITIALIZED = 1,
};

namespace tavro_internal {
// System calls and waits of the socket layer, replaceable by tests (never
// exported). Set them before any socket work starts and restore them with
// resetSocketSeams() afterwards.
struct SocketSeams {
    ssize_t (*recvFn)(int fd, void* buf, size_t len, int flags);
    ssize_t (*sendFn)(int fd, const void* buf, size_t len, int flags);
    // FIONREAD: bytes waiting on fd into *avail; the ioctl result.
    int (*availFn)(int fd, int* avail);
    // Back-offs (250 ms read, 100 ms send, 1 s accept) and bind retries (4 s).
    void (*sleepMs)(unsigned ms);
    // Milliseconds of a monotonic clock; drives SecStopWatch.
    std::uint64_t (*nowMs)();
    // Runs a shell command like system().
    int (*runShell)(const char* command);
    // Runs a command and returns its standard output.
    std::string (*readCommand)(const char* command);
    // Connect's writability wait and one readiness wait of the readers.
    unsigned connectWaitMs;
    unsigned readyWaitMs;
};
SocketSeams& socketSeams();
void resetSocketSeams();
// True while sendFn is the real send: only then may a chain go out as one
// gathered write (a replaced sendFn models what each per-piece call does).
bool realSend();

// Set by a sender that knows its next frame goes to the same peer at once:
// the gathered write then asks the kernel to hold the bytes (MSG_MORE) so
// that both frames leave as one segment, and the next write pushes them.
class FrameFollows {
public:
    explicit FrameFollows(bool follows);
    ~FrameFollows();
    FrameFollows(const FrameFollows&) = delete;
    FrameFollows& operator=(const FrameFollows&) = delete;
    static bool active();

private:
    bool previous;
};
} // namespace tavro_internal

// Whole seconds on the seam clock.
class SecStopWatch {
public:
    explicit SecStopWatch(bool running = false);
    void resetTiming();
    void stopTiming();
    unsigned long elapsedTime() const;

private:
    std::uint64_t startMs;
    std::uint64_t stopMs;
    bool running;
};

// BindTCPSocket reports its first failures each, then ever more rarely.
class BindErrorThrottle {
public:
    // Counts one failure. True when this one is to be reported; newEvery is
    // set to the new reporting frequency when it changes (else 0).
    bool countFailure(unsigned& newEvery);
    void reset()
    {
        errors = 0;
        every = 1;
    }
    unsigned errorCount() const { return errors; }
    unsigned frequency() const { return every; }

private:
    unsigned errors = 0;
    unsigned every = 1;
};

// One line of the kernel's TCP table.
struct PROC_NET_TCP_ENTRY {
    c_inaddr localIp;
    unsigned short localPort; // host order
    c_inaddr remoteIp;
    unsigned short remotePort; // host order
    unsigned state;            // 1 established, 10 listen, ...
};

class OsSocket {
public:
    static constexpr bool REPORT_CONNECTION = true;
    static constexpr bool DO_NOT_REPORT_CONNECTION = false;
    static constexpr bool BLOCKING_ENABLED = true;
    static constexpr bool BLOCKING_DISABLED = false;

    // Read states: each names the reader's next step.
    enum ReadState {
        READ_CTL_MSG = 2,
        READ_APP_MSG = 3,
        READ_PURGE = 4,
        READ_COMPLETE = 5,
        READ_FAILED = 6,
    };

    static constexpr unsigned APP_MSG_PIECE = 2048;
    // Bytes a stream socket's reader takes from the kernel in one recv.
    static constexpr unsigned READ_AHEAD_SIZE = 64 * 1024;
    static constexpr unsigned MAX_READ_INTERRUPTS = 5;
    static constexpr unsigned MAX_SEND_WOULD_BLOCK = 5;
    static constexpr int TOO_MANY_INTERRUPTS = 98989898;
    static constexpr unsigned READ_RETRY_MS = 250;
    static constexpr unsigned SEND_RETRY_MS = 100;
    static constexpr unsigned ACCEPT_RETRY_MS = 1000;
    static constexpr unsigned BIND_RETRY_MS = 4000;
    static constexpr unsigned long BIND_GIVE_UP_SECONDS = 1199;
    static constexpr int ADDRESS_IN_USE = 98;
    static constexpr int DEFAULT_UDP_OPTION = 6; // SO_BROADCAST

    OsSocket();
    // service is an SW_SERVICE_TYPE value.
    OsSocket(const char* hostname, const c_sockaddr& addr, TCP_TYPE type, int service);
    OsSocket(const char* hostname, const sockaddr_in& addr, TCP_TYPE type, int service);
    // A new socket (own handles) sharing the other's descriptor and state.
    OsSocket(const OsSocket& other);
    // Copies descriptor, state, type, service, address, flags and host name;
    // the handles and counters stay this object's own.
    OsSocket& operator=(const OsSocket& other);
    virtual ~OsSocket();

    void InitSocket(const char* hostname, TCP_TYPE type, int service);

    // Preparation.
    bool PrepareSocket(int option = 0, int backlog = SOMAXCONN);
    bool PrepareTCPSocket(int backlog = SOMAXCONN);
    bool PrepareTcpServerSocket(int fd, int backlog);
    bool PrepareUDPSocket(int option = DEFAULT_UDP_OPTION, const char* interfaceName = nullptr);

    // Options: each logs under the caller's name ("unknown" when null).
    bool setLingerOnCloseOffOption(int fd, const char* caller = nullptr);
    bool setReuseAddrOption(int fd, const char* caller = nullptr);
    bool setKeepAliveOptions(int fd, const char* caller = nullptr);
    bool setTxTimeoutOption(int fd, const char* caller = nullptr);
    bool setNoDelayOption(int fd, const char* caller = nullptr);
    bool setRxTimeoutOption(int fd, const char* caller = nullptr);
    bool disableInheritance(int fd, const char* caller = nullptr);
    bool enableOptions(int fd, int option = DEFAULT_UDP_OPTION, const char* caller = nullptr);
    bool setBlockingMode(int fd, bool blocking, const char* caller = nullptr);
    bool BindSocketToInterface(int fd, const char* interfaceName, const char* caller = nullptr);

    // Binding and connecting.
    bool BindSocket();
    bool BindTCPSocket(const c_inaddr& local, unsigned short port = 0);
    bool BindUDPSocket(const c_inaddr& local);
    bool Connect(bool report = DO_NOT_REPORT_CONNECTION);
    // A new connected socket owned by the caller, or null when shutting down.
    OsSocket* Accept();

    // Framed transfer (OsSocketTransfer.cpp). The reading calls (frame
    // readers, Read, readAllData, ReadAvailableBytes, ReadReady, the waits,
    // PurgeMessage) belong to the socket's one reader thread; any thread may
    // send, signal shutdown or close.
    bool GetOrvMessage(ORV_CTL_MSG* ctl, ORV_APP_MSG* app, unsigned maxSize);
    bool GetOrvMessageWithAppMsgMemAlloc(ORV_CTL_MSG* ctl, ORV_APP_MSG*& app);
    ReadState ReadCtlMsgCommon(ORV_CTL_MSG* ctl);
    ReadState ReadCtlMsg(ORV_CTL_MSG* ctl, unsigned maxSize);
    ReadState ReadCtlMsgWithAppMsgMemAlloc(ORV_CTL_MSG* ctl, ORV_APP_MSG*& app);
    ReadState ReadAppMsg(ORV_APP_MSG* app, unsigned size, unsigned& bytesRead);
    static void OrvMessageNetworkOrder(ORV_CTL_MSG* ctl, ORV_APP_MSG* app);
    bool PurgeMessage();
    bool SendBD(TCP_BD* chain);
    bool Send(const void* buf, unsigned len);
    bool Read(char* buf, unsigned len, unsigned* got);
    // Reads what is waiting, at most len bytes: the count, or -1.
    int ReadAvailableBytes(char* buf, unsigned len);
    bool ReadReady();
    int waitForReadySocket();
    int readAllData(char* buf, unsigned len, unsigned* got);
    int waitForAllData(unsigned n);

    // UDP datagrams: bytes moved, or -1.
    int SendTo(const void* buf, unsigned len, const c_sockaddr& to);
    int ReceiveFrom(void* buf, unsigned len, c_sockaddr* from);

    // Shutdown.
    bool Shuttingdown() const;
    void SignalShutdown();
    void Close();
    static void setProgramTerminating(bool on = true);
    static bool isProgramTerminating();
    [[noreturn]] static void CloseAllSocketsInContainerAndExit();
    // Sockets alive now (for tests and diagnostics).
    static std::size_t createdSocketsCount();

    // Accessors.
    int GetLastError() const { return errNum.load(std::memory_order_relaxed); }
    int GetSocket() const { return Socket.load(std::memory_order_relaxed); }
    // Adopts a descriptor; a valid one makes the socket ready for transfer.
    void SetSocket(int fd);
    bool SocketProtocol() const { return tcpType == UDP_SERVICE; }
    c_sockaddr* GetAddressOfSocketInfo() { return &m_sockAddr; }
    void SetSocketAddr(const c_sockaddr& addr) { m_sockAddr = addr; }
    c_inaddr IPAddress() const { return m_sockAddr.address(); }
    bool LockSendMutex();
    void ReleaseSendMutex();
    static bool isAddressInUseError(int e) { return e == ADDRESS_IN_USE; }
    bool CheckSocketSanity() { return true; }
    bool HasError() const { return bSockErr.load(std::memory_order_relaxed); }
    TCP_STATE GetTcpState() const { return tcpState.load(std::memory_order_relaxed); }
    TCP_TYPE GetTcpType() const { return tcpType; }
    int GetServiceType() const { return serviceType; }
    const char* GetHostname() const { return pHostname; }
    unsigned MsgSent() const { return msgSent.load(std::memory_order_relaxed); }
    void SetKeepAlive(bool on) { keepAlive = on; }

    // Carrier state of a network interface ("sudo cat /sys/class/net/<name>/carrier").
    static bool checkInterfaceUp(const char* interfaceName);
    // Parses the kernel's TCP table text (the /proc/net/tcp format).
    static bool ParseProcNetTcp(const std::string& text, std::vector<PROC_NET_TCP_ENTRY>& out);
    static bool GetProcNetTcp(std::vector<PROC_NET_TCP_ENTRY>& out, const char* path = "/proc/net/tcp");
    // A loopback address with a tunnel port stands for the remote end of the
    // tunnel's established outgoing connection to that port; anything else
    // maps to itself.
    static c_inaddr MapStunnelIP(const c_inaddr& ip, unsigned short port, const std::vector<PROC_NET_TCP_ENTRY>& table);
    static c_inaddr MapStunnelIP(const c_inaddr& ip, unsigned short port);

    // Name passed to "./KillOutstandingApp.sh"; "ORVMgmt" when none is set.
    static void setApplicationName(const char* name);
    static std::string applicationName();
    void killOtherInstancesOfThisApp();

    OsSocket(OsSocket&&) = delete;
    OsSocket& operator=(OsSocket&&) = delete;

protected:
    // Not shutting down and no sticky error.
    bool mayContinue() const { return !bSockErr.load(std::memory_order_relaxed) && !Shuttingdown(); }
    void setError(int e)
    {
        errNum.store(e, std::memory_order_relaxed);
        bSockErr.store(true, std::memory_order_relaxed);
    }
    std::string peerText() const { return m_sockAddr.address().toString(); }

    int serviceType;
    TCP_TYPE tcpType;
    std::atomic<TCP_STATE> tcpState;
    char* pHostname;
    c_sockaddr m_sockAddr;
    std::atomic<unsigned> msgSent;
    std::atomic<bool> bSockErr;
    HANDLE tcpSend;
    HANDLE shutdown;
    std::atomic<int> errNum;
    std::atomic<int> Socket;
    bool keepAlive;
    SecStopWatch m_checkSocketSanityTimer;
    unsigned numberOfWrite;
    int nbrOfNoACK;
    unsigned lastSendQ;
    // Mirrors the shutdown event so the transfer loops test it without a wait.
    std::atomic<bool> shutdownSignalled;
    BindErrorThrottle bindErrors;

    // A system call on the descriptor holds a use of it. Close() from another
    // thread shuts the connection down at once (waking blocked calls) but
    // closes the descriptor only when the last use ends, so its number cannot
    // be reused under a call still running on it.
    // SendBD's chain as gathered writes, with SendBD's retry and failure
    // rules; for when no send trace is on. Called under tcpSend.
    void sendGathered(TCP_BD* chain);

    class FdUse {
    public:
        explicit FdUse(OsSocket& s) : sock(s), fd(s.acquireFd()) {}
        ~FdUse()
        {
            if (fd >= 0) sock.releaseFd();
        }
        int get() const { return fd; }
        FdUse(const FdUse&) = delete;
        FdUse& operator=(const FdUse&) = delete;

    private:
        OsSocket& sock;
        const int fd;
    };
    int acquireFd();
    void releaseFd();

private:
    void registerSocket();
    void copyStateFrom(const OsSocket& other);
    bool bindAndReport(const char* op, const c_sockaddr& addr);
    // A new IPv4 descriptor of type as this socket's, not inherited by
    // children; -1 with the error kept.
    int openDescriptor(int type, int protocol, const char* op);
    // Traces the outcome of one option call on fd ("<call>( <what> )") and
    // keeps errno as the socket's error on failure. Returns ok.
    bool reportOption(bool ok, int fd, const char* operation, const char* caller, const char* call, const char* what);
    // Sets one option and traces the outcome under the names given; a failure
    // with toleratedErrno counts as success and is not recorded.
    bool setOption(int fd, int level, int option, const void* value, socklen_t size, const char* optionName,
                   const char* operation, const char* caller, int toleratedErrno = 0);
    bool setIntOption(int fd, int level, int option, int value, const char* optionName, const char* operation,
                      const char* caller);
    // The read-state loop shared by both frame readers; ctlStep is their
    // header step, name the reader's name in the purge message.
    template <typename CtlStep>
    bool readFrame(ORV_CTL_MSG* ctl, CtlStep ctlStep, ORV_APP_MSG*& app, const char* name);

    std::mutex fdLock;
    int fdUsers = 0;
    int pendingClose = -1;

    // Bytes a stream socket's reader took from the kernel before anyone
    // asked for them; they count as waiting on the socket. A recv per
    // 2048-byte piece costs more than the piece (and every small recv makes
    // the kernel send a window update), so the reader asks for much more:
    // - readAhead: one recv of up to READ_AHEAD_SIZE, for headers and small
    //   bodies; the pieces are copied out of it.
    // - in place: a body whose rest would not fit in readAhead is received
    //   straight into the caller's body buffer, up to the body's end; the
    //   next pieces find their bytes already there. Such bytes live only
    //   while readFrame runs; a frame left unfinished moves them to
    //   readAhead (growing it for once), so the stream is never cut.
    // Only the reader thread touches these. A descriptor change (new,
    // adopted or closed, from any thread) bumps fdGeneration, and the
    // reader drops what it held for the old descriptor.
    std::unique_ptr<char[]> readAhead;
    unsigned aheadCapacity = 0;
    unsigned aheadBegin = 0;
    unsigned aheadEnd = 0;
    char* placedAt = nullptr;
    unsigned placedBytes = 0;
    // While readFrame reads a piece of a body: bytes from the piece's start
    // to the body's end (else 0).
    unsigned bodyRoom = 0;
    unsigned aheadGeneration = 0;
    std::atomic<unsigned> fdGeneration{0};
    void descriptorChanged() { fdGeneration.fetch_add(1, std::memory_order_release); }
    // Bytes held for the current descriptor.
    unsigned bufferedBytes();
    // Moves up to len held bytes to buf; the count moved.
    unsigned takeBuffered(char* buf, unsigned len);
    void dropBuffered();
    // Moves bytes received in place into readAhead.
    void holdPlaced();
    // Allocates readAhead on first use; false when there is no memory.
    bool haveReadAhead();

    static std::atomic<bool> bProgramTerminating;
};
