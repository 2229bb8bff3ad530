#include "SwitchSimulator.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sstream>
#include <sys/socket.h>
#include <unistd.h>

#include "Ap/ApBase.h"
#include "Cr/CrOrvMsg.h"

namespace switchsim {

namespace {

constexpr std::uint32_t kCtlSize = 12;
constexpr std::uint32_t kAppSize = 28;
constexpr std::uint32_t kSizeMask = 0x7FFFFFFFu;
constexpr std::uint32_t kMsgMarker = std::uint32_t(ORV_MSG_MARKER);
constexpr std::uint32_t kTestMarker = std::uint32_t(ORV_MSG_TEST);
// The largest frame body a client may send: the application header and a
// payload one byte short of the library's receive buffer.
constexpr std::uint32_t kMaxBody = kAppSize + MAX_TCP_MSG_SIZE - 1;

std::uint32_t reverse32(std::uint32_t v)
{
    return (v >> 24) | ((v >> 8) & 0xFF00u) | ((v << 8) & 0xFF0000u) | (v << 24);
}

// Byte order is handled by copying the native value and reversing the
// bytes when asked; nothing here depends on what the host's order is.
template <typename T>
void put(Bytes& out, T v, WireOrder order)
{
    std::uint8_t b[sizeof(T)];
    std::memcpy(b, &v, sizeof(T));
    if (order == WireOrder::Reversed) std::reverse(b, b + sizeof(T));
    out.insert(out.end(), b, b + sizeof(T));
}

template <typename T>
T load(const std::uint8_t* p, WireOrder order)
{
    std::uint8_t b[sizeof(T)];
    std::memcpy(b, p, sizeof(T));
    if (order == WireOrder::Reversed) std::reverse(b, b + sizeof(T));
    T v;
    std::memcpy(&v, b, sizeof(T));
    return v;
}

std::uint64_t splitmix64(std::uint64_t x)
{
    x += 0x9E3779B97F4A7C15ull;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return x ^ (x >> 31);
}

std::string typeText(std::uint32_t t)
{
    std::string s;
    for (int shift = 24; shift >= 0; shift -= 8) {
        const char c = char((t >> shift) & 0xFF);
        if (c < 0x20 || c > 0x7E) {
            char hex[16];
            std::snprintf(hex, sizeof hex, "0x%08X", unsigned(t));
            return hex;
        }
        s += c;
    }
    return s;
}

std::string codeText(std::uint32_t code)
{
    std::ostringstream os;
    os << COMMAND_CODE(std::int32_t(code));
    return os.str();
}

// One transcript line of a frame.
std::string describe(const char* dir, std::uint64_t conn, std::uint32_t manager, std::uint32_t msgType,
                     std::uint32_t code, std::uint32_t seq, std::uint32_t stat, std::uint32_t src,
                     std::uint32_t appError, std::size_t payload, std::size_t frame, WireOrder order)
{
    std::ostringstream os;
    os << dir << " #" << conn << ' ' << typeText(msgType) << ' ' << COMMAND_CODE(std::int32_t(code)) << " seq=" << seq
       << ' ';
    if (msgType == std::uint32_t(MSG_COMMAND))
        os << CMD_CONTROL(std::int32_t(stat));
    else
        os << RSP_STATUS(std::int32_t(stat)) << " err=" << std::int32_t(appError);
    os << " src=" << src << " payload=" << payload << " frame=" << frame << ' ' << orderName(order);
    if (manager != code / 10000) os << " mgr=" << MGR_CLASS(std::int32_t(manager));
    return os.str();
}

bool writeAll(int fd, const std::uint8_t* p, std::size_t n)
{
    while (n > 0) {
        const ssize_t w = ::send(fd, p, n, MSG_NOSIGNAL);
        if (w < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        p += w;
        n -= std::size_t(w);
    }
    return true;
}

} // namespace

const char* orderName(WireOrder o)
{
    return o == WireOrder::Host ? "host" : "reversed";
}

bool SimFrame::isCommand() const
{
    return msgType == std::uint32_t(MSG_COMMAND);
}
bool SimFrame::wantsResponse() const
{
    return isCommand() && msgStat == std::uint32_t(CMD_WITH_RSP);
}

Bytes OutFrame::encode() const
{
    Bytes out;
    out.reserve(kCtlSize + kAppSize + payload.size());
    const auto len = std::uint32_t(payload.size());
    for (std::uint32_t w : {marker, manager, kAppSize + len}) put(out, w, order);
    for (std::uint32_t w : {msgType, cmdCode, seqNbr, msgStat, srcAddr, appError, len}) put(out, w, order);
    out.insert(out.end(), payload.begin(), payload.end());
    return out;
}

struct SwitchSimulator::Conn {
    Conn(std::uint64_t i, int f, const char* s) : id(i), fd(f), service(s) {}
    ~Conn()
    {
        if (fd >= 0) ::close(fd);
    }
    const std::uint64_t id;
    // Stays open until the connection is joined and dropped, so that a
    // shutdown() from any thread never hits a reused descriptor.
    const int fd;
    const char* const service;
    std::mutex sendMu; // one frame at a time on the wire
    std::thread reader;
    // Under the simulator's mu_:
    bool open = true;
    bool linked = false;
    bool finished = false;
    WireOrder clientOrder = WireOrder::Host;
    unsigned framesIn = 0;
    unsigned answers = 0;
};

SwitchSimulator::SwitchSimulator() = default;

SwitchSimulator::~SwitchSimulator()
{
    stop();
}

bool SwitchSimulator::listenOn(const std::string& address, int port, int& fd, std::uint16_t& bound, std::string* error)
{
    if (port < 0) return true;
    auto fail = [&](const std::string& what) {
        if (error) *error = what + " (" + address + ":" + std::to_string(port) + "): " + std::strerror(errno);
        if (fd >= 0) ::close(fd);
        fd = -1;
        return false;
    };
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(std::uint16_t(port));
    if (port > 65535 || inet_pton(AF_INET, address.c_str(), &sa.sin_addr) != 1) {
        errno = EINVAL;
        return fail("bad address or port");
    }
    fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return fail("socket");
    const int one = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0) return fail("bind");
    if (::listen(fd, 16) != 0) return fail("listen");
    socklen_t len = sizeof sa;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &len) != 0) return fail("getsockname");
    bound = ntohs(sa.sin_port);
    return true;
}

