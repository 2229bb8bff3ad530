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
    : OsThread("UDBControl", STACK_SIZE), eventlock(CreateMutex(nullptr, FALSE, nullptr)), ctlState(CTL_INITIAL),
      pSysParm(parm), startTime(0), failedover(false)
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
    os << "PrepareSystem"
       << ": could not start[" << what << "]\n";
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
        os << "SetCtlState"
           << ":   CTL: state[" << CtlStateName(s) << "]\n";
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
