// Gain and dynamics, routing and the input stage: the worked examples of each module from
// tests/data/module-runs.txt, then what a table of periods cannot say.
#include "base/ConversionTools.h"
#include "dsp/Delay.h"
#include "dsp/Gain.h"
#include "dsp/IllegalArgumentException.h"
#include "dsp/InputStage.h"
#include "dsp/Limiter.h"
#include "dsp/ModuleFactory.h"
#include "dsp/OutputStage.h"
#include "dsp/PatchBay.h"
#include "dsp/Resampler.h"
#include "support/DataFile.h"
#include "support/MainLoop.h"
#include "support/MemoryAlsaBuffers.h"
#include "support/ModuleHarness.h"
#include "support/Thrown.h"
#include <fstream>
#include <gtest/gtest.h>

using namespace Zelmar;
using Testing::constant;
using Testing::ModuleHarness;
using Testing::raw;

namespace {

// One period's ports as the table writes them, separated by "|".
ModuleHarness::tChannels ports(std::string const& text)
{
    ModuleHarness::tChannels channels;
    for (auto const& port : Testing::split(text, "|"))
        channels.push_back(Testing::samplesFromText(port));
    return channels;
}

template <class Type>
std::shared_ptr<Type> configured(Parameters const& parameters, unsigned int rate = 48000)
{
    auto module = std::make_shared<Type>("m");
    module->setParameters(parameters, rate);
    return module;
}

tSample const c_one = raw(0x08000000);

} // namespace

TEST(ModuleRunsTest, EachModuleGivesTheWorkedExamplesInAndOutOfPlace)
{
    for (bool inPlace : {false, true}) {
        std::ifstream file(TEST_SOURCE_DIR "/data/module-runs.txt");
        std::shared_ptr<Module> module;
        std::unique_ptr<ModuleHarness> harness;
        std::string made;
        int periods = 0;
        for (std::string line; std::getline(file, line);) {
            if (line[0] == ' ') {
                SCOPED_TRACE(made + (inPlace ? " in place:" : ":") + line);
                auto const sides = Testing::split(line, "->");
                EXPECT_EQ(harness->process(ports(sides[0])), ports(sides[1]));
                ++periods;
            } else if (!line.empty() && line[0] != '#') {
                auto const words = Testing::split(line, " ");
                if (words[0] != "+") {
                    made = line;
                    module.reset(ModuleFactory::get().createModule(words[0], "m"));
                    harness = std::make_unique<ModuleHarness>(module, inPlace);
                }
                Parameters parameters;
                for (auto pair = words.begin() + 1; pair != words.end(); ++pair)
                    parameters.set(pair->substr(0, pair->find('=')), pair->substr(pair->find('=') + 1));
                if (words.size() > 1 || words[0] == "+")
                    module->setParameters(parameters, 48000);
            }
        }
        EXPECT_EQ(periods, 36);
    }
}

TEST(GainTest, FadeFromSilenceReachesUnityAfter48020SamplesInOneBlockOrInPeriods)
{
    EXPECT_NEAR(configured<Gain>({{"gain", "20"}})->getTargetGain().toDouble(), 10.08, 0.001)
        << "2^(20/6), not 10";
    auto block = configured<Gain>({{"gain", "-1000"}}), periodic = configured<Gain>({{"gain", "-1000"}});
    EXPECT_EQ(block->calcGainChangeIncrement(48000), raw(2795));
    for (auto const& gain : {block, periodic})
        gain->fadeTo(tSample(0.0));
    std::vector<tSample> const ramp = ModuleHarness(block).run(constant(48100, c_one));
    EXPECT_EQ(std::vector<tSample>({ramp[1], ramp[48019], ramp[48020], ramp[48099]}),
              std::vector<tSample>({raw(2795), raw(48019 * 2795), c_one, c_one}));
    EXPECT_FALSE(block->isFading());
    EXPECT_EQ(ModuleHarness(periodic).processInPeriods({constant(48100, c_one)}, 1280)[0], ramp);
}

