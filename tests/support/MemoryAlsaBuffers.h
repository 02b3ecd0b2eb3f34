#pragma once

#include "dsp/AlsaAudioBuffersWrapperBase.h"
#include "dsp/Chain.h"
#include "dsp/InputStage.h"
#include "dsp/OutputStage.h"

#include <memory>

#include <vector>

namespace Zelmar {
namespace Testing {

// Host period buffers held in memory, one sample vector per channel, for driving stages in tests.
class MemoryAlsaChannel final : public AlsaChannel
{
public:
    void setSample(unsigned int frame, tSample const& value) override { samples[frame] = value; }
    tSample getSample(unsigned int frame) override { return samples[frame]; }
    void read(tSample* destination) override
    {
        for (unsigned int f = 0; f < m_numFrames; ++f)
            destination[f] = samples[f];
    }
    void write(tSample const* source, unsigned int numFrames) override
    {
        for (unsigned int f = 0; f < numFrames; ++f)
            samples[f] = source[f];
    }

    void setPeriod(std::vector<tSample> const& period)
    {
        samples = period;
        m_numFrames = static_cast<uint32_t>(period.size());
    }

    std::vector<tSample> samples = std::vector<tSample>(1280);
};

class MemoryAlsaBuffers : public AlsaAudioBuffersWrapperBase
{
public:
    explicit MemoryAlsaBuffers(unsigned int numChannels) : m_channels(numChannels) {}
    MemoryAlsaChannel& getChannel(unsigned int index) override { return m_channels[index]; }

private:
    std::vector<MemoryAlsaChannel> m_channels;
};

// Hands the buffers to every input and output stage of a chain, as a host does; returns the output stage.
inline std::shared_ptr<OutputStage> attachHostBuffers(Chain const& chain, MemoryAlsaBuffers& capture,
                                                      MemoryAlsaBuffers& playback)
{
    std::shared_ptr<OutputStage> output;
    for (auto const& module : chain.getModules()) {
        if (auto input = std::dynamic_pointer_cast<InputStage>(module))
            input->setInput(&capture);
        if (auto stage = std::dynamic_pointer_cast<OutputStage>(module)) {
            stage->setOutput(&playback);
            output = stage;
        }
    }
    return output;
}

} // namespace Testing
} // namespace Zelmar
