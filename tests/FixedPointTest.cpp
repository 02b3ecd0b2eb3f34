#include "dsp/FixedPoint.h"

#include <gtest/gtest.h>

using Zelmar::tSample;

namespace {
tSample raw(int32_t r)
{
    return tSample(r);
}
} // namespace

TEST(FixedPointTest, ConversionGoesThroughSinglePrecisionAndTruncates)
{
    EXPECT_EQ(tSample(0.5).getRaw(), 0x4000000);
    EXPECT_EQ(tSample::s_Half.getRaw(), 0x4000000);
    EXPECT_EQ(tSample(-1.0).getRaw(), -0x8000000);
    // 0.1 as a float is 0.100000001490116..., so the 24 significant bits survive and the rest is cut.
    EXPECT_EQ(tSample(0.1).getRaw(), 13421773);
    EXPECT_EQ(tSample(0.1f).getRaw(), tSample(0.1).getRaw());
    // Truncation is toward zero on both sides.
    EXPECT_EQ(tSample(-1e-9).getRaw(), 0);
    EXPECT_EQ(tSample(15.99).getRaw(), static_cast<int32_t>(15.99f * 134217728.0f));
    // Below the range the value clamps instead of asserting.
    EXPECT_EQ(tSample(-20.0).getRaw(), INT32_MIN);
    EXPECT_FLOAT_EQ(raw(0x4000000).toFloat(), 0.5f);
    EXPECT_DOUBLE_EQ(raw(1).toDouble(), 7.450580596923828e-9);
}

TEST(FixedPointTest, ProductsTruncateTowardMinusInfinityAndSumsWrap)
{
    EXPECT_EQ((raw(-1) * tSample::s_Half).getRaw(), -1);
    EXPECT_EQ((raw(1) * tSample::s_Half).getRaw(), 0);
    EXPECT_EQ((tSample(-2.0) * tSample(-3.0)).getRaw(), tSample(6.0).getRaw());
    EXPECT_LT((tSample(15.0) + tSample(15.0)).getRaw(), 0);
    EXPECT_EQ((tSample(4.0) * tSample(4.0)).getRaw(), INT32_MIN) << "a product of 16 wraps to -16";
    EXPECT_TRUE(tSample(-0.5) < tSample(0.25));
}

TEST(FixedPointTest, UnsignedAndWiderIntegerFormats)
{
    using tStep = Zelmar::FixedPoint<5, 27, false>;
    using tControl = Zelmar::FixedPoint<12, 19, true>;
    EXPECT_EQ(tStep(31.5).getRaw(), static_cast<uint32_t>(31.5 * 134217728.0));
    EXPECT_EQ((tStep(2.0) * tStep(3.5)).getRaw(), tStep(7.0).getRaw());
    EXPECT_EQ(tControl(4095.0).getRaw(), 4095 << 19);
}

TEST(FixedPointDeathTest, ValuesOfSixteenOrMoreAssert)
{
    EXPECT_DEATH(tSample(16.0), "v < pow\\(2, pre_comma\\)");
    EXPECT_DEATH((Zelmar::FixedPoint<5, 27, false>(32.0)), "v < pow\\(2, pre_comma\\)");
}

TEST(FixedPointTest, DivisionScalesTheDividendAndTruncatesTowardZero)
{
    EXPECT_EQ(tSample(3.0) / tSample(6.0), tSample(0.5));
    // 1 unit / 6.0 is 1/6 of a unit: truncated to 0, and to 0 rather than -1 when negative.
    EXPECT_EQ((tSample(int32_t(1)) / tSample(6.0)).getRaw(), 0);
    EXPECT_EQ((tSample(int32_t(-1)) / tSample(6.0)).getRaw(), 0);
    EXPECT_EQ((tSample(int32_t(-7)) / tSample(int32_t(0x10000000))).getRaw(), -3);
    // The dividend is widened before scaling, so 8.0 / 0.5 needs no headroom until the result.
    using tQ11 = Zelmar::FixedPoint<11, 20, true>;
    EXPECT_EQ(tQ11(8.0) / tQ11(0.5), tQ11(16.0));
}
