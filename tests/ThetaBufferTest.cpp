#include "dsp/ThetaBuffer.h"

#include <cmath>
#include <gtest/gtest.h>

using namespace Zelmar;

TEST(ThetaBufferTest, StatisticsCoverTheFilledPartAndTheLatestValuesOnceWrapped)
{
    ThetaBuffer theta(4);
    EXPECT_EQ(theta.calcMean(), 0.0f);
    theta.addValue(1.0f);
    theta.addValue(2.0f);
    EXPECT_FLOAT_EQ(theta.calcMean(), 1.5f);
    EXPECT_EQ(theta.calcDeviation(1.5f), 0.0f) << "fewer than three values";
    theta.addValue(3.0f);
    EXPECT_FLOAT_EQ(theta.calcMean(), 2.0f);
    EXPECT_FLOAT_EQ(theta.calcDeviation(2.0f), 1.0f) << "divisor count - 1";
    theta.addValue(4.0f);
    theta.addValue(5.0f); // overwrites the 1
    EXPECT_EQ(theta.getCount(), 4u);
    EXPECT_FLOAT_EQ(theta.calcMean(), 3.5f);
    EXPECT_FLOAT_EQ(theta.calcDeviation(3.5f), std::sqrt(5.0f / 3.0f));

    theta.reset(2);
    EXPECT_EQ(theta.getCount(), 0u);
    theta.addValue(-6.0f);
    EXPECT_FLOAT_EQ(theta.calcMean(), -6.0f);
}
