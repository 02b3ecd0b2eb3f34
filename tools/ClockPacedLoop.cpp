#include "tools/ClockPacedLoop.h"

#include <cerrno>
#include <cstdint>
#include <ctime>

namespace Zelmar {
namespace Host {

namespace {

// The moment `frames` frames after `start` are due, without overflow for any run length.
timespec framesAfter(timespec const& start, uint64_t frames, unsigned int sampleRate)
{
    uint64_t const nanoseconds = uint64_t(start.tv_nsec) + (frames % sampleRate) * 1000000000u / sampleRate;
    timespec due{};
    due.tv_sec = start.tv_sec + time_t(frames / sampleRate) + time_t(nanoseconds / 1000000000u);
    due.tv_nsec = long(nanoseconds % 1000000000u);
    return due;
}

} // namespace

void ClockPacedLoop::run(std::atomic<bool> const& stopRequested)
{
    timespec start{};
    clock_gettime(CLOCK_MONOTONIC, &start);
    uint64_t frames = 0;
    while (!stopRequested.load()) {
        unsigned int const taken = m_playPeriod();
        if (taken == 0)
            break;
        frames += taken;
        // Against the start rather than the last wake-up, so late wake-ups do not add up.
        timespec const due = framesAfter(start, frames, m_sampleRate);
        while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &due, nullptr) == EINTR) {
        }
    }
}

} // namespace Host
} // namespace Zelmar
