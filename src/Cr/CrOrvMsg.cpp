#include "Cr/CrOrvMsg.h"

#include <cstring>

#include "Cr/CrDBCmd.h"
#include "Os/UDBControl.h"
#include "Os/UDBServ.h"

namespace {

// Network order here means "reversed relative to the host", whatever the
// host is, so this is an unconditional reversal.
inline std::uint32_t reverse32(std::uint32_t v)
{
    return __builtin_bswap32(v);
}

// Words are reversed in place through memcpy: the packed struct's members may
// sit at addresses unsuitable for a direct reference.
template <std::size_t N>
void reverseWords(void* words)
{
    auto* bytes = static_cast<unsigned char*>(words);
    for (std::size_t i = 0; i < N; ++i) {
        std::uint32_t w;
        std::memcpy(&w, bytes + 4 * i, 4);
        w = reverse32(w);
        std::memcpy(bytes + 4 * i, &w, 4);
    }
}

std::uint32_t ownSysAddr()
{
    const SYS_PARM* parm = SYS_PARM::getIt();
    return parm ? std::uint32_t(parm->mySysAddr) : 0u;
}

} // namespace

ORV_CTL_MSG::ORV_CTL_MSG(const Message& msg)
    : marker(std::uint32_t(ORV_MSG_MARKER)), manager(std::uint32_t(msg.GetMgrClass())),
      size((std::uint32_t(msg.GetSize()) + sizeof(ORV_APP_MSG)) & ORV_SIZE_MASK)
{
    if (msg.isNetworkOrder()) setNetworkOrder();
}

bool ORV_CTL_MSG::toNetwork()
{
    reverseWords<3>(this);
    return true;
}

bool ORV_CTL_MSG::fromNetwork()
{
    reverseWords<3>(this);
    return true;
}

ORV_APP_MSG::ORV_APP_MSG(CrCmd& cmd) : ORV_APP_MSG()
{
    msgType = std::uint32_t(MSG_COMMAND);
    cmdCode = std::uint32_t(cmd.GetCmdCode());
    seqNbr = UDBControl::GenSeqNbr();
    srcAddr = ownSysAddr();
    appError = 0;
    msgStat = cmd.GetRspReq() ? CMD_WITH_RSP : CMD_WITHOUT_RSP;
    setAppSize(std::uint32_t(cmd.GetSize()));
    if (cmd.isNetworkOrder()) setNetworkOrder();
    cmd.SetSeqNbr(std::int32_t(seqNbr));
}

ORV_APP_MSG::ORV_APP_MSG(const CrRsp& rsp) : ORV_APP_MSG()
{
    msgType = std::uint32_t(MSG_RESPONSE);
    cmdCode = std::uint32_t(rsp.GetCmdCode());
    seqNbr = std::uint32_t(rsp.GetSeqNbr());
    msgStat = std::uint32_t(rsp.GetRspStat());
    appError = std::uint32_t(rsp.GetErrorCode());
    setAppSize(std::uint32_t(rsp.GetSize()));
    if (rsp.isNetworkOrder()) setNetworkOrder();
    srcAddr = ownSysAddr();
}

bool ORV_APP_MSG::toNetwork()
{
    reverseWords<7>(this);
    return true;
}

bool ORV_APP_MSG::fromNetwork()
{
    reverseWords<7>(this);
    return true;
}

std::ostream& operator<<(std::ostream& os, const ORV_APP_MSG& hdr)
{
    os << "msgType[" << hdr.getMsgType() << "] cmdCode[" << hdr.getCmdCode() << "] seqNbr[" << hdr.seqNbr
       << "] msgStat[" << hdr.msgStat << "] srcAddr[" << hdr.srcAddr << "] appError[" << std::int32_t(hdr.appError)
       << "] appSize[" << hdr.getAppSize() << "]";
    if (hdr.isNetworkOrder()) os << " NETWORK ORDER";
    return os;
}
