#include "FuzzSupport.h"

#include <fcntl.h>
#include <unistd.h>

#include <mutex>
#include <thread>

#include "Cr/CrDBTracker.h"
#include "Io/IoDBClient.h"
#include "Os/TAVRO.h"
#include "Os/UDBControl.h"

namespace {

std::mutex g_lock;
CrTracker* g_tracker = nullptr;
std::thread* g_trackerThread = nullptr;
IoClientMgmt* g_session = nullptr;

} // namespace

namespace fuzz_support {

void fail(const char* file, int line, const char* what)
{
    std::fprintf(stderr, "%s:%d: check failed: %s\n", file, line, what);
    std::fflush(stderr);
    std::abort();
}

void quietStdout()
{
    std::fflush(stdout);
    const int fd = ::open("/dev/null", O_WRONLY);
    if (fd < 0) return;
    ::dup2(fd, STDOUT_FILENO);
    ::close(fd);
}

CrTracker* tracker()
{
    std::lock_guard<std::mutex> g(g_lock);
    if (g_tracker == nullptr) {
        g_tracker = new CrTracker();
        UDBControl::InsertClassRef(SMN_TRACKER, g_tracker);
        CrTracker* t = g_tracker;
        g_trackerThread = new std::thread([t] { t->Run(nullptr); });
    }
    return g_tracker;
}

void syncTracker()
{
    // A command that wants no response passes the tracker in queue order.
    CrCmd marker;
    marker.SetCmdCode(CMD_CONN_INIT);
    marker.SetMsgAddr(100);
    marker.SetRspReq(false);
    marker.Dispatch();
}

void stopTracker()
{
    std::lock_guard<std::mutex> g(g_lock);
    delete g_session;
    g_session = nullptr;
    if (g_tracker == nullptr) return;
    g_tracker->SignalShutdown();
    g_trackerThread->join();
    delete g_trackerThread;
    g_trackerThread = nullptr;
    UDBControl::InsertClassRef(SMN_TRACKER, nullptr);
    delete g_tracker;
    g_tracker = nullptr;
}

IoClientMgmt& session()
{
    std::lock_guard<std::mutex> g(g_lock);
    if (g_session == nullptr) {
        c_sockaddr peer;
        g_session = new IoClientMgmt(peer, nullptr, 1, DispatchCommand);
    }
    return *g_session;
}

} // namespace fuzz_support
