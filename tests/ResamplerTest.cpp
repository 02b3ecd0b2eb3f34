#include "dsp/Resampler.h"

#include "dsp/Chain.h"
#include "dsp/IllegalArgumentException.h"
#include "dsp/ModuleFactory.h"
#include "support/MemoryAlsaBuffers.h"
#include "support/ModuleHarness.h"
#include "support/Thrown.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <vector>

using namespace Zelmar;

namespace {

// A stage set up as a compiled chain would set it up, fed from in-memory capture periods.
template <class Stage> struct Rig
{
    Rig(unsigned int chainRate, int sourceRate) : chain(chainRate), stage("in")
    {
        stage.preSetup(chain, Chain::getMaxNumFramesPerProcessCall());
        stage.postSetup(Chain::getMaxNumFramesPerProcessCall());
        stage.setParameters(Parameters{{"source-rate", std::to_string(sourceRate)}}, chainRate);
        stage.setInput(&capture);
    }

    // Runs one period with the right channel the negated left one; returns the left output. The
    // truncating products round both channels down, so the right one may differ by a raw step or two.
    std::vector<tSample> run(std::vector<tSample> const& left)
    {
        std::vector<tSample> right;
        for (tSample s : left)
            right.push_back(-s);
        capture.getChannel(0).setPeriod(left);
        capture.getChannel(1).setPeriod(right);
        stage.process();
        AudioBuffer const& l = *stage.getOutPort(0);
        AudioBuffer const& r = *stage.getOutPort(1);
        EXPECT_EQ(l.getNumSampleFrames(), r.getNumSampleFrames());
        std::vector<tSample> out(l.getRawData(), l.getRawData() + l.getNumSampleFrames());
        for (unsigned int i = 0; i < out.size(); ++i)
            EXPECT_LE(std::abs(r.getRawData()[i].getRaw() + out[i].getRaw()), 2);
        return out;
    }

    Chain chain;
    Stage stage;
    Testing::MemoryAlsaBuffers capture{2};
};

std::vector<tSample> sine(double frequency, double rate, unsigned int first, unsigned int count)
{
    return Testing::makeSine(0.5, frequency, rate, count, first);
}

std::vector<tSample> ramp(int32_t start, int32_t increment, unsigned int count)
{
    std::vector<tSample> samples;
    for (unsigned int i = 0; i < count; ++i)
        samples.push_back(tSample(static_cast<int32_t>(start + increment * static_cast<int32_t>(i))));
    return samples;
}

void append(std::vector<tSample>& all, std::vector<tSample> const& more)
{
    all.insert(all.end(), more.begin(), more.end());
}

} // namespace

TEST(ResamplerTest, EqualRatesBehaveAsInputStage)
{
    Rig<Resampler> resampler(48000, 48000);
    Rig<InputStage> plain(48000, 48000);
    for (unsigned int length : {256u, 1u, 1280u, 100u}) {
        auto const period = sine(997, 48000, length, length);
        EXPECT_EQ(resampler.run(period), plain.run(period));
    }
    auto const created = std::unique_ptr<Module>(ModuleFactory::get().createModule("resampler", "r"));
    EXPECT_NE(dynamic_cast<Resampler*>(created.get()), nullptr);
}

TEST(ResamplerTest, From44100To48000ProducesTheRatioOfFramesAndTheSameTone)
{
    Rig<Resampler> rig(48000, 44100);
    EXPECT_EQ(rig.stage.getSourceRate(), 44100u);
    // 0.91875 through single precision, then truncated to 27 fraction bits.
    EXPECT_EQ(rig.stage.getStep().getRaw(), 123312536u);
    EXPECT_NEAR(rig.stage.getStep().toDouble(), 0.91875, 1e-7);

    std::vector<tSample> out;
    for (unsigned int period = 0; period < 44; ++period) {
        auto const produced = rig.run(sine(1000, 44100, period * 1024, 1024));
        if (period > 0) {
            EXPECT_GE(produced.size(), 1113u) << period;
            EXPECT_LE(produced.size(), 1115u) << period;
        }
        append(out, produced);
    }
    EXPECT_NEAR(static_cast<double>(out.size()), 44 * 1024 * 48000.0 / 44100.0, 3.0);

    // Output frame i sits at input position i * step: the same 1 kHz tone at the same level, off by
    // no more than the chord error of linear interpolation (0.5 * (pi * 1000 / 44100)^2 / 2).
    double worst = 0.0;
    for (unsigned int i = 0; i < out.size(); ++i) {
        double const expected = 0.5 * std::sin(2 * M_PI * 1000 * (i * 0.91875) / 44100);
        worst = std::max(worst, std::fabs(out[i].toDouble() - expected));
    }
    EXPECT_LT(worst, 0.0015);
}

