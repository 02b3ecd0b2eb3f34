#pragma once

#include "tools/PeriodTimeHistogram.h"

#include <atomic>
#include <climits>
#include <cstdint>

namespace Zelmar {
namespace Host {

// What a live run has done so far: written by the audio thread alone, without locks, and readable from
// any thread at any time.
struct LiveTelemetry
{
    enum Side
    {
        c_capture,
        c_playback
    };

    enum State : uint8_t
    {
        c_starting,
        c_running,
        // Fading out for a new chain.
        c_swapping,
        // Fading out before the end.
        c_stopping,
        c_stopped
    };

    // Single writer: a plain load and store instead of a read-modify-write.
    template <class T> static void add(std::atomic<T>& counter, T amount)
    {
        counter.store(counter.load(std::memory_order_relaxed) + amount, std::memory_order_relaxed);
    }

    std::atomic<State> state{c_starting};
    // Frames that went through the chain.
    std::atomic<uint64_t> frames{0};
    std::atomic<uint32_t> xruns[2] = {};
    // From the capture handing over a period to the chain having filled the playback's.
    PeriodTimeHistogram periodTimes;
    // The sum of the period times, for the load over any stretch of the run.
    std::atomic<uint64_t> busyNanoseconds{0};
    // Samples beyond the playback format's full scale, clipped on their way to the device.
    std::atomic<uint64_t> clippedSamples{0};

    // Frames between capture and playback (captured and not read, plus written and not played), and
    // how far that has moved since the devices last started.
    std::atomic<int32_t> latency{0};
    std::atomic<int32_t> latencyDelta{0};
    std::atomic<int32_t> latencyMin{INT32_MAX};
    std::atomic<int32_t> latencyMax{INT32_MIN};
    // The drift compensators' corrections, and the frames that went through while one was at work.
    std::atomic<uint64_t> framesDropped{0};
    std::atomic<uint64_t> framesInserted{0};
    std::atomic<uint64_t> compensatedFrames{0};
};

} // namespace Host
} // namespace Zelmar
