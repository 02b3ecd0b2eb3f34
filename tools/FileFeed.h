#pragma once

#include "dsp/OneWriterOneReaderRingBuffer.h"
#include "tools/FileAudioBuffers.h"
#include "tools/PeriodSource.h"
#include "tools/SoundFileReader.h"

#include <alsa/asoundlib.h>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace Zelmar {
namespace Host {

class AlsaPeriodBuffers;

// A sound file as a live run's input, read as `run` reads it (two S32_LE channels), by a thread of its
// own that keeps a ring ahead of the audio thread: the audio thread never waits for the disk.
class FileFeed : public PeriodSource
{
public:
    // Throws ToolError when the file cannot be read.
    FileFeed(std::string const& path, unsigned int periodFrames);
    ~FileFeed() override;

    FileFeed(FileFeed const&) = delete;
    FileFeed& operator=(FileFeed const&) = delete;

    unsigned int getSampleRate() const { return m_reader.getSampleRate(); }
    unsigned int getNumChannels() const { return m_reader.getNumChannels(); }

    // Starts the reader and returns once it is well ahead (or through the file).
    void begin();
    // Stops the reader; returns why it stopped before the end of the file, or "" when it did not.
    std::string end();

    // A shortfall before the end of the file counts as an overrun (-EPIPE): the disk did not keep up.
    int readPeriod(AlsaPeriodBuffers& capture, unsigned int frames) override;
    int start() override { return 0; }
    int stop() override { return 0; }
    int delay() override { return 0; }
    std::string const& describe() const override { return m_description; }
    std::unique_ptr<AlsaPeriodBuffers> makeBuffers() const override;

private:
    void readAhead();

    std::string m_description;
    unsigned int m_periodFrames;
    SoundFileReader m_reader;
    FileAudioBuffers m_fileBuffers;
    std::vector<uint8_t> m_readChunk;
    OneWriterOneReaderRingBuffer<uint8_t> m_ring;
    // The audio thread's side: one period of interleaved S32_LE frames, as channel areas.
    std::vector<uint8_t> m_period;
    snd_pcm_channel_area_t m_areas[2];
    std::atomic<bool> m_ended{false};
    std::atomic<bool> m_quit{false};
    std::string m_readError;
    std::thread m_thread;
};

} // namespace Host
} // namespace Zelmar
