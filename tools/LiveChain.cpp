#include "tools/LiveChain.h"

#include "dsp/Chain.h"
#include "dsp/InputStage.h"
#include "dsp/Meter.h"
#include "dsp/OutputStage.h"
#include "dsp/Resampler.h"
#include "dsp/StereoWrapper.h"
#include "dsp/TimeStretcher.h"
#include "tools/ChainLoader.h"
#include "tools/ChainStages.h"

#include <cstdio>

namespace Zelmar {
namespace Host {

namespace {

// The compensators a config can name, by the id of the stretchers they drive; the line-in's first,
// since a live run's input is a line in.
struct NamedCompensator
{
    char const* stretcherId;
    Tools::Hardware::DriftCompensatorType type;
};
constexpr NamedCompensator c_compensators[] = {
    {"line-in-timestretcher", Tools::Hardware::DriftCompensatorType::TimeStretchingLineIn},
    {"timestretcher", Tools::Hardware::DriftCompensatorType::TimeStretching}};

bool isStretcher(std::shared_ptr<Module> const& module)
{
    if (auto const* wrapper = dynamic_cast<StereoWrapper const*>(module.get()))
        return dynamic_cast<TimeStretcher const*>(wrapper->getLeft().get()) != nullptr;
    return dynamic_cast<TimeStretcher const*>(module.get()) != nullptr;
}

} // namespace

LiveChain::LiveChain(std::string const& config, Needs const& needs)
    : m_config(config), m_chain(ChainLoader::load(config, needs.sampleRate)),
      m_input(&theOnlyStage<InputStage>(*m_chain, config, "input")),
      m_output(&theOnlyStage<OutputStage>(*m_chain, config, "output")), m_meters(findStages<Meter>(*m_chain))
{
    checkRate(needs.sampleRate);
    checkChannels(needs.playbackChannels);
    m_chain->enableProfile(needs.profile);
    if (needs.twoClocks)
        createCompensator();
    if (needs.twoClocks && !m_compensator) {
        std::fprintf(
            stderr,
            "orvandeldsp: warning: config %s has no \"line-in-timestretcher\" or \"timestretcher\": drift "
            "between the capture and playback clocks is not compensated\n",
            config.c_str());
        std::fflush(stderr);
    }
}

LiveChain::~LiveChain() = default;

// Both devices and the chain run at one rate: only a resampler converts, and not between live devices.
void LiveChain::checkRate(unsigned int sampleRate) const
{
    auto const* resampler = dynamic_cast<Resampler const*>(m_input);
    if (resampler && resampler->getSourceRate() != sampleRate)
        throw configError(m_config, "resampler " + m_input->getID().str() + " converts from source-rate " +
                                        std::to_string(resampler->getSourceRate()) +
                                        " Hz, but live runs its input at " + std::to_string(sampleRate) +
                                        " Hz");
}

void LiveChain::checkChannels(unsigned int playbackChannels) const
{
    unsigned int const channels = m_output->getNumInPorts();
    if (channels == 0)
        throw configError(m_config, "the output stage has no channels (empty interleave-pattern)");
    if (playbackChannels != 0 && channels != playbackChannels)
        throw configError(m_config, "the output stage has " + std::to_string(channels) +
                                        " channels, the playback device runs with " +
                                        std::to_string(playbackChannels));
}

void LiveChain::createCompensator()
{
    for (auto const& named : c_compensators) {
        if (!isStretcher(m_chain->tryFindModule(named.stretcherId)))
            continue;
        m_compensator = DriftCompensator::create(named.type);
        m_compensator->initChain(*m_chain);
        m_compensator->start();
        m_compensatorName = named.stretcherId;
        return;
    }
}

} // namespace Host
} // namespace Zelmar
