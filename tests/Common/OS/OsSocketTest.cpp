// Socket creation, options, binding, connecting, accepting and closing.
#include <fcntl.h>
#include <netinet/tcp.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "Common/OS/SocketTestSupport.h"

using namespace sock_test;

namespace {

int intOption(int fd, int level, int option)
{
    int v = -1;
    socklen_t len = sizeof v;
    if (getsockopt(fd, level, option, &v, &len) != 0) return -1000 - errno;
    return v;
}

c_sockaddr loopback(unsigned short hostPort)
{
    return c_sockaddr(AF_INET, c_inaddr("127.0.0.1"), htons(hostPort));
}

// A socket holding an ephemeral loopback port.
struct PortHolder {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    unsigned short port = 0;
    explicit PortHolder(bool listening = true, int backlog = 8)
    {
        c_sockaddr a = loopback(0);
        if (::bind(fd, static_cast<const sockaddr*>(a), sizeof(sockaddr_in)) != 0) ADD_FAILURE() << "bind";
        if (listening && ::listen(fd, backlog) != 0) ADD_FAILURE() << "listen";
        port = c_sockaddr(fd).hostPort();
    }
    void close()
    {
        if (fd >= 0) ::close(fd);
        fd = -1;
    }
    ~PortHolder() { close(); }
};

// Fake clock advanced only by the fake sleep.
std::uint64_t g_nowMs = 0;
std::vector<unsigned> g_sleeps;
std::vector<std::string> g_shell, g_commands;
std::string g_commandOutput;
PortHolder* g_holder = nullptr; // released by the third kill
bool g_terminateOnSleep = false;

struct SocketFixture : testing::Test {
    SeamGuard seams;
    void SetUp() override
    {
        g_nowMs = 1000000;
        g_sleeps.clear();
        g_shell.clear();
        g_holder = nullptr;
        g_terminateOnSleep = false;
        tavro_internal::socketSeams().nowMs = [] { return g_nowMs; };
        tavro_internal::socketSeams().sleepMs = [](unsigned ms) {
            g_sleeps.push_back(ms);
            g_nowMs += ms;
            if (g_terminateOnSleep) OsSocket::setProgramTerminating(true);
        };
        tavro_internal::socketSeams().runShell = [](const char* cmd) {
            g_shell.push_back(cmd);
            if (g_holder != nullptr && g_shell.size() == 3) g_holder->close();
            return 0;
        };
        OsSocket::setApplicationName(nullptr);
    }
};

} // namespace

TEST_F(SocketFixture, NewSocketsStartClosedAndCopiesKeepTheirOwnHandles)
{
    {
        OsSocket def;
        OsSocket client("switch-a", loopback(58991), TCP_CLIENT, 3);
        OsSocket udp("ignored", loopback(5000), UDP_SERVICE, 0);
        for (OsSocket* s : {&def, &client, &udp}) {
            EXPECT_TRUE(s->HasError()); // nothing may be read or sent before preparation
            EXPECT_FALSE(s->Shuttingdown());
        }
        EXPECT_STREQ(client.GetHostname(), "switch-a");
        EXPECT_EQ(udp.GetHostname(), nullptr); // never kept for UDP
    }

    OsSocket a("peer", loopback(1234), TCP_CLIENT, 4);
    ASSERT_TRUE(a.PrepareSocket());
    OsSocket b, c(a);
    b = a;
    for (OsSocket* copy : {&b, &c}) {
        EXPECT_EQ(copy->GetSocket(), a.GetSocket());
        EXPECT_EQ(copy->GetTcpType(), TCP_CLIENT);
        EXPECT_EQ(copy->GetServiceType(), 4);
        EXPECT_EQ(copy->GetTcpState(), TCP_INITIALIZED);
        EXPECT_FALSE(copy->HasError());
        ASSERT_NE(copy->GetHostname(), nullptr);
        EXPECT_NE(copy->GetHostname(), a.GetHostname());
        EXPECT_STREQ(copy->GetHostname(), "peer");
        copy->SignalShutdown();
        EXPECT_FALSE(a.Shuttingdown());
        copy->SetSocket(-1); // the descriptor stays a's
    }
}

