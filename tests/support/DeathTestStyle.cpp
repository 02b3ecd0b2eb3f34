#include <gtest/gtest.h>

namespace {

// GDBus and the sound loaders start threads; forking a threaded process for a death test can hang,
// so death tests re-execute the test program instead.
struct ThreadsafeDeathTests
{
    ThreadsafeDeathTests() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
} const g_threadsafeDeathTests;

} // namespace
