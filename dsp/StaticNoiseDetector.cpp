#include "dsp/StaticNoiseDetector.h"

#include <cmath>
#include <cstring>

namespace Zelmar {

namespace {

constexpr float c_blockSeconds = 0.01f;
constexpr float c_analysisSeconds = 15.0f;
constexpr float c_unmeasurableLevelDb = -120.0f;
constexpr uint32_t c_unmeasurableRmsBits = 0x358637BD; // 1e-6

float unmeasurableRms()
{
    float rms;
    std::memcpy(&rms, &c_unmeasurableRmsBits, sizeof rms);
    return rms;
}

} // namespace

StaticNoiseDetector::StaticNoiseDetector(float fs)
{
    adjustSampleRate(fs);
    m_theta.reset(m_thetaLength);
}

void StaticNoiseDetector::adjustSampleRate(float fs)
{
    m_totalCount = 0;
    m_framesSinceAnalysis = 0;
    m_sampleRate = fs;
    m_blockLength = static_cast<unsigned int>(fs * c_blockSeconds / c_decimation);
    m_analysisLength = static_cast<unsigned int>(std::roundf(fs * c_analysisSeconds / c_decimation));
}

float StaticNoiseDetector::compressLevel(float levelDb)
{
    if (levelDb >= -60.0f)
        return levelDb;
    return -48.518463f - std::pow((levelDb + 55.0f) * -20.0f, 0.53f);
}

void StaticNoiseDetector::addSquareValue(float squareValue)
{
    ++m_totalCount;
    ++m_framesSinceAnalysis;
    m_squareSum += squareValue;
    if (++m_squareCount < m_blockLength)
        return;
    m_lastRms = std::sqrt(m_squareSum / static_cast<float>(m_squareCount));
    float level;
    if (std::isnormal(m_lastRms)) {
        level = 20.0f * std::log10(m_lastRms);
    } else {
        level = c_unmeasurableLevelDb;
        m_lastRms = unmeasurableRms();
    }
    m_theta.addValue(compressLevel(level));
    m_squareSum = 0.0f;
    m_squareCount = 0;
}

void StaticNoiseDetector::setFastRms(float rms)
{
    m_fastRmsSum += rms;
    ++m_fastRmsCount;
}

void StaticNoiseDetector::analyseStaticActive(SignalState& state)
{
    float const mean = m_theta.calcMean();
    float const deviation = m_theta.calcDeviation(mean);
    m_lastMean = std::pow(10.0f, mean / 20.0f);
    if (deviation < c_staticDeviationDb) {
        m_state = Static;
        m_staticTime += toWallClockTime(m_analysisLength);
    } else {
        m_state = Active;
        m_staticTime = 0.0f;
    }
    state.secondsSinceStart = getCurrentWallclockTime();
    state.averageFastRms = m_fastRmsCount ? m_fastRmsSum / static_cast<float>(m_fastRmsCount) : 0.0f;
    state.deviation = deviation;
    state.staticTime = m_staticTime;
    state.meanDb = mean;
    state.lastBlockRms = m_lastRms;
    m_framesSinceAnalysis = 0;
    m_fastRmsSum = 0.0f;
    m_fastRmsCount = 0;
}

} // namespace Zelmar
