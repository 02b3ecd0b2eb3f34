#include "dsp/Mixer.h"

#include "support/ModuleHarness.h"

#include <gtest/gtest.h>

using namespace Zelmar;

TEST(MixerTest, SumsTwoInputsAndTreatsAnEmptyOneAsAbsent)
{
    Testing::ModuleHarness harness(std::make_shared<Mixer>("m"));
    std::vector<tSample> const a = {tSample(0.5), tSample(-0.25), tSample(15.5)};
    std::vector<tSample> const b = {tSample(0.25), tSample(-0.25), tSample(1.0)};
    harness.setInput(0, a);
    harness.setInput(1, b);
    harness.module().process();
    // The sum wraps like any addition of samples: 15.5 + 1.0 comes out as -15.5.
    EXPECT_EQ(harness.output(0), (std::vector<tSample>{tSample(0.75), tSample(-0.5), tSample(-15.5)}));

    harness.setInput(0, {});
    harness.module().process();
    EXPECT_EQ(harness.output(0), b);

    harness.setInput(0, a);
    harness.setInput(1, {});
    harness.module().process();
    EXPECT_EQ(harness.output(0), a);

    harness.setInput(0, {});
    harness.module().process();
    EXPECT_TRUE(harness.output(0).empty());
}
