// Frame readers and the writer against real connected sockets, with the
// system calls replaced where a fault has to be injected.
#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Common/OS/SocketTestSupport.h"

using namespace sock_test;

namespace {

constexpr unsigned kBuf = 16384;

struct ReaderFixture : testing::Test {
    SeamGuard seams;
    FdPair fds;
    std::unique_ptr<OsSocket> sock;
    std::vector<char> body = std::vector<char>(kBuf);
    ORV_CTL_MSG ctl;

    void open(bool tcp = false)
    {
        if (tcp)
            tcpPair(fds);
        else
            unixPair(fds);
        sock.reset(new OsSocket());
        sock->SetSocket(fds.a);
        fds.a = -1; // owned by the socket now
    }
    bool get(unsigned maxSize = kBuf)
    {
        return sock->GetOrvMessage(&ctl, reinterpret_cast<ORV_APP_MSG*>(body.data()), maxSize);
    }
};

// --- recv/send/FIONREAD replacements ---------------------------------------

std::atomic<int> g_failures{0};
std::atomic<int> g_failErrno{EINTR};
std::vector<size_t> g_recvLens;
std::vector<unsigned> g_sleeps;

ssize_t failingRecv(int fd, void* buf, size_t len, int flags)
{
    if (g_failures.load() > 0) {
        --g_failures;
        errno = g_failErrno.load();
        return -1;
    }
    return ::recv(fd, buf, len, flags);
}

std::atomic<unsigned> g_recvCalls{0};
ssize_t interleavedRecv(int fd, void* buf, size_t len, int flags)
{
    if (++g_recvCalls % 5 != 0) {
        errno = EINTR;
        return -1;
    }
    return ::recv(fd, buf, len < 1 ? len : 1, flags);
}

ssize_t recordingRecv(int fd, void* buf, size_t len, int flags)
{
    g_recvLens.push_back(len);
    return ::recv(fd, buf, len, flags);
}

ssize_t failingSend(int fd, const void* buf, size_t len, int flags)
{
    if (g_failures.load() > 0) {
        --g_failures;
        errno = g_failErrno.load();
        return -1;
    }
    return ::send(fd, buf, len, flags | MSG_NOSIGNAL);
}

std::atomic<int> g_zeroSends{0};
ssize_t zeroThenSend(int fd, const void* buf, size_t len, int flags)
{
    if (g_zeroSends.load() > 0) {
        --g_zeroSends;
        return 0;
    }
    return ::send(fd, buf, len, flags | MSG_NOSIGNAL);
}

// Sends at most 7 bytes per call: every descriptor goes out in short pieces.
ssize_t shortSend(int fd, const void* buf, size_t len, int flags)
{
    return ::send(fd, buf, len < 7 ? len : 7, flags | MSG_NOSIGNAL);
}

void recordSleep(unsigned ms)
{
    g_sleeps.push_back(ms);
}

std::atomic<int> g_availCalls{0};
int countingAvail(int fd, int* n)
{
    const int rc = ::ioctl(fd, FIONREAD, n);
    ++g_availCalls;
    return rc;
}

int failingAvail(int, int* n)
{
    *n = 0;
    errno = g_failErrno.load();
    return -1;
}

// Waits (bounded) until the reader has sampled FIONREAD count times, i.e.
// purged that often.
bool waitPurges(int count)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (g_availCalls.load() < count)
        if (std::chrono::steady_clock::now() > end)
            return false;
        else
            std::this_thread::sleep_for(std::chrono::microseconds(50));
    return true;
}

} // namespace

// --- well-formed frames -----------------------------------------------------

TEST_F(ReaderFixture, FramesInBothByteOrdersAreReadIntoHostOrder)
{
    open(true);
    const std::vector<FrameSpec> frames = {
        {Order::Big, kMarker, 1, 10002, 7, 0, 1},     {Order::Little, kMarker, 2, 10003, 8, 0, 2},
        {Order::Big, kMarker, 3, 20001, 9, 100, 3},   {Order::Little, kMarker, 11, 110002, 10, 5000, 4},
        {Order::Big, kMarker, 4, 40010, 11, 2048, 5}, {Order::Little, kMarker, 5, 40010, 12, 2049, 6},
    };
    std::string stream;
    for (const auto& f : frames) stream += buildFrame(f);
    ASSERT_TRUE(writeAll(fds.b, stream));
    for (const auto& f : frames) {
        SCOPED_TRACE(f.payload);
        ASSERT_TRUE(get());
        expectFrame(ctl, body.data(), f);
    }
}

