#include "dsp/OutputStage.h"

#include "dsp/IllegalArgumentException.h"

#include <algorithm>
#include <cmath>
#include <string>

namespace Zelmar {

const tSample OutputStage::c_silent{tSample::tFundamental(1 << 27)};
const tSample OutputStage::c_fullLevel{tSample::tFundamental(2 << 27)};

OutputStage::OutputStage(Tools::String const& id)
    : Module(id), m_muteChangeCallback([this] { signalMuteStateChange(); }, 0)
{
    // Announce the initial state once the main loop runs.
    m_muteChangeCallback.schedule();
}

void OutputStage::setParameters(Parameters const& parameters, unsigned int sampleRate)
{
    Module::setParameters(parameters, sampleRate);
    Routing routing;
    // One digit per channel, deliberately: at most ten input ports can be addressed. A non-digit throws
    // "stoi" and leaves the port count at the digits read so far, and the pattern in force unchanged.
    Tools::String const pattern = parameters.getString("interleave-pattern");
    m_numInPorts = 0;
    for (char const digit : pattern.str()) {
        routing.interleavePattern.push_back(std::stoi(std::string(1, digit)));
        ++m_numInPorts;
    }
    // The fade lasts a tenth of a second: 0.5^(1/steps) down and 2^(1/steps) up, through float.
    auto const steps = static_cast<unsigned int>(static_cast<float>(sampleRate) / 10.0);
    double const e = static_cast<double>(1.0f / static_cast<float>(steps));
    routing.gainDecrement = tSample(static_cast<float>(std::pow(0.5, e)));
    routing.gainIncrement = tSample(static_cast<float>(std::pow(2.0, e)));
    setFutureParameterSet(new Routing(std::move(routing)));
}

void OutputStage::checkParameters(Parameters const& parameters, unsigned int) const
{
    // The pattern's length is the port count, fixed once the chain is compiled; each digit picks the
    // input port of one channel, which the audio thread does not check again.
    Tools::String const pattern = parameters.getString("interleave-pattern");
    std::string const& digits = pattern.str();
    std::size_t const ports = m_ins.empty() ? digits.size() : m_ins.size();
    bool const fits = digits.size() == ports && std::all_of(digits.begin(), digits.end(), [&](char digit) {
                          return static_cast<std::size_t>(digit - '0') < ports;
                      });
    if (!fits)
        throw IllegalArgumentException("interleave-pattern of module %0 does not fit its %1 input ports: %2",
                                       getID(), ports, pattern);
}

void OutputStage::setMute(bool mute)
{
    if (mute == m_mute)
        return;
    m_mute = mute;
    if (mute)
        decPlayRequests();
    else
        incPlayRequests();
}

void OutputStage::incPlayRequests()
{
    if (m_playRequests.fetch_add(1) == 0)
        m_muteChangeCallback.schedule();
}

void OutputStage::decPlayRequests()
{
    if (m_playRequests.fetch_sub(1) == 1)
        m_muteChangeCallback.schedule();
}

bool OutputStage::hasPlayRequests() const
{
    std::atomic_thread_fence(std::memory_order_seq_cst);
    bool const requested = m_playRequests.load() != 0;
    std::atomic_thread_fence(std::memory_order_seq_cst);
    return requested;
}

Tools::Connection OutputStage::connectHandlerForMuteChanges(std::function<void(bool)> handler) const
{
    return m_muteChangeSignal.connectFront(std::move(handler));
}

void OutputStage::signalMuteStateChange()
{
    m_muteChangeSignal(!hasPlayRequests());
}

void OutputStage::process()
{
    auto const* routing = static_cast<Routing const*>(getCurrentParameterSet());
    if (!routing || routing->interleavePattern.empty())
        return;
    std::vector<int32_t> const& pattern = routing->interleavePattern;
    // The period's length comes from a port the pattern reads: one it leaves out may be unconnected.
    unsigned int const frames = inBuffer(static_cast<unsigned int>(pattern[0])).getNumSampleFrames();
    for (unsigned int i = 0; i < pattern.size(); ++i)
        m_output->getChannel(i).write(inBuffer(static_cast<unsigned int>(pattern[i])).getRawData(), frames);
    renderGain(*routing, frames);
}

void OutputStage::silenceFrom(unsigned int firstFrame, unsigned int frames, unsigned int numChannels)
{
    for (unsigned int i = 0; i < numChannels; ++i) {
        AlsaChannel& channel = m_output->getChannel(i);
        for (unsigned int f = firstFrame; f < frames; ++f)
            channel.setSample(f, tSample::s_Zero);
    }
}

void OutputStage::renderGain(Routing const& routing, unsigned int frames)
{
    auto const numChannels = static_cast<unsigned int>(routing.interleavePattern.size());
    tSample const target = getTargetGain();
    tSample g = loadGain();

    if (g == target) {
        if (target == c_silent)
            silenceFrom(0, frames, numChannels);
        return;
    }

    bool const fadingUp = (target - g) >= tSample::s_Zero;
    tSample const multiplier = fadingUp ? routing.gainIncrement : routing.gainDecrement;
    for (unsigned int f = 0; f < frames; ++f) {
        tSample const factor = g - c_silent;
        for (unsigned int i = 0; i < numChannels; ++i) {
            AlsaChannel& channel = m_output->getChannel(i);
            channel.setSample(f, channel.getSample(f) * factor);
        }
        g = g * multiplier;
        if (!fadingUp && !(g.toFloat() > target.toFloat())) {
            if (target == c_silent)
                silenceFrom(f, frames, numChannels);
            storeGain(target);
            return;
        }
        if (fadingUp && g.toFloat() >= target.toFloat()) {
            storeGain(target);
            return;
        }
    }
    storeGain(g);
}

} // namespace Zelmar