TEST(ResamplerTest, RunsOnAcrossPeriodsWhateverTheirLength)
{
    Rig<Resampler> whole(48000, 44100), halves(48000, 44100);
    std::vector<tSample> fromWhole, fromHalves;
    for (unsigned int period = 0; period < 6; ++period) {
        auto const input = sine(3000, 44100, period * 1024, 1024);
        append(fromWhole, whole.run(input));
        append(fromHalves, halves.run(std::vector<tSample>(input.begin(), input.begin() + 512)));
        append(fromHalves, halves.run(std::vector<tSample>(input.begin() + 512, input.end())));
    }
    ASSERT_NEAR(static_cast<double>(fromWhole.size()), static_cast<double>(fromHalves.size()), 2.0);
    std::size_t const common = std::min(fromWhole.size(), fromHalves.size());
    fromWhole.resize(common);
    fromHalves.resize(common);
    EXPECT_EQ(fromWhole, fromHalves);
}

TEST(ResamplerTest, ExactPositionsReturnStoredSamplesAcrossReconfiguration)
{
    // Step 0.5: every even output frame falls exactly on an input sample, every odd one halfway.
    Rig<Resampler> rig(48000, 24000);
    std::vector<tSample> before;
    auto const a = ramp(1000, 1000, 1024);
    for (unsigned int p = 0; p < 4; ++p)
        append(before, rig.run(std::vector<tSample>(a.begin() + p * 256, a.begin() + (p + 1) * 256)));
    ASSERT_GT(before.size(), 1000u);
    for (unsigned int m = 0; m < before.size(); ++m) {
        if (m % 2 == 0)
            EXPECT_EQ(before[m], a[m / 2]) << m;
        else
            EXPECT_EQ(before[m].getRaw(), (a[m / 2].getRaw() + a[m / 2 + 1].getRaw()) / 2) << m;
    }

    // The histories restart but the read position runs on: nothing comes out until the new input
    // reaches it, and then output frame m is again input position m / 2, now of the new input.
    rig.stage.setParameters(Parameters{{"source-rate", "24000"}}, 48000);
    auto const b = ramp(-7, -3000, 2048);
    std::vector<tSample> after;
    for (unsigned int p = 0; p < 8; ++p) {
        auto const produced = rig.run(std::vector<tSample>(b.begin() + p * 256, b.begin() + (p + 1) * 256));
        EXPECT_TRUE(p > 0 || produced.empty()) << "nothing before the new input reaches the read position";
        append(after, produced);
    }
    ASSERT_GT(after.size(), 1000u);
    for (unsigned int j = 0; j < after.size(); ++j) {
        unsigned int const m = static_cast<unsigned int>(before.size()) + j;
        if (m % 2 == 0) {
            EXPECT_EQ(after[j], b[m / 2]) << m;
        }
    }
}

TEST(ResamplerTest, RefusesAMissingSourceRate)
{
    Resampler resampler("line");
    EXPECT_EQ(Testing::thrownMessage<IllegalArgumentException>(
                  [&] { resampler.setParameters(Parameters{}, 48000); }),
              "resampler line needs a positive source-rate in Hz, got 0");
}

TEST(ResamplerTest, OutputBeyondTheBufferWaitsForTheNextPeriod)
{
    Rig<Resampler> rig(48000, 24000);
    auto const a = ramp(5, 5, 1024);
    std::vector<tSample> out = rig.run(a);
    EXPECT_EQ(out.size(), Chain::getMaxNumFramesPerProcessCall());
    append(out, rig.run({}));
    ASSERT_EQ(out.size(), 2u * (1024 - 2));
    for (unsigned int m = 0; m < out.size(); m += 2)
        EXPECT_EQ(out[m], a[m / 2]) << m;
}
