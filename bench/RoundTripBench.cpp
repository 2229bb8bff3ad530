// A command with its response through the whole library (tracker, router,
// session, socket reader) against a raw TCP ping-pong of the same frames,
// both served by one minimal in-process responder that answers every frame
// at once, and against the raw client behind three thread hand-offs like the
// library's (the floor of its design), and behind four (the caller is also
// released once its frame is sent, as Dispatch is). Figures per iteration: median and p99
// round trip (manual timing), commands per second; 8 application threads
// sending at once; 64 KiB and 2.5 MB payloads echoed back; resident memory
// across 1 million commands. tools/bench.sh runs it with the other baselines.
// Run it pinned, from any directory (it works in a temporary one):
//   taskset -c 0 ./RoundTripBench
//   taskset -c 0 ./RoundTripBench --benchmark_filter=Rss   (the memory run only)
// The library connects once per process; its first connection waits 2 s.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "RoundTripTiming.h"
#include "Common/OS/Linux/OSAL.h"
#include "Cr/CrDBCmd.h"
#include "Cr/CrOrvMsg.h"
#include "Io/IoDBClient.h"
#include "Os/TAVRO.h"

namespace {

using Clock = bench_timing::Clock;

// The responder echoes the payload of kEcho commands and answers kShort
// commands with none.
constexpr COMMAND_CODE kEcho = CMD_CONN_INIT;
constexpr COMMAND_CODE kShort = CMD_CONN_PORT;
constexpr std::uint32_t kHdr = sizeof(ORV_CTL_MSG) + sizeof(ORV_APP_MSG); // 40
constexpr std::uint32_t k64K = 64 * 1024;
constexpr std::uint32_t k2_5M = 2500000;

struct FrameHeader {
    ORV_CTL_MSG ctl;
    ORV_APP_MSG app;
};
static_assert(sizeof(FrameHeader) == kHdr, "frame header");

FrameHeader header(MSG_TYPE type, COMMAND_CODE code, std::uint32_t seq, std::uint32_t payload)
{
    FrameHeader h;
    h.ctl = ORV_CTL_MSG(ORV_MSG_MARKER, MGR_CLASS(code / 10000));
    h.ctl.setSize(sizeof(ORV_APP_MSG) + payload);
    h.app.msgType = std::uint32_t(type);
    h.app.cmdCode = std::uint32_t(code);
    h.app.seqNbr = seq;
    h.app.srcAddr = 1;
    h.app.setAppSize(payload);
    return h;
}

bool sendIov(int fd, iovec* iov, int n)
{
    while (n > 0) {
        msghdr m{};
        m.msg_iov = iov;
        m.msg_iovlen = std::size_t(n);
        ssize_t k = ::sendmsg(fd, &m, MSG_NOSIGNAL);
        if (k < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        while (n > 0 && std::size_t(k) >= iov->iov_len) {
            k -= ssize_t(iov->iov_len);
            ++iov;
            --n;
        }
        if (n > 0) {
            iov->iov_base = static_cast<char*>(iov->iov_base) + k;
            iov->iov_len -= std::size_t(k);
        }
    }
    return true;
}

// Answers every complete frame in what one recv brought, with one sendmsg,
// payloads echoed straight from the receive buffer. One thread per
// connection: the library's session and each raw client get their own.
class Responder {
public:
    bool start()
    {
        listenFd_ = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof a;
        if (listenFd_ < 0 || ::bind(listenFd_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
            ::listen(listenFd_, 16) != 0 || ::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&a), &len) != 0)
            return false;
        port_ = ntohs(a.sin_port);
        acceptor_ = std::thread([this] { acceptLoop(); });
        return true;
    }
    void stop()
    {
        if (listenFd_ < 0) return;
        ::shutdown(listenFd_, SHUT_RDWR);
        acceptor_.join();
        ::close(listenFd_);
        listenFd_ = -1;
        std::lock_guard<std::mutex> lk(mu_);
        for (int fd : fds_) ::shutdown(fd, SHUT_RDWR);
        for (auto& t : threads_) t.join();
        for (int fd : fds_) ::close(fd);
    }
    unsigned short port() const { return port_; }

private:
    void acceptLoop()
    {
        for (;;) {
            const int fd = ::accept(listenFd_, nullptr, nullptr);
            if (fd < 0) {
                if (errno == EINTR || errno == ECONNABORTED) continue;
                return;
            }
            const int one = 1;
            ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
            std::lock_guard<std::mutex> lk(mu_);
            fds_.push_back(fd);
            threads_.emplace_back([this, fd] { serve(fd); });
        }
    }

    static void serve(int fd)
    {
        std::vector<char> in(1 << 18);
        std::size_t have = 0;
        std::vector<FrameHeader> heads;
        std::vector<iovec> iov;
        for (;;) {
            const ssize_t k = ::recv(fd, in.data() + have, in.size() - have, 0);
            if (k < 0 && errno == EINTR) continue;
            if (k <= 0) return;
            have += std::size_t(k);
            std::size_t at = 0;
            heads.clear();
            iov.clear();
            std::vector<std::pair<std::size_t, std::uint32_t>> echoes; // offset, size
            while (have - at >= sizeof(ORV_CTL_MSG)) {
                ORV_CTL_MSG ctl;
                std::memcpy(&ctl, in.data() + at, sizeof ctl);
                if (ctl.marker == std::uint32_t(ORV_MSG_TEST)) {
                    at += sizeof ctl;
                    continue;
                }
                if (ctl.marker != std::uint32_t(ORV_MSG_MARKER)) return; // host order only
                const std::size_t frame = sizeof ctl + ctl.getSize();
                if (have - at < frame) {
                    if (frame > in.size()) in.resize(frame);
                    break;
                }
                ORV_APP_MSG app;
                std::memcpy(&app, in.data() + at + sizeof ctl, sizeof app);
                const std::uint32_t len = app.getCmdCode() == kEcho ? app.getAppSize() : 0;
                heads.push_back(header(MSG_RESPONSE, app.getCmdCode(), app.getSeqNbr(), len));
                echoes.emplace_back(at + kHdr, len);
                at += frame;
            }
            for (std::size_t i = 0; i < heads.size(); ++i) {
                iov.push_back({&heads[i], kHdr});
                if (echoes[i].second != 0) iov.push_back({in.data() + echoes[i].first, echoes[i].second});
            }
            for (std::size_t i = 0; i < iov.size(); i += 512)
                if (!sendIov(fd, iov.data() + i, int(std::min<std::size_t>(512, iov.size() - i)))) return;
            if (at != 0) {
                std::memmove(in.data(), in.data() + at, have - at);
                have -= at;
            }
        }
    }

    int listenFd_ = -1;
    unsigned short port_ = 0;
    std::thread acceptor_;
    std::mutex mu_;
    std::vector<int> fds_;
    std::vector<std::thread> threads_;
};

// The baseline: a plain blocking client, one sendmsg per command and as few
// recv calls as the reply needs.
class RawClient {
public:
    explicit RawClient(unsigned short port)
    {
        fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        a.sin_port = htons(port);
        const int one = 1;
        ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        if (::connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
            ::close(fd_);
            fd_ = -1;
        }
    }
    ~RawClient()
    {
        if (fd_ >= 0) ::close(fd_);
    }
    bool ok() const { return fd_ >= 0; }
    int fd() const { return fd_; }

