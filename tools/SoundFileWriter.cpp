#include "tools/SoundFileWriter.h"

#include "tools/ToolError.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <glib.h>
#include <glib/gstdio.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Zelmar {
namespace Host {

namespace {

// Writes cover about this many bytes, whatever the period.
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
    : m_path(path), m_temporaryPath(path + ".XXXXXX"),
      m_periodBytes(size_t(maxPeriodFrames) * numChannels * FileAudioChannel::bytesPerSample(format))
{
    m_interleaved.resize(std::max(c_writeBytes / m_periodBytes, size_t(1)) * m_periodBytes);
    int const fd = g_mkstemp(&m_temporaryPath[0]);
    if (fd < 0) {
        m_temporaryPath.clear();
        throw ToolError(ToolError::c_ioFailure, "cannot write output " + path + ": " + std::strerror(errno));
    }
    // mkstemp makes the file private; a result file gets the permissions any new file would get.
    mode_t const mask = umask(0);
    umask(mask);
    fchmod(fd, 0666 & ~mask);

    SF_INFO info{};
    info.samplerate = int(sampleRate);
    info.channels = int(numChannels);
    info.format = SF_FORMAT_WAV | wavSubtype(format);
    m_file = sf_open_fd(fd, SFM_WRITE, &info, SF_TRUE);
    if (!m_file) {
        close(fd);
        fail(sf_strerror(nullptr));
    }
}

SoundFileWriter::~SoundFileWriter()
{
    if (m_file)
        sf_close(m_file);
    if (!m_committed && !m_temporaryPath.empty())
        g_unlink(m_temporaryPath.c_str());
}

void SoundFileWriter::fail(std::string const& what)
{
    throw ToolError(ToolError::c_ioFailure, "cannot write output " + m_path + ": " + what);
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
        fail(sf_strerror(m_file));
}

void SoundFileWriter::commit()
{
    flush();
    int const closed = sf_close(m_file);
    m_file = nullptr;
    if (closed != 0)
        fail(sf_error_number(closed));
    if (g_rename(m_temporaryPath.c_str(), m_path.c_str()) != 0)
        fail(std::strerror(errno));
    m_committed = true;
}

} // namespace Host
} // namespace Zelmar
