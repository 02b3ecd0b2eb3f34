#include "dsp/Delay.h"

#include "support/ModuleHarness.h"

#include <gtest/gtest.h>

using namespace Zelmar;
using Testing::raw;

namespace {

std::shared_ptr<Delay> makeDelay(char const* microseconds)
{
    auto delay = std::make_shared<Delay>("d");
    delay->setParameters(Parameters{{"delay", microseconds}}, 48000);
    return delay;
}

std::vector<tSample> ramp(int first, unsigned int frames)
{
    std::vector<tSample> samples;
    for (unsigned int i = 0; i < frames; ++i)
        samples.push_back(raw(first + static_cast<int>(i)));
    return samples;
}

} // namespace

TEST(DelayTest, FramesAndRingSize)
{
    EXPECT_EQ(Delay::calcDelayFrames(48000, 1000), 48u);
    EXPECT_EQ(Delay::calcRingSize(48), 64u);
    // 48000 * 100000 wraps in 32 bits: (4800000000 mod 2^32) / 1000000.
    EXPECT_EQ(Delay::calcDelayFrames(48000, 100000), 505u);
    EXPECT_EQ(Delay::calcDelayFrames(48000, 89478), 4294u);
    EXPECT_EQ(Delay::calcRingSize(0), 1u);
    EXPECT_EQ(Delay::calcRingSize(4096), 8192u);
    EXPECT_EQ(Delay::calcRingSize(4800), 8192u);
}

TEST(DelayTest, OutputLagsByTheDelayAcrossPeriods)
{
    Testing::ModuleHarness passThrough(makeDelay("0"));
    EXPECT_EQ(passThrough.run(ramp(1, 100)), ramp(1, 100));

    Testing::ModuleHarness harness(makeDelay("1000"), true);
    std::vector<tSample> out;
    for (int period = 0; period < 3; ++period) {
        std::vector<tSample> const part = harness.run(ramp(1 + period * 100, 100));
        out.insert(out.end(), part.begin(), part.end());
    }
    EXPECT_EQ(std::vector<tSample>(out.begin(), out.begin() + 48), std::vector<tSample>(48));
    EXPECT_EQ(std::vector<tSample>(out.begin() + 48, out.end()), ramp(1, 300 - 48));
}

TEST(DelayTest, ReconfiguringKeepsTheLineContents)
{
    auto delay = makeDelay("1000");
    Testing::ModuleHarness harness(delay);
    // 64 samples fill the whole ring from slot 48 on, so slot 0 holds sample 17.
    harness.run(ramp(1, 64));
    // Same ring size, counters restarted: the first 48 outputs replay the ring from slot 0.
    delay->setParameters(Parameters{{"delay", "1000"}}, 48000);
    std::vector<tSample> const out = harness.run(ramp(1000, 48));
    EXPECT_EQ(out, ramp(17, 48));
}