TEST(GainTest, FadeEndingInsideAPeriodOrBetweenFloatsHoldsTheTargetAndANewLevelEndsAFade)
{
    auto gain = configured<Gain>({{"gain", "0"}});
    gain->fadeTo(tSample(-0.06));
    tSample const target = gain->getTargetGain();
    ModuleHarness harness(gain);
    std::vector<tSample> const out = harness.run(constant(1280, c_one));
    // The ramp stops at the last whole step before the target, then snaps to it.
    unsigned int i = 0;
    for (; out[i] != target; ++i)
        ASSERT_EQ(out[i], raw(0x08000000 - int32_t(i) * 2795)) << i;
    EXPECT_GT(i, 0u);
    EXPECT_LT(out[i - 1] - target, raw(2 * 2795));
    EXPECT_EQ(std::vector<tSample>(out.begin() + i, out.end()), constant(1280 - i, target));
    EXPECT_FALSE(gain->isFading());

    gain->fadeTo(tSample(12.0));
    harness.run(constant(100, c_one));
    ASSERT_TRUE(gain->isFading());
    gain->setParameters(Parameters{{"gain", "-6"}}, 48000);
    EXPECT_EQ(harness.run(constant(3, c_one)), constant(3, raw(0x04000000)));
    EXPECT_FALSE(gain->isFading());

    // At this rate one ramp step is a single unit, so the factor can stop between float values.
    gain = configured<Gain>({{"gain", "0"}}, 100000000);
    ASSERT_EQ(gain->calcGainChangeIncrement(100000000), raw(1));
    gain->fadeTo(raw(138));
    ASSERT_EQ(gain->getTargetGain(), raw(0x08000010));
    ModuleHarness fine(gain);
    fine.run(constant(9, c_one));
    // 0x08000009 rounds to the target's float, so the ramp counts as done while short of it.
    EXPECT_FALSE(gain->isFading());
    EXPECT_EQ(fine.run(constant(2, c_one)), constant(2, raw(0x08000009)));
}

TEST(GainDeathTest, LevelsOf24DecibelsDoNotFitAGainOrALimiter)
{
    EXPECT_DEATH(configured<Gain>({{"gain", "24"}}), "v < pow\\(2, pre_comma\\)");
    EXPECT_DEATH(configured<Limiter>({{"attack", "1"}, {"release", "1"}, {"threshold", "24"}}),
                 "v < pow\\(2, pre_comma\\)");
}

TEST(LimiterTest, CoefficientsReachNinetyNinePercentInTheGivenTimeAndTheEnvelopeCarriesOver)
{
    // pow(0.01, 1/48) is narrowed to single precision before it becomes Q4.27, and 0.90851 as a
    // float lands on 121939168; the double would have given 121939164.
    EXPECT_EQ(Limiter::calcCoefficient(1.0, 48000).getRaw(), 121939168);
    EXPECT_NEAR(Limiter::calcCoefficient(10.0, 48000).toDouble(), 0.99045, 0.00001);
    EXPECT_NEAR(Limiter::calcCoefficient(100.0, 48000).toDouble(), 0.99904, 0.00001);
    EXPECT_EQ(Limiter::calcCoefficient(0.0, 48000), tSample::s_Zero);

    Parameters const finite{{"attack", "1"}, {"release", "10"}, {"threshold", "-6"}};
    auto const input = Testing::makeSine(0.9, 440, 48000, 1024);
    auto const once = ModuleHarness(configured<Limiter>(finite)).run(input);
    EXPECT_EQ(ModuleHarness(configured<Limiter>(finite)).processInPeriods({input}, 300)[0], once);
    // With a finite attack the peaks come down but are not held exactly at the threshold.
    auto const peak = *std::max_element(once.begin(), once.end());
    EXPECT_TRUE(peak > tSample(0.5) && peak < tSample(0.9)) << peak.toDouble();
}

TEST(DelayTest, RingIsThePowerOfTwoAboveTheFrames)
{
    EXPECT_EQ(std::vector<uint32_t>({Delay::calcRingSize(0), Delay::calcRingSize(48),
                                     Delay::calcRingSize(4096), Delay::calcRingSize(4800)}),
              std::vector<uint32_t>({1, 64, 8192, 8192}));
}

