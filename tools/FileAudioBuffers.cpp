#include "tools/FileAudioBuffers.h"

#include <cstring>

namespace Zelmar {
namespace Host {

FileAudioBuffers::FileAudioBuffers(snd_pcm_format_t format, unsigned int numChannels,
                                   unsigned int capacityFrames)
    : m_channels(numChannels, FileAudioChannel(format, capacityFrames))
{
}

void FileAudioBuffers::setNumFrames(unsigned int frames)
{
    for (auto& channel : m_channels)
        channel.m_numFrames = frames;
}

void FileAudioBuffers::interleave(uint8_t* out, unsigned int frames) const
{
    unsigned int const width = getBytesPerSample();
    size_t const frameBytes = size_t(width) * m_channels.size();
    for (size_t c = 0; c < m_channels.size(); ++c) {
        uint8_t const* in = m_channels[c].bytes();
        for (unsigned int f = 0; f < frames; ++f)
            std::memcpy(out + f * frameBytes + c * width, in + size_t(f) * width, width);
    }
}

} // namespace Host
} // namespace Zelmar
