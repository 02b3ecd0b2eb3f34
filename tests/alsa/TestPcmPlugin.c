/* A PCM device for running live hosts without a sound card. Capture delivers a raw file (interleaved,
 * in the stream's format; silence after its end) or, without one, a square wave at a quarter of full
 * scale (left positive first, right negative first, 96 frames a cycle). Playback is recorded to a raw
 * file exactly as the host handed it over. Periods are paced by a clock running `speed` times wall
 * time; speed 0 never waits (capture always holds a period, playback takes everything at once).
 * Config fields: capture, record (paths, "" for none), speed (real), rate (0: 8000 to 192000 Hz),
 * format ("": S16_LE, S24_3LE, S24_LE or S32_LE), mmap (also offer mmap access), and the stream
 * positions, in frames since open, at which the device fails once: xrun (-EPIPE), vanish (gone:
 * -ENODEV) and suspend (-ESTRPIPE); -1 for never. */
#include <alsa/asoundlib.h>
#include <alsa/pcm_external.h>

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

/* Enough for any period the host can ask for, in any format and channel count offered. */
#define MAX_CHUNK_BYTES (1 << 20)

typedef struct
{
    snd_pcm_ioplug_t io;
    int captureFd;
    int recordFd;
    double speed;
    long long xrunAt, vanishAt, suspendAt;
    /* Frames moved before the last prepare, so failure positions count from open. */
    long long framesBeforePrepare;
    snd_pcm_uframes_t lastPosition;
    long long generated;
    struct timespec started;
    int running;
    unsigned char chunk[MAX_CHUNK_BYTES];
} TestPcm;

static unsigned int sampleBytes(snd_pcm_format_t format)
{
    return (unsigned int)snd_pcm_format_physical_width(format) / 8;
}

/* Frames the clock has moved since start. */
static long long clockFrames(const TestPcm* pcm)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    double const seconds =
        (double)(now.tv_sec - pcm->started.tv_sec) + 1e-9 * (double)(now.tv_nsec - pcm->started.tv_nsec);
    return (long long)(seconds * pcm->speed * pcm->io.rate);
}

/* The hardware position since prepare, or a negative error once the host has fallen behind. */
static snd_pcm_sframes_t position(TestPcm* pcm)
{
    snd_pcm_ioplug_t* io = &pcm->io;
    long long const appl = (long long)io->appl_ptr;
    long long hw;
    if (!pcm->running)
        return (snd_pcm_sframes_t)pcm->lastPosition;
    if (pcm->speed <= 0.0)
        hw = io->stream == SND_PCM_STREAM_PLAYBACK ? appl : appl + (long long)io->period_size;
    else
        hw = clockFrames(pcm);
    if (io->stream == SND_PCM_STREAM_PLAYBACK && hw > appl) {
        if (io->state != SND_PCM_STATE_DRAINING)
            return -EPIPE;
        hw = appl;
    }
    if (io->stream == SND_PCM_STREAM_CAPTURE && hw - appl > (long long)io->buffer_size)
        return -EPIPE;
    return (snd_pcm_sframes_t)hw;
}

static int reached(long long at, long long frames)
{
    return at >= 0 && frames >= at;
}

static snd_pcm_sframes_t testPointer(snd_pcm_ioplug_t* io)
{
    TestPcm* pcm = io->private_data;
    snd_pcm_sframes_t const hw = position(pcm);
    if (hw < 0)
        return hw;
    long long const frames = pcm->framesBeforePrepare + hw;
    pcm->lastPosition = (snd_pcm_uframes_t)hw;
    if (reached(pcm->xrunAt, frames)) {
        pcm->xrunAt = -1;
        return -EPIPE;
    }
    if (reached(pcm->vanishAt, frames))
        snd_pcm_ioplug_set_state(io, SND_PCM_STATE_DISCONNECTED);
    else if (reached(pcm->suspendAt, frames)) {
        pcm->suspendAt = -1;
        snd_pcm_ioplug_set_state(io, SND_PCM_STATE_SUSPENDED);
    }
    return hw;
}

/* What the host waits for: a period (playback: room for one), or a drain's end. */
static long long wantedAvail(const snd_pcm_ioplug_t* io)
{
    return (long long)(io->state == SND_PCM_STATE_DRAINING ? io->buffer_size : io->period_size);
}

