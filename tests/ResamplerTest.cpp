#include "dsp/Resampler.h"

#include "dsp/Chain.h"
#include "dsp/IllegalArgumentException.h"
#include "support/MemoryAlsaBuffers.h"
#include "support/ModuleHarness.h"
#include "support/Thrown.h"

#include <cmath>
#include <gtest/gtest.h>

using namespace Zelmar;

namespace {

// A stage set up as a compiled chain would set it up, fed from in-memory capture periods.
template <class Stage> struct Rig
{
    Rig(unsigned int chainRate, int sourceRate) : chain(chainRate), stage("in")
    {
        stage.preSetup(chain, 1280);
        stage.postSetup(1280);
        stage.setParameters(Parameters{{"source-rate", std::to_string(sourceRate)}}, chainRate);
        stage.setInput(&capture);
    }

    // One period with the right channel the negated left one; returns the left output. The truncating
    // products round both channels down, so the right one may differ by a raw step or two.
    std::vector<tSample> run(std::vector<tSample> const& left, int first = 0, int count = -1)
    {
        std::vector<tSample> const period(left.begin() + first,
                                          count < 0 ? left.end() : left.begin() + first + count);
        std::vector<tSample> right;
        for (tSample s : period)
            right.push_back(-s);
        capture.getChannel(0).setPeriod(period);
        capture.getChannel(1).setPeriod(right);
        stage.process();
        auto const& l = stage.getOutPort(0)->getUnderlyingStorage();
        auto const& r = stage.getOutPort(1)->getUnderlyingStorage();
        EXPECT_EQ(l.size(), r.size());
        for (unsigned int i = 0; i < l.size() && i < r.size(); ++i)
            mismatches += std::abs(r[i].getRaw() + l[i].getRaw()) > 2;
        out.insert(out.end(), l.begin(), l.end());
        return l;
    }

    Chain chain;
    Stage stage;
    Testing::MemoryAlsaBuffers capture{2};
    std::vector<tSample> out;
    int mismatches = 0;
};

std::vector<tSample> ramp(int32_t start, int32_t increment, unsigned int count)
{
    std::vector<tSample> samples;
    for (unsigned int i = 0; i < count; ++i)
        samples.push_back(tSample(static_cast<int32_t>(start + increment * static_cast<int32_t>(i))));
    return samples;
}

} // namespace

TEST(ResamplerTest, EqualRatesBehaveAsInputStage)
{
    Rig<Resampler> resampler(48000, 48000);
    Rig<InputStage> plain(48000, 48000);
    for (unsigned int length : {256u, 1u, 1280u, 100u}) {
        auto const period = Testing::makeSine(0.5, 997, 48000, length, length);
        EXPECT_EQ(resampler.run(period), plain.run(period));
    }
    EXPECT_EQ(resampler.mismatches, 0);
}

TEST(ResamplerTest, From44100To48000ProducesTheRatioOfFramesAndTheSameTone)
{
    Rig<Resampler> rig(48000, 44100);
    EXPECT_EQ(rig.stage.getSourceRate(), 44100u);
    // 0.91875 through single precision, then truncated to 27 fraction bits.
    EXPECT_EQ(rig.stage.getStep().getRaw(), 123312536u);
    EXPECT_NEAR(rig.stage.getStep().toDouble(), 0.91875, 1e-7);
    for (unsigned int period = 0; period < 44; ++period) {
        auto const produced = rig.run(Testing::makeSine(0.5, 1000, 44100, 1024, period * 1024)).size();
        EXPECT_TRUE(period == 0 || (produced >= 1113 && produced <= 1115)) << period << ": " << produced;
    }
    EXPECT_NEAR(static_cast<double>(rig.out.size()), 44 * 1024 * 48000.0 / 44100.0, 3.0);
    // Output frame i sits at input position i * step: the same 1 kHz tone at the same level, off by
    // no more than the chord error of linear interpolation (0.5 * (pi * 1000 / 44100)^2 / 2).
    double worst = 0.0;
    for (unsigned int i = 0; i < rig.out.size(); ++i)
        worst = std::max(worst, std::fabs(rig.out[i].toDouble() -
                                          0.5 * std::sin(2 * M_PI * 1000 * (i * 0.91875) / 44100)));
    EXPECT_LT(worst, 0.0015);
    EXPECT_EQ(rig.mismatches, 0);
}

TEST(ResamplerTest, RunsOnAcrossPeriodsWhateverTheirLength)
{
    Rig<Resampler> whole(48000, 44100), halves(48000, 44100);
    for (unsigned int period = 0; period < 6; ++period) {
        auto const input = Testing::makeSine(0.5, 3000, 44100, 1024, period * 1024);
        whole.run(input);
        halves.run(input, 0, 512);
        halves.run(input, 512);
    }
    ASSERT_NEAR(static_cast<double>(whole.out.size()), static_cast<double>(halves.out.size()), 2.0);
    std::size_t const common = std::min(whole.out.size(), halves.out.size());
    EXPECT_EQ(std::vector<tSample>(whole.out.begin(), whole.out.begin() + long(common)),
              std::vector<tSample>(halves.out.begin(), halves.out.begin() + long(common)));
}

// Step 0.5: every even output frame falls exactly on an input sample, every odd one halfway.
TEST(ResamplerTest, ExactPositionsReturnStoredSamplesAcrossPeriodsAndReconfiguration)
{
    Rig<Resampler> rig(48000, 24000);
    auto const a = ramp(1000, 1000, 1024);
    EXPECT_EQ(rig.run(a).size(), 1280u) << "what does not fit waits for the next period";
    rig.run({});
    ASSERT_EQ(rig.out.size(), 2u * (1024 - 2));
    unsigned int wrong = 0;
    for (unsigned int m = 0; m < rig.out.size(); ++m)
        wrong += rig.out[m].getRaw() !=
                 (m % 2 ? (a[m / 2].getRaw() + a[m / 2 + 1].getRaw()) / 2 : a[m / 2].getRaw());
    EXPECT_EQ(wrong, 0u);

    // The histories restart but the read position runs on: nothing comes out until the new input
    // reaches it, and then output frame m is again input position m / 2, now of the new input.
    rig.stage.setParameters(Parameters{{"source-rate", "24000"}}, 48000);
    size_t const before = rig.out.size();
    auto const b = ramp(-7, -3000, 2048);
    EXPECT_TRUE(rig.run(b, 0, 256).empty()) << "nothing before the new input reaches the read position";
    for (unsigned int p = 1; p < 8; ++p)
        rig.run(b, p * 256, 256);
    ASSERT_GT(rig.out.size(), before + 1000);
    for (size_t m = before; m < rig.out.size(); m += 2)
        wrong += rig.out[m] != b[m / 2];
    EXPECT_EQ(wrong, 0u);
    EXPECT_EQ(rig.mismatches, 0);
}

TEST(ResamplerTest, RefusesAMissingSourceRate)
{
    Resampler resampler("line");
    EXPECT_EQ(Testing::thrownMessage<IllegalArgumentException>(
                  [&] { resampler.setParameters(Parameters{}, 48000); }),
              "resampler line needs a positive source-rate in Hz, got 0");
}
