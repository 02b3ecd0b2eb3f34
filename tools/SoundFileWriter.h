#pragma once

#include "tools/FileAudioBuffers.h"
#include "tools/FlacStreamWriter.h"
#include "tools/PendingFile.h"

#include <memory>
#include <sndfile.h>
#include <string>
#include <vector>

namespace Zelmar {
namespace Host {

// A WAV, FLAC, AIFF or CAF file written under a temporary name beside its destination and renamed by
// commit(), so a failed run never leaves a partial file where the user expects a result; or written to
// a descriptor as it is made (standard output): any type into a file, only FLAC into a pipe.
class SoundFileWriter
{
public:
    struct Format
    {
        int container; // SF_FORMAT_WAV, SF_FORMAT_FLAC, SF_FORMAT_AIFF or SF_FORMAT_CAF
        snd_pcm_format_t samples;
        unsigned int numChannels;
        unsigned int sampleRate;
    };

    // The container `type` names (wav, flac, aiff, caf), or else the path's extension (.aif too);
    // 0 when neither names one. The path "-" stands for standard output and has no extension.
    static int containerFor(std::string const& path, std::string const& type);
    static char const* describeContainer(int container);

    SoundFileWriter(std::string const& path, Format const& format, unsigned int maxPeriodFrames);
    // Writes to `fd`, which it closes; throws ToolError when the container cannot be streamed there.
    SoundFileWriter(int fd, Format const& format, unsigned int maxPeriodFrames);
    ~SoundFileWriter();

    SoundFileWriter(SoundFileWriter const&) = delete;
    SoundFileWriter& operator=(SoundFileWriter const&) = delete;

    void writePeriod(FileAudioBuffers const& playback, unsigned int frames);
    void commit();

    sf_count_t getNumFramesWritten() const { return m_framesWritten; }

private:
    SoundFileWriter(Format const& format, unsigned int maxPeriodFrames);
    void open(int fd, Format const& format);
    void flush();
    void toWords(size_t samples, unsigned int shift);
    [[noreturn]] void fail(std::string const& what) const;

    std::unique_ptr<PendingFile> m_pending;
    // One of the two.
    SNDFILE* m_file = nullptr;
    std::unique_ptr<FlacStreamWriter> m_stream;
    unsigned int m_bytesPerSample;
    unsigned int m_numChannels;
    // WAV takes the packed little-endian samples as they are; other containers take 32-bit words,
    // libsndfile left-justified, libFLAC the samples' values.
    bool m_raw;
    // Several periods are collected before each write: one write call per period costs more than
    // the copy.
    std::vector<uint8_t> m_interleaved;
    std::vector<int32_t> m_words;
    size_t m_pendingBytes = 0;
    size_t m_periodBytes = 0;
    sf_count_t m_framesWritten = 0;
};

} // namespace Host
} // namespace Zelmar
