#include "dsp/FixedPointClosedLoopControl.h"

#include <gtest/gtest.h>

using namespace Zelmar;
using tValue = FixedPointClosedLoopControl::tValue;

TEST(FixedPointClosedLoopControlTest, ProportionalOutputIsClampedToTheLimits)
{
    FixedPointClosedLoopControl unlimited(1.0f, 1.0f, 1.0f);
    unlimited.process(3.0f);
    EXPECT_EQ(unlimited.getOutput(), tValue::s_Zero);

    FixedPointClosedLoopControl control(1.0f, 0.0f, 0.0f);
    control.setMinMax(-10.0f, 10.0f);
    control.setPoint(0.0f);
    control.process(3.0f);
    EXPECT_EQ(control.getOutput(), tValue(-3.0));
    control.process(20.0f);
    EXPECT_EQ(control.getOutput(), tValue(-10.0));
    control.process(-20);
    EXPECT_EQ(control.getOutput(), tValue(10.0));
}

TEST(FixedPointClosedLoopControlTest, IntegralIsFrozenInsideTheDeadBand)
{
    FixedPointClosedLoopControl control(0.0f, 1.0f, 0.0f);
    control.setMinMax(-100.0f, 100.0f);
    control.process(0.05f);
    control.process(-0.05f);
    EXPECT_EQ(control.getOutput(), tValue::s_Zero);
    // -0.0501 (raw -52533) times 0.01 (raw 10485), shifted right by 20, floors to -526.
    control.process(0.0501f);
    EXPECT_EQ(control.getOutput().getRaw(), -526);
    control.process(0.0501f);
    EXPECT_EQ(control.getOutput().getRaw(), -2 * 526);
    control.reset();
    control.process(0.0f);
    EXPECT_EQ(control.getOutput(), tValue::s_Zero);
}

TEST(FixedPointClosedLoopControlTest, FirstDerivativeIsTheErrorOverTheInterval)
{
    FixedPointClosedLoopControl control(0.0f, 0.0f, 1.0f);
    control.setMinMax(-1000.0f, 1000.0f);
    control.process(-1.0f);
    // 1.0 / 0.01 in Q11.20: 2^40 / 10485, truncated; about 100.0072 since 10485 is slightly under 0.01.
    EXPECT_EQ(control.getOutput().getRaw(), 104865200);
    control.process(-1.0f);
    EXPECT_EQ(control.getOutput(), tValue::s_Zero);
    control.reset();
    control.process(1.0f);
    EXPECT_EQ(control.getOutput().getRaw(), -104865200);
}

TEST(FixedPointClosedLoopControlTest, SetPointOf2048DoesNotFit)
{
    FixedPointClosedLoopControl control(1.0f, 0.0f, 0.0f);
    EXPECT_DEATH(control.setPoint(2048.0f), "v < pow\\(2, pre_comma\\)");
}