    // True when the whole reply of the expected size came back.
    bool roundTrip(COMMAND_CODE code, const std::vector<char>& payload)
    {
        FrameHeader h = header(MSG_COMMAND, code, ++seq_, std::uint32_t(payload.size()));
        iovec iov[2] = {{&h, kHdr}, {const_cast<char*>(payload.data()), payload.size()}};
        if (!sendIov(fd_, iov, payload.empty() ? 1 : 2)) return false;
        const std::size_t want = kHdr + (code == kEcho ? payload.size() : 0);
        if (buf_.size() < want) buf_.resize(want);
        std::size_t got = 0;
        while (got < want) {
            const ssize_t k = ::recv(fd_, buf_.data() + got, buf_.size() - got, 0);
            if (k < 0 && errno == EINTR) continue;
            if (k <= 0) return false;
            got += std::size_t(k);
        }
        FrameHeader r;
        std::memcpy(&r, buf_.data(), kHdr);
        return r.app.seqNbr == seq_ && got == want;
    }

private:
    int fd_ = -1;
    std::uint32_t seq_ = 0;
    std::vector<char> buf_;
};

// The design's floor: the raw client's frames, with the library's three
// thread hand-offs (caller -> sender thread; reader thread -> matcher thread
// -> caller), each a mutex and condition variable notified after the unlock.
template <typename T>
class HandOff {
public:
    void push(T v)
    {
        {
            std::lock_guard<std::mutex> lk(mu_);
            q_.push_back(v);
        }
        cv_.notify_one();
    }
    // False once closed and drained.
    bool pop(T& out)
    {
        std::unique_lock<std::mutex> lk(mu_);
        cv_.wait(lk, [&] { return !q_.empty() || closed_; });
        if (q_.empty()) return false;
        out = q_.front();
        q_.pop_front();
        return true;
    }
    void close()
    {
        {
            std::lock_guard<std::mutex> lk(mu_);
            closed_ = true;
        }
        cv_.notify_all();
    }

private:
    std::mutex mu_;
    std::condition_variable cv_;
    std::deque<T> q_;
    bool closed_ = false;
};

class HandOffClient {
public:
    // waitForSend: the caller is also released once its frame is sent and
    // waits again for the reply, as the library's Dispatch and WaitForRsp do.
    // copies: the payload is copied into a fresh buffer before it is sent and
    // the reply's body out of the read buffer into another, as the library's
    // command and response each own a copy of their data.
    HandOffClient(unsigned short port, bool waitForSend, bool copies = false)
        : raw_(port), waitForSend_(waitForSend), copies_(copies)
    {
        if (!raw_.ok()) return;
        sender_ = std::thread([this] { sendLoop(); });
        reader_ = std::thread([this] { readLoop(); });
        matcher_ = std::thread([this] { matchLoop(); });
    }
    ~HandOffClient()
    {
        toSend_.close();
        toMatch_.close();
        if (raw_.ok()) ::shutdown(raw_.fd(), SHUT_RDWR);
        for (std::thread* t : {&sender_, &reader_, &matcher_})
            if (t->joinable()) t->join();
    }
    bool ok() const { return raw_.ok(); }

