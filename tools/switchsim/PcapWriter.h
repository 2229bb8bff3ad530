#pragma once

// Writes what the simulator reads and sends as a classic pcap file of
// TCP/IPv4 packets (link type "raw IP"), so that a packet analyser can follow
// the conversation: each connection opens with a three-way handshake, every
// read or write becomes one or more data segments with consistent sequence
// and acknowledgement numbers, and a close ends with FIN segments. The
// stream is rebuilt from the bytes the simulator handled, not captured from
// the network.

#include <cstdint>
#include <cstdio>
#include <map>
#include <mutex>
#include <string>

namespace switchsim {

class PcapWriter {
public:
    // Largest TCP payload of one packet on loopback (65535 minus 40 header bytes).
    static constexpr unsigned kMaxSegment = 65495;

    PcapWriter() = default;
    ~PcapWriter();
    PcapWriter(const PcapWriter&) = delete;
    PcapWriter& operator=(const PcapWriter&) = delete;

    // Creates or truncates `path` and writes the file header. `maxSegment`
    // caps the payload of one packet (0 or more than kMaxSegment: kMaxSegment).
    bool open(const std::string& path, unsigned maxSegment, std::string* error);
    void close();
    bool isOpen() const;

    // Addresses and ports in host order.
    void opened(std::uint64_t conn, std::uint32_t clientIp, std::uint16_t clientPort, std::uint32_t serverIp,
                std::uint16_t serverPort);
    void fromClient(std::uint64_t conn, const std::uint8_t* data, std::size_t size);
    void toClient(std::uint64_t conn, const std::uint8_t* data, std::size_t size);
    void closed(std::uint64_t conn);

private:
    struct Side {
        std::uint32_t ip = 0;
        std::uint16_t port = 0;
        std::uint32_t seq = 0; // next sequence number this side sends
    };
    struct Stream {
        Side client, server;
    };

    void data(std::uint64_t conn, bool fromClientSide, const std::uint8_t* data, std::size_t size);
    void packet(const Side& from, const Side& to, std::uint8_t flags, const std::uint8_t* payload, std::size_t size);

    mutable std::mutex mu_;
    std::string path_;
    std::FILE* file_ = nullptr; // closed, with a line on stderr, when a write fails
    unsigned maxSegment_ = kMaxSegment;
    std::uint16_t ipId_ = 1;
    std::map<std::uint64_t, Stream> streams_;
};

} // namespace switchsim
