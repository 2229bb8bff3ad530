#include "Common/Utility/UtlDebugReports.h"

#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>

#include <cerrno>
#include <cstdint>
#include <sstream>

#include "Common/OS/Linux/OSAL.h"
#include "Common/Utility/UtlDebug.h"

namespace {

const char* policyName(int policy)
{
    switch (policy) {
    case SCHED_OTHER: return "SCHED_OTHER";
    case SCHED_FIFO: return "SCHED_FIFO";
    case SCHED_RR: return "SCHED_RR";
#ifdef SCHED_BATCH
    case SCHED_BATCH: return "SCHED_BATCH";
#endif
#ifdef SCHED_IDLE
    case SCHED_IDLE: return "SCHED_IDLE";
#endif
    default: return "UNKNOWN";
    }
}

const char* name(const char* who)
{
    return who != nullptr ? who : "unknown";
}

} // namespace

bool enableCoreDump()
{
    rlimit current{};
    if (getrlimit(RLIMIT_CORE, &current) != 0) {
        std::ostringstream msg;
        msg << "enableCoreDump: getrlimit( RLIMIT_CORE ) failed[" << errno << "]\n";
        debugOut(msg.str().c_str(), false);
        return false;
    }
    rlimit wanted{RLIM_INFINITY, RLIM_INFINITY};
    if (setrlimit(RLIMIT_CORE, &wanted) == 0) return true;
    // Without privilege the hard limit is as far as we may go.
    wanted.rlim_cur = current.rlim_max;
    wanted.rlim_max = current.rlim_max;
    if (setrlimit(RLIMIT_CORE, &wanted) == 0) return true;
    std::ostringstream msg;
    msg << "enableCoreDump: setrlimit( RLIMIT_CORE ) failed[" << errno << "]\n";
    debugOut(msg.str().c_str(), false);
    return false;
}

std::string threadAttributesText(const char* who)
{
    std::ostringstream msg;
    msg << "DisplayThreadAttributes: " << name(who) << " thread[" << GetCurrentThreadId() << "]";
    pthread_attr_t attr;
    const int rc = pthread_getattr_np(pthread_self(), &attr);
    if (rc != 0) {
        msg << " pthread_getattr_np failed[" << rc << "]\n";
        return msg.str();
    }
    int detach = 0;
    size_t stack = 0;
    size_t guard = 0;
    int policy = 0;
    sched_param param{};
    pthread_attr_getdetachstate(&attr, &detach);
    pthread_attr_getstacksize(&attr, &stack);
    pthread_attr_getguardsize(&attr, &guard);
    pthread_attr_destroy(&attr);
    pthread_getschedparam(pthread_self(), &policy, &param);
    msg << " detachstate[" << (detach == PTHREAD_CREATE_DETACHED ? "DETACHED" : "JOINABLE") << "] stacksize[" << stack
        << "] guardsize[" << guard << "] policy[" << policyName(policy) << "] priority[" << param.sched_priority
        << "]\n";
    return msg.str();
}

void DisplayThreadAttributes(const char* who)
{
    debugOut(threadAttributesText(who).c_str(), false);
}

std::string stackUsageText(const char* who)
{
    std::ostringstream msg;
    msg << "DisplayStackUsage: " << name(who) << " thread[" << GetCurrentThreadId() << "]";
    pthread_attr_t attr;
    const int rc = pthread_getattr_np(pthread_self(), &attr);
    if (rc != 0) {
        msg << " pthread_getattr_np failed[" << rc << "]\n";
        return msg.str();
    }
    void* low = nullptr;
    size_t size = 0;
    pthread_attr_getstack(&attr, &low, &size);
    pthread_attr_destroy(&attr);
    // The frame address is on the real stack even when locals are not
    // (sanitizers may move them to a fake stack).
    const std::uintptr_t here = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
    const std::uintptr_t top = reinterpret_cast<std::uintptr_t>(low) + size;
    const std::uintptr_t used = here < top ? top - here : 0;
    msg << " stack used[" << used << "] of [" << size << "] bytes\n";
    return msg.str();
}

void DisplayStackUsage(const char* who)
{
    debugOut(stackUsageText(who).c_str(), false);
}
