#include "dsp/OutputStage.h"

#include "support/MainLoop.h"
#include "support/MemoryAlsaBuffers.h"
#include "support/ModuleHarness.h"

#include <gtest/gtest.h>
#include <vector>

using namespace Zelmar;
using Testing::constant;

namespace {

// At 48000 Hz a fade lasts 4800 frames.
class OutputStageTest : public ::testing::Test
{
protected:
    OutputStageTest() { configure("01"); }

    void configure(char const* pattern)
    {
        m_stage->setParameters(Parameters{{"interleave-pattern", pattern}}, 48000);
        m_harness = std::make_unique<Testing::ModuleHarness>(m_stage);
        m_stage->setOutput(&m_playback);
    }

    // Periods of `level` on port 0 and `-level` on port 1; returns what channel 0 played.
    std::vector<tSample> run(unsigned int frames, unsigned int period, tSample level = tSample(0.5))
    {
        std::vector<tSample> out;
        for (unsigned int done = 0; done < frames; done += period) {
            unsigned int const n = std::min(period, frames - done);
            m_harness->process({constant(n, level), constant(n, -level)});
            out.insert(out.end(), m_playback.getChannel(0).samples.begin(),
                       m_playback.getChannel(0).samples.begin() + n);
        }
        return out;
    }

    std::shared_ptr<OutputStage> m_stage = std::make_shared<OutputStage>("out");
    Testing::MemoryAlsaBuffers m_playback{2};
    std::unique_ptr<Testing::ModuleHarness> m_harness;
};

} // namespace

TEST_F(OutputStageTest, FreshStageFadesOutOverATenthOfASecond)
{
    EXPECT_TRUE(m_stage->isFading());
    EXPECT_FALSE(m_stage->isMuting());
    auto const out = run(6144, 1024);
    EXPECT_EQ(out[0], tSample(0.5)) << "the first frame is scaled by the full-level factor";
    EXPECT_LT(out[2400], tSample(0.5));
    EXPECT_TRUE(std::is_sorted(out.rbegin(), out.rend())) << "falls steadily";
    // 4800 frames, the last of which is where the gain arrives and is zeroed.
    EXPECT_GT(out[4798], tSample::s_Zero);
    EXPECT_EQ(std::vector<tSample>(out.begin() + 4799, out.end()), constant(6144 - 4799, tSample::s_Zero));
    EXPECT_TRUE(m_stage->isMuting());
    EXPECT_FALSE(m_stage->isFading());
}

TEST_F(OutputStageTest, UnmuteFadesUpFromSilenceAndLeavesTheRestOfThePeriodUntouched)
{
    m_stage->initialMute();
    EXPECT_EQ(run(1024, 1024), constant(1024, tSample::s_Zero));
    m_stage->setMute(false);
    m_stage->setMute(false);
    auto const out = run(5120, 1024);
    EXPECT_EQ(out[0], tSample::s_Zero) << "the first frame of a fade-up is silent";
    EXPECT_GT(out[2400], tSample::s_Zero);
    auto const full = std::find(out.begin(), out.end(), tSample(0.5));
    EXPECT_GE(full - out.begin(), 4800);
    EXPECT_LT(full - out.begin(), 4810) << "arrival in the fifth period";
    EXPECT_EQ(std::vector<tSample>(full, out.end()), constant(unsigned(out.end() - full), tSample(0.5)))
        << "frames after arrival are untouched";
    EXPECT_EQ(m_playback.getChannel(1).samples[1023], tSample(-0.5));
    EXPECT_FALSE(m_stage->isFading());

    m_stage->setMute(true);
    run(4800, 1024);
    EXPECT_TRUE(m_stage->isMuting()) << "one unmute counted once";
}

TEST_F(OutputStageTest, PlayRequestsOpenAMutedOutputAndAnnounceChangesOnTheMainLoop)
{
    std::vector<bool> announced;
    auto connection = m_stage->connectHandlerForMuteChanges([&](bool muted) { announced.push_back(muted); });
    Testing::runPendingMainLoopJobs();
    EXPECT_EQ(announced, std::vector<bool>{true}) << "the initial state";
    m_stage->initialMute();
    m_stage->incPlayRequests();
    EXPECT_EQ(m_stage->getTargetGain(), tSample(2.0));
    run(4800, 1280);
    EXPECT_EQ(run(16, 16)[15], tSample(0.5));
    m_stage->decPlayRequests();
    m_stage->incPlayRequests();
    m_stage->decPlayRequests();
    Testing::runPendingMainLoopJobs();
    EXPECT_EQ(announced, (std::vector<bool>{true, true})) << "computed when the job runs, not when scheduled";
    run(4800, 1280);
    EXPECT_TRUE(m_stage->isMuting());
}

TEST_F(OutputStageTest, InterleavePatternRoutesPortsToChannels)
{
    configure("10");
    m_stage->incPlayRequests();
    run(4800, 1200);
    run(8, 8, tSample(0.25));
    EXPECT_EQ(m_playback.getChannel(0).samples[7], tSample(-0.25));
    EXPECT_EQ(m_playback.getChannel(1).samples[7], tSample(0.25));
    configure("00");
    run(8, 8, tSample(0.25));
    EXPECT_EQ(m_playback.getChannel(1).samples[7], tSample(0.25));
    configure("");
    EXPECT_EQ(m_stage->getNumInPorts(), 0u);
    EXPECT_NO_THROW(m_stage->process()) << "writes nothing";
    EXPECT_THROW(m_stage->setParameters(Parameters{{"interleave-pattern", "0a"}}, 48000),
                 std::invalid_argument);
    EXPECT_EQ(m_stage->getNumInPorts(), 1u) << "digits before the fault are kept";
}
