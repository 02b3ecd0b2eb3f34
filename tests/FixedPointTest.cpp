#include "dsp/FixedPoint.h"

#include <gtest/gtest.h>

using namespace Zelmar;

TEST(FixedPointTest, DivisionRoundsTowardZero)
{
    EXPECT_EQ(tSample(1.5) / tSample(0.5), tSample(3.0));
    EXPECT_EQ(tSample(-1.0) / tSample(4.0), tSample(-0.25));
    EXPECT_EQ(tSample(int32_t(-3)) / tSample(2.0), tSample(int32_t(-1)));
    EXPECT_EQ(tSample(int32_t(3)) / tSample(-2.0), tSample(int32_t(-1)));
    EXPECT_EQ(tSample(int32_t(-1)) / tSample(2.0), tSample(int32_t(0)));
}
