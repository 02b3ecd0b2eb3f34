#include "dsp/Gain.h"

#include "support/ModuleHarness.h"

#include <gtest/gtest.h>

using namespace Zelmar;
using Testing::constant;
using Testing::raw;

namespace {

std::shared_ptr<Gain> makeGain(char const* dB, unsigned int sampleRate = 48000)
{
    auto gain = std::make_shared<Gain>("g");
    gain->setParameters(Parameters{{"gain", dB}}, sampleRate);
    return gain;
}

const tSample c_one = raw(0x08000000);

} // namespace

TEST(GainTest, LevelsFollowSixDecibelsPerDoubling)
{
    EXPECT_EQ(makeGain("6")->getTargetGain(), raw(0x10000000));
    EXPECT_EQ(makeGain("-6")->getTargetGain(), raw(0x04000000));
    EXPECT_NEAR(makeGain("20")->getTargetGain().toDouble(), 10.08, 0.001);

    std::vector<tSample> const samples = {raw(-3), raw(3), raw(0x7FFFFFFF), raw(-0x7FFFFFFF)};
    Testing::ModuleHarness unity(makeGain("0"));
    EXPECT_EQ(unity.run(samples), samples);
    Testing::ModuleHarness half(makeGain("-6"));
    // The product truncates toward minus infinity: -1.5 units become -2.
    EXPECT_EQ(half.run(samples), (std::vector<tSample>{raw(-2), raw(1), raw(0x3FFFFFFF), raw(-0x40000000)}));

    Testing::ModuleHarness unconfigured(std::make_shared<Gain>("g"));
    EXPECT_EQ(unconfigured.run(samples), constant(4, tSample::s_Zero));
}

TEST(GainTest, FadeFromSilenceReachesUnityAfter48020SamplesInOneBlockOrInPeriods)
{
    auto block = makeGain("-1000");
    EXPECT_EQ(block->calcGainChangeIncrement(48000), raw(2795));
    block->fadeTo(tSample(0.0));
    EXPECT_TRUE(block->isFading());
    Testing::ModuleHarness whole(block);
    std::vector<tSample> const ramp = whole.run(constant(48100, c_one));
    EXPECT_EQ(ramp[1], raw(2795));
    EXPECT_EQ(ramp[48019], raw(48019 * 2795));
    EXPECT_EQ(ramp[48020], c_one);
    EXPECT_EQ(ramp[48099], c_one);
    EXPECT_FALSE(block->isFading());

    auto periodic = makeGain("-1000");
    periodic->fadeTo(tSample(0.0));
    Testing::ModuleHarness periods(periodic);
    for (unsigned int start = 0; start < ramp.size(); start += 1280) {
        unsigned int const n = std::min<unsigned int>(1280, static_cast<unsigned int>(ramp.size()) - start);
        std::vector<tSample> const out = periods.run(constant(n, c_one));
        ASSERT_TRUE(std::equal(out.begin(), out.end(), ramp.begin() + start)) << "period from " << start;
    }
}

TEST(GainTest, FadeEndingInsideAPeriodHoldsTheTargetExactly)
{
    auto gain = makeGain("0");
    gain->fadeTo(tSample(-0.06));
    tSample const target = gain->getTargetGain();
    ASSERT_LT(target, c_one);
    Testing::ModuleHarness harness(gain);
    std::vector<tSample> const out = harness.run(constant(1280, c_one));

    unsigned int i = 0;
    while (out[i] != target) {
        ASSERT_EQ(out[i], raw(0x08000000 - static_cast<int32_t>(i) * 2795)) << i;
        ++i;
    }
    // The ramp stops at the last whole step before the target, then snaps to it.
    EXPECT_GT(i, 0u);
    EXPECT_LT(out[i - 1] - target, raw(2 * 2795));
    for (; i < out.size(); ++i)
        ASSERT_EQ(out[i], target) << i;
    EXPECT_FALSE(gain->isFading());
}

TEST(GainTest, SetParametersDuringAFadeJumpsToTheNewLevel)
{
    auto gain = makeGain("0");
    gain->fadeTo(tSample(12.0));
    Testing::ModuleHarness harness(gain);
    harness.run(constant(100, c_one));
    ASSERT_TRUE(gain->isFading());
    gain->setParameters(Parameters{{"gain", "-6"}}, 48000);
    EXPECT_EQ(harness.run(constant(3, c_one)), constant(3, raw(0x04000000)));
    EXPECT_FALSE(gain->isFading());
}

TEST(GainTest, FactorsEqualInFloatCountAsNotFadingAndTheCurrentOneIsApplied)
{
    // At this rate one ramp step is a single unit, so the factor can stop between float values.
    auto gain = makeGain("0", 100000000);
    ASSERT_EQ(gain->calcGainChangeIncrement(100000000), raw(1));
    gain->fadeTo(raw(138));
    ASSERT_EQ(gain->getTargetGain(), raw(0x08000010));
    Testing::ModuleHarness harness(gain);
    harness.run(constant(9, c_one));
    // 0x08000009 rounds to the target's float, so the ramp counts as done while short of it.
    EXPECT_FALSE(gain->isFading());
    EXPECT_EQ(harness.run(constant(2, c_one)), constant(2, raw(0x08000009)));
}

TEST(GainTest, LevelOf24DecibelsDoesNotFit)
{
    EXPECT_DEATH(makeGain("24"), "v < pow\\(2, pre_comma\\)");
}
