#pragma once

#include "tools/ResponseMeasurement.h"

#include <string>
#include <vector>

namespace Zelmar {
namespace Host {

// Draws a measured response with gnuplot, started as a process: the gain in dB over a logarithmic
// frequency axis, one curve per output channel, and the phase in a panel below.
class ResponsePlot
{
public:
    // `format` is "svg", "png" or "pdf". The picture appears only when gnuplot drew all of it; failures
    // throw ToolError.
    static void draw(std::vector<ResponseMeasurement::Point> const& points, std::string const& title,
                     std::string const& format, std::string const& output);

private:
    static std::string script(std::vector<ResponseMeasurement::Point> const& points, std::string const& title,
                              std::string const& format);
};

} // namespace Host
} // namespace Zelmar
