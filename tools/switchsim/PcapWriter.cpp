#include "PcapWriter.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <vector>

namespace switchsim {

namespace {

constexpr std::uint32_t kLinkTypeRaw = 101; // packets start with the IPv4 header
constexpr std::uint32_t kSnapLen = 262144;
constexpr std::uint8_t kFin = 0x01, kSyn = 0x02, kPsh = 0x08, kAck = 0x10;

// The file's own headers are in this host's order (readers tell by the
// magic number); packet headers are in network order.
template <typename T>
void putHost(std::vector<std::uint8_t>& out, T v)
{
    std::uint8_t b[sizeof(T)];
    std::memcpy(b, &v, sizeof(T));
    out.insert(out.end(), b, b + sizeof(T));
}

void putNet(std::vector<std::uint8_t>& out, std::uint32_t v, unsigned width)
{
    for (unsigned i = width; i-- > 0;) out.push_back(std::uint8_t(v >> (8 * i)));
}

std::uint32_t sum16(const std::uint8_t* p, std::size_t n, std::uint32_t sum = 0)
{
    for (std::size_t i = 0; i + 1 < n; i += 2) sum += std::uint32_t(p[i]) << 8 | p[i + 1];
    if (n % 2) sum += std::uint32_t(p[n - 1]) << 8;
    return sum;
}

std::uint16_t fold(std::uint32_t sum)
{
    while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
    return std::uint16_t(~sum);
}

// Distinct, reproducible initial sequence numbers per connection and side.
std::uint32_t initialSeq(std::uint64_t conn, bool client)
{
    return std::uint32_t(0x1A2B0000u + conn * 0x01000193u + (client ? 0 : 0x40000000u));
}

} // namespace

PcapWriter::~PcapWriter()
{
    close();
}

bool PcapWriter::open(const std::string& path, unsigned maxSegment, std::string* error)
{
    std::lock_guard<std::mutex> lk(mu_);
    if (file_) std::fclose(file_);
    streams_.clear();
    maxSegment_ = maxSegment == 0 || maxSegment > kMaxSegment ? kMaxSegment : maxSegment;
    path_ = path;
    file_ = std::fopen(path.c_str(), "wb");
    if (!file_) {
        if (error) *error = "cannot write " + path + ": " + std::strerror(errno);
        return false;
    }
    std::vector<std::uint8_t> h;
    putHost<std::uint32_t>(h, 0xA1B2C3D4u); // microsecond time stamps
    putHost<std::uint16_t>(h, 2);
    putHost<std::uint16_t>(h, 4);
    putHost<std::int32_t>(h, 0);
    putHost<std::uint32_t>(h, 0);
    putHost<std::uint32_t>(h, kSnapLen);
    putHost<std::uint32_t>(h, kLinkTypeRaw);
    if (std::fwrite(h.data(), 1, h.size(), file_) != h.size() || std::fflush(file_) != 0) {
        if (error) *error = "cannot write " + path + ": " + std::strerror(errno);
        std::fclose(file_);
        file_ = nullptr;
        return false;
    }
    return true;
}

void PcapWriter::close()
{
    std::lock_guard<std::mutex> lk(mu_);
    if (file_) std::fclose(file_);
    file_ = nullptr;
    streams_.clear();
}

bool PcapWriter::isOpen() const
{
    std::lock_guard<std::mutex> lk(mu_);
    return file_ != nullptr;
}

void PcapWriter::opened(std::uint64_t conn, std::uint32_t clientIp, std::uint16_t clientPort, std::uint32_t serverIp,
                        std::uint16_t serverPort)
{
    std::lock_guard<std::mutex> lk(mu_);
    if (!file_) return;
    Stream& s = streams_[conn];
    s.client = {clientIp, clientPort, initialSeq(conn, true)};
    s.server = {serverIp, serverPort, initialSeq(conn, false)};
    packet(s.client, s.server, kSyn, nullptr, 0);
    ++s.client.seq;
    packet(s.server, s.client, kSyn | kAck, nullptr, 0);
    ++s.server.seq;
    packet(s.client, s.server, kAck, nullptr, 0);
}

void PcapWriter::fromClient(std::uint64_t conn, const std::uint8_t* bytes, std::size_t size)
{
    data(conn, true, bytes, size);
}

void PcapWriter::toClient(std::uint64_t conn, const std::uint8_t* bytes, std::size_t size)
{
    data(conn, false, bytes, size);
}

void PcapWriter::data(std::uint64_t conn, bool fromClientSide, const std::uint8_t* bytes, std::size_t size)
{
    std::lock_guard<std::mutex> lk(mu_);
    auto it = streams_.find(conn);
    if (!file_ || it == streams_.end()) return;
    Side& from = fromClientSide ? it->second.client : it->second.server;
    const Side& to = fromClientSide ? it->second.server : it->second.client;
    while (size > 0) {
        const std::size_t n = size < maxSegment_ ? size : maxSegment_;
        packet(from, to, kPsh | kAck, bytes, n);
        from.seq += std::uint32_t(n);
        bytes += n;
        size -= n;
    }
}

void PcapWriter::closed(std::uint64_t conn)
{
    std::lock_guard<std::mutex> lk(mu_);
    auto it = streams_.find(conn);
    if (!file_ || it == streams_.end()) return;
    Stream& s = it->second;
    packet(s.server, s.client, kFin | kAck, nullptr, 0);
    ++s.server.seq;
    packet(s.client, s.server, kFin | kAck, nullptr, 0);
    ++s.client.seq;
    packet(s.server, s.client, kAck, nullptr, 0);
    streams_.erase(it);
}

void PcapWriter::packet(const Side& from, const Side& to, std::uint8_t flags, const std::uint8_t* payload,
                        std::size_t size)
{
    std::vector<std::uint8_t> p;
    p.reserve(40 + size);
    // IPv4 header, no options, don't-fragment.
    putNet(p, 0x4500, 2);
    putNet(p, std::uint32_t(40 + size), 2);
    putNet(p, ipId_++, 2);
    putNet(p, 0x4000, 2);
    putNet(p, 64 << 8 | 6, 2); // TTL, TCP
    putNet(p, 0, 2);
    putNet(p, from.ip, 4);
    putNet(p, to.ip, 4);
    const std::uint16_t ipSum = fold(sum16(p.data(), 20));
    p[10] = std::uint8_t(ipSum >> 8);
    p[11] = std::uint8_t(ipSum);
    // TCP header, no options. Every segment but the first SYN acknowledges
    // all the other side has sent.
    putNet(p, from.port, 2);
    putNet(p, to.port, 2);
    putNet(p, from.seq, 4);
    putNet(p, (flags & kAck) ? to.seq : 0, 4);
    putNet(p, 5 << 12 | flags, 2);
    putNet(p, 0xFFFF, 2); // window
    putNet(p, 0, 2);
    putNet(p, 0, 2);
    if (size) p.insert(p.end(), payload, payload + size);
    // Checksum over the pseudo header (addresses, protocol, TCP length) and the segment.
    std::uint8_t pseudo[12];
    for (int i = 0; i < 8; ++i) pseudo[i] = p[12 + i];
    pseudo[8] = 0;
    pseudo[9] = 6;
    pseudo[10] = std::uint8_t((20 + size) >> 8);
    pseudo[11] = std::uint8_t(20 + size);
    const std::uint16_t tcpSum = fold(sum16(p.data() + 20, p.size() - 20, sum16(pseudo, sizeof pseudo)));
    p[36] = std::uint8_t(tcpSum >> 8);
    p[37] = std::uint8_t(tcpSum);

    const auto now =
        std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
            .count();
    std::vector<std::uint8_t> rec;
    putHost<std::uint32_t>(rec, std::uint32_t(now / 1000000));
    putHost<std::uint32_t>(rec, std::uint32_t(now % 1000000));
    putHost<std::uint32_t>(rec, std::uint32_t(p.size()));
    putHost<std::uint32_t>(rec, std::uint32_t(p.size()));
    // Flushed per packet: the file is readable while the simulator runs.
    if (std::fwrite(rec.data(), 1, rec.size(), file_) != rec.size() ||
        std::fwrite(p.data(), 1, p.size(), file_) != p.size() || std::fflush(file_) != 0) {
        std::fprintf(stderr, "capture stopped: cannot write %s: %s\n", path_.c_str(), std::strerror(errno));
        std::fclose(file_);
        file_ = nullptr;
    }
}

} // namespace switchsim
