// Frame readers and the writer on real sockets, faults injected through seams.
#include <atomic>
#include <cerrno>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Common/OS/SocketTestSupport.h"

using namespace sock_test;
using tavro_internal::socketSeams;

namespace {

constexpr unsigned kBuf = 16384;

// The next g_failures calls fail with g_failErrno (0: a send of no bytes).
std::atomic<int> g_failures{0};
std::atomic<int> g_failErrno{EINTR};
std::vector<size_t> g_recvLens;
std::vector<unsigned> g_sleeps;
std::atomic<int> g_availCalls{0};
std::atomic<bool> g_availFails{false};
bool g_interleave = false; // four interrupts before every single byte
bool g_stopInBody = false; // the program stops after the first recv into a body buffer
size_t g_sendMax = 0;      // 0: no limit

bool failNow()
{
    if (g_failures.load() <= 0) return false;
    --g_failures;
    errno = g_failErrno.load();
    return true;
}

ssize_t fakeRecv(int fd, void* buf, size_t len, int flags)
{
    if (failNow()) return -1;
    if (g_interleave) g_failures = 4;
    g_recvLens.push_back(len);
    const ssize_t n = ::recv(fd, buf, g_interleave && len > 1 ? 1 : len, flags);
    if (g_stopInBody && len > OsSocket::READ_AHEAD_SIZE) OsSocket::setProgramTerminating(true);
    return n;
}

ssize_t fakeSend(int fd, const void* buf, size_t len, int flags)
{
    if (failNow()) return errno ? -1 : 0;
    return ::send(fd, buf, g_sendMax && len > g_sendMax ? g_sendMax : len, flags | MSG_NOSIGNAL);
}

// Counts FIONREAD samples; fails with g_failErrno while g_availFails is set.
int fakeAvail(int fd, int* n)
{
    ++g_availCalls;
    if (!g_availFails) return ::ioctl(fd, FIONREAD, n);
    *n = 0;
    errno = g_failErrno.load();
    return -1;
}

void inject(int n, int err = 0)
{
    g_recvLens.clear();
    g_failures = n;
    g_failErrno = err;
    socketSeams().sendFn = fakeSend;
}

std::string errText(const char* head, int err, const char* tail = "\n")
{
    return head + std::to_string(err) + "] " + gai_strerror(err) + tail;
}

struct SocketFixture : testing::Test {
    SeamGuard seams;
    std::optional<FdPair> fds;
    std::unique_ptr<OsSocket> sock;
    std::vector<char> body = std::vector<char>(kBuf);
    ORV_CTL_MSG ctl;

    void SetUp() override
    {
        open();
        g_sleeps.clear();
        g_failures = g_availCalls = 0;
        g_availFails = g_interleave = g_stopInBody = false;
        g_sendMax = 0;
        socketSeams().sleepMs = [](unsigned ms) { g_sleeps.push_back(ms); };
        socketSeams().recvFn = fakeRecv;
        socketSeams().availFn = fakeAvail;
    }
    // A fresh connection on every call, so that tables can loop over it.
    void open()
    {
        sock.reset(new OsSocket());
        fds.emplace();
        sock->SetSocket(fds->take());
        g_recvLens.clear();
    }
    std::string received(std::size_t n)
    {
        std::string s(n, '\0');
        EXPECT_EQ(::recv(fds->b, &s[0], n, MSG_WAITALL), static_cast<ssize_t>(n));
        return s;
    }
    std::string onSocket(const char* head, const char* tail = "]\n")
    {
        return head + std::to_string(sock->GetSocket()) + tail;
    }
    bool get(unsigned maxSize = 0)
    {
        return sock->GetOrvMessage(&ctl, reinterpret_cast<ORV_APP_MSG*>(body.data()),
                                   maxSize ? maxSize : unsigned(body.size()));
    }
    // The allocating reader; the body is checked against f and freed.
    bool getAlloc(const FrameShape* f = nullptr)
    {
        ORV_APP_MSG* app = reinterpret_cast<ORV_APP_MSG*>(1); // must be reset
        if (!sock->GetOrvMessageWithAppMsgMemAlloc(&ctl, app)) return false;
        EXPECT_NE(app, nullptr);
        if (f) expectFrame(ctl, reinterpret_cast<char*>(app), *f);
        delete[] reinterpret_cast<char*>(app);
        return true;
    }
};

} // namespace

