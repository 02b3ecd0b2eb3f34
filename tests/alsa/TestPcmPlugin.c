/* A PCM device for running live hosts without a sound card. Capture delivers a raw file (interleaved,
 * in the stream's format; silence after its end) or, without one, a square wave at a quarter of full
 * scale (left positive first, right negative first, 96 frames a cycle). Playback is recorded to a raw
 * file exactly as the host handed it over. The device's position follows a clock running `speed` times
 * wall time, checked every quarter period; speed 0 never waits (capture always holds a period, playback
 * takes everything at once). A host that falls behind the clock gets an xrun.
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

/* Enough for any transfer the host can ask for, in any format and channel count offered. */
#define MAX_CHUNK_BYTES (1 << 20)

typedef struct
{
    snd_pcm_ioplug_t io;
    int captureFd;
    int recordFd;
    double speed;
    long long xrunAt, vanishAt, suspendAt;
    /* Frames moved before the last prepare, so that failure positions count from open. */
    long long framesBeforePrepare;
    snd_pcm_uframes_t lastPosition;
    long long generated;
    struct timespec started;
    int running;
    unsigned char chunk[MAX_CHUNK_BYTES];
} TestPcm;

static void freeTestPcm(TestPcm* pcm)
{
    int const fds[] = {pcm->captureFd, pcm->recordFd, pcm->io.poll_fd};
    for (unsigned int i = 0; i < 3; ++i)
        if (fds[i] >= 0)
            close(fds[i]);
    free(pcm);
}

static long long clockFrames(const TestPcm* pcm)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    double const seconds =
        (double)(now.tv_sec - pcm->started.tv_sec) + 1e-9 * (double)(now.tv_nsec - pcm->started.tv_nsec);
    return (long long)(seconds * pcm->speed * pcm->io.rate);
}

/* The hardware position since prepare, or -EPIPE once the host has fallen behind the clock. */
static snd_pcm_sframes_t position(TestPcm* pcm)
{
    snd_pcm_ioplug_t* io = &pcm->io;
    long long const appl = (long long)io->appl_ptr;
    int const playback = io->stream == SND_PCM_STREAM_PLAYBACK;
    if (!pcm->running)
        return (snd_pcm_sframes_t)pcm->lastPosition;
    long long hw = pcm->speed > 0.0 ? clockFrames(pcm) : playback ? appl : appl + (long long)io->period_size;
    if (playback && hw > appl) {
        if (io->state != SND_PCM_STATE_DRAINING)
            return -EPIPE;
        hw = appl;
    }
    if (!playback && hw - appl > (long long)io->buffer_size)
        return -EPIPE;
    return (snd_pcm_sframes_t)hw;
}

static int reached(long long* at, long long frames)
{
    int const now = *at >= 0 && frames >= *at;
    if (now)
        *at = -1;
    return now;
}

static snd_pcm_sframes_t testPointer(snd_pcm_ioplug_t* io)
{
    TestPcm* pcm = io->private_data;
    snd_pcm_sframes_t const hw = position(pcm);
    if (hw < 0)
        return hw;
    pcm->lastPosition = (snd_pcm_uframes_t)hw;
    long long const frames = pcm->framesBeforePrepare + hw;
    if (reached(&pcm->xrunAt, frames))
        return -EPIPE;
    /* Gone for good: every later call fails too. */
    if (pcm->vanishAt >= 0 && frames >= pcm->vanishAt)
        snd_pcm_ioplug_set_state(io, SND_PCM_STATE_DISCONNECTED);
    else if (reached(&pcm->suspendAt, frames))
        snd_pcm_ioplug_set_state(io, SND_PCM_STATE_SUSPENDED);
    return hw;
}

static int testStart(snd_pcm_ioplug_t* io)
{
    TestPcm* pcm = io->private_data;
    clock_gettime(CLOCK_MONOTONIC, &pcm->started);
    pcm->running = 1;
    if (pcm->speed <= 0.0)
        return 0;
    double const tick = (double)io->period_size / (4.0 * pcm->speed * io->rate);
    struct timespec const interval = {(time_t)tick, (long)((tick - (double)(time_t)tick) * 1e9)};
    struct itimerspec const timer = {interval, interval};
    return timerfd_settime(io->poll_fd, 0, &timer, NULL) < 0 ? -errno : 0;
}

