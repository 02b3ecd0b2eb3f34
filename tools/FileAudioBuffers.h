#pragma once

#include "tools/FileAudioChannel.h"

#include <vector>

namespace Zelmar {
namespace Host {

// The offline host's stand-in for a sound card's period buffers: channels of one PCM format.
class FileAudioBuffers : public AlsaAudioBuffersWrapperBase
{
public:
    FileAudioBuffers(snd_pcm_format_t format, unsigned int numChannels, unsigned int capacityFrames);

    FileAudioChannel& getChannel(unsigned int index) override { return m_channels[index]; }
    unsigned int getNumChannels() const { return static_cast<unsigned int>(m_channels.size()); }
    unsigned int getBytesPerSample() const { return m_channels.front().getBytesPerSample(); }

    // Capture side: the period the chain will read.
    void setNumFrames(unsigned int frames);
    // Capture side: a period of `frames` copies of frame `frame` of the period before.
    void holdFrame(unsigned int frame, unsigned int frames);

    // Packs channel c's first `frames` samples into every numChannels'th sample of `out`.
    void interleave(uint8_t* out, unsigned int frames) const;

private:
    std::vector<FileAudioChannel> m_channels;
};

} // namespace Host
} // namespace Zelmar
