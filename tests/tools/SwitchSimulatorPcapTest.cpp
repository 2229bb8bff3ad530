// The simulator's capture file, read back byte by byte: a packet analyser
// rebuilds the TCP streams only if the handshake, sequence and acknowledgement
// numbers and checksums hold together, on hosts of either byte order.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "PcapWriter.h"
#include "TestSupport.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

std::uint32_t net(const std::uint8_t* p, unsigned width)
{
    std::uint32_t v = 0;
    for (unsigned i = 0; i < width; ++i) v = v << 8 | p[i];
    return v;
}

template <typename T>
T hostWord(const std::uint8_t* p)
{
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// The ones' complement sum over a block that holds its own checksum is 0xFFFF.
bool checksumHolds(const std::uint8_t* p, std::size_t n, std::uint32_t sum = 0)
{
    for (std::size_t i = 0; i + 1 < n; i += 2) sum += net(p + i, 2);
    if (n % 2) sum += std::uint32_t(p[n - 1]) << 8;
    while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
    return sum == 0xFFFF;
}

struct Packet {
    std::uint32_t src, dst, seq, ack;
    std::uint16_t sport, dport;
    std::uint8_t flags;
    Bytes payload;
};

std::vector<Packet> readCapture(const std::string& path)
{
    const std::string file = tavro_test::readFile(path);
    const auto* d = reinterpret_cast<const std::uint8_t*>(file.data());
    std::vector<Packet> out;
    if (file.size() < 24) {
        ADD_FAILURE() << "no file header";
        return out;
    }
    EXPECT_EQ(hostWord<std::uint32_t>(d), 0xA1B2C3D4u);
    EXPECT_EQ(hostWord<std::uint32_t>(d + 20), 101u) << "raw IPv4 link type";
    for (std::size_t at = 24; at < file.size();) {
        const auto len = hostWord<std::uint32_t>(d + at + 8);
        const std::uint8_t* ip = d + at + 16;
        at += 16 + len;
        if (at > file.size() || len < 40) {
            ADD_FAILURE() << "truncated packet";
            break;
        }
        EXPECT_EQ(net(ip + 2, 2), len);
        EXPECT_TRUE(checksumHolds(ip, 20)) << "IPv4 header checksum";
        // TCP checksum over the pseudo header and the segment.
        const std::uint32_t pseudo =
            net(ip + 12, 2) + net(ip + 14, 2) + net(ip + 16, 2) + net(ip + 18, 2) + 6 + (len - 20);
        EXPECT_TRUE(checksumHolds(ip + 20, len - 20, pseudo)) << "TCP checksum";
        out.push_back({net(ip + 12, 4), net(ip + 16, 4), net(ip + 24, 4), net(ip + 28, 4),
                       std::uint16_t(net(ip + 20, 2)), std::uint16_t(net(ip + 22, 2)), ip[33],
                       Bytes(ip + 40, ip + len)});
    }
    return out;
}

TEST(SwitchSimulatorPcap, ConnectionsReadBackAsConsistentTcpStreams)
{
    tavro_test::ScopedTempDir dir;
    switchsim::PcapWriter w;
    std::string error;
    ASSERT_TRUE(w.open("c.pcap", 1000, &error)) << error;
    const std::uint32_t client = 0x7F000001, server = 0x7F000002;
    Bytes big(2500);
    for (std::size_t i = 0; i < big.size(); ++i) big[i] = std::uint8_t(i * 7);
    w.opened(1, client, 40000, server, 58992);
    w.fromClient(1, big.data(), 5);
    w.toClient(1, big.data(), big.size());
    w.toClient(7, big.data(), 3); // no such connection: nothing written
    w.fromClient(1, big.data() + 5, 12);
    w.closed(1);
    w.close();

    const std::vector<Packet> p = readCapture("c.pcap");
    enum : std::uint8_t { FIN = 1, SYN = 2, PSH = 8, ACK = 16 };
    const struct {
        bool fromClient;
        std::uint8_t flags;
        std::size_t bytes;
    } want[] = {
        {true, SYN, 0},           {false, SYN | ACK, 0},    {true, ACK, 0},          {true, PSH | ACK, 5},
        {false, PSH | ACK, 1000}, {false, PSH | ACK, 1000}, {false, PSH | ACK, 500}, {true, PSH | ACK, 12},
        {false, FIN | ACK, 0},    {true, FIN | ACK, 0},     {false, ACK, 0},
    };
    ASSERT_EQ(p.size(), std::size(want));

    // Each side's next sequence number, walked through the stream.
    std::uint32_t next[2] = {p[0].seq, p[1].seq};
    Bytes toClient;
    for (std::size_t i = 0; i < p.size(); ++i) {
        SCOPED_TRACE("packet " + std::to_string(i));
        const bool c = want[i].fromClient;
        EXPECT_EQ(p[i].flags, want[i].flags);
        EXPECT_EQ(p[i].payload.size(), want[i].bytes);
        EXPECT_EQ(p[i].src, c ? client : server);
        EXPECT_EQ(p[i].dst, c ? server : client);
        EXPECT_EQ(p[i].sport, c ? 40000 : 58992);
        EXPECT_EQ(p[i].dport, c ? 58992 : 40000);
        EXPECT_EQ(p[i].seq, next[!c]);
        EXPECT_EQ(p[i].ack, (p[i].flags & ACK) ? next[c] : 0u);
        next[!c] += std::uint32_t(p[i].payload.size()) + ((p[i].flags & (SYN | FIN)) ? 1 : 0);
        if (!c) toClient.insert(toClient.end(), p[i].payload.begin(), p[i].payload.end());
    }
    EXPECT_EQ(toClient, big);
    EXPECT_EQ(p[7].payload, Bytes(big.begin() + 5, big.begin() + 17));
}

TEST(SwitchSimulatorPcap, AnUnwritableFileIsReported)
{
    switchsim::PcapWriter w;
    std::string error;
    EXPECT_FALSE(w.open("/nonexistent-dir/x.pcap", 0, &error));
    EXPECT_NE(error.find("/nonexistent-dir/x.pcap"), std::string::npos) << error;
    EXPECT_FALSE(w.isOpen());
}

} // namespace