// The reader asks for the header, then for the body in pieces of at most
// 2048 bytes (the CONNECT bit traces each request); a frame that is all
// waiting still costs a single recv.
TEST_F(ReaderFixture, BodyIsRequestedInPiecesOf2048)
{
    struct Case {
        std::uint32_t payload;
        std::vector<unsigned> requests;
    };
    const std::vector<Case> cases = {
        {0, {12, 28}},
        {2048 - 28, {12, 2048}},
        {5000 - 28, {12, 2048, 2048, 904}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.payload);
        FdPair local;
        unixPair(local);
        OsSocket s;
        s.SetSocket(local.a);
        local.a = -1;
        FrameSpec f;
        f.order = hostOrder();
        f.payload = c.payload;
        ASSERT_TRUE(writeAll(local.b, buildFrame(f)));
        g_recvLens.clear();
        tavro_internal::socketSeams().recvFn = recordingRecv;
        socketTraceFeature().SetMask(SOCK_TRACE_CONNECT);
        TraceCapture cap;
        std::vector<char> buf(kBuf);
        ORV_CTL_MSG hdr;
        ASSERT_TRUE(s.GetOrvMessage(&hdr, reinterpret_cast<ORV_APP_MSG*>(buf.data()), kBuf));
        const std::string out = cap.text();
        expectFrame(hdr, buf.data(), f);
        std::string want;
        for (unsigned n : c.requests) want += "readAllData: IP[0.0.0.0] nRequestedBytes[" + std::to_string(n) + "]\n";
        EXPECT_EQ(out, want);
        EXPECT_EQ(g_recvLens.size(), 1u);
    }
}

TEST_F(ReaderFixture, WaitingFramesShareOneRecv)
{
    open();
    std::string stream;
    std::vector<FrameSpec> frames;
    for (std::uint32_t i = 0; i < 300; ++i) {
        FrameSpec f;
        f.seqNbr = i;
        f.tag = i;
        f.payload = i % 7;
        f.order = (i % 2) ? Order::Big : Order::Little;
        frames.push_back(f);
        stream += buildFrame(f);
    }
    ASSERT_LT(stream.size(), OsSocket::READ_AHEAD_SIZE);
    ASSERT_TRUE(writeAll(fds.b, stream));
    g_recvLens.clear();
    tavro_internal::socketSeams().recvFn = recordingRecv;
    for (const auto& f : frames) {
        ASSERT_TRUE(get());
        expectFrame(ctl, body.data(), f);
    }
    EXPECT_EQ(g_recvLens.size(), 1u);
    EXPECT_FALSE(sock->ReadReady()); // nothing held back
}

// A body larger than the read-ahead is received straight into the caller's
// buffer, as much of it as waits, never past the body's end.
TEST_F(ReaderFixture, LargeBodyIsReceivedInPlace)
{
    open();
    const int big = 1 << 20;
    ASSERT_EQ(::setsockopt(fds.b, SOL_SOCKET, SO_SNDBUF, &big, sizeof big), 0);
    FrameSpec f;
    f.payload = 200000;
    FrameSpec next;
    next.payload = 5;
    next.tag = 3;
    const std::string frame = buildFrame(f);
    ASSERT_TRUE(writeAll(fds.b, frame + buildFrame(next)));
    g_recvLens.clear();
    tavro_internal::socketSeams().recvFn = recordingRecv;
    std::vector<char> buf(frame.size());
    ASSERT_TRUE(sock->GetOrvMessage(&ctl, reinterpret_cast<ORV_APP_MSG*>(buf.data()), frame.size()));
    expectFrame(ctl, buf.data(), f);
    ASSERT_TRUE(get());
    expectFrame(ctl, body.data(), next);
    const std::vector<size_t> want = {OsSocket::READ_AHEAD_SIZE, frame.size() - OsSocket::READ_AHEAD_SIZE,
                                      OsSocket::READ_AHEAD_SIZE};
    EXPECT_EQ(g_recvLens, want);
}

// The same when the body trickles in after its headers: the reader keeps
// asking for the rest until the body is whole.
TEST_F(ReaderFixture, LargeBodyArrivingInPiecesAfterItsHeaders)
{
    open();
    FrameSpec f;
    f.payload = 3 * OsSocket::READ_AHEAD_SIZE + 123;
    f.order = Order::Little;
    const std::string frame = buildFrame(f);
    ASSERT_TRUE(writeAll(fds.b, frame.substr(0, 40 + 10)));
    std::thread writer([&] {
        for (std::size_t at = 50; at < frame.size(); at += 5000) {
            std::this_thread::yield();
            writeAll(fds.b, frame.substr(at, 5000));
        }
    });
    std::vector<char> buf(frame.size());
    const bool ok = sock->GetOrvMessage(&ctl, reinterpret_cast<ORV_APP_MSG*>(buf.data()), unsigned(frame.size()));
    writer.join();
    ASSERT_TRUE(ok);
    expectFrame(ctl, buf.data(), f);
}

