#pragma once

#include <atomic>

namespace Zelmar {
namespace Host {

// What an audio thread does for a whole run, period after period: paced by a clock or by the devices.
class PeriodLoop
{
public:
    virtual ~PeriodLoop() = default;

    // Runs on the audio thread until the run is over; `stopRequested` rises on SIGINT or SIGTERM.
    virtual void run(std::atomic<bool> const& stopRequested) = 0;
};

} // namespace Host
} // namespace Zelmar
