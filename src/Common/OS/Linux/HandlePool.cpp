#include "Common/OS/Linux/HandlePool.h"

#include <mutex>
#include <vector>

#include "Common/OS/Linux/WinEvent.h"

namespace {

// Enough for every command that many threads have in flight at once; what
// comes back beyond it is closed.
constexpr std::size_t kKeep = 256;

struct Pool {
    std::mutex lock;
    std::vector<HANDLE> handles;

    HANDLE take()
    {
        std::lock_guard<std::mutex> g(lock);
        if (handles.empty()) return nullptr;
        HANDLE h = handles.back();
        handles.pop_back();
        return h;
    }
    void put(HANDLE h)
    {
        {
            std::lock_guard<std::mutex> g(lock);
            if (handles.size() < kKeep) {
                handles.push_back(h);
                return;
            }
        }
        CloseHandle(h);
    }
};

// Never destroyed: detached threads may give handles back during exit.
Pool& pool(int kind)
{
    static Pool* pools = new Pool[2];
    return pools[kind];
}

enum { AUTO_EVENTS, MANUAL_EVENTS };

} // namespace

HANDLE tavro_internal::borrowEvent(bool manualReset)
{
    HANDLE h = pool(manualReset ? MANUAL_EVENTS : AUTO_EVENTS).take();
    return h != nullptr ? h : CreateEvent(nullptr, manualReset ? TRUE : FALSE, FALSE, nullptr);
}

void tavro_internal::returnEvent(HANDLE h, bool manualReset)
{
    if (h == nullptr) return;
    ResetEvent(h);
    pool(manualReset ? MANUAL_EVENTS : AUTO_EVENTS).put(h);
}
