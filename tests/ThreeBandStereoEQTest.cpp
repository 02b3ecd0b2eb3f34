#include "dsp/ThreeBandStereoEQ.h"
#include "dsp/ModuleFactory.h"
#include "support/ModuleHarness.h"

#include <gtest/gtest.h>

using namespace Zelmar;
using Testing::ModuleHarness;

namespace {

Parameters bands(char const* low, char const* mid, char const* high, char const* correction)
{
    return Parameters{
        {"low-gain", low}, {"mid-gain", mid}, {"high-gain", high}, {"gain-correction", correction}};
}

std::vector<tSample> ramp(unsigned int frames, double step)
{
    std::vector<tSample> samples(frames);
    for (unsigned int i = 0; i < frames; ++i)
        samples[i] = tSample(std::fmod(i * step, 1.0) - 0.5);
    return samples;
}

} // namespace

TEST(ThreeBandStereoEQTest, CorrectionUsesSixDecibelsPerDoublingAndTheLargestBoost)
{
    ThreeBandStereoEQ::ParameterSet const boosted(bands("6", "0", "3", "true"), 48000);
    EXPECT_EQ(boosted.m_correctionGain, tSample(0.5));
    EXPECT_EQ(boosted.m_hiddenVolumeDelta, tSample(6.0));

    ThreeBandStereoEQ::ParameterSet const cut(bands("-3", "-6", "-1", "true"), 48000);
    EXPECT_EQ(cut.m_correctionGain.getRaw(), 0x08000000);
    EXPECT_EQ(cut.m_hiddenVolumeDelta, tSample::s_Zero);

    ThreeBandStereoEQ::ParameterSet const off(bands("6", "0", "3", "false"), 48000);
    EXPECT_EQ(off.m_correctionGain.getRaw(), 0x08000000);
    EXPECT_EQ(off.m_hiddenVolumeDelta, tSample::s_Zero);

    // Only the mid band is largest here; 2^(-4.5/6), not 10^(-4.5/20).
    ThreeBandStereoEQ::ParameterSet const mid(bands("1", "4.5", "-2", "true"), 48000);
    EXPECT_EQ(mid.m_correctionGain, tSample(std::pow(2.0, -4.5 / 6.0)));
}

TEST(ThreeBandStereoEQTest, BandsMatchTheGenericDesigns)
{
    ThreeBandStereoEQ::ParameterSet const ps(bands("4", "-5", "2", "false"), 44100);
    BiQuadSection low, high, mid;
    low.design(AudioFilter::Characteristic::LoShelf, 44100, 300, 1, 4);
    high.design(AudioFilter::Characteristic::HiShelf, 44100, 3000, 1, 2);
    mid.design(AudioFilter::Characteristic::Peak, 44100, 1000, 0.707, -5);
    for (auto const& pair : {std::make_pair(ps.m_low, low), std::make_pair(ps.m_high, high)}) {
        EXPECT_EQ(pair.first.b0, pair.second.b0);
        EXPECT_EQ(pair.first.a2, pair.second.a2);
    }
    // The mid band multiplies by 1/0.707 rather than dividing: equal up to the last single-precision bit.
    EXPECT_NEAR(ps.m_mid.b0.getRaw(), mid.b0.getRaw(), 16);
    EXPECT_NEAR(ps.m_mid.a2.getRaw(), mid.a2.getRaw(), 16);
}

TEST(ThreeBandStereoEQTest, RunsBothChannelsInPlaceWithStateAcrossPeriods)
{
    auto const left = ramp(700, 0.013), right = ramp(700, 0.0071);
    std::shared_ptr<Module> eq(ModuleFactory::get().createModule("stereo-equalizer", "eq"));
    ASSERT_NE(dynamic_cast<ThreeBandStereoEQ*>(eq.get()), nullptr);
    ModuleHarness inPlace(eq, true);
    EXPECT_EQ(inPlace.process({left, right}), (ModuleHarness::tChannels{left, right}));

    // Flat and uncorrected: the identity up to the truncation of the coefficients.
    eq->setParameters(bands("0", "0", "0", "false"), 48000);
    auto const flat = inPlace.process({left, right});
    for (unsigned int i = 0; i < left.size(); ++i) {
        ASSERT_NEAR(flat[0][i].getRaw(), left[i].getRaw(), 64) << i;
        ASSERT_NEAR(flat[1][i].getRaw(), right[i].getRaw(), 64) << i;
    }

    // Each channel runs the three sections and the correction, whatever the period split.
    Parameters const params = bands("5", "-4", "3", "true");
    std::shared_ptr<Module> fresh(ModuleFactory::get().createModule("stereo-equalizer", "eq2"));
    fresh->setParameters(params, 48000);
    ModuleHarness freshHarness(fresh);
    auto const whole = freshHarness.process({left, right});
    ThreeBandStereoEQ::ParameterSet const ps(params, 48000);
    tSample z[6];
    for (unsigned int i = 0; i < left.size(); ++i) {
        tSample y =
            ps.m_high.step(ps.m_mid.step(ps.m_low.step(right[i], z[0], z[1]), z[2], z[3]), z[4], z[5]);
        ASSERT_EQ(whole[1][i], y * ps.m_correctionGain) << i;
    }
    std::shared_ptr<Module> split(ModuleFactory::get().createModule("stereo-equalizer", "eq3"));
    split->setParameters(params, 48000);
    ModuleHarness splitHarness(split, true);
    EXPECT_EQ(splitHarness.processInPeriods({left, right}, 350), whole);
}

TEST(ThreeBandStereoEQTest, StereoEqualizerInAChainReportsItsDelta)
{
    Chain chain(48000);
    auto eq = chain.addStereoModule("equalizer", "tone");
    ASSERT_NE(dynamic_cast<ThreeBandStereoEQ*>(eq.get()), nullptr);
    EXPECT_EQ(eq->getType(), "stereo-equalizer");
    // The daemon is not connected in tests; the delta is kept for it without error.
    EXPECT_NO_THROW(eq->setParameters(bands("2", "1", "0", "true"), 48000));
}
