#include "dsp/FixedPoint.h"

#include <gtest/gtest.h>

using namespace Zelmar;

TEST(FixedPointTest, DivisionScalesTheDividendAndTruncatesTowardZero)
{
    EXPECT_EQ(tSample(3.0) / tSample(6.0), tSample(0.5));
    // 1 unit / 6.0 is 1/6 of a unit: truncated to 0, and to 0 rather than -1 when negative.
    EXPECT_EQ((tSample(int32_t(1)) / tSample(6.0)).getRaw(), 0);
    EXPECT_EQ((tSample(int32_t(-1)) / tSample(6.0)).getRaw(), 0);
    EXPECT_EQ((tSample(int32_t(-7)) / tSample(int32_t(0x10000000))).getRaw(), -3);
    // The dividend is widened before scaling, so 8.0 / 0.5 needs no headroom until the result.
    using tQ11 = FixedPoint<11, 20, true>;
    EXPECT_EQ(tQ11(8.0) / tQ11(0.5), tQ11(16.0));
}
