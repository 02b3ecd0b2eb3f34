#pragma once

#include "tools/FileAudioChannel.h"

#include <alsa/asoundlib.h>
#include <vector>

namespace Zelmar {
namespace Host {

// A live host's period buffers: one packed channel per device channel, in the format the library
// converts (S16_LE, S24_3LE or S32_LE), copied from and to a device's channel areas (mmap or the
// host's own interleaved buffer). A device sample may be wider than the packed one: S24_LE holds the
// packed 24 bits in the low bytes of a 32-bit word.
class AlsaPeriodBuffers : public AlsaAudioBuffersWrapperBase
{
public:
    AlsaPeriodBuffers(snd_pcm_format_t format, unsigned int deviceSampleBytes, unsigned int numChannels,
                      unsigned int capacityFrames);

    FileAudioChannel& getChannel(unsigned int index) override { return m_channels[index]; }
    unsigned int getNumChannels() const { return static_cast<unsigned int>(m_channels.size()); }
    unsigned int getNumFrames() const { return m_channels.front().getNumFrames(); }
    void setNumFrames(unsigned int frames);
    // Samples the chain delivered beyond the format's range, on all channels so far.
    uint64_t getClippedSamples() const;

    // Frames [first, first + frames) of the period from or to the device's frames at `offset`.
    void fromDevice(snd_pcm_channel_area_t const* areas, snd_pcm_uframes_t offset, unsigned int first,
                    unsigned int frames);
    void toDevice(snd_pcm_channel_area_t const* areas, snd_pcm_uframes_t offset, unsigned int first,
                  unsigned int frames) const;

private:
    std::vector<FileAudioChannel> m_channels;
    unsigned int m_deviceSampleBytes;
};

} // namespace Host
} // namespace Zelmar
