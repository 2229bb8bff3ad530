// Framed transfer on a connected socket: the frame readers with their
// resynchronisation by purging, the primitive waits and reads beneath them,
// and the serialised writer of buffer descriptor chains.
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <sstream>

#include "Common/OS/Linux/WinEvent.h"
#include "Common/OS/OsSocket.h"
#include "Common/OS/OsSocketDebug.h"

namespace {

constexpr std::uint32_t reverse32(std::uint32_t v)
{
    return (v >> 24) | ((v >> 8) & 0x0000FF00u) | ((v << 8) & 0x00FF0000u) | (v << 24);
}

constexpr std::uint32_t MARKER = static_cast<std::uint32_t>(ORV_MSG_MARKER);
constexpr std::uint32_t MARKER_REVERSED = reverse32(MARKER);
constexpr std::uint32_t TEST_MARKER = static_cast<std::uint32_t>(ORV_MSG_TEST);
constexpr std::uint32_t TEST_MARKER_REVERSED = reverse32(TEST_MARKER);

bool interruptOrTryAgain(int e)
{
    return e == EINTR || e == EAGAIN;
}

// A send that would block is tried again after a pause, a few times; an
// interrupted one at once. True when the caller should send again.
bool retrySend(int e, int fd, unsigned& wouldBlock)
{
    if (e == EAGAIN && ++wouldBlock <= OsSocket::MAX_SEND_WOULD_BLOCK) {
        UTL_TRACE("SendBD: Retrying send that would have blocked on Socket[" << fd << "]\n");
        tavro_internal::socketSeams().sleepMs(OsSocket::SEND_RETRY_MS);
        return true;
    }
    if (e == EINTR) {
        UTL_TRACE("SendBD: Retrying send that returned sockerr[4] (interrupt or try again) on Socket[" << fd << "]\n");
        return true;
    }
    return false;
}

} // namespace

// ---------------------------------------------------------------------------
// Frame readers

template <typename CtlStep>
bool OsSocket::readFrame(ORV_CTL_MSG* ctl, CtlStep ctlStep, ORV_APP_MSG*& app, const char* name)
{
    int state = READ_CTL_MSG;
    unsigned count = 0;
    for (;;) {
        switch (state) {
        case READ_CTL_MSG:
            state = ctlStep();
            count = 0;
            break;
        case READ_APP_MSG: {
            const unsigned size = ctl->getSize();
            bodyRoom = count < size ? size - count : 0;
            state = ReadAppMsg(app, size, count);
            bodyRoom = 0;
            break;
        }
        case READ_PURGE: {
            std::string text(name);
            text += ": Purging socket...\n";
            sockLog(text);
            PurgeMessage();
            state = READ_CTL_MSG;
            break;
        }
        default: state = READ_CTL_MSG; break;
        }
        if (state == READ_COMPLETE || state == READ_FAILED) break;
        if (!mayContinue()) break;
    }
    // A body left unfinished keeps its received rest for the next read.
    if (placedBytes > 0) holdPlaced();
    if (state != READ_COMPLETE) return false;
    OrvMessageNetworkOrder(ctl, app);
    return true;
}

bool OsSocket::GetOrvMessage(ORV_CTL_MSG* ctl, ORV_APP_MSG* app, unsigned maxSize)
{
    // The application header is swapped in place: the buffer must hold it.
    if (ctl == nullptr || app == nullptr || maxSize < sizeof(ORV_APP_MSG)) return false;
    return readFrame(
        ctl, [&] { return ReadCtlMsg(ctl, maxSize); }, app, "GetOrvMessage");
}

bool OsSocket::GetOrvMessageWithAppMsgMemAlloc(ORV_CTL_MSG* ctl, ORV_APP_MSG*& app)
{
    app = nullptr;
    if (ctl == nullptr) return false;
    return readFrame(
        ctl, [&] { return ReadCtlMsgWithAppMsgMemAlloc(ctl, app); }, app, "GetOrvMessageWithAppMsgMemAlloc");
}

