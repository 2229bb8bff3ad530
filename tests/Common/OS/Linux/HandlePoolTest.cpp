#include "Common/OS/Linux/HandlePool.h"

#include <gtest/gtest.h>

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

} // namespace
