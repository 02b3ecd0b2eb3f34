#include "tools/LiveHost.h"

#include "dsp/Chain.h"
#include "dsp/InputStage.h"
#include "dsp/OutputStage.h"
#include "tools/AlsaPcm.h"
#include "tools/ChainReloader.h"
#include "tools/ChainStages.h"
#include "tools/FileFeed.h"
#include "tools/HostService.h"
#include "tools/LiveChain.h"
#include "tools/LivePeriodLoop.h"
#include "tools/LiveTelemetry.h"
#include "tools/ProfileReport.h"
#include "tools/RealtimeHost.h"
#include "tools/ServedChain.h"
#include "tools/ToolError.h"

#include <csignal>
#include <cstdio>
#include <functional>
#include <glib-unix.h>
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

// SIGHUP reloads the config, as it does daemons. It is ignored until the run can take a new chain:
// the config is being read then anyway.
class HangupWatch
{
public:
    HangupWatch() : m_source(g_unix_signal_add(SIGHUP, &HangupWatch::onHangup, this)) {}
    ~HangupWatch() { g_source_remove(m_source); }

    HangupWatch(HangupWatch const&) = delete;
    HangupWatch& operator=(HangupWatch const&) = delete;

    void setHandler(std::function<void()> handler) { m_handler = std::move(handler); }

private:
    static gboolean onHangup(gpointer self)
    {
        if (auto const& handler = static_cast<HangupWatch*>(self)->m_handler)
            handler();
        return G_SOURCE_CONTINUE;
    }

    guint m_source;
    std::function<void()> m_handler;
};

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

// The chain playing at the end, over the periods since it began to play (after a reload: since then).
void printProfile(Chain const& chain, unsigned int periodFrames, uint64_t wallNanoseconds)
{
    std::string const report = profileReport(chain, chain.getNumProfiledPeriods() * periodFrames,
                                             wallNanoseconds, "waiting for the devices, moving periods");
    std::fputs(report.c_str(), stdout);
    std::fflush(stdout);
}

} // namespace

void LiveHost::run(Options const& options)
{
    snd_lib_error_set_handler(&ignoreAlsaMessage);
    keepDriftLogsOffTheAudioThread();
    HangupWatch hangup;
    std::unique_ptr<FileFeed> feed;
    if (!options.input.empty())
        feed = std::make_unique<FileFeed>(options.input, options.periodFrames);
    unsigned int const rate = options.rate ? options.rate : feed ? feed->getSampleRate() : c_defaultRate;
    if (feed)
        checkFileRate(*feed, rate);

    LiveChain::Needs needs;
    needs.sampleRate = rate;
    needs.twoClocks = !feed;
    needs.profile = options.profile;
    auto chain = std::make_unique<LiveChain>(options.config, needs);
    if (feed)
        checkInputChannels(options.input, feed->getNumChannels(), chain->getInput());
    // A new config must fit the devices as they are opened now.
    needs.playbackChannels = chain->getOutput().getNumInPorts();

    std::unique_ptr<AlsaPcm> capture;
    if (!feed)
        capture = std::make_unique<AlsaPcm>(options.capture, SND_PCM_STREAM_CAPTURE,
                                            deviceSetup(options, rate, c_captureChannels));
    AlsaPcm playback(options.playback, SND_PCM_STREAM_PLAYBACK,
                     deviceSetup(options, rate, needs.playbackChannels));

    auto const telemetry = std::make_unique<LiveTelemetry>();
    PeriodSource& source = feed ? static_cast<PeriodSource&>(*feed) : *capture;
    LivePeriodLoop loop(std::move(chain), source, playback, {options.periodFrames, rate, options.frames},
                        *telemetry);
    if (feed)
        feed->begin();
    RealtimeHost host(loop.getChain().getChain(), std::nullopt);
    std::unique_ptr<ServedChain> served;
    if (options.bus)
        served = std::make_unique<ServedChain>(loop.getChain().getChain(), *options.bus);
    ChainReloader reloader(loop, needs, served.get());
    hangup.setHandler([&reloader] { reloader.reload(""); });
    std::unique_ptr<HostService> status;
    if (served) {
        status = std::make_unique<HostService>(
            *options.bus,
            HostService::Run{source.describe(), playback.describe(), rate, options.periodFrames}, loop,
            *telemetry, reloader);
        served->announce();
    }
    gint64 const start = g_get_monotonic_time();
    host.play(loop, options.priority);
    gint64 const wallMicroseconds = g_get_monotonic_time() - start;

    std::string failure = loop.describeFailure();
    if (feed && failure.empty())
        failure = feed->end();
    if (!options.quiet || !failure.empty())
        printSummary(*telemetry, options, rate);
    if (options.profile)
        printProfile(loop.getChain().getChain(), options.periodFrames, uint64_t(wallMicroseconds) * 1000);
    if (!failure.empty())
        throw ToolError(ToolError::c_ioFailure, failure);
}

} // namespace Host
} // namespace Zelmar