bool SwitchSimulator::start(const Options& options, std::string* error)
{
    std::lock_guard<std::mutex> lk(mu_);
    if (running_) {
        if (error) *error = "already running";
        return false;
    }
    opts_ = options;
    responder_ = nullptr;
    stopping_ = false;
    counters_ = Counters{};
    received_.clear();
    sent_.clear();
    raw_.clear();
    pending_.clear();
    delayed_.clear();
    boundSnmp_ = boundPce_ = 0;
    if (!opts_.pcap.empty() && !pcap_.open(opts_.pcap, opts_.pcapSegment, error)) return false;
    if (!listenOn(opts_.address, opts_.snmpPort, listenSnmp_, boundSnmp_, error) ||
        !listenOn(opts_.address, opts_.pcePort, listenPce_, boundPce_, error)) {
        if (listenSnmp_ >= 0) ::close(listenSnmp_);
        listenSnmp_ = -1;
        pcap_.close();
        return false;
    }
    if (::pipe2(wakePipe_, O_CLOEXEC) != 0) {
        if (error) *error = std::string("pipe: ") + std::strerror(errno);
        for (int* fd : {&listenSnmp_, &listenPce_})
            if (*fd >= 0) ::close(*fd), *fd = -1;
        pcap_.close();
        return false;
    }
    started_ = std::chrono::steady_clock::now();
    running_ = true;
    acceptor_ = std::thread(&SwitchSimulator::acceptLoop, this);
    scheduler_ = std::thread(&SwitchSimulator::schedulerLoop, this);
    return true;
}

void SwitchSimulator::stop()
{
    {
        std::lock_guard<std::mutex> lk(mu_);
        if (!running_ || stopping_) return;
        stopping_ = true;
    }
    schedWake_.notify_all();
    const char b = 'x';
    while (::write(wakePipe_[1], &b, 1) < 0 && errno == EINTR) {
    }
    acceptor_.join();
    std::vector<std::shared_ptr<Conn>> conns;
    {
        std::lock_guard<std::mutex> lk(mu_);
        conns = conns_;
    }
    for (auto& c : conns) ::shutdown(c->fd, SHUT_RDWR);
    for (auto& c : conns)
        if (c->reader.joinable()) c->reader.join();
    scheduler_.join();
    std::lock_guard<std::mutex> lk(mu_);
    conns_.clear();
    pending_.clear();
    delayed_.clear();
    for (int* fd : {&listenSnmp_, &listenPce_, &wakePipe_[0], &wakePipe_[1]})
        if (*fd >= 0) ::close(*fd), *fd = -1;
    running_ = false;
    pcap_.close();
    ++events_;
    changed_.notify_all();
}

