#pragma once

#include "tools/FileAudioBuffers.h"
#include "tools/PendingFile.h"

#include <sndfile.h>
#include <string>
#include <vector>

namespace Zelmar {
namespace Host {

// A WAV file written under a temporary name beside its destination and renamed by commit(), so a
// failed run never leaves a partial file where the user expects a result.
class SoundFileWriter
{
public:
    SoundFileWriter(std::string const& path, snd_pcm_format_t format, unsigned int numChannels,
                    unsigned int sampleRate, unsigned int maxPeriodFrames);
    ~SoundFileWriter();

    SoundFileWriter(SoundFileWriter const&) = delete;
    SoundFileWriter& operator=(SoundFileWriter const&) = delete;

    void writePeriod(FileAudioBuffers const& playback, unsigned int frames);
    void commit();

    sf_count_t getNumFramesWritten() const { return m_framesWritten; }

private:
    void flush();

    PendingFile m_pending;
    SNDFILE* m_file = nullptr;
    // Several periods are collected before each write: one write call per period costs more than
    // the copy.
    std::vector<uint8_t> m_interleaved;
    size_t m_pendingBytes = 0;
    size_t m_periodBytes = 0;
    sf_count_t m_framesWritten = 0;
};

} // namespace Host
} // namespace Zelmar