    bool roundTrip(COMMAND_CODE code, const std::vector<char>& payload)
    {
        Pending p;
        p.head = header(MSG_COMMAND, code, ++seq_, std::uint32_t(payload.size()));
        p.data = payload.data();
        p.size = payload.size();
        std::unique_ptr<char[]> own;
        if (copies_ && !payload.empty()) {
            own.reset(new char[payload.size()]);
            std::memcpy(own.get(), payload.data(), payload.size());
            p.data = own.get();
        }
        toSend_.push(&p);
        std::unique_lock<std::mutex> lk(p.mu);
        if (waitForSend_) p.cv.wait(lk, [&] { return p.sent; });
        p.cv.wait(lk, [&] { return p.done; });
        delete[] p.body;
        return p.replySize == (code == kEcho ? payload.size() : 0);
    }

private:
    struct Pending {
        FrameHeader head;
        const char* data = nullptr;
        std::size_t size = 0;
        char* body = nullptr;
        std::mutex mu;
        std::condition_variable cv;
        bool done = false;
        bool sent = false;
        std::size_t replySize = 0;
    };
    struct Reply {
        std::uint32_t seq;
        std::size_t size;
        char* body;
    };

    void sendLoop()
    {
        Pending* p = nullptr;
        while (toSend_.pop(p)) {
            {
                std::lock_guard<std::mutex> lk(mapMu_);
                waiting_[p->head.app.seqNbr] = p;
            }
            iovec iov[2] = {{&p->head, kHdr}, {const_cast<char*>(p->data), p->size}};
            if (!sendIov(raw_.fd(), iov, p->size == 0 ? 1 : 2)) return;
            if (!waitForSend_) continue;
            {
                std::lock_guard<std::mutex> lk(p->mu);
                p->sent = true;
            }
            p->cv.notify_one();
        }
    }
    void readLoop()
    {
        std::vector<char> in(1 << 18);
        std::size_t have = 0;
        for (;;) {
            const ssize_t k = ::recv(raw_.fd(), in.data() + have, in.size() - have, 0);
            if (k < 0 && errno == EINTR) continue;
            if (k <= 0) return;
            have += std::size_t(k);
            std::size_t at = 0;
            while (have - at >= kHdr) {
                FrameHeader h;
                std::memcpy(&h, in.data() + at, kHdr);
                const std::size_t frame = sizeof(ORV_CTL_MSG) + h.ctl.getSize();
                if (have - at < frame) {
                    if (frame > in.size()) in.resize(frame);
                    break;
                }
                const std::size_t n = h.app.getAppSize();
                char* body = nullptr;
                if (copies_ && n > 0) {
                    body = new char[n];
                    std::memcpy(body, in.data() + at + kHdr, n);
                }
                toMatch_.push(Reply{h.app.seqNbr, n, body});
                at += frame;
            }
            std::memmove(in.data(), in.data() + at, have - at);
            have -= at;
        }
    }
    void matchLoop()
    {
        Reply r{};
        while (toMatch_.pop(r)) {
            Pending* p = nullptr;
            {
                std::lock_guard<std::mutex> lk(mapMu_);
                const auto it = waiting_.find(r.seq);
                if (it == waiting_.end()) {
                    delete[] r.body;
                    continue;
                }
                p = it->second;
                waiting_.erase(it);
            }
            {
                std::lock_guard<std::mutex> lk(p->mu);
                p->done = true;
                p->replySize = r.size;
                p->body = r.body;
            }
            p->cv.notify_one();
        }
    }