// Both byte orders and link tests; one recv takes all that waits, no purge.
TEST_F(SocketFixture, FramesInBothByteOrdersAndLinkTestsShareOneRecv)
{
    std::vector<FrameShape> frames;
    for (std::uint32_t i = 0; i < 300; ++i) // now and then a payload of 49 to 5049 bytes
        frames.push_back({(i % 2) ? Order::Big : Order::Little, kMarker, i % 12, 10002 + i * 331, i,
                          i % 50 == 7 ? 1000 * (i / 50) + 49 : i % 7, i});
    std::string stream; // two link test headers: "TST:" "LINK" 12
    for (Order o : {Order::Big, Order::Little})
        for (std::uint32_t w : {0x5453543Au, 0x4C494E4Bu, 12u}) putWord(stream, w, o);
    for (const auto& f : frames) stream += buildFrame(f);
    ASSERT_LT(stream.size(), OsSocket::READ_AHEAD_SIZE);
    ASSERT_TRUE(writeAll(fds->b, stream));
    TraceCapture cap;
    for (const auto& f : frames) {
        SCOPED_TRACE(f.seqNbr);
        ASSERT_TRUE(get());
        expectFrame(ctl, body.data(), f);
    }
    EXPECT_EQ(cap.text(), "ReadCtlMsgCommon: IP[0.0.0.0] Test msg\nReadCtlMsgCommon: IP[0.0.0.0] Test msg\n");
    EXPECT_EQ(g_recvLens.size(), 1u);
    EXPECT_EQ(g_availCalls.load(), 0);
    EXPECT_FALSE(sock->ReadReady()); // nothing held back
}

// A body larger than the read-ahead goes straight into the caller's buffer,
// never past its end; bytes received before a stop stay readable in order.
TEST_F(SocketFixture, LargeBodiesAreReceivedInPlace)
{
    const int big = 1 << 20;
    ASSERT_EQ(::setsockopt(fds->b, SOL_SOCKET, SO_SNDBUF, &big, sizeof big), 0);
    const FrameShape f = shape(200000), next = shape(5, 3);
    const std::string frame = buildFrame(f);
    ASSERT_TRUE(writeAll(fds->b, frame + buildFrame(next)));
    body.resize(frame.size());
    ASSERT_TRUE(get());
    expectFrame(ctl, body.data(), f);
    ASSERT_TRUE(get());
    expectFrame(ctl, body.data(), next);
    const std::vector<size_t> want = {OsSocket::READ_AHEAD_SIZE, frame.size() - OsSocket::READ_AHEAD_SIZE,
                                      OsSocket::READ_AHEAD_SIZE};
    EXPECT_EQ(g_recvLens, want);

    ASSERT_TRUE(writeAll(fds->b, frame));
    g_stopInBody = true;
    EXPECT_FALSE(get());
    OsSocket::setProgramTerminating(false);
    g_stopInBody = false;
    g_recvLens.clear();
    EXPECT_EQ(waiting(sock->GetSocket()), 0);
    const int held = sock->waitForAllData(1);
    ASSERT_GT(held, static_cast<int>(OsSocket::READ_AHEAD_SIZE));
    std::string rest(static_cast<std::size_t>(held), '\0');
    unsigned got = 0;
    EXPECT_EQ(sock->readAllData(&rest[0], static_cast<unsigned>(held), &got), held);
    EXPECT_TRUE(rest == frame.substr(frame.size() - static_cast<std::size_t>(held))) << "stream cut";
    EXPECT_TRUE(g_recvLens.empty());

    // A body trickling in after its headers is read until whole.
    const FrameShape trickled = shape(3 * OsSocket::READ_AHEAD_SIZE + 123, 0, Order::Little);
    const std::string third = buildFrame(trickled);
    ASSERT_TRUE(writeAll(fds->b, third.substr(0, 40 + 10)));
    std::thread writer([&] {
        for (std::size_t at = 50; at < third.size(); at += 5000) {
            std::this_thread::yield();
            writeAll(fds->b, third.substr(at, 5000));
        }
    });
    const bool ok = get();
    writer.join();
    ASSERT_TRUE(ok);
    expectFrame(ctl, body.data(), trickled);
}