// A byte held ahead is ready at once: Read must not wait for the kernel
// to report more (here nothing more ever comes).
TEST_F(ReaderFixture, ByteHeldAheadIsReadWithoutWaiting)
{
    open();
    FrameSpec f;
    f.payload = 3;
    ASSERT_TRUE(writeAll(fds.b, buildFrame(f) + "Z"));
    ASSERT_TRUE(get());
    char c = 0;
    unsigned got = 0;
    std::atomic<bool> done{false};
    std::thread reader([&] {
        sock->Read(&c, 1, &got);
        done = true;
    });
    for (int i = 0; i < 10000 && !done; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const bool inTime = done.load();
    if (!inTime) sock->SignalShutdown(); // let a stuck reader go
    reader.join();
    EXPECT_TRUE(inTime);
    EXPECT_EQ(std::make_pair(c, got), std::make_pair('Z', 1u));
}

TEST_F(ReaderFixture, LinkTestHeadersAreSkippedWithoutPurging)
{
    open();
    g_availCalls = 0;
    tavro_internal::socketSeams().availFn = countingAvail;
    FrameSpec f;
    f.payload = 40;
    ASSERT_TRUE(writeAll(fds.b, linkTestHeader(Order::Big) + linkTestHeader(Order::Little) + buildFrame(f)));
    TraceCapture cap;
    ASSERT_TRUE(get());
    const std::string out = cap.text();
    expectFrame(ctl, body.data(), f);
    EXPECT_EQ(countOf(out, "ReadCtlMsgCommon: IP[0.0.0.0] Test msg\n"), 2u) << out;
    EXPECT_EQ(g_availCalls.load(), 0);
}

TEST_F(ReaderFixture, AllocatingReaderSizesTheBodyExactly)
{
    open();
    FrameSpec f;
    f.order = otherOrder();
    f.payload = 3000;
    ASSERT_TRUE(writeAll(fds.b, buildFrame(f)));
    ORV_APP_MSG* app = reinterpret_cast<ORV_APP_MSG*>(1); // must be reset
    ASSERT_TRUE(sock->GetOrvMessageWithAppMsgMemAlloc(&ctl, app));
    ASSERT_NE(app, nullptr);
    expectFrame(ctl, reinterpret_cast<char*>(app), f);
    delete[] reinterpret_cast<char*>(app);
}

TEST_F(ReaderFixture, AllocatingReaderGivesAShortBodyAWholeHeader)
{
    open();
    FrameSpec f;
    f.sizeOverride = 5; // fewer bytes than an application header
    std::string wire = buildFrame(f).substr(0, 12 + 5);
    ASSERT_TRUE(writeAll(fds.b, wire));
    ORV_APP_MSG* app = nullptr;
    ASSERT_TRUE(sock->GetOrvMessageWithAppMsgMemAlloc(&ctl, app));
    ASSERT_NE(app, nullptr);
    EXPECT_EQ(ctl.getSize(), 5u);
    EXPECT_EQ(app->getAppSize(), 0u); // zero-filled beyond the five bytes read
    delete[] reinterpret_cast<char*>(app);
}

// --- bad headers: message, purge, and the next frame still arrives ----------

struct BadHeaderCase {
    const char* name;
    std::string bad;     // what the peer sends first
    const char* message; // expected trace line
    unsigned maxSize;
};

TEST_F(ReaderFixture, BadHeadersArePurgedAndTheNextFrameIsRead)
{
    FrameSpec oversize;
    oversize.payload = 200;
    FrameSpec zero;
    zero.sizeOverride = 0;
    FrameSpec badMarker;
    badMarker.marker = 0x58585858; // "XXXX"
    badMarker.payload = 16;
    const std::string junk(37, 'j');

    std::ostringstream missing;
    missing << "ReadCtlMsgCommon: IP[0.0.0.0] Missing ORV_MSG_MARKER in ORV_CTL_MSG.  Expected [0x4D53473A] bytes.  "
               "Received [0x58585858] bytes.\n";
    const std::vector<BadHeaderCase> cases = {
        {"wrong marker", buildFrame(badMarker), nullptr, kBuf},
        {"size zero with stale bytes", buildFrame(zero) + junk,
         "ReadCtlMsgCommon: IP[0.0.0.0] ORV_APP_MSG size (as provided in ORV_CTL_MSG) is 0.\n", kBuf},
        {"size zero alone", buildFrame(zero).substr(0, 12),
         "ReadCtlMsgCommon: IP[0.0.0.0] ORV_APP_MSG size (as provided in ORV_CTL_MSG) is 0.\n", kBuf},
        {"larger than the buffer", buildFrame(oversize),
         "ReadCtlMsg: IP[0.0.0.0] ORV_CTL_MSG size [228] (as provided in ORV_CTL_MSG) is larger than expected "
         "size[100]\n",
         100},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        FdPair local;
        unixPair(local);
        OsSocket s;
        s.SetSocket(local.a);
        local.a = -1;
        g_availCalls = 0;
        tavro_internal::socketSeams().availFn = countingAvail;

        FrameSpec good;
        good.payload = 30;
        good.tag = 9;
        std::thread peer([&] {
            writeAll(local.b, c.bad);
            // The good frame must arrive after the purge sampled the input.
            if (waitPurges(1)) writeAll(local.b, buildFrame(good));
            // A reader that lost its place fails at the end instead of waiting.
            local.closeB();
        });
        TraceCapture cap;
        std::vector<char> buf(kBuf);
        ORV_CTL_MSG hdr;
        const bool ok = s.GetOrvMessage(&hdr, reinterpret_cast<ORV_APP_MSG*>(buf.data()), c.maxSize);
        peer.join();
        const std::string out = cap.text();
        ASSERT_TRUE(ok) << out;
        expectFrame(hdr, buf.data(), good);
        EXPECT_EQ(countOf(out, "GetOrvMessage: Purging socket...\n"), 1u) << out;
        EXPECT_EQ(countOf(out, c.message ? c.message : missing.str()), 1u) << out;
        EXPECT_EQ(g_availCalls.load(), 1);
    }
}

TEST_F(ReaderFixture, AllocatingReaderNamesItselfWhenPurging)
{
    open();
    g_availCalls = 0;
    tavro_internal::socketSeams().availFn = countingAvail;
    FrameSpec bad;
    bad.marker = 0x01020304;
    FrameSpec good;
    good.payload = 3;
    std::thread peer([&] {
        writeAll(fds.b, buildFrame(bad));
        if (waitPurges(1)) writeAll(fds.b, buildFrame(good));
    });
    TraceCapture cap;
    ORV_APP_MSG* app = nullptr;
    const bool ok = sock->GetOrvMessageWithAppMsgMemAlloc(&ctl, app);
    peer.join();
    const std::string out = cap.text();
    ASSERT_TRUE(ok);
    expectFrame(ctl, reinterpret_cast<char*>(app), good);
    delete[] reinterpret_cast<char*>(app);
    EXPECT_EQ(countOf(out, "GetOrvMessageWithAppMsgMemAlloc: Purging socket...\n"), 1u) << out;
}

// Stops the program after the first recv into a body buffer.
ssize_t terminatingRecv(int fd, void* buf, size_t len, int flags)
{
    const ssize_t n = ::recv(fd, buf, len, flags);
    if (len > OsSocket::READ_AHEAD_SIZE) OsSocket::setProgramTerminating(true);
    return n;
}

// A frame left unfinished (here: the program stops between two pieces)
// must not lose the bytes already received for the rest of its body: the
// next read continues the stream exactly where the kernel would have.
TEST_F(ReaderFixture, UnfinishedBodyKeepsItsRestForTheNextRead)
{
    open();
    const int big = 1 << 20;
    ASSERT_EQ(::setsockopt(fds.b, SOL_SOCKET, SO_SNDBUF, &big, sizeof big), 0);
    FrameSpec f;
    f.payload = 200000;
    const std::string frame = buildFrame(f);
    ASSERT_TRUE(writeAll(fds.b, frame));
    ASSERT_EQ(waiting(sock->GetSocket()), static_cast<int>(frame.size()));
    tavro_internal::socketSeams().recvFn = terminatingRecv;
    std::vector<char> buf(frame.size());
    EXPECT_FALSE(sock->GetOrvMessage(&ctl, reinterpret_cast<ORV_APP_MSG*>(buf.data()), frame.size()));
    OsSocket::setProgramTerminating(false);
    tavro_internal::socketSeams().recvFn = recordingRecv;
    g_recvLens.clear();

    // Everything was received; more than a read-ahead's worth is held.
    EXPECT_EQ(waiting(sock->GetSocket()), 0);
    const int held = sock->waitForAllData(1);
    ASSERT_GT(held, static_cast<int>(OsSocket::READ_AHEAD_SIZE));
    EXPECT_TRUE(sock->ReadReady());
    std::string rest(static_cast<std::size_t>(held), '\0');
    unsigned got = 0;
    EXPECT_EQ(sock->readAllData(&rest[0], static_cast<unsigned>(held), &got), held);
    EXPECT_TRUE(rest == frame.substr(frame.size() - static_cast<std::size_t>(held))) << "stream cut";
    EXPECT_TRUE(g_recvLens.empty());

    FrameSpec next;
    next.payload = 9;
    next.tag = 4;
    ASSERT_TRUE(writeAll(fds.b, buildFrame(next)));
    ASSERT_TRUE(get());
    expectFrame(ctl, body.data(), next);
}

TEST_F(ReaderFixture, NewDescriptorDropsBytesHeldForTheOldOne)
{
    open();
    FrameSpec first, stale, fresh;
    first.tag = 1;
    stale.tag = 2;
    stale.seqNbr = 2;
    fresh.tag = 3;
    fresh.seqNbr = 3;
    fresh.payload = 12;
    ASSERT_TRUE(writeAll(fds.b, buildFrame(first) + buildFrame(stale)));
    ASSERT_TRUE(get());
    expectFrame(ctl, body.data(), first);
    ASSERT_TRUE(sock->ReadReady()); // the second frame is held

    FdPair other;
    unixPair(other);
    sock->SetSocket(other.a);
    other.a = -1;
    EXPECT_FALSE(sock->ReadReady());
    ASSERT_TRUE(writeAll(other.b, buildFrame(fresh)));
    ASSERT_TRUE(get());
    expectFrame(ctl, body.data(), fresh);
}

// --- the peer goes away ------------------------------------------------------

TEST_F(ReaderFixture, PeerClosingEndsTheReadWithoutAFrame)
{
    FrameSpec f;
    f.payload = 3000;
    const std::string frame = buildFrame(f);
    struct Case {
        const char* name;
        std::size_t sent;
        bool message;
    };
    for (const Case& c : {Case{"between frames", 0, false}, Case{"inside the header", 5, false},
                          Case{"inside the body", 12 + 2100, true}}) {
        SCOPED_TRACE(c.name);
        FdPair local;
        unixPair(local);
        OsSocket s;
        s.SetSocket(local.a);
        local.a = -1;
        ASSERT_TRUE(writeAll(local.b, frame.data(), c.sent));
        local.closeB();
        TraceCapture cap;
        std::vector<char> buf(kBuf);
        ORV_CTL_MSG hdr;
        EXPECT_FALSE(s.GetOrvMessage(&hdr, reinterpret_cast<ORV_APP_MSG*>(buf.data()), kBuf));
        const std::string out = cap.text();
        EXPECT_TRUE(s.HasError());
        EXPECT_TRUE(s.Shuttingdown());
        EXPECT_EQ(s.GetLastError(), 0);
        if (c.message)
            EXPECT_EQ(out,
                      "ReadAppMsg: IP[0.0.0.0] Reading ORV_APP_MSG failed. Wanted [980] bytes.  Read [52] bytes.\n");
        else
            EXPECT_EQ(out, "");
    }
}

TEST_F(ReaderFixture, ShutdownWhileWaitingEndsTheReadAsAShortHeader)
{
    open();
    TraceCapture cap;
    std::thread stopper([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        sock->SignalShutdown();
    });
    EXPECT_FALSE(get());
    stopper.join();
    // The loop ends on the shutdown before it gets to purge.
    EXPECT_EQ(cap.text(),
              "ReadCtlMsgCommon: IP[0.0.0.0] Short ORV_CTL_MSG.  Expected [12] bytes.  Received [0] bytes.\n");
}

TEST_F(ReaderFixture, ProgramTerminatingStopsTheReader)
{
    open();
    OsSocket::setProgramTerminating(true);
    TraceCapture cap;
    EXPECT_FALSE(get());
    cap.text();
    EXPECT_TRUE(sock->Shuttingdown());
}

TEST_F(ReaderFixture, BadArgumentsAreRefused)
{
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
}

// --- interrupted reads -------------------------------------------------------

TEST_F(ReaderFixture, FiveInterruptsInARowFailTheRead)
{
    for (int err : {EINTR, EAGAIN}) {
        SCOPED_TRACE(err);
        FdPair local;
        unixPair(local);
        OsSocket s;
        s.SetSocket(local.a);
        local.a = -1;
        ASSERT_TRUE(writeAll(local.b, buildFrame(FrameSpec())));
        g_failures = 5;
        g_failErrno = err;
        g_sleeps.clear();
        tavro_internal::socketSeams().recvFn = failingRecv;
        tavro_internal::socketSeams().sleepMs = recordSleep;
        socketTraceFeature().SetMask(SOCK_TRACE_INTERRUPT);
        TraceCapture cap;
        char buf[12];
        unsigned got = 0;
        EXPECT_EQ(s.readAllData(buf, sizeof buf, &got), -1);
        const std::string out = cap.text();
        EXPECT_EQ(s.GetLastError(), OsSocket::TOO_MANY_INTERRUPTS);
        EXPECT_TRUE(s.HasError());
        EXPECT_TRUE(s.Shuttingdown());
        EXPECT_EQ(g_sleeps, (std::vector<unsigned>(4, 250)));
        std::ostringstream first;
        first << "readAllData: interrupt 1, errNum[" << err << "] " << gai_strerror(err)
              << "] is INTERRUPT_ERROR[4] or TRY_AGAIN_ERROR[11]\n";
        EXPECT_EQ(countOf(out, first.str()), 1u) << out;
        EXPECT_EQ(countOf(out, "readAllData: interrupt "), 5u) << out;
        EXPECT_EQ(countOf(out, "readAllData: too many interrupts.  IP[0.0.0.0]\n"), 1u) << out;
        // Sticky: nothing more is read until a purge clears the flag.
        EXPECT_FALSE(s.Read(buf, sizeof buf, &got));
    }
}

TEST_F(ReaderFixture, InterruptsBelowTheLimitAreRetried)
{
    open();
    FrameSpec f;
    f.payload = 10;
    ASSERT_TRUE(writeAll(fds.b, buildFrame(f)));
    g_failures = 4;
    g_failErrno = EINTR;
    g_sleeps.clear();
    tavro_internal::socketSeams().recvFn = failingRecv;
    tavro_internal::socketSeams().sleepMs = recordSleep;
    TraceCapture cap;
    ASSERT_TRUE(get());
    EXPECT_EQ(cap.text(), ""); // interrupt messages need their trace bit
    expectFrame(ctl, body.data(), f);
    EXPECT_EQ(g_sleeps.size(), 4u);
    EXPECT_FALSE(sock->HasError());
}

// Four interrupts before every single byte: never five in a row.
TEST_F(ReaderFixture, InterruptCountRestartsAfterEveryByte)
{
    open();
    FrameSpec f;
    f.payload = 3;
    ASSERT_TRUE(writeAll(fds.b, buildFrame(f)));
    g_sleeps.clear();
    tavro_internal::socketSeams().recvFn = interleavedRecv;
    tavro_internal::socketSeams().sleepMs = recordSleep;
    ASSERT_TRUE(get());
    expectFrame(ctl, body.data(), f);
    EXPECT_EQ(g_sleeps.size(), 4u * (12 + 28 + 3));
}

TEST_F(ReaderFixture, OtherRecvErrorsFailAtOnceWithTheirText)
{
    open();
    ASSERT_TRUE(writeAll(fds.b, "x"));
    g_failures = 1;
    g_failErrno = ECONNRESET;
    g_sleeps.clear();
    tavro_internal::socketSeams().recvFn = failingRecv;
    tavro_internal::socketSeams().sleepMs = recordSleep;
    TraceCapture cap;
    char c;
    unsigned got = 0;
    EXPECT_FALSE(sock->Read(&c, 1, &got));
    std::ostringstream want;
    want << "readAllData: recv() failed.  IP[0.0.0.0] errNum[" << ECONNRESET << "] " << gai_strerror(ECONNRESET)
         << "\n";
    EXPECT_EQ(cap.text(), want.str());
    EXPECT_EQ(sock->GetLastError(), ECONNRESET);
    EXPECT_TRUE(g_sleeps.empty());
}

TEST_F(ReaderFixture, PurgeClearsTheStickyErrorAndDiscardsWhatWaits)
{
    open();
    ASSERT_TRUE(writeAll(fds.b, std::string(3000, 'p')));
    ASSERT_TRUE(sock->ReadReady());
    g_failures = 1;
    g_failErrno = EIO;
    tavro_internal::socketSeams().recvFn = failingRecv;
    char c;
    unsigned got = 0;
    TraceCapture cap;
    EXPECT_FALSE(sock->Read(&c, 1, &got));
    cap.text();
    EXPECT_TRUE(sock->HasError());
    EXPECT_TRUE(sock->PurgeMessage());
    EXPECT_FALSE(sock->HasError());
    // The shutdown signalled by the failure stays: nothing was read.
    EXPECT_EQ(waiting(sock->GetSocket()), 3000);
}

TEST_F(ReaderFixture, PurgeDiscardsEverythingWaiting)
{
    open();
    // Some bytes already taken ahead by a read, more still in the kernel.
    ASSERT_TRUE(writeAll(fds.b, std::string(100, 'h')));
    char c[10];
    unsigned got = 0;
    ASSERT_TRUE(sock->Read(c, sizeof c, &got));
    ASSERT_TRUE(writeAll(fds.b, std::string(5000, 'p')));
    EXPECT_EQ(sock->waitForAllData(1), 90 + 5000);
    EXPECT_TRUE(sock->PurgeMessage());
    EXPECT_EQ(waiting(sock->GetSocket()), 0);
    EXPECT_FALSE(sock->ReadReady());
    EXPECT_EQ(sock->waitForAllData(1), 0);
    EXPECT_TRUE(sock->PurgeMessage()); // nothing waiting is fine too
}

TEST_F(ReaderFixture, ReadReadyAndWaitForAllDataReportWhatWaits)
{
    open();
    EXPECT_FALSE(sock->ReadReady());
    EXPECT_EQ(sock->waitForAllData(4), 0);
    ASSERT_TRUE(writeAll(fds.b, "abcdef"));
    EXPECT_TRUE(sock->ReadReady());
    EXPECT_EQ(sock->waitForAllData(4), 6);
    char buf[16];
    EXPECT_EQ(sock->ReadAvailableBytes(buf, 4), 4);
    EXPECT_EQ(std::string(buf, 4), "abcd");
    // The kernel has nothing left; the two bytes taken ahead still wait.
    EXPECT_EQ(waiting(sock->GetSocket()), 0);
    EXPECT_TRUE(sock->ReadReady());
    EXPECT_EQ(sock->waitForAllData(2), 2);
    ASSERT_TRUE(writeAll(fds.b, "gh"));
    EXPECT_EQ(sock->waitForAllData(4), 4);
    EXPECT_EQ(sock->ReadAvailableBytes(buf, sizeof buf), 4);
    EXPECT_EQ(std::string(buf, 4), "efgh");

    socketTraceFeature().SetMask(SOCK_TRACE_INTERRUPT);
    g_failErrno = EBADF;
    tavro_internal::socketSeams().availFn = failingAvail;
    TraceCapture cap;
    EXPECT_FALSE(sock->ReadReady());
    EXPECT_FALSE(sock->HasError()); // ReadReady only records the error
    EXPECT_EQ(sock->waitForAllData(1), -1);
    EXPECT_TRUE(sock->HasError());
    std::ostringstream want;
    want << "ReadReady: ioctlsocket(FIONREAD) failed.  IP[0.0.0.0]  rc[-1]  errNum[" << EBADF << "] "
         << gai_strerror(EBADF) << "  bytesAvail[0]\n"
         << "waitForAllData: ioctlsocket(FIONREAD) failed.  IP[0.0.0.0]  rc[-1]  errNum[" << EBADF << "] "
         << gai_strerror(EBADF) << "  bytesAvail[0]\n";
    EXPECT_EQ(cap.text(), want.str());
}

TEST_F(ReaderFixture, WaitForAllDataToleratesInterrupts)
{
    open();
    g_failErrno = EINTR;
    tavro_internal::socketSeams().availFn = failingAvail;
    TraceCapture cap;
    EXPECT_EQ(sock->waitForAllData(1), 0);
    std::ostringstream want;
    want << "waitForAllData: errNum[4] " << gai_strerror(4) << "] is INTERRUPT_ERROR[4] or TRY_AGAIN_ERROR[11]\n";
    EXPECT_EQ(cap.text(), want.str());
    EXPECT_FALSE(sock->HasError());
}

TEST_F(ReaderFixture, WaitTraceBitsReportTheWaitOutcome)
{
    open();
    ASSERT_TRUE(writeAll(fds.b, "z"));
    socketTraceFeature().SetMask(SOCK_TRACE_WAIT_EXIT | SOCK_TRACE_CONNECT);
    TraceCapture cap;
    char c;
    unsigned got = 0;
    EXPECT_TRUE(sock->Read(&c, 1, &got));
    EXPECT_EQ(cap.text(),
              "waitForReadySocket: IP[0.0.0.0] nReadySockets[1] Shuttingdown()[false] bSockErr[false]\n"
              "readAllData: IP[0.0.0.0] nRequestedBytes[1]\n");
}

TEST_F(ReaderFixture, RawDumpBitDumpsHeaderAndFirstPiece)
{
    open();
    FrameSpec f;
    f.order = Order::Big;
    f.payload = 50;
    ASSERT_TRUE(writeAll(fds.b, buildFrame(f)));
    socketTraceFeature().SetMask(SOCK_TRACE_RAW);
    TraceCapture cap;
    ASSERT_TRUE(get());
    const std::string out = cap.text();
    EXPECT_EQ(countOf(out, "ReadCtlMsgCommon: raw[12] bytes\n  0000  4D 53 47 3A 00 00 00 01 00 00 00 4E"), 1u) << out;
    EXPECT_EQ(countOf(out, "ReadAppMsg: raw[32] bytes\n  0000  43 4D 44 3A"), 1u) << out;
}

// --- the writer --------------------------------------------------------------

struct WriterFixture : testing::Test {
    SeamGuard seams;
    FdPair fds;
    std::unique_ptr<OsSocket> sock;
    void SetUp() override
    {
        unixPair(fds);
        sock.reset(new OsSocket());
        sock->SetSocket(fds.a);
        fds.a = -1;
        g_sleeps.clear();
        tavro_internal::socketSeams().sleepMs = recordSleep;
    }
    std::string received(std::size_t n)
    {
        std::string s(n, '\0');
        EXPECT_TRUE(readAll(fds.b, &s[0], n));
        return s;
    }
};

TEST_F(WriterFixture, ChainIsSentInOrder)
{
    char a[] = "header12byte";
    char b[] = "app-header-of-twenty-eight!";
    char c[] = "payload";
    TCP_BD bd3{c, 7, nullptr};
    TCP_BD bd2{b, 28, &bd3};
    TCP_BD bd1{a, 12, &bd2};
    ASSERT_TRUE(sock->SendBD(&bd1));
    EXPECT_EQ(received(47), std::string(a, 12) + std::string(b, 28) + std::string(c, 7));
    EXPECT_EQ(sock->MsgSent(), 3u);
}

TEST_F(WriterFixture, LongChainLargerThanTheSocketBufferArrivesWholeAndInOrder)
{
    // More pieces than one gathered write takes, empty ones among them, and
    // more bytes than the socket holds: partial writes must resume mid-piece.
    std::vector<std::string> pieces;
    std::vector<TCP_BD> chain;
    std::string expected;
    for (int i = 0; i < 40; ++i) {
        const std::size_t size = i % 7 == 3 ? 0 : 1000 + std::size_t(i) * 4099;
        std::string p(size, '\0');
        for (std::size_t k = 0; k < size; ++k) p[k] = static_cast<char>(k * 31 + std::size_t(i));
        expected += p;
        pieces.push_back(std::move(p));
    }
    chain.resize(pieces.size());
    for (std::size_t i = 0; i < pieces.size(); ++i)
        chain[i] = TCP_BD{&pieces[i][0], static_cast<std::int32_t>(pieces[i].size()),
                          i + 1 < pieces.size() ? &chain[i + 1] : nullptr};
    std::string got;
    std::thread reader([&] { got = received(expected.size()); });
    const bool sent = sock->SendBD(chain.data());
    reader.join();
    EXPECT_TRUE(sent);
    EXPECT_TRUE(got == expected);
}

TEST_F(WriterFixture, ShortSendsAreContinued)
{
    tavro_internal::socketSeams().sendFn = shortSend;
    std::string data(100, 'q');
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i);
    socketTraceFeature().SetMask(SOCK_TRACE_SEND_ERROR);
    TraceCapture cap;
    ASSERT_TRUE(sock->Send(data.data(), 30));
    cap.text(); // Send mutes the optional trace
    TraceCapture cap2;
    TCP_BD bd{&data[30], 70, nullptr};
    ASSERT_TRUE(sock->SendBD(&bd));
    const std::string out = cap2.text();
    EXPECT_EQ(received(100), data);
    const int fd = sock->GetSocket();
    std::ostringstream first;
    first << "SendBD: Only sent nBytesSent[7] of nBytesToSend[70] on Socket[" << fd
          << "].  Potential timeout coming?\n";
    EXPECT_EQ(countOf(out, first.str()), 1u) << out;
    EXPECT_EQ(countOf(out, "SendBD: Only sent"), 9u) << out; // 10 pieces, the last completes
}