/* Wakes the host's poll when what it waits for will be there. */
static void armTimer(TestPcm* pcm)
{
    snd_pcm_ioplug_t* io = &pcm->io;
    if (pcm->speed <= 0.0)
        return;
    long long due = (long long)io->appl_ptr + wantedAvail(io);
    if (io->stream == SND_PCM_STREAM_PLAYBACK)
        due -= (long long)io->buffer_size;
    double const seconds = (double)due / (pcm->speed * io->rate);
    struct itimerspec timer = {{0, 0}, pcm->started};
    timer.it_value.tv_sec += (time_t)seconds;
    timer.it_value.tv_nsec += (long)((seconds - (double)(time_t)seconds) * 1e9);
    if (timer.it_value.tv_nsec >= 1000000000L) {
        timer.it_value.tv_sec += 1;
        timer.it_value.tv_nsec -= 1000000000L;
    }
    /* A moment already past still has to wake the poll. */
    if (due <= 0 || timer.it_value.tv_sec < 0)
        timer.it_value = (struct timespec){0, 1};
    timerfd_settime(io->poll_fd, due > 0 ? TFD_TIMER_ABSTIME : 0, &timer, NULL);
}

static int testStart(snd_pcm_ioplug_t* io)
{
    TestPcm* pcm = io->private_data;
    clock_gettime(CLOCK_MONOTONIC, &pcm->started);
    pcm->running = 1;
    armTimer(pcm);
    return 0;
}

static int testStop(snd_pcm_ioplug_t* io)
{
    TestPcm* pcm = io->private_data;
    pcm->running = 0;
    return 0;
}

static int testPrepare(snd_pcm_ioplug_t* io)
{
    TestPcm* pcm = io->private_data;
    pcm->framesBeforePrepare += (long long)pcm->lastPosition;
    pcm->lastPosition = 0;
    pcm->running = 0;
    return 0;
}

static int32_t squareWave(long long frame, unsigned int channel)
{
    int32_t const level = (frame / 48) % 2 ? -0x20000000 : 0x20000000;
    return channel % 2 ? -level : level;
}

/* A left-justified 32-bit sample in the stream's format. */
static void storeSample(unsigned char* out, int32_t word, snd_pcm_format_t format)
{
    uint32_t value = (uint32_t)word;
    unsigned int bytes = 4;
    if (format == SND_PCM_FORMAT_S16_LE) {
        value >>= 16;
        bytes = 2;
    } else if (format == SND_PCM_FORMAT_S24_3LE) {
        value >>= 8;
        bytes = 3;
    } else if (format == SND_PCM_FORMAT_S24_LE) {
        value = (uint32_t)(word >> 8);
    }
    for (unsigned int b = 0; b < bytes; ++b)
        out[b] = (unsigned char)(value >> (8 * b));
}

static unsigned char* frameSample(const snd_pcm_channel_area_t* area, snd_pcm_uframes_t frame)
{
    return (unsigned char*)area->addr + (area->first + frame * area->step) / 8;
}

static void fillCapture(TestPcm* pcm, snd_pcm_uframes_t frames)
{
    snd_pcm_ioplug_t* io = &pcm->io;
    unsigned int const width = sampleBytes(io->format);
    size_t const bytes = frames * io->channels * width;
    memset(pcm->chunk, 0, bytes);
    if (pcm->captureFd >= 0) {
        size_t done = 0;
        ssize_t got;
        while (done < bytes && (got = read(pcm->captureFd, pcm->chunk + done, bytes - done)) > 0)
            done += (size_t)got;
        return;
    }
    for (snd_pcm_uframes_t f = 0; f < frames; ++f, ++pcm->generated)
        for (unsigned int c = 0; c < io->channels; ++c)
            storeSample(pcm->chunk + (f * io->channels + c) * width, squareWave(pcm->generated, c),
                        io->format);
}

