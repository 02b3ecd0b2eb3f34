#include "dsp/OutputStage.h"

#include "dsp/Chain.h"
#include "support/MainLoop.h"
#include "support/MemoryAlsaBuffers.h"

#include <gtest/gtest.h>
#include <vector>

using namespace Zelmar;

namespace {

class OutputStageTest : public ::testing::Test
{
protected:
    void SetUp() override { configure("01", 48000); }

    void configure(char const* pattern, unsigned int rate)
    {
        stage.setParameters(Parameters{{"interleave-pattern", pattern}}, rate);
        stage.preSetup(chain, 1280);
        for (unsigned int i = 0; i < stage.getNumInPorts(); ++i)
            stage.setInPortBuffer(i, source, i);
        stage.setOutput(&playback);
    }

    // Runs periods of constant input until the total frame count is reached; returns the output of channel 0.
    std::vector<tSample> run(unsigned int totalFrames, unsigned int period, tSample level = tSample(0.5))
    {
        std::vector<tSample> out;
        while (out.size() < totalFrames) {
            unsigned int const frames = std::min<unsigned int>(period, totalFrames - unsigned(out.size()));
            for (unsigned int port = 0; port < 2; ++port) {
                auto& buffer = *source->getOutPortBuffer(port);
                buffer.setSize(frames);
                for (unsigned int f = 0; f < frames; ++f)
                    buffer.getRawData()[f] = port == 0 ? level : -level;
            }
            stage.process();
            auto const& samples = playback.getChannel(0).samples;
            out.insert(out.end(), samples.begin(), samples.begin() + frames);
        }
        return out;
    }

    class TwoOuts : public Module
    {
    public:
        TwoOuts() : Module("src")
        {
            m_outputs = {std::make_shared<AudioBuffer>(1280, 1280),
                         std::make_shared<AudioBuffer>(1280, 1280)};
        }
        unsigned int getNumOutPorts() const override { return 2; }
        unsigned int getNumInPorts() const override { return 0; }
        void process() override {}
    };

    Chain chain{48000};
    std::shared_ptr<TwoOuts> source = std::make_shared<TwoOuts>();
    Testing::MemoryAlsaBuffers playback{2};
    OutputStage stage{"out"};
};

unsigned int firstSilentFrame(std::vector<tSample> const& out)
{
    unsigned int f = unsigned(out.size());
    while (f > 0 && out[f - 1] == tSample::s_Zero)
        --f;
    return f;
}

} // namespace

TEST_F(OutputStageTest, FreshStageFadesOutOverATenthOfASecond)
{
    EXPECT_TRUE(stage.isFading());
    EXPECT_FALSE(stage.isMuting());
    auto const out = run(6144, 1024);
    EXPECT_EQ(out[0], tSample(0.5)) << "the first frame is scaled by the full-level factor";
    EXPECT_LT(out[2400].toFloat(), 0.5f);
    unsigned int const silentFrom = firstSilentFrame(out);
    EXPECT_EQ(silentFrom, 4799u) << "4800 frames, the last of which is where the gain arrives and is zeroed";
    EXPECT_TRUE(stage.isMuting());
    EXPECT_FALSE(stage.isFading());
    for (unsigned int f = 1; f < silentFrom; ++f)
        ASSERT_LE(out[f], out[f - 1]) << f;
}

TEST_F(OutputStageTest, UnmuteFadesUpFromSilenceAndLeavesTheRestOfThePeriodUntouched)
{
    stage.initialMute();
    EXPECT_EQ(run(1024, 1024)[1023], tSample::s_Zero);
    stage.setMute(false);
    stage.setMute(false);
    auto const out = run(5120, 1024);
    EXPECT_EQ(out[0], tSample::s_Zero) << "the first frame of a fade-up is silent";
    EXPECT_GT(out[2400], tSample::s_Zero);
    unsigned int fullFrom = 0;
    while (out[fullFrom] != tSample(0.5))
        ++fullFrom;
    EXPECT_GE(fullFrom, 4800u);
    EXPECT_LT(fullFrom, 4810u) << "arrival in the fifth period";
    for (unsigned int f = fullFrom; f < out.size(); ++f)
        ASSERT_EQ(out[f], tSample(0.5)) << "frames after arrival are untouched";
    EXPECT_EQ(playback.getChannel(1).samples[1023], tSample(-0.5));
    EXPECT_FALSE(stage.isFading());

    stage.setMute(true);
    run(4800, 1024);
    EXPECT_TRUE(stage.isMuting()) << "one unmute counted once";
}

TEST_F(OutputStageTest, PlayRequestsOpenAMutedOutputAndAnnounceChangesOnTheMainLoop)
{
    std::vector<bool> announced;
    auto connection = stage.connectHandlerForMuteChanges([&](bool muted) { announced.push_back(muted); });
    Testing::runPendingMainLoopJobs();
    EXPECT_EQ(announced, std::vector<bool>{true}) << "the initial state";
    stage.initialMute();
    stage.incPlayRequests();
    EXPECT_EQ(stage.getTargetGain(), tSample(2.0));
    run(4800, 1280);
    EXPECT_EQ(run(16, 16)[15], tSample(0.5));
    stage.decPlayRequests();
    stage.incPlayRequests();
    stage.decPlayRequests();
    Testing::runPendingMainLoopJobs();
    EXPECT_EQ(announced, (std::vector<bool>{true, true})) << "computed when the job runs, not when scheduled";
    run(4800, 1280);
    EXPECT_TRUE(stage.isMuting());
}

TEST_F(OutputStageTest, InterleavePatternRoutesPortsToChannels)
{
    configure("10", 48000);
    stage.incPlayRequests();
    run(4800, 1200);
    run(8, 8, tSample(0.25));
    EXPECT_EQ(playback.getChannel(0).samples[7], tSample(-0.25));
    EXPECT_EQ(playback.getChannel(1).samples[7], tSample(0.25));
    configure("00", 48000);
    run(8, 8, tSample(0.25));
    EXPECT_EQ(playback.getChannel(1).samples[7], tSample(0.25));
    configure("", 48000);
    EXPECT_EQ(stage.getNumInPorts(), 0u);
    EXPECT_NO_THROW(stage.process());
    EXPECT_THROW(stage.setParameters(Parameters{{"interleave-pattern", "0a"}}, 48000), std::invalid_argument);
    EXPECT_EQ(stage.getNumInPorts(), 1u) << "digits before the fault are kept";
}