// The allocating reader sizes the body exactly and zero-fills a short one;
// a byte held ahead is read without waiting for the kernel (nothing follows).
TEST_F(SocketFixture, AllocatingReaderAndHeldBytes)
{
    const FrameShape f = shape(3000, 0, hostOrder() == Order::Big ? Order::Little : Order::Big);
    FrameShape shortBody;
    shortBody.sizeOverride = 5;
    ASSERT_TRUE(writeAll(fds->b, buildFrame(f) + buildFrame(shortBody).substr(0, 12 + 5) + "Z"));
    ASSERT_TRUE(getAlloc(&f));
    ORV_APP_MSG* app = nullptr;
    ASSERT_TRUE(sock->GetOrvMessageWithAppMsgMemAlloc(&ctl, app));
    ASSERT_NE(app, nullptr);
    EXPECT_EQ(ctl.getSize(), 5u);
    EXPECT_EQ(app->getAppSize(), 0u); // zero-filled beyond the five bytes read
    delete[] reinterpret_cast<char*>(app);
    char c = 0;
    unsigned got = 0;
    std::atomic<bool> done{false};
    std::thread reader([&] {
        sock->Read(&c, 1, &got);
        done = true;
    });
    const bool inTime = tavro_test::eventually([&] { return done.load(); });
    if (!inTime) sock->SignalShutdown(); // let a stuck reader go
    reader.join();
    EXPECT_TRUE(inTime);
    EXPECT_EQ(std::make_pair(c, got), std::make_pair('Z', 1u));

    // A new descriptor drops the bytes held for the old one.
    const FrameShape fresh = shape(12, 3);
    ASSERT_TRUE(writeAll(fds->b, buildFrame(shape(0)) + buildFrame(shape(0))));
    ASSERT_TRUE(get());
    ASSERT_TRUE(sock->ReadReady()); // the second frame is held
    FdPair other;
    sock->SetSocket(other.take());
    EXPECT_FALSE(sock->ReadReady());
    ASSERT_TRUE(writeAll(other.b, buildFrame(fresh)));
    ASSERT_TRUE(get());
    expectFrame(ctl, body.data(), fresh);
}