OsSocket::ReadState OsSocket::ReadCtlMsgCommon(ORV_CTL_MSG* ctl)
{
    unsigned got = 0;
    if (!Read(reinterpret_cast<char*>(ctl), sizeof(ORV_CTL_MSG), &got)) return READ_CTL_MSG;
    if (got != sizeof(ORV_CTL_MSG)) {
        UTL_TRACE("ReadCtlMsgCommon: IP[" << peerText() << "] Short ORV_CTL_MSG.  Expected [" << sizeof(ORV_CTL_MSG)
                                          << "] bytes.  Received [" << got << "] bytes.\n");
        return READ_PURGE;
    }
    if (sockTraceOn(SOCK_TRACE_RAW)) sockLog(rawDump("ReadCtlMsgCommon", ctl, got < 32 ? got : 32));
    const std::uint32_t marker = ctl->getMarker();
    if (marker == TEST_MARKER || marker == TEST_MARKER_REVERSED) {
        sockLog("ReadCtlMsgCommon: IP[" + peerText() + "] Test msg\n");
        return READ_CTL_MSG;
    }
    if (marker == MARKER_REVERSED) {
        ctl->fromNetwork();
        ctl->setNetworkOrder();
    }
    if (ctl->getMarker() != MARKER) {
        UTL_TRACE("ReadCtlMsgCommon: IP[" << peerText() << "] Missing ORV_MSG_MARKER in ORV_CTL_MSG.  Expected ["
                                          << hex8(MARKER) << "] bytes.  Received [" << hex8(marker) << "] bytes.\n");
        return READ_PURGE;
    }
    if (ctl->getSize() == 0) {
        sockLog("ReadCtlMsgCommon: IP[" + peerText() + "] ORV_APP_MSG size (as provided in ORV_CTL_MSG) is 0.\n");
        return READ_PURGE;
    }
    return READ_APP_MSG;
}

OsSocket::ReadState OsSocket::ReadCtlMsg(ORV_CTL_MSG* ctl, unsigned maxSize)
{
    const ReadState state = ReadCtlMsgCommon(ctl);
    if (state == READ_APP_MSG && ctl->getSize() > maxSize) {
        UTL_TRACE("ReadCtlMsg: IP[" << peerText() << "] ORV_CTL_MSG size [" << ctl->getSize()
                                    << "] (as provided in ORV_CTL_MSG) is larger than expected size[" << maxSize
                                    << "]\n");
        return READ_PURGE;
    }
    return state;
}

OsSocket::ReadState OsSocket::ReadCtlMsgWithAppMsgMemAlloc(ORV_CTL_MSG* ctl, ORV_APP_MSG*& app)
{
    const ReadState state = ReadCtlMsgCommon(ctl);
    if (state != READ_APP_MSG) return state;
    const std::uint32_t size = ctl->getSize();
    // A body shorter than the application header still gets a whole, zeroed
    // header, so that reading or swapping it never runs past the buffer.
    const std::size_t bytes = size < sizeof(ORV_APP_MSG) ? sizeof(ORV_APP_MSG) : size;
    char* buf = new (std::nothrow) char[bytes];
    if (buf == nullptr) {
        UTL_TRACE("ReadCtlMsgWithAppMsgMemAlloc: IP[" << peerText()
                                                      << "] failed to allocate memory for ORV_APP_MSG size [" << size
                                                      << "] (as provided in ORV_CTL_MSG)\n");
        return READ_PURGE;
    }
    if (bytes != size) std::memset(buf, 0, bytes);
    app = reinterpret_cast<ORV_APP_MSG*>(buf);
    return READ_APP_MSG;
}

