#pragma once

#include "dsp/Chain.h"

#include <cstdio>
#include <string>

namespace Zelmar {
namespace Host {

// The `check` listing: modules in signal-flow order with type, ports, sources and parameters.
class ChainReport
{
public:
    static void print(Chain const& chain, std::string const& config, std::FILE* out);
};

} // namespace Host
} // namespace Zelmar
