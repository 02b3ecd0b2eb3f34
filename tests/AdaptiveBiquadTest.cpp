#include "dsp/AdaptiveBiquad.h"

#include "base/HardwaredClient.h"
#include "base/Tracer.h"
#include "tests/support/FakeHardwared.h"
#include "tests/support/LogCapture.h"
#include "tests/support/MainLoop.h"
#include "tests/support/ModuleHarness.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

using namespace Zelmar;
using Testing::runMainLoopUntil;

namespace {

class AdaptiveBiquadTest : public Testing::HardwaredBusTest
{
protected:
    AdaptiveBiquadTest() { m_biquad->onModuleAddedToChain(m_harness.getChain()); }

    void configure(char const* gainCurve)
    {
        m_biquad->setParameters({{"type", "peak"}, {"frequency", "1000"}, {"q", "1"}, {"gain", gainCurve}},
                                48000);
    }

    // The gain the biquad runs with, as opposed to the curve it reports.
    std::string appliedGain() const { return m_biquad->Module::getParameters().getString("gain").str(); }

    double gainAt1kHzDb()
    {
        auto const out = m_harness.processInPeriods({Testing::makeSine(0.25, 1000, 48000, 4800)}, 480);
        return Testing::levelDb(out[0], 960, 0.25);
    }

    Testing::LogCapture m_log;
    std::shared_ptr<AdaptiveBiquad> m_biquad = std::make_shared<AdaptiveBiquad>("loudness");
    Testing::ModuleHarness m_harness{m_biquad};
};

} // namespace

TEST_F(AdaptiveBiquadTest, WithoutTheDaemonLogsAndTakesVolumeZero)
{
    configure("-60=9,0=0");
    EXPECT_EQ(m_log.messagesAt(Tools::Tracer::Error),
              std::vector<std::string>{"DbusServiceWatcher::getProperty: property volume  - no proxy."});
    // Volume 0 lies below the curve.
    EXPECT_EQ(appliedGain(), "9.000000");

    m_biquad->setControlGain(-30.0);
    EXPECT_EQ(appliedGain(), "4.500000");
    EXPECT_EQ(m_biquad->getParameters().getString("gain"), "-60=9,0=0");
}

TEST_F(AdaptiveBiquadTest, ADaemonWithoutVolumeIsLoggedAndTakenAsVolumeZero)
{
    m_daemon.withholdVolume();
    bringUpDaemon();
    configure("-60=9,0=0");
    EXPECT_EQ(
        m_log.messagesAt(Tools::Tracer::Error),
        std::vector<std::string>{"DbusServiceWatcher::getProperty: property volume does not exist (yet)."});
    EXPECT_EQ(appliedGain(), "9.000000");
}

TEST_F(AdaptiveBiquadTest, FollowsTheDaemonVolumeInParametersAndAudio)
{
    m_daemon.setVolume(50);
    bringUpDaemon();
    ASSERT_TRUE(runMainLoopUntil([] { return HardwaredClient::get().getVolume() == 50; }));
    configure("-60=12,0=0");
    // Volume 50 is -12.04 dB on the device curve, 12.04 / 60 of the way down from 0 dB.
    double const expectedDb = 12 * 12.0412 / 60;
    EXPECT_NEAR(std::stod(appliedGain()), expectedDb, 1e-3);
    EXPECT_NEAR(gainAt1kHzDb(), expectedDb, 0.05);

    m_daemon.setVolume(100);
    ASSERT_TRUE(runMainLoopUntil([&] { return appliedGain() == "0.000000"; }));
    EXPECT_NEAR(gainAt1kHzDb(), 0.0, 0.05);
    m_daemon.setVolume(0);
    ASSERT_TRUE(runMainLoopUntil([&] { return appliedGain() == "12.000000"; }));
    EXPECT_NEAR(gainAt1kHzDb(), 12.0, 0.05);
    EXPECT_TRUE(m_log.messagesAt(Tools::Tracer::Error).empty());
}

TEST_F(AdaptiveBiquadTest, AnUnchangedVolumeDoesNotReparameterise)
{
    m_daemon.setVolume(40);
    bringUpDaemon();
    ASSERT_TRUE(runMainLoopUntil([] { return HardwaredClient::get().getVolume() == 40; }));
    configure("-60=12,0=0");
    Module::ParameterSet const* const inForce = m_biquad->getCurrentParameterSet();

    // The daemon reports a new value, but it is the same volume step.
    m_daemon.setVolume(40.3);
    ASSERT_TRUE(runMainLoopUntil([] { return HardwaredClient::get().getVolume() == 40.3; }));
    m_biquad->setControlGain(m_biquad->getControlGain());
    EXPECT_EQ(m_biquad->getCurrentParameterSet(), inForce);

    m_daemon.setVolume(41);
    ASSERT_TRUE(runMainLoopUntil([] { return HardwaredClient::get().getVolume() == 41; }));
    EXPECT_NE(m_biquad->getCurrentParameterSet(), inForce);
}
