#include "tools/AlsaPeriodBuffers.h"

#include <cstring>

namespace Zelmar {
namespace Host {

namespace {

uint8_t* sampleAt(snd_pcm_channel_area_t const& area, snd_pcm_uframes_t frame)
{
    return static_cast<uint8_t*>(area.addr) + (area.first + frame * area.step) / 8;
}

// A width known at compile time turns each sample's copy into a move instead of a call.
template <unsigned int Width>
void gather(snd_pcm_channel_area_t const& area, snd_pcm_uframes_t offset, uint8_t* packed,
            unsigned int frames)
{
    for (unsigned int f = 0; f < frames; ++f)
        std::memcpy(packed + f * Width, sampleAt(area, offset + f), Width);
}

template <unsigned int Width>
void scatter(uint8_t const* packed, snd_pcm_channel_area_t const& area, snd_pcm_uframes_t offset,
             unsigned int frames)
{
    for (unsigned int f = 0; f < frames; ++f)
        std::memcpy(sampleAt(area, offset + f), packed + f * Width, Width);
}

// S24_LE words carry the sample sign-extended into their top byte.
void widen24(uint8_t const* packed, snd_pcm_channel_area_t const& area, snd_pcm_uframes_t offset,
             unsigned int frames)
{
    for (unsigned int f = 0; f < frames; ++f) {
        uint8_t* word = sampleAt(area, offset + f);
        std::memcpy(word, packed + 3 * f, 3);
        word[3] = (word[2] & 0x80) ? 0xFF : 0x00;
    }
}

void gatherChannel(snd_pcm_channel_area_t const& area, snd_pcm_uframes_t offset, uint8_t* packed,
                   unsigned int packedWidth, unsigned int frames)
{
    switch (packedWidth) {
    case 2:
        return gather<2>(area, offset, packed, frames);
    case 3:
        // From a 4-byte S24_LE word the packed sample is its low three bytes, as from S24_3LE.
        return gather<3>(area, offset, packed, frames);
    default:
        return gather<4>(area, offset, packed, frames);
    }
}

void scatterChannel(uint8_t const* packed, unsigned int packedWidth, unsigned int deviceWidth,
                    snd_pcm_channel_area_t const& area, snd_pcm_uframes_t offset, unsigned int frames)
{
    if (deviceWidth != packedWidth)
        return widen24(packed, area, offset, frames);
    switch (packedWidth) {
    case 2:
        return scatter<2>(packed, area, offset, frames);
    case 3:
        return scatter<3>(packed, area, offset, frames);
    default:
        return scatter<4>(packed, area, offset, frames);
    }
}

} // namespace

AlsaPeriodBuffers::AlsaPeriodBuffers(snd_pcm_format_t format, unsigned int deviceSampleBytes,
                                     unsigned int numChannels, unsigned int capacityFrames)
    : m_channels(numChannels, FileAudioChannel(format, capacityFrames)),
      m_deviceSampleBytes(deviceSampleBytes)
{
}

void AlsaPeriodBuffers::setNumFrames(unsigned int frames)
{
    for (auto& channel : m_channels)
        channel.m_numFrames = frames;
}

uint64_t AlsaPeriodBuffers::getClippedSamples() const
{
    uint64_t clipped = 0;
    for (auto const& channel : m_channels)
        clipped += channel.getClippedSamples();
    return clipped;
}

void AlsaPeriodBuffers::fromDevice(snd_pcm_channel_area_t const* areas, snd_pcm_uframes_t offset,
                                   unsigned int first, unsigned int frames)
{
    for (size_t c = 0; c < m_channels.size(); ++c) {
        unsigned int const width = m_channels[c].getBytesPerSample();
        gatherChannel(areas[c], offset, m_channels[c].bytes() + first * width, width, frames);
    }
}

void AlsaPeriodBuffers::toDevice(snd_pcm_channel_area_t const* areas, snd_pcm_uframes_t offset,
                                 unsigned int first, unsigned int frames) const
{
    for (size_t c = 0; c < m_channels.size(); ++c) {
        unsigned int const width = m_channels[c].getBytesPerSample();
        scatterChannel(m_channels[c].bytes() + first * width, width, m_deviceSampleBytes, areas[c], offset,
                       frames);
    }
}

} // namespace Host
} // namespace Zelmar
