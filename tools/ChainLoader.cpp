#include "tools/ChainLoader.h"

#include "dsp/ChainCheck.h"
#include "dsp/IllegalArgumentException.h"
#include "dsp/InputStage.h"
#include "dsp/OutputStage.h"
#include "dsp/ParsingException.h"
#include "tools/ChainStages.h"
#include "tools/ToolError.h"

#include <cstdio>

namespace Zelmar {
namespace Host {

std::unique_ptr<Chain> ChainLoader::load(std::string const& path, unsigned int sampleRate)
{
    auto const problems = ChainCheck::check(path, sampleRate);
    std::string lines;
    for (auto const& problem : problems)
        lines += (lines.empty() ? "config " : "\norvandeldsp: config ") + problem.describe();
    // With an error everything goes out with it, in the order of the file; warnings alone do not stop.
    if (ChainCheck::hasErrors(problems))
        throw ToolError(ToolError::c_badInput, lines);
    if (!lines.empty())
        std::fprintf(stderr, "orvandeldsp: %s\n", lines.c_str());

    auto chain = std::make_unique<Chain>(sampleRate);
    // What the check cannot see, such as a rate libFLAC refuses, is thrown while setting up.
    try {
        chain->load(path, true);
    } catch (ParsingException const& e) {
        throw configError(path, e.getMessage().str());
    } catch (IllegalArgumentException const& e) {
        throw configError(path, e.getMessage().str());
    } catch (std::exception const& e) {
        throw configError(path, e.what());
    }
    theOnlyStage<InputStage>(*chain, path, "input");
    if (theOnlyStage<OutputStage>(*chain, path, "output").getNumInPorts() == 0)
        throw configError(path, "the output stage has no channels (empty interleave-pattern)");
    return chain;
}

} // namespace Host
} // namespace Zelmar