void SwitchSimulator::note(const std::string& line) const
{
    if (!opts_.transcript) return;
    std::lock_guard<std::mutex> lk(transcriptMu_);
    opts_.transcript(line);
}

void SwitchSimulator::acceptLoop()
{
    while (true) {
        pollfd fds[3];
        nfds_t n = 0;
        fds[n++] = {wakePipe_[0], POLLIN, 0};
        if (listenSnmp_ >= 0) fds[n++] = {listenSnmp_, POLLIN, 0};
        if (listenPce_ >= 0) fds[n++] = {listenPce_, POLLIN, 0};
        if (::poll(fds, n, -1) < 0) {
            if (errno == EINTR) continue;
            return;
        }
        if (fds[0].revents != 0) return;
        for (nfds_t i = 1; i < n; ++i) {
            if ((fds[i].revents & POLLIN) == 0) continue;
            sockaddr_in peer{};
            socklen_t len = sizeof peer;
            const int fd = ::accept4(fds[i].fd, reinterpret_cast<sockaddr*>(&peer), &len, SOCK_CLOEXEC);
            if (fd < 0) continue; // aborted before we got to it, or out of descriptors for now
            const int one = 1;
            ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
            const bool snmp = fds[i].fd == listenSnmp_;
            std::vector<std::shared_ptr<Conn>> done;
            std::shared_ptr<Conn> conn;
            {
                std::lock_guard<std::mutex> lk(mu_);
                // Readers that have ended are joined here, so a long run
                // with many reconnections does not pile them up.
                auto keep = std::stable_partition(conns_.begin(), conns_.end(),
                                                  [](const std::shared_ptr<Conn>& c) { return !c->finished; });
                done.assign(keep, conns_.end());
                conns_.erase(keep, conns_.end());
                conn = std::make_shared<Conn>(nextConnId_++, fd, snmp ? "SNMP agent" : "PCE process");
                conns_.push_back(conn);
                captureOpened(conn->id, fd); // before its reader records anything
                ++counters_.connections;
                ++events_;
                conn->reader = std::thread(&SwitchSimulator::readLoop, this, conn);
            }
            changed_.notify_all();
            for (auto& c : done) c->reader.join();
            char ip[INET_ADDRSTRLEN] = "?";
            inet_ntop(AF_INET, &peer.sin_addr, ip, sizeof ip);
            std::ostringstream os;
            os << "-- #" << conn->id << " connected to " << conn->service << " port " << (snmp ? boundSnmp_ : boundPce_)
               << " from " << ip << ':' << ntohs(peer.sin_port);
            note(os.str());
        }
    }
}

