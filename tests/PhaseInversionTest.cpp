#include "dsp/PhaseInversion.h"

#include "support/ModuleHarness.h"

#include <gtest/gtest.h>

using namespace Zelmar;
using Testing::raw;

TEST(PhaseInversionTest, NegatesWithWrapAlsoInPlace)
{
    // -16.0 has no positive counterpart and wraps onto itself.
    std::vector<tSample> const in = {raw(INT32_MIN), tSample::s_Zero, tSample(0.5), raw(-1), raw(INT32_MAX)};
    std::vector<tSample> const expected = {raw(INT32_MIN), tSample::s_Zero, tSample(-0.5), raw(1),
                                           raw(-INT32_MAX)};
    Testing::ModuleHarness separate(std::make_shared<PhaseInversion>("p"));
    EXPECT_EQ(separate.run(in), expected);
    Testing::ModuleHarness inPlace(std::make_shared<PhaseInversion>("p"), true);
    EXPECT_EQ(inPlace.run(in), expected);
}
