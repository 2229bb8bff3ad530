#include "Common/OS/OsSocket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>

#include "Common/OS/Linux/OSAL.h"
#include "Common/OS/Linux/WinEvent.h"
#include "Common/OS/OsSocketDebug.h"

// ---------------------------------------------------------------------------
// Seams

namespace {

ssize_t sendNoSignal(int fd, const void* buf, size_t len, int flags)
{
    // A peer that went away must cost an error, not the process.
    return ::send(fd, buf, len, flags | MSG_NOSIGNAL);
}

int availIoctl(int fd, int* avail)
{
    return ::ioctl(fd, FIONREAD, avail);
}

void sleepReal(unsigned ms)
{
    Sleep(ms);
}

std::uint64_t monotonicMs()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<std::uint64_t>(ts.tv_sec) * 1000u + static_cast<std::uint64_t>(ts.tv_nsec) / 1000000u;
}

int runShellReal(const char* command)
{
    return std::system(command);
}

std::string readCommandReal(const char* command)
{
    std::string out;
    FILE* p = popen(command, "r");
    if (p == nullptr) return out;
    char buf[256];
    std::size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    pclose(p);
    return out;
}

tavro_internal::SocketSeams defaultSeams()
{
    return {::recv, sendNoSignal, availIoctl, sleepReal, monotonicMs, runShellReal, readCommandReal, 5000, 3000};
}

tavro_internal::SocketSeams g_seams = defaultSeams();

// The process-wide set of live sockets. Never destroyed, so that sockets
// closed during static destruction still find it.
std::set<OsSocket*>& createdSocketsSet()
{
    static auto* const s = new std::set<OsSocket*>();
    return *s;
}

HANDLE createdSocketsSetLock()
{
    static const HANDLE h = CreateMutex(nullptr, FALSE, nullptr);
    return h;
}

HANDLE critical()
{
    static const HANDLE h = CreateMutex(nullptr, FALSE, nullptr);
    return h;
}

std::mutex& appNameLock()
{
    static std::mutex m;
    return m;
}

std::string& appName()
{
    static std::string* const s = new std::string();
    return *s;
}

const char* callerName(const char* caller)
{
    return caller ? caller : "unknown";
}

} // namespace

tavro_internal::SocketSeams& tavro_internal::socketSeams()
{
    return g_seams;
}

bool tavro_internal::realSend()
{
    return g_seams.sendFn == sendNoSignal;
}

void tavro_internal::resetSocketSeams()
{
    g_seams = defaultSeams();
}

// ---------------------------------------------------------------------------
// SecStopWatch and the bind report throttle

SecStopWatch::SecStopWatch(bool run) : startMs(0), stopMs(0), running(false)
{
    if (run) resetTiming();
}

void SecStopWatch::resetTiming()
{
    startMs = g_seams.nowMs();
    stopMs = startMs;
    running = true;
}

void SecStopWatch::stopTiming()
{
    if (!running) return;
    stopMs = g_seams.nowMs();
    running = false;
}

unsigned long SecStopWatch::elapsedTime() const
{
    const std::uint64_t end = running ? g_seams.nowMs() : stopMs;
    return static_cast<unsigned long>((end - startMs) / 1000u);
}

bool BindErrorThrottle::countFailure(unsigned& newEvery)
{
    newEvery = 0;
    ++errors;
    if ((errors == 10 || errors == 100 || errors == 1000) && every < errors) {
        every = errors;
        newEvery = every;
    }
    return errors < 10 || errors % every == 0;
}

// ---------------------------------------------------------------------------
// Construction

std::atomic<bool> OsSocket::bProgramTerminating{false};

OsSocket::OsSocket()
    : serviceType(0), tcpType(TCP_INVALID), tcpState(TCP_NOT_INIT), pHostname(nullptr), msgSent(0), bSockErr(true),
      tcpSend(nullptr), shutdown(nullptr), errNum(0), Socket(-1), keepAlive(true), numberOfWrite(6), nbrOfNoACK(0),
      lastSendQ(0), shutdownSignalled(false)
{
    InitSocket(nullptr, TCP_INVALID, 0);
    registerSocket();
}