void SwitchSimulator::readLoop(std::shared_ptr<Conn> conn)
{
    const int fd = conn->fd;
    // Reads whatever has arrived, so that one read (and one captured
    // packet) may hold part of a frame or several frames, as on the wire.
    Bytes in(65536);
    std::size_t have = 0, used = 0;
    auto readExact = [&](std::uint8_t* p, std::size_t n) {
        while (n > 0) {
            if (used == have) {
                const ssize_t r = ::recv(fd, in.data(), in.size(), 0);
                if (r < 0 && errno == EINTR) continue;
                if (r <= 0) return false;
                noteArrival(conn->id, in.data(), std::size_t(r));
                have = std::size_t(r);
                used = 0;
            }
            const std::size_t k = std::min(n, have - used);
            std::memcpy(p, in.data() + used, k);
            used += k;
            p += k;
            n -= k;
        }
        return true;
    };

    std::uint8_t hdr[kCtlSize];
    Bytes body;
    while (readExact(hdr, kCtlSize)) {
        const auto marker = load<std::uint32_t>(hdr, WireOrder::Host);
        WireOrder order = WireOrder::Host;
        if (marker == kTestMarker || marker == reverse32(kTestMarker)) {
            order = marker == kTestMarker ? WireOrder::Host : WireOrder::Reversed;
            const auto manager = load<std::uint32_t>(hdr + 4, order);
            const auto size = load<std::uint32_t>(hdr + 8, order);
            bool first;
            {
                std::lock_guard<std::mutex> lk(mu_);
                ++counters_.linkTests;
                first = !conn->linked;
                conn->linked = true;
                conn->clientOrder = order;
                ++events_;
            }
            changed_.notify_all();
            std::ostringstream os;
            os << "<< #" << conn->id << " TST: link test " << MGR_CLASS(std::int32_t(manager)) << " size=" << size
               << ' ' << orderName(order);
            note(os.str());
            if (first) sendSwitchCommands(conn->id);
            continue;
        }
        if (marker == reverse32(kMsgMarker))
            order = WireOrder::Reversed;
        else if (marker != kMsgMarker) {
            char text[96];
            std::snprintf(text, sizeof text, "!! #%llu not a frame start: marker 0x%08X; closing",
                          static_cast<unsigned long long>(conn->id), unsigned(marker));
            note(text);
            countBadHeader();
            break;
        }
        const std::uint32_t size = load<std::uint32_t>(hdr + 8, order) & kSizeMask;
        if (size < kAppSize || size > kMaxBody) {
            std::ostringstream os;
            os << "!! #" << conn->id << " bad frame size " << size << "; closing";
            note(os.str());
            countBadHeader();
            break;
        }
        body.resize(size);
        if (!readExact(body.data(), size)) break;

        SimFrame f;
        f.conn = conn->id;
        f.order = order;
        f.manager = load<std::uint32_t>(hdr + 4, order);
        f.size = size;
        std::uint32_t* words[] = {&f.msgType, &f.cmdCode, &f.seqNbr, &f.msgStat, &f.srcAddr, &f.appError, &f.appSize};
        for (std::size_t i = 0; i < 7; ++i) *words[i] = load<std::uint32_t>(body.data() + 4 * i, order);
        f.appSize &= kSizeMask;
        f.payload.assign(body.begin() + kAppSize, body.end());
        f.wire.assign(hdr, hdr + kCtlSize);
        f.wire.insert(f.wire.end(), body.begin(), body.end());
        if (f.appSize != size - kAppSize) {
            std::ostringstream os;
            os << "!! #" << conn->id << " appSize " << f.appSize << " disagrees with frame size " << size
               << "; the frame size counts";
            note(os.str());
        }
        if (!handleFrame(conn, f)) break;
    }
    finishConn(conn);
}

void SwitchSimulator::captureOpened(std::uint64_t conn, int fd)
{
    if (!pcap_.isOpen()) return;
    sockaddr_in client{}, server{};
    socklen_t len = sizeof client;
    ::getpeername(fd, reinterpret_cast<sockaddr*>(&client), &len);
    len = sizeof server;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&server), &len);
    pcap_.opened(conn, ntohl(client.sin_addr.s_addr), ntohs(client.sin_port), ntohl(server.sin_addr.s_addr),
                 ntohs(server.sin_port));
}

void SwitchSimulator::noteArrival(std::uint64_t conn, const std::uint8_t* p, std::size_t n)
{
    // Captured before waiters wake, so a waiter that then reads the capture
    // finds these bytes in it.
    pcap_.fromClient(conn, p, n);
    {
        std::lock_guard<std::mutex> lk(mu_);
        if (opts_.record) {
            Bytes& raw = raw_[conn];
            raw.insert(raw.end(), p, p + n);
        }
        ++events_; // waitFor callers may be watching receivedBytes
    }
    changed_.notify_all();
}

void SwitchSimulator::countBadHeader()
{
    {
        std::lock_guard<std::mutex> lk(mu_);
        ++counters_.badHeaders;
        ++events_;
    }
    changed_.notify_all();
}

