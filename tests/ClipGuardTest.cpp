#include "dsp/ClipGuard.h"

#include "support/ModuleHarness.h"

#include <gtest/gtest.h>

using namespace Zelmar;
using Testing::raw;

TEST(ClipGuardTest, ClipsIntoTheOutputRange)
{
    Testing::ModuleHarness harness(std::make_shared<ClipGuard>("c"), true);
    std::vector<tSample> const in = {tSample(1.0),  tSample(-1.0),   tSample(-1.5),
                                     tSample(15.0), raw(0x07FFFFFF), tSample(-0.25)};
    std::vector<tSample> const expected = {raw(0x07FFFFFF), tSample(-1.0),   tSample(-1.0),
                                           raw(0x07FFFFFF), raw(0x07FFFFFF), tSample(-0.25)};
    EXPECT_EQ(harness.run(in), expected);
}