    RawClient raw_;
    const bool waitForSend_;
    const bool copies_;
    std::uint32_t seq_ = 0;
    HandOff<Pending*> toSend_;
    HandOff<Reply> toMatch_;
    std::mutex mapMu_;
    std::unordered_map<std::uint32_t, Pending*> waiting_;
    std::thread sender_, reader_, matcher_;
};

// One command with a response through the library, as the API's own
// I_GetRawStats makes it.
bool libraryRoundTrip(COMMAND_CODE code, const std::vector<char>& payload)
{
    CrCmd cmd;
    cmd.SetCmdCode(code);
    cmd.SetMsgAddr(1);
    cmd.SetRspReq(true);
    cmd.SetRspTimer(10000);
    if (!payload.empty()) cmd.SetData(payload.data(), int(payload.size()));
    cmd.Dispatch();
    cmd.WaitForRsp();
    CrRsp* rsp = cmd.GetFirstRsp();
    const std::size_t want = code == kEcho ? payload.size() : 0;
    return rsp != nullptr && rsp->GetRspStat() == RSP_OK && std::size_t(rsp->GetSize()) == want;
}

// ---------------------------------------------------------------------------
// Process-wide set-up: the responder, and the library connected to it once.

struct World {
    Responder responder;
    IoClientMgmt* session = nullptr;
    int sessionFd = -1; // the library's socket, found by its peer
    std::string dir;
    std::string error;
    std::string commit;

