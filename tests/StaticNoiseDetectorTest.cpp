#include "dsp/StaticNoiseDetector.h"

#include <cmath>
#include <gtest/gtest.h>

using namespace Zelmar;

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
