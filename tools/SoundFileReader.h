#pragma once

#include "tools/FileAudioBuffers.h"

#include <cstdint>
#include <sndfile.h>
#include <string>
#include <vector>

namespace Zelmar {
namespace Host {

// Any file libsndfile reads, delivered period by period to a two-channel S32_LE capture buffer.
// A mono file feeds both channels. A WAV file whose data ends before its header says, or that holds
// no frames at all, is read with a warning.
class SoundFileReader
{
public:
    SoundFileReader(std::string const& path, unsigned int maxPeriodFrames);
    ~SoundFileReader();

    SoundFileReader(SoundFileReader const&) = delete;
    SoundFileReader& operator=(SoundFileReader const&) = delete;

    unsigned int getSampleRate() const { return static_cast<unsigned int>(m_info.samplerate); }
    sf_count_t getNumFrames() const { return m_info.frames; }
    unsigned int getNumChannels() const { return static_cast<unsigned int>(m_info.channels); }
    // The sample encoding, such as SF_FORMAT_PCM_16 or SF_FORMAT_FLOAT.
    int getSubtype() const { return m_info.format & SF_FORMAT_SUBMASK; }

    // Fills up to `frames` frames and sets the capture period to what was read; 0 at the end.
    unsigned int readPeriod(FileAudioBuffers& capture, unsigned int frames);

private:
    void warnOfMissingFrames();
    unsigned int readConverted(FileAudioBuffers& capture, unsigned int frames);
    unsigned int readRaw(FileAudioBuffers& capture, unsigned int frames);

    std::string m_path;
    SF_INFO m_info{};
    SNDFILE* m_file = nullptr;
    std::vector<int32_t> m_interleaved;
    // Little-endian integer PCM is read as raw bytes, many periods at a time: one read call instead of
    // several per period, and no conversion by libsndfile. 0 for files that need libsndfile's.
    unsigned int m_rawBytesPerSample = 0;
    std::vector<uint8_t> m_raw;
    size_t m_rawBegin = 0, m_rawEnd = 0;
};

} // namespace Host
} // namespace Zelmar