    World()
    {
        char tmpl[] = "/tmp/tavro-roundtrip-XXXXXX";
        if (const char* d = ::mkdtemp(tmpl)) {
            dir = d;
            if (::chdir(d) != 0) {
            }
        }
        ::mkdir("log", 0755);
        if (!responder.start()) {
            error = "responder: cannot listen";
            return;
        }
        if (I_SwitchInitialize() != I_SUCCESS) {
            error = "I_SwitchInitialize failed";
            return;
        }
        // The library's handlers only note the termination; a benchmark
        // should stop on Ctrl-C.
        std::signal(SIGINT, SIG_DFL);
        std::signal(SIGTERM, SIG_DFL);
        // What I_SwitchConnect does, on the responder's port.
        session = IoClientMgmt::startClient(1, responder.port(), DispatchCommand);
        for (int i = 0; i < 500 && session != nullptr && session->GetProcState() != TCP_NORMAL; ++i) Sleep(20);
        if (session == nullptr || session->GetProcState() != TCP_NORMAL) {
            error = "the library did not connect";
            return;
        }
        // Before any raw client exists, the only descriptor connected to
        // the responder's port is the session's.
        for (int fd = 0; fd < 4096 && sessionFd < 0; ++fd) {
            sockaddr_in peer{};
            socklen_t len = sizeof peer;
            if (::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &len) == 0 && peer.sin_family == AF_INET &&
                ntohs(peer.sin_port) == responder.port())
                sessionFd = fd;
        }
        if (sessionFd < 0) error = "cannot find the session's socket";
    }
    ~World()
    {
        if (session != nullptr) {
            session->SignalShutdown();
            session->WaitFinished(5000);
        }
        responder.stop();
        if (!dir.empty()) {
            std::error_code ec;
            std::filesystem::remove_all(dir, ec);
        }
    }
};

World& world()
{
    static World w;
    return w;
}

long rssKiB()
{
    long pages = 0, resident = 0;
    if (FILE* f = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
        std::fclose(f);
    }
    return resident * (::sysconf(_SC_PAGESIZE) / 1024);
}

// Every run of every benchmark, by name, for the summary after the run.
// Google Benchmark also calls a function while it sizes the run; only the
// runs with the most commands (the measured one and its repetitions) count.
struct Run {
    double medianUs = 0;
    double cpuUs = 0;           // process CPU time per command
    std::uint64_t commands = 0; // of all threads
    Clock::time_point first = Clock::time_point::max();
    Clock::time_point last = Clock::time_point::min();
    double perSecond() const { return double(commands) / std::chrono::duration<double>(last - first).count(); }
};
std::mutex g_summaryMu;
std::map<std::string, std::vector<Run>> g_runs;