TEST(PatchBayTest, LegacyStringsModesBeyondFiveAndUnequalInputs)
{
    // Case and surrounding blanks do not matter; anything else is unknown (5).
    std::string modes;
    for (char const* text : {"stereo", "SWAPPED", " Left\t", "right ", "Mono", "", "stereo2", "left right"})
        modes += std::to_string(int(HW::ConversionTools::mapFromLegacyRoutingString(text)));
    EXPECT_EQ(modes, "01234555");

    auto bay = configured<PatchBay>({{"routing", "mono"}});
    EXPECT_TRUE(bay->getParameters().getParams().empty()) << "deliberately not stored in the module base";
    bay->setRoutingMode(static_cast<HW::ChannelConfiguration>(6));
    ModuleHarness harness(bay);
    EXPECT_EQ(harness.process({{tSample(0.5)}, {tSample(0.25)}}),
              ModuleHarness::tChannels(2, {tSample::s_Zero}))
        << "resized, left unwritten";
    EXPECT_DEATH(harness.process({constant(3, c_one), constant(2, c_one)}),
                 "inLeft->getNumSampleFrames\\(\\) == inRight->getNumSampleFrames\\(\\).*3 == 2");
}

namespace {

// At 48000 Hz a fade lasts 4800 frames.
class OutputStageTest : public ::testing::Test
{
protected:
    OutputStageTest() { configure("01"); }

    void configure(char const* pattern)
    {
        m_stage->setParameters(Parameters{{"interleave-pattern", pattern}}, 48000);
        m_harness = std::make_unique<Testing::ModuleHarness>(m_stage);
        m_stage->setOutput(&m_playback);
    }

    // Periods of `level` on port 0 and `-level` on port 1; returns what channel 0 played.
    std::vector<tSample> run(unsigned int frames, unsigned int period, tSample level = tSample(0.5))
    {
        std::vector<tSample> out;
        for (unsigned int done = 0; done < frames; done += period) {
            unsigned int const n = std::min(period, frames - done);
            m_harness->process({constant(n, level), constant(n, -level)});
            out.insert(out.end(), m_playback.getChannel(0).samples.begin(),
                       m_playback.getChannel(0).samples.begin() + n);
        }
        return out;
    }

    std::shared_ptr<OutputStage> m_stage = std::make_shared<OutputStage>("out");
    Testing::MemoryAlsaBuffers m_playback{2};
    std::unique_ptr<Testing::ModuleHarness> m_harness;
};

} // namespace

TEST_F(OutputStageTest, FreshStageFadesOutOverATenthOfASecondAndUnmutedFadesBackUp)
{
    EXPECT_EQ(std::make_pair(m_stage->isFading(), m_stage->isMuting()), std::make_pair(true, false));
    auto out = run(6144, 1024);
    EXPECT_EQ(out[0], tSample(0.5)) << "the first frame is scaled by the full-level factor";
    EXPECT_TRUE(std::is_sorted(out.rbegin(), out.rend())) << "falls steadily";
    // 4800 frames, the last of which is where the gain arrives and is zeroed.
    EXPECT_GT(out[4798], tSample::s_Zero);
    EXPECT_EQ(std::vector<tSample>(out.begin() + 4799, out.end()), constant(6144 - 4799, tSample::s_Zero));
    EXPECT_EQ(std::make_pair(m_stage->isFading(), m_stage->isMuting()), std::make_pair(false, true));

    // Unmuted, it fades up from silence and leaves the rest of the period untouched.
    m_stage->setMute(false);
    m_stage->setMute(false);
    out = run(5120, 1024);
    EXPECT_EQ(out[0], tSample::s_Zero) << "the first frame of a fade-up is silent";
    EXPECT_GT(out[2400], tSample::s_Zero);
    auto const full = std::find(out.begin(), out.end(), tSample(0.5));
    EXPECT_GE(full - out.begin(), 4800);
    EXPECT_LT(full - out.begin(), 4810) << "arrival in the fifth period";
    EXPECT_EQ(std::vector<tSample>(full, out.end()), constant(unsigned(out.end() - full), tSample(0.5)))
        << "frames after arrival are untouched";
    EXPECT_EQ(m_playback.getChannel(1).samples[1023], tSample(-0.5));
    EXPECT_FALSE(m_stage->isFading());

    m_stage->setMute(true);
    run(4800, 1024);
    EXPECT_TRUE(m_stage->isMuting()) << "one unmute counted once";
}