OsSocket::OsSocket(const char* hostname, const c_sockaddr& addr, TCP_TYPE type, int service) : OsSocket()
{
    InitSocket(hostname, type, service);
    m_sockAddr = addr;
}

OsSocket::OsSocket(const char* hostname, const sockaddr_in& addr, TCP_TYPE type, int service)
    : OsSocket(hostname, c_sockaddr(addr), type, service)
{
}

OsSocket::OsSocket(const OsSocket& other) : OsSocket()
{
    InitSocket(other.pHostname, other.tcpType, other.serviceType);
    copyStateFrom(other);
}

OsSocket& OsSocket::operator=(const OsSocket& other)
{
    if (this != &other) copyStateFrom(other);
    return *this;
}

void OsSocket::copyStateFrom(const OsSocket& other)
{
    descriptorChanged();
    Socket.store(other.Socket.load());
    tcpState.store(other.tcpState.load());
    tcpType = other.tcpType;
    serviceType = other.serviceType;
    m_sockAddr = other.m_sockAddr;
    bSockErr.store(other.bSockErr.load());
    keepAlive = other.keepAlive;
    char* copy = nullptr;
    if (other.pHostname != nullptr) {
        copy = new char[std::strlen(other.pHostname) + 1];
        std::strcpy(copy, other.pHostname);
    }
    delete[] pHostname;
    pHostname = copy;
}

OsSocket::~OsSocket()
{
    Close();
    if (pendingClose >= 0) ::close(pendingClose); // a use still running is the owner's bug
    WaitForSingleObject(critical(), INFINITE);
    WaitForSingleObject(createdSocketsSetLock(), INFINITE);
    createdSocketsSet().erase(this);
    ReleaseMutex(createdSocketsSetLock());
    ReleaseMutex(critical());
    delete[] pHostname;
    CloseHandle(tcpSend);
    CloseHandle(shutdown);
}

void OsSocket::registerSocket()
{
    WaitForSingleObject(critical(), INFINITE);
    WaitForSingleObject(createdSocketsSetLock(), INFINITE);
    createdSocketsSet().insert(this);
    ReleaseMutex(createdSocketsSetLock());
    ReleaseMutex(critical());
}

void OsSocket::InitSocket(const char* hostname, TCP_TYPE type, int service)
{
    delete[] pHostname;
    pHostname = nullptr;
    if (hostname != nullptr && type != UDP_SERVICE) {
        pHostname = new char[std::strlen(hostname) + 1];
        std::strcpy(pHostname, hostname);
    }
    tcpType = type;
    serviceType = service;
    keepAlive = true;
    tcpState = TCP_NOT_INIT;
    bSockErr = true;
    errNum = 0;
    Socket = -1;
    if (tcpSend != nullptr) CloseHandle(tcpSend);
    if (shutdown != nullptr) CloseHandle(shutdown);
    tcpSend = CreateMutex(nullptr, FALSE, nullptr);
    shutdown = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    shutdownSignalled = false;
    msgSent = 0;
    nbrOfNoACK = 0;
    lastSendQ = 0;
    numberOfWrite = 6;
}

std::size_t OsSocket::createdSocketsCount()
{
    WaitForSingleObject(createdSocketsSetLock(), INFINITE);
    const std::size_t n = createdSocketsSet().size();
    ReleaseMutex(createdSocketsSetLock());
    return n;
}

// ---------------------------------------------------------------------------
// Options

bool OsSocket::reportOption(bool ok, int fd, const char* operation, const char* caller, const char* call,
                            const char* what)
{
    if (ok) {
        SOCK_TRACE(SOCK_TRACE_OPTIONS, operation << ": " << callerName(caller) << "(): Socket[" << fd << "] " << call
                                                 << "( " << what << " ) succeeded.\n");
        return true;
    }
    const int e = errno;
    errNum = e;
    UTL_TRACE(operation << ": " << callerName(caller) << "(): Socket[" << fd << "] " << call << "( " << what
                        << " ) failed[" << e << "]\n");
    return false;
}

