#pragma once

#include "dsp/Chain.h"

#include <memory>
#include <string>

namespace Zelmar {
namespace Host {

// Loads and compiles a dsp config for the tool. The library's check finds first what loading would
// end the process on: its problems become lines on stderr, a ToolError when one is an error. The tool
// also needs exactly one input stage and one output stage with channels.
class ChainLoader
{
public:
    static std::unique_ptr<Chain> load(std::string const& path, unsigned int sampleRate);
};

} // namespace Host
} // namespace Zelmar