// The pattern's digits name the port each channel plays.
TEST_F(OutputStageTest, PlayRequestsOpenAMutedOutputAnnounceChangesOnTheMainLoopAndPatternsRoute)
{
    std::vector<bool> announced;
    auto connection = m_stage->connectHandlerForMuteChanges([&](bool muted) { announced.push_back(muted); });
    Testing::runPendingMainLoopJobs();
    EXPECT_EQ(announced, std::vector<bool>{true}) << "the initial state";
    m_stage->initialMute();
    EXPECT_EQ(run(16, 16), constant(16, tSample::s_Zero)) << "muted at once";
    m_stage->incPlayRequests();
    run(4800, 1280);
    EXPECT_EQ(run(16, 16)[15], tSample(0.5));
    configure("10");
    run(8, 8, tSample(0.25));
    EXPECT_EQ(std::make_pair(m_playback.getChannel(0).samples[7], m_playback.getChannel(1).samples[7]),
              std::make_pair(tSample(-0.25), tSample(0.25)));
    configure("00");
    run(8, 8, tSample(0.25));
    EXPECT_EQ(m_playback.getChannel(1).samples[7], tSample(0.25));
    configure("01");
    m_stage->decPlayRequests();
    m_stage->incPlayRequests();
    m_stage->decPlayRequests();
    Testing::runPendingMainLoopJobs();
    EXPECT_EQ(announced, (std::vector<bool>{true, true})) << "computed when the job runs, not when scheduled";
    run(4800, 1280);
    EXPECT_TRUE(m_stage->isMuting());
    configure("");
    EXPECT_EQ(m_stage->getNumInPorts(), 0u);
    EXPECT_NO_THROW(m_stage->process()) << "writes nothing";
    EXPECT_THROW(m_stage->setParameters(Parameters{{"interleave-pattern", "0a"}}, 48000),
                 std::invalid_argument);
    EXPECT_EQ(m_stage->getNumInPorts(), 1u) << "digits before the fault are kept";
}

namespace {

// A stage at 48000 Hz fed from in-memory capture periods.
template <class Stage> struct Rig
{
    explicit Rig(int sourceRate)
    {
        stage->setParameters(Parameters{{"source-rate", std::to_string(sourceRate)}}, 48000);
        stage->setInput(&capture);
    }

    // One period with the right channel the negated left one; returns the left output. The truncating
    // products round both channels down, so the right one may differ by a raw step or two.
    std::vector<tSample> run(std::vector<tSample> const& period)
    {
        right.clear();
        for (tSample s : period)
            right.push_back(-s);
        capture.getChannel(0).setPeriod(period);
        capture.getChannel(1).setPeriod(right);
        auto const outputs = harness.process({});
        EXPECT_EQ(outputs[0].size(), outputs[1].size());
        for (unsigned int i = 0; i < outputs[0].size() && i < outputs[1].size(); ++i)
            mismatches += std::abs(outputs[1][i].getRaw() + outputs[0][i].getRaw()) > 2;
        out.insert(out.end(), outputs[0].begin(), outputs[0].end());
        return outputs[0];
    }

    std::shared_ptr<Stage> stage = std::make_shared<Stage>("in");
    ModuleHarness harness{stage};
    Testing::MemoryAlsaBuffers capture{2};
    std::vector<tSample> out, right;
    int mismatches = 0;
};

} // namespace

