#pragma once

#include "dsp/Chain.h"

#include <memory>
#include <string>

namespace Zelmar {
namespace Host {

// Loads and compiles a dsp config for a host. The library ends the process on an unreadable or
// malformed file and on a module that leads to no sink, and crashes on a cable from a port that does
// not exist or on an input left open; these are found here first. Every config fault, found here or
// thrown by the library, becomes a ToolError naming the file.
class ChainLoader
{
public:
    static std::unique_ptr<Chain> load(std::string const& path, unsigned int sampleRate);

private:
    static void checkReadableAndWellFormed(std::string const& path);
    static void checkWiring(Chain const& chain, std::string const& path);
    static void checkInputsConnected(Chain const& chain, std::string const& path);
};

} // namespace Host
} // namespace Zelmar
