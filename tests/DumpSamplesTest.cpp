#include "dsp/DumpSamples.h"
#include "dsp/IllegalArgumentException.h"

#include "base/Tracer.h"
#include "support/LogCapture.h"
#include "support/MainLoop.h"
#include "support/ModuleHarness.h"
#include "support/TemporaryDirectory.h"
#include "support/Thrown.h"

#include <cstring>
#include <glib.h>
#include <gtest/gtest.h>

using namespace Zelmar;
using Testing::ModuleHarness;

namespace {

class DumpSamplesTest : public testing::Test
{
protected:
    std::vector<int32_t> readFile(char const* name) const
    {
        std::string const bytes = m_scratch.read(name);
        EXPECT_EQ(bytes.size() % 4, 0u);
        std::vector<int32_t> words(bytes.size() / 4);
        std::memcpy(words.data(), bytes.data(), words.size() * 4);
        return words;
    }

    Parameters parameters() const { return Parameters{{"directory", m_directory}}; }

    Testing::TemporaryDirectory m_scratch{"dump-samples-XXXXXX"};
    std::string const m_directory = m_scratch.path();
};

std::vector<int32_t> raw(std::vector<tSample> const& samples)
{
    std::vector<int32_t> words;
    for (tSample s : samples)
        words.push_back(s.getRaw());
    return words;
}

} // namespace

TEST_F(DumpSamplesTest, PassesThroughAndWritesExactlyWhatItSaw)
{
    for (bool inPlace : {true, false}) {
        std::vector<tSample> const input = Testing::noise(3 * 4096 + 77, inPlace ? 1 : 2, int64_t(1) << 31);
        std::vector<tSample> output;
        {
            ModuleHarness harness(std::make_shared<DumpSamples>("d"), inPlace);
            harness.module().setParameters(parameters(), 48000);
            // What came before the current recording is not in the file.
            harness.processInPeriods({Testing::noise(2000, 9, int64_t(1) << 31)}, 1280);
            harness.module().setParameters(parameters(), 48000);
            output = harness.processInPeriods({input}, 1280)[0];
            EXPECT_EQ(static_cast<DumpSamples&>(harness.module()).getPath(), m_directory + "/d.raw");
        }
        EXPECT_EQ(raw(output), raw(input)) << inPlace;
        EXPECT_EQ(readFile("d.raw"), raw(input)) << inPlace;
    }
}

TEST_F(DumpSamplesTest, RejectsAMissingOrUnwritableDirectory)
{
    DumpSamples dump("d");
    EXPECT_EQ(
        Testing::thrownMessage<IllegalArgumentException>([&] { dump.setParameters(Parameters{}, 48000); }),
        "DumpSamples d: parameter \"directory\" is missing");
    EXPECT_EQ(Testing::thrownMessage<IllegalArgumentException>([&] {
                  dump.setParameters(Parameters{{"directory", m_directory + "/none"}}, 48000);
              }),
              "DumpSamples d: cannot open " + m_directory + "/none/d.raw for writing");
    DumpSamples nested("a/b");
    EXPECT_THROW(nested.setParameters(parameters(), 48000), IllegalArgumentException);
}

TEST_F(DumpSamplesTest, SamplesWithoutRoomAreCountedAndReported)
{
    Testing::LogCapture log;
    uint32_t dropped = 0;
    {
        // One period larger than the ring: whatever the worker manages, the surplus cannot fit.
        ModuleHarness harness(std::make_shared<DumpSamples>("e", 1000));
        harness.module().setParameters(parameters(), 48000);
        harness.process({Testing::noise(1280, 0, int64_t(1) << 31)});
        dropped = static_cast<DumpSamples&>(harness.module()).getDroppedSamples();
        EXPECT_GE(dropped, 280u);
        std::string const report = "DumpSamples e dropped " + std::to_string(dropped) +
                                   " samples because its worker thread fell behind";
        EXPECT_TRUE(Testing::runMainLoopUntil([&] { return log.contains(report); }));
    }
    EXPECT_EQ(readFile("e.raw").size() + dropped, 1280u);
}
