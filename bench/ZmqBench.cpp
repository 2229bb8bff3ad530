// ZeroMQ over loopback with the library's smallest frame (40 bytes each way),
// as the yardstick of a mature messaging library: REQ/REP for one caller's
// round trip, DEALER/ROUTER with 8 clients (one request outstanding each)
// for the rate of many callers. The library never links ZeroMQ; only this
// program does. Run it pinned like the others:
//   taskset -c 0 ./ZmqBench
#include <zmq.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "RoundTripTiming.h"

namespace {

using bench_timing::timeRoundTrips;

constexpr std::size_t kFrame = 40;

// A server socket of `type` bound to an ephemeral loopback port, answering
// on its own thread until the context is shut down. REP echoes the request;
// ROUTER echoes it to the identity it came from.
class Server {
public:
    Server(void* ctx, int type) : sock_(zmq_socket(ctx, type)), type_(type)
    {
        const int linger = 0;
        zmq_setsockopt(sock_, ZMQ_LINGER, &linger, sizeof linger);
        if (zmq_bind(sock_, "tcp://127.0.0.1:*") != 0) return;
        char ep[256];
        std::size_t len = sizeof ep;
        zmq_getsockopt(sock_, ZMQ_LAST_ENDPOINT, ep, &len);
        endpoint_ = ep;
        thread_ = std::thread([this] { serve(); });
    }
    ~Server()
    {
        if (thread_.joinable()) thread_.join();
    }
    const std::string& endpoint() const { return endpoint_; }

private:
    void serve()
    {
        char id[256];
        char buf[4096];
        for (;;) {
            int idLen = 0;
            if (type_ == ZMQ_ROUTER) {
                idLen = zmq_recv(sock_, id, sizeof id, 0);
                if (idLen < 0) break;
            }
            const int n = zmq_recv(sock_, buf, sizeof buf, 0);
            if (n < 0) break;
            if (type_ == ZMQ_ROUTER && zmq_send(sock_, id, std::size_t(idLen), ZMQ_SNDMORE) < 0) break;
            if (zmq_send(sock_, buf, std::size_t(n), 0) < 0) break;
        }
        zmq_close(sock_);
    }

    void* sock_;
    int type_;
    std::string endpoint_;
    std::thread thread_;
};

void* connected(void* ctx, int type, const std::string& endpoint)
{
    void* s = zmq_socket(ctx, type);
    const int linger = 0;
    zmq_setsockopt(s, ZMQ_LINGER, &linger, sizeof linger);
    if (zmq_connect(s, endpoint.c_str()) != 0) {
        zmq_close(s);
        return nullptr;
    }
    return s;
}

bool exchange(void* s, const char* out, char* in)
{
    return zmq_send(s, out, kFrame, 0) == int(kFrame) && zmq_recv(s, in, kFrame, 0) == int(kFrame);
}

void BM_ReqRep(benchmark::State& state)
{
    void* ctx = zmq_ctx_new();
    {
        Server server(ctx, ZMQ_REP);
        void* req = server.endpoint().empty() ? nullptr : connected(ctx, ZMQ_REQ, server.endpoint());
        if (req == nullptr) {
            state.SkipWithError("cannot set up REQ/REP");
        } else {
            char out[kFrame] = {1, 2, 3};
            char in[kFrame];
            timeRoundTrips(state, [&] { return exchange(req, out, in); });
            zmq_close(req);
        }
        zmq_ctx_shutdown(ctx); // ends the server's receive
    }
    zmq_ctx_term(ctx);
}

// The ROUTER and its context outlive the 8 benchmark threads.
void* g_ctx = nullptr;
Server* g_router = nullptr;

void routerSetup(const benchmark::State&)
{
    g_ctx = zmq_ctx_new();
    g_router = new Server(g_ctx, ZMQ_ROUTER);
}

void routerTeardown(const benchmark::State&)
{
    zmq_ctx_shutdown(g_ctx);
    delete g_router;
    zmq_ctx_term(g_ctx);
    g_router = nullptr;
    g_ctx = nullptr;
}

void BM_DealerRouter(benchmark::State& state)
{
    void* dealer = g_router->endpoint().empty() ? nullptr : connected(g_ctx, ZMQ_DEALER, g_router->endpoint());
    if (dealer == nullptr) return state.SkipWithError("cannot set up DEALER/ROUTER");
    char out[kFrame] = {1, 2, 3};
    char in[kFrame];
    timeRoundTrips(state, [&] { return exchange(dealer, out, in); });
    zmq_close(dealer);
}

} // namespace

BENCHMARK(BM_ReqRep)->Name("Zmq/REQ-REP/40 B")->UseManualTime()->MinTime(2.0)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_DealerRouter)
    ->Name("Zmq/DEALER-ROUTER/40 B")
    ->Threads(8)
    ->UseRealTime()
    ->MinTime(2.0)
    ->Setup(routerSetup)
    ->Teardown(routerTeardown)
    ->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
