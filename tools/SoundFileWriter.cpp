#include "tools/SoundFileWriter.h"

#include "tools/ToolError.h"

#include <algorithm>
#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Zelmar {
namespace Host {

namespace {

constexpr size_t c_writeBytes = 256 * 1024;

struct Container
{
    char const* name;
    char const* description;
    int format;
};

constexpr Container c_containers[] = {{"wav", "WAV", SF_FORMAT_WAV},
                                      {"flac", "FLAC", SF_FORMAT_FLAC},
                                      {"aiff", "AIFF", SF_FORMAT_AIFF},
                                      {"aif", "AIFF", SF_FORMAT_AIFF},
                                      {"caf", "CAF", SF_FORMAT_CAF}};

int subtypeFor(snd_pcm_format_t format)
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

// A packed little-endian sample of `width` bytes, left-justified in 32 bits.
int32_t leftJustified(uint8_t const* sample, unsigned int width)
{
    uint32_t word = 0;
    for (unsigned int b = 0; b < width; ++b)
        word |= uint32_t(sample[b]) << (8 * (4 - width + b));
    return int32_t(word);
}

bool isRegularFile(int fd)
{
    struct stat status = {};
    return fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
}

} // namespace

int SoundFileWriter::containerFor(std::string const& path, std::string const& type)
{
    std::string name = type;
    if (name.empty() && path != "-") {
        size_t const dot = path.rfind('.');
        if (dot != std::string::npos && path.find('/', dot) == std::string::npos)
            name = path.substr(dot + 1);
    } else if (name.empty()) {
        name = "wav";
    }
    gchar* const lower = g_ascii_strdown(name.c_str(), -1);
    name = lower;
    g_free(lower);
    for (auto const& container : c_containers)
        if (name == container.name)
            return container.format;
    return 0;
}

char const* SoundFileWriter::describeContainer(int container)
{
    for (auto const& known : c_containers)
        if (known.format == container)
            return known.description;
    return "sound";
}

SoundFileWriter::SoundFileWriter(Format const& format, unsigned int maxPeriodFrames)
    : m_bytesPerSample(FileAudioChannel::bytesPerSample(format.samples)), m_numChannels(format.numChannels),
      m_raw(format.container == SF_FORMAT_WAV),
      m_periodBytes(size_t(maxPeriodFrames) * format.numChannels * m_bytesPerSample)
{
    m_interleaved.resize(std::max(c_writeBytes / m_periodBytes, size_t(1)) * m_periodBytes);
    if (!m_raw)
        m_words.resize(m_interleaved.size() / m_bytesPerSample);
}

SoundFileWriter::SoundFileWriter(std::string const& path, Format const& format, unsigned int maxPeriodFrames)
    : SoundFileWriter(format, maxPeriodFrames)
{
    m_pending = std::make_unique<PendingFile>(path);
    open(m_pending->takeDescriptor(), format);
}

SoundFileWriter::SoundFileWriter(int fd, Format const& format, unsigned int maxPeriodFrames)
    : SoundFileWriter(format, maxPeriodFrames)
{
    // libsndfile completes the header at the end, which only a file can take.
    if (isRegularFile(fd)) {
        open(fd, format);
        return;
    }
    if (format.container == SF_FORMAT_FLAC) {
        m_stream = std::make_unique<FlacStreamWriter>(fd, format.numChannels, 8 * m_bytesPerSample,
                                                      format.sampleRate);
        return;
    }
    close(fd);
    throw ToolError(ToolError::c_badInput, std::string(describeContainer(format.container)) +
                                               " cannot be streamed to standard output, which is not a file "
                                               "(use --type flac, or name an output file)");
}

SoundFileWriter::~SoundFileWriter()
{
    if (m_file)
        sf_close(m_file);
}

void SoundFileWriter::open(int fd, Format const& format)
{
    SF_INFO info{};
    info.samplerate = int(format.sampleRate);
    info.channels = int(format.numChannels);
    info.format = format.container | subtypeFor(format.samples);
    m_file = sf_open_fd(fd, SFM_WRITE, &info, SF_TRUE);
    if (!m_file) {
        close(fd);
        fail(sf_strerror(nullptr));
    }
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
    if (bytes == 0)
        return;
    if (m_raw) {
        if (sf_write_raw(m_file, m_interleaved.data(), bytes) != bytes)
            fail(sf_strerror(m_file));
        return;
    }
    sf_count_t const samples = bytes / m_bytesPerSample;
    if (m_stream) {
        toWords(size_t(samples), 32 - 8 * m_bytesPerSample);
        m_stream->write(m_words.data(), unsigned(samples / m_numChannels));
        return;
    }
    toWords(size_t(samples), 0);
    if (sf_write_int(m_file, m_words.data(), samples) != samples)
        fail(sf_strerror(m_file));
}

void SoundFileWriter::toWords(size_t samples, unsigned int shift)
{
    for (size_t i = 0; i < samples; ++i)
        m_words[i] = leftJustified(m_interleaved.data() + i * m_bytesPerSample, m_bytesPerSample) >> shift;
}

void SoundFileWriter::commit()
{
    flush();
    if (m_stream) {
        m_stream->finish();
        return;
    }
    int const closed = sf_close(m_file);
    m_file = nullptr;
    if (closed != 0)
        fail(sf_error_number(closed));
    if (m_pending)
        m_pending->commit();
}

void SoundFileWriter::fail(std::string const& what) const
{
    if (m_pending)
        m_pending->fail(what);
    throw ToolError(ToolError::c_ioFailure, "cannot write the output to standard output: " + what);
}

} // namespace Host
} // namespace Zelmar
