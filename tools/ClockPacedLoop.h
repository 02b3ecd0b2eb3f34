#pragma once

#include "tools/PeriodLoop.h"

#include <functional>

namespace Zelmar {
namespace Host {

// Plays periods at the audio's own speed by the monotonic clock, the way a sound card would take them.
class ClockPacedLoop : public PeriodLoop
{
public:
    // Takes one period through the chain and returns the input frames it took, 0 at the end.
    using PlayPeriod = std::function<unsigned int()>;

    ClockPacedLoop(unsigned int sampleRate, PlayPeriod playPeriod)
        : m_sampleRate(sampleRate), m_playPeriod(std::move(playPeriod))
    {
    }

    // Calls playPeriod until it returns 0 or a stop is requested, each period `frames / sampleRate`
    // seconds after the one before.
    void run(std::atomic<bool> const& stopRequested) override;

private:
    unsigned int m_sampleRate;
    PlayPeriod m_playPeriod;
};

} // namespace Host
} // namespace Zelmar
