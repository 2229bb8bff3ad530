#include "FrameFeed.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "FuzzSupport.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define FRAME_FEED_ASAN 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define FRAME_FEED_ASAN 1
#endif
#ifdef FRAME_FEED_ASAN
#include <sanitizer/asan_interface.h>
#endif

using fuzz_support::load32;
using fuzz_support::reverse32;

namespace frame_feed {
namespace {

constexpr std::uint32_t kMarker = static_cast<std::uint32_t>(ORV_MSG_MARKER);
constexpr std::uint32_t kTest = static_cast<std::uint32_t>(ORV_MSG_TEST);

struct Stream {
    const std::uint8_t* data = nullptr;
    std::size_t size = 0;
    std::size_t pos = 0;
    std::vector<std::size_t> ends;
    std::size_t piece = 0; // index of the piece being delivered
};
Stream g_stream;

std::size_t pieceEnd()
{
    return g_stream.piece < g_stream.ends.size() ? g_stream.ends[g_stream.piece] : g_stream.size;
}

ssize_t feedRecv(int, void* buf, size_t len, int)
{
    FUZZ_CHECK(buf != nullptr && len > 0);
#ifdef FRAME_FEED_ASAN
    // The reader may only offer memory it owns.
    FUZZ_CHECK(__asan_region_is_poisoned(buf, len) == nullptr);
#endif
    if (g_stream.pos >= g_stream.size) return 0;
    if (g_stream.pos == pieceEnd()) ++g_stream.piece;
    const std::size_t n = std::min(len, pieceEnd() - g_stream.pos);
    std::memcpy(buf, g_stream.data + g_stream.pos, n);
    g_stream.pos += n;
    return static_cast<ssize_t>(n);
}

int feedAvail(int, int* avail)
{
    *avail = static_cast<int>(pieceEnd() - g_stream.pos);
    return 0;
}

void noSleep(unsigned) {}

// One descriptor that always polls readable: a byte waits on it that nobody
// reads, since recv is the feed's.
int readableFd()
{
    static int fds[2] = {-1, -1};
    if (fds[0] < 0) {
        FUZZ_CHECK(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) == 0);
        FUZZ_CHECK(::write(fds[1], "x", 1) == 1);
    }
    return fds[0];
}

Frame makeFrame(const std::uint8_t* hdr, const std::uint8_t* body, std::uint32_t n, bool reversed)
{
    Frame f;
    f.ctl.marker = kMarker;
    f.ctl.manager = reversed ? reverse32(load32(hdr + 4)) : load32(hdr + 4);
    f.ctl.size = reversed ? reverse32(load32(hdr + 8)) | ORV_NETWORK_ORDER_FLAG : load32(hdr + 8);
    f.body.assign(body, body + n);
    std::uint8_t head[sizeof(ORV_APP_MSG)] = {};
    std::memcpy(head, body, std::min<std::size_t>(n, sizeof head));
    std::uint32_t w[7];
    std::memcpy(w, head, sizeof w);
    if (f.ctl.size & ORV_NETWORK_ORDER_FLAG) {
        for (std::uint32_t& x : w) x = reverse32(x);
        w[6] |= ORV_NETWORK_ORDER_FLAG;
    }
    f.app.msgType = w[0];
    f.app.cmdCode = w[1];
    f.app.seqNbr = w[2];
    f.app.msgStat = w[3];
    f.app.srcAddr = w[4];
    f.app.appError = w[5];
    f.app.appSize = w[6];
    return f;
}

} // namespace

Arrival readArrival(fuzz_support::Bytes& in)
{
    const std::size_t nLengths = in.u8() % 16u;
    std::vector<std::uint8_t> lengths;
    for (std::size_t i = 0; i < nLengths; ++i) lengths.push_back(in.u8());
    Arrival a{in.rest(), in.restSize(), {}};
    a.ends = arrivalEnds(lengths.data(), lengths.size(), a.size);
    return a;
}

