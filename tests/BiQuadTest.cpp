#include "dsp/BiQuad.h"
#include "dsp/ModuleFactory.h"
#include "dsp/StereoBiQuad.h"
#include "dsp/precalculated/PrecalculatedBiQuadKernels.h"
#include "support/ModuleHarness.h"

#include <gtest/gtest.h>

using namespace Zelmar;
using Testing::ModuleHarness;

namespace {

Parameters filter(char const* type, char const* frequency, char const* q, char const* gain)
{
    return Parameters{{"type", type}, {"frequency", frequency}, {"q", q}, {"gain", gain}};
}

std::shared_ptr<Module> make(char const* type)
{
    return std::shared_ptr<Module>(ModuleFactory::get().createModule(type, "f"));
}

std::shared_ptr<Module> make(char const* type, Parameters const& params, unsigned int rate)
{
    auto module = make(type);
    module->setParameters(params, rate);
    return module;
}

// Gain in dB of a 1 s sine after 1 s of settling.
double measure(Parameters const& params, unsigned int rate, double frequency)
{
    ModuleHarness harness(make("biquad", params, rate));
    auto const out = harness.processInPeriods({Testing::makeSine(0.25, frequency, rate, 2 * rate)}, 1280);
    return Testing::levelDb(out[0], rate, 0.25);
}

} // namespace

TEST(BiQuadTest, PassesAudioThroughBeforeParametersAndAtNyquist)
{
    auto module = make("biquad");
    ASSERT_NE(dynamic_cast<BiQuad*>(module.get()), nullptr);
    ModuleHarness harness(module);
    auto const input = Testing::noise(256, 1, 0x04000000);
    EXPECT_EQ(harness.process({input})[0], input);
    module->setParameters(filter("lopass", "24000", "0.7", "0"), 48000);
    EXPECT_EQ(harness.process({input})[0], input);
}

TEST(BiQuadTest, UnknownTypeKeepsThePreviousFilter)
{
    auto module = make("biquad");
    module->setParameters(filter("lopass", "1000", "0.7", "0"), 48000);
    EXPECT_THROW(module->setParameters(filter("LoPass", "1000", "0.7", "0"), 48000), ParsingException);
    ModuleHarness harness(module);
    auto const input = Testing::noise(256, 2, 0x04000000);
    EXPECT_NE(harness.process({input})[0], input);
}

TEST(BiQuadTest, FrequencyResponseMeasuredWithSines)
{
    EXPECT_NEAR(measure(filter("peak", "1000", "1", "6"), 48000, 1000), 6.0, 0.1);
    EXPECT_NEAR(measure(filter("peak", "1000", "2", "-9"), 48000, 1000), -9.0, 0.1);
    EXPECT_NEAR(measure(filter("lopass", "1000", "0.707", "0"), 48000, 1000), -3.0, 0.1);
    EXPECT_NEAR(measure(filter("hipass", "1000", "0.707", "0"), 44100, 1000), -3.0, 0.1);
    EXPECT_NEAR(measure(filter("loshelf", "2000", "0", "6"), 48000, 20), 6.0, 0.1);
    EXPECT_NEAR(measure(filter("hishelf", "500", "0", "-4"), 48000, 20000), -4.0, 0.1);
    EXPECT_LT(measure(filter("notch", "1000", "1", "0"), 48000, 1000), -40.0);
    EXPECT_NEAR(measure(filter("bandpass", "1000", "1", "0"), 48000, 1000), 0.0, 0.1);
}

// Same stream, one block or two halves, with and without a kernel: the state must carry over.
TEST(BiQuadTest, StateCarriesAcrossPeriodsAndParameterChanges)
{
    auto const input = Testing::noise(1024, 3, 0x04000000);
    for (char const* rate : {"44100", "44000"}) {
        unsigned int const fs = std::stoi(rate);
        auto whole = make("biquad", filter("peak", "45", "2", "10"), fs);
        auto halves = make("biquad", filter("peak", "45", "2", "10"), fs);
        ModuleHarness wholeHarness(whole), halvesHarness(halves, true);
        EXPECT_EQ(wholeHarness.process({input})[0], halvesHarness.processInPeriods({input}, 512)[0]) << rate;
        EXPECT_EQ(static_cast<BiQuad&>(*whole).getPrecalculatedKernel(),
                  fs == 44100 ? &peak_44100_f45_q2000_g10000 : nullptr);
    }

    // A change of coefficients continues from the old state: the output right after the change equals
    // a fresh filter's output plus the old state's decay, never the fresh filter alone.
    auto changed = make("biquad", filter("lopass", "200", "0.7", "0"), 48000);
    auto fresh = make("biquad", filter("hipass", "200", "0.7", "0"), 48000);
    ModuleHarness changedHarness(changed), freshHarness(fresh);
    changedHarness.process({std::vector<tSample>(256, tSample(0.5))});
    changed->setParameters(filter("hipass", "200", "0.7", "0"), 48000);
    auto const silence = std::vector<tSample>(4, tSample::s_Zero);
    EXPECT_EQ(freshHarness.process({silence})[0], silence);
    EXPECT_GT(changedHarness.process({silence})[0][0], tSample(0.1));
}

TEST(StereoBiQuadTest, FiltersEachChannelLikeTheMonoModule)
{
    auto const left = Testing::noise(600, 4, 0x04000000), right = Testing::noise(600, 5, 0x04000000);
    auto passing = make("stereo-biquad");
    ASSERT_NE(dynamic_cast<StereoBiQuad*>(passing.get()), nullptr);
    ModuleHarness passingHarness(passing, true);
    EXPECT_EQ(passingHarness.process({left, right}), (ModuleHarness::tChannels{left, right}));

    // The +7 dB design has no kernel, the -3 dB one at 4200 Hz Q 1.2 has.
    for (char const* gain : {"7", "-3"}) {
        Parameters const params = filter("peak", "4200", "1.2", gain);
        auto stereo = make("stereo-biquad", params, 44100);
        ModuleHarness stereoHarness(stereo, true), leftHarness(make("biquad", params, 44100)),
            rightHarness(make("biquad", params, 44100));
        auto const both = stereoHarness.processInPeriods({left, right}, 256);
        EXPECT_EQ(both[0], leftHarness.processInPeriods({left}, 256)[0]) << gain;
        EXPECT_EQ(both[1], rightHarness.processInPeriods({right}, 256)[0]) << gain;
        EXPECT_EQ(static_cast<BiQuad&>(*stereo).getPrecalculatedKernel(),
                  gain[0] == '-' ? &peak_44100_f4200_q1200_gm3000 : nullptr);
    }
}
