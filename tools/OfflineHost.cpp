#include "tools/OfflineHost.h"

#include "dsp/DriftCompensator.h"
#include "dsp/InputStage.h"
#include "dsp/Meter.h"
#include "dsp/OutputStage.h"
#include "dsp/Resampler.h"
#include "dsp/SignalDetector.h"
#include "dsp/StereoWrapper.h"
#include "dsp/TimeStretcher.h"
#include "tools/ChainLoader.h"
#include "tools/FileAudioBuffers.h"
#include "tools/SoundFileReader.h"
#include "tools/SoundFileWriter.h"
#include "tools/ToolError.h"

#include <cmath>
#include <cstdio>
#include <glib.h>
#include <glib/gstdio.h>
#include <memory>
#include <vector>

namespace Zelmar {
namespace Host {

namespace {

using Options = OfflineHost::Options;

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

ToolError configError(std::string const& config, std::string const& problem)
{
    return ToolError(ToolError::c_badInput, "config " + config + ": " + problem);
}

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

// A playback clock running fast or slow against the file's timeline. After every period the chain's
// output is compared with what that clock has consumed so far; the difference (ahead +, behind -)
// goes to a time-stretching compensator, which drops frames while the output runs ahead and inserts
// them while it lags, so the output ends up longer for a fast clock and shorter for a slow one.
class DriftSimulation
{
public:
    DriftSimulation(Chain& chain, Options const& options, unsigned int fileRate, unsigned int chainRate)
        : m_compensator(DriftCompensator::create(Tools::Hardware::DriftCompensatorType::TimeStretching)),
          m_framesPerInputFrame(double(chainRate) / double(fileRate) * (1.0 + options.driftPpm * 1e-6))
    {
        auto const module = chain.tryFindModule("timestretcher");
        if (auto const* wrapper = dynamic_cast<StereoWrapper const*>(module.get()))
            m_stretcher = dynamic_cast<TimeStretcher*>(wrapper->getLeft().get());
        else
            m_stretcher = dynamic_cast<TimeStretcher*>(module.get());
        if (!m_stretcher)
            throw configError(options.config, "--drift needs a module of type \"timestretcher\" with the id "
                                              "\"timestretcher\", which the compensator drives");
        m_compensator->initChain(chain);
        m_compensator->start();
    }

    void beforePeriod() { m_producedBefore = m_stretcher->getNumSamplesProduced(); }

    void afterPeriod(sf_count_t framesIn, sf_count_t framesOut)
    {
        unsigned int const produced = m_stretcher->getNumSamplesProduced() - m_producedBefore;
        unsigned int const taken = m_stretcher->getInPort(0)->getNumSampleFrames();
        m_inserted += produced > taken ? produced - taken : 0;
        m_dropped += taken > produced ? taken - produced : 0;
        double const consumed = double(framesIn) * m_framesPerInputFrame;
        m_compensator->setFrameDelta(int(std::lround(double(framesOut) - consumed)));
    }

    sf_count_t getInserted() const { return m_inserted; }
    sf_count_t getDropped() const { return m_dropped; }

private:
    std::unique_ptr<DriftCompensator> m_compensator;
    TimeStretcher* m_stretcher = nullptr;
    double m_framesPerInputFrame;
    unsigned int m_producedBefore = 0;
    sf_count_t m_inserted = 0;
    sf_count_t m_dropped = 0;
};

// The detector learns its threshold into a file; without a given directory it goes into one made
// for this run and removed after it, so runs neither read nor leave /tmp files.
class ThresholdDirectory
{
public:
    explicit ThresholdDirectory(std::string const& given)
    {
        if (given.empty()) {
            gchar* made = g_dir_make_tmp("orvandeldsp-detect-XXXXXX", nullptr);
            if (!made)
                throw ToolError(ToolError::c_ioFailure,
                                "cannot make a directory for the detector's threshold");
            m_temporary = made;
            g_free(made);
        }
        std::string const directory = given.empty() ? m_temporary : given;
        SignalDetector::setDefaultThresholdDirectory(directory + G_DIR_SEPARATOR_S);
    }
    ~ThresholdDirectory()
    {
        if (m_temporary.empty())
            return;
        if (GDir* dir = g_dir_open(m_temporary.c_str(), 0, nullptr)) {
            while (char const* name = g_dir_read_name(dir))
                g_remove((m_temporary + G_DIR_SEPARATOR_S + name).c_str());
            g_dir_close(dir);
        }
        g_rmdir(m_temporary.c_str());
    }
    ThresholdDirectory(ThresholdDirectory const&) = delete;
    ThresholdDirectory& operator=(ThresholdDirectory const&) = delete;

private:
    std::string m_temporary;
};

// Drives the detector's poll by the file's clock instead of the main loop's timer, so that a run
// reports the same transitions at the same audio times however fast it goes.
class DetectionReport
{
public:
    DetectionReport(Chain const& chain, Options const& options, unsigned int fileRate)
        : m_pollFrames(sf_count_t(fileRate) * SignalDetector::c_pollMilliseconds / 1000), m_fileRate(fileRate)
    {
        auto const detectors = findStages<SignalDetector>(chain);
        if (detectors.empty())
            throw configError(options.config, "--detect needs a module of type \"signal-detector\"");
        m_detector = detectors.front();
        m_connection = m_detector->onThresholdTriggered([this](bool active) {
            m_changed = true;
            m_active = active;
        });
        m_nextPoll = m_pollFrames;
    }

