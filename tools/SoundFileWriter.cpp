#include "tools/SoundFileWriter.h"

#include <algorithm>
#include <unistd.h>

namespace Zelmar {
namespace Host {

namespace {

constexpr size_t c_writeBytes = 256 * 1024;

int wavSubtype(snd_pcm_format_t format)
{
    switch (format) {
    case SND_PCM_FORMAT_S16_LE:
        return SF_FORMAT_PCM_16;
    case SND_PCM_FORMAT_S24_3LE:
        return SF_FORMAT_PCM_24;
    default:
        return SF_FORMAT_PCM_32;
    }
}

} // namespace

SoundFileWriter::SoundFileWriter(std::string const& path, snd_pcm_format_t format, unsigned int numChannels,
                                 unsigned int sampleRate, unsigned int maxPeriodFrames)
    : m_pending(path),
      m_periodBytes(size_t(maxPeriodFrames) * numChannels * FileAudioChannel::bytesPerSample(format))
{
    m_interleaved.resize(std::max(c_writeBytes / m_periodBytes, size_t(1)) * m_periodBytes);
    SF_INFO info{};
    info.samplerate = int(sampleRate);
    info.channels = int(numChannels);
    info.format = SF_FORMAT_WAV | wavSubtype(format);
    int const fd = m_pending.takeDescriptor();
    m_file = sf_open_fd(fd, SFM_WRITE, &info, SF_TRUE);
    if (!m_file) {
        close(fd);
        m_pending.fail(sf_strerror(nullptr));
    }
}

SoundFileWriter::~SoundFileWriter()
{
    if (m_file)
        sf_close(m_file);
}

void SoundFileWriter::writePeriod(FileAudioBuffers const& playback, unsigned int frames)
{
    if (m_interleaved.size() - m_pendingBytes < m_periodBytes)
        flush();
    // The packed little-endian samples are already the WAV data layout.
    playback.interleave(m_interleaved.data() + m_pendingBytes, frames);
    m_pendingBytes += size_t(frames) * playback.getNumChannels() * playback.getBytesPerSample();
    m_framesWritten += frames;
}

void SoundFileWriter::flush()
{
    auto const bytes = sf_count_t(m_pendingBytes);
    m_pendingBytes = 0;
    if (bytes && sf_write_raw(m_file, m_interleaved.data(), bytes) != bytes)
        m_pending.fail(sf_strerror(m_file));
}

void SoundFileWriter::commit()
{
    flush();
    int const closed = sf_close(m_file);
    m_file = nullptr;
    if (closed != 0)
        m_pending.fail(sf_error_number(closed));
    m_pending.commit();
}

} // namespace Host
} // namespace Zelmar
