// The session's frame reader (GetOrvMessage into a caller's buffer) fed a
// byte stream in random pieces, into the session's own buffer size or a small
// one. Input: mode byte (bit 0: small buffer), buffer size (2 bytes, small
// only), piece-length count and lengths, then the stream.
#include <memory>
#include <vector>

#include "FrameFeed.h"
#include "FuzzSupport.h"

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz_support::quietStdout();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz_support::Bytes in(data, size);
    const bool small = (in.u8() & 1) != 0;
    const unsigned maxSize = small ? sizeof(ORV_APP_MSG) + in.u16() % 4069u : MAX_TCP_MSG_SIZE;
    const frame_feed::Arrival arrival = frame_feed::readArrival(in);
    const std::uint8_t* stream = arrival.stream;
    const std::size_t streamSize = arrival.size;
    const std::vector<std::size_t>& ends = arrival.ends;
    const frame_feed::Expected want = frame_feed::expectFrames(stream, streamSize, ends, maxSize, 0);

    // Exactly maxSize bytes, so that the sanitizer sees a write past them. The
    // session's buffer is made once, as the session does.
    static std::unique_ptr<char[]> sessionBuffer(new char[MAX_TCP_MSG_SIZE]);
    std::unique_ptr<char[]> smallBuffer(small ? new char[maxSize] : nullptr);
    char* buf = small ? smallBuffer.get() : sessionBuffer.get();
    auto* app = reinterpret_cast<ORV_APP_MSG*>(buf);

    frame_feed::Feed feed(stream, streamSize, ends);
    std::unique_ptr<OsSocket> sock = feed.socket();
    std::size_t got = 0;
    for (;;) {
        std::memset(buf, 0, sizeof(ORV_APP_MSG));
        ORV_CTL_MSG ctl;
        if (!sock->GetOrvMessage(&ctl, app, maxSize)) break;
        FUZZ_CHECK(got < want.frames.size());
        frame_feed::checkFrame(want.frames[got], ctl, app);
        ++got;
    }
    FUZZ_CHECK(got == want.frames.size());
    // The reader gives up only at the end of the stream.
    FUZZ_CHECK(feed.consumed() == streamSize);
    return 0;
}
