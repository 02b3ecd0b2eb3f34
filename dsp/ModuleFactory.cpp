#include "dsp/ModuleFactory.h"

#include "dsp/AdaptiveBiquad.h"
#include "dsp/AdaptiveLimiter.h"
#include "dsp/BiQuad.h"
#include "dsp/ClipGuard.h"
#include "dsp/Delay.h"
#include "dsp/DumpSamples.h"
#include "dsp/Equalizer.h"
#include "dsp/FlacEncoder.h"
#include "dsp/Gain.h"
#include "dsp/InputStage.h"
#include "dsp/Limiter.h"
#include "dsp/Meter.h"
#include "dsp/Mixer.h"
#include "dsp/OutputStage.h"
#include "dsp/PatchBay.h"
#include "dsp/PhaseInversion.h"
#include "dsp/Resampler.h"
#include "dsp/SignalDetector.h"
#include "dsp/Sounds.h"
#include "dsp/StereoBiQuad.h"
#include "dsp/Switch.h"
#include "dsp/ThreeBandStereoEQ.h"
#include "dsp/TimeStretcher.h"

namespace Zelmar {

namespace {

using P = ParameterDescriptor;

constexpr char const* c_stereo = "0 = left, 1 = right";

std::vector<ParameterDescriptor> biquadParameters(ParameterDescriptor gain)
{
    return {
        P::choice("type", {"lopass", "hipass", "bandpass", "notch", "peak", "loshelf", "hishelf", "passthru"},
                  "the filter's characteristic")
            .required("peak"),
        P::number("frequency", "Hz",
                  "corner or centre frequency; from half the sample rate on the filter passes "
                  "audio through")
            .required("1000")
            .above(0)
            .belowNyquist(),
        P::number("q", "", "quality factor; the shelves ignore it, the other types need it above 0")
            .required("0.707")
            .atLeast(0),
        std::move(gain),
    };
}

std::vector<ParameterDescriptor> limiterParameters(ParameterDescriptor threshold)
{
    return {
        P::number("attack", "ms", "time the envelope takes to cover 99 % of a rise; 0 follows at once")
            .required("1")
            .atLeast(0),
        P::number("release", "ms", "time the envelope takes to cover 99 % of a fall")
            .required("200")
            .atLeast(0),
        std::move(threshold),
    };
}

std::vector<ParameterDescriptor> toneParameters()
{
    return {
        P::number("low-gain", "dB", "bass: a low shelf at 300 Hz").byDefault("0"),
        P::number("mid-gain", "dB", "mid: a peak at 1000 Hz, Q 0.707").byDefault("0"),
        P::number("high-gain", "dB", "treble: a high shelf at 3000 Hz").byDefault("0"),
        P::onOff("gain-correction",
                 "lower the output by the largest boost (six decibels per doubling) and report "
                 "that boost to the hardware daemon as hidden volume"),
    };
}

char const* const c_levelMeaning =
    "level, six decibels per doubling (2^(dB/6)): +6 dB doubles; 24 dB does not fit";

// The one table of creatable types.
std::vector<ModuleDescriptor> makeTable()
{
    return {
        ModuleDescriptor::of<AdaptiveBiquad>(
            "adaptive-biquad", 1, 1, "a biquad whose gain follows the device volume along a curve",
            biquadParameters(P::curve("gain", "dB",
                                      "the gain over the device volume: \"volume=gain\" breakpoints "
                                      "in dB, straight between them and flat beyond both ends")
                                 .required("-60=9,0=0"))),
        ModuleDescriptor::of<AdaptiveLimiter>(
            "adaptive-limiter", 1, 1, "a limiter whose threshold follows the device volume along a curve",
            limiterParameters(P::curve("threshold", "dB",
                                       "the threshold over the device volume: \"volume=threshold\" "
                                       "breakpoints in dB, six decibels per doubling")
                                  .required("-60=-12,0=-6")
                                  .below(24))),
        ModuleDescriptor::of<BiQuad>(
            "biquad", 1, 1, "one second-order filter section",
            biquadParameters(P::number("gain", "dB", "boost or cut of peak and shelves").byDefault("0")))
            .withStereoVariant("stereo-biquad"),
        ModuleDescriptor::of<ClipGuard>("clipguard", 1, 1, "clips every sample into [-1.0, 1.0)"),
        ModuleDescriptor::of<Delay>(
            "delay", 1, 1, "delays the signal by whole frames",
            {P::wholeNumber("delay", "us",
                            "the delay: rate x delay / 1000000 frames, the product taken in 32 bits, "
                            "so at 48000 Hz a delay above 89478 us wraps to a short one")
                 .byDefault("0")
                 .atLeast(0)}),
        ModuleDescriptor::of<DumpSamples>(
            "dump-samples", 1, 1,
            "passes its input through and records it, for debugging, to DIRECTORY/ID.raw as raw Q4.27 words",
            {P::text("directory", "an existing directory; every setting starts a new recording")
                 .required("/tmp")}),
        ModuleDescriptor::of<Equalizer>("equalizer", 1, 1, "three-band tone control", toneParameters())
            .withStereoVariant("stereo-equalizer"),
        ModuleDescriptor::of<FlacEncoder>(
            "flac-encoder", 2, 0, "encodes its inputs into a live 24-bit FLAC stream for other players")
            .withPortNote(c_stereo),
        ModuleDescriptor::of<Gain>("gain", 1, 1, "gain stage",
                                   {P::number("gain", "dB", c_levelMeaning).byDefault("0").below(24)}),
        ModuleDescriptor::of<InputStage>("input", 0, 2, "the chain's source: the host's captured channels")
            .withPortNote(c_stereo),
        ModuleDescriptor::of<Limiter>(
            "limiter", 1, 1, "peak limiter with a one-pole envelope follower, no look-ahead",
            limiterParameters(
                P::number("threshold", "dB",
                          "level above which the output is scaled down, six decibels per doubling")
                    .required("-0.5")
                    .below(24))),
        ModuleDescriptor::of<Meter>("meter", 1, 0, "a sink that holds the peak level of its input"),
        ModuleDescriptor::of<Mixer>("mixer", 2, 1, "sums its inputs; an empty input counts as absent"),
        ModuleDescriptor::of<OutputStage>(
            "output", 0, 0,
            "the chain's sink: writes its inputs to the host's playback channels, with "
            "the mute fade",
            {P::digits("interleave-pattern", "one digit per playback channel, naming the input port it plays")
                 .byDefault("")})
            .withInPortsFrom("interleave-pattern"),
        ModuleDescriptor::of<PatchBay>("patchbay", 2, 2, "stereo routing",
                                       {P::choice("routing", {"stereo", "swapped", "left", "right", "mono"},
                                                  "straight, swapped, left on both, right on both, or a mono "
                                                  "downmix on both; other text keeps "
                                                  "the routing in force")
                                            .byDefault("stereo")
                                            .loosely()
                                            .onlyReported()})
            .withPortNote(c_stereo),
        ModuleDescriptor::of<SignalDetector>(
            "signal-detector", 1, 0, "tells whether a line input carries a signal",
            {P::number("signal-threshold", "dB",
                       "RMS level that counts as signal until one is learnt from the noise")
                 .byDefault("0")}),
        ModuleDescriptor::of<PhaseInversion>("phase-invert", 1, 1, "negates the signal"),
        ModuleDescriptor::of<Resampler>(
            "resampler", 0, 2, "an input stage for a source at another rate, interpolated linearly",
            {P::wholeNumber("source-rate", "Hz",
                            "rate of the captured input; the chain's rate makes a plain input "
                            "stage")
                 .required("44100")
                 .above(0)})
            .withPortNote(c_stereo),
        ModuleDescriptor::of<Sounds>("sounds", 2, 2,
                                     "passes its inputs through and mixes system sounds into them, ducking "
                                     "the rest; the player finds it by "
                                     "the id system-sounds")
            .withPortNote(c_stereo),
        ModuleDescriptor::of<Switch>(
            "switch", 2, 1, "passes one of its inputs",
            {P::wholeNumber("selected-port", "", "the input passed; other values pass the last")
                 .byDefault("0")
                 .between(0, 1)
                 .onlyReported()}),
        ModuleDescriptor::of<StereoBiQuad>(
            "stereo-biquad", 2, 2, "one second-order filter section on a pair, one setting for both",
            biquadParameters(P::number("gain", "dB", "boost or cut of peak and shelves").byDefault("0")))
            .withPortNote(c_stereo),
        ModuleDescriptor::of<TimeStretcher>(
            "timestretcher", 1, 1,
            "lengthens or shortens a period by one frame when drift compensation asks"),
        ModuleDescriptor::of<ThreeBandStereoEQ>("stereo-equalizer", 2, 2, "three-band tone control on a pair",
                                                toneParameters())
            .withPortNote(c_stereo),
    };
}

} // namespace

ModuleFactory& ModuleFactory::get()
{
    static ModuleFactory instance;
    return instance;
}

ModuleFactory::ModuleFactory()
{
    for (auto const& descriptor : makeTable())
        registerModule(descriptor);
}

void ModuleFactory::registerModule(ModuleDescriptor const& descriptor)
{
    ZELMAR_ASSERT(m_descriptors.find(descriptor.getType()) == m_descriptors.end());
    auto const added = m_descriptors.emplace(descriptor.getType(), descriptor).first;
    m_descriptorsByClass.emplace(descriptor.getClass(), &added->second);
}

Module* ModuleFactory::createModule(Tools::String const& type, Tools::String const& id) const
{
    ModuleDescriptor const* descriptor = findDescriptor(type);
    if (!descriptor)
        return nullptr;
    Module* module = descriptor->create(id);
    module->setType(type);
    return module;
}

ModuleDescriptor const* ModuleFactory::findDescriptor(Tools::String const& type) const
{
    auto const it = m_descriptors.find(type);
    return it == m_descriptors.end() ? nullptr : &it->second;
}

ModuleDescriptor const* ModuleFactory::findDescriptor(std::type_info const& moduleClass) const
{
    auto const it = m_descriptorsByClass.find(moduleClass);
    return it == m_descriptorsByClass.end() ? nullptr : it->second;
}

std::vector<Tools::String> ModuleFactory::getTypeNames() const
{
    std::vector<Tools::String> names;
    for (auto const& entry : m_descriptors)
        names.push_back(entry.first);
    return names;
}

} // namespace Zelmar
