#include "dsp/StaticNoiseDetector.h"

#include "dsp/FilterChHp1.h"
#include "dsp/ThetaBuffer.h"

#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>

using namespace Zelmar;

namespace {

// Peak gain of a cosine after the filter settled; the filter runs on every eighth sample at 44.1 kHz.
double gainDbAt(double frequency)
{
    FilterChHp1 filter;
    double peak = 0.0;
    for (int i = 0; i < 24000; ++i) {
        double const y =
            filter.step(tSample(0.5 * std::cos(2.0 * M_PI * frequency * i * 8 / 44100))).toDouble();
        peak = i < 4000 ? 0.0 : std::max(peak, std::fabs(y));
    }
    return 20.0 * std::log10(peak / 0.5);
}

} // namespace

TEST(StaticNoiseDetectorTest, BlockAndAnalysisLengthsFollowTheSampleRate)
{
    StaticNoiseDetector detector(44100.0f);
    EXPECT_EQ(detector.getBlockLength(), 55u);
    EXPECT_EQ(detector.getAnalysisLength(), 82688u);
    detector.adjustSampleRate(48000.0f);
    EXPECT_EQ(detector.getBlockLength(), 60u);
    EXPECT_EQ(detector.getAnalysisLength(), 90000u);
}

TEST(StaticNoiseDetectorTest, LevelsBelowMinusSixtyAreSqueezedContinuously)
{
    EXPECT_EQ(StaticNoiseDetector::compressLevel(-59.9f), -59.9f);
    EXPECT_NEAR(StaticNoiseDetector::compressLevel(-60.0f), -60.0f, 1e-5);
    EXPECT_NEAR(StaticNoiseDetector::compressLevel(-60.01f), -60.01f, 0.01);
    EXPECT_NEAR(StaticNoiseDetector::compressLevel(-70.0f), -69.0714f, 1e-4);
    EXPECT_NEAR(StaticNoiseDetector::compressLevel(-120.0f), -93.2270f, 1e-3);
}

TEST(StaticNoiseDetectorTest, SteadyLevelIsStaticAndFluctuatingLevelIsActive)
{
    StaticNoiseDetector detector(44100.0f);
    unsigned int const n = detector.getAnalysisLength();
    for (unsigned int i = 0; i + 1 < n; ++i)
        detector.addSquareValue(1e-7f); // -70 dB
    EXPECT_FALSE(detector.needsAnalysis());
    detector.addSquareValue(1e-7f);
    detector.setFastRms(0.1f);
    detector.setFastRms(0.3f);
    ASSERT_TRUE(detector.needsAnalysis());

    SignalState state;
    detector.analyseStaticActive(state);
    EXPECT_FALSE(detector.needsAnalysis());
    EXPECT_EQ(detector.getState(), StaticNoiseDetector::Static);
    EXPECT_NEAR(state.meanDb, -69.0714f, 1e-3);
    EXPECT_NEAR(detector.getLastMean(), std::pow(10.0f, -69.0714f / 20.0f), 1e-8);
    EXPECT_LT(state.deviation, 0.01f);
    EXPECT_NEAR(state.staticTime, 15.0f, 1e-3);
    EXPECT_NEAR(state.secondsSinceStart, 15.0f, 1e-3);
    EXPECT_FLOAT_EQ(state.averageFastRms, 0.2f);
    EXPECT_NEAR(state.lastBlockRms, std::sqrt(1e-7f), 1e-8);

    // Alternating 10 ms blocks of -40 dB and digital silence (-120 dB, squeezed to -93.2 dB).
    unsigned int const block = detector.getBlockLength();
    for (unsigned int i = 0; i < n; ++i)
        detector.addSquareValue(i / block % 2 ? 0.0f : 1e-4f);
    detector.analyseStaticActive(state);
    EXPECT_EQ(detector.getState(), StaticNoiseDetector::Active);
    EXPECT_EQ(state.staticTime, 0.0f);
    EXPECT_GE(state.deviation, 3.0f);
    EXPECT_EQ(state.averageFastRms, 0.0f);
    EXPECT_NEAR(state.secondsSinceStart, 30.0f, 1e-3);
}

TEST(FilterChHp1Test, PassesHighFrequenciesAndHasItsCornerAtFiftyHertz)
{
    for (auto const& [frequency, db, tolerance] :
         {std::tuple{50.0, -3.01, 0.05}, {1000.0, 0.0, 0.05}, {44100.0 / 16, 0.0, 0.001}, {5.0, -20.0, 1.0}})
        EXPECT_NEAR(gainDbAt(frequency), db, tolerance) << frequency;
    FilterChHp1 filter;
    tSample y;
    for (int i = 0; i < 2000; ++i)
        y = filter.step(tSample(0.25));
    EXPECT_LT(std::fabs(y.toDouble()), 1e-6) << "DC is removed";
}

TEST(ThetaBufferTest, StatisticsCoverTheFilledPartAndTheLatestValuesOnceWrapped)
{
    ThetaBuffer theta(4);
    EXPECT_EQ(theta.calcMean(), 0.0f);
    theta.addValue(1.0f);
    theta.addValue(2.0f);
    EXPECT_FLOAT_EQ(theta.calcMean(), 1.5f);
    EXPECT_EQ(theta.calcDeviation(1.5f), 0.0f) << "fewer than three values";
    theta.addValue(3.0f);
    EXPECT_FLOAT_EQ(theta.calcDeviation(2.0f), 1.0f) << "divisor count - 1";
    theta.addValue(4.0f);
    theta.addValue(5.0f); // overwrites the 1
    EXPECT_EQ(theta.getCount(), 4u);
    EXPECT_FLOAT_EQ(theta.calcMean(), 3.5f);
    EXPECT_FLOAT_EQ(theta.calcDeviation(3.5f), std::sqrt(5.0f / 3.0f));
    theta.reset(2);
    EXPECT_EQ(theta.getCount(), 0u);
    theta.addValue(-6.0f);
    EXPECT_FLOAT_EQ(theta.calcMean(), -6.0f);
}
