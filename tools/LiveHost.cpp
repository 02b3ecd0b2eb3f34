#include "tools/LiveHost.h"

#include "dsp/InputStage.h"
#include "dsp/OutputStage.h"
#include "dsp/Resampler.h"
#include "tools/AlsaPcm.h"
#include "tools/ChainLoader.h"
#include "tools/ChainStages.h"
#include "tools/FileFeed.h"
#include "tools/LivePeriodLoop.h"
#include "tools/LiveTelemetry.h"
#include "tools/RealtimeHost.h"
#include "tools/ToolError.h"

#include <cstdio>
#include <memory>

namespace Zelmar {
namespace Host {

namespace {

constexpr unsigned int c_defaultRate = 48000;
constexpr unsigned int c_captureChannels = 2;

// ALSA would print its own lines besides the one that names the device and the reason.
void ignoreAlsaMessage(char const*, int, char const*, int, char const*, ...) {}

// Both devices and the chain run at one rate: only a resampler converts, and not between live devices.
void checkRates(InputStage const& input, std::string const& config, FileFeed const* feed, unsigned int rate)
{
    if (feed && feed->getSampleRate() != rate)
        throw ToolError(ToolError::c_badInput, feed->describe() + " is at " +
                                                   std::to_string(feed->getSampleRate()) +
                                                   " Hz, not the --rate " + std::to_string(rate) + " Hz");
    auto const* resampler = dynamic_cast<Resampler const*>(&input);
    if (resampler && resampler->getSourceRate() != rate)
        throw configError(config, "resampler " + input.getID().str() + " converts from source-rate " +
                                      std::to_string(resampler->getSourceRate()) +
                                      " Hz, but live runs its input at " + std::to_string(rate) + " Hz");
}

AlsaPcm::Setup deviceSetup(LiveHost::Options const& options, unsigned int rate, unsigned int channels)
{
    AlsaPcm::Setup setup;
    setup.rate = rate;
    setup.channels = channels;
    setup.format = options.format;
    setup.periodFrames = options.periodFrames;
    setup.periods = options.periods;
    return setup;
}

double microseconds(uint64_t nanoseconds)
{
    return double(nanoseconds) / 1000.0;
}

void printSummary(LiveTelemetry const& telemetry, LiveHost::Options const& options, unsigned int rate)
{
    auto const& times = telemetry.periodTimes;
    uint64_t const frames = telemetry.frames.load();
    double const periodNanoseconds = 1e9 * options.periodFrames / rate;
    std::printf(
        "orvandeldsp: %llu frames, %.3f s at %u Hz; xruns: %s %u, playback %u; period time median %.1f us, "
        "p99 %.1f us, p99.9 %.1f us, max %.1f us; load median %.1f %%, max %.1f %%\n",
        static_cast<unsigned long long>(frames), double(frames) / rate, rate,
        options.input.empty() ? "capture" : "input", telemetry.xruns[LiveTelemetry::c_capture].load(),
        telemetry.xruns[LiveTelemetry::c_playback].load(), microseconds(times.quantile(0.5)),
        microseconds(times.quantile(0.99)), microseconds(times.quantile(0.999)), microseconds(times.getMax()),
        100.0 * double(times.quantile(0.5)) / periodNanoseconds,
        100.0 * double(times.getMax()) / periodNanoseconds);
    std::fflush(stdout);
}

} // namespace

void LiveHost::run(Options const& options)
{
    snd_lib_error_set_handler(&ignoreAlsaMessage);
    std::unique_ptr<FileFeed> feed;
    if (!options.input.empty())
        feed = std::make_unique<FileFeed>(options.input, options.periodFrames);
    unsigned int const rate = options.rate ? options.rate : feed ? feed->getSampleRate() : c_defaultRate;

    auto const chain = ChainLoader::load(options.config, rate);
    auto& input = theOnlyStage<InputStage>(*chain, options.config, "input");
    auto& output = theOnlyStage<OutputStage>(*chain, options.config, "output");
    checkRates(input, options.config, feed.get(), rate);
    if (feed)
        checkInputChannels(options.input, feed->getNumChannels(), input);
    unsigned int const outChannels = output.getNumInPorts();
    if (outChannels == 0)
        throw configError(options.config, "the output stage has no channels (empty interleave-pattern)");

    std::unique_ptr<AlsaPcm> capture;
    if (!feed)
        capture = std::make_unique<AlsaPcm>(options.capture, SND_PCM_STREAM_CAPTURE,
                                            deviceSetup(options, rate, c_captureChannels));
    AlsaPcm playback(options.playback, SND_PCM_STREAM_PLAYBACK, deviceSetup(options, rate, outChannels));

    auto const telemetry = std::make_unique<LiveTelemetry>();
    PeriodSource& source = feed ? static_cast<PeriodSource&>(*feed) : *capture;
    LivePeriodLoop loop({chain.get(), &input, &output}, source, playback,
                        {options.periodFrames, rate, options.frames}, *telemetry);
    if (feed)
        feed->begin();
    RealtimeHost host(*chain, options.bus);
    host.play(loop, options.priority);

    std::string failure = loop.describeFailure();
    if (feed && failure.empty())
        failure = feed->end();
    if (!options.quiet || !failure.empty())
        printSummary(*telemetry, options, rate);
    if (!failure.empty())
        throw ToolError(ToolError::c_ioFailure, failure);
}

} // namespace Host
} // namespace Zelmar