// The median over the measured runs of `name` of what `get` gives, or 0.
template <typename Get>
double overRuns(const std::string& name, Get get)
{
    const auto it = g_runs.find(name);
    if (it == g_runs.end()) return 0;
    std::uint64_t most = 0;
    for (const Run& r : it->second) most = std::max(most, r.commands);
    std::vector<double> v;
    for (const Run& r : it->second)
        if (r.commands == most) v.push_back(get(r));
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

// Times the round trips and keeps what the summary needs.
template <typename RoundTrip>
void timeRoundTrips(benchmark::State& state, RoundTrip roundTrip, const char* name)
{
    const bench_timing::Timed t = bench_timing::timeRoundTrips(state, roundTrip);
    std::lock_guard<std::mutex> lk(g_summaryMu);
    // A thread that began after the last recorded end is in a new run.
    std::vector<Run>& runs = g_runs[name];
    if (runs.empty() || t.began > runs.back().last) runs.emplace_back();
    Run& r = runs.back();
    if (state.thread_index() == 0) {
        r.medianUs = t.medianUs;
        r.cpuUs = t.cpuUs;
    }
    r.commands += t.count;
    r.first = std::min(r.first, t.began);
    r.last = std::max(r.last, t.ended);
}

std::vector<char> payloadOf(std::size_t n)
{
    std::vector<char> p(n);
    for (std::size_t i = 0; i < n; ++i) p[i] = char(i * 7);
    return p;
}

void BM_Raw(benchmark::State& state, COMMAND_CODE code, std::size_t size, const char* name)
{
    World& w = world();
    if (!w.error.empty()) return state.SkipWithError(w.error.c_str());
    RawClient c(w.responder.port());
    if (!c.ok()) return state.SkipWithError("raw client: cannot connect");
    const auto payload = payloadOf(size);
    timeRoundTrips(
        state, [&] { return c.roundTrip(code, payload); }, name);
}

void BM_HandOff(benchmark::State& state, COMMAND_CODE code, std::size_t size, bool waitForSend, bool copies,
                const char* name)
{
    World& w = world();
    if (!w.error.empty()) return state.SkipWithError(w.error.c_str());
    HandOffClient c(w.responder.port(), waitForSend, copies);
    if (!c.ok()) return state.SkipWithError("hand-off client: cannot connect");
    const auto payload = payloadOf(size);
    timeRoundTrips(
        state, [&] { return c.roundTrip(code, payload); }, name);
}

void BM_Library(benchmark::State& state, COMMAND_CODE code, std::size_t size, const char* name)
{
    World& w = world();
    if (!w.error.empty()) return state.SkipWithError(w.error.c_str());
    const auto payload = payloadOf(size);
    timeRoundTrips(
        state, [&] { return libraryRoundTrip(code, payload); }, name);
}

// Eight application threads: each has its own raw connection; the library
// threads share the one session, as an application's threads would.
std::unique_ptr<RawClient> g_raw8[8];

void BM_Raw8(benchmark::State& state)
{
    World& w = world();
    if (!w.error.empty()) return state.SkipWithError(w.error.c_str());
    RawClient& c = *g_raw8[state.thread_index()];
    const std::vector<char> none;
    timeRoundTrips(
        state, [&] { return c.roundTrip(kShort, none); }, "raw 40 B x8");
}

void BM_Library8(benchmark::State& state, const char* name)
{
    World& w = world();
    if (!w.error.empty()) return state.SkipWithError(w.error.c_str());
    const std::vector<char> none;
    timeRoundTrips(
        state, [&] { return libraryRoundTrip(kShort, none); }, name);
}

void raw8Setup(const benchmark::State&)
{
    for (auto& c : g_raw8) c.reset(new RawClient(world().responder.port()));
}
void raw8Teardown(const benchmark::State&)
{
    for (auto& c : g_raw8) c.reset();
}

// Resident memory across one million commands through the library.
void BM_LibraryRss(benchmark::State& state)
{
    World& w = world();
    if (!w.error.empty()) return state.SkipWithError(w.error.c_str());
    const std::vector<char> none;
    for (int i = 0; i < 10000; ++i) libraryRoundTrip(kShort, none);
    const long start = rssKiB();
    long peak = start;
    long at100k = 0;
    std::int64_t n = 0;
    for (auto _ : state) {
        if (!libraryRoundTrip(kShort, none)) {
            state.SkipWithError("no or wrong reply");
            break;
        }
        if (++n % 100000 == 0) {
            const long r = rssKiB();
            peak = std::max(peak, r);
            if (n == 100000) at100k = r;
        }
    }
    const long end = rssKiB();
    state.SetItemsProcessed(state.iterations());
    state.counters["rss_start_KiB"] = double(start);
    state.counters["rss_100k_KiB"] = double(at100k);
    state.counters["rss_peak_KiB"] = double(peak);
    state.counters["rss_end_KiB"] = double(end);
    state.counters["growth_after_100k_KiB"] = double(end - at100k);
}

void registerAll()
{
    struct Row {
        const char* name;
        COMMAND_CODE code;
        std::size_t size;
        double minTime;
        bool handOff; // also the raw client behind three hand-offs
    };
    const Row rows[] = {
        {"40 B", kShort, 0, 2.0, true},
        {"64 KiB echo", kEcho, k64K, 1.0, false},
        {"2.5 MB echo", kEcho, k2_5M, 2.0, false},
        {"2.5 MB, 40 B reply", kShort, k2_5M, 1.0, false},
    };
    static std::vector<std::string> names; // the summary's keys
    names.reserve(6 * std::size(rows) + 3);
    auto key = [](const std::string& k) {
        names.push_back(k);
        return names.back().c_str();
    };
    for (const Row& r : rows) {
        const std::string n = r.name;
        benchmark::RegisterBenchmark(("RoundTrip/raw/" + n).c_str(), BM_Raw, r.code, r.size, key("raw " + n))
            ->UseManualTime()
            ->MinTime(r.minTime)
            ->Unit(benchmark::kMicrosecond);
        if (r.handOff)
            for (const bool waitForSend : {false, true})
                benchmark::RegisterBenchmark(
                    ("RoundTrip/" + std::string(waitForSend ? "raw4handoffs/" : "raw3handoffs/") + n).c_str(),
                    BM_HandOff, r.code, r.size, waitForSend, false,
                    key((waitForSend ? "raw4handoffs " : "raw3handoffs ") + n))
                    ->UseManualTime()
                    ->MinTime(r.minTime)
                    ->Unit(benchmark::kMicrosecond);
        // The floor for large frames: the same hand-offs plus the copies the
        // command and its response own.
        if (r.size >= k2_5M && r.code == kEcho)
            benchmark::RegisterBenchmark(("RoundTrip/raw4handoffs2copies/" + n).c_str(), BM_HandOff, r.code, r.size,
                                         true, true, key("raw4handoffs2copies " + n))
                ->UseManualTime()
                ->MinTime(r.minTime)
                ->Unit(benchmark::kMicrosecond);
        benchmark::RegisterBenchmark(("RoundTrip/library/" + n).c_str(), BM_Library, r.code, r.size,
                                     key("library " + n))
            ->UseManualTime()
            ->MinTime(r.minTime)
            ->Unit(benchmark::kMicrosecond);
    }
    benchmark::RegisterBenchmark("Concurrent/raw/40 B", BM_Raw8)
        ->Threads(8)
        ->UseRealTime()
        ->MinTime(2.0)
        ->Setup(raw8Setup)
        ->Teardown(raw8Teardown)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("Concurrent/library/40 B", BM_Library8, key("library 40 B x8"))
        ->Threads(8)
        ->UseRealTime()
        ->MinTime(2.0)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("Rss/library/1M commands", BM_LibraryRss)
        ->Iterations(1000000)
        ->UseRealTime()
        ->Unit(benchmark::kMicrosecond);
}

void summary()
{
    struct Target {
        const char* what;
        const char* raw;
        double limit;
    };
    // tools/bench.sh prints the full table with every target.
    const Target targets[] = {
        {"40 B", "raw3handoffs 40 B", 1.1},
        {"40 B", "raw 40 B", 0},
        {"64 KiB echo", "raw 64 KiB echo", 0},
        {"2.5 MB echo", "raw 2.5 MB echo", 1.1},
        {"2.5 MB, 40 B reply", "raw 2.5 MB, 40 B reply", 0},
    };
    const auto median = [](const Run& r) { return r.medianUs; };
    const auto cpu = [](const Run& r) { return r.cpuUs; };
    std::printf(
        "\nAgainst raw TCP of the same frames, same run (with repetitions, the median over them):\n"
        "  %-48s %26s %26s\n",
        "", "median round trip, us", "process CPU per command, us");
    for (const char* variant : {"library"}) {
        for (const Target& t : targets) {
            const std::string lib = std::string(variant) + " " + t.what;
            const double l = overRuns(lib, median), raw = overRuns(t.raw, median);
            const double lc = overRuns(lib, cpu), rc = overRuns(t.raw, cpu);
            if (l <= 0 || raw <= 0 || rc <= 0) continue;
            std::printf("  %-48s %8.1f / %7.1f = %5.2fx %8.1f / %7.1f = %5.2fx", (lib + " / " + t.raw).c_str(), l, raw,
                        l / raw, lc, rc, lc / rc);
            if (t.limit > 0) std::printf("  (target <= %.1fx)", t.limit);
            std::printf("\n");
        }
    }
    std::printf("8 threads at once: commands per second measured, and as the CPU cost allows (1 / CPU per command):\n");
    for (const char* name : {"raw 40 B x8", "library 40 B x8"}) {
        const double perSecond = overRuns(name, [](const Run& r) { return r.perSecond(); });
        const double c = overRuns(name, cpu);
        if (perSecond <= 0 || c <= 0) continue;
        std::printf("  %-32s %9.0f /s %9.0f /s", name, perSecond, 1e6 / c);
        std::printf("\n");
    }
}

} // namespace

int main(int argc, char** argv)
{
    registerAll();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    summary();
    return 0;
}
