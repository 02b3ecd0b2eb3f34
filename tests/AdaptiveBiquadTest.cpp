// The volume-adaptive biquad and limiter, which follow the hardware daemon's volume through a curve.
#include "dsp/AdaptiveBiquad.h"
#include "dsp/AdaptiveLimiter.h"
#include "dsp/LinearInterpolator.h"

#include "base/HardwaredClient.h"
#include "tests/support/FakeHardwared.h"
#include "tests/support/LogCapture.h"
#include "tests/support/MainLoop.h"
#include "tests/support/ModuleHarness.h"
#include "tests/support/Thrown.h"
#include <cmath>
#include <gtest/gtest.h>
#include <stdexcept>

using namespace Zelmar;
using Testing::runMainLoopUntil;
using tKey = LinearInterpolator::tKey;

namespace {

// A peak at 1 kHz whose gain follows "-60=<at -60 dB>,0=0", and a limiter of instant attack and release,
// which holds a loud input at exactly its threshold, following "-60=-12,0=-6".
class VolumeAdaptiveTest : public Testing::HardwaredBusTest
{
protected:
    void configure(char const* gainAtMinus60 = "9")
    {
        m_biquad->setParameters({{"type", "peak"},
                                 {"frequency", "1000"},
                                 {"q", "1"},
                                 {"gain", "-60=" + std::string(gainAtMinus60) + ",0=0"}},
                                48000);
        m_limiter->setParameters({{"attack", "0"}, {"release", "0"}, {"threshold", "-60=-12,0=-6"}}, 48000);
    }

    // What each runs with, as opposed to the curve the biquad reports.
    std::pair<std::string, std::string> applied() const
    {
        return {m_biquad->Module::getParameters().getString("gain").str(),
                m_limiter->getParameters().getString("threshold").str()};
    }

    double gainAt1kHzDb()
    {
        auto const out = m_biquadHarness.processInPeriods({Testing::makeSine(0.25, 1000, 48000, 4800)}, 480);
        return Testing::levelDb(out[0], 960, 0.25);
    }
    double limitedLevel()
    {
        return m_limiterHarness.run(Testing::constant(480, tSample(0.9)))[479].toDouble();
    }

    bool hasVolume(double volume)
    {
        return runMainLoopUntil([=] { return HardwaredClient::get().getVolume() == volume; });
    }

    Testing::LogCapture m_log;
    std::shared_ptr<AdaptiveBiquad> m_biquad = std::make_shared<AdaptiveBiquad>("loudness");
    std::shared_ptr<AdaptiveLimiter> m_limiter = std::make_shared<AdaptiveLimiter>("guard");
    Testing::ModuleHarness m_biquadHarness{m_biquad}, m_limiterHarness{m_limiter};
};

using AdaptiveBiquadTest = VolumeAdaptiveTest;

} // namespace

TEST_F(AdaptiveBiquadTest, WithoutTheDaemonBothLogAndTakeVolumeZero)
{
    configure();
    EXPECT_EQ(m_log.lines(),
              std::vector<std::string>(2, "4 DbusServiceWatcher::getProperty: property volume  - no proxy."));
    // Volume 0 lies below the curves.
    EXPECT_EQ(applied(), std::make_pair(std::string("9.000000"), std::string("-12.000000")));
    m_biquad->setControlGain(-30.0);
    m_limiter->setControlGain(-30.0);
    EXPECT_EQ(applied(), std::make_pair(std::string("4.500000"), std::string("-9.000000")));
    EXPECT_EQ(m_biquad->getParameters().getString("gain"), "-60=9,0=0") << "the biquad reports its curve";
}

TEST_F(AdaptiveBiquadTest, ADaemonWithoutVolumeIsLoggedAndTakenAsVolumeZero)
{
    m_daemon.withholdVolume();
    bringUpDaemon();
    m_log.clear();
    configure();
    EXPECT_EQ(m_log.lines()[0], "4 DbusServiceWatcher::getProperty: property volume does not exist (yet).");
    EXPECT_EQ(applied().first, "9.000000");
}

