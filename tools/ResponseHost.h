#pragma once

#include <string>

namespace Zelmar {
namespace Host {

// `orvandeldsp response`: measures a config's chain at log-spaced frequencies (ResponseMeasurement) and
// writes the result as CSV, as a gnuplot picture, or as CSV on stdout when neither is asked for.
class ResponseHost
{
public:
    struct Options
    {
        std::string config;
        unsigned int rate = 48000;
        double levelDb = -20.0;
        unsigned int points = 200;
        double from = 20.0;
        // 0 takes c_defaultTo, or the highest frequency the rates allow if that is lower.
        double to = 0.0;
        std::string csv;
        std::string plot;
        std::string plotFormat;
        // The device volume (0 to 100) the volume-adaptive modules follow. 0 is also what they take
        // without the hardware daemon, which a tool that loads and runs at once never hears from.
        unsigned int volume = 0;
    };

    // The highest frequency measured is this part of the chain's rate (and of a resampler's source rate).
    static constexpr double c_highestPartOfRate = 0.45;
    static constexpr double c_defaultTo = 20000.0;

    // Throws ToolError.
    static void run(Options const& options);
};

} // namespace Host
} // namespace Zelmar