static int testStop(snd_pcm_ioplug_t* io)
{
    ((TestPcm*)io->private_data)->running = 0;
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

/* Every tick wakes the host, which looks at the position itself. */
static int testPollRevents(snd_pcm_ioplug_t* io, struct pollfd* pfd, unsigned int nfds,
                           unsigned short* revents)
{
    TestPcm* pcm = io->private_data;
    uint64_t ticks;
    (void)nfds;
    if (pcm->speed > 0.0 && read(pfd[0].fd, &ticks, sizeof ticks) < 0 && errno != EAGAIN)
        return -errno;
    *revents = io->stream == SND_PCM_STREAM_PLAYBACK ? POLLOUT : POLLIN;
    return 0;
}

/* The raw file's next frames, or the square wave, into the chunk. */
static void capture(TestPcm* pcm, snd_pcm_uframes_t frames, unsigned int width)
{
    snd_pcm_ioplug_t* io = &pcm->io;
    size_t const bytes = frames * io->channels * width;
    memset(pcm->chunk, 0, bytes);
    ssize_t got;
    for (size_t done = 0; pcm->captureFd >= 0 && done < bytes; done += (size_t)got)
        if ((got = read(pcm->captureFd, pcm->chunk + done, bytes - done)) <= 0)
            return;
    /* Left-justified 32-bit words, cut to the format's width; S24_LE keeps them sign-extended. */
    unsigned int const shift = (unsigned int)(32 - snd_pcm_format_width(io->format));
    for (unsigned char* out = pcm->chunk; pcm->captureFd < 0 && out < pcm->chunk + bytes; ++pcm->generated)
        for (unsigned int c = 0; c < io->channels; ++c, out += width) {
            int32_t const level = (pcm->generated / 48 + c) % 2 ? -0x20000000 : 0x20000000;
            uint32_t const value = (uint32_t)(level >> shift);
            for (unsigned int b = 0; b < width; ++b)
                out[b] = (unsigned char)(value >> (8 * b));
        }
}

static snd_pcm_sframes_t testTransfer(snd_pcm_ioplug_t* io, const snd_pcm_channel_area_t* areas,
                                      snd_pcm_uframes_t offset, snd_pcm_uframes_t size)
{
    TestPcm* pcm = io->private_data;
    unsigned int const width = (unsigned int)snd_pcm_format_physical_width(io->format) / 8;
    size_t const frameBytes = (size_t)width * io->channels;
    int const playback = io->stream == SND_PCM_STREAM_PLAYBACK;
    if (size > MAX_CHUNK_BYTES / frameBytes)
        size = MAX_CHUNK_BYTES / frameBytes;
    if (!playback)
        capture(pcm, size, width);
    for (snd_pcm_uframes_t f = 0; f < size; ++f) {
        for (unsigned int c = 0; c < io->channels; ++c) {
            unsigned char* device =
                (unsigned char*)areas[c].addr + (areas[c].first + (offset + f) * areas[c].step) / 8;
            unsigned char* packed = pcm->chunk + f * frameBytes + c * width;
            memcpy(playback ? packed : device, playback ? device : packed, width);
        }
    }
    if (playback && pcm->recordFd >= 0 &&
        write(pcm->recordFd, pcm->chunk, size * frameBytes) != (ssize_t)(size * frameBytes))
        return -EIO;
    return (snd_pcm_sframes_t)size;
}

static int testClose(snd_pcm_ioplug_t* io)
{
    freeTestPcm(io->private_data);
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

static int setConstraints(snd_pcm_ioplug_t* io, long rate, snd_pcm_format_t format, int mmap)
{
    static const unsigned int c_formats[] = {SND_PCM_FORMAT_S16_LE, SND_PCM_FORMAT_S24_3LE,
                                             SND_PCM_FORMAT_S24_LE, SND_PCM_FORMAT_S32_LE};
    static const unsigned int c_access[] = {SND_PCM_ACCESS_RW_INTERLEAVED, SND_PCM_ACCESS_MMAP_INTERLEAVED};
    unsigned int const only = (unsigned int)format;
    int err;
    if ((err = snd_pcm_ioplug_set_param_list(io, SND_PCM_IOPLUG_HW_ACCESS, mmap ? 2 : 1, c_access)) < 0 ||
        (err = format == SND_PCM_FORMAT_UNKNOWN
                   ? snd_pcm_ioplug_set_param_list(io, SND_PCM_IOPLUG_HW_FORMAT, 4, c_formats)
                   : snd_pcm_ioplug_set_param_list(io, SND_PCM_IOPLUG_HW_FORMAT, 1, &only)) < 0 ||
        (err = snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_CHANNELS, 1, 8)) < 0 ||
        (err = snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_RATE, rate ? (unsigned int)rate : 8000,
                                               rate ? (unsigned int)rate : 192000)) < 0 ||
        (err = snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_PERIODS, 2, 64)) < 0)
        return err;
    return snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_BUFFER_BYTES, 32, MAX_CHUNK_BYTES);
}

