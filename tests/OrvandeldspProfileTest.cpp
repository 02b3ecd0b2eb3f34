// `run --profile`: where the time went, without touching the sound.
#include "support/DataFile.h"
#include "support/ToolRun.h"

#include <string>
#include <vector>

namespace {

using namespace Zelmar::Testing;

using OrvandeldspProfileTest = ToolTest;

// Whether the ten biquads run as one fused cascade (plain) or module by module (with meters), and in a
// run that is otherwise quiet, the output keeps every bit of a run without the profile, and the profile
// names every module in signal-flow order with shares of the chain that add up to the whole.
TEST_F(OrvandeldspProfileTest, ListsEveryModuleInFlowOrderAndLeavesTheOutputAlone)
{
    std::string const config = PROJECT_SOURCE_DIR "/configs/ten-band-eq.xml";
    uint32_t state = 7;
    writeSound(path("in.wav"), SF_FORMAT_PCM_32, 2, stereoWords(5000, [&](size_t) {
                   state = state * 1664525u + 1013904223u;
                   return int32_t(state) / 4;
               }));
    ASSERT_EQ(runTool({"run", "-q", "-p", "333", "-c", config, path("in.wav"), path("plain.wav")}).status, 0);
    auto const order = split("in band-31 band-63 band-125 band-250 band-500 band-1000 band-2000 band-4000 "
                             "band-8000 band-16000 out chain host",
                             " ");
    for (auto const& [option, fused] :
         {std::pair{"--progress", true}, {"--meters", false}, {"--quiet", true}}) {
        SCOPED_TRACE(option);
        auto const result =
            runTool({"run", option, "--profile", "-p", "333", "-c", config, path("in.wav"), path("out.wav")});
        ASSERT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(readSound(path("out.wav")).samples, readSound(path("plain.wav")).samples);
        std::vector<std::string> ids;
        double shares = 0.0;
        for (auto const& line : split(result.out, "\n")) {
            auto const words = split(line, " ");
            if (words.size() < 3 || words[1] != "profile:")
                continue;
            ids.push_back(words[2]);
            if (words[2].rfind("band-", 0) == 0) {
                EXPECT_EQ(line.find("fused") != std::string::npos, fused) << line;
            }
            std::size_t const share = line.find(" % of the chain");
            if (share != std::string::npos)
                shares += std::stod(line.substr(line.rfind(' ', share - 1)));
        }
        EXPECT_EQ(ids, order) << result.out;
        EXPECT_NEAR(shares, 100.0, 0.1 * 12) << result.out;
    }
}

} // namespace
