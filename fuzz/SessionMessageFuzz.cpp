// One frame as the session's reader leaves it, handed to the session's own
// handling: a command goes to DispatchCommand and its registered handler, a
// response to the tracker, which pairs it with a waiting command. Input:
// flags, extra destination, manager class, the 28-byte application header
// (host order), then the payload.
#include <cstring>
#include <memory>
#include <vector>

#include "Cr/CrDBTracker.h"
#include "FuzzSupport.h"
#include "Io/IoDBClient.h"
#include "Os/TAVRO.h"

namespace {

enum Flags : std::uint8_t {
    kWithHandler = 1,  // a handler is registered for the frame's code
    kFixAppSize = 2,   // appSize says the payload's true length
    kNetworkOrder = 4, // the frame came byte-reversed
    kShortBody = 8,    // the body is shorter than the application header
    kWideManager = 16, // any manager word, not only small ones
    kHandlerAnswers = 32,
};

struct HandlerCall {
    int calls = 0;
    COMMAND_CODE code = COMMAND_CODE(0);
    std::vector<std::uint8_t> payload;
    bool answers = false;
};
HandlerCall g_call;

void handler(COMMAND_CODE code, const void* data, std::uint32_t size, CrRsp* rsp)
{
    ++g_call.calls;
    FUZZ_CHECK(code == g_call.code);
    FUZZ_CHECK(size == g_call.payload.size());
    FUZZ_CHECK(size == 0 || std::memcmp(data, g_call.payload.data(), size) == 0);
    if (g_call.answers) {
        I_TAVRO_SetResponseStatus(rsp, RSP_STATUS(size));
        I_TAVRO_SetResponseData(rsp, data, size);
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz_support::quietStdout();
    fuzz_support::tracker();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz_support::tracker();
    IoClientMgmt& session = fuzz_support::session();
    fuzz_support::Bytes in(data, size);
    const std::uint8_t flags = in.u8();
    const int extraDestination = in.u8() % 130; // 128 and 129 are out of range
    const std::uint32_t manager = (flags & kWideManager) ? in.u32() : in.u8() % 14u;

    // The body as it arrived: exactly its bytes, at least a whole header.
    std::size_t bodySize = in.restSize();
    if ((flags & kShortBody) && bodySize > 0)
        bodySize = bodySize < sizeof(ORV_APP_MSG) ? bodySize : in.rest()[0] % sizeof(ORV_APP_MSG);
    const std::size_t room = bodySize < sizeof(ORV_APP_MSG) ? sizeof(ORV_APP_MSG) : bodySize;
    std::unique_ptr<char[]> body(new char[room]());
    std::memcpy(body.get(), in.rest(), bodySize);
    auto* app = reinterpret_cast<ORV_APP_MSG*>(body.get());
    const std::uint32_t payloadSize = bodySize > sizeof(ORV_APP_MSG) ? bodySize - sizeof(ORV_APP_MSG) : 0;
    if (flags & kFixAppSize) app->setAppSize(payloadSize);
    if (flags & kNetworkOrder) app->setNetworkOrder();

    ORV_CTL_MSG ctl;
    ctl.marker = static_cast<std::uint32_t>(ORV_MSG_MARKER);
    ctl.manager = manager;
    ctl.size = static_cast<std::uint32_t>(bodySize);
    if (flags & kNetworkOrder) ctl.setNetworkOrder();

    const bool wellFormed = manager < static_cast<std::uint32_t>(MGR_MAX) && bodySize >= sizeof(ORV_APP_MSG) &&
                            app->getAppSize() <= payloadSize;
    const std::uint32_t appSize = wellFormed ? app->getAppSize() : 0;
    const bool isCommand = app->getMsgType() == MSG_COMMAND;

    // A command waiting for this frame's code and sequence number, from the
    // session (address 1) and perhaps from another destination.
    CrCmd waiting;
    waiting.SetCmdCode(app->getCmdCode());
    waiting.SetSeqNbr(static_cast<int>(app->getSeqNbr()));
    waiting.SetMsgAddr(1);
    waiting.SetMsgAddr(extraDestination);
    waiting.SetRspReq(true);
    waiting.SetRspTimer(0);
    waiting.Dispatch();

    g_call = HandlerCall{};
    g_call.code = app->getCmdCode();
    g_call.answers = (flags & kHandlerAnswers) != 0;
    if (wellFormed) {
        const auto* p = reinterpret_cast<const std::uint8_t*>(body.get()) + sizeof(ORV_APP_MSG);
        g_call.payload.assign(p, p + appSize);
    }
    if (flags & kWithHandler) I_TAVRO_RegisterCommandHandler(app->getCmdCode(), handler);

    tavro_internal::deliverSessionMessage(session, ctl, app);

    I_TAVRO_UnRegisterCommandHandler(app->getCmdCode());
    FUZZ_CHECK(g_call.calls == ((wellFormed && isCommand && (flags & kWithHandler)) ? 1 : 0));

    // Every destination ends with exactly one response: the frame's, or a
    // time-out made up by the tracker.
    fuzz_support::syncTracker();
    waiting.WaitForRsp();
    const bool answered = wellFormed && !isCommand;
    const int destinations = waiting.GetMsgAddr().GetSlaveCount();
    FUZZ_CHECK(waiting.GetRspCount() == destinations);
    for (CrRsp* r = waiting.GetFirstRsp(); r != nullptr; r = waiting.GetNextRsp()) {
        FUZZ_CHECK(r->GetMsgAddr().GetSlaveCount() == 1);
        const int addr = r->GetMsgAddr().GetNextSlaveAddr(0);
        FUZZ_CHECK(waiting.GetMsgAddr().SlaveAddrSet(addr));
        if (addr == 1 && answered) {
            FUZZ_CHECK(r->GetRspStat() == app->getRspStatus());
            FUZZ_CHECK(r->GetSize() == static_cast<int>(appSize));
            FUZZ_CHECK(appSize == 0 || std::memcmp(r->GetData(), g_call.payload.data(), appSize) == 0);
            FUZZ_CHECK(r->isNetworkOrder() == app->isNetworkOrder());
        } else {
            FUZZ_CHECK(r->GetRspStat() == RSP_TIME_OUT);
            FUZZ_CHECK(r->GetSize() == 0);
        }
    }
    return 0;
}
