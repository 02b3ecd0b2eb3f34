#pragma once

#include "tools/PeriodTimeHistogram.h"

#include <atomic>
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

    // Frames that went through the chain.
    std::atomic<uint64_t> frames{0};
    std::atomic<uint32_t> xruns[2] = {};
    // From the capture handing over a period to the chain having filled the playback's.
    PeriodTimeHistogram periodTimes;
};

} // namespace Host
} // namespace Zelmar
