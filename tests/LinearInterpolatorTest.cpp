#include "dsp/LinearInterpolator.h"

#include "support/Thrown.h"

#include <gtest/gtest.h>
#include <stdexcept>

using namespace Zelmar;
using tKey = LinearInterpolator::tKey;

namespace {

double at(LinearInterpolator const& curve, double key)
{
    return curve.getInterpolated(tKey(key)).toDouble();
}

} // namespace

TEST(LinearInterpolatorTest, InterpolatesStraightLinesAndHoldsBothEnds)
{
    LinearInterpolator curve;
    curve.load("-60=9,0=0");
    EXPECT_EQ(at(curve, -30), 4.5);

    curve.load("-30=4,0=0,-60=9");
    for (auto const& [key, value] : {std::pair{-45.0, 6.5},
                                     {-30.0, 4.0},
                                     {-15.0, 2.0},
                                     {-60.0, 9.0},
                                     {-100.0, 9.0},
                                     {0.0, 0.0},
                                     {12.0, 0.0}})
        EXPECT_EQ(at(curve, key), value) << key;
    // A third of the way truncates to raw 174762 of 2^19, so the value ends 2 raw steps above 2.
    curve.load("0=3,3=0");
    EXPECT_EQ(curve.getInterpolated(tKey(1.0)).getRaw(), 2 * 524288 + 2);
}

TEST(LinearInterpolatorTest, ParsesPiecesThroughSinglePrecisionAndIgnoresPiecesWithoutEquals)
{
    LinearInterpolator curve;
    curve.load("volume,-10=1, -10=3 ,0.1=-0.1,");
    ASSERT_EQ(curve.getBreakpoints().size(), 2u);
    EXPECT_EQ(curve.getBreakpoints().at(tKey(-10.0)).toDouble(), 3.0);
    // 0.1f * 2^19 = 52428.8 truncates toward zero on both sides.
    EXPECT_EQ(curve.getBreakpoints().begin()->first.getRaw(), -10 * 524288);
    EXPECT_EQ(curve.getBreakpoints().rbegin()->first.getRaw(), 52428);
    EXPECT_EQ(curve.getBreakpoints().rbegin()->second.getRaw(), -52428);

    // Loading replaces, so a curve of pieces without "=" is empty.
    curve.load("-60;9");
    EXPECT_EQ(Testing::thrownMessage<std::invalid_argument>([&] { curve.getInterpolated(tKey(0.0)); }),
              "linear interpolator is not set up properly");
    for (char const* text : {"-60=9,loud=0", "=3", "-60="})
        EXPECT_EQ(Testing::thrownMessage<std::invalid_argument>([&] { curve.load(text); }), "stod") << text;
    EXPECT_EQ(Testing::thrownMessage<std::out_of_range>([&] { curve.load("-60=1e999"); }), "stod");
}

TEST(LinearInterpolatorDeathTest, NumbersOf4096OrMoreDoNotFit)
{
    LinearInterpolator curve;
    curve.loadBreakpoint("4095.5=-4095.5");
    EXPECT_DEATH(curve.loadBreakpoint("4096=0"), "v < pow\\(2, pre_comma\\)");
    EXPECT_DEATH(curve.loadBreakpoint("0=5000"), "v < pow\\(2, pre_comma\\)");
}
