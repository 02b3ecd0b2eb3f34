#include "dsp/Limiter.h"

#include "support/ModuleHarness.h"

#include <gtest/gtest.h>

using namespace Zelmar;
using Testing::constant;

namespace {

std::shared_ptr<Limiter> makeLimiter(char const* attack, char const* release, char const* threshold)
{
    auto limiter = std::make_shared<Limiter>("l");
    limiter->setParameters(Parameters{{"attack", attack}, {"release", release}, {"threshold", threshold}},
                           48000);
    return limiter;
}

std::vector<tSample> sine(unsigned int frames, float amplitude)
{
    AudioBuffer buffer(frames);
    buffer.generateSine(amplitude, 440.0f, 48000.0f);
    return std::vector<tSample>(buffer.getRawData(), buffer.getRawData() + frames);
}

} // namespace

TEST(LimiterTest, CoefficientsReachNinetyNinePercentInTheGivenTime)
{
    // pow(0.01, 1/48) is narrowed to single precision before it becomes Q4.27, and 0.90851 as a
    // float lands on 121939168; the double would have given 121939164.
    EXPECT_EQ(Limiter::calcCoefficient(1.0, 48000).getRaw(), 121939168);
    EXPECT_NEAR(Limiter::calcCoefficient(10.0, 48000).toDouble(), 0.99045, 0.00001);
    EXPECT_NEAR(Limiter::calcCoefficient(100.0, 48000).toDouble(), 0.99904, 0.00001);
    EXPECT_EQ(Limiter::calcCoefficient(0.0, 48000), tSample::s_Zero);
}

TEST(LimiterTest, InstantAttackHoldsTheThresholdAndKeepsTheSign)
{
    Testing::ModuleHarness unity(makeLimiter("0", "0", "0"));
    std::vector<tSample> square;
    for (int i = 0; i < 64; ++i)
        square.push_back(tSample((i / 8) % 2 ? -1.0 : 1.0));
    EXPECT_EQ(unity.run(square), square);

    Testing::ModuleHarness half(makeLimiter("0", "0", "-6"));
    EXPECT_EQ(half.run(constant(4, tSample(0.8))), constant(4, tSample(0.5)));
    EXPECT_EQ(half.run(constant(4, tSample(-0.8))), constant(4, tSample(-0.5)));
    EXPECT_EQ(half.run(constant(4, tSample(0.3))), constant(4, tSample(0.3)));
}

TEST(LimiterTest, EnvelopeCarriesAcrossPeriods)
{
    std::vector<tSample> const input = sine(1024, 0.9f);
    Testing::ModuleHarness whole(makeLimiter("1", "10", "-6"));
    std::vector<tSample> const once = whole.run(input);

    Testing::ModuleHarness split(makeLimiter("1", "10", "-6"));
    std::vector<tSample> halves = split.run(std::vector<tSample>(input.begin(), input.begin() + 300));
    std::vector<tSample> const second = split.run(std::vector<tSample>(input.begin() + 300, input.end()));
    halves.insert(halves.end(), second.begin(), second.end());
    EXPECT_EQ(halves, once);
    // With a finite attack the peaks come down but are not held exactly at the threshold.
    auto const peak = *std::max_element(once.begin(), once.end());
    EXPECT_LT(peak, tSample(0.9));
    EXPECT_GT(peak, tSample(0.5));
}

TEST(LimiterTest, UnconfiguredLimiterIsSilentAndTooHighAThresholdAsserts)
{
    Testing::ModuleHarness unconfigured(std::make_shared<Limiter>("l"));
    EXPECT_EQ(unconfigured.run({tSample(0.25), tSample(-0.5)}), constant(2, tSample::s_Zero));
    EXPECT_DEATH(makeLimiter("1", "1", "24"), "v < pow\\(2, pre_comma\\)");
}
