#include "dsp/Chain.h"

#include "dsp/ClipGuard.h"
#include "dsp/Gain.h"
#include "dsp/InputStage.h"
#include "dsp/Meter.h"
#include "dsp/Mixer.h"
#include "dsp/ParsingException.h"
#include "dsp/PatchBay.h"
#include "dsp/PhaseInversion.h"
#include "dsp/StereoWrapper.h"
#include "support/MemoryAlsaBuffers.h"
#include "support/ModuleHarness.h"
#include "support/Thrown.h"

#include <gtest/gtest.h>

using namespace Zelmar;
using Testing::raw;

namespace {

// A chain from tests/data with in-memory host buffers on both ends.
struct LoadedChain
{
    explicit LoadedChain(char const* file) : chain(48000, Tools::String(TEST_SOURCE_DIR "/data/") + file)
    {
        Testing::attachHostBuffers(chain, capture, playback)->setMute(false);
    }

    void feed(tSample left, tSample right, unsigned int frames)
    {
        capture.getChannel(0).setPeriod(std::vector<tSample>(frames, left));
        capture.getChannel(1).setPeriod(std::vector<tSample>(frames, right));
        chain.process();
    }

    tSample out(unsigned int channel, unsigned int frame)
    {
        return playback.getChannel(channel).samples[frame];
    }

    Chain chain;
    Testing::MemoryAlsaBuffers capture{2};
    Testing::MemoryAlsaBuffers playback{2};
};

} // namespace

TEST(DynamicsAndRoutingChainTest, GainLimiterAndClipGuardInAChain)
{
    LoadedChain loaded("dynamics.xml");
    // 0.8 halved by the gain, then held at the limiter's quarter; 1.5 clipped just under 1.0.
    loaded.feed(tSample(0.8), tSample(1.5), 256);
    EXPECT_EQ(loaded.out(0, 0), tSample(0.25));
    EXPECT_EQ(loaded.out(0, 255), tSample(0.25));
    EXPECT_EQ(loaded.out(1, 255), raw(0x07FFFFFF));

    std::dynamic_pointer_cast<Gain>(loaded.chain.findModule("gain"))->fadeTo(tSample(-12.0));
    loaded.feed(tSample(0.8), tSample(0.5), 256);
    EXPECT_LT(loaded.out(0, 255), tSample(0.25));
    EXPECT_EQ(loaded.out(1, 255), tSample(0.5));
}

TEST(DynamicsAndRoutingChainTest, PatchBaySwitchMixerAndDelayInAChain)
{
    LoadedChain loaded("routing.xml");
    loaded.feed(tSample(0.5), tSample(0.25), 128);
    // Swapped: the new left is 0.25, inverted by the switch's port 0; the sum arrives 48 frames late.
    EXPECT_EQ(loaded.out(0, 0), tSample(-0.25));
    EXPECT_EQ(loaded.out(1, 47), tSample::s_Zero);
    EXPECT_EQ(loaded.out(1, 48), tSample(0.75));

    std::dynamic_pointer_cast<PatchBay>(loaded.chain.findModule("bay"))
        ->setRoutingMode(HW::ChannelConfiguration::Mono);
    loaded.chain.findModule("switch")->setParameter("selected-port", "1");
    loaded.feed(tSample(0.5), tSample(0.25), 128);
    EXPECT_EQ(loaded.out(0, 0), tSample(0.375));
    EXPECT_EQ(loaded.out(1, 0), tSample(0.75));
    EXPECT_EQ(loaded.out(1, 127), tSample(0.75));
}

TEST(ClipGuardTest, ClipsIntoTheOutputRange)
{
    Testing::ModuleHarness harness(std::make_shared<ClipGuard>("c"), true);
    EXPECT_EQ(harness.run({tSample(1.0), tSample(-1.0), tSample(-1.5), tSample(15.0), raw(0x07FFFFFF),
                           tSample(-0.25)}),
              (std::vector<tSample>{raw(0x07FFFFFF), tSample(-1.0), tSample(-1.0), raw(0x07FFFFFF),
                                    raw(0x07FFFFFF), tSample(-0.25)}));
}

