#include "tools/LiveHost.h"

#include "dsp/OutputStage.h"
#include "tools/AlsaPcm.h"
#include "tools/FileFeed.h"
#include "tools/LiveChain.h"
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

void checkFileRate(FileFeed const& feed, unsigned int rate)
{
    if (feed.getSampleRate() != rate)
        throw ToolError(ToolError::c_badInput, feed.describe() + " is at " +
                                                   std::to_string(feed.getSampleRate()) +
                                                   " Hz, not the --rate " + std::to_string(rate) + " Hz");
}

// A compensator logs its deltas where it is fed, which here is the audio thread: its marker file is kept
// out of reach, and the status shows the deltas instead.
void keepDriftLogsOffTheAudioThread()
{
    DriftCompensator::setEnableFrameDiffFile("");
}

void warnIfDriftIsNotCompensated(LiveChain const& chain, LiveChain::Needs const& needs)
{
    if (!needs.twoClocks || chain.compensatesDrift())
        return;
    std::fprintf(
        stderr,
        "orvandeldsp: warning: config %s has no \"line-in-timestretcher\" or \"timestretcher\": drift "
        "between the capture and playback clocks is not compensated\n",
        chain.getConfig().c_str());
    std::fflush(stderr);
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

// "; latency 3073 frames (3071 to 3075); drift corrected by +99.6 ppm" for a capture device.
std::string describeDrift(LiveTelemetry const& telemetry)
{
    char text[160];
    int const length =
        std::snprintf(text, sizeof text, "; latency %d frames (%d to %d)", int(telemetry.latency.load()),
                      int(telemetry.latencyMin.load()), int(telemetry.latencyMax.load()));
    uint64_t const compensated = telemetry.compensatedFrames.load();
    if (compensated == 0) {
        std::snprintf(text + length, sizeof text - size_t(length), "; drift not compensated");
    } else {
        double const corrected =
            double(telemetry.framesDropped.load()) - double(telemetry.framesInserted.load());
        std::snprintf(text + length, sizeof text - size_t(length), "; drift corrected by %+.1f ppm",
                      1e6 * corrected / double(compensated));
    }
    return text;
}

void printSummary(LiveTelemetry const& telemetry, LiveHost::Options const& options, unsigned int rate)
{
    auto const& times = telemetry.periodTimes;
    uint64_t const frames = telemetry.frames.load();
    double const periodNanoseconds = 1e9 * options.periodFrames / rate;
    std::printf(
        "orvandeldsp: %llu frames, %.3f s at %u Hz; xruns: %s %u, playback %u; period time median %.1f us, "
        "p99 %.1f us, p99.9 %.1f us, max %.1f us; load median %.1f %%, max %.1f %%%s\n",
        static_cast<unsigned long long>(frames), double(frames) / rate, rate,
        options.input.empty() ? "capture" : "input", telemetry.xruns[LiveTelemetry::c_capture].load(),
        telemetry.xruns[LiveTelemetry::c_playback].load(), microseconds(times.quantile(0.5)),
        microseconds(times.quantile(0.99)), microseconds(times.quantile(0.999)), microseconds(times.getMax()),
        100.0 * double(times.quantile(0.5)) / periodNanoseconds,
        100.0 * double(times.getMax()) / periodNanoseconds,
        options.input.empty() ? describeDrift(telemetry).c_str() : "");
    std::fflush(stdout);
}

} // namespace

void LiveHost::run(Options const& options)
{
    snd_lib_error_set_handler(&ignoreAlsaMessage);
    keepDriftLogsOffTheAudioThread();
    std::unique_ptr<FileFeed> feed;
    if (!options.input.empty())
        feed = std::make_unique<FileFeed>(options.input, options.periodFrames);
    unsigned int const rate = options.rate ? options.rate : feed ? feed->getSampleRate() : c_defaultRate;
    if (feed)
        checkFileRate(*feed, rate);

    LiveChain::Needs needs;
    needs.sampleRate = rate;
    needs.twoClocks = !feed;
    auto chain = std::make_unique<LiveChain>(options.config, needs);
    warnIfDriftIsNotCompensated(*chain, needs);

    std::unique_ptr<AlsaPcm> capture;
    if (!feed)
        capture = std::make_unique<AlsaPcm>(options.capture, SND_PCM_STREAM_CAPTURE,
                                            deviceSetup(options, rate, c_captureChannels));
    AlsaPcm playback(options.playback, SND_PCM_STREAM_PLAYBACK,
                     deviceSetup(options, rate, chain->getOutput().getNumInPorts()));

    auto const telemetry = std::make_unique<LiveTelemetry>();
    PeriodSource& source = feed ? static_cast<PeriodSource&>(*feed) : *capture;
    Chain& served = chain->getChain();
    LivePeriodLoop loop(std::move(chain), source, playback, {options.periodFrames, rate, options.frames},
                        *telemetry);
    if (feed)
        feed->begin();
    RealtimeHost host(served, options.bus);
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