OsSocket::ReadState OsSocket::ReadAppMsg(ORV_APP_MSG* app, unsigned size, unsigned& bytesRead)
{
    if (bytesRead >= size) return READ_COMPLETE;
    unsigned want = size - bytesRead;
    if (want > APP_MSG_PIECE) want = APP_MSG_PIECE;
    char* at = reinterpret_cast<char*>(app) + bytesRead;
    unsigned got = 0;
    if (!Read(at, want, &got)) {
        UTL_TRACE("ReadAppMsg: IP[" << peerText() << "] Reading ORV_APP_MSG failed. Wanted [" << want
                                    << "] bytes.  Read [" << got << "] bytes.\n");
        return READ_FAILED;
    }
    if (bytesRead == 0 && sockTraceOn(SOCK_TRACE_RAW)) sockLog(rawDump("ReadAppMsg", at, got < 32 ? got : 32));
    bytesRead += got;
    return bytesRead < size ? READ_APP_MSG : READ_COMPLETE;
}

void OsSocket::OrvMessageNetworkOrder(ORV_CTL_MSG* ctl, ORV_APP_MSG* app)
{
    if (ctl == nullptr || app == nullptr || !ctl->isNetworkOrder()) return;
    app->fromNetwork();
    app->setNetworkOrder();
}

bool OsSocket::PurgeMessage()
{
    bSockErr = false;
    // Bytes already taken ahead were waiting too.
    dropBuffered();
    int avail = 0;
    {
        FdUse use(*this);
        if (tavro_internal::socketSeams().availFn(use.get(), &avail) != 0 || avail <= 0) return true;
    }
    std::unique_ptr<char[]> junk(new (std::nothrow) char[static_cast<std::size_t>(avail)]);
    if (!junk) return true;
    unsigned got = 0;
    readAllData(junk.get(), static_cast<unsigned>(avail), &got);
    return !bSockErr;
}

// ---------------------------------------------------------------------------
// Primitive waits and reads

void OsSocket::dropBuffered()
{
    aheadBegin = aheadEnd = 0;
    placedAt = nullptr;
    placedBytes = 0;
    if (aheadCapacity > READ_AHEAD_SIZE) {
        readAhead.reset();
        aheadCapacity = 0;
    }
}

unsigned OsSocket::bufferedBytes()
{
    const unsigned gen = fdGeneration.load(std::memory_order_acquire);
    if (gen != aheadGeneration) {
        aheadGeneration = gen;
        dropBuffered();
    }
    return aheadEnd - aheadBegin + placedBytes;
}

bool OsSocket::haveReadAhead()
{
    if (aheadCapacity == 0) {
        readAhead.reset(new (std::nothrow) char[READ_AHEAD_SIZE]);
        if (readAhead) aheadCapacity = READ_AHEAD_SIZE;
    }
    return aheadCapacity != 0;
}

void OsSocket::holdPlaced()
{
    if (placedBytes == 0) return;
    if (fdGeneration.load(std::memory_order_acquire) != aheadGeneration) {
        dropBuffered(); // they came from a descriptor that is gone
        return;
    }
    // Bytes lie in place only after the recv that put them there, which
    // found readAhead empty.
    if (aheadCapacity < placedBytes || aheadCapacity == 0) {
        const unsigned size = placedBytes > READ_AHEAD_SIZE ? placedBytes : READ_AHEAD_SIZE;
        std::unique_ptr<char[]> bigger(new (std::nothrow) char[size]);
        if (!bigger) {
            // They cannot be kept: the stream is cut, so the socket is done.
            placedAt = nullptr;
            placedBytes = 0;
            setError(ENOMEM);
            SignalShutdown();
            return;
        }
        readAhead = std::move(bigger);
        aheadCapacity = size;
    }
    std::memcpy(readAhead.get(), placedAt, placedBytes);
    aheadBegin = 0;
    aheadEnd = placedBytes;
    placedAt = nullptr;
    placedBytes = 0;
}

