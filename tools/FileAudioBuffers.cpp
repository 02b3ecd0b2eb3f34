#include "tools/FileAudioBuffers.h"

#include <cstring>
#include <vector>

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

void FileAudioBuffers::holdFrame(unsigned int frame, unsigned int frames)
{
    for (auto& channel : m_channels) {
        unsigned int const width = channel.getBytesPerSample();
        std::vector<uint8_t> const held(channel.bytes() + size_t(frame) * width,
                                        channel.bytes() + size_t(frame + 1) * width);
        for (unsigned int f = 0; f < frames; ++f)
            std::memcpy(channel.bytes() + size_t(f) * width, held.data(), width);
    }
    setNumFrames(frames);
}

namespace {

// A sample width known at compile time turns each copy into one or two moves instead of a call.
template <unsigned int Width>
void interleaveChannel(uint8_t* out, uint8_t const* in, size_t frameBytes, unsigned int frames)
{
    for (unsigned int f = 0; f < frames; ++f)
        std::memcpy(out + f * frameBytes, in + size_t(f) * Width, Width);
}

// A stereo pair in one pass, which writes the output in order and vectorises.
template <unsigned int Width>
void interleavePair(uint8_t* out, uint8_t const* left, uint8_t const* right, unsigned int frames)
{
    for (unsigned int f = 0; f < frames; ++f) {
        std::memcpy(out + 2 * Width * size_t(f), left + size_t(f) * Width, Width);
        std::memcpy(out + 2 * Width * size_t(f) + Width, right + size_t(f) * Width, Width);
    }
}

} // namespace

void FileAudioBuffers::interleave(uint8_t* out, unsigned int frames) const
{
    unsigned int const width = getBytesPerSample();
    if (m_channels.size() == 2 && width == 4)
        return interleavePair<4>(out, m_channels[0].bytes(), m_channels[1].bytes(), frames);
    if (m_channels.size() == 2 && width == 2)
        return interleavePair<2>(out, m_channels[0].bytes(), m_channels[1].bytes(), frames);
    size_t const frameBytes = size_t(width) * m_channels.size();
    for (size_t c = 0; c < m_channels.size(); ++c) {
        uint8_t const* in = m_channels[c].bytes();
        uint8_t* first = out + c * width;
        switch (width) {
        case 2:
            interleaveChannel<2>(first, in, frameBytes, frames);
            break;
        case 3:
            interleaveChannel<3>(first, in, frameBytes, frames);
            break;
        case 4:
            interleaveChannel<4>(first, in, frameBytes, frames);
            break;
        default:
            for (unsigned int f = 0; f < frames; ++f)
                std::memcpy(first + f * frameBytes, in + size_t(f) * width, width);
        }
    }
}

} // namespace Host
} // namespace Zelmar