bool OsSocket::setOption(int fd, int level, int option, const void* value, socklen_t size, const char* optionName,
                         const char* operation, const char* caller, int toleratedErrno)
{
    const bool ok = setsockopt(fd, level, option, value, size) == 0;
    if (!ok && toleratedErrno != 0 && errno == toleratedErrno) return true;
    return reportOption(ok, fd, operation, caller, "setsockopt", optionName);
}

bool OsSocket::setIntOption(int fd, int level, int option, int value, const char* optionName, const char* operation,
                            const char* caller)
{
    return setOption(fd, level, option, &value, sizeof value, optionName, operation, caller);
}

bool OsSocket::setLingerOnCloseOffOption(int fd, const char* caller)
{
    linger l{};
    l.l_onoff = 0;
    l.l_linger = 0;
    return setOption(fd, SOL_SOCKET, SO_LINGER, &l, sizeof l, "SO_LINGER", "setLingerOnCloseOffOption", caller);
}

bool OsSocket::setReuseAddrOption(int fd, const char* caller)
{
    return setIntOption(fd, SOL_SOCKET, SO_REUSEADDR, 1, "SO_REUSEADDR", "setReuseAddrOption", caller);
}

bool OsSocket::setKeepAliveOptions(int fd, const char* caller)
{
    const char* op = "setKeepAliveOptions";
    if (!keepAlive) {
        UTL_TRACE(op << ": " << callerName(caller) << "(): SOCKET DOES NOT HAVE KEEPALIVE ENABLED.\n");
        return true;
    }
    bool ok = setIntOption(fd, SOL_SOCKET, SO_KEEPALIVE, 1, "SO_KEEPALIVE", op, caller);
    ok = setIntOption(fd, IPPROTO_TCP, TCP_KEEPIDLE, 15, "TCP_KEEPIDLE", op, caller) && ok;
    ok = setIntOption(fd, IPPROTO_TCP, TCP_KEEPINTVL, 5, "TCP_KEEPINTVL", op, caller) && ok;
    ok = setIntOption(fd, IPPROTO_TCP, TCP_KEEPCNT, 3, "TCP_KEEPCNT", op, caller) && ok;
    return ok;
}

bool OsSocket::setTxTimeoutOption(int fd, const char* caller)
{
    // TCP_USER_TIMEOUT (18); the messages have always called it SO_SNDTIMEO.
    // Older kernels lack the option: not an error.
    const int value = 10000;
    return setOption(fd, IPPROTO_TCP, 18, &value, sizeof value, "SO_SNDTIMEO", "setTxTimeoutOption", caller,
                     ENOPROTOOPT);
}

bool OsSocket::setNoDelayOption(int fd, const char* caller)
{
    // Frames go out as several sends (headers, then payload); with Nagle the
    // second waits for the peer's delayed ACK, about 40 ms per command.
    return setIntOption(fd, IPPROTO_TCP, TCP_NODELAY, 1, "TCP_NODELAY", "setNoDelayOption", caller);
}

bool OsSocket::setRxTimeoutOption(int, const char*)
{
    return true;
}

bool OsSocket::disableInheritance(int fd, const char* caller)
{
    return reportOption(fcntl(fd, F_SETFD, FD_CLOEXEC) == 0, fd, "disableInheritance", caller, "fcntl", "FD_CLOEXEC");
}

bool OsSocket::enableOptions(int fd, int option, const char* caller)
{
    const char* name;
    switch (option) {
    case SO_BROADCAST: name = "SO_BROADCAST"; break;
    case SO_REUSEADDR: name = "SO_REUSEADDR"; break;
    case SO_KEEPALIVE: name = "SO_KEEPALIVE"; break;
    case SO_DONTROUTE: name = "SO_DONTROUTE"; break;
    case SO_REUSEPORT: name = "SO_REUSEPORT"; break;
    default: name = "option"; break;
    }
    return setIntOption(fd, SOL_SOCKET, option, 1, name, "enableOptions", caller);
}

bool OsSocket::setBlockingMode(int fd, bool blocking, const char* caller)
{
    int nonBlocking = blocking ? 0 : 1;
    return reportOption(ioctl(fd, FIONBIO, &nonBlocking) == 0, fd, "setBlockingMode", caller, "ioctl", "FIONBIO");
}

