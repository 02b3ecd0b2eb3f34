#pragma once

#include "tools/PeriodSource.h"

#include <alsa/asoundlib.h>
#include <string>
#include <vector>

namespace Zelmar {
namespace Host {

class AlsaPeriodBuffers;

// One ALSA PCM device as a live host uses it: opened blocking, set up once for the whole run, then moved
// period by period through mmap where the device offers it, else through readi/writei. Setting up
// throws ToolError naming the device and, when it refuses a setting, what it offers instead; the
// calls made on the audio thread return ALSA's negative error codes instead, since throwing allocates.
class AlsaPcm : public PeriodSource
{
public:
    struct Setup
    {
        unsigned int rate = 48000;
        unsigned int channels = 2;
        // S16_LE, S24_3LE or S32_LE; 24 bits go as S24_LE where the device has no S24_3LE.
        snd_pcm_format_t format = SND_PCM_FORMAT_S32_LE;
        unsigned int periodFrames = 1024;
        unsigned int periods = 3;
    };

    AlsaPcm(std::string const& name, snd_pcm_stream_t stream, Setup const& setup);
    ~AlsaPcm() override;

    AlsaPcm(AlsaPcm const&) = delete;
    AlsaPcm& operator=(AlsaPcm const&) = delete;

    // The bytes of one sample on the device: 4 for S24_LE, else those of the packed format.
    unsigned int getDeviceSampleBytes() const { return m_deviceSampleBytes; }
    unsigned int getBufferFrames() const { return m_bufferFrames; }
    bool usesMmap() const { return m_mmap; }
    std::string const& describe() const override { return m_description; }
    std::unique_ptr<AlsaPeriodBuffers> makeBuffers() const override;

    int readPeriod(AlsaPeriodBuffers& capture, unsigned int frames) override;
    int writePeriod(AlsaPeriodBuffers const& playback, unsigned int frames);
    int writeSilence(unsigned int frames);
    int start() override;
    int stop() override;
    int delay() override;
    // Blocks until everything written has been played.
    int drain();

private:
    void open(std::string const& name, snd_pcm_stream_t stream);
    void configure(Setup const& setup);
    void chooseAccess(snd_pcm_hw_params_t* params);
    void chooseFormat(snd_pcm_hw_params_t* params, snd_pcm_format_t format);
    void setChannelsAndRate(snd_pcm_hw_params_t* params, Setup const& setup);
    void setPeriods(snd_pcm_hw_params_t* params, Setup const& setup);
    void allocateInterleavedPeriod();
    void setSoftwareParameters(unsigned int periodFrames);
    [[noreturn]] void refuse(std::string const& what) const;

    int stateError();
    int waitForFrames(snd_pcm_uframes_t frames);
    template <class Copy> int moveFrames(unsigned int frames, Copy const& copy);

    std::string m_description;
    snd_pcm_t* m_pcm = nullptr;
    snd_pcm_stream_t m_stream = SND_PCM_STREAM_PLAYBACK;
    bool m_mmap = false;
    unsigned int m_channels = 0;
    snd_pcm_format_t m_format;
    snd_pcm_format_t m_deviceFormat = SND_PCM_FORMAT_UNKNOWN;
    unsigned int m_deviceSampleBytes = 0;
    unsigned int m_bufferFrames = 0;
    unsigned int m_periodFrames = 0;
    // readi/writei go through this interleaved period, described as channel areas like an mmap buffer.
    std::vector<uint8_t> m_interleaved;
    unsigned int m_interleavedFrames = 0;
    std::vector<snd_pcm_channel_area_t> m_interleavedAreas;
};

} // namespace Host
} // namespace Zelmar
