/* A PCM device for running live hosts without a sound card. Capture delivers a raw file (interleaved,
 * in the stream's format; silence after its end) or, without one, a square wave at a quarter of full
 * scale (left positive first, right negative first, 96 frames a cycle). Playback is recorded to a raw
 * file exactly as the host handed it over. The device's position follows a clock running `speed` times
 * wall time, checked every quarter period; speed 0 never waits (capture always holds a period, playback
 * takes everything at once). With `virtual` set it follows instead a clock that every virtual device of
 * the process shares, which stands still while the host works and, when the host waits for a device,
 * jumps to the moment that device has a period for it: an hour of two devices' clocks in seconds. A
 * device's own clock runs `ppm` parts per million fast (or slow, below 0) against the clock it follows.
 * A host that falls behind its devices gets an xrun.
 * Config fields: capture, record (paths, "" for none), speed (real), virtual (bool), ppm (real), rate
 * (0: 8000 to 192000 Hz), format ("": S16_LE, S24_3LE, S24_LE or S32_LE), mmap (also offer mmap
 * access), and the stream positions, in frames since open, at which the device fails once: xrun
 * (-EPIPE), vanish (gone: -ENODEV) and suspend (-ESTRPIPE); -1 for never. */
#include <alsa/asoundlib.h>
#include <alsa/pcm_external.h>

#include <errno.h>
#include <fcntl.h>
#include <math.h>
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
    int virtualClock;
    double ppm;
    /* Frames per second of this device's clock from start: the rate, off by its ppm. */
    double framesPerSecond;
    long long xrunAt, vanishAt, suspendAt;
    /* Frames moved before the last prepare, so that failure positions count from open. */
    long long framesBeforePrepare;
    snd_pcm_uframes_t lastPosition;
    long long generated;
    struct timespec started;
    long long virtualStarted;
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

/* The shared clock of the virtual devices, in nanoseconds. A host drives its devices from one thread. */
static long long g_virtualNanoseconds;

static double elapsedSeconds(const TestPcm* pcm)
{
    if (pcm->virtualClock)
        return 1e-9 * (double)(g_virtualNanoseconds - pcm->virtualStarted);
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    double const seconds =
        (double)(now.tv_sec - pcm->started.tv_sec) + 1e-9 * (double)(now.tv_nsec - pcm->started.tv_nsec);
    return seconds * pcm->speed;
}

static long long clockFrames(const TestPcm* pcm)
{
    return (long long)floor(elapsedSeconds(pcm) * pcm->framesPerSecond);
}

/* Moves the shared clock on to the first nanosecond at which the device's position reaches `frames`. */
static void advanceVirtualClockTo(const TestPcm* pcm, long long frames)
{
    if (clockFrames(pcm) >= frames)
        return;
    g_virtualNanoseconds =
        pcm->virtualStarted + (long long)floor(1e9 * (double)frames / pcm->framesPerSecond);
    while (clockFrames(pcm) < frames)
        ++g_virtualNanoseconds;
}

/* A host waits for room for a period, or for the last frame to be played while draining. */
static long long framesAwaited(const TestPcm* pcm)
{
    snd_pcm_ioplug_t const* io = &pcm->io;
    long long const appl = (long long)io->appl_ptr;
    if (io->stream == SND_PCM_STREAM_CAPTURE)
        return appl + (long long)io->period_size;
    if (io->state == SND_PCM_STATE_DRAINING)
        return appl;
    return appl + (long long)io->period_size - (long long)io->buffer_size;
}

