#pragma once

#include <memory>
#include <string>

namespace Zelmar {
namespace Host {

class AlsaPeriodBuffers;

// Where a live run's input comes from, period by period: a capture device or a sound file.
// Everything but describe() runs on the audio thread and answers with ALSA's error codes.
class PeriodSource
{
public:
    virtual ~PeriodSource() = default;

    // Fills up to `frames` frames of `capture` and sets its period to them. Returns how many (fewer
    // only at the end of a file, 0 after it) or a negative error: -EPIPE for an overrun.
    virtual int readPeriod(AlsaPeriodBuffers& capture, unsigned int frames) = 0;
    // Starts delivering; stop() drops what is pending and makes ready for the next start().
    virtual int start() = 0;
    virtual int stop() = 0;
    // Frames the device holds between its converter and the host (captured and not read yet, or
    // written and not played yet), or a negative error; 0 for a file, which has no clock.
    virtual int delay() = 0;

    // "capture PCM hw:0,0" or "input song.wav", for messages.
    virtual std::string const& describe() const = 0;
    // Period buffers in this source's layout, for the longest period a chain takes.
    virtual std::unique_ptr<AlsaPeriodBuffers> makeBuffers() const = 0;
};

} // namespace Host
} // namespace Zelmar
