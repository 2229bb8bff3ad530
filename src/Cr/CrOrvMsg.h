#pragma once

// Frame headers of the switch protocol. A frame is an ORV_CTL_MSG, then (for
// every frame but the link test header) an ORV_APP_MSG, then appSize bytes of
// payload. Bit 31 of size/appSize marks, in memory only, that the frame's
// words and payload are byte-reversed relative to the host.
#include <cstdint>
#include <ostream>

#include "Ap/ApBase.h"

class Message;
class CrCmd;
class CrRsp;

// The largest payload a message may carry is one byte less than this; it is
// also the size of a session's receive buffer.
constexpr std::uint32_t MAX_TCP_MSG_SIZE = 2559936;

constexpr std::uint32_t ORV_NETWORK_ORDER_FLAG = 0x80000000u;
constexpr std::uint32_t ORV_SIZE_MASK = 0x7FFFFFFFu;

#pragma pack(push, 1)

struct ORV_CTL_MSG {
    std::uint32_t marker;
    std::uint32_t manager;
    std::uint32_t size;

    constexpr ORV_CTL_MSG() : marker(0), manager(0), size(0) {}
    // Link test header only: nothing follows it, its size word holds 12.
    constexpr ORV_CTL_MSG(MSG_MARKER m, MGR_CLASS mgr)
        : marker(std::uint32_t(m)), manager(std::uint32_t(mgr)), size(sizeof(ORV_CTL_MSG))
    {
    }
    explicit ORV_CTL_MSG(const Message& msg);

    std::uint32_t getMarker() const { return marker; }
    MGR_CLASS getManagerClass() const { return MGR_CLASS(manager); }
    std::uint32_t getSize() const { return size & ORV_SIZE_MASK; }
    void setSize(std::uint32_t s) { size = (size & ORV_NETWORK_ORDER_FLAG) | (s & ORV_SIZE_MASK); }
    bool isNetworkOrder() const { return std::int32_t(size) < 0; }
    void setNetworkOrder() { size |= ORV_NETWORK_ORDER_FLAG; }
    void setHostOrder() { size &= ORV_SIZE_MASK; }
    bool toNetwork();
    bool fromNetwork();
};

struct ORV_APP_MSG {
    std::uint32_t msgType;
    std::uint32_t cmdCode;
    std::uint32_t seqNbr;
    std::uint32_t msgStat;
    std::uint32_t srcAddr;
    std::uint32_t appError;
    std::uint32_t appSize;

    constexpr ORV_APP_MSG() : msgType(0), cmdCode(0), seqNbr(0), msgStat(0), srcAddr(0), appError(0), appSize(0) {}
    // Takes a fresh sequence number and writes it back into the command.
    explicit ORV_APP_MSG(CrCmd& cmd);
    explicit ORV_APP_MSG(const CrRsp& rsp);

    MSG_TYPE getMsgType() const { return MSG_TYPE(msgType); }
    COMMAND_CODE getCmdCode() const { return COMMAND_CODE(cmdCode); }
    std::uint32_t getSeqNbr() const { return seqNbr; }
    CMD_CONTROL getCmdControl() const { return CMD_CONTROL(msgStat); }
    RSP_STATUS getRspStatus() const { return RSP_STATUS(msgStat); }
    I_STATUS getAppError() const { return I_STATUS(appError); }
    std::uint32_t getSrcAddr() const { return srcAddr; }
    std::uint32_t getAppSize() const { return appSize & ORV_SIZE_MASK; }
    void setAppSize(std::uint32_t s) { appSize = (appSize & ORV_NETWORK_ORDER_FLAG) | (s & ORV_SIZE_MASK); }
    bool isNetworkOrder() const { return std::int32_t(appSize) < 0; }
    void setNetworkOrder() { appSize |= ORV_NETWORK_ORDER_FLAG; }
    void setHostOrder() { appSize &= ORV_SIZE_MASK; }
    bool toNetwork();
    bool fromNetwork();
};

#pragma pack(pop)

static_assert(sizeof(ORV_CTL_MSG) == 12, "control header is 12 bytes on the wire");
static_assert(sizeof(ORV_APP_MSG) == 28, "application header is 28 bytes on the wire");

// Sent alone by a session when its connection is made; receivers ignore it.
inline constexpr ORV_CTL_MSG ORV_LINK_TEST_MSG{ORV_MSG_TEST, MGR_LINK};

// One piece of an outgoing frame; a send writes a chain in order as one
// message. Nothing in a chain is owned by it.
struct TCP_BD {
    void* pBuf;
    std::int32_t size;
    TCP_BD* pNextBD;
};

// Trace text of an application header.
std::ostream& operator<<(std::ostream& os, const ORV_APP_MSG& hdr);
