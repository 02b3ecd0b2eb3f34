#include "dsp/Equalizer.h"

#include "base/Assert.h"
#include "dsp/Chain.h"
#include "dsp/ModuleFactory.h"

#include <cstdio>
#include <string>

namespace Zelmar {

namespace {

tModulePtr createChild(Tools::String const& type, Tools::String const& id)
{
    return tModulePtr(ModuleFactory::get().createModule(type, id));
}

// printf's "%f": six decimals, and the sign of a negative zero is kept.
Tools::String formatDecibels(double dB)
{
    int const length = std::snprintf(nullptr, 0, "%f", dB);
    std::string text(static_cast<size_t>(length), '\0');
    std::snprintf(&text[0], text.size() + 1, "%f", dB);
    return Tools::String(text);
}

} // namespace

Equalizer::Equalizer(Tools::String const& id)
    : Module(id), m_low(createChild("biquad", "low-gain")), m_mid(createChild("biquad", "mid-gain")),
      m_high(createChild("biquad", "high-gain")), m_gainCorrection(createChild("gain", "gain-correction"))
{
}

void Equalizer::preSetup(Chain& chain, unsigned int maxFrames)
{
    Module::preSetup(chain, maxFrames);
    m_chain = &chain;
    for (auto const& child : getChildModules())
        child->preSetup(chain, maxFrames);
}

void Equalizer::postSetup(unsigned int maxFrames)
{
    Module::postSetup(maxFrames);
    m_low->postSetup(maxFrames);
    // When the chain gives this module a buffer of its own, the input is shared with another reader:
    // the first filter writes into that own buffer instead of its input, the rest follow in place.
    if (!getInPortSpec(0).inPlace)
        m_low->setOutPortBuffer(0, getOutPort(0));
    m_mid->postSetup(maxFrames);
    m_high->postSetup(maxFrames);
    m_gainCorrection->postSetup(maxFrames);
}

void Equalizer::onModuleAddedToChain(Chain& chain)
{
    for (auto const& child : getChildModules()) {
        if (child)
            child->onModuleAddedToChain(chain);
    }
}

void Equalizer::setInPortBuffer(unsigned int inPort, std::shared_ptr<Module> source, unsigned int outPort)
{
    ZELMAR_ASSERT(inPort == 0);
    Module::setInPortBuffer(0, source, outPort);
    m_low->setInPortBuffer(0, source, outPort);
    m_mid->setInPortBuffer(0, m_low, 0);
    m_high->setInPortBuffer(0, m_mid, 0);
    m_gainCorrection->setInPortBuffer(0, m_high, 0);
    for (auto const& child : getChildModules())
        child->activeInPlaceProcessingForPort(0);
}

void Equalizer::setOutPortBuffer(unsigned int outPort, std::shared_ptr<AudioBuffer> buffer)
{
    ZELMAR_ASSERT(outPort == 0);
    Module::setOutPortBuffer(0, buffer);
    ZELMAR_ASSERT(buffer == getOutPort(0));
    m_gainCorrection->setOutPortBuffer(0, buffer);
}

void Equalizer::process()
{
    m_low->process();
    m_mid->process();
    m_high->process();
    m_gainCorrection->process();
}

Parameters Equalizer::bandSettings(unsigned int band, Tools::String const& gain)
{
    static char const* const c_types[] = {"loshelf", "peak", "hishelf"};
    static char const* const c_frequencies[] = {"300", "1000", "3000"};
    return {{"type", c_types[band]}, {"frequency", c_frequencies[band]}, {"q", "0.707"}, {"gain", gain}};
}

void Equalizer::initChildModules(unsigned int sampleRate)
{
    m_low->setParameters(bandSettings(0, "0"), sampleRate);
    m_mid->setParameters(bandSettings(1, "0"), sampleRate);
    m_high->setParameters(bandSettings(2, "0"), sampleRate);
    m_gainCorrection->setParameters({{"gain", "0"}}, sampleRate);
}

void Equalizer::checkParameters(Parameters const& params, unsigned int sampleRate) const
{
    // The correction only lowers the level; what may not fit is a band's design.
    m_low->validateParameters(bandSettings(0, params.getString("low-gain")), sampleRate);
    m_mid->validateParameters(bandSettings(1, params.getString("mid-gain")), sampleRate);
    m_high->validateParameters(bandSettings(2, params.getString("high-gain")), sampleRate);
}

void Equalizer::setParameters(Parameters const& params, unsigned int sampleRate)
{
    Module::setParameters(params, sampleRate);
    if (!m_childModulesInitialised) {
        initChildModules(sampleRate);
        m_childModulesInitialised = true;
    }
    m_low->setParameter("gain", params.getString("low-gain"));
    m_mid->setParameter("gain", params.getString("mid-gain"));
    m_high->setParameter("gain", params.getString("high-gain"));
    double const lowDb = m_low->getParameters().getDouble("gain");
    double const midDb = m_mid->getParameters().getDouble("gain");
    double const highDb = m_high->getParameters().getDouble("gain");

    if (!params.getBool("gain-correction"))
        return;
    double largest = lowDb;
    if (midDb > largest)
        largest = midDb;
    if (highDb > largest)
        largest = highDb;
    // Cuts are never made up for: only a boost lowers the output and raises the hidden volume.
    double correction = -largest;
    if (!(largest >= 0)) {
        correction = -0.0;
        largest = 0.0;
    }
    m_gainCorrection->setParameters({{"gain", formatDecibels(correction)}}, sampleRate);
    if (m_chain)
        m_chain->getHiddenVolumeManager().setHiddenVolumeDelta(largest);
}

} // namespace Zelmar