TEST_F(WriterFixture, FiveWouldBlocksAreRetriedTheSixthFails)
{
    tavro_internal::socketSeams().sendFn = failingSend;
    g_failErrno = EAGAIN;
    char data[40] = {};
    TCP_BD bd{data, 40, nullptr};
    const int fd = sock->GetSocket();
    std::ostringstream retry;
    retry << "SendBD: Retrying send that would have blocked on Socket[" << fd << "]\n";

    g_failures = 5;
    {
        TraceCapture cap;
        ASSERT_TRUE(sock->SendBD(&bd));
        EXPECT_EQ(cap.text(), retry.str() + retry.str() + retry.str() + retry.str() + retry.str());
    }
    EXPECT_EQ(g_sleeps, (std::vector<unsigned>(5, 100)));
    EXPECT_EQ(received(40), std::string(40, '\0'));

    g_sleeps.clear();
    g_failures = 6;
    socketTraceFeature().SetMask(SOCK_TRACE_SEND_ERROR);
    TraceCapture cap;
    EXPECT_FALSE(sock->SendBD(&bd));
    const std::string out = cap.text();
    EXPECT_EQ(g_sleeps.size(), 5u);
    EXPECT_EQ(sock->GetLastError(), EAGAIN);
    EXPECT_TRUE(sock->HasError());
    EXPECT_TRUE(sock->Shuttingdown());
    std::ostringstream failed;
    failed << "SendBD: IP[0.0.0.0] pBD[" << hex8(&bd) << "] FAILED TO send nBytes[40] errNum[" << EAGAIN << "] "
           << gai_strerror(EAGAIN) << "\n";
    EXPECT_EQ(countOf(out, failed.str()), 1u) << out;
    EXPECT_EQ(countOf(out, "SendBD: Error sending nBytesToSend[40]"), 6u) << out;
    // Sticky: the next send fails without trying.
    const unsigned calls = sock->MsgSent();
    EXPECT_FALSE(sock->SendBD(&bd));
    EXPECT_EQ(sock->MsgSent(), calls);
}

