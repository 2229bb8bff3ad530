#include "Common/OS/OsSocket.h"

#include <sys/socket.h>

#include <cerrno>

OsSocket::~OsSocket() = default;

bool OsSocket::Send(const void* buf, unsigned len)
{
    if (Socket < 0 || (buf == nullptr && len != 0)) return false;
    const char* p = static_cast<const char*>(buf);
    while (len > 0) {
        // MSG_NOSIGNAL: a listener that went away must not kill the process.
        const ssize_t n = send(Socket, p, len, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        p += n;
        len -= static_cast<unsigned>(n);
    }
    return true;
}
