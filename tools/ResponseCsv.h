#pragma once

#include "tools/ResponseMeasurement.h"

#include <string>
#include <vector>

namespace Zelmar {
namespace Host {

// A measured response as comma-separated text: a header "frequency_hz" followed by
// "out<i>_db,out<i>_phase_deg" for each output channel i, then one line per frequency with '.' as
// decimal point, whatever the locale. A silent channel reads -inf dB at phase nan.
class ResponseCsv
{
public:
    static std::string format(std::vector<ResponseMeasurement::Point> const& points);
    // Writes the text to `path`, all of it or nothing; throws ToolError "cannot write output PATH: ...".
    static void write(std::vector<ResponseMeasurement::Point> const& points, std::string const& path);
};

} // namespace Host
} // namespace Zelmar
