#pragma once

#include <alsa/asoundlib.h>
#include <cstdint>
#include <gio/gio.h>
#include <optional>
#include <string>

namespace Zelmar {
namespace Host {

// Runs a chain live between ALSA devices: from a capture device (or a sound file) through the chain to a
// playback device, in real time, until the input ends, --frames have gone through or a signal stops it,
// serving the chain on D-Bus meanwhile. Prints one summary at the end.
class LiveHost
{
public:
    struct Options
    {
        std::string config;
        // A capture PCM, or a sound file in `input` instead.
        std::string capture;
        std::string input;
        std::string playback;
        // 0: the input file's rate, or 48000 Hz from a capture device.
        unsigned int rate = 0;
        unsigned int periodFrames = 1024;
        unsigned int periods = 3;
        snd_pcm_format_t format = SND_PCM_FORMAT_S32_LE;
        // 0: no end but the input's or a signal.
        uint64_t frames = 0;
        // SCHED_FIFO priority of the audio thread; 0 runs it at normal priority without locked memory.
        int priority = 70;
        // Not served on D-Bus without one.
        std::optional<GBusType> bus;
        // The summary only when the run failed.
        bool quiet = false;
        // Where the chain's time went, module by module, printed at the end even when quiet.
        bool profile = false;
    };

    // Throws ToolError: 2 for a usage or config mistake, 1 for a device or file that failed (after the
    // summary, when the run had started).
    static void run(Options const& options);
};

} // namespace Host
} // namespace Zelmar