std::vector<std::size_t> arrivalEnds(const std::uint8_t* lengths, std::size_t nLengths, std::size_t size)
{
    std::vector<std::size_t> ends;
    std::size_t at = 0;
    for (std::size_t i = 0; nLengths > 0 && at < size; ++i) {
        at = std::min(size, at + lengths[i % nLengths] + 1u);
        ends.push_back(at);
    }
    if (ends.empty() || ends.back() != size) ends.push_back(size);
    return ends;
}

Expected expectFrames(const std::uint8_t* data, std::size_t size, const std::vector<std::size_t>& ends,
                      unsigned maxSize, std::size_t allocLimit)
{
    Expected out;
    std::size_t pos = 0;
    while (size - pos >= sizeof(ORV_CTL_MSG)) {
        const std::uint8_t* hdr = data + pos;
        pos += sizeof(ORV_CTL_MSG);
        const std::uint32_t marker = load32(hdr);
        if (marker == kTest || marker == reverse32(kTest)) continue;
        const bool reversed = marker == reverse32(kMarker);
        const std::uint32_t sizeWord = reversed ? reverse32(load32(hdr + 8)) : load32(hdr + 8);
        const std::uint32_t n = sizeWord & ORV_SIZE_MASK;
        if ((reversed ? kMarker : marker) != kMarker || n == 0 || (maxSize != 0 && n > maxSize)) {
            // Everything that has arrived so far goes: on at the next piece.
            pos = *std::lower_bound(ends.begin(), ends.end(), pos);
            continue;
        }
        if (maxSize == 0 && n > allocLimit) {
            out.openEnd = true;
            break;
        }
        if (size - pos < n) break;
        out.frames.push_back(makeFrame(hdr, data + pos, n, reversed));
        pos += n;
    }
    return out;
}

Feed::Feed(const std::uint8_t* data, std::size_t size, std::vector<std::size_t> ends)
{
    g_stream = Stream{data, size, 0, std::move(ends), 0};
    tavro_internal::SocketSeams& s = tavro_internal::socketSeams();
    s.recvFn = feedRecv;
    s.availFn = feedAvail;
    s.sleepMs = noSleep;
}

Feed::~Feed()
{
    tavro_internal::resetSocketSeams();
    g_stream = Stream{};
}

std::unique_ptr<OsSocket> Feed::socket()
{
    std::unique_ptr<OsSocket> s(new OsSocket());
    const int fd = ::dup(readableFd());
    FUZZ_CHECK(fd >= 0);
    s->SetSocket(fd);
    return s;
}

std::size_t Feed::consumed() const
{
    return g_stream.pos;
}

void checkFrame(const Frame& want, const ORV_CTL_MSG& ctl, const ORV_APP_MSG* app)
{
    FUZZ_CHECK(ctl.marker == want.ctl.marker);
    FUZZ_CHECK(ctl.manager == want.ctl.manager);
    FUZZ_CHECK(ctl.size == want.ctl.size);
    FUZZ_CHECK(app->msgType == want.app.msgType);
    FUZZ_CHECK(app->cmdCode == want.app.cmdCode);
    FUZZ_CHECK(app->seqNbr == want.app.seqNbr);
    FUZZ_CHECK(app->msgStat == want.app.msgStat);
    FUZZ_CHECK(app->srcAddr == want.app.srcAddr);
    FUZZ_CHECK(app->appError == want.app.appError);
    FUZZ_CHECK(app->appSize == want.app.appSize);
    const std::size_t n = want.body.size();
    if (n > sizeof(ORV_APP_MSG))
        FUZZ_CHECK(std::memcmp(reinterpret_cast<const std::uint8_t*>(app) + sizeof(ORV_APP_MSG),
                               want.body.data() + sizeof(ORV_APP_MSG), n - sizeof(ORV_APP_MSG)) == 0);
}

} // namespace frame_feed
