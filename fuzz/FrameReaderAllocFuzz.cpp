// The allocating frame reader (GetOrvMessageWithAppMsgMemAlloc) fed a byte
// stream in random pieces. It allocates what a header announces, without a
// bound; under the sanitizer, allocations above ALLOC_LIMIT_MB fail (the
// reader then purges), so that only a leak can make memory grow.
// Input: piece-length count and lengths, then the stream.
#include <memory>
#include <vector>

#include "FrameFeed.h"
#include "FuzzSupport.h"

// Above what libFuzzer itself allocates (about 20 MB), far below the 2 GiB a
// header may announce.
#define ALLOC_LIMIT_MB 64
#define TEXT_OF(x) #x
#define VALUE_TEXT(x) TEXT_OF(x)

namespace {
constexpr std::size_t kAllocLimitMb = ALLOC_LIMIT_MB;
}

extern "C" const char* __asan_default_options()
{
    return "allocator_may_return_null=1:max_allocation_size_mb=" VALUE_TEXT(ALLOC_LIMIT_MB);
}

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz_support::quietStdout();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz_support::Bytes in(data, size);
    const frame_feed::Arrival arrival = frame_feed::readArrival(in);
    const std::uint8_t* stream = arrival.stream;
    const std::size_t streamSize = arrival.size;
    const std::vector<std::size_t>& ends = arrival.ends;
    const frame_feed::Expected want =
        frame_feed::expectFrames(stream, streamSize, ends, 0, kAllocLimitMb * 1024 * 1024);

    frame_feed::Feed feed(stream, streamSize, ends);
    std::unique_ptr<OsSocket> sock = feed.socket();
    std::size_t got = 0;
    // Every call either delivers a frame or consumes input, so this ends.
    for (std::size_t calls = 0; calls <= streamSize; ++calls) {
        ORV_CTL_MSG ctl;
        ORV_APP_MSG* app = reinterpret_cast<ORV_APP_MSG*>(1);
        const bool ok = sock->GetOrvMessageWithAppMsgMemAlloc(&ctl, app);
        std::unique_ptr<char[]> owned(reinterpret_cast<char*>(app)); // the caller frees, also after a failure
        if (!ok) break;
        FUZZ_CHECK(app != nullptr);
        if (got < want.frames.size()) {
            frame_feed::checkFrame(want.frames[got], ctl, app);
        } else {
            FUZZ_CHECK(want.openEnd);
        }
        ++got;
    }
    FUZZ_CHECK(got >= want.frames.size());
    FUZZ_CHECK(want.openEnd || got == want.frames.size());
    FUZZ_CHECK(feed.consumed() == streamSize);
    return 0;
}