unsigned OsSocket::takeBuffered(char* buf, unsigned len)
{
    if (bufferedBytes() == 0) return 0;
    if (placedBytes > 0 && buf != placedAt) holdPlaced();
    unsigned n;
    if (placedBytes > 0) {
        // Already where the caller wants them.
        n = placedBytes < len ? placedBytes : len;
        placedBytes -= n;
        placedAt = placedBytes > 0 ? placedAt + n : nullptr;
        return n;
    }
    n = aheadEnd - aheadBegin;
    if (n > len) n = len;
    std::memcpy(buf, readAhead.get() + aheadBegin, n);
    aheadBegin += n;
    if (aheadBegin == aheadEnd) dropBuffered();
    return n;
}

bool OsSocket::Read(char* buf, unsigned len, unsigned* got)
{
    if (bSockErr || tcpState != TCP_INITIALIZED || len == 0 || buf == nullptr || got == nullptr) return false;
    int rc = waitForReadySocket();
    if (rc == 1) rc = readAllData(buf, len, got);
    return rc >= 0;
}

int OsSocket::waitForReadySocket()
{
    int n = 0;
    // Bytes taken ahead are ready without asking the kernel.
    if (bufferedBytes() > 0 && mayContinue()) n = 1;
    while (n == 0 && mayContinue()) {
        FdUse use(*this);
        const int fd = use.get();
        pollfd p{};
        p.fd = fd;
        p.events = POLLIN;
        n = ::poll(&p, 1, static_cast<int>(tavro_internal::socketSeams().readyWaitMs));
        int e = errno;
        if (n == 1 && (p.revents & POLLNVAL)) {
            // What select says of a descriptor that is not open.
            n = -1;
            e = EBADF;
        }
        if (n == -1) {
            errNum = e;
            SOCK_TRACE(SOCK_TRACE_WAIT, "waitForReadySocket: IP[" << peerText() << "] select() returned error.  errNum["
                                                                  << e << "] " << sockErrText(e) << "\n");
            if (!interruptOrTryAgain(e)) {
                SignalShutdown();
                bSockErr = true;
                return 0;
            }
            UTL_TRACE("waitForReadySocket: errNum[" << e << "] " << sockErrText(e)
                                                    << "] is INTERRUPT_ERROR[4] or TRY_AGAIN_ERROR[11]\n");
            n = 0;
            continue;
        }
        if (n == 1 && (p.revents & (POLLIN | POLLHUP | POLLERR)) == 0 && sockTraceOn(SOCK_TRACE_WAIT)) {
            sockLog("waitForReadySocket: IP[" + peerText() + "] nReadySockets[1] but FD_ISSET() returns false!\n");
        }
    }
    SOCK_TRACE(SOCK_TRACE_WAIT_EXIT, "waitForReadySocket: IP[" << peerText() << "] nReadySockets[" << n
                                                               << "] Shuttingdown()[" << boolText(Shuttingdown())
                                                               << "] bSockErr[" << boolText(bSockErr) << "]\n");
    return n;
}