/* The hardware position since prepare, or -EPIPE once the host has fallen behind the clock. */
static snd_pcm_sframes_t position(TestPcm* pcm)
{
    snd_pcm_ioplug_t* io = &pcm->io;
    long long const appl = (long long)io->appl_ptr;
    int const playback = io->stream == SND_PCM_STREAM_PLAYBACK;
    if (!pcm->running)
        return (snd_pcm_sframes_t)pcm->lastPosition;
    long long hw = pcm->speed > 0.0 || pcm->virtualClock ? clockFrames(pcm)
                   : playback                            ? appl
                                                         : appl + (long long)io->period_size;
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
    pcm->virtualStarted = g_virtualNanoseconds;
    pcm->framesPerSecond = io->rate * (1.0 + 1e-6 * pcm->ppm);
    pcm->running = 1;
    if (pcm->speed <= 0.0 || pcm->virtualClock)
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

/* Every tick wakes the host, which looks at the position itself. A virtual device is ready at once: the
 * time the host waits for passes on the spot. */
static int testPollRevents(snd_pcm_ioplug_t* io, struct pollfd* pfd, unsigned int nfds,
                           unsigned short* revents)
{
    TestPcm* pcm = io->private_data;
    uint64_t ticks;
    (void)nfds;
    if (pcm->virtualClock && pcm->running)
        advanceVirtualClockTo(pcm, framesAwaited(pcm));
    else if (pcm->speed > 0.0 && !pcm->virtualClock && read(pfd[0].fd, &ticks, sizeof ticks) < 0 &&
             errno != EAGAIN)
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
    /* Left-justified 32-bit words, cut to the format's width; S24_LE keeps them sign-extended. The
     * words' low bytes are copied as they lie, little-endian as every host of the tests is. */
    unsigned int const shift = (unsigned int)(32 - snd_pcm_format_width(io->format));
    uint32_t const high = (uint32_t)(0x20000000 >> shift), low = (uint32_t)(-0x20000000 >> shift);
    for (unsigned char* out = pcm->chunk; pcm->captureFd < 0 && out < pcm->chunk + bytes; ++pcm->generated)
        for (unsigned int c = 0; c < io->channels; ++c, out += width)
            memcpy(out, (pcm->generated / 48 + c) % 2 ? &low : &high, width);
}

/* Whether the areas are one interleaved block, as the host's own buffer and an interleaved mmap are. */
static int isInterleaved(const snd_pcm_channel_area_t* areas, unsigned int channels, unsigned int width)
{
    for (unsigned int c = 0; c < channels; ++c)
        if (areas[c].addr != areas[0].addr || areas[c].first != c * width * 8 ||
            areas[c].step != channels * width * 8)
            return 0;
    return 1;
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
    if (playback && pcm->recordFd < 0)
        return (snd_pcm_sframes_t)size;
    if (!playback)
        capture(pcm, size, width);
    if (isInterleaved(areas, io->channels, width)) {
        unsigned char* device = (unsigned char*)areas[0].addr + offset * frameBytes;
        memcpy(playback ? pcm->chunk : device, playback ? device : pcm->chunk, size * frameBytes);
    } else {
        for (snd_pcm_uframes_t f = 0; f < size; ++f) {
            for (unsigned int c = 0; c < io->channels; ++c) {
                unsigned char* device =
                    (unsigned char*)areas[c].addr + (areas[c].first + (offset + f) * areas[c].step) / 8;
                unsigned char* packed = pcm->chunk + f * frameBytes + c * width;
                memcpy(playback ? packed : device, playback ? device : packed, width);
            }
        }
    }
    if (playback && write(pcm->recordFd, pcm->chunk, size * frameBytes) != (ssize_t)(size * frameBytes))
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
    double speed = 1.0, ppm = 0.0;
    long rate = 0, xrun = -1, vanish = -1, suspend = -1;
    int mmap = 0, virtualClock = 0;
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
            (strcmp(key, "ppm") == 0 && snd_config_get_ireal(entry, &ppm) == 0) ||
            (strcmp(key, "virtual") == 0 && (virtualClock = snd_config_get_bool(entry)) >= 0) ||
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
    pcm->virtualClock = virtualClock;
    pcm->ppm = ppm;
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
    /* Paced: a timer ticking every quarter period. Never waiting or virtual: an event that stays raised. */
    pcm->io.poll_fd = speed > 0.0 && !virtualClock
                          ? timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)
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
