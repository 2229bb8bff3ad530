#include "Os/UDBControl.h"

#include <cctype>
#include <cstring>
#include <sstream>
#include <vector>

#include "Common/OS/Linux/WinEvent.h"
#include "Common/Utility/UtlDebug.h"
#include "Cr/CrDBTracker.h"
#include "Io/IoDBRouter.h"
#include "Io/IoRouteTable.h"

std::atomic<void*> UDBControl::systemClasses[SMN_NUM_CLASSES];
std::atomic<int> UDBControl::defaultMsgTimeout{UDBControl::DEFAULT_MSG_TIMEOUT};
std::atomic<std::uint32_t> UDBControl::seqNumber{0};
const char* const UDBControl::pCtlState[] = {"CTL_INITIAL", "CTL_INIT"};
std::atomic<UDBControl*> UDBControl::pTheUdbControl{nullptr};
std::atomic<void*> UDBControl::pExecuteArg{nullptr};

UDBControl::UDBControl(SYS_PARM* parm, PREPARE_MODE mode)
    : OsThread("UDBControl", STACK_SIZE),
      eventlock(CreateMutex(nullptr, FALSE, nullptr)),
      ctlState(CTL_INITIAL),
      pSysParm(parm),
      startTime(0),
      failedover(false)
{
    for (auto& slot : systemClasses) slot.store(nullptr, std::memory_order_relaxed);
    InsertClassRef(SMN_SYS_PARM, parm);
    SetCtlState(CTL_INITIAL);
    startTime = GetTickCount();
    defaultMsgTimeout.store(parm != nullptr && parm->noMsgTimeout ? -1 : DEFAULT_MSG_TIMEOUT,
                            std::memory_order_relaxed);
    pTheUdbControl.store(this, std::memory_order_release);
    if (mode == PREPARE_SYSTEM) PrepareSystem();
}

UDBControl::~UDBControl()
{
    UDBControl* self = this;
    pTheUdbControl.compare_exchange_strong(self, nullptr);
    if (eventlock != nullptr) CloseHandle(eventlock);
    eventlock = nullptr;
}

namespace {

// Carries the control block's thread body, so that the self-deleting thread
// object is this one and not the control block.
class UDBControlThread : public OsThread {
public:
    explicit UDBControlThread(UDBControl* ctl) : OsThread("UDBControl", UDBControl::STACK_SIZE), ctl(ctl) {}
    void* Execute(void* arg) override { return ctl->Execute(arg); }

private:
    UDBControl* ctl;
};

void traceStartFailure(const char* what)
{
    std::ostringstream os;
    os << "PrepareSystem" << ": could not start[" << what << "]\n";
    debugOut(os.str().c_str());
}

// Signals t to stop and waits for its destructor's notice.
template <typename T>
bool stopAndWait(T* t, DWORD waitMs)
{
    if (t == nullptr) return true;
    HANDLE gone = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    t->SetExitNotify(gone);
    t->SignalShutdown();
    if (WaitForSingleObject(gone, waitMs) != WAIT_OBJECT_0) return false; // still set later: keep the event
    CloseHandle(gone);
    return true;
}

} // namespace

void UDBControl::PrepareSystem()
{
    InsertClassRef(SMN_API_TABLE, new RouteTable(TCP_SERVER));
    InsertClassRef(SMN_SWI_TABLE, new RouteTable(TCP_CLIENT));
    InsertClassRef(SMN_POLL_TABLE, new RouteTable(TCP_POLL));

    // An object whose thread did not start is not registered: a command
    // then finds no tracker and is refused instead of waiting for ever.
    auto* router = new IoRouter();
    if (router->Start(nullptr)) {
        InsertClassRef(SMN_IOR, router);
    } else {
        traceStartFailure("IoRouter");
        delete router;
    }
    auto* tracker = new CrTracker();
    if (tracker->Start(nullptr)) {
        InsertClassRef(SMN_TRACKER, tracker);
    } else {
        traceStartFailure("CrTracker");
        delete tracker;
    }
}

bool UDBControl::StartControlThread(void* arg)
{
    auto* t = new UDBControlThread(this);
    if (t->Start(arg)) return true;
    delete t;
    return false;
}

bool UDBControl::StopSystem(DWORD waitMs)
{
    // The tracker sends through the router: it goes first.
    CrTracker* tracker = CrTracker::getIt();
    InsertClassRef(SMN_TRACKER, nullptr);
    if (!stopAndWait(tracker, waitMs)) return false;
    IoRouter* router = IoRouter::getIt();
    InsertClassRef(SMN_IOR, nullptr);
    if (!stopAndWait(router, waitMs)) return false;
    for (CLASS_TYPE t : {SMN_API_TABLE, SMN_SWI_TABLE, SMN_POLL_TABLE}) {
        delete RouteTable::getIt(t);
        InsertClassRef(t, nullptr);
    }
    return true;
}

void* UDBControl::Execute(void* arg)
{
    pExecuteArg.store(arg, std::memory_order_release);
    return nullptr;
}

void* UDBControl::GetClassRef(CLASS_TYPE t)
{
    if (static_cast<unsigned>(t) >= SMN_NUM_CLASSES) return nullptr;
    return systemClasses[t].load(std::memory_order_acquire);
}

