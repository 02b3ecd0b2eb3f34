#pragma once

#include "dsp/AlsaAudioBuffersWrapperBase.h"
#include "dsp/Chain.h"

#include <vector>

namespace Zelmar {

// Host period buffers held in memory, one vector of samples per channel and no PCM format in between:
// for a host that makes or takes the samples itself (an offline renderer, a test, an example). Handed
// to InputStage::setInput and OutputStage::setOutput as a sound card's wrapper would be.
class MemoryAlsaBuffers : public AlsaAudioBuffersWrapperBase
{
public:
    class Channel final : public AlsaChannel
    {
    public:
        void setSample(unsigned int frame, tSample const& value) override { samples[frame] = value; }
        tSample getSample(unsigned int frame) override { return samples[frame]; }
        void read(tSample* destination) override
        {
            for (unsigned int f = 0; f < m_numFrames; ++f)
                destination[f] = samples[f];
        }
        // Also records how many frames the chain delivered.
        void write(tSample const* source, unsigned int numFrames) override
        {
            for (unsigned int f = 0; f < numFrames; ++f)
                samples[f] = source[f];
            m_numFrames = numFrames;
        }

        // Capture side: the next period, at most Chain::getMaxNumFramesPerProcessCall() frames.
        void setPeriod(std::vector<tSample> const& period)
        {
            samples = period;
            m_numFrames = static_cast<uint32_t>(period.size());
        }

        std::vector<tSample> samples = std::vector<tSample>(Chain::getMaxNumFramesPerProcessCall());
    };

    explicit MemoryAlsaBuffers(unsigned int numChannels) : m_channels(numChannels) {}
    Channel& getChannel(unsigned int index) override { return m_channels[index]; }
    unsigned int getNumChannels() const { return static_cast<unsigned int>(m_channels.size()); }

private:
    std::vector<Channel> m_channels;
};

} // namespace Zelmar
