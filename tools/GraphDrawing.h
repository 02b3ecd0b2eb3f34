#pragma once

#include "dsp/Chain.h"

#include <string>

namespace Zelmar {
namespace Host {

// Renders a chain with ChainPrinter into a picture file. The printer only logs its failures, so the
// picture is drawn under a temporary name and kept only when dot produced something.
class GraphDrawing
{
public:
    static void draw(Chain const& chain, std::string const& format, std::string const& output);
};

} // namespace Host
} // namespace Zelmar