TEST_F(WriterFixture, InterruptedSendsAreRetriedAtOnce)
{
    tavro_internal::socketSeams().sendFn = failingSend;
    g_failErrno = EINTR;
    g_failures = 12; // more than the would-block allowance: interrupts are not counted
    char data[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    TraceCapture cap;
    ASSERT_TRUE(sock->Send(data, sizeof data));
    const std::string out = cap.text();
    EXPECT_TRUE(g_sleeps.empty());
    EXPECT_EQ(countOf(out, "SendBD: Retrying send that returned sockerr[4] (interrupt or try again) on Socket["), 12u);
    EXPECT_EQ(received(12), std::string(data, 12));
}

TEST_F(WriterFixture, ZeroByteSendsAreRetried)
{
    tavro_internal::socketSeams().sendFn = zeroThenSend;
    g_zeroSends = 3;
    socketTraceFeature().SetMask(SOCK_TRACE_SEND_ERROR);
    char data[5] = {'h', 'e', 'l', 'l', 'o'};
    TCP_BD bd{data, 5, nullptr};
    TraceCapture cap;
    ASSERT_TRUE(sock->SendBD(&bd));
    const std::string out = cap.text();
    EXPECT_EQ(countOf(out, "SendBD: Zero bytes[0] sent on Socket["), 3u) << out;
    EXPECT_EQ(received(5), "hello");
    EXPECT_EQ(sock->MsgSent(), 4u);
}

TEST_F(WriterFixture, OtherErrorsFailTheRestOfTheChain)
{
    fds.closeB();
    char a[12] = {}, b[28] = {};
    TCP_BD bd2{b, 28, nullptr};
    TCP_BD bd1{a, 12, &bd2};
    TraceCapture cap;
    EXPECT_FALSE(sock->SendBD(&bd1));
    EXPECT_EQ(cap.text(), "");
    EXPECT_EQ(sock->GetLastError(), EPIPE);
    EXPECT_EQ(sock->MsgSent(), 1u);
    EXPECT_TRUE(sock->Shuttingdown());
}

TEST_F(WriterFixture, SendTraceBitsDescribeEachStep)
{
    char data[4] = {'M', 'S', 'G', ':'};
    TCP_BD bd{data, 4, nullptr};
    const int fd = sock->GetSocket();
    socketTraceFeature().SetMask(SOCK_TRACE_SEND_BD | SOCK_TRACE_SEND_CALL);
    TraceCapture cap;
    ASSERT_TRUE(sock->SendBD(&bd));
    std::ostringstream want;
    want << "SendBD: Sending nBytes[4] of data at [" << hex8(data) << "]\n"
         << "SendBD: Sending nBytesToSend[4] on Socket[" << fd << "]\n"
         << "SendBD: Sent nBytesSent[4] on Socket[" << fd << "]\n"
         << "SendBD: raw[4] bytes\n  0000  4D 53 47 3A" << std::string(12 * 3, ' ') << "  MSG:\n"
         << "SendBD: IP[0.0.0.0] pBD[" << hex8(&bd) << "] Sent nBytes[4]\n";
    EXPECT_EQ(cap.text(), want.str());
    EXPECT_EQ(received(4), "MSG:");
}

TEST_F(WriterFixture, SendSignalsShutdownWhenItFails)
{
    sock->Close();
    EXPECT_FALSE(sock->Send("x", 1));
    EXPECT_TRUE(sock->Shuttingdown());
}

TEST_F(WriterFixture, SendMutexIsHeldForTheWholeChain)
{
    ASSERT_TRUE(sock->LockSendMutex());
    std::atomic<bool> sent{false};
    std::thread other([&] { sent = sock->Send("abc", 3); });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(waiting(fds.b), 0); // blocked on the mutex
    sock->ReleaseSendMutex();
    other.join();
    EXPECT_TRUE(sent.load());
    EXPECT_EQ(received(3), "abc");
}
