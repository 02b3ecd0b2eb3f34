#pragma once

#include "base/DriftCompensatorType.h"
#include "base/String.h"
#include "dsp/Export.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>

namespace Zelmar {

class Chain;

// Base of the clock-drift compensators and their factory. The host reports how many frames its
// playback runs ahead of (+) or behind (-) the reference clock; a subclass turns that into a
// correction. Delta reports are logged only while a marker file exists.
class ORVANDELDSP_EXPORT DriftCompensator
{
public:
    using tTimePoint = std::chrono::time_point<std::chrono::system_clock, std::chrono::nanoseconds>;

    struct AverageValue
    {
        void addValue(int v);
        // The mean rounded half away from zero (0 when nothing was added); starts a new average.
        int readAndReset();

        int32_t sum = 0;
        uint32_t count = 0;
    };

    // Null for a type this library does not provide.
    static std::unique_ptr<DriftCompensator> create(Tools::Hardware::DriftCompensatorType type);

    DriftCompensator();
    virtual ~DriftCompensator() = default;

    DriftCompensator(DriftCompensator const&) = delete;
    DriftCompensator& operator=(DriftCompensator const&) = delete;

    virtual void initChain(Chain& chain);
    virtual void start();
    // Also switches delta reports off for every compensator until one is constructed again.
    virtual void stop();
    // Returns the correction ordered for the next period: +1 drop a frame, -1 insert one, 0 none.
    // The base only stores the delta for a subclass's periodic work and orders nothing itself.
    virtual int setFrameDelta(int delta);

    bool isRunning() const { return m_running.load(); }
    int getFrameDelta() const { return m_frameDelta.load(); }

    // Logs the delta with the average of the values collected since the last report, at most once
    // per report period.
    void reportFrameDelta(int delta);

    // The first line of the file as a base-10 integer; 0 when there is none to read.
    static long long readLogPeriod(char const* path);

    // The marker file whose presence enables delta reports; it may hold the period in ms (at least 50).
    static Tools::String const& getEnableFrameDiffFile();
    // Tests point this elsewhere; the next construction reads it.
    static void setEnableFrameDiffFile(Tools::String const& path);
    static bool isFrameDiffLoggingEnabled() { return s_enableFrameDiff.load(std::memory_order_relaxed); }
    static uint64_t getDiffReportDelta() { return s_diffReportDelta.load(std::memory_order_relaxed); }

protected:
    // Clock-steering variants start each run from a clean measurement: no last value, delta or average.
    void clearClockMeasurement()
    {
        m_lastValue = 0;
        m_frameDelta.store(0);
        m_average = AverageValue();
    }

    std::atomic<bool> m_running{false};
    std::atomic<int32_t> m_frameDelta{0};
    int32_t m_lastValue = 0;
    AverageValue m_average;
    tTimePoint m_lastReport{};

private:
    static Tools::String s_enableFrameDiffFile;
    // Written at construction and by stop(), read wherever deltas arrive; one word each.
    static std::atomic<bool> s_enableFrameDiff;
    static std::atomic<uint64_t> s_diffReportDelta;
};

} // namespace Zelmar
