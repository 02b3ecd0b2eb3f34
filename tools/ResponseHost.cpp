#include "tools/ResponseHost.h"

#include "dsp/AdaptiveBiquad.h"
#include "dsp/AdaptiveLimiter.h"
#include "dsp/DeviceVolume.h"
#include "dsp/Resampler.h"
#include "tools/ChainLoader.h"
#include "tools/ChainStages.h"
#include "tools/ResponseCsv.h"
#include "tools/ResponseMeasurement.h"
#include "tools/ResponsePlot.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <glib.h>

namespace Zelmar {
namespace Host {

namespace {

using Options = ResponseHost::Options;
using tPoints = std::vector<ResponseMeasurement::Point>;

std::string hertz(double frequency)
{
    char text[32];
    std::snprintf(text, sizeof text, "%g Hz", frequency);
    return text;
}

// A resampler is fed at the rate it converts from, anything else at the chain's rate.
unsigned int inputRateOf(InputStage const& input, unsigned int chainRate)
{
    auto const* resampler = dynamic_cast<Resampler const*>(&input);
    return resampler ? resampler->getSourceRate() : chainRate;
}

// The options were checked against the chain's rate; a resampler's lower source rate can still make
// the highest frequency too high, or the default one lower than --from.
double highestFrequency(Options const& options, unsigned int inputRate)
{
    double const limit = ResponseHost::c_highestPartOfRate * std::min(options.rate, inputRate);
    double const to = options.to > 0.0 ? options.to : std::min(ResponseHost::c_defaultTo, limit);
    if (to > limit || options.from >= to)
        throw configError(options.config, "its resampler takes " + hertz(inputRate) +
                                              ", so the frequencies must lie below " + hertz(limit));
    return to;
}

// Returns how many modules follow the volume.
template <class T> size_t setVolume(Chain const& chain, DeviceVolume::tDb volumeDb)
{
    auto const modules = findStages<T>(chain);
    for (T* module : modules)
        module->setControlGain(volumeDb);
    return modules.size();
}

std::string describe(Options const& options, bool followsVolume)
{
    gchar* name = g_path_get_basename(options.config.c_str());
    char text[96];
    std::snprintf(text, sizeof text, " at %g dBFS, %u Hz", options.levelDb, options.rate);
    std::string description = std::string(name) + text;
    g_free(name);
    if (followsVolume)
        description += ", volume " + std::to_string(options.volume);
    return description;
}

void reportUnsettled(tPoints const& points)
{
    auto const unsettled = [](ResponseMeasurement::Point const& point) { return !point.settled; };
    auto const count = std::count_if(points.begin(), points.end(), unsettled);
    if (count == 0)
        return;
    std::fprintf(
        stderr,
        "orvandeldsp: %ld of %zu frequencies (the first %.2f Hz) did not settle within 0.01 dB in %g s, "
        "from the chain's own noise at this level or a module that keeps changing; their figures are "
        "the last window's\n",
        long(count), points.size(), std::find_if(points.begin(), points.end(), unsettled)->frequency,
        ResponseMeasurement::c_maxSettleSeconds);
}

} // namespace

void ResponseHost::run(Options const& options)
{
    auto const chain = ChainLoader::load(options.config, options.rate);
    auto& input = theOnlyStage<InputStage>(*chain, options.config, "input");
    auto& output = theOnlyStage<OutputStage>(*chain, options.config, "output");
    if (output.getNumInPorts() == 0)
        throw configError(options.config, "the output stage has no channels (empty interleave-pattern)");
    unsigned int const inputRate = inputRateOf(input, options.rate);
    if (ResponseMeasurement::periodFrames(inputRate, options.rate) == 0)
        throw configError(options.config, "its resampler's source-rate of " + hertz(inputRate) +
                                              " is too low for a chain at " + hertz(options.rate));
    double const to = highestFrequency(options, inputRate);
    DeviceVolume::tDb const volumeDb = DeviceVolume::toDb(options.volume);
    bool const followsVolume =
        setVolume<AdaptiveBiquad>(*chain, volumeDb) + setVolume<AdaptiveLimiter>(*chain, volumeDb) > 0;

    ResponseMeasurement measurement(*chain, input, output, inputRate, options.levelDb);
    tPoints points;
    double const ratio = to / options.from;
    for (unsigned int i = 0; i < options.points; ++i)
        points.push_back(
            measurement.measure(options.from * std::pow(ratio, double(i) / (options.points - 1))));

    if (!options.csv.empty())
        ResponseCsv::write(points, options.csv);
    if (!options.plot.empty())
        ResponsePlot::draw(points, describe(options, followsVolume), options.plotFormat, options.plot);
    if (options.csv.empty() && options.plot.empty())
        std::fputs(ResponseCsv::format(points).c_str(), stdout);
    std::fflush(stdout);
    reportUnsettled(points);
}

} // namespace Host
} // namespace Zelmar
