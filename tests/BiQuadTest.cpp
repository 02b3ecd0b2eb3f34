// The biquad modules and the loops they run: the section's rule, its vector forms and the cascade; the
// designs and the precalculated kernels are checked in BiQuadCoefficientsTest.
#include "dsp/BiQuad.h"
#include "dsp/BiQuadSection.h"
#include "dsp/ModuleFactory.h"
#include "dsp/StereoBiQuad.h"
#include "dsp/VectorLoops.h"
#include "dsp/precalculated/PrecalculatedBiQuadKernels.h"
#include "support/ModuleHarness.h"

#include <gtest/gtest.h>

using namespace Zelmar;
using AudioFilter::Characteristic;
using Testing::ModuleHarness;
using Testing::noise;

namespace {

Parameters filter(char const* type, char const* frequency, char const* q, char const* gain)
{
    return Parameters{{"type", type}, {"frequency", frequency}, {"q", q}, {"gain", gain}};
}

std::shared_ptr<Module> make(char const* type, Parameters const& params = {}, unsigned int rate = 48000)
{
    std::shared_ptr<Module> module(ModuleFactory::get().createModule(type, "f"));
    if (!params.getParams().empty())
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

BiQuadSection section(Characteristic type, double frequency, double q, double gainDb)
{
    BiQuadSection s;
    s.design(type, 48000, frequency, q, gainDb);
    return s;
}

// The vector loops the dispatched runners take when the processor has them.
char const* targetLoops()
{
    return vectorLoops() ? vectorLoops()->name : "scalar (no vector loops)";
}

} // namespace

TEST(BiQuadTest, PassesAudioThroughBeforeParametersAndAtNyquistAndKeepsTheFilterOnAnUnknownType)
{
    auto const input = noise(256, 1, 0x04000000);
    auto module = make("biquad");
    ASSERT_NE(dynamic_cast<BiQuad*>(module.get()), nullptr);
    ModuleHarness harness(module);
    EXPECT_EQ(harness.run(input), input);
    module->setParameters(filter("lopass", "24000", "0.7", "0"), 48000);
    EXPECT_EQ(harness.run(input), input);
    module->setParameters(filter("lopass", "1000", "0.7", "0"), 48000);
    EXPECT_THROW(module->setParameters(filter("LoPass", "1000", "0.7", "0"), 48000), ParsingException);
    EXPECT_NE(harness.run(input), input);
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
    auto const input = noise(1024, 3, 0x04000000);
    for (unsigned int fs : {44100u, 44000u}) {
        auto whole = make("biquad", filter("peak", "45", "2", "10"), fs);
        EXPECT_EQ(ModuleHarness(whole).run(input),
                  ModuleHarness(make("biquad", filter("peak", "45", "2", "10"), fs), true)
                      .processInPeriods({input}, 512)[0])
            << fs;
        EXPECT_EQ(static_cast<BiQuad&>(*whole).getPrecalculatedKernel(),
                  fs == 44100 ? &peak_44100_f45_q2000_g10000 : nullptr);
    }
    // A change of coefficients continues from the old state: the output right after the change equals
    // a fresh filter's output plus the old state's decay, never the fresh filter alone.
    auto changed = make("biquad", filter("lopass", "200", "0.7", "0"));
    ModuleHarness changedHarness(changed);
    changedHarness.run(std::vector<tSample>(256, tSample(0.5)));
    changed->setParameters(filter("hipass", "200", "0.7", "0"), 48000);
    auto const silence = std::vector<tSample>(4, tSample::s_Zero);
    EXPECT_EQ(ModuleHarness(make("biquad", filter("hipass", "200", "0.7", "0"))).run(silence), silence);
    EXPECT_GT(changedHarness.run(silence)[0], tSample(0.1));
}

TEST(StereoBiQuadTest, FiltersEachChannelLikeTheMonoModule)
{
    auto const left = noise(600, 4, 0x04000000), right = noise(600, 5, 0x04000000);
    auto passing = make("stereo-biquad");
    ASSERT_NE(dynamic_cast<StereoBiQuad*>(passing.get()), nullptr);
    EXPECT_EQ(ModuleHarness(passing, true).process({left, right}), (ModuleHarness::tChannels{left, right}));
    // The +7 dB design has no kernel, the -3 dB one at 4200 Hz Q 1.2 has.
    for (char const* gain : {"7", "-3"}) {
        Parameters const params = filter("peak", "4200", "1.2", gain);
        auto stereo = make("stereo-biquad", params, 44100);
        EXPECT_EQ(ModuleHarness(stereo, true).processInPeriods({left, right}, 256),
                  (ModuleHarness::tChannels{
                      ModuleHarness(make("biquad", params, 44100)).processInPeriods({left}, 256)[0],
                      ModuleHarness(make("biquad", params, 44100)).processInPeriods({right}, 256)[0]}))
            << gain;
        EXPECT_EQ(static_cast<BiQuad&>(*stereo).getPrecalculatedKernel(),
                  gain[0] == '-' ? &peak_44100_f4200_q1200_gm3000 : nullptr);
    }
}

// Both runners against each channel run on its own, section by section; odd lengths and a split that
// leaves a single frame check the leftover frame and the state carried between calls; the output
// overwrites the input, loud enough for the 6 dB boost to drive the sums past the range and wrap.
TEST(BiQuadSectionTest, StereoCascadeMatchesTheScalarRuleBitForBit)
{
    BiQuadSection const sections[3] = {section(Characteristic::LoShelf, 300, 0, 6),
                                       section(Characteristic::Peak, 1000, 0.7, -9),
                                       section(Characteristic::HiShelf, 3000, 0, 4)};
    tSample const gain(0.5);
    for (unsigned int numSections : {1u, 3u}) {
        for (auto run : {&runStereoBiQuadCascade, &runStereoBiQuadCascadeScalar}) {
            std::vector<tSample> left = noise(301, 7 + numSections),
                                 right = noise(301, 9 + numSections, 1 << 25);
            std::vector<tSample> expected[2] = {left, right};
            for (auto& channel : expected) {
                for (unsigned int k = 0; k < numSections; ++k) {
                    tSample z1, z2;
                    for (auto& s : channel)
                        s = sections[k].step(s, z1, z2);
                }
                for (auto& s : channel)
                    s = numSections == 3 ? s * gain : s;
            }
            StereoBiQuadState states[3] = {};
            for (auto const& [from, to] : {std::pair{0, 150}, {150, 151}, {151, 301}})
                run(sections, states, numSections, numSections == 3, gain, left.data() + from,
                    right.data() + from, left.data() + from, right.data() + from, to - from);
            EXPECT_TRUE(left == expected[0] && right == expected[1])
                << numSections << " sections, "
                << (run == &runStereoBiQuadCascadeScalar ? "scalar" : targetLoops());
        }
    }
}

// The mono loops carry y instead of z1 and the vector one works four frames at a time with a scalar
// tail; against the rule applied frame by frame, over lengths around the pass size, in place, split in
// two calls, with inputs loud enough to wrap. The shared rule forms z1 = z2 + (x - y) b1.
TEST(BiQuadSectionTest, MonoLoopsMatchTheRuleFrameByFrame)
{
    BiQuadSection const c = section(Characteristic::Peak, 2900, 4, 12);
    std::vector<tSample> const input = noise(203, 3);
    for (bool shared : {false, true}) {
        std::vector<tSample> expected = input;
        tSample e1, e2;
        for (auto& x : expected) {
            tSample const y = e1 + c.b0 * x;
            e1 = shared ? e2 + (x - y) * c.b1 : e2 + c.b1 * x - c.a1 * y;
            e2 = c.b2 * x - c.a2 * y;
            x = y;
        }
        for (bool vector : {true, false}) {
            for (unsigned int split : {0u, 1u, 5u, 6u, 7u, 9u, 10u, 100u, 197u, 203u}) {
                std::vector<tSample> data = input;
                tSample z1, z2;
                for (auto const& [from, to] : {std::pair{0u, split}, {split, 203u}}) {
                    tSample* at = data.data() + from;
                    if (!vector)
                        runMonoBiQuadScalar(c, shared, at, at, to - from, z1, z2);
                    else
                        (shared ? runMonoBiQuadSharedB1A1 : runMonoBiQuad)(c, at, at, to - from, z1, z2);
                }
                EXPECT_TRUE(data == expected && z1 == e1 && z2 == e2)
                    << "shared " << shared << ", " << (vector ? targetLoops() : "scalar") << ", split "
                    << split;
            }
        }
    }
}

// Lengths around the four-sample pass, gains that wrap and the most negative factor; a guard sample
// after the end must stay untouched.
TEST(VectorLoopsTest, AmplifyGivesTheScalarProducts)
{
    VectorLoops const* vector = vectorLoops();
    if (!vector)
        GTEST_SKIP() << "no vector loops on this target";
    for (tSample const gain :
         {tSample::s_Half, tSample(3.75), tSample(int32_t(INT32_MIN)), tSample(int32_t(-1))}) {
        for (unsigned int n : {0u, 1u, 4u, 7u, 9u, 64u}) {
            std::vector<tSample> samples = noise(n + 1, n, int64_t(1) << 31), expected = samples;
            for (unsigned int i = 0; i < n; ++i)
                expected[i] = expected[i] * gain;
            vector->amplify(samples.data(), n, gain);
            EXPECT_EQ(samples, expected)
                << vector->name << ", gain " << gain.getRaw() << ", " << n << " samples";
        }
    }
}