TEST(PhaseInversionTest, NegatesWithWrapAlsoInPlace)
{
    // -16.0 has no positive counterpart and wraps onto itself.
    std::vector<tSample> const in = {raw(INT32_MIN), tSample::s_Zero, tSample(0.5), raw(-1), raw(INT32_MAX)};
    std::vector<tSample> const expected = {raw(INT32_MIN), tSample::s_Zero, tSample(-0.5), raw(1),
                                           raw(-INT32_MAX)};
    for (bool inPlace : {false, true})
        EXPECT_EQ(Testing::ModuleHarness(std::make_shared<PhaseInversion>("p"), inPlace).run(in), expected);
}

TEST(MixerTest, SumsTwoInputsAndTreatsAnEmptyOneAsAbsent)
{
    Testing::ModuleHarness harness(std::make_shared<Mixer>("m"));
    std::vector<tSample> const a = {tSample(0.5), tSample(-0.25), tSample(15.5)},
                               b = {tSample(0.25), tSample(-0.25), tSample(1.0)};
    // The sum wraps like any addition of samples: 15.5 + 1.0 comes out as -15.5.
    EXPECT_EQ(harness.process({a, b})[0],
              (std::vector<tSample>{tSample(0.75), tSample(-0.5), tSample(-15.5)}));
    EXPECT_EQ(harness.process({{}, b})[0], b);
    EXPECT_EQ(harness.process({a, {}})[0], a);
    EXPECT_TRUE(harness.process({{}, {}})[0].empty());
}

TEST(MeterTest, HoldsThePeakUntilExchanged)
{
    Testing::ModuleHarness harness(std::make_shared<Meter>("m"));
    auto& meter = static_cast<Meter&>(harness.module());
    for (tSample level : {tSample(-0.5), tSample(0.25)}) {
        harness.setInput(0, {tSample::s_Zero, level});
        meter.process();
    }
    EXPECT_FLOAT_EQ(meter.exchange(0.0f), 0.5f);
    meter.process();
    EXPECT_FLOAT_EQ(meter.exchange(0.0f), 0.25f);
}

TEST(InputStageTest, CopiesBothChannelsAndThePeriodLengthTravelsAsTheFrameCount)
{
    Chain chain(48000);
    InputStage stage("in");
    Testing::MemoryAlsaBuffers capture(2);
    stage.setInput(&capture);
    stage.preSetup(chain, 1280);
    stage.postSetup(1280);
    capture.getChannel(0).setPeriod({tSample(0.5), tSample(0.25), tSample(-1.0)});
    capture.getChannel(1).setPeriod({tSample(0.125), tSample(0.0), tSample(1.0)});
    stage.process();
    EXPECT_EQ(stage.getOutPortBuffer(0)->getUnderlyingStorage(), capture.getChannel(0).samples);
    EXPECT_EQ(stage.getOutPortBuffer(1)->getUnderlyingStorage(), capture.getChannel(1).samples);
    EXPECT_EQ(stage.getOutPortBuffer(1)->getNumSampleFramesCapacity(), 1280u);

    capture.getChannel(1).setPeriod(std::vector<tSample>(5));
    EXPECT_DEATH(stage.process(), "leftOut->getNumSampleFrames\\(\\) == rightOut->getNumSampleFrames\\(\\)");
}

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
    auto in = chain.addModule("input", "in");
    auto wrapper = std::dynamic_pointer_cast<StereoWrapper>(chain.addStereoModule("meter", "levels"));
    chain.pullWire("levels[0]", "in[1]");
    chain.pullWire("levels[1]", "in[0]");
    chain.compile();
    EXPECT_EQ(wrapper->getLeft()->getInPort(0), in->getOutPortBuffer(1));
    EXPECT_EQ(wrapper->getRight()->getInPort(0), in->getOutPortBuffer(0));
    in->getOutPortBuffer(0)->getRawData()[0] = tSample(0.75);
    wrapper->process();
    EXPECT_FLOAT_EQ(std::dynamic_pointer_cast<Meter>(wrapper->getRight())->exchange(0.0f), 0.75f);
    EXPECT_FLOAT_EQ(std::dynamic_pointer_cast<Meter>(wrapper->getLeft())->exchange(0.0f), 0.0f);
}
