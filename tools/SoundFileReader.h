#pragma once

#include "tools/FileAudioBuffers.h"

#include <cstdint>
#include <sndfile.h>
#include <string>
#include <vector>

namespace Zelmar {
namespace Host {

// Any file libsndfile reads, delivered period by period to a two-channel S32_LE capture buffer.
// A mono file feeds both channels; of a file with more channels the first two are used.
class SoundFileReader
{
public:
    SoundFileReader(std::string const& path, unsigned int maxPeriodFrames);
    ~SoundFileReader();

    SoundFileReader(SoundFileReader const&) = delete;
    SoundFileReader& operator=(SoundFileReader const&) = delete;

    unsigned int getSampleRate() const { return static_cast<unsigned int>(m_info.samplerate); }
    sf_count_t getNumFrames() const { return m_info.frames; }
    // The sample encoding, such as SF_FORMAT_PCM_16 or SF_FORMAT_FLOAT.
    int getSubtype() const { return m_info.format & SF_FORMAT_SUBMASK; }

    // Fills up to `frames` frames and sets the capture period to what was read; 0 at the end.
    unsigned int readPeriod(FileAudioBuffers& capture, unsigned int frames);

private:
    std::string m_path;
    SF_INFO m_info{};
    SNDFILE* m_file = nullptr;
    std::vector<int32_t> m_interleaved;
};

} // namespace Host
} // namespace Zelmar