static int openFile(const char* path, int flags)
{
    return *path ? open(path, flags | O_CLOEXEC, 0644) : -1;
}

SND_PCM_PLUGIN_DEFINE_FUNC(livetest)
{
    snd_config_iterator_t i, next;
    const char *capturePath = "", *recordPath = "", *formatName = "";
    double speed = 1.0;
    long rate = 0, xrun = -1, vanish = -1, suspend = -1;
    int mmap = 0;
    (void)root;
    snd_config_for_each(i, next, conf)
    {
        snd_config_t* entry = snd_config_iterator_entry(i);
        const char* key;
        if (snd_config_get_id(entry, &key) < 0 || strcmp(key, "comment") == 0 || strcmp(key, "type") == 0 ||
            strcmp(key, "hint") == 0)
            continue;
        if ((strcmp(key, "capture") == 0 && snd_config_get_string(entry, &capturePath) == 0) ||
            (strcmp(key, "record") == 0 && snd_config_get_string(entry, &recordPath) == 0) ||
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
    if (*formatName && format == SND_PCM_FORMAT_UNKNOWN)
        return -EINVAL;

    TestPcm* pcm = calloc(1, sizeof *pcm);
    if (!pcm)
        return -ENOMEM;
    pcm->speed = speed;
    pcm->xrunAt = xrun;
    pcm->vanishAt = vanish;
    pcm->suspendAt = suspend;
    pcm->captureFd = stream == SND_PCM_STREAM_CAPTURE ? openFile(capturePath, O_RDONLY) : -1;
    pcm->recordFd =
        stream == SND_PCM_STREAM_PLAYBACK ? openFile(recordPath, O_WRONLY | O_CREAT | O_TRUNC) : -1;
    pcm->io.version = SND_PCM_IOPLUG_VERSION;
    pcm->io.name = "Orvandeldsp live test PCM";
    /* The position is reported since prepare, which is far from the boundary in any test. */
    pcm->io.flags = SND_PCM_IOPLUG_FLAG_BOUNDARY_WA;
    pcm->io.callback = &c_callbacks;
    pcm->io.private_data = pcm;
    /* Paced: a timer ticking every quarter period. Never waiting: an event that stays raised. */
    pcm->io.poll_fd = speed > 0.0 ? timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)
                                  : eventfd(1, EFD_NONBLOCK | EFD_CLOEXEC);
    pcm->io.poll_events = POLLIN;
    int const missingFile = (*capturePath && pcm->captureFd < 0 && stream == SND_PCM_STREAM_CAPTURE) ||
                            (*recordPath && pcm->recordFd < 0 && stream == SND_PCM_STREAM_PLAYBACK);
    int err =
        pcm->io.poll_fd < 0 || missingFile ? -errno : snd_pcm_ioplug_create(&pcm->io, name, stream, mode);
    if (err < 0) {
        freeTestPcm(pcm);
        return err;
    }
    if ((err = setConstraints(&pcm->io, rate, format, mmap)) < 0) {
        snd_pcm_ioplug_delete(&pcm->io);
        return err;
    }
    *pcmp = pcm->io.pcm;
    return 0;
}

SND_PCM_PLUGIN_SYMBOL(livetest)