bool OsSocket::BindSocketToInterface(int fd, const char* interfaceName, const char* caller)
{
    char name[32];
    std::memset(name, 0, sizeof name);
    if (interfaceName != nullptr) std::strncpy(name, interfaceName, IFNAMSIZ);
    const char* op = "BindSocketToInterface";
    if (setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, name, IFNAMSIZ) == 0) {
        SOCK_TRACE(SOCK_TRACE_OPTIONS, op << ": " << callerName(caller) << "(): Socket[" << fd
                                          << "] setsockopt( SO_BINDTODEVICE ) succeeded.\n");
        return true;
    }
    const int e = errno;
    errNum = e;
    UTL_TRACE(op << ": " << callerName(caller) << "(): Socket[" << fd << "] setsockopt( SO_BINDTODEVICE ) failed[" << e
                 << "]\n");
    return false;
}

// ---------------------------------------------------------------------------
// Preparation

bool OsSocket::PrepareSocket(int option, int backlog)
{
    shutdownSignalled = false;
    ResetEvent(shutdown);
    // A descriptor still open from an earlier round would leak otherwise.
    Close();
    bSockErr = true;
    Socket = -1;
    msgSent = 0;
    nbrOfNoACK = 0;
    lastSendQ = 0;
    numberOfWrite = 6;
    m_checkSocketSanityTimer.resetTiming();
    m_checkSocketSanityTimer.stopTiming();
    if (tcpType == UDP_SERVICE) return PrepareUDPSocket(option == 0 ? DEFAULT_UDP_OPTION : option);
    return PrepareTCPSocket(backlog);
}

int OsSocket::openDescriptor(int type, int protocol, const char* op)
{
    const int fd = ::socket(AF_INET, type, protocol);
    if (fd < 0) {
        setError(errno);
        return -1;
    }
    descriptorChanged();
    Socket = fd;
    disableInheritance(fd, op);
    return fd;
}

bool OsSocket::PrepareTCPSocket(int backlog)
{
    const char* op = "PrepareTCPSocket";
    const int fd = openDescriptor(SOCK_STREAM, 0, op);
    if (fd < 0) return false;
    setLingerOnCloseOffOption(fd, op);
    setKeepAliveOptions(fd, op);
    setBlockingMode(fd, BLOCKING_DISABLED, op);
    SOCK_TRACE(SOCK_TRACE_CONNECT, "PrepareTCPSocket: Socket[" << fd << "]  setBlockingMode( BLOCKING_DISABLED )\n");
    if (tcpType != TCP_SERVER) {
        setTxTimeoutOption(fd, op);
        setNoDelayOption(fd, op);
        bSockErr = false;
    } else {
        PrepareTcpServerSocket(fd, backlog);
    }
    if (bSockErr) {
        errNum = errno;
        return false;
    }
    tcpState = TCP_INITIALIZED;
    return true;
}

bool OsSocket::PrepareTcpServerSocket(int fd, int backlog)
{
    setReuseAddrOption(fd, "PrepareTcpServerSocket");
    SecStopWatch watch(true);
    for (;;) {
        if (watch.elapsedTime() > BIND_GIVE_UP_SECONDS) {
            sockLog("PrepareTcpServerSocket: bind has given up after 20 minutes!\n");
            bSockErr = true;
            return false;
        }
        if (::bind(fd, static_cast<const sockaddr*>(m_sockAddr), sizeof(sockaddr_in)) == 0) break;
        const int e = errno;
        errNum = e;
        if (!isAddressInUseError(e)) {
            UTL_TRACE("PrepareTcpServerSocket: Fatal bind error [" << e << "] " << sockErrText(e) << " to IP["
                                                                   << m_sockAddr.address() << "] port ["
                                                                   << m_sockAddr.hostPort() << "]\n");
            bSockErr = true;
            return false;
        }
        UTL_TRACE("PrepareTcpServerSocket: bind error [" << e << "] to IP[" << m_sockAddr.address() << "] port ["
                                                         << m_sockAddr.hostPort() << "] is not fatal.  Retry...\n");
        g_seams.sleepMs(BIND_RETRY_MS);
        if (isProgramTerminating()) {
            bSockErr = true;
            return false;
        }
        killOtherInstancesOfThisApp();
    }
    SOCK_TRACE(SOCK_TRACE_BIND, "PrepareTcpServerSocket: Socket[" << fd << "] bound to [" << m_sockAddr << "]\n");
    if (::listen(fd, backlog) != 0) {
        const int e = errno;
        errNum = e;
        UTL_TRACE("PrepareTcpServerSocket listening FAILED for socket[" << fd << "] errNum[" << e << "] "
                                                                        << sockErrText(e) << "\n");
        bSockErr = true;
        return false;
    }
    bSockErr = false;
    return true;
}

