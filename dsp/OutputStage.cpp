#include "dsp/OutputStage.h"

#include "dsp/IllegalArgumentException.h"

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
    m_interleavePattern.clear();
    // One digit per channel, deliberately: at most ten input ports can be addressed.
    Tools::String const pattern = parameters.getString("interleave-pattern");
    for (char const digit : pattern.str())
        m_interleavePattern.push_back(std::stoi(std::string(1, digit)));
    calcGainChangeIncrements(sampleRate);
}

void OutputStage::validateParameters(Parameters const& parameters, unsigned int) const
{
    // The pattern's length is the port count, fixed once the chain is compiled; each digit picks the
    // input port of one channel, which the audio thread does not check again.
    Tools::String const pattern = parameters.getString("interleave-pattern");
    std::size_t const ports = m_ins.empty() ? pattern.str().size() : m_ins.size();
    bool valid = pattern.str().size() == ports;
    for (char const digit : pattern.str())
        valid = valid && static_cast<std::size_t>(std::stoi(std::string(1, digit))) < ports;
    if (!valid)
        throw IllegalArgumentException("interleave-pattern of module %0 does not fit its %1 input ports: %2",
                                       getID(), ports, pattern);
}

void OutputStage::calcGainChangeIncrements(unsigned int sampleRate)
{
    auto const steps = static_cast<unsigned int>(static_cast<float>(sampleRate) / 10.0);
    double const e = static_cast<double>(1.0f / static_cast<float>(steps));
    m_gainDecrement = tSample(static_cast<float>(std::pow(0.5, e)));
    m_gainIncrement = tSample(static_cast<float>(std::pow(2.0, e)));
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
    unsigned int const numChannels = getNumInPorts();
    if (numChannels == 0)
        return;
    unsigned int const frames = inBuffer(0).getNumSampleFrames();
    for (unsigned int i = 0; i < numChannels; ++i)
        m_output->getChannel(i).write(inBuffer(static_cast<unsigned int>(m_interleavePattern[i])).getRawData(), frames);
    renderGain();
}

void OutputStage::silenceFrom(unsigned int firstFrame, unsigned int frames, unsigned int numChannels)
{
    for (unsigned int i = 0; i < numChannels; ++i) {
        AlsaChannel& channel = m_output->getChannel(i);
        for (unsigned int f = firstFrame; f < frames; ++f)
            channel.setSample(f, tSample::s_Zero);
    }
}

void OutputStage::renderGain()
{
    unsigned int const numChannels = getNumInPorts();
    unsigned int const frames = inBuffer(0).getNumSampleFrames();
    tSample const target = getTargetGain();
    tSample g = m_gain;

    if (g == target) {
        if (target == c_silent)
            silenceFrom(0, frames, numChannels);
        return;
    }

    bool const fadingUp = (target - g) >= tSample::s_Zero;
    tSample const multiplier = fadingUp ? m_gainIncrement : m_gainDecrement;
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
            m_gain = target;
            return;
        }
        if (fadingUp && g.toFloat() >= target.toFloat()) {
            m_gain = target;
            return;
        }
    }
    m_gain = g;
}

} // namespace Zelmar
