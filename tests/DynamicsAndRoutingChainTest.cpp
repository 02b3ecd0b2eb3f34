#include "dsp/Chain.h"

#include "dsp/Gain.h"
#include "dsp/InputStage.h"
#include "dsp/OutputStage.h"
#include "dsp/PatchBay.h"
#include "support/MemoryAlsaBuffers.h"

#include <gtest/gtest.h>

#include <memory>

using namespace Zelmar;

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
    EXPECT_EQ(loaded.out(1, 255), tSample(int32_t(0x07FFFFFF)));

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