bool SwitchSimulator::handleFrame(const std::shared_ptr<Conn>& conn, SimFrame& f)
{
    note(describe("<<", f.conn, f.manager, f.msgType, f.cmdCode, f.seqNbr, f.msgStat, f.srcAddr, f.appError,
                  f.payload.size(), f.wire.size(), f.order));
    bool closeNow;
    Responder responder;
    unsigned closeAfter;
    {
        std::lock_guard<std::mutex> lk(mu_);
        ++counters_.framesReceived;
        ++conn->framesIn;
        conn->clientOrder = f.order;
        closeAfter = opts_.faults.closeAfter;
        closeNow = closeAfter != 0 && conn->framesIn >= closeAfter;
        responder = responder_;
        if (opts_.record) received_.push_back(f);
        ++events_;
    }
    changed_.notify_all();
    if (f.isCommand()) {
        if (!(responder && responder(*this, f)) && f.wantsResponse()) answer(f);
    } else {
        handleResponse(f);
    }
    if (closeNow) {
        std::ostringstream os;
        os << "-- #" << conn->id << " closing after " << closeAfter << " frames";
        note(os.str());
    }
    return !closeNow;
}

void SwitchSimulator::handleResponse(const SimFrame& f)
{
    bool matched = false;
    long long ms = 0;
    {
        std::lock_guard<std::mutex> lk(mu_);
        auto it = std::find_if(pending_.begin(), pending_.end(), [&](const Pending& p) {
            return p.conn == f.conn && p.code == f.cmdCode && p.seq == f.seqNbr;
        });
        if (it != pending_.end()) {
            matched = true;
            ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - it->sentAt)
                     .count();
            pending_.erase(it);
            ++counters_.answered;
        } else {
            ++counters_.unexpectedResponses;
        }
        ++events_;
    }
    changed_.notify_all();
    std::ostringstream os;
    if (matched)
        os << "-- #" << f.conn << " answer to " << codeText(f.cmdCode) << " seq=" << f.seqNbr << " came after " << ms
           << " ms";
    else
        os << "!! #" << f.conn << " response to no open command: " << codeText(f.cmdCode) << " seq=" << f.seqNbr;
    note(os.str());
}

void SwitchSimulator::finishConn(const std::shared_ptr<Conn>& conn)
{
    ::shutdown(conn->fd, SHUT_RDWR);
    pcap_.closed(conn->id);
    std::vector<Pending> lost;
    {
        std::lock_guard<std::mutex> lk(mu_);
        conn->open = false;
        conn->finished = true;
        auto keep = std::stable_partition(pending_.begin(), pending_.end(),
                                          [&](const Pending& p) { return p.conn != conn->id; });
        lost.assign(keep, pending_.end());
        pending_.erase(keep, pending_.end());
        counters_.unanswered += lost.size();
        ++events_;
    }
    changed_.notify_all();
    for (const Pending& p : lost)
        note("!! #" + std::to_string(p.conn) + " no answer to " + codeText(p.code) + " seq=" + std::to_string(p.seq) +
             ": connection closed");
    note("-- #" + std::to_string(conn->id) + " connection closed");
}

std::shared_ptr<SwitchSimulator::Conn> SwitchSimulator::findConn(std::uint64_t id) const
{
    std::lock_guard<std::mutex> lk(mu_);
    for (const auto& c : conns_)
        if (c->id == id && c->open) return c;
    return nullptr;
}

WireOrder SwitchSimulator::sendOrder(WireOrder clientOrder) const
{
    return opts_.faults.reverse ? opposite(clientOrder) : clientOrder;
}

std::uint32_t SwitchSimulator::nextSeq()
{
    if (++seq_ == 0) ++seq_; // 0 is never a sequence number
    return seq_;
}

std::uint64_t SwitchSimulator::statsSeconds() const
{
    if (opts_.statsClock) return opts_.statsClock();
    return std::uint64_t(
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - started_).count());
}

bool SwitchSimulator::sendOn(const std::shared_ptr<Conn>& conn, const Bytes& bytes, const OutFrame* frame)
{
    std::lock_guard<std::mutex> sendLock(conn->sendMu);
    pcap_.toClient(conn->id, bytes.data(), bytes.size()); // first, so an answer to it comes later in the file
    if (!writeAll(conn->fd, bytes.data(), bytes.size())) return false;
    {
        std::lock_guard<std::mutex> lk(mu_);
        ++counters_.framesSent;
        if (frame && opts_.record) {
            SimFrame s;
            s.conn = conn->id;
            s.order = frame->order;
            s.manager = frame->manager;
            s.size = kAppSize + std::uint32_t(frame->payload.size());
            s.msgType = frame->msgType;
            s.cmdCode = frame->cmdCode;
            s.seqNbr = frame->seqNbr;
            s.msgStat = frame->msgStat;
            s.srcAddr = frame->srcAddr;
            s.appError = frame->appError;
            s.appSize = std::uint32_t(frame->payload.size());
            s.payload = frame->payload;
            s.wire = bytes;
            sent_.push_back(std::move(s));
        }
        ++events_;
    }
    changed_.notify_all();
    if (frame)
        note(describe(">>", conn->id, frame->manager, frame->msgType, frame->cmdCode, frame->seqNbr, frame->msgStat,
                      frame->srcAddr, frame->appError, frame->payload.size(), bytes.size(), frame->order));
    else
        note(">> #" + std::to_string(conn->id) + " raw " + std::to_string(bytes.size()) + " bytes");
    return true;
}

