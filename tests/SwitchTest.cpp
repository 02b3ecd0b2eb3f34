#include "dsp/Switch.h"

#include "support/ModuleHarness.h"

#include <gtest/gtest.h>

using namespace Zelmar;

TEST(SwitchTest, PassesTheSelectedPortAndClampsOutOfRangeToTheLast)
{
    auto module = std::make_shared<Switch>("s");
    Testing::ModuleHarness harness(module);
    std::vector<tSample> const first = {tSample(0.5), tSample(0.25)};
    std::vector<tSample> const second = {tSample(-0.125)};
    harness.setInput(0, first);
    harness.setInput(1, second);

    struct Case
    {
        char const* value;
        int port;
    };
    for (Case const& c : {Case{"-1", 1}, Case{"5", 1}, Case{"2", 1}, Case{"0", 0}, Case{"1", 1}}) {
        module->setParameters(Parameters{{"selected-port", c.value}}, 48000);
        EXPECT_EQ(module->getSelectedPort(), c.port) << c.value;
        module->process();
        EXPECT_EQ(harness.output(0), c.port == 0 ? first : second) << c.value;
    }
}