// Right is always the negated left, so an input stage reading one channel twice shows as mismatches.
TEST(ResamplerTest, EqualRatesBehaveAsInputStageWhichCopiesBothChannels)
{
    Rig<Resampler> resampler(48000);
    Rig<InputStage> plain(48000);
    for (unsigned int length : {256u, 1u, 1280u, 100u}) {
        auto const period = Testing::makeSine(0.5, 997, 48000, length, length);
        EXPECT_EQ(plain.run(period), period);
        EXPECT_EQ(resampler.run(period), period);
        EXPECT_EQ(plain.stage->getOutPort(1)->getUnderlyingStorage(), plain.right);
    }
    EXPECT_EQ(resampler.mismatches + plain.mismatches, 0);
    EXPECT_EQ(plain.stage->getOutPortBuffer(1)->getNumSampleFramesCapacity(), 1280u);
    plain.capture.getChannel(1).setPeriod(std::vector<tSample>(5));
    EXPECT_DEATH(plain.stage->process(),
                 "leftOut->getNumSampleFrames\\(\\) == rightOut->getNumSampleFrames\\(\\)");
}

// Output frame i sits at input position i * step: the same 1 kHz tone at the same level, off by no more
// than the chord error of linear interpolation (0.5 * (pi * 1000 / 44100)^2 / 2).
TEST(ResamplerTest, From44100To48000ProducesTheRatioOfFramesAndTheSameTone)
{
    Rig<Resampler> rig(44100);
    // 0.91875 through single precision, then truncated to 27 fraction bits.
    EXPECT_EQ(rig.stage->getStep().getRaw(), 123312536u);
    for (unsigned int period = 0; period < 44; ++period) {
        auto const produced = rig.run(Testing::makeSine(0.5, 1000, 44100, 1024, period * 1024)).size();
        EXPECT_TRUE(period == 0 || (produced >= 1113 && produced <= 1115)) << period << ": " << produced;
    }
    EXPECT_NEAR(static_cast<double>(rig.out.size()), 44 * 1024 * 48000.0 / 44100.0, 3.0);
    double worst = 0.0;
    for (unsigned int i = 0; i < rig.out.size(); ++i)
        worst = std::max(worst, std::fabs(rig.out[i].toDouble() -
                                          0.5 * std::sin(2 * M_PI * 1000 * (i * 0.91875) / 44100)));
    EXPECT_LT(worst, 0.0015);
    EXPECT_EQ(rig.mismatches, 0);
}

// Step 0.5: every even output frame falls exactly on an input sample, every odd one halfway.
TEST(ResamplerTest, ExactPositionsReturnStoredSamplesAcrossPeriodsAndReconfigurationAndARateIsNeeded)
{
    Rig<Resampler> rig(24000);
    std::vector<tSample> a;
    for (int32_t i = 1; i <= 1024; ++i)
        a.push_back(tSample(1000 * i));
    EXPECT_EQ(rig.run(a).size(), 1280u) << "what does not fit waits for the next period";
    rig.run({});
    ASSERT_EQ(rig.out.size(), 2u * (1024 - 2));
    unsigned int wrong = 0;
    for (unsigned int m = 0; m < rig.out.size(); ++m)
        wrong += rig.out[m].getRaw() !=
                 (m % 2 ? (a[m / 2].getRaw() + a[m / 2 + 1].getRaw()) / 2 : a[m / 2].getRaw());

    // The histories restart but the read position runs on: nothing comes out until the new input
    // reaches it, and then output frame m is again input position m / 2, now of the new input.
    rig.stage->setParameters(Parameters{{"source-rate", "24000"}}, 48000);
    size_t const before = rig.out.size();
    auto const b = Testing::noise(2048, 5);
    EXPECT_TRUE(rig.run({b.begin(), b.begin() + 256}).empty()) << "nothing before the new input reaches it";
    for (int p = 1; p < 8; ++p)
        rig.run({b.begin() + p * 256, b.begin() + (p + 1) * 256});
    ASSERT_GT(rig.out.size(), before + 1000);
    for (size_t m = before; m < rig.out.size(); m += 2)
        wrong += rig.out[m] != b[m / 2];
    EXPECT_EQ(wrong, 0u);
    EXPECT_EQ(rig.mismatches, 0);
    EXPECT_EQ(Testing::thrownMessage<IllegalArgumentException>(
                  [&] { rig.stage->setParameters(Parameters{}, 48000); }),
              "resampler in needs a positive source-rate in Hz, got 0");
}