void UDBControl::InsertClassRef(CLASS_TYPE t, void* p)
{
    if (static_cast<unsigned>(t) >= SMN_NUM_CLASSES) {
        std::ostringstream os;
        os << "ORVControl::InsertClassRef( type[" << static_cast<int>(t) << "] ): out of range\n";
        debugOut(os.str().c_str());
        return;
    }
    systemClasses[t].store(p, std::memory_order_release);
}

const char* UDBControl::CtlStateName(CTL_STATE s)
{
    if (static_cast<unsigned>(s) > CTL_INIT) return "UNKNOWN";
    return pCtlState[s];
}

void UDBControl::SetCtlState(CTL_STATE s)
{
    if (pSysParm == nullptr || !pSysParm->bDiscoverSwitches) {
        std::ostringstream os;
        os << "SetCtlState" << ":   CTL: state[" << CtlStateName(s) << "]\n";
        debugOut(os.str().c_str());
    }
    ctlState = s;
}

std::uint32_t UDBControl::GenSeqNbr()
{
    std::uint32_t last = seqNumber.load(std::memory_order_relaxed);
    std::uint32_t next;
    do {
        next = last + 1;
        if (next == INVALID_SEQ_NUMBER) ++next;
    } while (!seqNumber.compare_exchange_weak(last, next, std::memory_order_relaxed));
    return next;
}

void UDBControl::ResetStaticsForTest()
{
    for (auto& slot : systemClasses) slot.store(nullptr, std::memory_order_relaxed);
    defaultMsgTimeout.store(DEFAULT_MSG_TIMEOUT, std::memory_order_relaxed);
    seqNumber.store(0, std::memory_order_relaxed);
    pExecuteArg.store(nullptr, std::memory_order_relaxed);
}

// ---------------------------------------------------------------------------
// Port and sub-port text forms

const PORT_NUM PORT_NUM::INVALID_PORT_NUM(-1);
const PORT_NUM PORT_NUM::ALL_PORT_NUMS(-2);
const SUBPORT_NUM SUBPORT_NUM::INVALID_SUBPORT_NUM(-1);

namespace {

// Splits "n.n.n[.n]" of one-based decimal numbers (each 0-255) into exactly
// `parts` numbers. Leading and trailing white space are allowed; anything
// else that is not a digit or "." fails.
bool parseDottedNumbers(const char* text, size_t minLength, unsigned parts, unsigned* out)
{
    if (text == nullptr) return false;
    size_t len = strnlen(text, 64);
    if (len < minLength) return false;
    if (len > 63) len = 63;
    std::string s(text, len);
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.back()))) s.pop_back();
    if (s.empty() || s.back() == '.') return false;
    size_t start = 0;
    while (start < s.size() && std::isspace(static_cast<unsigned char>(s[start]))) ++start;

    unsigned count = 0;
    unsigned value = 0;
    for (size_t i = start; i <= s.size(); ++i) {
        char c = i < s.size() ? s[i] : '.';
        if (c == '.') {
            if (count == parts) return false;
            out[count++] = value;
            value = 0;
        } else if (c >= '0' && c <= '9') {
            value = value * 10 + static_cast<unsigned>(c - '0');
            if (value > 255) return false;
        } else {
            return false;
        }
    }
    return count == parts;
}

} // namespace

PORT_NUM::PORT_NUM(const char* text) : PORT_NUM(INVALID_PORT_NUM)
{
    unsigned n[3];
    if (!parseDottedNumbers(text, 5, 3, n)) return;
    if (n[0] == 0 || n[1] == 0 || n[2] == 0) return;
    ccId = static_cast<unsigned char>(n[0] - 1);
    pimId = static_cast<unsigned char>(n[1] - 1);
    portId = static_cast<unsigned char>(n[2] - 1);
    swId = 0;
}

bool PORT_NUM::isValid() const
{
    if (*this == ALL_PORT_NUMS) return true;
    return *this != INVALID_PORT_NUM && ccId < MAX_CHASSIS && pimId < MAX_PIMS;
}

std::string PORT_NUM::toString() const
{
    if (*this == INVALID_PORT_NUM) return "INVALID";
    if (*this == ALL_PORT_NUMS) return "ALL";
    std::ostringstream os;
    os << ccId + 1 << '.' << pimId + 1 << '.' << portId + 1;
    return os.str();
}

SUBPORT_NUM::SUBPORT_NUM(const char* text) : SUBPORT_NUM(-1)
{
    unsigned n[4];
    if (!parseDottedNumbers(text, 7, 4, n)) return;
    if (n[0] == 0 || n[1] == 0 || n[2] == 0) return;
    ccId = static_cast<unsigned char>(n[0] - 1);
    pimId = static_cast<unsigned char>(n[1] - 1);
    portId = static_cast<unsigned char>(n[2] - 1);
    subportId = static_cast<unsigned char>(n[3]);
}

PORT_NUM SUBPORT_NUM::port() const
{
    return PORT_NUM(static_cast<unsigned int>(portId) | static_cast<unsigned int>(pimId) << 8 |
                    static_cast<unsigned int>(ccId) << 16);
}

std::string SUBPORT_NUM::toString() const
{
    if (*this == INVALID_SUBPORT_NUM) return "INVALID";
    std::ostringstream os;
    os << ccId + 1 << '.' << pimId + 1 << '.' << portId + 1 << '.' << static_cast<unsigned>(subportId);
    return os.str();
}
