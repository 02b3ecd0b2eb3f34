#include "dsp/AdaptiveLimiter.h"

#include "base/HardwaredClient.h"
#include "base/Tracer.h"
#include "dsp/ModuleFactory.h"
#include "tests/support/FakeHardwared.h"
#include "tests/support/LogCapture.h"
#include "tests/support/MainLoop.h"
#include "tests/support/ModuleHarness.h"

#include <cmath>
#include <gtest/gtest.h>
#include <string>

using namespace Zelmar;
using Testing::runMainLoopUntil;

namespace {

class AdaptiveLimiterTest : public Testing::HardwaredBusTest
{
protected:
    double threshold() const { return m_limiter->getParameters().getDouble("threshold"); }

    // Instant attack and release hold a loud input at exactly the threshold.
    double limitedLevel() { return m_harness.run(Testing::constant(480, tSample(0.9)))[479].toDouble(); }

    std::shared_ptr<Module> m_created{ModuleFactory::get().createModule("adaptive-limiter", "guard")};
    std::shared_ptr<AdaptiveLimiter> m_limiter = std::dynamic_pointer_cast<AdaptiveLimiter>(m_created);
    Testing::ModuleHarness m_harness{m_created};
};

} // namespace

TEST_F(AdaptiveLimiterTest, ReportsAndAppliesTheThresholdOfTheCurrentVolume)
{
    ASSERT_NE(m_limiter, nullptr);
    EXPECT_EQ(m_limiter->getType(), "adaptive-limiter");
    m_daemon.setVolume(50);
    bringUpDaemon();
    ASSERT_TRUE(runMainLoopUntil([] { return HardwaredClient::get().getVolume() == 50; }));
    // Subscribed only now, so the volume at configuration is the one read then.
    m_limiter->onModuleAddedToChain(m_harness.getChain());
    m_limiter->setParameters({{"attack", "0"}, {"release", "0"}, {"threshold", "-60=-12,0=-6"}}, 48000);

    // Volume 50 is -12.04 dB on the device curve.
    double const expectedDb = -12 + 6 * (60 - 12.0412) / 60;
    EXPECT_NEAR(threshold(), expectedDb, 1e-3);
    EXPECT_NEAR(limitedLevel(), std::pow(2.0, expectedDb / 6), 1e-4);

    m_daemon.setVolume(100);
    ASSERT_TRUE(
        runMainLoopUntil([&] { return m_limiter->getParameters().getString("threshold") == "-6.000000"; }));
    EXPECT_NEAR(limitedLevel(), 0.5, 1e-6);
}

TEST_F(AdaptiveLimiterTest, WithoutTheDaemonLogsAndTakesVolumeZero)
{
    Testing::LogCapture log;
    m_limiter->setParameters({{"attack", "1"}, {"release", "50"}, {"threshold", "-60=-12,0=-6"}}, 48000);
    EXPECT_EQ(log.messagesAt(Tools::Tracer::Error),
              std::vector<std::string>{"DbusServiceWatcher::getProperty: property volume  - no proxy."});
    EXPECT_EQ(m_limiter->getParameters().getString("threshold"), "-12.000000");
}