bool SwitchSimulator::send(std::uint64_t conn, const OutFrame& frame)
{
    auto c = findConn(conn);
    return c && sendOn(c, frame.encode(), &frame);
}

bool SwitchSimulator::sendRaw(std::uint64_t conn, const Bytes& bytes)
{
    auto c = findConn(conn);
    return c && sendOn(c, bytes, nullptr);
}

bool SwitchSimulator::closeConnection(std::uint64_t conn)
{
    auto c = findConn(conn);
    if (!c) return false;
    ::shutdown(c->fd, SHUT_RDWR); // the reader sees the end and finishes the connection
    return true;
}

OutFrame SwitchSimulator::defaultResponse(const SimFrame& cmd) const
{
    OutFrame r;
    r.manager = cmd.manager;
    r.msgType = std::uint32_t(MSG_RESPONSE);
    r.cmdCode = cmd.cmdCode;
    r.seqNbr = cmd.seqNbr;
    r.appError = 0;
    unsigned ports;
    std::uint32_t status = std::uint32_t(RSP_OK);
    {
        std::lock_guard<std::mutex> lk(mu_);
        r.srcAddr = opts_.ownAddr;
        r.order = sendOrder(cmd.order);
        ports = opts_.statsPorts;
        auto it = opts_.status.find(cmd.cmdCode);
        if (it != opts_.status.end()) status = it->second;
    }
    if (cmd.cmdCode == kRawStatsCode && status == std::uint32_t(RSP_OK)) {
        if (cmd.payload.size() < 2) {
            status = std::uint32_t(RSP_INV_CMD);
        } else {
            const auto slot = load<std::uint16_t>(cmd.payload.data(), cmd.order);
            if (slot >= kSlots)
                status = std::uint32_t(RSP_NO_DEVICE);
            else
                r.payload = buildRawStats(slot, ports, statsSeconds(), r.order);
        }
    }
    r.msgStat = status;
    return r;
}

void SwitchSimulator::answer(const SimFrame& cmd)
{
    OutFrame r = defaultResponse(cmd);
    std::shared_ptr<Conn> conn;
    bool drop = false;
    unsigned delayMs = 0;
    {
        std::lock_guard<std::mutex> lk(mu_);
        for (const auto& c : conns_)
            if (c->id == cmd.conn && c->open) conn = c;
        if (!conn) return;
        ++conn->answers;
        drop = opts_.faults.dropEvery != 0 && conn->answers % opts_.faults.dropEvery == 0;
        delayMs = opts_.faults.delayMs;
        if (drop) {
            ++counters_.answersDropped;
            ++events_;
        } else if (delayMs != 0) {
            delayed_.push_back({std::chrono::steady_clock::now() + std::chrono::milliseconds(delayMs), cmd.conn, r});
        }
    }
    if (drop) {
        changed_.notify_all();
        note("-- #" + std::to_string(cmd.conn) + " dropped the answer to " + codeText(cmd.cmdCode) +
             " seq=" + std::to_string(cmd.seqNbr));
        return;
    }
    if (delayMs != 0) {
        schedWake_.notify_all();
        return;
    }
    sendOn(conn, r.encode(), &r);
}

