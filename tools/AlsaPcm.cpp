#include "tools/AlsaPcm.h"

#include "dsp/Chain.h"
#include "tools/AlsaPeriodBuffers.h"
#include "tools/FileAudioChannel.h"
#include "tools/ToolError.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

namespace Zelmar {
namespace Host {

namespace {

using HwParams = std::unique_ptr<snd_pcm_hw_params_t, decltype(&snd_pcm_hw_params_free)>;
using SwParams = std::unique_ptr<snd_pcm_sw_params_t, decltype(&snd_pcm_sw_params_free)>;

// "it offers 48000 Hz" for one value, "it offers 8000 to 96000 Hz" for a range.
template <class T> std::string offered(T min, T max, char const* unit)
{
    std::string const range =
        min == max ? std::to_string(min) : std::to_string(min) + " to " + std::to_string(max);
    return "it offers " + range + unit;
}

std::string offeredFormats(snd_pcm_t* pcm, snd_pcm_hw_params_t* params)
{
    std::string names;
    for (int format = 0; format <= SND_PCM_FORMAT_LAST; ++format) {
        if (snd_pcm_hw_params_test_format(pcm, params, snd_pcm_format_t(format)) != 0)
            continue;
        names += (names.empty() ? "" : ", ") + std::string(snd_pcm_format_name(snd_pcm_format_t(format)));
    }
    return "it offers " + (names.empty() ? std::string("none") : names);
}

} // namespace

AlsaPcm::AlsaPcm(std::string const& name, snd_pcm_stream_t stream, Setup const& setup)
    : m_description(std::string(stream == SND_PCM_STREAM_CAPTURE ? "capture" : "playback") + " PCM " + name),
      m_stream(stream), m_channels(setup.channels), m_format(setup.format)
{
    open(name, stream);
    try {
        configure(setup);
    } catch (...) {
        snd_pcm_close(m_pcm);
        throw;
    }
}

AlsaPcm::~AlsaPcm()
{
    snd_pcm_close(m_pcm);
}

void AlsaPcm::open(std::string const& name, snd_pcm_stream_t stream)
{
    int const error = snd_pcm_open(&m_pcm, name.c_str(), stream, 0);
    if (error < 0)
        throw ToolError(ToolError::c_ioFailure, m_description + ": cannot open: " + snd_strerror(error));
}

void AlsaPcm::refuse(std::string const& what) const
{
    throw ToolError(ToolError::c_ioFailure, m_description + ": " + what);
}

void AlsaPcm::configure(Setup const& setup)
{
    snd_pcm_hw_params_t* raw = nullptr;
    snd_pcm_hw_params_malloc(&raw);
    HwParams const params(raw, snd_pcm_hw_params_free);
    int error = snd_pcm_hw_params_any(m_pcm, params.get());
    if (error < 0)
        refuse(std::string("cannot be set up: ") + snd_strerror(error));
    chooseAccess(params.get());
    chooseFormat(params.get(), setup.format);
    setChannelsAndRate(params.get(), setup);
    setPeriods(params.get(), setup);
    if ((error = snd_pcm_hw_params(m_pcm, params.get())) < 0)
        refuse(std::string("cannot be set up: ") + snd_strerror(error));
    snd_pcm_uframes_t bufferFrames = 0;
    snd_pcm_hw_params_get_buffer_size(params.get(), &bufferFrames);
    m_bufferFrames = static_cast<unsigned int>(bufferFrames);

    m_periodFrames = setup.periodFrames;
    setSoftwareParameters(setup.periodFrames);
    if (!m_mmap)
        allocateInterleavedPeriod();
}

void AlsaPcm::setChannelsAndRate(snd_pcm_hw_params_t* params, Setup const& setup)
{
    if (snd_pcm_hw_params_set_channels(m_pcm, params, setup.channels) < 0) {
        unsigned int min = 0, max = 0;
        snd_pcm_hw_params_get_channels_min(params, &min);
        snd_pcm_hw_params_get_channels_max(params, &max);
        refuse("does not take " + std::to_string(setup.channels) + " channels (" + offered(min, max, "") +
               ")");
    }
    if (snd_pcm_hw_params_set_rate(m_pcm, params, setup.rate, 0) < 0) {
        unsigned int min = 0, max = 0;
        snd_pcm_hw_params_get_rate_min(params, &min, nullptr);
        snd_pcm_hw_params_get_rate_max(params, &max, nullptr);
        refuse("does not take " + std::to_string(setup.rate) + " Hz (" + offered(min, max, " Hz") + ")");
    }
}

// The period exactly, since the chain runs in the host's periods; their number as near as it can be.
void AlsaPcm::setPeriods(snd_pcm_hw_params_t* params, Setup const& setup)
{
    if (snd_pcm_hw_params_set_period_size(m_pcm, params, setup.periodFrames, 0) < 0) {
        snd_pcm_uframes_t min = 0, max = 0;
        snd_pcm_hw_params_get_period_size_min(params, &min, nullptr);
        snd_pcm_hw_params_get_period_size_max(params, &max, nullptr);
        refuse("does not take periods of " + std::to_string(setup.periodFrames) + " frames at " +
               std::to_string(setup.rate) + " Hz (" + offered(min, max, " frames") + ")");
    }
    unsigned int periods = setup.periods;
    snd_pcm_hw_params_set_periods_near(m_pcm, params, &periods, nullptr);
    if (periods < 2)
        refuse("does not take 2 or more periods of " + std::to_string(setup.periodFrames) + " frames");
}

void AlsaPcm::allocateInterleavedPeriod()
{
    // The chain may hand over more frames than a period (a resampling input stage), never more than this.
    m_interleavedFrames = Chain::getMaxNumFramesPerProcessCall();
    unsigned int const frameBytes = m_channels * m_deviceSampleBytes;
    m_interleaved.resize(size_t(m_interleavedFrames) * frameBytes);
    for (unsigned int c = 0; c < m_channels; ++c)
        m_interleavedAreas.push_back({m_interleaved.data(), c * m_deviceSampleBytes * 8, frameBytes * 8});
}

void AlsaPcm::chooseAccess(snd_pcm_hw_params_t* params)
{
    // mmap saves a copy per period; any layout is fine, channel areas describe them all.
    snd_pcm_access_mask_t* mask = nullptr;
    snd_pcm_access_mask_alloca(&mask);
    snd_pcm_access_mask_set(mask, SND_PCM_ACCESS_MMAP_INTERLEAVED);
    snd_pcm_access_mask_set(mask, SND_PCM_ACCESS_MMAP_NONINTERLEAVED);
    snd_pcm_access_mask_set(mask, SND_PCM_ACCESS_MMAP_COMPLEX);
    m_mmap = snd_pcm_hw_params_set_access_mask(m_pcm, params, mask) == 0;
    if (!m_mmap && snd_pcm_hw_params_set_access(m_pcm, params, SND_PCM_ACCESS_RW_INTERLEAVED) < 0)
        refuse("offers neither mmap nor interleaved read/write access");
}

void AlsaPcm::chooseFormat(snd_pcm_hw_params_t* params, snd_pcm_format_t format)
{
    std::vector<snd_pcm_format_t> candidates{format};
    if (format == SND_PCM_FORMAT_S24_3LE)
        candidates.push_back(SND_PCM_FORMAT_S24_LE);
    for (snd_pcm_format_t const candidate : candidates) {
        if (snd_pcm_hw_params_test_format(m_pcm, params, candidate) != 0)
            continue;
        snd_pcm_hw_params_set_format(m_pcm, params, candidate);
        m_deviceFormat = candidate;
        m_deviceSampleBytes = unsigned(snd_pcm_format_physical_width(candidate)) / 8;
        return;
    }
    std::string wanted = snd_pcm_format_name(format);
    if (candidates.size() > 1)
        wanted += " or " + std::string(snd_pcm_format_name(candidates.back()));
    refuse("does not take " + wanted + " (" + offeredFormats(m_pcm, params) + ")");
}

void AlsaPcm::setSoftwareParameters(unsigned int periodFrames)
{
    snd_pcm_sw_params_t* raw = nullptr;
    snd_pcm_sw_params_malloc(&raw);
    SwParams const params(raw, snd_pcm_sw_params_free);
    snd_pcm_uframes_t boundary = 0;
    snd_pcm_sw_params_current(m_pcm, params.get());
    snd_pcm_sw_params_get_boundary(params.get(), &boundary);
    // The host starts both devices itself, after priming the playback.
    snd_pcm_sw_params_set_start_threshold(m_pcm, params.get(), boundary);
    snd_pcm_sw_params_set_avail_min(m_pcm, params.get(), periodFrames);
    int const error = snd_pcm_sw_params(m_pcm, params.get());
    if (error < 0)
        refuse(std::string("cannot be set up: ") + snd_strerror(error));
}

std::unique_ptr<AlsaPeriodBuffers> AlsaPcm::makeBuffers() const
{
    return std::make_unique<AlsaPeriodBuffers>(m_format, m_deviceSampleBytes, m_channels,
                                               Chain::getMaxNumFramesPerProcessCall());
}

int AlsaPcm::stateError()
{
    switch (snd_pcm_state(m_pcm)) {
    case SND_PCM_STATE_XRUN:
        return -EPIPE;
    case SND_PCM_STATE_SUSPENDED:
        return -ESTRPIPE;
    case SND_PCM_STATE_DISCONNECTED:
        return -ENODEV;
    default:
        return 0;
    }
}

int AlsaPcm::waitForFrames(snd_pcm_uframes_t frames)
{
    for (;;) {
        snd_pcm_sframes_t const avail = snd_pcm_avail_update(m_pcm);
        if (avail < 0)
            return int(avail);
        if (snd_pcm_uframes_t(avail) >= frames)
            return 0;
        int const error = snd_pcm_wait(m_pcm, -1);
        if (error < 0)
            return error;
    }
}

// Moves `frames` frames in as many steps as the device needs; `copy(areas, offset, first, count)` moves
// frames [first, first + count) of the period between the buffers and the device's areas.
template <class Copy> int AlsaPcm::moveFrames(unsigned int frames, Copy const& copy)
{
    if (int const error = stateError())
        return error;
    bool const capture = m_stream == SND_PCM_STREAM_CAPTURE;
    unsigned int done = 0;
    while (done < frames) {
        snd_pcm_uframes_t count = frames - done;
        if (!m_mmap && count > m_interleavedFrames)
            count = m_interleavedFrames;
        snd_pcm_sframes_t moved = 0;
        if (m_mmap) {
            // Up to a period at a time, as readi and writei move frames: a device wakes its host once a
            // period, so waiting for room for more would spin until the period after.
            if (int const error = waitForFrames(std::min<snd_pcm_uframes_t>(count, m_periodFrames)))
                return error;
            snd_pcm_channel_area_t const* areas = nullptr;
            snd_pcm_uframes_t offset = 0;
            if (int const error = snd_pcm_mmap_begin(m_pcm, &areas, &offset, &count))
                return error;
            copy(areas, offset, done, unsigned(count));
            moved = snd_pcm_mmap_commit(m_pcm, offset, count);
        } else if (capture) {
            moved = snd_pcm_readi(m_pcm, m_interleaved.data(), count);
            if (moved > 0)
                copy(m_interleavedAreas.data(), 0, done, unsigned(moved));
        } else {
            copy(m_interleavedAreas.data(), 0, done, unsigned(count));
            moved = snd_pcm_writei(m_pcm, m_interleaved.data(), count);
        }
        if (moved == -EINTR || moved == -EAGAIN)
            continue;
        if (moved < 0)
            return int(moved);
        done += unsigned(moved);
    }
    return int(done);
}

int AlsaPcm::readPeriod(AlsaPeriodBuffers& capture, unsigned int frames)
{
    capture.setNumFrames(frames);
    return moveFrames(frames,
                      [&](snd_pcm_channel_area_t const* areas, snd_pcm_uframes_t offset, unsigned int first,
                          unsigned int count) { capture.fromDevice(areas, offset, first, count); });
}

int AlsaPcm::writePeriod(AlsaPeriodBuffers const& playback, unsigned int frames)
{
    return moveFrames(frames,
                      [&](snd_pcm_channel_area_t const* areas, snd_pcm_uframes_t offset, unsigned int first,
                          unsigned int count) { playback.toDevice(areas, offset, first, count); });
}

int AlsaPcm::writeSilence(unsigned int frames)
{
    return moveFrames(frames, [&](snd_pcm_channel_area_t const* areas, snd_pcm_uframes_t offset, unsigned int,
                                  unsigned int count) {
        snd_pcm_areas_silence(areas, offset, m_channels, count, m_deviceFormat);
    });
}

int AlsaPcm::delay()
{
    snd_pcm_sframes_t frames = 0;
    int const error = snd_pcm_delay(m_pcm, &frames);
    return error < 0 ? error : int(frames);
}

int AlsaPcm::start()
{
    return snd_pcm_start(m_pcm);
}

int AlsaPcm::stop()
{
    int const error = snd_pcm_drop(m_pcm);
    return error < 0 ? error : snd_pcm_prepare(m_pcm);
}

int AlsaPcm::drain()
{
    return snd_pcm_drain(m_pcm);
}

} // namespace Host
} // namespace Zelmar