TEST_F(AdaptiveBiquadTest, BothFollowTheDaemonVolumeInParametersAndAudio)
{
    m_biquad->onModuleAddedToChain(m_biquadHarness.getChain());
    m_daemon.setVolume(50);
    bringUpDaemon();
    ASSERT_TRUE(hasVolume(50));
    m_limiter->onModuleAddedToChain(m_limiterHarness.getChain());
    configure("12");
    // Volume 50 is -12.04 dB on the device curve, 12.04 / 60 of the way down from 0 dB.
    double const fromTop = 12.0412 / 60;
    EXPECT_NEAR(std::stod(applied().first), 12 * fromTop, 1e-3);
    EXPECT_NEAR(gainAt1kHzDb(), 12 * fromTop, 0.05);
    EXPECT_NEAR(std::stod(applied().second), -6 - 6 * fromTop, 1e-3);
    EXPECT_NEAR(limitedLevel(), std::pow(2.0, (-6 - 6 * fromTop) / 6), 1e-4);

    m_daemon.setVolume(100);
    ASSERT_TRUE(runMainLoopUntil(
        [&] { return applied() == std::make_pair(std::string("0.000000"), std::string("-6.000000")); }));
    EXPECT_NEAR(gainAt1kHzDb(), 0.0, 0.05);
    EXPECT_NEAR(limitedLevel(), 0.5, 1e-6);
    m_daemon.setVolume(0);
    ASSERT_TRUE(runMainLoopUntil([&] { return applied().first == "12.000000"; }));
    EXPECT_NEAR(gainAt1kHzDb(), 12.0, 0.05);
    EXPECT_EQ(m_log.count("4 "), 0);
}

TEST_F(AdaptiveBiquadTest, AnUnchangedVolumeDoesNotReparameterise)
{
    m_biquad->onModuleAddedToChain(m_biquadHarness.getChain());
    m_daemon.setVolume(40);
    bringUpDaemon();
    ASSERT_TRUE(hasVolume(40));
    configure();
    Module::ParameterSet const* const inForce = m_biquad->getCurrentParameterSet();
    // The daemon reports a new value, but it is the same volume step.
    m_daemon.setVolume(40.3);
    ASSERT_TRUE(hasVolume(40.3));
    m_biquad->setControlGain(m_biquad->getControlGain());
    EXPECT_EQ(m_biquad->getCurrentParameterSet(), inForce);
    m_daemon.setVolume(41);
    ASSERT_TRUE(hasVolume(41));
    EXPECT_NE(m_biquad->getCurrentParameterSet(), inForce);
}

namespace {

double at(LinearInterpolator const& curve, double key)
{
    return curve.getInterpolated(tKey(key)).toDouble();
}

} // namespace

TEST(LinearInterpolatorTest, InterpolatesStraightLinesAndHoldsBothEnds)
{
    LinearInterpolator curve;
    curve.load("-60=9,0=0");
    EXPECT_EQ(at(curve, -30), 4.5);

    curve.load("-30=4,0=0,-60=9");
    for (auto const& [key, value] : {std::pair{-45.0, 6.5},
                                     {-30.0, 4.0},
                                     {-15.0, 2.0},
                                     {-60.0, 9.0},
                                     {-100.0, 9.0},
                                     {0.0, 0.0},
                                     {12.0, 0.0}})
        EXPECT_EQ(at(curve, key), value) << key;
    // A third of the way truncates to raw 174762 of 2^19, so the value ends 2 raw steps above 2.
    curve.load("0=3,3=0");
    EXPECT_EQ(curve.getInterpolated(tKey(1.0)).getRaw(), 2 * 524288 + 2);
}

TEST(LinearInterpolatorTest, ParsesPiecesThroughSinglePrecisionAndIgnoresPiecesWithoutEquals)
{
    LinearInterpolator curve;
    curve.load("volume,-10=1, -10=3 ,0.1=-0.1,");
    ASSERT_EQ(curve.getBreakpoints().size(), 2u);
    EXPECT_EQ(curve.getBreakpoints().at(tKey(-10.0)).toDouble(), 3.0);
    // 0.1f * 2^19 = 52428.8 truncates toward zero on both sides.
    EXPECT_EQ(curve.getBreakpoints().begin()->first.getRaw(), -10 * 524288);
    EXPECT_EQ(curve.getBreakpoints().rbegin()->first.getRaw(), 52428);
    EXPECT_EQ(curve.getBreakpoints().rbegin()->second.getRaw(), -52428);

    // Loading replaces, so a curve of pieces without "=" is empty.
    curve.load("-60;9");
    EXPECT_EQ(Testing::thrownMessage<std::invalid_argument>([&] { curve.getInterpolated(tKey(0.0)); }),
              "linear interpolator is not set up properly");
    for (char const* text : {"-60=9,loud=0", "=3", "-60="})
        EXPECT_EQ(Testing::thrownMessage<std::invalid_argument>([&] { curve.load(text); }), "stod") << text;
    EXPECT_EQ(Testing::thrownMessage<std::out_of_range>([&] { curve.load("-60=1e999"); }), "stod");
}

TEST(LinearInterpolatorDeathTest, NumbersOf4096OrMoreDoNotFit)
{
    LinearInterpolator curve;
    curve.loadBreakpoint("4095.5=-4095.5");
    EXPECT_DEATH(curve.loadBreakpoint("4096=0"), "v < pow\\(2, pre_comma\\)");
    EXPECT_DEATH(curve.loadBreakpoint("0=5000"), "v < pow\\(2, pre_comma\\)");
}