// Every option of a client socket, traced only under the OPTIONS bit.
TEST_F(SocketFixture, ClientPreparationSetsEveryOptionAndTracesItWithItsBit)
{
    OsSocket s("sw", loopback(1), TCP_CLIENT, 3);
    EXPECT_EQ(countOf(traced([&] { EXPECT_TRUE(s.PrepareSocket()); }, SOCK_TRACE_OPTIONS), " succeeded.\n"), 9u);
    const int fd = s.GetSocket();
    linger l{};
    socklen_t len = sizeof l;
    ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_LINGER, &l, &len), 0);
    EXPECT_EQ(l.l_onoff + l.l_linger, 0);
    EXPECT_EQ(intOption(fd, SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_EQ(intOption(fd, IPPROTO_TCP, TCP_KEEPIDLE), 15);
    EXPECT_EQ(intOption(fd, IPPROTO_TCP, TCP_KEEPINTVL), 5);
    EXPECT_EQ(intOption(fd, IPPROTO_TCP, TCP_KEEPCNT), 3);
    EXPECT_EQ(intOption(fd, IPPROTO_TCP, 18), 10000);      // TCP_USER_TIMEOUT
    EXPECT_NE(intOption(fd, IPPROTO_TCP, TCP_NODELAY), 0); // no delayed-ACK stall between frame pieces
    EXPECT_EQ(intOption(fd, SOL_SOCKET, SO_REUSEADDR), 0);
    EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_NE(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);

    // Without trace bits only the missing keep-alive is reported.
    OsSocket noKeepAlive("sw", loopback(1), TCP_CLIENT, 3);
    noKeepAlive.SetKeepAlive(false);
    EXPECT_EQ(traced([&] { EXPECT_TRUE(noKeepAlive.PrepareSocket()); }),
              "setKeepAliveOptions: PrepareTCPSocket(): SOCKET DOES NOT HAVE KEEPALIVE ENABLED.\n");
    EXPECT_EQ(intOption(noKeepAlive.GetSocket(), SOL_SOCKET, SO_KEEPALIVE), 0);
}

// Failures are always traced; no user time-out on UDP (ENOPROTOOPT) is fine.
TEST_F(SocketFixture, OptionFailuresAreAlwaysTraced)
{
    OsSocket s;
    TraceCapture cap;
    EXPECT_FALSE(s.setLingerOnCloseOffOption(-1, "Caller"));
    EXPECT_FALSE(s.BindSocketToInterface(-1, "lo"));
    const std::string e = std::to_string(EBADF);
    EXPECT_EQ(cap.text(),
              "setLingerOnCloseOffOption: Caller(): Socket[-1] setsockopt( SO_LINGER ) failed[" + e + "]\n" +
                  "BindSocketToInterface: unknown(): Socket[-1] setsockopt( SO_BINDTODEVICE ) failed[" + e + "]\n");
    EXPECT_EQ(s.GetLastError(), EBADF);

    OsSocket udp("", loopback(0), UDP_SERVICE, 0);
    ASSERT_TRUE(udp.PrepareSocket());
    EXPECT_EQ(traced([&] { EXPECT_TRUE(udp.setTxTimeoutOption(udp.GetSocket(), "Tester")); }), "");
    EXPECT_TRUE(udp.setRxTimeoutOption(udp.GetSocket()));
}

TEST_F(SocketFixture, BusyPortIsRetriedEveryFourSecondsUntilFreeForTwentyMinutes)
{
    PortHolder holder;
    OsSocket server("", loopback(holder.port), TCP_SERVER, 0);
    std::string out = traced([&] { EXPECT_FALSE(server.PrepareSocket()); });
    EXPECT_TRUE(server.HasError());
    EXPECT_EQ(server.GetTcpState(), TCP_NOT_INIT);
    EXPECT_EQ(g_sleeps, std::vector<unsigned>(300, 4000));
    EXPECT_EQ(g_shell, std::vector<std::string>(300, "./KillOutstandingApp.sh ORVMgmt"));
    const std::string retry = "PrepareTcpServerSocket: bind error [98] to IP[127.0.0.1] port [" +
                              std::to_string(holder.port) + "] is not fatal.  Retry...\n";
    EXPECT_EQ(countOf(out, retry), 300u);
    EXPECT_EQ(countOf(out, "PrepareTcpServerSocket: bind has given up after 20 minutes!\n"), 1u);

    // Success once the other instance is killed; termination stops retries.
    g_shell.clear();
    g_holder = &holder;
    OsSocket::setApplicationName("SnmpAgent");
    traced([&] { EXPECT_TRUE(server.PrepareSocket()); });
    EXPECT_EQ(g_shell, std::vector<std::string>(3, "./KillOutstandingApp.sh SnmpAgent"));
    EXPECT_FALSE(server.HasError());
    EXPECT_EQ(server.GetTcpState(), TCP_INITIALIZED);

    PortHolder busy;
    g_sleeps.clear();
    g_shell.clear();
    g_terminateOnSleep = true;
    OsSocket stopped("", loopback(busy.port), TCP_SERVER, 0);
    traced([&] { EXPECT_FALSE(stopped.PrepareSocket()); });
    EXPECT_EQ(g_sleeps.size(), 1u);
    EXPECT_TRUE(g_shell.empty());

    OsSocket::setProgramTerminating(false);
    g_sleeps.clear();
    OsSocket fatal("", c_sockaddr(AF_INET, c_inaddr("192.0.2.1"), htons(5000)), TCP_SERVER, 0);
    out = traced([&] { EXPECT_FALSE(fatal.PrepareSocket()); });
    EXPECT_EQ(countOf(out, "PrepareTcpServerSocket: Fatal bind error [" + std::to_string(EADDRNOTAVAIL) + "]"), 1u)
        << out;
    EXPECT_TRUE(g_sleeps.empty());
    EXPECT_EQ(fatal.GetLastError(), EADDRNOTAVAIL);
}

// Every error is reported up to 10, then every tenth, hundredth, thousandth.
TEST_F(SocketFixture, BindErrorsAreThrottled)
{
    const struct {
        unsigned error;
        bool reported;
        unsigned newEvery;
    } steps[] = {{1, true, 0},     {9, true, 0},     {10, true, 10},  {11, false, 0}, {20, true, 0},
                 {99, false, 0},   {100, true, 100}, {150, false, 0}, {200, true, 0}, {1000, true, 1000},
                 {1500, false, 0}, {2000, true, 0},  {10000, true, 0}};
    BindErrorThrottle t;
    std::size_t next = 0;
    for (unsigned e = 1; e <= 10000; ++e) {
        unsigned newEvery = 99;
        const bool reported = t.countFailure(newEvery);
        if (next < std::size(steps) && steps[next].error == e) {
            EXPECT_EQ(reported, steps[next].reported) << e;
            EXPECT_EQ(newEvery, steps[next].newEvery) << e;
            ++next;
        }
    }
    EXPECT_EQ(next, std::size(steps));
    t.reset();
    unsigned newEvery = 0;
    EXPECT_TRUE(t.countFailure(newEvery));
    EXPECT_EQ(t.frequency(), 1u);

    OsSocket s("sw", loopback(1), TCP_CLIENT, 3);
    ASSERT_TRUE(s.PrepareSocket());
    TraceCapture cap;
    for (int i = 0; i < 20; ++i) EXPECT_FALSE(s.BindTCPSocket(c_inaddr("192.0.2.1")));
    const std::string out = cap.text();
    EXPECT_EQ(countOf(out, "BindTCPSocket: Changing reporting frequency to every 10 errors!\n"), 1u) << out;
    EXPECT_EQ(countOf(out, "] failed.  errNum["), 11u) << out; // 1-10 and 20
    EXPECT_TRUE(s.BindTCPSocket(c_inaddr("127.0.0.1")));
}

TEST_F(SocketFixture, ConnectAcceptShutdownCloseAndPrepareAgain)
{
    OsSocket server("", loopback(0), TCP_SERVER, 0);
    ASSERT_TRUE(server.PrepareSocket(0, 4));
    EXPECT_EQ(intOption(server.GetSocket(), SOL_SOCKET, SO_REUSEADDR), 1);
    EXPECT_EQ(intOption(server.GetSocket(), SOL_SOCKET, SO_ACCEPTCONN), 1);
    EXPECT_TRUE(g_sleeps.empty());
    const unsigned short port = c_sockaddr(server.GetSocket()).hostPort();
    OsSocket client("sw", loopback(port), TCP_CLIENT, 3);
    ASSERT_TRUE(client.PrepareSocket());
    TraceCapture cap;
    ASSERT_TRUE(client.Connect(OsSocket::REPORT_CONNECTION));
    const std::string local = "127.0.0.1:" + std::to_string(c_sockaddr(client.GetSocket()).hostPort());
    EXPECT_EQ(cap.text(), "Connect  Local client[" + local +
                              "] connected to remote server[127.0.0.1:" + std::to_string(port) + "]\n");

    std::unique_ptr<OsSocket> accepted(server.Accept());
    ASSERT_NE(accepted, nullptr);
    EXPECT_EQ(accepted->GetTcpType(), TCP_SERVER);
    EXPECT_EQ(accepted->IPAddress().toString(), "127.0.0.1");
    EXPECT_EQ(intOption(accepted->GetSocket(), SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_FALSE(accepted->HasError());
    EXPECT_EQ(accepted->GetTcpState(), TCP_INITIALIZED);
    ASSERT_TRUE(client.Send("ab", 2));
    char got[2];
    unsigned n = 0;
    EXPECT_TRUE(accepted->Read(got, 2, &n));
    EXPECT_EQ(std::string(got, n), "ab");

    server.SignalShutdown();
    EXPECT_EQ(traced([&] { EXPECT_EQ(server.Accept(), nullptr); }),
              "Accept: Remote clientSocket[" + std::to_string(server.GetSocket()) + "] is shutting down!\n");
    const int old = server.GetSocket();
    ASSERT_TRUE(server.PrepareSocket()); // resets the shutdown and closes the old descriptor
    EXPECT_FALSE(server.Shuttingdown());
    EXPECT_TRUE(server.GetSocket() == old || fcntl(old, F_GETFD) == -1);
    server.Close();
    EXPECT_EQ(server.GetSocket(), -1);
    EXPECT_TRUE(server.HasError());
    server.Close(); // twice is harmless
    // A failed accept keeps its error number and pauses before the next try.
    g_terminateOnSleep = true;
    EXPECT_NE(traced([&] { EXPECT_EQ(server.Accept(), nullptr); }).find("Accept: Program is terminating!\n"),
              std::string::npos);
    EXPECT_EQ(server.GetLastError(), EBADF);
    EXPECT_EQ(g_sleeps.size(), 1u);
    EXPECT_TRUE(OsSocket::isProgramTerminating());
    OsSocket other("", loopback(0), TCP_SERVER, 0);
    EXPECT_TRUE(other.Shuttingdown());
    EXPECT_EQ(traced([&] { EXPECT_EQ(other.Accept(), nullptr); }), "Accept: Program is terminating!\n");
}

// Refused: SO_ERROR is reported. A full accept queue makes connect time out.
TEST_F(SocketFixture, FailedConnections)
{
    EXPECT_FALSE(OsSocket("", loopback(1), TCP_SERVER, 0).Connect()); // only clients connect
    PortHolder bound(false);
    OsSocket client("sw", loopback(bound.port), TCP_CLIENT, 3);
    ASSERT_TRUE(client.PrepareSocket());
    const std::string out = traced([&] { EXPECT_FALSE(client.Connect()); }, SOCK_TRACE_CONNECT);
    EXPECT_TRUE(client.HasError());
    EXPECT_EQ(client.GetLastError(), ECONNREFUSED);
    EXPECT_EQ(out, "Connect Socket[" + std::to_string(client.GetSocket()) +
                       "] FAILED to connect to [127.0.0.1:" + std::to_string(bound.port) +
                       "] SO_ERROR reported errNum[" + std::to_string(ECONNREFUSED) + "]\n");

    PortHolder full(true, 0);
    std::vector<std::unique_ptr<OsSocket>> queued;
    tavro_internal::socketSeams().connectWaitMs = 100;
    bool timedOut = false;
    for (int i = 0; i < 8 && !timedOut; ++i) {
        queued.emplace_back(new OsSocket("sw", loopback(full.port), TCP_CLIENT, 3));
        ASSERT_TRUE(queued.back()->PrepareSocket());
        TraceCapture quiet;
        timedOut = !queued.back()->Connect();
    }
    EXPECT_TRUE(timedOut);
    EXPECT_EQ(queued.back()->GetLastError(), ETIMEDOUT);
}

TEST_F(SocketFixture, InterfaceCarrierIsReadFromSysfs)
{
    tavro_internal::socketSeams().readCommand = [](const char* cmd) {
        g_commands.push_back(cmd);
        return g_commandOutput;
    };
    const struct {
        const char* name;
        const char* output;
        bool up;
        bool runs;
    } cases[] = {{"eth0", "1\n", true, true},
                 {"eth0", "0\n", false, true},
                 {"bond0.100", " 1", true, true},
                 {"eth0", "10\n", false, true},
                 {"eth0; reboot", "1\n", false, false},
                 {"../../etc", "1\n", false, false},
                 {"", "1\n", false, false},
                 {"averyveryverylongname", "1\n", false, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        g_commands.clear();
        g_commandOutput = c.output;
        EXPECT_EQ(OsSocket::checkInterfaceUp(c.name), c.up);
        EXPECT_EQ(g_commands,
                  c.runs ? std::vector<std::string>{std::string("sudo cat /sys/class/net/") + c.name + "/carrier"}
                         : std::vector<std::string>{});
    }
    EXPECT_FALSE(OsSocket::checkInterfaceUp(nullptr));
}

namespace {
// A table line as the kernel prints it: address word as in memory, host port.
std::string tcpLine(int sl, const char* local, unsigned short lport, const char* remote, unsigned short rport,
                    unsigned state)
{
    char buf[256];
    std::snprintf(buf, sizeof buf,
                  "%4d: %08X:%04X %08X:%04X %02X 00000000:00000000 00:00000000 00000000  1000        0 12345 1 "
                  "0000000000000000 20 4 30 10 -1\n",
                  sl, static_cast<unsigned>(c_inaddr(local).s_addr), lport,
                  static_cast<unsigned>(c_inaddr(remote).s_addr), rport, state);
    return buf;
}
const char kHeader[] =
    "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout "
    "inode\n";
} // namespace

TEST(ProcNetTcp, ParsesTheTableSkipsMalformedLinesAndMapsTunnelPorts)
{
    std::vector<PROC_NET_TCP_ENTRY> t;
    ASSERT_TRUE(OsSocket::ParseProcNetTcp(std::string(kHeader) + tcpLine(0, "127.0.0.1", 58991, "0.0.0.0", 0, 0x0A) +
                                              tcpLine(1, "127.0.0.1", 58991, "127.0.0.1", 41000, 0x01) +
                                              tcpLine(2, "192.0.2.10", 41001, "198.51.100.7", 58991, 0x06) +
                                              tcpLine(3, "192.0.2.10", 41002, "198.51.100.8", 58991, 0x01),
                                          t));
    ASSERT_EQ(t.size(), 4u);
    EXPECT_EQ(t[2].localIp.toString(), "192.0.2.10");
    EXPECT_EQ(t[2].state, 6u);
    // Only the established connection to the tunnel's port maps.
    EXPECT_EQ(OsSocket::MapStunnelIP(c_inaddr("127.0.0.1"), 58991, t).toString(), "198.51.100.8");
    EXPECT_EQ(OsSocket::MapStunnelIP(c_inaddr("127.0.0.1"), 58992, t).toString(), "127.0.0.1");
    EXPECT_EQ(OsSocket::MapStunnelIP(c_inaddr("192.0.2.99"), 58991, t).toString(), "192.0.2.99");

    const std::string text = std::string(kHeader) + "   0: nonsense\n" + "   1: 0100007F:1F90\n" +
                             "   2: 0100007FXX:1F90 00000000:0000 0A\n" +
                             "   3: 00000000000000000000000001000000:0016 00000000000000000000000000000000:0000 0A\n" +
                             tcpLine(4, "127.0.0.1", 80, "0.0.0.0", 0, 0x0A) + "\n";
    t.clear();
    EXPECT_FALSE(OsSocket::ParseProcNetTcp(text, t));
    ASSERT_EQ(t.size(), 1u);
    EXPECT_EQ(t[0].localPort, 80);
    EXPECT_FALSE(OsSocket::GetProcNetTcp(t, "/nonexistent/tcp"));
}