int OsSocket::readAllData(char* buf, unsigned len, unsigned* got)
{
    SOCK_TRACE(SOCK_TRACE_CONNECT, "readAllData: IP[" << peerText() << "] nRequestedBytes[" << len << "]\n");
    if (!mayContinue()) return static_cast<int>(*got);
    // Held bytes first: they stand for the recv that returned them.
    *got = takeBuffered(buf, len);
    ssize_t n = *got;
    if (*got == len && len > 0) return static_cast<int>(*got);
    const tavro_internal::SocketSeams& seams = tavro_internal::socketSeams();
    // Datagrams keep one recv per read.
    const bool stream = tcpType != UDP_SERVICE;
    const unsigned room = stream && bodyRoom >= len ? bodyRoom : len;
    FdUse use(*this);
    unsigned interrupts = 0;
    while (*got < len) {
        const unsigned want = len - *got;
        // Into readAhead, unless what the caller's buffer may take from here
        // (the rest of the body) is too big for it.
        const bool ahead = stream && room - *got < READ_AHEAD_SIZE && haveReadAhead();
        if (ahead) {
            n = seams.recvFn(use.get(), readAhead.get(), aheadCapacity, 0);
        } else {
            n = seams.recvFn(use.get(), buf + *got, room - *got, 0);
        }
        if (n > 0) {
            const unsigned k = static_cast<unsigned>(n) < want ? static_cast<unsigned>(n) : want;
            if (ahead) {
                // A descriptor change meanwhile drops the rest at the next look.
                std::memcpy(buf + *got, readAhead.get(), k);
                aheadBegin = k;
                aheadEnd = static_cast<unsigned>(n);
                if (aheadBegin == aheadEnd) aheadBegin = aheadEnd = 0;
            } else if (static_cast<unsigned>(n) > k) {
                placedAt = buf + *got + k;
                placedBytes = static_cast<unsigned>(n) - k;
            }
            *got += k;
        }
        if (n > 0) {
            interrupts = 0;
            continue;
        }
        if (n == 0) {
            errNum = 0;
            break;
        }
        const int e = errno;
        errNum = e;
        if (!interruptOrTryAgain(e)) break;
        ++interrupts;
        SOCK_TRACE(SOCK_TRACE_INTERRUPT, "readAllData: interrupt "
                                             << interrupts << ", errNum[" << e << "] " << sockErrText(e)
                                             << "] is INTERRUPT_ERROR[4] or TRY_AGAIN_ERROR[11]\n");
        if (interrupts >= MAX_READ_INTERRUPTS) {
            errNum = TOO_MANY_INTERRUPTS;
            break;
        }
        seams.sleepMs(READ_RETRY_MS);
    }
    if (n > 0) return static_cast<int>(*got);
    if (n < 0) {
        std::ostringstream os;
        if (interrupts < MAX_READ_INTERRUPTS)
            os << "readAllData: recv() failed.  IP[" << peerText() << "] errNum[" << errNum << "] "
               << sockErrText(errNum) << "\n";
        else
            os << "readAllData: too many interrupts.  IP[" << peerText() << "]\n";
        sockLog(os.str());
    }
    bSockErr = true;
    SignalShutdown();
    return -1;
}

int OsSocket::ReadAvailableBytes(char* buf, unsigned len)
{
    if (buf == nullptr || len == 0 || bSockErr || tcpState != TCP_INITIALIZED) return -1;
    int avail = 0;
    {
        FdUse use(*this);
        if (tavro_internal::socketSeams().availFn(use.get(), &avail) != 0) {
            errNum = errno;
            return -1;
        }
    }
    const unsigned waitingNow = bufferedBytes() + static_cast<unsigned>(avail > 0 ? avail : 0);
    if (waitingNow == 0) return 0;
    const unsigned want = waitingNow < len ? waitingNow : len;
    unsigned got = 0;
    return readAllData(buf, want, &got);
}

int OsSocket::waitForAllData(unsigned n)
{
    SOCK_TRACE(SOCK_TRACE_WAIT, "waitForAllData: IP[" << peerText() << "] nRequestedBytes[" << n << "]\n");
    const tavro_internal::SocketSeams& seams = tavro_internal::socketSeams();
    int avail = 0;
    int rc = 0;
    int e = 0;
    for (;;) {
        if (!mayContinue()) return -1;
        {
            FdUse use(*this);
            rc = seams.availFn(use.get(), &avail);
            e = errno;
        }
        if (rc != 0) break;
        const unsigned waitingNow = bufferedBytes() + static_cast<unsigned>(avail > 0 ? avail : 0);
        if (waitingNow == 0) return 0;
        if (waitingNow >= n) return static_cast<int>(waitingNow);
        seams.sleepMs(0);
    }
    errNum = e;
    if (!interruptOrTryAgain(e)) {
        SOCK_TRACE(SOCK_TRACE_INTERRUPT, "waitForAllData: ioctlsocket(FIONREAD) failed.  IP["
                                             << peerText() << "]  rc[" << rc << "]  errNum[" << e << "] "
                                             << sockErrText(e) << "  bytesAvail[" << avail << "]\n");
        SignalShutdown();
        bSockErr = true;
        return -1;
    }
    UTL_TRACE("waitForAllData: errNum[" << e << "] " << sockErrText(e)
                                        << "] is INTERRUPT_ERROR[4] or TRY_AGAIN_ERROR[11]\n");
    return 0;
}

