#include "tools/SoundFileReader.h"

#include "tools/ToolError.h"

#include <algorithm>

namespace Zelmar {
namespace Host {

SoundFileReader::SoundFileReader(std::string const& path, unsigned int maxPeriodFrames) : m_path(path)
{
    m_file = sf_open(path.c_str(), SFM_READ, &m_info);
    if (!m_file)
        throw ToolError(ToolError::c_ioFailure, "cannot read input " + path + ": " + sf_strerror(nullptr));
    // Without this, floating-point files would be truncated to integers instead of scaled to full range.
    sf_command(m_file, SFC_SET_SCALE_FLOAT_INT_READ, nullptr, SF_TRUE);
    m_interleaved.resize(size_t(maxPeriodFrames) * unsigned(m_info.channels));
}

SoundFileReader::~SoundFileReader()
{
    sf_close(m_file);
}

unsigned int SoundFileReader::readPeriod(FileAudioBuffers& capture, unsigned int frames)
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
    capture.setNumFrames(read);
    return read;
}

} // namespace Host
} // namespace Zelmar
