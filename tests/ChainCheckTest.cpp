#include "dsp/ChainCheck.h"

#include "dsp/Chain.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"

#include <fstream>
#include <gtest/gtest.h>

using namespace Zelmar;

// How the check sees wiring and structure the way compiling will; the tool's tests cover what a user
// meets first (empty and malformed files, stages, values, places).
TEST(ChainCheckTest, SeesTheChainAsLoadingWouldBuildIt)
{
    struct Case
    {
        std::string config = "<dsp><module type=\"input\" id=\"in\"/>\n<module type=\"output\" id=\"out\">"
                             "<parameter id=\"interleave-pattern\">01</parameter></module>\n";
        std::vector<std::string> problems;
    };
    std::vector<Case> cases;
    std::ifstream file(TEST_SOURCE_DIR "/data/chain-checks.txt");
    for (std::string line; std::getline(file, line);) {
        if (line.rfind("== ", 0) == 0)
            cases.emplace_back().config += line.substr(3) + "\n";
        else if (line.rfind("-> ", 0) == 0)
            cases.back().problems.push_back(line.substr(3));
        else if (!line.empty() && line[0] != '#')
            cases.back().config += line + "\n";
    }
    ASSERT_EQ(cases.size(), 7u);
    Testing::TemporaryDirectory dir;
    Testing::LogCapture quiet(7);
    for (Case const& c : cases) {
        SCOPED_TRACE(c.config);
        std::string const path = dir.write("c.xml", c.config);
        auto const problems = ChainCheck::check(path, 48000);
        std::vector<std::string> described;
        for (auto const& problem : problems)
            described.push_back(problem.describe().substr(path.size() + 1));
        EXPECT_EQ(described, c.problems);
        // A config without errors is one the library loads.
        if (!ChainCheck::hasErrors(problems)) {
            EXPECT_NO_THROW(Chain(48000, path));
        }
    }
}