TEST_F(SocketFixture, BadHeadersArePurgedAndTheNextFrameIsRead)
{
    FrameShape zero, badMarker = shape(16), otherMarker;
    zero.sizeOverride = 0;
    badMarker.marker = 0x58585858; // "XXXX"
    otherMarker.marker = 0x01020304;
    const std::string zeroSize = "ReadCtlMsgCommon: IP[0.0.0.0] ORV_APP_MSG size (as provided in ORV_CTL_MSG) is 0.\n";
    const struct {
        const char* name;
        std::string bad;     // what the peer sends first
        std::string message; // expected trace line
        unsigned maxSize;    // 0: the allocating reader
    } cases[] = {
        {"wrong marker", buildFrame(badMarker),
         "ReadCtlMsgCommon: IP[0.0.0.0] Missing ORV_MSG_MARKER in ORV_CTL_MSG.  Expected [0x4D53473A] bytes.  "
         "Received [0x58585858] bytes.\n",
         kBuf},
        {"size zero with stale bytes", buildFrame(zero) + std::string(37, 'j'), zeroSize, kBuf},
        {"larger than the buffer", buildFrame(shape(200)),
         "ReadCtlMsg: IP[0.0.0.0] ORV_CTL_MSG size [228] (as provided in ORV_CTL_MSG) is larger than expected "
         "size[100]\n",
         100},
        {"allocating reader", buildFrame(otherMarker), "GetOrvMessageWithAppMsgMemAlloc: Purging socket...\n", 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        open();
        g_availCalls = 0;
        const FrameShape good = shape(30, 9);
        std::thread peer([&] {
            writeAll(fds->b, c.bad);
            // The good frame must arrive after the purge sampled the input.
            if (tavro_test::eventually([] { return g_availCalls.load() > 0; })) writeAll(fds->b, buildFrame(good));
            // A reader that lost its place fails at the end instead of waiting.
            fds->closeB();
        });
        TraceCapture cap;
        const bool ok = c.maxSize ? get(c.maxSize) : getAlloc(&good);
        peer.join();
        const std::string out = cap.text();
        ASSERT_TRUE(ok) << out;
        if (c.maxSize) {
            expectFrame(ctl, body.data(), good);
            EXPECT_EQ(countOf(out, "GetOrvMessage: Purging socket...\n"), 1u) << out;
        }
        EXPECT_EQ(countOf(out, c.message), 1u) << out;
        EXPECT_EQ(g_availCalls.load(), 1);
    }
}

// Peer close, shutdown, program end and bad arguments end a read frameless.
TEST_F(SocketFixture, ReadEndsWithoutAFrame)
{
    const std::string frame = buildFrame(shape(3000));
    for (std::size_t sent : {0, 5, 12 + 2100}) { // between frames, in the header, in the body
        SCOPED_TRACE(sent);
        open();
        ASSERT_TRUE(writeAll(fds->b, frame.data(), sent));
        fds->closeB();
        const std::string out = traced([&] { EXPECT_FALSE(get()); });
        EXPECT_TRUE(sock->HasError());
        EXPECT_TRUE(sock->Shuttingdown());
        EXPECT_EQ(sock->GetLastError(), 0);
        EXPECT_EQ(out, sent < 12 ? ""
                                 : "ReadAppMsg: IP[0.0.0.0] Reading ORV_APP_MSG failed. Wanted [980] bytes.  "
                                   "Read [52] bytes.\n");
    }
    // Close wakes a reader blocked far longer than this test may take.
    open();
    socketSeams().readyWaitMs = 60000;
    TraceCapture cap;
    std::thread stopper([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        sock->SignalShutdown();
        sock->Close();
    });
    EXPECT_FALSE(get());
    stopper.join();
    // The loop ends on the shutdown before it gets to purge.
    EXPECT_EQ(cap.text(),
              "ReadCtlMsgCommon: IP[0.0.0.0] Short ORV_CTL_MSG.  Expected [12] bytes.  Received [0] bytes.\n");

    open();
    EXPECT_FALSE(sock->GetOrvMessage(nullptr, reinterpret_cast<ORV_APP_MSG*>(body.data()), kBuf));
    EXPECT_FALSE(sock->GetOrvMessage(&ctl, nullptr, kBuf));
    EXPECT_FALSE(get(27)); // cannot even hold the application header
    ORV_APP_MSG* app = nullptr;
    EXPECT_FALSE(sock->GetOrvMessageWithAppMsgMemAlloc(nullptr, app));
    unsigned got = 0;
    char c;
    EXPECT_FALSE(sock->Read(&c, 0, &got));
    OsSocket unprepared;
    EXPECT_FALSE(unprepared.Read(&c, 1, &got));
    OsSocket::setProgramTerminating(true);
    traced([&] { EXPECT_FALSE(get()); });
    EXPECT_TRUE(sock->Shuttingdown());
}

// Four interrupts are retried after a pause each; the fifth in a row fails.
TEST_F(SocketFixture, FiveInterruptsInARowFailTheRead)
{
    const FrameShape f = shape(10);
    ASSERT_TRUE(writeAll(fds->b, buildFrame(f)));
    inject(4, EAGAIN);
    EXPECT_EQ(traced([&] { EXPECT_TRUE(get()); }), ""); // interrupt messages need their trace bit
    expectFrame(ctl, body.data(), f);
    EXPECT_EQ(g_sleeps.size(), 4u);
    EXPECT_FALSE(sock->HasError());

    ASSERT_TRUE(writeAll(fds->b, buildFrame(FrameShape())));
    inject(5, EINTR);
    g_sleeps.clear();
    char buf[12];
    unsigned got = 0;
    const std::string out =
        traced([&] { EXPECT_EQ(sock->readAllData(buf, sizeof buf, &got), -1); }, SOCK_TRACE_INTERRUPT);
    EXPECT_EQ(sock->GetLastError(), OsSocket::TOO_MANY_INTERRUPTS);
    EXPECT_TRUE(sock->HasError());
    EXPECT_TRUE(sock->Shuttingdown());
    EXPECT_EQ(g_sleeps, (std::vector<unsigned>(4, 250)));
    EXPECT_EQ(countOf(out, errText("readAllData: interrupt 1, errNum[", EINTR,
                                   "] is INTERRUPT_ERROR[4] or TRY_AGAIN_ERROR[11]\n")),
              1u)
        << out;
    EXPECT_EQ(countOf(out, "readAllData: interrupt "), 5u) << out;
    EXPECT_EQ(countOf(out, "readAllData: too many interrupts.  IP[0.0.0.0]\n"), 1u) << out;
    // Sticky: nothing more is read until a purge clears the flag.
    EXPECT_FALSE(sock->Read(buf, sizeof buf, &got));
    // Four interrupts before every single byte: never five in a row.
    open();
    ASSERT_TRUE(writeAll(fds->b, buildFrame(f)));
    inject(4, EINTR);
    g_interleave = true;
    g_sleeps.clear();
    ASSERT_TRUE(get());
    expectFrame(ctl, body.data(), f);
    EXPECT_EQ(g_sleeps.size(), 4u * (12 + 28 + 10));
}

// Other recv errors fail at once; a purge discards all and clears the error.
TEST_F(SocketFixture, WhatWaitsRecvErrorsAndPurge)
{
    // Some bytes already taken ahead by a read, more still in the kernel.
    ASSERT_TRUE(writeAll(fds->b, std::string(100, 'h')));
    char c[10];
    unsigned got = 0;
    ASSERT_TRUE(sock->Read(c, sizeof c, &got));
    ASSERT_TRUE(writeAll(fds->b, std::string(5000, 'p')));
    EXPECT_EQ(sock->waitForAllData(1), 90 + 5000);
    EXPECT_TRUE(sock->PurgeMessage());
    EXPECT_EQ(waiting(sock->GetSocket()), 0);
    EXPECT_FALSE(sock->ReadReady());
    EXPECT_TRUE(sock->PurgeMessage()); // nothing waiting is fine too

    ASSERT_TRUE(writeAll(fds->b, std::string(3000, 'p')));
    ASSERT_TRUE(sock->ReadReady());
    inject(1, ECONNRESET);
    EXPECT_EQ(traced([&] { EXPECT_FALSE(sock->Read(c, 1, &got)); }),
              errText("readAllData: recv() failed.  IP[0.0.0.0] errNum[", ECONNRESET));
    EXPECT_EQ(sock->GetLastError(), ECONNRESET);
    EXPECT_TRUE(g_sleeps.empty());
    EXPECT_TRUE(sock->HasError());
    EXPECT_TRUE(sock->PurgeMessage());
    EXPECT_FALSE(sock->HasError());
    // The shutdown signalled by the failure stays: nothing was read.
    EXPECT_EQ(waiting(sock->GetSocket()), 3000);

    open();
    EXPECT_FALSE(sock->ReadReady());
    EXPECT_EQ(sock->waitForAllData(4), 0);
    ASSERT_TRUE(writeAll(fds->b, "abcdef"));
    char buf[16];
    EXPECT_EQ(sock->ReadAvailableBytes(buf, 4), 4);
    EXPECT_EQ(std::string(buf, 4), "abcd");
    // The kernel has nothing left; the two bytes taken ahead still wait.
    EXPECT_EQ(waiting(sock->GetSocket()), 0);
    EXPECT_TRUE(sock->ReadReady());
    ASSERT_TRUE(writeAll(fds->b, "gh"));
    EXPECT_EQ(sock->waitForAllData(4), 4);
    EXPECT_EQ(sock->ReadAvailableBytes(buf, sizeof buf), 4);
    EXPECT_EQ(std::string(buf, 4), "efgh");

    // An interrupted FIONREAD is tolerated; other failures are errors.
    g_availFails = true;
    g_failErrno = EINTR;
    EXPECT_EQ(traced([&] { EXPECT_EQ(sock->waitForAllData(1), 0); }),
              errText("waitForAllData: errNum[", 4, "] is INTERRUPT_ERROR[4] or TRY_AGAIN_ERROR[11]\n"));
    EXPECT_FALSE(sock->HasError());
    g_failErrno = EBADF;
    const std::string out = traced(
        [&] {
            EXPECT_FALSE(sock->ReadReady());
            EXPECT_FALSE(sock->HasError()); // ReadReady only records the error
            EXPECT_EQ(sock->waitForAllData(1), -1);
        },
        SOCK_TRACE_INTERRUPT);
    EXPECT_TRUE(sock->HasError());
    EXPECT_EQ(countOf(out, "ReadReady: ioctlsocket(FIONREAD) failed.  IP[0.0.0.0]  rc[-1]  errNum["), 1u) << out;
    EXPECT_EQ(countOf(out, errText("waitForAllData: ioctlsocket(FIONREAD) failed.  IP[0.0.0.0]  rc[-1]  errNum[", EBADF,
                                   "  bytesAvail[0]\n")),
              1u);
}

// Short sends continue; interrupts and empty sends retry at once,
// would-blocks after a pause, five in a row at most.
TEST_F(SocketFixture, SendFaultsAreRetried)
{
    std::string data(70, '\0');
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i);
    TCP_BD bd{&data[0], 70, nullptr};
    const struct {
        int failures, err;
        size_t sendMax;
        unsigned mask;
        const char* message; // followed by the descriptor
        size_t times, pauses;
        unsigned calls;
    } cases[] = {
        {0, 0, 7, SOCK_TRACE_SEND_ERROR, "SendBD: Only sent nBytesSent[7] of nBytesToSend[70] on Socket[", 1, 0, 10},
        {12, EINTR, 0, 0, "SendBD: Retrying send that returned sockerr[4] (interrupt or try again) on Socket[", 12, 0,
         13},
        {3, 0, 0, SOCK_TRACE_SEND_ERROR, "SendBD: Zero bytes[0] sent on Socket[", 3, 0, 4},
        {5, EAGAIN, 0, 0, "SendBD: Retrying send that would have blocked on Socket[", 5, 5, 6}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        open();
        inject(c.failures, c.err);
        g_sendMax = c.sendMax;
        g_sleeps.clear();
        const std::string out = traced([&] { EXPECT_TRUE(sock->SendBD(&bd)); }, c.mask);
        EXPECT_EQ(countOf(out, onSocket(c.message, "]")), c.times) << out;
        EXPECT_EQ(g_sleeps, std::vector<unsigned>(c.pauses, 100));
        EXPECT_EQ(received(70), data);
        EXPECT_EQ(sock->MsgSent(), c.calls);
    }

    // The sixth would-block in a row fails the send, for good.
    inject(6, EAGAIN);
    g_sleeps.clear();
    const std::string out = traced([&] { EXPECT_FALSE(sock->SendBD(&bd)); }, SOCK_TRACE_SEND_ERROR);
    EXPECT_EQ(g_sleeps.size(), 5u);
    EXPECT_EQ(sock->GetLastError(), EAGAIN);
    EXPECT_TRUE(sock->HasError());
    EXPECT_TRUE(sock->Shuttingdown());
    const std::string failed =
        "SendBD: IP[0.0.0.0] pBD[" + testing::PrintToString(hex8(&bd)) + "] FAILED TO send nBytes[70] errNum[";
    EXPECT_EQ(countOf(out, errText(failed.c_str(), EAGAIN)), 1u) << out;
    EXPECT_EQ(countOf(out, "SendBD: Error sending nBytesToSend[70]"), 6u) << out;
    const unsigned calls = sock->MsgSent();
    EXPECT_FALSE(sock->SendBD(&bd));
    EXPECT_EQ(sock->MsgSent(), calls);
}

