#include "dsp/AlsaDriftCompensator.h"

#include "base/Tracer.h"
#include "support/FileTail.h"
#include "support/LogCapture.h"
#include "support/MainLoop.h"
#include "support/ModelClock.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

using namespace Zelmar;

namespace {

// Makes the test plugin (tests/alsa) the "default" control device; it appends every value
// written to m_record. alsa-lib caches its configuration, so each test drops the cache.
class AlsaDriftCompensatorTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        std::remove(m_record.c_str());
        setenv("DRIFT_CONTROL_RECORD", m_record.c_str(), 1);
        useConfig("drift-control.conf");
    }

    void TearDown() override
    {
        unsetenv("ALSA_CONFIG_PATH");
        unsetenv("DRIFT_CONTROL_RECORD");
        snd_config_update_free_global();
        std::remove(m_record.c_str());
    }

    static void useConfig(char const* name)
    {
        setenv("ALSA_CONFIG_PATH", (std::string(ALSA_TEST_CONFIG_DIR) + "/" + name).c_str(), 1);
        snd_config_update_free_global();
    }

    // Values written to the control since the last call.
    std::vector<long> written()
    {
        std::istringstream lines(m_tail.readNew());
        std::vector<long> values;
        for (long value; lines >> value;)
            values.push_back(value);
        return values;
    }

    std::string const m_record = ::testing::TempDir() + "drift-control-" + std::to_string(getpid());
    Testing::FileTail m_tail{m_record};
    Testing::LogCapture m_log;
};

} // namespace

TEST_F(AlsaDriftCompensatorTest, ConstantZeroWritesNothingAndDestructionWritesZero)
{
    {
        auto const made = DriftCompensator::create(Tools::Hardware::DriftCompensatorType::AlsaControl);
        auto* compensator = dynamic_cast<AlsaDriftCompensator*>(made.get());
        ASSERT_NE(compensator, nullptr);
        compensator->start();
        for (int tick = 0; tick < 5; ++tick)
            EXPECT_TRUE(compensator->writeClock());
        EXPECT_TRUE(written().empty());
        EXPECT_EQ(m_log.leveled(), (std::vector<std::string>{
                                       "3 AlsaDriftCompensator: 2nd generation HW clock control initialized",
                                       "3 AlsaDriftCompensator::start"}));
    }
    EXPECT_EQ(written(), std::vector<long>{0});
}

TEST_F(AlsaDriftCompensatorTest, TwoHundredFramesSaturateInOneTick)
{
    AlsaDriftCompensator compensator;
    compensator.start();
    compensator.setFrameDelta(200);
    EXPECT_TRUE(compensator.writeClock());
    EXPECT_EQ(written(), std::vector<long>{-1000});
    EXPECT_TRUE(compensator.writeClock());
    EXPECT_TRUE(written().empty()) << "still saturated, not written again";
}

TEST_F(AlsaDriftCompensatorTest, StartAfterStopResetsTheController)
{
    AlsaDriftCompensator compensator;
    compensator.start();
    compensator.setFrameDelta(20);
    for (int tick = 0; tick < 50; ++tick)
        compensator.writeClock();
    compensator.stop();
    EXPECT_FALSE(compensator.writeClock());
    EXPECT_EQ(m_log.messages().back(), "AlsaDriftCompensator::stop");
    written();
    compensator.start();
    EXPECT_EQ(compensator.getFrameDelta(), 0);
    for (int delta : {5, 5, 4}) {
        compensator.setFrameDelta(delta);
        compensator.writeClock();
    }
    // As from a fresh start: 10 * -5 + 3 * -0.05 + 1.5 * -5 / 0.01;
    // then -50 - 0.3; then -40 - 0.42 + 1.5 * 1 / 0.01.
    EXPECT_EQ(written(), (std::vector<long>{-800, -50, 109}));
}

TEST_F(AlsaDriftCompensatorTest, MissingElementOrDeviceLeavesItInert)
{
    useConfig("drift-control-other-element.conf");
    {
        AlsaDriftCompensator compensator;
        compensator.start();
        compensator.setFrameDelta(3);
        EXPECT_FALSE(compensator.writeClock());
    }
    EXPECT_EQ(m_log.leveled(),
              (std::vector<std::string>{
                  "6 AlsaDriftCompensator: Cannot find mixer control Drift compensator",
                  "6 AlsaDriftCompensator: unable to initialize drift alsa control: Drift compensator",
                  "3 AlsaDriftCompensator::start", "4 STOP DRIFT COMP"}));
    m_log.clear();

    useConfig("drift-control-broken.conf");
    {
        AlsaDriftCompensator compensator;
        compensator.start();
        EXPECT_FALSE(compensator.writeClock());
    }
    EXPECT_EQ(m_log.leveled(),
              (std::vector<std::string>{
                  "6 AlsaDriftCompensator: unable to open mixer device for clock control: No such device",
                  "3 AlsaDriftCompensator::start", "4 STOP DRIFT COMP"}));
    EXPECT_TRUE(written().empty());
}

TEST_F(AlsaDriftCompensatorTest, TimerOnTheMainLoopKeepsWriting)
{
    AlsaDriftCompensator compensator;
    compensator.start();
    compensator.setFrameDelta(5);
    std::vector<long> values;
    // Accumulates: the main-loop helper evaluates the condition once more before returning.
    auto const collect = [&] {
        for (long value : written())
            values.push_back(value);
        return values.size() >= 2;
    };
    ASSERT_TRUE(Testing::runMainLoopUntil(collect));
    EXPECT_EQ(values, (std::vector<long>{-800, -50}));
    compensator.stop();
    values.clear();
    EXPECT_FALSE(Testing::runMainLoopUntil(collect, std::chrono::milliseconds(250)));
    EXPECT_TRUE(values.empty());
}

// Model clock at 48 kHz, 50 ppm fast, sped up by `gain` ppm per control unit; the host measures
// its phase rounded to whole frames every 100 ms tick. The loop settles within +-1 frame for gains
// from about 0.055 (the +-1000 range must cover the offset with some margin: the saturated
// integral winds up) to about 1.34 ppm per unit, where each one-frame step's derivative kick of
// 150 units moves the phase by a frame itself and the delta keeps swinging by several frames.
TEST_F(AlsaDriftCompensatorTest, ModelClockSettlesWithinOneFrameForModerateGains)
{
    // Ticks after which the delta stays within +-1 until the end, or -1.
    auto settle = [&](double gain) {
        AlsaDriftCompensator compensator;
        compensator.start();
        Testing::ModelClock clock;
        long control = 0;
        for (int tick = 0; tick < 4000; ++tick) {
            compensator.setFrameDelta(clock.measureDelta());
            if (!compensator.writeClock())
                return -2;
            std::vector<long> const values = written();
            if (!values.empty())
                control = values.back();
            clock.run(50.0 + gain * static_cast<double>(control));
        }
        return clock.getSettledAt();
    };
    int const weak = settle(0.1);
    EXPECT_GE(weak, 0);
    EXPECT_LT(weak, 2000);
    int const strong = settle(1.2);
    EXPECT_GE(strong, 0);
    EXPECT_LT(strong, 600);
    EXPECT_EQ(settle(1.5), -1) << "oscillates";
    EXPECT_EQ(settle(0.04), -1) << "cannot cover 50 ppm";
}
