#include "dsp/ChainCheck.h"

#include "dsp/Chain.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>

using namespace Zelmar;

// How the check sees wiring and structure the way compiling will; the tool's tests cover what a user
// meets first (empty and malformed files, stages, values, places).
TEST(ChainCheckTest, SeesTheChainAsLoadingWouldBuildIt)
{
    std::string const stages = R"(<module type="input" id="in"/>
<module type="output" id="out"><parameter id="interleave-pattern">01</parameter></module>
)";
    struct Case
    {
        std::string config; // after <dsp> and the stages, which take lines 1 and 2
        std::vector<std::string> problems;
    };
    Case const cases[] = {
        // Stereo forms: a variant for the biquad, a wrapper with twice the ports for the gain.
        {R"(<stereo-module type="biquad" id="f"><parameter id="type">peak</parameter><parameter id="frequency">99</parameter><parameter id="q">1</parameter></stereo-module>
<stereo-module type="gain" id="g"/><cable out="in" in="f"/><cable out="f" in="g"/><cable out="g" in="out"/></dsp>)",
         {}},
        {R"(<module type="gain" id="out"/>
<module type="meter" id="m"/><cable out="in" in="m"/><cable out="in" in="out"/></dsp>)",
         {"3:1: the id out is taken already by the module at line 2; cables reach only that one",
          "4:1: input port 0 of module m is not connected",
          "4:30: cable from in to m: a cable without port numbers joins every port, but module in has 2 "
          "outputs and "
          "module m 1 input; name the ports"}},
        // The later cable to an input wins, so the earlier source no longer leads anywhere.
        {R"(<module type="gain" id="g"/><cable out="in[0]" in="g[0]"/><cable out="g[0]" in="out[0]"/>
<cable out="in[0]" in="out[0]"/><cable out="in[1]" in="out[1]"/></dsp>)",
         {"3:1: module g leads to no sink: wire it on to an output or a meter, or remove it",
          "4:1: warning: input out[0] has a cable at line 3 already; this later one replaces it"}},
        {R"(<parameter id="gain">3</parameter><module type="gain" id="g"><parameter id="gain">1</parameter>
<parameter id="gain">2</parameter><parameter>4</parameter><module type="meter" id="m"/></module>
<cable out="in" in="out"/><cable out="in[0]" in="g[0]"/><cable out="g[0]" in="m[0]"/></dsp>)",
         {"3:1: warning: a parameter outside any module is ignored",
          "4:1: warning: the parameter gain is given again; the later value wins",
          "4:35: warning: a parameter without an id is ignored",
          "4:59: warning: a module inside the module at line 3: that one gets no parameters"}},
        {R"(<module type="sounds" id="system-sounds"/><stereo-module type="output" id="second"><parameter id="interleave-pattern">0</parameter></stereo-module>
<cable out="in" in="system-sounds"/><cable out="system-sounds" in="out"/><cable out="in" in="second"/></dsp>)",
         {"3:1: The current implementation for unmuting the output stage on system sounds relies on only one "
          "output stage existing."}},
        {R"(<cable out="in" in="out"/><module type="gain" id="g"><parameter id="gain">3</parameter>)",
         {"1:1: the element dsp is never closed",
          "3:27: the element module is never closed, so its parameters are not applied",
          "3:27: input port 0 of module g is not connected",
          "3:27: module g leads to no sink: wire it on to an output or a meter, or remove it"}},
    };
    Testing::TemporaryDirectory dir;
    Testing::LogCapture quiet(7);
    for (Case const& c : cases) {
        SCOPED_TRACE(c.config);
        std::string const path = dir.write("c.xml", "<dsp>" + stages + c.config);
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
