#include "tools/OfflineHost.h"

#include "dsp/InputStage.h"
#include "dsp/Meter.h"
#include "dsp/OutputStage.h"
#include "dsp/StereoWrapper.h"
#include "tools/ChainLoader.h"
#include "tools/FileAudioBuffers.h"
#include "tools/SoundFileReader.h"
#include "tools/SoundFileWriter.h"
#include "tools/ToolError.h"

#include <cstdio>
#include <glib.h>
#include <vector>

namespace Zelmar {
namespace Host {

namespace {

// Lower rates make the output stage's fade length zero frames, which the library cannot represent.
constexpr unsigned int c_minSampleRate = 10;
constexpr gint64 c_progressInterval = 200000;

// Modules are found by type, wrapped ones included, so that a config may name them freely.
template <class T> std::vector<T*> findStages(Chain const& chain)
{
    std::vector<T*> stages;
    auto collect = [&](std::shared_ptr<Module> const& module) {
        if (auto* stage = dynamic_cast<T*>(module.get()))
            stages.push_back(stage);
    };
    for (auto const& module : chain.getModules()) {
        collect(module);
        if (auto const* wrapper = dynamic_cast<StereoWrapper const*>(module.get())) {
            collect(wrapper->getLeft());
            collect(wrapper->getRight());
        }
    }
    return stages;
}

template <class T> T& theOnlyStage(Chain const& chain, std::string const& config, char const* type)
{
    auto const stages = findStages<T>(chain);
    if (stages.size() != 1)
        throw ToolError(ToolError::c_badInput, "config " + config +
                                                   ": the tool needs exactly one module of type \"" + type +
                                                   "\", the config has " + std::to_string(stages.size()));
    return *stages.front();
}

void showProgress(sf_count_t done, sf_count_t total, unsigned int sampleRate)
{
    double const percent = total > 0 ? 100.0 * double(done) / double(total) : 100.0;
    std::fprintf(stderr, "\rorvandeldsp: %.1f s of %.1f s (%3.0f%%)", double(done) / sampleRate,
                 double(total) / sampleRate, percent);
    std::fflush(stderr);
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
    SoundFileReader reader(options.input, options.periodFrames);
    unsigned int const sampleRate = reader.getSampleRate();
    if (sampleRate < c_minSampleRate)
        throw ToolError(ToolError::c_ioFailure, "input " + options.input + ": sample rate " +
                                                    std::to_string(sampleRate) + " Hz is too low");

    auto const chain = ChainLoader::load(options.config, sampleRate);
    auto& input = theOnlyStage<InputStage>(*chain, options.config, "input");
    auto& output = theOnlyStage<OutputStage>(*chain, options.config, "output");
    unsigned int const outChannels = output.getNumInPorts();
    if (outChannels == 0)
        throw ToolError(ToolError::c_badInput,
                        "config " + options.config +
                            ": the output stage has no channels (empty interleave-pattern)");

    snd_pcm_format_t const format =
        options.format == SND_PCM_FORMAT_UNKNOWN ? formatForSubtype(reader.getSubtype()) : options.format;
    unsigned int const maxFrames = Chain::getMaxNumFramesPerProcessCall();
    FileAudioBuffers capture(SND_PCM_FORMAT_S32_LE, 2, options.periodFrames);
    FileAudioBuffers playback(format, outChannels, maxFrames);
    input.setInput(&capture);
    output.setOutput(&playback);
    // A fresh stage is at full level, so unmuting it now means no fade-in at the start of the file.
    output.setMute(false);
    if (options.meters)
        chain->enableMeters(true);

    SoundFileWriter writer(options.output, format, outChannels, sampleRate, maxFrames);
    bool const showingProgress = options.progress && !options.quiet;
    gint64 const start = g_get_monotonic_time();
    gint64 lastProgress = start;
    sf_count_t framesIn = 0;
    while (unsigned int const frames = reader.readPeriod(capture, options.periodFrames)) {
        // The chain decides how many frames leave it; an untouched playback period writes none.
        playback.setNumFrames(0);
        chain->process();
        writer.writePeriod(playback, playback.getChannel(0).getNumFrames());
        framesIn += frames;
        if (showingProgress && g_get_monotonic_time() - lastProgress >= c_progressInterval) {
            lastProgress = g_get_monotonic_time();
            showProgress(framesIn, reader.getNumFrames(), sampleRate);
        }
    }
    writer.commit();
    double const wallSeconds = double(g_get_monotonic_time() - start) / 1e6;

    if (showingProgress) {
        showProgress(framesIn, reader.getNumFrames(), sampleRate);
        std::fputc('\n', stderr);
    }
    if (!options.quiet) {
        double const audioSeconds = double(framesIn) / sampleRate;
        std::printf("orvandeldsp: %lld frames in, %lld out, %.3f s of audio at %u Hz, %.3f s wall time, "
                    "real-time factor %.1f\n",
                    static_cast<long long>(framesIn), static_cast<long long>(writer.getNumFramesWritten()),
                    audioSeconds, sampleRate, wallSeconds,
                    wallSeconds > 0 ? audioSeconds / wallSeconds : 0.0);
        std::fflush(stdout);
    }
    if (options.meters) {
        chain->printMeters();
        // Meter modules are sinks, so the per-port listing above does not show what they held.
        for (Meter* meter : findStages<Meter>(*chain))
            std::printf("orvandeldsp meter %s: peak %f\n", meter->getID().c_str(), meter->exchange(0.0f));
    }
}

} // namespace Host
} // namespace Zelmar
