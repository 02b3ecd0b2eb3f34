#include "tools/SoundFileReader.h"

#include "tools/ToolError.h"
#include "tools/ToolLog.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <sstream>

namespace Zelmar {
namespace Host {

namespace {

// Raw reads cover this many bytes at least, whatever the period.
constexpr size_t c_rawReadBytes = 256 * 1024;

// The sample width of little-endian integer PCM in a WAV file, or 0.
unsigned int rawBytesPerSample(int format)
{
    int const container = format & SF_FORMAT_TYPEMASK;
    if ((container != SF_FORMAT_WAV && container != SF_FORMAT_WAVEX) ||
        (format & SF_FORMAT_ENDMASK) == SF_ENDIAN_BIG)
        return 0;
    switch (format & SF_FORMAT_SUBMASK) {
    case SF_FORMAT_PCM_16:
        return 2;
    case SF_FORMAT_PCM_24:
        return 3;
    case SF_FORMAT_PCM_32:
        return 4;
    default:
        return 0;
    }
}

// One channel of little-endian PCM samples, Width bytes each, frameBytes apart, left-justified into
// S32_LE words as libsndfile would deliver them. The targets are little-endian, so samples are moved
// as native words. A frame size known at compile time (Channels) lets the loop vectorise; 0 takes
// frameBytes.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "PCM words are moved as native words");

template <unsigned int Width, unsigned int Channels>
void leftJustify(uint8_t const* in, size_t frameBytes, uint8_t* out, unsigned int frames)
{
    size_t const stride = Channels ? size_t(Channels) * Width : frameBytes;
    for (unsigned int f = 0; f < frames; ++f) {
        uint32_t word = 0;
        std::memcpy(reinterpret_cast<uint8_t*>(&word) + 4 - Width, in + f * stride, Width);
        std::memcpy(out + 4 * size_t(f), &word, 4);
    }
}

template <unsigned int Width>
void leftJustify(uint8_t const* in, unsigned int fileChannels, uint8_t* out, unsigned int frames)
{
    if (fileChannels == 2)
        leftJustify<Width, 2>(in, 0, out, frames);
    else
        leftJustify<Width, 0>(in, size_t(Width) * fileChannels, out, frames);
}

// The frames a WAV header declares, from libsndfile's log, which notes the declared data size when
// the file holds less ("data : 288000 (should be 143978)") and the bytes per frame ("Block Align : 6").
// 0 when the log has no such note.
long long declaredFrames(SNDFILE* file)
{
    char log[4096] = {};
    sf_command(file, SFC_GET_LOG_INFO, log, sizeof log);
    long long declaredBytes = 0, heldBytes = 0;
    int blockAlign = 0;
    bool noted = false;
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        noted = noted ||
                std::sscanf(line.c_str(), "data : %lld (should be %lld)", &declaredBytes, &heldBytes) == 2;
        std::sscanf(line.c_str(), " Block Align : %d", &blockAlign);
    }
    return noted && blockAlign > 0 ? declaredBytes / blockAlign : 0;
}

} // namespace

SoundFileReader::SoundFileReader(std::string const& path, unsigned int maxPeriodFrames) : m_path(path)
{
    m_file = sf_open(path.c_str(), SFM_READ, &m_info);
    if (!m_file)
        throw ToolError(ToolError::c_ioFailure, "cannot read input " + path + ": " + sf_strerror(nullptr));
    warnOfMissingFrames();
    m_rawBytesPerSample = rawBytesPerSample(m_info.format);
    if (m_rawBytesPerSample) {
        size_t const frameBytes = size_t(m_rawBytesPerSample) * unsigned(m_info.channels);
        m_raw.resize(std::max(c_rawReadBytes / frameBytes, size_t(2) * maxPeriodFrames) * frameBytes);
        return;
    }
    // Without this, floating-point files would be truncated to integers instead of scaled to full range.
    // It reads the whole file once to find its peak, which raw reads have no use for.
    sf_command(m_file, SFC_SET_SCALE_FLOAT_INT_READ, nullptr, SF_TRUE);
    m_interleaved.resize(size_t(maxPeriodFrames) * unsigned(m_info.channels));
}

void SoundFileReader::warnOfMissingFrames()
{
    int const container = m_info.format & SF_FORMAT_TYPEMASK;
    long long const promised =
        container == SF_FORMAT_WAV || container == SF_FORMAT_WAVEX ? declaredFrames(m_file) : 0;
    if (promised > m_info.frames)
        ToolLog::warn("input " + m_path + ": its header promises " + std::to_string(promised) +
                      " frames, but the file holds " + std::to_string(m_info.frames) +
                      "; going on with those");
    else if (m_info.frames == 0)
        ToolLog::warn("input " + m_path + " holds no audio frames, only a header");
}

SoundFileReader::~SoundFileReader()
{
    sf_close(m_file);
}

unsigned int SoundFileReader::readPeriod(FileAudioBuffers& capture, unsigned int frames)
{
    unsigned int const read = m_rawBytesPerSample ? readRaw(capture, frames) : readConverted(capture, frames);
    capture.setNumFrames(read);
    return read;
}

unsigned int SoundFileReader::readConverted(FileAudioBuffers& capture, unsigned int frames)
{
    auto const read = static_cast<unsigned int>(sf_readf_int(m_file, m_interleaved.data(), frames));
    if (read == 0 && sf_error(m_file) != SF_ERR_NO_ERROR)
        throw ToolError(ToolError::c_ioFailure, "cannot read input " + m_path + ": " + sf_strerror(m_file));
    unsigned int const fileChannels = unsigned(m_info.channels);
    for (unsigned int c = 0; c < capture.getNumChannels(); ++c) {
        unsigned int const source = std::min(c, fileChannels - 1);
        uint8_t* out = capture.getChannel(c).bytes();
        // libsndfile delivers every depth left-justified in 32 bits: exactly S32_LE.
        for (unsigned int f = 0; f < read; ++f) {
            auto const word = uint32_t(m_interleaved[size_t(f) * fileChannels + source]);
            for (unsigned int b = 0; b < 4; ++b)
                out[4 * f + b] = uint8_t(word >> (8 * b));
        }
    }
    return read;
}

unsigned int SoundFileReader::readRaw(FileAudioBuffers& capture, unsigned int frames)
{
    unsigned int const fileChannels = unsigned(m_info.channels);
    unsigned int const width = m_rawBytesPerSample;
    size_t const frameBytes = size_t(width) * fileChannels;
    if (m_rawEnd - m_rawBegin < frames * frameBytes) {
        // Keep the unread rest, then fill the buffer up in whole frames.
        std::copy(m_raw.begin() + std::ptrdiff_t(m_rawBegin), m_raw.begin() + std::ptrdiff_t(m_rawEnd),
                  m_raw.begin());
        m_rawEnd -= m_rawBegin;
        m_rawBegin = 0;
        size_t const wanted = (m_raw.size() - m_rawEnd) / frameBytes * frameBytes;
        sf_count_t const got = sf_read_raw(m_file, m_raw.data() + m_rawEnd, sf_count_t(wanted));
        if (got <= 0 && sf_error(m_file) != SF_ERR_NO_ERROR)
            throw ToolError(ToolError::c_ioFailure,
                            "cannot read input " + m_path + ": " + sf_strerror(m_file));
        if (got > 0)
            m_rawEnd += size_t(got) / frameBytes * frameBytes;
    }
    auto const read =
        static_cast<unsigned int>(std::min(size_t(frames), (m_rawEnd - m_rawBegin) / frameBytes));
    uint8_t const* in = m_raw.data() + m_rawBegin;
    for (unsigned int c = 0; c < capture.getNumChannels(); ++c) {
        unsigned int const source = std::min(c, fileChannels - 1);
        uint8_t* out = capture.getChannel(c).bytes();
        uint8_t const* first = in + source * width;
        if (width == 2)
            leftJustify<2>(first, fileChannels, out, read);
        else if (width == 3)
            leftJustify<3>(first, fileChannels, out, read);
        else
            leftJustify<4>(first, fileChannels, out, read);
    }
    m_rawBegin += read * frameBytes;
    return read;
}

} // namespace Host
} // namespace Zelmar