static snd_pcm_sframes_t testTransfer(snd_pcm_ioplug_t* io, const snd_pcm_channel_area_t* areas,
                                      snd_pcm_uframes_t offset, snd_pcm_uframes_t size)
{
    TestPcm* pcm = io->private_data;
    unsigned int const width = sampleBytes(io->format);
    size_t const frameBytes = (size_t)width * io->channels;
    if (size > MAX_CHUNK_BYTES / frameBytes)
        size = MAX_CHUNK_BYTES / frameBytes;
    if (io->stream == SND_PCM_STREAM_CAPTURE)
        fillCapture(pcm, size);
    for (snd_pcm_uframes_t f = 0; f < size; ++f) {
        for (unsigned int c = 0; c < io->channels; ++c) {
            unsigned char* device = frameSample(&areas[c], offset + f);
            unsigned char* packed = pcm->chunk + f * frameBytes + c * width;
            if (io->stream == SND_PCM_STREAM_CAPTURE)
                memcpy(device, packed, width);
            else
                memcpy(packed, device, width);
        }
    }
    if (io->stream == SND_PCM_STREAM_PLAYBACK && pcm->recordFd >= 0 &&
        write(pcm->recordFd, pcm->chunk, size * frameBytes) != (ssize_t)(size * frameBytes))
        return -EIO;
    armTimer(pcm);
    return (snd_pcm_sframes_t)size;
}

static int testPollRevents(snd_pcm_ioplug_t* io, struct pollfd* pfd, unsigned int nfds,
                           unsigned short* revents)
{
    TestPcm* pcm = io->private_data;
    uint64_t expirations;
    (void)nfds;
    *revents = 0;
    if (pcm->speed > 0.0 && read(pfd[0].fd, &expirations, sizeof expirations) < 0 && errno != EAGAIN)
        return -errno;
    snd_pcm_sframes_t const hw = position(pcm);
    long long const appl = (long long)io->appl_ptr;
    long long const avail = hw < 0                                  ? (long long)io->buffer_size
                            : io->stream == SND_PCM_STREAM_PLAYBACK ? (long long)io->buffer_size - (appl - hw)
                                                                    : hw - appl;
    if (avail >= wantedAvail(io) || !pcm->running)
        *revents = io->stream == SND_PCM_STREAM_PLAYBACK ? POLLOUT : POLLIN;
    else
        armTimer(pcm);
    return 0;
}

static int testClose(snd_pcm_ioplug_t* io)
{
    TestPcm* pcm = io->private_data;
    if (pcm->captureFd >= 0)
        close(pcm->captureFd);
    if (pcm->recordFd >= 0)
        close(pcm->recordFd);
    close(io->poll_fd);
    free(pcm);
    return 0;
}

static const snd_pcm_ioplug_callback_t c_callbacks = {
    .start = testStart,
    .stop = testStop,
    .pointer = testPointer,
    .transfer = testTransfer,
    .close = testClose,
    .prepare = testPrepare,
    .poll_revents = testPollRevents,
};

static int setConstraints(TestPcm* pcm, long rate, snd_pcm_format_t format, int mmap)
{
    snd_pcm_ioplug_t* io = &pcm->io;
    static const unsigned int c_formats[] = {SND_PCM_FORMAT_S16_LE, SND_PCM_FORMAT_S24_3LE,
                                             SND_PCM_FORMAT_S24_LE, SND_PCM_FORMAT_S32_LE};
    unsigned int const only = (unsigned int)format;
    unsigned int const access[] = {SND_PCM_ACCESS_RW_INTERLEAVED, SND_PCM_ACCESS_MMAP_INTERLEAVED};
    int err;
    if ((err = snd_pcm_ioplug_set_param_list(io, SND_PCM_IOPLUG_HW_ACCESS, mmap ? 2 : 1, access)) < 0 ||
        (err = format == SND_PCM_FORMAT_UNKNOWN
                   ? snd_pcm_ioplug_set_param_list(io, SND_PCM_IOPLUG_HW_FORMAT, 4, c_formats)
                   : snd_pcm_ioplug_set_param_list(io, SND_PCM_IOPLUG_HW_FORMAT, 1, &only)) < 0 ||
        (err = snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_CHANNELS, 1, 8)) < 0 ||
        (err = snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_RATE, rate ? (unsigned int)rate : 8000,
                                               rate ? (unsigned int)rate : 192000)) < 0 ||
        (err = snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_PERIOD_BYTES, 16, MAX_CHUNK_BYTES / 4)) <
            0 ||
        (err = snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_PERIODS, 2, 64)) < 0)
        return err;
    return snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_BUFFER_BYTES, 32, MAX_CHUNK_BYTES);
}

static int openFile(const char* path, int flags)
{
    return path && *path ? open(path, flags | O_CLOEXEC, 0644) : -1;
}

