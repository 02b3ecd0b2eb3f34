#include "dsp/PatchBay.h"

#include "base/ConversionTools.h"
#include "support/ModuleHarness.h"

#include <gtest/gtest.h>

using namespace Zelmar;
using HW::ChannelConfiguration;

namespace {

struct Routed
{
    std::vector<tSample> left, right;
};

Routed route(ChannelConfiguration mode, std::vector<tSample> const& left, std::vector<tSample> const& right,
             bool inPlace = false)
{
    auto bay = std::make_shared<PatchBay>("p");
    bay->setRoutingMode(mode);
    Testing::ModuleHarness harness(bay, inPlace);
    harness.setInput(0, left);
    harness.setInput(1, right);
    bay->process();
    return {harness.output(0), harness.output(1)};
}

} // namespace

TEST(PatchBayTest, RoutesByMode)
{
    std::vector<tSample> const l = {tSample(0.5), tSample(-1.0)};
    std::vector<tSample> const r = {tSample(0.25), tSample(0.5)};
    std::vector<tSample> const mono = {tSample(0.375), tSample(-0.25)};
    struct Case
    {
        ChannelConfiguration mode;
        std::vector<tSample> left, right;
    };
    for (bool inPlace : {false, true}) {
        for (Case const& c :
             {Case{ChannelConfiguration::Stereo, l, r}, Case{ChannelConfiguration::Swapped, r, l},
              Case{ChannelConfiguration::BothLeft, l, l}, Case{ChannelConfiguration::BothRight, r, r},
              Case{ChannelConfiguration::Mono, mono, mono}}) {
            Routed const out = route(c.mode, l, r, inPlace);
            EXPECT_EQ(out.left, c.left) << int(c.mode) << " in place " << inPlace;
            EXPECT_EQ(out.right, c.right) << int(c.mode) << " in place " << inPlace;
        }
    }
    // Modes from 6 on resize the outputs but leave them as they were.
    EXPECT_EQ(route(static_cast<ChannelConfiguration>(6), l, r).left, std::vector<tSample>(2));
}

TEST(PatchBayTest, UnreadableRoutingKeepsTheModeInForce)
{
    PatchBay bay("p");
    bay.setParameters(Parameters{{"routing", "mono"}}, 48000);
    EXPECT_EQ(bay.getRoutingMode(), ChannelConfiguration::Mono);
    bay.setParameters(Parameters{{"routing", "quadraphonic"}}, 48000);
    EXPECT_EQ(bay.getRoutingMode(), ChannelConfiguration::Mono);
    bay.setParameters(Parameters{{"routing", " Left\t"}}, 48000);
    EXPECT_EQ(bay.getRoutingMode(), ChannelConfiguration::BothLeft);
    // The parameters are deliberately not stored in the module base.
    EXPECT_TRUE(bay.getParameters().getParams().empty());
}

TEST(PatchBayTest, LegacyRoutingStrings)
{
    using HW::ConversionTools::mapFromLegacyRoutingString;
    EXPECT_EQ(mapFromLegacyRoutingString("stereo"), ChannelConfiguration::Stereo);
    EXPECT_EQ(mapFromLegacyRoutingString("SWAPPED"), ChannelConfiguration::Swapped);
    EXPECT_EQ(mapFromLegacyRoutingString("left"), ChannelConfiguration::BothLeft);
    EXPECT_EQ(mapFromLegacyRoutingString("right "), ChannelConfiguration::BothRight);
    EXPECT_EQ(mapFromLegacyRoutingString("Mono"), ChannelConfiguration::Mono);
    for (char const* unknown : {"", "  ", "stereo2", "left right", "monophonic"})
        EXPECT_EQ(mapFromLegacyRoutingString(unknown), ChannelConfiguration::Unknown) << unknown;
}

TEST(PatchBayTest, InputsOfDifferentLengthAssert)
{
    EXPECT_DEATH(route(ChannelConfiguration::Stereo, std::vector<tSample>(3), std::vector<tSample>(2)),
                 "inLeft->getNumSampleFrames\\(\\) == inRight->getNumSampleFrames\\(\\).*3 == 2");
}