TEST_F(SocketFixture, OtherErrorsFailTheRestOfTheChainAndSignalShutdown)
{
    fds->closeB();
    char a[12] = {}, b[28] = {};
    TCP_BD bd2{b, 28, nullptr};
    TCP_BD bd1{a, 12, &bd2};
    EXPECT_EQ(traced([&] { EXPECT_FALSE(sock->SendBD(&bd1)); }), "");
    EXPECT_EQ(sock->GetLastError(), EPIPE);
    EXPECT_EQ(sock->MsgSent(), 1u);
    EXPECT_TRUE(sock->Shuttingdown());
    // Send signals the shutdown itself when SendBD refuses at once.
    OsSocket unprepared;
    EXPECT_FALSE(unprepared.Send("x", 1));
    EXPECT_TRUE(unprepared.Shuttingdown());
}

// More pieces than one gathered write takes, some empty, more bytes than the
// socket holds: writes resume mid-piece. The send mutex holds the chain back.
TEST_F(SocketFixture, LongChainWaitsForTheSendMutexAndArrivesWholeAndInOrder)
{
    std::vector<std::string> pieces(40);
    std::vector<TCP_BD> chain(40);
    std::string expected;
    for (std::size_t i = 0; i < 40; ++i) {
        pieces[i].resize(i % 7 == 3 ? 0 : 1000 + i * 4099);
        for (std::size_t k = 0; k < pieces[i].size(); ++k) pieces[i][k] = static_cast<char>(k * 31 + i);
        expected += pieces[i];
        chain[i] = TCP_BD{&pieces[i][0], static_cast<std::int32_t>(pieces[i].size()), i < 39 ? &chain[i + 1] : nullptr};
    }
    ASSERT_TRUE(sock->LockSendMutex());
    std::atomic<bool> sent{false};
    std::thread other([&] { sent = sock->SendBD(chain.data()); });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(waiting(fds->b), 0); // blocked on the mutex
    sock->ReleaseSendMutex();
    const std::string got = received(expected.size());
    other.join();
    EXPECT_TRUE(sent.load());
    EXPECT_TRUE(got == expected);
    EXPECT_GE(sock->MsgSent(), 34u); // at least one count per piece that is not empty
}