std::uint32_t SwitchSimulator::sendCommand(std::uint64_t conn, std::uint32_t code, const Bytes& payload, bool rspReq)
{
    auto c = findConn(conn);
    if (!c) return 0;
    OutFrame f;
    f.manager = code / 10000;
    f.msgType = std::uint32_t(MSG_COMMAND);
    f.cmdCode = code;
    f.msgStat = rspReq ? std::uint32_t(CMD_WITH_RSP) : std::uint32_t(CMD_WITHOUT_RSP);
    f.payload = payload;
    {
        std::lock_guard<std::mutex> lk(mu_);
        f.srcAddr = opts_.ownAddr;
        f.order = sendOrder(c->clientOrder);
        f.seqNbr = nextSeq();
        // Registered before the send: the answer may beat us back.
        if (rspReq) {
            pending_.push_back({conn, code, f.seqNbr, std::chrono::steady_clock::now()});
            ++counters_.commandsSent;
        }
    }
    schedWake_.notify_all();
    if (sendOn(c, f.encode(), &f)) return f.seqNbr;
    std::lock_guard<std::mutex> lk(mu_);
    auto it = std::find_if(pending_.begin(), pending_.end(),
                           [&](const Pending& p) { return p.conn == conn && p.seq == f.seqNbr; });
    if (it != pending_.end()) {
        pending_.erase(it);
        --counters_.commandsSent;
    }
    return 0;
}

void SwitchSimulator::sendSwitchCommands(std::uint64_t conn)
{
    for (const SwitchCommand& c : opts_.sends) sendCommand(conn, c.code, c.payload, c.rspReq);
}

void SwitchSimulator::schedulerLoop()
{
    using Clock = std::chrono::steady_clock;
    const auto hb = std::chrono::milliseconds(opts_.heartbeatMs);
    const auto every = std::chrono::milliseconds(opts_.sendEveryMs);
    const auto answerTimeout = std::chrono::milliseconds(opts_.answerTimeoutMs);
    auto nextHb = started_ + hb;
    auto nextSend = started_ + every;

    std::unique_lock<std::mutex> lk(mu_);
    while (!stopping_) {
        const auto now = Clock::now();
        std::vector<Delayed> due;
        while (!delayed_.empty() && delayed_.front().due <= now) {
            due.push_back(std::move(delayed_.front()));
            delayed_.pop_front();
        }
        std::vector<std::uint64_t> linked;
        for (const auto& c : conns_)
            if (c->open && c->linked) linked.push_back(c->id);
        const bool beat = hb.count() != 0 && now >= nextHb;
        if (beat) nextHb = nextHb + hb > now ? nextHb + hb : now + hb; // skip beats missed while busy
        const bool resend = every.count() != 0 && !opts_.sends.empty() && now >= nextSend;
        if (resend) nextSend = nextSend + every > now ? nextSend + every : now + every;
        std::vector<Pending> late;
        auto keep = std::stable_partition(pending_.begin(), pending_.end(),
                                          [&](const Pending& p) { return now < p.sentAt + answerTimeout; });
        late.assign(keep, pending_.end());
        pending_.erase(keep, pending_.end());
        counters_.unanswered += late.size();

        if (!due.empty() || beat || resend || !late.empty()) {
            ++events_;
            lk.unlock();
            changed_.notify_all();
            for (const Pending& p : late)
                note("!! #" + std::to_string(p.conn) + " no answer to " + codeText(p.code) +
                     " seq=" + std::to_string(p.seq) + " within " + std::to_string(opts_.answerTimeoutMs) + " ms");
            for (Delayed& d : due) send(d.conn, d.frame);
            for (std::uint64_t id : linked) {
                if (beat) sendCommand(id, kHeartbeatCode, {}, true);
                if (resend) sendSwitchCommands(id);
            }
            lk.lock();
            continue;
        }

        auto wake = Clock::time_point::max();
        if (!delayed_.empty()) wake = std::min(wake, delayed_.front().due);
        if (hb.count() != 0) wake = std::min(wake, nextHb);
        if (every.count() != 0 && !opts_.sends.empty()) wake = std::min(wake, nextSend);
        for (const Pending& p : pending_) wake = std::min(wake, p.sentAt + answerTimeout);
        if (wake == Clock::time_point::max())
            schedWake_.wait(lk);
        else
            schedWake_.wait_until(lk, wake);
    }
}

Counters SwitchSimulator::counters() const
{
    std::lock_guard<std::mutex> lk(mu_);
    return counters_;
}

std::vector<SimFrame> SwitchSimulator::receivedFrames() const
{
    std::lock_guard<std::mutex> lk(mu_);
    return received_;
}

