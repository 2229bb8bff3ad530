// Throughput of the frame reader (GetOrvMessage) and the chain writer
// (SendBD) over loopback TCP, each against a plain recv/send loop moving the
// same bytes, for 40-byte, 64 KiB and 2.5 MB frames. Run it pinned:
//   taskset -c 0 ./FrameTransferBench
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "support/PlainSocketIo.h"

#include "Common/OS/OsSocket.h"
#include "Cr/CrOrvMsg.h"

namespace {

// Two connected blocking loopback descriptors: a (accepted) and b (connected).
bool tcpPair(int& a, int& b)
{
    const int l = ::socket(AF_INET, SOCK_STREAM, 0);
    if (l < 0) return false;
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (::bind(l, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || ::listen(l, 1) != 0 ||
        ::getsockname(l, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        ::close(l);
        return false;
    }
    b = ::socket(AF_INET, SOCK_STREAM, 0);
    if (::connect(b, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        ::close(l);
        return false;
    }
    a = ::accept(l, nullptr, nullptr);
    ::close(l);
    return a >= 0;
}

// A whole frame, host order: control header, application header, payload.
std::string makeFrame(std::uint32_t payload)
{
    std::string f(12 + 28 + payload, '\0');
    ORV_CTL_MSG ctl(ORV_MSG_MARKER, MGR_CONN);
    ctl.setSize(28 + payload);
    ORV_APP_MSG app;
    app.msgType = static_cast<std::uint32_t>(MSG_COMMAND);
    app.cmdCode = CMD_CONN_PORT;
    app.setAppSize(payload);
    std::memcpy(&f[0], &ctl, 12);
    std::memcpy(&f[12], &app, 28);
    for (std::uint32_t i = 0; i < payload; ++i) f[40 + i] = static_cast<char>(i * 7);
    return f;
}

bool recvAll(int fd, char* p, std::size_t n)
{
    while (n > 0) {
        const ssize_t k = ::recv(fd, p, n, 0);
        if (k < 0 && errno == EINTR) continue;
        if (k <= 0) return false;
        p += k;
        n -= static_cast<std::size_t>(k);
    }
    return true;
}

// A peer that writes whole frames until the connection goes away.
class FrameSource {
public:
    FrameSource(int fd, const std::string& frame)
        : thread([fd, &frame] {
              while (writeAll(fd, frame.data(), frame.size())) {
              }
          })
    {
    }
    ~FrameSource() { thread.join(); }

private:
    std::thread thread;
};

// A peer that reads and discards until the connection goes away.
class Sink {
public:
    explicit Sink(int fd)
        : thread([fd] {
              std::vector<char> buf(1 << 20);
              while (::recv(fd, buf.data(), buf.size(), 0) > 0) {
              }
          })
    {
    }
    ~Sink() { thread.join(); }

private:
    std::thread thread;
};

void BM_GetOrvMessage(benchmark::State& state)
{
    const auto payload = static_cast<std::uint32_t>(state.range(0));
    const std::string frame = makeFrame(payload);
    int a = -1, b = -1;
    if (!tcpPair(a, b)) return state.SkipWithError("no loopback connection");
    std::vector<char> body(MAX_TCP_MSG_SIZE);
    {
        OsSocket reader;
        reader.SetSocket(a);
        FrameSource source(b, frame);
        ORV_CTL_MSG ctl;
        for (auto _ : state) {
            if (!reader.GetOrvMessage(&ctl, reinterpret_cast<ORV_APP_MSG*>(body.data()), MAX_TCP_MSG_SIZE)) {
                state.SkipWithError("read failed");
                break;
            }
            benchmark::DoNotOptimize(body.data());
        }
        reader.Close(); // ends the source
    }
    ::close(b);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(frame.size()));
}

void BM_PlainRecv(benchmark::State& state)
{
    const auto payload = static_cast<std::uint32_t>(state.range(0));
    const std::string frame = makeFrame(payload);
    int a = -1, b = -1;
    if (!tcpPair(a, b)) return state.SkipWithError("no loopback connection");
    std::vector<char> buf(frame.size());
    {
        FrameSource source(b, frame);
        for (auto _ : state) {
            if (!recvAll(a, buf.data(), buf.size())) {
                state.SkipWithError("recv failed");
                break;
            }
            benchmark::DoNotOptimize(buf.data());
        }
        ::close(a); // resets the connection: ends the source
    }
    ::close(b);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(frame.size()));
}

void BM_SendBD(benchmark::State& state)
{
    const auto payload = static_cast<std::uint32_t>(state.range(0));
    std::string frame = makeFrame(payload);
    int a = -1, b = -1;
    if (!tcpPair(a, b)) return state.SkipWithError("no loopback connection");
    {
        Sink sink(a);
        OsSocket writer;
        writer.SetSocket(b);
        // The router's three-descriptor chain.
        TCP_BD bd3{&frame[40], static_cast<std::int32_t>(payload), nullptr};
        TCP_BD bd2{&frame[12], 28, payload ? &bd3 : nullptr};
        TCP_BD bd1{&frame[0], 12, &bd2};
        for (auto _ : state) {
            if (!writer.SendBD(&bd1)) {
                state.SkipWithError("send failed");
                break;
            }
        }
        writer.Close(); // ends the sink
    }
    ::close(a);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(frame.size()));
}

void BM_PlainSend(benchmark::State& state)
{
    const auto payload = static_cast<std::uint32_t>(state.range(0));
    const std::string frame = makeFrame(payload);
    int a = -1, b = -1;
    if (!tcpPair(a, b)) return state.SkipWithError("no loopback connection");
    {
        Sink sink(a);
        for (auto _ : state) {
            if (!writeAll(b, frame.data(), frame.size())) {
                state.SkipWithError("send failed");
                break;
            }
        }
        ::shutdown(b, SHUT_RDWR);
    }
    ::close(a);
    ::close(b);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(frame.size()));
}

// Payload bytes: a 40-byte frame (headers only), 64 KiB and 2.5 MB frames.
void sizes(benchmark::internal::Benchmark* b)
{
    b->Arg(0)->Arg(64 * 1024 - 40)->Arg(2500000 - 40)->UseRealTime();
}

BENCHMARK(BM_GetOrvMessage)->Apply(sizes);
BENCHMARK(BM_PlainRecv)->Apply(sizes);
BENCHMARK(BM_SendBD)->Apply(sizes);
BENCHMARK(BM_PlainSend)->Apply(sizes);

} // namespace

BENCHMARK_MAIN();