bool OsSocket::ReadReady()
{
    if (bSockErr || tcpState != TCP_INITIALIZED) return false;
    if (bufferedBytes() > 0) return true;
    int avail = 0;
    int rc;
    int e;
    {
        FdUse use(*this);
        rc = tavro_internal::socketSeams().availFn(use.get(), &avail);
        e = errno;
    }
    if (rc == 0 && avail != 0) return true;
    if (rc != 0) {
        errNum = e;
        SOCK_TRACE(SOCK_TRACE_INTERRUPT, "ReadReady: ioctlsocket(FIONREAD) failed.  IP["
                                             << peerText() << "]  rc[" << rc << "]  errNum[" << e << "] "
                                             << sockErrText(e) << "  bytesAvail[" << avail << "]\n");
    }
    return false;
}

// ---------------------------------------------------------------------------
// Writer

namespace {
thread_local bool t_frameFollows = false;
} // namespace

tavro_internal::FrameFollows::FrameFollows(bool follows) : previous(t_frameFollows)
{
    t_frameFollows = follows;
}

tavro_internal::FrameFollows::~FrameFollows()
{
    t_frameFollows = previous;
}

bool tavro_internal::FrameFollows::active()
{
    return t_frameFollows;
}

bool OsSocket::SendBD(TCP_BD* chain)
{
    const tavro_internal::SocketSeams& seams = tavro_internal::socketSeams();
    WaitForSingleObject(tcpSend, INFINITE);
    // A frame in one write: one segment and one wake-up of the peer instead
    // of one per piece. The per-piece loop stays for the send trace, which
    // reports every piece and call.
    const bool gathered =
        tavro_internal::realSend() && !sockTraceOn(SOCK_TRACE_SEND_BD | SOCK_TRACE_SEND_CALL | SOCK_TRACE_SEND_ERROR);
    if (gathered) sendGathered(chain);
    unsigned wouldBlock = 0;
    bool failed = false;
    for (TCP_BD* bd = gathered ? nullptr : chain; bd != nullptr && !failed && mayContinue();) {
        const int size = bd->size;
        SOCK_TRACE(SOCK_TRACE_SEND_BD,
                   "SendBD: Sending nBytes[" << size << "] of data at [" << hex8(bd->pBuf) << "]\n");
        const char* p = static_cast<const char*>(bd->pBuf);
        int left = size;
        while (left > 0 && mayContinue()) {
            FdUse use(*this);
            const int fd = use.get();
            SOCK_TRACE(SOCK_TRACE_SEND_CALL, "SendBD: Sending nBytesToSend[" << left << "] on Socket[" << fd << "]\n");
            const ssize_t n = seams.sendFn(fd, p, static_cast<size_t>(left), 0);
            const int e = errno;
            msgSent.fetch_add(1, std::memory_order_relaxed);
            if (n == 0) {
                SOCK_TRACE(SOCK_TRACE_SEND_ERROR, "SendBD: Zero bytes[0] sent on Socket[" << fd << "]\n");
                continue;
            }
            if (n < 0) {
                SOCK_TRACE(SOCK_TRACE_SEND_ERROR,
                           "SendBD: Error sending nBytesToSend[" << left << "] on Socket[" << fd << "]\n");
                if (retrySend(e, fd, wouldBlock)) continue;
                setError(e);
                SignalShutdown();
                SOCK_TRACE(SOCK_TRACE_SEND_ERROR, "SendBD: IP[" << peerText() << "] pBD[" << hex8(bd)
                                                                << "] FAILED TO send nBytes[" << size << "] errNum["
                                                                << e << "] " << sockErrText(e) << "\n");
                failed = true;
                break;
            }
            p += n;
            left -= static_cast<int>(n);
            wouldBlock = 0;
            SOCK_TRACE(SOCK_TRACE_SEND_CALL, "SendBD: Sent nBytesSent[" << n << "] on Socket[" << fd << "]\n");
            if (left == 0) {
                if (sockTraceOn(SOCK_TRACE_SEND_BD)) {
                    sockLog(rawDump("SendBD", bd->pBuf, static_cast<std::size_t>(size < 32 ? size : 32)));
                    UTL_TRACE("SendBD: IP[" << peerText() << "] pBD[" << hex8(bd) << "] Sent nBytes[" << size << "]\n");
                }
            } else if (sockTraceOn(SOCK_TRACE_SEND_ERROR)) {
                UTL_TRACE("SendBD: Only sent nBytesSent[" << n << "] of nBytesToSend[" << n + left << "] on Socket["
                                                          << fd << "].  Potential timeout coming?\n");
            }
        }
        if (left > 0) break; // stopped by shutdown or failure
        bd = bd->pNextBD;
    }
    ReleaseMutex(tcpSend);
    if (Shuttingdown()) bSockErr = true;
    return !bSockErr;
}