std::vector<SimFrame> SwitchSimulator::sentFrames() const
{
    std::lock_guard<std::mutex> lk(mu_);
    return sent_;
}

Bytes SwitchSimulator::receivedBytes(std::uint64_t conn) const
{
    std::lock_guard<std::mutex> lk(mu_);
    auto it = raw_.find(conn);
    return it == raw_.end() ? Bytes{} : it->second;
}

std::vector<std::uint64_t> SwitchSimulator::openConnections() const
{
    std::lock_guard<std::mutex> lk(mu_);
    std::vector<std::uint64_t> ids;
    for (const auto& c : conns_)
        if (c->open) ids.push_back(c->id);
    return ids;
}

bool SwitchSimulator::waitFor(const std::function<bool()>& pred, std::chrono::milliseconds timeout) const
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (true) {
        std::uint64_t seen;
        {
            std::lock_guard<std::mutex> lk(mu_);
            seen = events_;
        }
        // Evaluated unlocked: the predicate may call the accessors above.
        if (pred()) return true;
        std::unique_lock<std::mutex> lk(mu_);
        if (!changed_.wait_until(lk, deadline, [&] { return events_ != seen; })) {
            lk.unlock();
            return pred();
        }
    }
}

bool SwitchSimulator::waitForFrames(std::size_t n, std::chrono::milliseconds timeout) const
{
    return waitFor([&] { return counters().framesReceived >= n; }, timeout);
}

bool SwitchSimulator::waitForConnections(std::size_t n, std::chrono::milliseconds timeout) const
{
    return waitFor([&] { return openConnections().size() >= n; }, timeout);
}

bool SwitchSimulator::waitForLinkTests(std::size_t n, std::chrono::milliseconds timeout) const
{
    return waitFor([&] { return counters().linkTests >= n; }, timeout);
}

void SwitchSimulator::setStatus(std::uint32_t code, std::uint32_t status)
{
    std::lock_guard<std::mutex> lk(mu_);
    opts_.status[code] = status;
}

void SwitchSimulator::clearStatus(std::uint32_t code)
{
    std::lock_guard<std::mutex> lk(mu_);
    opts_.status.erase(code);
}

void SwitchSimulator::setFaults(const Faults& faults)
{
    std::lock_guard<std::mutex> lk(mu_);
    opts_.faults = faults;
}

void SwitchSimulator::setResponder(Responder responder)
{
    std::lock_guard<std::mutex> lk(mu_);
    responder_ = std::move(responder);
}

bool SwitchSimulator::statsLinkUp(std::uint16_t slot, unsigned port)
{
    return (slot + port) % 4 != 3;
}

std::uint32_t SwitchSimulator::statsSpeedMbps(std::uint16_t slot, unsigned port)
{
    static const std::uint32_t kSpeeds[] = {1000, 10000, 25000, 100000};
    return kSpeeds[(3u * slot + port) % 4];
}

std::uint64_t SwitchSimulator::statsCounter(std::uint16_t slot, unsigned port, unsigned index, bool tx,
                                            std::uint64_t seconds)
{
    const std::uint64_t h =
        splitmix64((std::uint64_t(slot) << 40) ^ (std::uint64_t(port) << 20) ^ (std::uint64_t(index) << 1) ^ tx);
    const std::uint64_t base = h % 1000000;
    const std::uint64_t rate = statsLinkUp(slot, port) ? 1 + (h >> 32) % 100000 : 0;
    return base + rate * seconds;
}

Bytes SwitchSimulator::buildRawStats(std::uint16_t slot, unsigned ports, std::uint64_t seconds, WireOrder order)
{
    if (ports > 0xFFFF) ports = 0xFFFF;
    Bytes out;
    out.reserve(kStatsHeadSize + std::size_t{ports} * kStatsEntrySize);
    put(out, std::uint16_t(ports), order);
    put(out, slot, order);
    put(out, std::uint16_t(1), order); // format version
    for (unsigned port = 1; port <= ports; ++port) {
        put(out, std::uint16_t(port), order);
        out.push_back(statsLinkUp(slot, port) ? 1 : 0);
        put(out, statsSpeedMbps(slot, port), order);
        for (bool tx : {false, true})
            for (unsigned i = 0; i < kStatsCounters; ++i) put(out, statsCounter(slot, port, i, tx, seconds), order);
    }
    return out;
}

} // namespace switchsim
