#pragma once

// Whole-buffer writes for tests and benchmarks playing the library's peer.
#include <sys/socket.h>
#include <sys/types.h>

#include <cerrno>
#include <cstddef>

inline bool writeAll(int fd, const void* data, std::size_t n)
{
    const char* p = static_cast<const char*>(data);
    while (n > 0) {
        const ssize_t k = ::send(fd, p, n, MSG_NOSIGNAL);
        if (k < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        p += k;
        n -= static_cast<std::size_t>(k);
    }
    return true;
}
