#pragma once

#include "tools/SoundCues.h"

#include <alsa/asoundlib.h>
#include <gio/gio.h>
#include <sndfile.h>
#include <string>
#include <vector>

namespace Zelmar {
namespace Host {

// Runs a chain over a sound file instead of a sound card: the file's frames go in period by period
// through the chain's input stage, and whatever reaches the output stage is written to a sound file
// (WAV, FLAC, AIFF or CAF), or streamed to standard output when the output is "-".
class OfflineHost
{
public:
    struct Options
    {
        std::string config;
        std::string input;
        // "-" streams to standard output; the lines the run prints then go to stderr.
        std::string output;
        // SF_FORMAT_WAV, SF_FORMAT_FLAC, SF_FORMAT_AIFF or SF_FORMAT_CAF.
        int container = SF_FORMAT_WAV;
        unsigned int periodFrames = 1024;
        // SND_PCM_FORMAT_UNKNOWN follows the input's bit depth, at most 24 bits in a FLAC file.
        snd_pcm_format_t format = SND_PCM_FORMAT_UNKNOWN;
        bool meters = false;
        // Where the time went, module by module, printed at the end even when quiet.
        bool profile = false;
        bool progress = false;
        bool quiet = false;
        // The chain's and the output file's rate; 0 keeps the input file's.
        unsigned int rate = 0;
        // A simulated playback clock this many parts per million fast (+) or slow (-), corrected by
        // time stretching; only when drift is set.
        bool drift = false;
        double driftPpm = 0.0;
        // Polls the chain's signal detector every 250 ms of audio and prints its transitions.
        bool detect = false;
        // Where the detector keeps its learnt threshold; empty: a temporary directory for the run.
        std::string thresholdDirectory;
        // Plays at the audio's own speed and serves the chain on `bus` meanwhile.
        bool realtime = false;
        GBusType bus = G_BUS_TYPE_SESSION;
        // Where the stream of the chain's "flac-encoder" goes; empty: it is not encoded.
        std::string encodedOutput;
        // System sounds played during the run.
        std::vector<SoundCues::Cue> sounds;
    };

    // Throws ToolError; the output file appears only when the whole run succeeded.
    static void run(Options const& options);

    // 16-bit and narrower encodings give s16, 24-bit s24, 32-bit and floating point s32.
    static snd_pcm_format_t formatForSubtype(int sndfileSubtype);
};

} // namespace Host
} // namespace Zelmar