SND_PCM_PLUGIN_DEFINE_FUNC(livetest)
{
    snd_config_iterator_t i, next;
    const char *capture = NULL, *record = NULL, *formatName = "";
    double speed = 1.0;
    long rate = 0, xrun = -1, vanish = -1, suspend = -1;
    int mmap = 0;
    (void)root;
    snd_config_for_each(i, next, conf)
    {
        snd_config_t* entry = snd_config_iterator_entry(i);
        const char* key;
        if (snd_config_get_id(entry, &key) < 0)
            continue;
        if (strcmp(key, "comment") == 0 || strcmp(key, "type") == 0 || strcmp(key, "hint") == 0)
            continue;
        if ((strcmp(key, "capture") == 0 && snd_config_get_string(entry, &capture) == 0) ||
            (strcmp(key, "record") == 0 && snd_config_get_string(entry, &record) == 0) ||
            (strcmp(key, "format") == 0 && snd_config_get_string(entry, &formatName) == 0) ||
            (strcmp(key, "speed") == 0 && snd_config_get_ireal(entry, &speed) == 0) ||
            (strcmp(key, "rate") == 0 && snd_config_get_integer(entry, &rate) == 0) ||
            (strcmp(key, "xrun") == 0 && snd_config_get_integer(entry, &xrun) == 0) ||
            (strcmp(key, "vanish") == 0 && snd_config_get_integer(entry, &vanish) == 0) ||
            (strcmp(key, "suspend") == 0 && snd_config_get_integer(entry, &suspend) == 0) ||
            (strcmp(key, "mmap") == 0 && (mmap = snd_config_get_bool(entry)) >= 0))
            continue;
        SNDERR("Unknown or malformed field %s", key);
        return -EINVAL;
    }
    snd_pcm_format_t const format = *formatName ? snd_pcm_format_value(formatName) : SND_PCM_FORMAT_UNKNOWN;
    if (*formatName && format == SND_PCM_FORMAT_UNKNOWN) {
        SNDERR("Unknown format %s", formatName);
        return -EINVAL;
    }

    TestPcm* pcm = calloc(1, sizeof *pcm);
    if (!pcm)
        return -ENOMEM;
    pcm->speed = speed;
    pcm->xrunAt = xrun;
    pcm->vanishAt = vanish;
    pcm->suspendAt = suspend;
    pcm->captureFd = stream == SND_PCM_STREAM_CAPTURE ? openFile(capture, O_RDONLY) : -1;
    pcm->recordFd = stream == SND_PCM_STREAM_PLAYBACK ? openFile(record, O_WRONLY | O_CREAT | O_TRUNC) : -1;
    pcm->io.version = SND_PCM_IOPLUG_VERSION;
    pcm->io.name = "Orvandeldsp live test PCM";
    pcm->io.flags = SND_PCM_IOPLUG_FLAG_BOUNDARY_WA;
    pcm->io.mmap_rw = 0;
    pcm->io.callback = &c_callbacks;
    pcm->io.private_data = pcm;
    /* Never waiting: an event that stays raised. Paced: a timer armed for the next period. */
    pcm->io.poll_fd = speed > 0.0 ? timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)
                                  : eventfd(1, EFD_NONBLOCK | EFD_CLOEXEC);
    pcm->io.poll_events = POLLIN;
    int err = pcm->io.poll_fd < 0 ? -errno : 0;
    if (!err && ((capture && *capture && stream == SND_PCM_STREAM_CAPTURE && pcm->captureFd < 0) ||
                 (record && *record && stream == SND_PCM_STREAM_PLAYBACK && pcm->recordFd < 0)))
        err = -errno;
    if (!err)
        err = snd_pcm_ioplug_create(&pcm->io, name, stream, mode);
    if (err < 0) {
        if (pcm->io.poll_fd >= 0)
            close(pcm->io.poll_fd);
        if (pcm->captureFd >= 0)
            close(pcm->captureFd);
        if (pcm->recordFd >= 0)
            close(pcm->recordFd);
        free(pcm);
        return err;
    }
    if ((err = setConstraints(pcm, rate, format, mmap)) < 0) {
        snd_pcm_ioplug_delete(&pcm->io);
        return err;
    }
    *pcmp = pcm->io.pcm;
    return 0;
}

SND_PCM_PLUGIN_SYMBOL(livetest)
