#pragma once

#include "base/Expiration.h"
#include "base/Signal.h"
#include "dsp/Export.h"
#include "dsp/FilterChHp1.h"
#include "dsp/Module.h"
#include "dsp/StaticNoiseDetector.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

namespace Zelmar {

// Tells whether the line input carries a signal. The audio thread compares the level of a high-passed
// copy of every eighth sample with a threshold and records a result; a 250 ms main-loop timer consumes
// it, reports changes to the callbacks and, within the first two minutes, learns a threshold from a
// steady noise floor and keeps it in the file <directory><id> so that it survives restarts.
//
// The threshold directory is "/tmp/" unless the second constructor names another one (tests do).
class ORVANDELDSP_EXPORT SignalDetector : public Module
{
public:
    enum DetectionResult : uint8_t
    {
        NoProcessingSinceLastReport = 0,
        Silent = 1,
        Active = 2
    };

    enum Reason : uint8_t
    {
        StateIsActive = 1,
        RmsOverThreshold = 2,
        MeanOverThreshold = 3
    };

    // Why and at what level (linear) the input last turned active.
    struct DetectionInfo
    {
        uint8_t reason = 0;
        float value = 0.0f;
    };

    struct LearntThreshold
    {
        float thresholdDb;
        float headroomDb;
    };

    explicit SignalDetector(Tools::String const& id);
    // Where detectors made with the first constructor (as the factory makes them) keep their file;
    // hosts that must not touch /tmp point it elsewhere before loading a chain. Ends with a separator.
    static void setDefaultThresholdDirectory(std::string directory);
    // thresholdDirectory ends with a separator; the threshold file is thresholdDirectory + id.
    SignalDetector(Tools::String const& id, std::string thresholdDirectory);
    ~SignalDetector() override;

    void setParameters(Parameters const& parameters, unsigned int sampleRate) override;
    unsigned int getNumOutPorts() const override { return 0; }
    unsigned int getNumInPorts() const override { return 1; }
    void process() override;

    // Audio thread: what process() runs on input 0; public so that samples can be fed without a chain.
    void runDetector(tSample const* samples, unsigned int n);

    // Callbacks hear changes only (true: signal present); connecting does not report the current state.
    Tools::Connection onThresholdTriggered(std::function<void(bool)> callback);
    // Main loop, every 250 ms.
    void pollSignal();

    // Returns the result and resets it to NoProcessingSinceLastReport; fills info when it is Active.
    DetectionResult consumeDetectionResult(DetectionInfo& info);
    void presetDetectionResult(DetectionResult result);

    static std::string detectionResultAsString(DetectionResult result);
    static char const* reasonAsString(uint8_t reason);

    // Headroom from 3 dB for a -55 dB floor to 12 dB for -80 dB and below, where the floor counts as -80.
    static LearntThreshold thresholdForNoiseFloor(float meanDb);
    // Steady for 30 s, within the first 120 s, and quieter than -55 dB.
    static bool canLearnFrom(SignalState const& state);

    std::string thresholdFilename() const;
    // threshold is linear, headroom in dB; both are written in dB with one decimal.
    void saveThreshold(float threshold, float headroom);
    void loadThreshold();

    float getCurrentWallclockTime() const { return m_wallclockSeconds.load(std::memory_order_relaxed); }
    float getThreshold() const { return m_threshold.load(std::memory_order_relaxed); }
    bool hasMeasuredThreshold() const { return m_hasMeasuredThreshold; }

    static constexpr int32_t c_startupSkipFrames = 100000;
    static constexpr uint32_t c_holdSeconds = 10;
    static constexpr unsigned int c_pollMilliseconds = 250;

private:
    struct Trigger
    {
        uint8_t reason;
        float value;
    };

    void learnThreshold(float noiseFloorDb);
    Trigger findTrigger(float rms, float threshold) const;
    void updateResult(bool loud, bool holding, Trigger const& trigger);
    void analyseWhenDue();

    // The result word packs the result (bits 0-1), the reason (bits 2-3) and the value (a float whose
    // four lowest mantissa bits are dropped), so that the threads share exactly one atomic word.
    static uint32_t nextResultWord(uint32_t word, bool loud, bool holding, Trigger const& trigger);
    static uint32_t packInfo(uint32_t word, Trigger const& trigger);
    static DetectionInfo unpackInfo(uint32_t word);

    static std::string s_defaultThresholdDirectory;

    std::string m_thresholdDirectory;
    std::atomic<uint32_t> m_sampleRate{0};
    std::atomic<float> m_threshold{0.0f};
    bool m_hasMeasuredThreshold = false;
    int32_t m_holdFrames = 0;
    Tools::Signal<void(bool)> m_triggerSignal;
    DetectionResult m_reportedResult = Silent;
    Tools::Expiration m_pollTimer;
    int32_t m_startupSkipFrames = c_startupSkipFrames;
    // Made for 44100 Hz and left so at any rate: its block length and analysis interval, and the
    // seconds it reports, are those of 44100 Hz input.
    StaticNoiseDetector m_staticNoise{44100.0f};
    FilterChHp1 m_filter;
    std::atomic<uint32_t> m_result{Silent};
    // Audio thread to main loop: the noise floor of an analysis that qualifies for learning, NaN if none.
    std::atomic<float> m_noiseFloorToLearn;
    std::atomic<float> m_wallclockSeconds{0.0f};

    static_assert(std::atomic<uint32_t>::is_always_lock_free, "the result is shared without locks");
    static_assert(std::atomic<float>::is_always_lock_free, "levels are shared without locks");
};

} // namespace Zelmar