void OsSocket::sendGathered(TCP_BD* chain)
{
    constexpr int kMaxIov = 16;
    iovec iov[kMaxIov];
    int first = 0, count = 0;
    TCP_BD* next = chain;
    // Moves what is left to the front and appends further pieces; empty
    // pieces are skipped as the per-piece loop skips them.
    const auto refill = [&] {
        if (first > 0) {
            std::memmove(iov, iov + first, sizeof(iovec) * static_cast<std::size_t>(count - first));
            count -= first;
            first = 0;
        }
        for (; next != nullptr && count < kMaxIov; next = next->pNextBD)
            if (next->size > 0) iov[count++] = {next->pBuf, static_cast<std::size_t>(next->size)};
    };
    refill();
    const int flags = MSG_NOSIGNAL | (tavro_internal::FrameFollows::active() ? MSG_MORE : 0);
    unsigned wouldBlock = 0;
    while (first < count && mayContinue()) {
        FdUse use(*this);
        const int fd = use.get();
        msghdr m{};
        m.msg_iov = iov + first;
        m.msg_iovlen = static_cast<std::size_t>(count - first);
        const ssize_t n = ::sendmsg(fd, &m, flags);
        const int e = errno;
        if (n <= 0) msgSent.fetch_add(1, std::memory_order_relaxed);
        if (n == 0) continue;
        if (n < 0) {
            if (retrySend(e, fd, wouldBlock)) continue;
            setError(e);
            SignalShutdown();
            return;
        }
        wouldBlock = 0;
        // Counted as the per-piece writer counts: one call per piece this
        // write finished, and one for a piece it left unfinished.
        unsigned calls = 0;
        for (std::size_t sent = static_cast<std::size_t>(n); sent > 0; ++calls) {
            iovec& v = iov[first];
            if (sent >= v.iov_len) {
                sent -= v.iov_len;
                ++first;
            } else {
                v.iov_base = static_cast<char*>(v.iov_base) + sent;
                v.iov_len -= sent;
                sent = 0;
            }
        }
        msgSent.fetch_add(calls, std::memory_order_relaxed);
        if (first == count) refill();
    }
}

bool OsSocket::Send(const void* buf, unsigned len)
{
    // The debug writer sends trace text through here; tracing that send
    // would queue more text for the same writer, for ever.
    SocketTraceMute mute;
    TCP_BD bd{const_cast<void*>(buf), static_cast<std::int32_t>(len), nullptr};
    const bool ok = SendBD(&bd);
    if (!ok) SignalShutdown();
    return ok;
}