bool OsSocket::PrepareUDPSocket(int option, const char* interfaceName)
{
    const char* op = "PrepareUDPSocket";
    const int fd = openDescriptor(SOCK_DGRAM, IPPROTO_UDP, op);
    if (fd < 0) return false;
    enableOptions(fd, option, op);
    if (interfaceName != nullptr && interfaceName[0] != '\0' && !BindSocketToInterface(fd, interfaceName, op)) {
        bSockErr = true;
        return false;
    }
    bSockErr = false;
    tcpState = TCP_INITIALIZED;
    return true;
}

void OsSocket::setApplicationName(const char* name)
{
    std::lock_guard<std::mutex> g(appNameLock());
    appName() = name ? name : "";
}

std::string OsSocket::applicationName()
{
    std::lock_guard<std::mutex> g(appNameLock());
    return appName().empty() ? std::string("ORVMgmt") : appName();
}

void OsSocket::killOtherInstancesOfThisApp()
{
    const std::string cmd = "./KillOutstandingApp.sh " + applicationName();
    g_seams.runShell(cmd.c_str());
}

// ---------------------------------------------------------------------------
// Binding and connecting

bool OsSocket::bindAndReport(const char* op, const c_sockaddr& addr)
{
    const int fd = Socket;
    if (::bind(fd, static_cast<const sockaddr*>(addr), sizeof(sockaddr_in)) == 0) {
        SOCK_TRACE(SOCK_TRACE_BIND, op << ": Socket[" << fd << "] bound to [" << addr << "]\n");
        return true;
    }
    const int e = errno;
    setError(e);
    UTL_TRACE(op << ": Socket[" << fd << "] bind to [" << addr << "] failed.  errNum[" << e << "] " << sockErrText(e)
                 << "\n");
    return false;
}

bool OsSocket::BindSocket()
{
    return bindAndReport("BindSocket", m_sockAddr);
}

bool OsSocket::BindTCPSocket(const c_inaddr& local, unsigned short port)
{
    const int fd = Socket;
    c_sockaddr addr(AF_INET, local, port);
    if (::bind(fd, static_cast<const sockaddr*>(addr), sizeof(sockaddr_in)) == 0) {
        bindErrors.reset();
        SOCK_TRACE(SOCK_TRACE_BIND, "BindTCPSocket: Socket[" << fd << "] bound to [" << addr << "]\n");
        return true;
    }
    const int e = errno;
    setError(e);
    unsigned newEvery = 0;
    const bool report = bindErrors.countFailure(newEvery);
    if (report) {
        UTL_TRACE("BindTCPSocket: Socket[" << fd << "] bind to [" << addr << "] failed.  errNum[" << e << "] "
                                           << sockErrText(e) << "  errors[" << bindErrors.errorCount() << "]\n");
    }
    if (newEvery != 0) {
        UTL_TRACE("BindTCPSocket: Changing reporting frequency to every " << newEvery << " errors!\n");
    }
    return false;
}

bool OsSocket::BindUDPSocket(const c_inaddr& local)
{
    return bindAndReport("BindUDPSocket", c_sockaddr(AF_INET, local, m_sockAddr.sin_port));
}

