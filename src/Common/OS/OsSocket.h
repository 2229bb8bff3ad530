#pragma once

// Seed of the socket class: so far only what debug listeners need.
class OsSocket {
public:
    OsSocket() = default;
    virtual ~OsSocket();

    int GetSocket() const { return Socket; }
    void SetSocket(int fd) { Socket = fd; }

    // Writes all len bytes; false when the descriptor is invalid or fails.
    bool Send(const void* buf, unsigned len);

    OsSocket(const OsSocket&) = delete;
    OsSocket& operator=(const OsSocket&) = delete;

protected:
    int Socket = -1;
};
