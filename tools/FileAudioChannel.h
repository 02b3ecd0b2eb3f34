#pragma once

#include "dsp/AlsaAudioBuffersWrapperBase.h"

#include <alsa/asoundlib.h>
#include <cstdint>
#include <vector>

namespace Zelmar {
namespace Host {

// One channel of a period held as packed little-endian PCM, converted by the library's rules in both
// directions, as a sound card's buffer would be. write() also records the frames the chain delivered.
class FileAudioChannel : public AlsaChannel
{
public:
    FileAudioChannel(snd_pcm_format_t format, unsigned int capacityFrames);
    virtual ~FileAudioChannel() = default;

    void setSample(unsigned int frame, tSample const& value) override;
    tSample getSample(unsigned int frame) override;
    void read(tSample* destination) override;
    void write(tSample const* source, unsigned int numFrames) override;

    static unsigned int bytesPerSample(snd_pcm_format_t format);

    // Samples write() has clipped to the format's range so far.
    uint64_t getClippedSamples() const { return m_clippedSamples; }

    uint8_t* bytes() { return m_bytes.data(); }
    uint8_t const* bytes() const { return m_bytes.data(); }
    unsigned int getBytesPerSample() const { return m_bytesPerSample; }

private:
    snd_pcm_format_t m_format;
    unsigned int m_bytesPerSample;
    std::vector<uint8_t> m_bytes;
    uint64_t m_clippedSamples = 0;
};

} // namespace Host
} // namespace Zelmar
