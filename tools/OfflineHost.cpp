#include "tools/OfflineHost.h"

#include "dsp/InputStage.h"
#include "dsp/Meter.h"
#include "dsp/OutputStage.h"
#include "dsp/Resampler.h"
#include "dsp/TimeStretcher.h"
#include "tools/ChainLoader.h"
#include "tools/ChainStages.h"
#include "tools/ClockPacedLoop.h"
#include "tools/DetectionReport.h"
#include "tools/DriftSimulation.h"
#include "tools/EncodedOutput.h"
#include "tools/FileAudioBuffers.h"
#include "tools/ProfileReport.h"
#include "tools/RealtimeHost.h"
#include "tools/ResamplerTail.h"
#include "tools/SoundFileReader.h"
#include "tools/SoundFileWriter.h"
#include "tools/ThresholdDirectory.h"
#include "tools/ToolError.h"

#include <cerrno>
#include <cstdio>
#include <glib.h>
#include <glib/gstdio.h>
#include <memory>
#include <unistd.h>
#include <vector>

namespace Zelmar {
namespace Host {

namespace {

using Options = OfflineHost::Options;

// Lower rates make the output stage's fade length zero frames, which the library cannot represent.
constexpr unsigned int c_minSampleRate = 10;
constexpr gint64 c_progressInterval = 200000;

// The most frames one period of `period` input frames can bring out of the chain: a resampler holds
// back up to one input frame between periods, and a time stretcher may insert one frame.
unsigned int maxFramesOut(unsigned int period, unsigned int inRate, unsigned int outRate, bool stretching)
{
    uint64_t frames = period;
    if (inRate != outRate)
        frames = ((uint64_t(period) + 1) * outRate + inRate - 1) / inRate;
    return static_cast<unsigned int>(frames + (stretching ? 1 : 0));
}

// The input stage must turn the file's rate into the chain's: only a resampler converts, and only
// from the rate it was configured for.
void checkRates(InputStage const& input, Options const& options, unsigned int fileRate,
                unsigned int chainRate)
{
    auto const* resampler = dynamic_cast<Resampler const*>(&input);
    if (resampler && resampler->getSourceRate() != fileRate)
        throw configError(options.config, "resampler " + input.getID().str() + " converts from source-rate " +
                                              std::to_string(resampler->getSourceRate()) + " Hz, but " +
                                              options.input + " is at " + std::to_string(fileRate) + " Hz");
    if (!resampler && chainRate != fileRate)
        throw configError(options.config,
                          "input stage " + input.getID().str() + " does not convert rates, so --rate " +
                              std::to_string(chainRate) + " cannot take " + options.input + " at " +
                              std::to_string(fileRate) + " Hz (use a \"resampler\" input stage)");

    unsigned int const capacity = Chain::getMaxNumFramesPerProcessCall();
    if (maxFramesOut(options.periodFrames, fileRate, chainRate, options.drift) <= capacity)
        return;
    unsigned int largest = options.periodFrames;
    while (largest > 1 && maxFramesOut(largest, fileRate, chainRate, options.drift) > capacity)
        --largest;
    throw ToolError(
        ToolError::c_badInput,
        "--period " + std::to_string(options.periodFrames) + " at " + std::to_string(fileRate) +
            " Hz in gives up to " +
            std::to_string(maxFramesOut(options.periodFrames, fileRate, chainRate, options.drift)) +
            " frames per period at " + std::to_string(chainRate) + " Hz out" +
            (options.drift ? " with --drift" : "") + ", more than the chain's " + std::to_string(capacity) +
            "; use --period " + std::to_string(largest) + " or less");
}

void showProgress(sf_count_t done, sf_count_t total, unsigned int sampleRate)
{
    double const percent = total > 0 ? 100.0 * double(done) / double(total) : 100.0;
    std::fprintf(stderr, "\rorvandeldsp: %.1f s of %.1f s (%3.0f%%)", double(done) / sampleRate,
                 double(total) / sampleRate, percent);
    std::fflush(stderr);
}

// Only a rate conversion or a time stretcher may make the output longer or shorter than the input; any
// other difference means periods went missing, and such a run must not pass for a good one.
void checkLength(Chain const& chain, sf_count_t framesIn, sf_count_t framesOut, bool resampled)
{
    if (framesIn == framesOut || resampled || !findStages<TimeStretcher>(chain).empty())
        return;
    throw ToolError(ToolError::c_ioFailure, std::to_string(framesIn) + " frames in, " +
                                                std::to_string(framesOut) +
                                                " out, though nothing in the chain changes the length; "
                                                "no output written");
}

// A result written over its input would destroy it, also when it is reached through a link.
void checkNotInput(std::string const& input, std::string const& result, char const* what)
{
    GStatBuf in = {}, out = {};
    if (g_stat(input.c_str(), &in) == 0 && g_stat(result.c_str(), &out) == 0 && in.st_dev == out.st_dev &&
        in.st_ino == out.st_ino)
        throw ToolError(ToolError::c_badInput, std::string(what) + " " + result +
                                                   " is the input file; name another file for the result");
}

// A FLAC file holds at most 24 bits; asked for explicitly, 32 is a mistake, followed from the input
// it is the most FLAC has.
snd_pcm_format_t outputFormat(Options const& options, int inputSubtype)
{
    if (options.format != SND_PCM_FORMAT_UNKNOWN)
        return options.format;
    snd_pcm_format_t const format = OfflineHost::formatForSubtype(inputSubtype);
    return options.container == SF_FORMAT_FLAC && format == SND_PCM_FORMAT_S32_LE ? SND_PCM_FORMAT_S24_3LE
                                                                                  : format;
}

// The audio takes standard output; the lines the run prints go to stderr from here on.
int divertStandardOutput()
{
    std::fflush(stdout);
    int const audio = dup(STDOUT_FILENO);
    if (audio < 0 || dup2(STDERR_FILENO, STDOUT_FILENO) < 0)
        throw ToolError(ToolError::c_ioFailure,
                        std::string("cannot write to standard output: ") + g_strerror(errno));
    return audio;
}

std::unique_ptr<SoundFileWriter> makeWriter(Options const& options, SoundFileWriter::Format const& format)
{
    unsigned int const maxFrames = Chain::getMaxNumFramesPerProcessCall();
    if (options.output == "-")
        return std::make_unique<SoundFileWriter>(divertStandardOutput(), format, maxFrames);
    return std::make_unique<SoundFileWriter>(options.output, format, maxFrames);
}

using Features = std::vector<std::unique_ptr<RunFeature>>;

Features makeFeatures(Chain& chain, Options const& options, unsigned int fileRate, unsigned int chainRate,
                      sf_count_t inputFrames)
{
    Features features;
    if (options.drift)
        features.push_back(
            std::make_unique<DriftSimulation>(chain, options.config, options.driftPpm, fileRate, chainRate));
    if (options.detect)
        features.push_back(std::make_unique<DetectionReport>(chain, options.config, fileRate));
    if (!options.sounds.empty())
        features.push_back(std::make_unique<SoundCues>(chain, options.config, options.sounds, fileRate,
                                                       inputFrames, options.periodFrames));
    if (!options.encodedOutput.empty())
        features.push_back(std::make_unique<EncodedOutput>(chain, options.config, options.encodedOutput));
    return features;
}

void printSummary(sf_count_t framesIn, sf_count_t framesOut, unsigned int fileRate, unsigned int chainRate,
                  double wallSeconds, Features const& features)
{
    double const audioSeconds = double(framesIn) / fileRate;
    std::string extras;
    if (chainRate != fileRate)
        extras += ", resampled to " + std::to_string(chainRate) + " Hz";
    for (auto const& feature : features)
        extras += feature->describeResult();
    std::printf("orvandeldsp: %lld frames in, %lld out, %.3f s of audio at %u Hz, %.3f s wall time, "
                "real-time factor %.1f%s\n",
                static_cast<long long>(framesIn), static_cast<long long>(framesOut), audioSeconds, fileRate,
                wallSeconds, wallSeconds > 0 ? audioSeconds / wallSeconds : 0.0, extras.c_str());
    std::fflush(stdout);
}

void printMeters(Chain& chain)
{
    chain.printMeters();
    // Meter modules are sinks, so the per-port listing above does not show what they held.
    for (Meter* meter : findStages<Meter>(chain))
        std::printf("orvandeldsp meter %s: peak %f\n", meter->getID().c_str(), meter->exchange(0.0f));
}

} // namespace

snd_pcm_format_t OfflineHost::formatForSubtype(int sndfileSubtype)
{
    switch (sndfileSubtype) {
    case SF_FORMAT_PCM_24:
    case SF_FORMAT_ALAC_20:
    case SF_FORMAT_ALAC_24:
        return SND_PCM_FORMAT_S24_3LE;
    case SF_FORMAT_PCM_32:
    case SF_FORMAT_ALAC_32:
    case SF_FORMAT_FLOAT:
    case SF_FORMAT_DOUBLE:
        return SND_PCM_FORMAT_S32_LE;
    default:
        return SND_PCM_FORMAT_S16_LE;
    }
}

void OfflineHost::run(Options const& options)
{
    checkNotInput(options.input, options.output, "output");
    if (!options.encodedOutput.empty())
        checkNotInput(options.input, options.encodedOutput, "--encode");
    SoundFileReader reader(options.input, options.periodFrames);
    unsigned int const sampleRate = reader.getSampleRate();
    if (sampleRate < c_minSampleRate)
        throw ToolError(ToolError::c_ioFailure, "input " + options.input + ": sample rate " +
                                                    std::to_string(sampleRate) + " Hz is too low");
    unsigned int const chainRate = options.rate ? options.rate : sampleRate;

    std::unique_ptr<ThresholdDirectory> thresholdDirectory;
    if (options.detect)
        thresholdDirectory = std::make_unique<ThresholdDirectory>(options.thresholdDirectory);
    auto const chain = ChainLoader::load(options.config, chainRate);
    auto& input = theOnlyStage<InputStage>(*chain, options.config, "input");
    auto& output = theOnlyStage<OutputStage>(*chain, options.config, "output");
    checkRates(input, options, sampleRate, chainRate);
    checkInputChannels(options.input, reader.getNumChannels(), input);
    auto const features = makeFeatures(*chain, options, sampleRate, chainRate, reader.getNumFrames());
    unsigned int const outChannels = output.getNumInPorts();

    snd_pcm_format_t const format = outputFormat(options, reader.getSubtype());
    unsigned int const maxFrames = Chain::getMaxNumFramesPerProcessCall();
    FileAudioBuffers capture(SND_PCM_FORMAT_S32_LE, 2, options.periodFrames);
    FileAudioBuffers playback(format, outChannels, maxFrames);
    input.setInput(&capture);
    output.setOutput(&playback);
    // A fresh stage is at full level, so unmuting it now means no fade-in at the start of the file.
    output.setMute(false);
    if (options.meters)
        chain->enableMeters(true);
    chain->enableProfile(options.profile);

    auto const writer = makeWriter(options, {options.container, format, outChannels, chainRate});
    std::unique_ptr<RealtimeHost> realtime;
    if (options.realtime)
        realtime = std::make_unique<RealtimeHost>(*chain, options.bus);

    ResamplerTail tail(input, capture, sampleRate, chainRate);
    bool const showingProgress = options.progress && !options.quiet;
    gint64 const start = g_get_monotonic_time();
    gint64 lastProgress = start;
    sf_count_t framesIn = 0;
    auto const playPeriod = [&]() -> unsigned int {
        unsigned int const frames = reader.readPeriod(capture, options.periodFrames);
        if (frames == 0)
            return 0;
        // The chain decides how many frames leave it; an untouched playback period writes none.
        playback.setNumFrames(0);
        for (auto const& feature : features)
            feature->beforePeriod();
        chain->process();
        tail.afterPeriod(frames);
        writer->writePeriod(playback, playback.getChannel(0).getNumFrames());
        framesIn += frames;
        for (auto const& feature : features)
            feature->afterPeriod(framesIn, writer->getNumFramesWritten());
        if (showingProgress && g_get_monotonic_time() - lastProgress >= c_progressInterval) {
            lastProgress = g_get_monotonic_time();
            showProgress(framesIn, reader.getNumFrames(), sampleRate);
        }
        return frames;
    };
    if (realtime) {
        ClockPacedLoop paced(sampleRate, playPeriod);
        if (realtime->play(paced))
            throw ToolError(ToolError::c_ioFailure, "interrupted; no output written");
    } else
        while (playPeriod() > 0) {
        }
    tail.flush(*chain, playback, *writer);
    for (auto const& feature : features)
        feature->finish();
    checkLength(*chain, framesIn, writer->getNumFramesWritten(), sampleRate != chainRate);
    writer->commit();
    gint64 const wallMicroseconds = g_get_monotonic_time() - start;
    double const wallSeconds = double(wallMicroseconds) / 1e6;

    if (showingProgress) {
        showProgress(framesIn, reader.getNumFrames(), sampleRate);
        std::fputc('\n', stderr);
    }
    if (!options.quiet)
        printSummary(framesIn, writer->getNumFramesWritten(), sampleRate, chainRate, wallSeconds, features);
    if (options.meters)
        printMeters(*chain);
    if (options.profile) {
        std::fputs(profileReport(*chain, uint64_t(framesIn), uint64_t(wallMicroseconds) * 1000,
                                 "reading, converting, writing")
                       .c_str(),
                   stdout);
        std::fflush(stdout);
    }
}

} // namespace Host
} // namespace Zelmar
