#include "dsp/StereoWrapper.h"

#include "dsp/Chain.h"
#include "dsp/Meter.h"
#include "dsp/ParsingException.h"
#include "support/Thrown.h"

#include <gtest/gtest.h>

using namespace Zelmar;

TEST(StereoWrapperTest, WrapsTwoInnerModulesNamedAfterTheSides)
{
    StereoWrapper wrapper("meter", "vol");
    EXPECT_EQ(wrapper.getType(), "stereo-wrapped meter");
    EXPECT_EQ(wrapper.getLeft()->getID(), "vol-left");
    EXPECT_EQ(wrapper.getRight()->getID(), "vol-right");
    EXPECT_EQ(wrapper.getNumInPorts(), 2u);
    EXPECT_EQ(wrapper.getNumOutPorts(), 0u);
    wrapper.setParameters(Parameters{{"k", "v"}}, 32000);
    EXPECT_EQ(wrapper.getLeft()->getParameters().getString("k"), "v");
    EXPECT_EQ(wrapper.getRight()->getSampleRate(), 32000u);
    EXPECT_EQ(Testing::thrownMessage<ParsingException>([&] { StereoWrapper("nothing", "x"); }),
              "Module type nothing not found in module factory");
}

TEST(StereoWrapperTest, SecondInputReachesTheRightModule)
{
    Chain chain(48000);
    chain.addModule("input", "in");
    auto wrapper = std::dynamic_pointer_cast<StereoWrapper>(chain.addStereoModule("meter", "levels"));
    chain.pullWire("levels[0]", "in[1]");
    chain.pullWire("levels[1]", "in[0]");
    chain.compile();
    auto in = chain.findModule("in");
    EXPECT_EQ(wrapper->getLeft()->getInPort(0), in->getOutPortBuffer(1));
    EXPECT_EQ(wrapper->getRight()->getInPort(0), in->getOutPortBuffer(0));
    in->getOutPortBuffer(0)->getRawData()[0] = tSample(0.75);
    wrapper->process();
    EXPECT_FLOAT_EQ(std::dynamic_pointer_cast<Meter>(wrapper->getRight())->exchange(0.0f), 0.75f);
    EXPECT_FLOAT_EQ(std::dynamic_pointer_cast<Meter>(wrapper->getLeft())->exchange(0.0f), 0.0f);
}
