#include "Common/OS/Linux/HandlePool.h"

#include <gtest/gtest.h>

#include <thread>

#include "Common/OS/Linux/CWinEventHandle.h"
#include "Common/OS/Linux/WinEvent.h"

namespace {

TEST(HandlePoolTest, EventsComeBackClearAndOfTheKindAsked)
{
    for (bool manual : {false, true}) {
        SCOPED_TRACE(manual);
        HANDLE h = tavro_internal::borrowEvent(manual);
        SetEvent(h);
        tavro_internal::returnEvent(h, manual);
        // However many were lent before, the one lent now is clear.
        HANDLE again = tavro_internal::borrowEvent(manual);
        CWinEventHandle* ev = castToWinEventHandle(again);
        ASSERT_NE(nullptr, ev);
        EXPECT_FALSE(ev->signaled());
        EXPECT_EQ(manual, ev->manualReset());
        EXPECT_EQ("", ev->name());
        tavro_internal::returnEvent(again, manual);
    }
}

TEST(HandlePoolTest, AMutexHeldByItsReturnerIsLentFree)
{
    HANDLE m = tavro_internal::borrowMutex();
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(m, INFINITE));
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(m, INFINITE));
    tavro_internal::returnMutex(m);
    HANDLE again = tavro_internal::borrowMutex();
    DWORD other = WAIT_FAILED;
    std::thread t([&] {
        other = WaitForSingleObject(again, 0);
        if (other == WAIT_OBJECT_0) ReleaseMutex(again);
    });
    t.join();
    EXPECT_EQ(WAIT_OBJECT_0, other);
    tavro_internal::returnMutex(again);
}

} // namespace
