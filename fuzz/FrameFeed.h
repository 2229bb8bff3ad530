#pragma once

// The frame readers fed from memory. The input is a byte stream that
// arrives in pieces: recv returns bytes of the current piece only, FIONREAD
// reports what is left of it, and the next piece arrives when recv asks
// again. A second, simple reader (expectFrames) walks the same stream by
// the framing rules and says which frames the socket's reader must deliver.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "Common/OS/OsSocket.h"

namespace fuzz_support {
class Bytes;
}

namespace frame_feed {

struct Frame {
    ORV_CTL_MSG ctl;
    ORV_APP_MSG app;                // as the reader leaves it: host order, flag set
    std::vector<std::uint8_t> body; // all size bytes as sent, header included
};

struct Expected {
    std::vector<Frame> frames;
    // True when the stream's end cannot be told without knowing whether a
    // header's announced allocation succeeded: frames after that are not
    // compared.
    bool openEnd = false;
};

// maxSize 0: the allocating reader (no upper bound; sizes over allocLimit
// may or may not be allocated).
Expected expectFrames(const std::uint8_t* data, std::size_t size, const std::vector<std::size_t>& ends,
                      unsigned maxSize, std::size_t allocLimit);

// Where the pieces of a stream of `size` bytes end: piece lengths are
// lengths[i] + 1, used in turn; no lengths: one piece.
std::vector<std::size_t> arrivalEnds(const std::uint8_t* lengths, std::size_t nLengths, std::size_t size);

// The rest of a fuzz input as a stream in pieces: a piece-length count (mod
// 16) and the lengths, then the stream's bytes.
struct Arrival {
    const std::uint8_t* stream;
    std::size_t size;
    std::vector<std::size_t> ends;
};
Arrival readArrival(fuzz_support::Bytes& in);

// Installs the in-memory stream as the socket layer's recv and FIONREAD for
// the lifetime of the object; every recv is checked to write only into
// memory the reader owns.
class Feed {
public:
    Feed(const std::uint8_t* data, std::size_t size, std::vector<std::size_t> ends);
    ~Feed();
    Feed(const Feed&) = delete;
    Feed& operator=(const Feed&) = delete;

    // A socket in the connected state on a descriptor that always polls
    // readable; the bytes themselves come from the feed.
    std::unique_ptr<OsSocket> socket();
    std::size_t consumed() const;
};

// Compares what the reader delivered with the simple reader's frame.
void checkFrame(const Frame& want, const ORV_CTL_MSG& ctl, const ORV_APP_MSG* app);

} // namespace frame_feed