bool OsSocket::Connect(bool report)
{
    if (tcpType != TCP_CLIENT) return false;
    bSockErr = false;
    FdUse use(*this);
    const int fd = use.get();
    if (::connect(fd, static_cast<const sockaddr*>(m_sockAddr), sizeof(sockaddr_in)) != 0) {
        const int e = errno;
        errNum = e;
        if (e != EINPROGRESS && e != EAGAIN) {
            bSockErr = true;
            return false;
        }
    }
    pollfd p{};
    p.fd = fd;
    p.events = POLLOUT;
    const int n = ::poll(&p, 1, static_cast<int>(g_seams.connectWaitMs));
    if (n < 0) {
        const int e = errno;
        errNum = e;
        UTL_TRACE("Connect:  select failed, so we're failing connection!  errNum[" << e << "]\n");
        bSockErr = true;
        return false;
    }
    if (n == 0 || (p.revents & (POLLOUT | POLLERR | POLLHUP)) == 0) {
        errNum = ETIMEDOUT;
        SOCK_TRACE(SOCK_TRACE_CONNECT, "Connect Socket[" << fd
                                                         << "] FAILED FD_ISSET check when attempting to connect to ["
                                                         << m_sockAddr << "]\n");
        bSockErr = true;
        return false;
    }
    int soErr = 0;
    socklen_t len = sizeof soErr;
    if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &soErr, &len) != 0) {
        const int e = errno;
        errNum = e;
        UTL_TRACE("Connect  getsockopt failed, so we're failing connection!  errNum[" << e << "]\n");
        bSockErr = true;
        return false;
    }
    if (soErr != 0) {
        errNum = soErr;
        SOCK_TRACE(SOCK_TRACE_CONNECT, "Connect Socket[" << fd << "] FAILED to connect to [" << m_sockAddr
                                                         << "] SO_ERROR reported errNum[" << soErr << "]\n");
        bSockErr = true;
        return false;
    }
    if (report) {
        UTL_TRACE("Connect  Local client[" << c_sockaddr(fd) << "] connected to remote server[" << m_sockAddr << "]\n");
    } else if (sockTraceOn(SOCK_TRACE_CONNECT)) {
        UTL_TRACE("Connect Socket[" << fd << "] now connected to [" << m_sockAddr << "]\n");
    }
    return !bSockErr;
}

OsSocket* OsSocket::Accept()
{
    OsSocket* client = new OsSocket();
    *client = *this;
    // The copy must not own the listening descriptor.
    client->Socket = -1;
    int fd = -1;
    while (!Shuttingdown()) {
        socklen_t len = sizeof(sockaddr_in);
        FdUse use(*this);
        fd = ::accept(use.get(), static_cast<sockaddr*>(client->m_sockAddr), &len);
        if (fd >= 0) break;
        const int e = errno;
        errNum = e;
        // A listener without a waiting client says EAGAIN once a second;
        // that is only worth the bind/accept detail.
        if ((e != EAGAIN && e != EWOULDBLOCK) || sockTraceOn(SOCK_TRACE_BIND)) {
            UTL_TRACE("Accept: errNum[" << e << "] " << sockErrText(e) << "\n");
        }
        g_seams.sleepMs(ACCEPT_RETRY_MS);
    }
    if (fd < 0) {
        std::ostringstream os;
        if (isProgramTerminating())
            os << "Accept: Program is terminating!\n";
        else
            os << "Accept: Remote clientSocket[" << GetSocket() << "] is shutting down!\n";
        sockLog(os.str());
        delete client;
        return nullptr;
    }
    client->Socket = fd;
    client->bSockErr = false;
    client->tcpState = TCP_INITIALIZED;
    const char* op = "Accept";
    client->disableInheritance(fd, op);
    client->setLingerOnCloseOffOption(fd, op);
    client->setKeepAliveOptions(fd, op);
    client->setRxTimeoutOption(fd, op);
    client->setTxTimeoutOption(fd, op);
    client->setNoDelayOption(fd, op);
    SOCK_TRACE(SOCK_TRACE_BIND,
               "Accept  Local server[" << c_sockaddr(fd) << "] accepted remote client[" << client->m_sockAddr << "]\n");
    return client;
}

// ---------------------------------------------------------------------------
// Shutdown

bool OsSocket::Shuttingdown() const
{
    return shutdownSignalled.load(std::memory_order_acquire) || bProgramTerminating.load(std::memory_order_acquire);
}

