#pragma once

#include "tools/AlsaPeriodBuffers.h"
#include "tools/LiveTelemetry.h"
#include "tools/PeriodLoop.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

namespace Zelmar {

class Chain;
class InputStage;
class OutputStage;

namespace Host {

class AlsaPcm;
class PeriodSource;

// The audio thread of a live run: input (a capture device or a file) -> Chain::process() -> playback,
// period by period, paced by the devices' blocking calls. It neither allocates, locks, logs nor touches
// files beyond the PCM calls. The output fades in at the start and after every xrun (which is counted
// and recovered from), and fades out when a stop is requested; a device that fails otherwise ends the
// run at once.
class LivePeriodLoop : public PeriodLoop
{
public:
    struct Stages
    {
        Chain* chain;
        InputStage* input;
        OutputStage* output;
    };

    struct Settings
    {
        unsigned int periodFrames = 1024;
        unsigned int sampleRate = 48000;
        // The run ends after this many frames went through the chain; 0 for no end.
        uint64_t maxFrames = 0;
    };

    // Gives the stages their period buffers.
    LivePeriodLoop(Stages const& stages, PeriodSource& source, AlsaPcm& playback, Settings const& settings,
                   LiveTelemetry& telemetry);

    void run(std::atomic<bool> const& stopRequested) override;

    // After the run: "<device>: <ALSA's reason>" when a device failed, else "".
    std::string describeFailure() const;

private:
    static constexpr uint64_t c_notFading = UINT64_MAX;

    bool startDevices();
    bool recover(LiveTelemetry::Side side, int error);
    bool fail(PeriodSource const& device, int error);
    bool isOver(uint64_t frames, std::atomic<bool> const& stopRequested);
    bool playPeriod(uint64_t frames);

    // One word, so that a new chain can be handed to the audio thread between periods.
    std::atomic<Stages const*> m_stages;
    Stages m_initialStages;
    PeriodSource& m_source;
    AlsaPcm& m_playback;
    Settings m_settings;
    LiveTelemetry& m_telemetry;
    std::unique_ptr<AlsaPeriodBuffers> m_captured;
    std::unique_ptr<AlsaPeriodBuffers> m_played;
    // Where a fade-out asked for by a signal must have ended, in frames through the chain.
    uint64_t m_fadedOutBy = c_notFading;
    PeriodSource const* m_failedDevice = nullptr;
    int m_failure = 0;
};

} // namespace Host
} // namespace Zelmar
