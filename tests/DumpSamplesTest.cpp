#include "dsp/DumpSamples.h"
#include "dsp/IllegalArgumentException.h"

#include "support/LogCapture.h"
#include "support/MainLoop.h"
#include "support/ModuleHarness.h"
#include "support/TemporaryDirectory.h"
#include "support/Thrown.h"

#include <cstring>
#include <gtest/gtest.h>

using namespace Zelmar;
using Testing::ModuleHarness;

namespace {

class DumpSamplesTest : public testing::Test
{
protected:
    // The file's words as samples.
    std::vector<tSample> recorded(char const* name) const
    {
        std::string const bytes = m_scratch.read(name);
        EXPECT_EQ(bytes.size() % 4, 0u);
        std::vector<tSample> samples(bytes.size() / 4);
        std::memcpy(samples.data(), bytes.data(), samples.size() * 4);
        return samples;
    }

    Testing::TemporaryDirectory m_scratch{"dump-samples-XXXXXX"};
    Parameters const m_parameters{{"directory", m_scratch.path()}};
};

std::vector<tSample> fullRangeNoise(unsigned int frames, unsigned int seed)
{
    return Testing::noise(frames, seed, int64_t(1) << 31);
}

} // namespace

TEST_F(DumpSamplesTest, PassesThroughAndWritesExactlyWhatItSawSinceTheLastParameters)
{
    for (bool inPlace : {true, false}) {
        std::vector<tSample> const input = fullRangeNoise(3 * 4096 + 77, inPlace ? 1 : 2);
        std::vector<tSample> output;
        {
            ModuleHarness harness(std::make_shared<DumpSamples>("d"), inPlace);
            harness.module().setParameters(m_parameters, 48000);
            harness.processInPeriods({fullRangeNoise(2000, 9)}, 1280);
            harness.module().setParameters(m_parameters, 48000);
            output = harness.processInPeriods({input}, 1280)[0];
        }
        EXPECT_EQ(output, input) << inPlace;
        EXPECT_EQ(recorded("d.raw"), input) << inPlace;
    }
}

TEST_F(DumpSamplesTest, RejectsAMissingOrUnwritableDirectory)
{
    DumpSamples dump("d");
    EXPECT_EQ(
        Testing::thrownMessage<IllegalArgumentException>([&] { dump.setParameters(Parameters{}, 48000); }),
        "DumpSamples d: parameter \"directory\" is missing");
    std::string const none = m_scratch.path("none");
    EXPECT_EQ(Testing::thrownMessage<IllegalArgumentException>([&] {
                  dump.setParameters(Parameters{{"directory", none}}, 48000);
              }),
              "DumpSamples d: cannot open " + none + "/d.raw for writing");
    EXPECT_THROW(DumpSamples("a/b").setParameters(m_parameters, 48000), IllegalArgumentException);
}

TEST_F(DumpSamplesTest, SamplesWithoutRoomAreCountedAndReported)
{
    Testing::LogCapture log;
    uint32_t dropped = 0;
    {
        // One period larger than the ring: whatever the worker manages, the surplus cannot fit.
        ModuleHarness harness(std::make_shared<DumpSamples>("e", 1000));
        harness.module().setParameters(m_parameters, 48000);
        harness.process({fullRangeNoise(1280, 0)});
        dropped = static_cast<DumpSamples&>(harness.module()).getDroppedSamples();
        EXPECT_GE(dropped, 280u);
        std::string const report = "4 DumpSamples e dropped " + std::to_string(dropped) +
                                   " samples because its worker thread fell behind";
        EXPECT_TRUE(Testing::runMainLoopUntil([&] { return log.count(report) == 1; }));
    }
    EXPECT_EQ(recorded("e.raw").size() + dropped, 1280u);
}