void OsSocket::SignalShutdown()
{
    shutdownSignalled.store(true, std::memory_order_release);
    SetEvent(shutdown);
}

int OsSocket::acquireFd()
{
    std::lock_guard<std::mutex> g(fdLock);
    const int fd = Socket.load();
    if (fd >= 0) ++fdUsers;
    return fd;
}

void OsSocket::releaseFd()
{
    std::lock_guard<std::mutex> g(fdLock);
    if (--fdUsers == 0 && pendingClose >= 0) {
        ::close(pendingClose);
        pendingClose = -1;
    }
}

void OsSocket::Close()
{
    descriptorChanged();
    {
        std::lock_guard<std::mutex> g(fdLock);
        const int fd = Socket.exchange(-1);
        if (fd >= 0) {
            // shutdown() wakes a call blocked on the descriptor; close() alone does not.
            ::shutdown(fd, SHUT_RDWR);
            if (fdUsers == 0)
                ::close(fd);
            else
                pendingClose = fd;
        }
    }
    bSockErr = true;
}

void OsSocket::setProgramTerminating(bool on)
{
    bProgramTerminating.store(on, std::memory_order_release);
}

bool OsSocket::isProgramTerminating()
{
    return bProgramTerminating.load(std::memory_order_acquire);
}

void OsSocket::CloseAllSocketsInContainerAndExit()
{
    WaitForSingleObject(createdSocketsSetLock(), INFINITE);
    for (OsSocket* s : createdSocketsSet()) {
        const int fd = s->Socket.exchange(-1);
        if (fd >= 0) ::close(fd);
    }
    ReleaseMutex(createdSocketsSetLock());
    std::exit(0);
}

// ---------------------------------------------------------------------------
// Accessors

void OsSocket::SetSocket(int fd)
{
    descriptorChanged();
    Socket = fd;
    if (fd >= 0) {
        errNum = 0;
        bSockErr = false;
        tcpState = TCP_INITIALIZED;
    } else {
        bSockErr = true;
    }
}

bool OsSocket::LockSendMutex()
{
    return WaitForSingleObject(tcpSend, INFINITE) == WAIT_OBJECT_0;
}

void OsSocket::ReleaseSendMutex()
{
    ReleaseMutex(tcpSend);
}

// ---------------------------------------------------------------------------
// UDP datagrams

int OsSocket::SendTo(const void* buf, unsigned len, const c_sockaddr& to)
{
    FdUse use(*this);
    const int fd = use.get();
    const ssize_t n = ::sendto(fd, buf, len, MSG_NOSIGNAL, static_cast<const sockaddr*>(to), sizeof(sockaddr_in));
    if (n < 0) {
        const int e = errno;
        errNum = e;
        UTL_TRACE("SendTo: Socket[" << fd << "] to [" << to << "] errNum[" << e << "] " << sockErrText(e) << "\n");
        return -1;
    }
    msgSent.fetch_add(1, std::memory_order_relaxed);
    return static_cast<int>(n);
}

int OsSocket::ReceiveFrom(void* buf, unsigned len, c_sockaddr* from)
{
    FdUse use(*this);
    const int fd = use.get();
    c_sockaddr local;
    c_sockaddr* src = from ? from : &local;
    socklen_t alen = sizeof(sockaddr_in);
    const ssize_t n = ::recvfrom(fd, buf, len, 0, static_cast<sockaddr*>(*src), &alen);
    if (n < 0) {
        const int e = errno;
        errNum = e;
        if (e != EAGAIN && e != EWOULDBLOCK && e != EINTR) {
            UTL_TRACE("ReceiveFrom: Socket[" << fd << "] errNum[" << e << "] " << sockErrText(e) << "\n");
        }
        return -1;
    }
    return static_cast<int>(n);
}

// ---------------------------------------------------------------------------
// Interface carrier and the kernel's TCP table

