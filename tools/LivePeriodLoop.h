#pragma once

#include "tools/AlsaPeriodBuffers.h"
#include "tools/ChainHandover.h"
#include "tools/LiveTelemetry.h"
#include "tools/PeriodLoop.h"

#include <atomic>
#include <climits>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace Zelmar {
namespace Host {

class AlsaPcm;
class LiveChain;
class PeriodSource;

// The audio thread of a live run: input (a capture device or a file) -> the chain -> playback, period
// by period, paced by the devices' blocking calls. It neither allocates, locks, logs nor touches files
// beyond the PCM calls. The output fades in at the start and after every xrun (which is counted and
// recovered from), and fades out when a stop is requested; a device that fails otherwise ends the run at
// once. Once a period it measures the latency between the devices and reports how far it has moved to
// the chain's drift compensator. A new chain handed over fades the old one out and takes over between
// two periods, fading in.
class LivePeriodLoop : public PeriodLoop
{
public:
    struct Settings
    {
        unsigned int periodFrames = 1024;
        unsigned int sampleRate = 48000;
        // The run ends after this many frames went through the chain; 0 for no end.
        uint64_t maxFrames = 0;
    };

    // Gives the chain its period buffers.
    LivePeriodLoop(std::unique_ptr<LiveChain> chain, PeriodSource& source, AlsaPcm& playback,
                   Settings const& settings, LiveTelemetry& telemetry);

    void run(std::atomic<bool> const& stopRequested) override;

    // After the run: "<device>: <ALSA's reason>" when a device failed, else "".
    std::string describeFailure() const;

    // Main loop: gives `next` its period buffers and hands it to the audio thread; false (keeping it)
    // while the last one has not taken over yet. `onSwapped` runs on the main loop once it has.
    bool offer(std::unique_ptr<LiveChain>& next, std::function<void()> onSwapped);
    bool isSwapping() const { return m_chains.isUnderWay(); }
    LiveChain& getChain() const { return m_chains.getCurrent(); }

private:
    static constexpr uint64_t c_notFading = UINT64_MAX;
    static constexpr int c_unmeasured = INT_MIN;

    void attach(LiveChain& chain);
    void runPeriods(std::atomic<bool> const& stopRequested);
    bool startDevices();
    bool recover(LiveTelemetry::Side side, int error);
    bool fail(PeriodSource const& device, int error);
    bool isOver(uint64_t frames, std::atomic<bool> const& stopRequested);
    bool playPeriod(uint64_t frames);
    LiveChain& chainForPeriod(uint64_t frames);
    void measureLatency(LiveChain& chain, unsigned int frames);

    PeriodSource& m_source;
    AlsaPcm& m_playback;
    Settings m_settings;
    LiveTelemetry& m_telemetry;
    std::unique_ptr<AlsaPeriodBuffers> m_captured;
    std::unique_ptr<AlsaPeriodBuffers> m_played;
    ChainHandover m_chains;
    // Where a fade-out asked for by a signal, or for a new chain, must have ended, in frames through the
    // chain.
    uint64_t m_fadedOutBy = c_notFading;
    uint64_t m_swapBy = c_notFading;
    // The latency when the devices last started, from which its movement is measured.
    int m_latencyAtStart = c_unmeasured;
    PeriodSource const* m_failedDevice = nullptr;
    int m_failure = 0;
};

} // namespace Host
} // namespace Zelmar
