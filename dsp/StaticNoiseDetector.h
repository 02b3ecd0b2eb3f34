#pragma once

#include "dsp/ThetaBuffer.h"

#include <cstdint>

namespace Zelmar {

// One analysis of the level statistics, for the threshold learning and for diagnostics.
struct SignalState
{
    float secondsSinceStart = 0.0f;
    float averageFastRms = 0.0f;
    float deviation = 0.0f;
    float staticTime = 0.0f;
    float meanDb = 0.0f;
    float lastBlockRms = 0.0f;
};

// Slow statistics of the decimated, squared input: 10 ms block levels (dB) in a 30 s ring, analysed
// every 15 s. A level that varies by 3 dB or more (standard deviation) counts as an active signal even
// below the threshold; a steady one is static noise whose mean can serve as the noise floor.
// Everything after construction runs on one thread and never allocates.
class StaticNoiseDetector
{
public:
    enum State : uint8_t
    {
        Static = 0,
        Active = 1
    };

    // fs is the rate of the undecimated input.
    explicit StaticNoiseDetector(float fs);

    void adjustSampleRate(float fs);
    void addSquareValue(float squareValue);
    void setFastRms(float rms);
    bool needsAnalysis() const { return m_framesSinceAnalysis >= m_analysisLength; }
    void analyseStaticActive(SignalState& state);

    // Seconds of input that `frames` decimated frames stand for.
    float toWallClockTime(uint64_t frames) const
    {
        return static_cast<float>(frames) * c_decimation / m_sampleRate;
    }
    float getCurrentWallclockTime() const { return toWallClockTime(m_totalCount); }

    State getState() const { return m_state; }
    float getSampleRate() const { return m_sampleRate; }
    float getLastMean() const { return m_lastMean; }
    float getLastRms() const { return m_lastRms; }
    unsigned int getBlockLength() const { return m_blockLength; }
    unsigned int getAnalysisLength() const { return m_analysisLength; }

    // Levels below -60 dB are squeezed, continuously, so that silence does not dominate the statistics.
    static float compressLevel(float levelDb);

    static constexpr unsigned int c_decimation = 8;
    static constexpr float c_staticDeviationDb = 3.0f;

private:
    State m_state = Static;
    float m_sampleRate = 0.0f;
    float m_lastRms = 0.0f;
    float m_squareSum = 0.0f;
    unsigned int m_squareCount = 0;
    unsigned int m_blockLength = 1000;
    unsigned int m_thetaLength = 3000;
    ThetaBuffer m_theta;
    float m_lastMean = 0.0f;
    uint64_t m_totalCount = 0;
    float m_staticTime = 0.0f;
    float m_fastRmsSum = 0.0f;
    unsigned int m_framesSinceAnalysis = 0;
    unsigned int m_analysisLength = 0;
    unsigned int m_fastRmsCount = 0;
};

} // namespace Zelmar