bool OsSocket::checkInterfaceUp(const char* interfaceName)
{
    // The name goes into a shell command: accept only what interface names use.
    if (interfaceName == nullptr) return false;
    const std::size_t n = std::strlen(interfaceName);
    if (n == 0 || n >= IFNAMSIZ) return false;
    for (std::size_t i = 0; i < n; ++i) {
        const unsigned char c = static_cast<unsigned char>(interfaceName[i]);
        if (!std::isalnum(c) && c != '_' && c != '-' && c != '.' && c != ':' && c != '@') return false;
    }
    if (std::strcmp(interfaceName, ".") == 0 || std::strcmp(interfaceName, "..") == 0) return false;
    const std::string cmd = std::string("sudo cat /sys/class/net/") + interfaceName + "/carrier";
    const std::string out = g_seams.readCommand(cmd.c_str());
    const auto b = out.find_first_not_of(" \t\r\n");
    return b != std::string::npos && out[b] == '1' &&
           (b + 1 == out.size() || std::isspace(static_cast<unsigned char>(out[b + 1])));
}

namespace {

bool parseHexField(const std::string& s, std::size_t digits, unsigned long& out)
{
    if (s.size() != digits) return false;
    out = 0;
    for (char c : s) {
        const int v = std::isdigit(static_cast<unsigned char>(c)) ? c - '0'
                      : (c >= 'a' && c <= 'f')                    ? c - 'a' + 10
                      : (c >= 'A' && c <= 'F')                    ? c - 'A' + 10
                                                                  : -1;
        if (v < 0) return false;
        out = out * 16 + static_cast<unsigned long>(v);
    }
    return true;
}

// "0100007F:1F90": the address word as the kernel prints it (the in-memory
// value of s_addr) and the port in host order.
bool parseEndpoint(const std::string& s, c_inaddr& ip, unsigned short& port)
{
    const auto colon = s.find(':');
    if (colon == std::string::npos) return false;
    unsigned long a = 0, p = 0;
    if (!parseHexField(s.substr(0, colon), 8, a) || !parseHexField(s.substr(colon + 1), 4, p)) return false;
    ip = c_inaddr(static_cast<unsigned int>(a));
    port = static_cast<unsigned short>(p);
    return true;
}

} // namespace

bool OsSocket::ParseProcNetTcp(const std::string& text, std::vector<PROC_NET_TCP_ENTRY>& out)
{
    std::istringstream in(text);
    std::string line;
    bool allGood = true;
    bool header = true;
    while (std::getline(in, line)) {
        if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
        if (header) {
            header = false;
            if (line.find("local_address") != std::string::npos) continue;
        }
        std::istringstream fields(line);
        std::string sl, local, remote, st;
        fields >> sl >> local >> remote >> st;
        PROC_NET_TCP_ENTRY e{};
        unsigned long state = 0;
        if (sl.empty() || sl.back() != ':' || !parseEndpoint(local, e.localIp, e.localPort) ||
            !parseEndpoint(remote, e.remoteIp, e.remotePort) || !parseHexField(st, 2, state)) {
            allGood = false;
            continue;
        }
        e.state = static_cast<unsigned>(state);
        out.push_back(e);
    }
    return allGood;
}

bool OsSocket::GetProcNetTcp(std::vector<PROC_NET_TCP_ENTRY>& out, const char* path)
{
    if (path == nullptr) return false;
    std::ifstream in(path);
    if (!in) return false;
    std::ostringstream text;
    text << in.rdbuf();
    return ParseProcNetTcp(text.str(), out);
}

c_inaddr OsSocket::MapStunnelIP(const c_inaddr& ip, unsigned short port, const std::vector<PROC_NET_TCP_ENTRY>& table)
{
    auto isLoopback = [](const c_inaddr& a) { return (ntohl(a.s_addr) >> 24) == 127u; };
    if (!isLoopback(ip)) return ip;
    const unsigned TCP_ESTABLISHED_STATE = 1;
    for (const auto& e : table)
        if (e.state == TCP_ESTABLISHED_STATE && e.remotePort == port && !isLoopback(e.remoteIp) &&
            e.remoteIp.s_addr != 0)
            return e.remoteIp;
    return ip;
}

c_inaddr OsSocket::MapStunnelIP(const c_inaddr& ip, unsigned short port)
{
    std::vector<PROC_NET_TCP_ENTRY> table;
    GetProcNetTcp(table);
    return MapStunnelIP(ip, port, table);
}