    void afterPeriod(sf_count_t framesIn)
    {
        while (framesIn >= m_nextPoll) {
            // The poll consumes the result; read it first, and put it back, for the reason it carries.
            SignalDetector::DetectionInfo info;
            m_detector->presetDetectionResult(m_detector->consumeDetectionResult(info));
            m_changed = false;
            m_detector->pollSignal();
            if (m_changed) {
                ++m_transitions;
                double const seconds = double(m_nextPoll) / m_fileRate;
                if (m_active)
                    std::printf("orvandeldsp detect %.3f s: active, reason %u (%s)\n", seconds,
                                unsigned(info.reason), SignalDetector::reasonAsString(info.reason));
                else
                    std::printf("orvandeldsp detect %.3f s: silent\n", seconds);
            }
            m_nextPoll += m_pollFrames;
        }
    }

    unsigned int getTransitions() const { return m_transitions; }

private:
    SignalDetector* m_detector = nullptr;
    Tools::Connection m_connection;
    sf_count_t m_pollFrames;
    sf_count_t m_nextPoll = 0;
    unsigned int m_fileRate;
    bool m_changed = false;
    bool m_active = false;
    unsigned int m_transitions = 0;
};

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
    unsigned int const chainRate = options.rate ? options.rate : sampleRate;

    std::unique_ptr<ThresholdDirectory> thresholdDirectory;
    if (options.detect)
        thresholdDirectory = std::make_unique<ThresholdDirectory>(options.thresholdDirectory);
    auto const chain = ChainLoader::load(options.config, chainRate);
    auto& input = theOnlyStage<InputStage>(*chain, options.config, "input");
    auto& output = theOnlyStage<OutputStage>(*chain, options.config, "output");
    checkRates(input, options, sampleRate, chainRate);
    std::unique_ptr<DriftSimulation> drift;
    if (options.drift)
        drift = std::make_unique<DriftSimulation>(*chain, options, sampleRate, chainRate);
    std::unique_ptr<DetectionReport> detection;
    if (options.detect)
        detection = std::make_unique<DetectionReport>(*chain, options, sampleRate);
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

    SoundFileWriter writer(options.output, format, outChannels, chainRate, maxFrames);
    bool const showingProgress = options.progress && !options.quiet;
    gint64 const start = g_get_monotonic_time();
    gint64 lastProgress = start;
    sf_count_t framesIn = 0;
    while (unsigned int const frames = reader.readPeriod(capture, options.periodFrames)) {
        // The chain decides how many frames leave it; an untouched playback period writes none.
        playback.setNumFrames(0);
        if (drift)
            drift->beforePeriod();
        chain->process();
        writer.writePeriod(playback, playback.getChannel(0).getNumFrames());
        framesIn += frames;
        if (drift)
            drift->afterPeriod(framesIn, writer.getNumFramesWritten());
        if (detection)
            detection->afterPeriod(framesIn);
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
        std::string extras;
        if (chainRate != sampleRate)
            extras += ", resampled to " + std::to_string(chainRate) + " Hz";
        if (drift) {
            char ppm[32];
            std::snprintf(ppm, sizeof ppm, "%+g", options.driftPpm);
            extras += std::string(", drift ") + ppm + " ppm: " + std::to_string(drift->getInserted()) +
                      " frames inserted, " + std::to_string(drift->getDropped()) + " dropped";
        }
        if (detection)
            extras += ", " + std::to_string(detection->getTransitions()) + " signal transitions";
        std::printf("orvandeldsp: %lld frames in, %lld out, %.3f s of audio at %u Hz, %.3f s wall time, "
                    "real-time factor %.1f%s\n",
                    static_cast<long long>(framesIn), static_cast<long long>(writer.getNumFramesWritten()),
                    audioSeconds, sampleRate, wallSeconds, wallSeconds > 0 ? audioSeconds / wallSeconds : 0.0,
                    extras.c_str());
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
