#include "tools/FileAudioChannel.h"

#include "base/Assert.h"
#include "dsp/FormatConversion.h"

namespace Zelmar {
namespace Host {

namespace {

// By the conversion's own rule: rounded to the format's last bit first, then outside [-1.0, 1.0).
unsigned int countClipped(snd_pcm_format_t format, tSample const* samples, unsigned int count)
{
    int64_t const rounding = format == SND_PCM_FORMAT_S16_LE    ? 2048
                             : format == SND_PCM_FORMAT_S24_3LE ? 8
                                                                : 0;
    int64_t const one = int64_t(1) << 27;
    unsigned int clipped = 0;
    for (unsigned int i = 0; i < count; ++i) {
        int64_t const rounded = int64_t(samples[i].getRaw()) + rounding;
        clipped += rounded >= one || rounded < -one;
    }
    return clipped;
}

} // namespace

FileAudioChannel::FileAudioChannel(snd_pcm_format_t format, unsigned int capacityFrames)
    : m_format(format), m_bytesPerSample(bytesPerSample(format)), m_bytes(capacityFrames * m_bytesPerSample)
{
}

unsigned int FileAudioChannel::bytesPerSample(snd_pcm_format_t format)
{
    switch (format) {
    case SND_PCM_FORMAT_S16_LE:
        return 2;
    case SND_PCM_FORMAT_S24_3LE:
        return 3;
    case SND_PCM_FORMAT_S32_LE:
        return 4;
    default:
        ZELMAR_UNREACHABLE();
    }
}

void FileAudioChannel::setSample(unsigned int frame, tSample const& value)
{
    FormatConversion::convertTo(m_format, &value, &m_bytes[frame * m_bytesPerSample], 1);
}

tSample FileAudioChannel::getSample(unsigned int frame)
{
    tSample value;
    FormatConversion::convertFrom(m_format, &m_bytes[frame * m_bytesPerSample], &value, 1);
    return value;
}

void FileAudioChannel::read(tSample* destination)
{
    FormatConversion::convertFrom(m_format, m_bytes.data(), destination, m_numFrames);
}

void FileAudioChannel::write(tSample const* source, unsigned int numFrames)
{
    ZELMAR_ASSERT(numFrames * m_bytesPerSample <= m_bytes.size());
    FormatConversion::convertTo(m_format, source, m_bytes.data(), numFrames);
    m_clippedSamples += countClipped(m_format, source, numFrames);
    m_numFrames = numFrames;
}

} // namespace Host
} // namespace Zelmar
