#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    // GDBus, the sound loaders and the encoder start threads. A death test forked from a threaded
    // process can hang on a lock another thread held at the fork (GLib's charset lock, for one), so
    // death tests re-execute the program instead. Set here, after gtest's own flag initialisation,
    // which a static initialiser could run before.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    return RUN_ALL_TESTS();
}
