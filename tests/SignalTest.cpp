#include "base/Signal.h"

#include <gtest/gtest.h>
#include <vector>

using namespace Zelmar::Tools;

TEST(SignalTest, SlotsLiveWhileTheirConnectionLivesAndRunFrontToBack)
{
    Signal<void(int)> signal;
    std::vector<int> calls;
    Connection back = signal.connect([&](int v) { calls.push_back(v); });
    Connection front = signal.connectFront([&](int v) { calls.push_back(-v); });
    {
        Connection scoped = signal.connect([&](int v) { calls.push_back(100 * v); });
        signal(2);
    }
    signal(3);
    front.disconnect();
    signal(4);
    EXPECT_EQ(calls, (std::vector<int>{-2, 2, 200, -3, 3, 4}));
    EXPECT_EQ(signal.getNumConnections(), 1u);
}
