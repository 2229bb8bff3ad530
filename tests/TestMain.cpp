#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
#ifdef TAVRO_DEATH_TEST_FORK
    // Under qemu-user the re-exec of the threadsafe style cannot start the
    // target binary, so death tests fork instead.
    GTEST_FLAG_SET(death_test_style, "fast");
#else
    // The library runs its own threads; fork-only death tests would be unsafe.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
#endif
    return RUN_ALL_TESTS();
}
