// What a signal keeps of its slots once their connections are gone.
#include "base/Signal.h"

#include <gtest/gtest.h>
#include <malloc.h>

using namespace Zelmar::Tools;

namespace {

size_t heapInUse()
{
    struct mallinfo2 const heap = mallinfo2();
    return heap.uordblks + heap.hblkhd;
}

} // namespace

// A long-running host makes and drops a chain (each connecting to the daemon client's signal) at every
// reload, while that signal may never fire.
TEST(SignalTest, ASilentSignalFreesTheSlotsDroppedBeforeTheNextConnects)
{
    Signal<void(int)> signal;
    auto const connectAndDrop = [&] {
        for (int i = 0; i < 1000; ++i)
            signal.connect([](int) {});
    };
    connectAndDrop();
    size_t const before = heapInUse();
    connectAndDrop();
    // Each slot with its handler takes some 100 bytes; one left behind per connect would show as 100 kB.
    EXPECT_LT(heapInUse() - before, 1000u * 8u);
}
