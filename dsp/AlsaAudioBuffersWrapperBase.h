#pragma once

#include "dsp/Export.h"
#include "dsp/FixedPoint.h"

#include <cstdint>

namespace Zelmar {

// One channel of the host's ALSA period buffers; the host converts to and from its PCM format.
class ORVANDELDSP_EXPORT AlsaChannel
{
public:
    virtual void setSample(unsigned int frame, tSample const& value) = 0;
    virtual tSample getSample(unsigned int frame) = 0;
    // Capture side: converts the whole period into getNumFrames() samples.
    virtual void read(tSample* destination) = 0;
    // Playback side: converts numFrames samples into the period.
    virtual void write(tSample const* source, unsigned int numFrames) = 0;

    unsigned int getNumFrames() const { return m_numFrames; }

    // Frames of the current period, set by the host.
    uint32_t m_numFrames = 0;

protected:
    ~AlsaChannel() = default;
};

// The host's period buffers, handed to InputStage::setInput and OutputStage::setOutput.
// The wrapper owns its channels; they live as long as it does.
class ORVANDELDSP_EXPORT AlsaAudioBuffersWrapperBase
{
public:
    virtual ~AlsaAudioBuffersWrapperBase() = default;
    virtual AlsaChannel& getChannel(unsigned int index) = 0;
};

} // namespace Zelmar
