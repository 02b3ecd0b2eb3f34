#include "dsp/DriftCompensator.h"

#include "base/Tracer.h"
#include "dsp/TimeStretchingDriftCompensator.h"
#include "dsp/TimeStretchingLineInDriftCompensator.h"
#include "support/LogCapture.h"
#include "support/StretcherChain.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <vector>

using namespace Zelmar;
using Type = Tools::Hardware::DriftCompensatorType;

namespace {

// Points the logging marker at a scratch path and collects the log entries of each test.
class DriftCompensatorTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        // Unique per process: ctest runs tests of this suite in parallel processes.
        m_marker = ::testing::TempDir() + "drift_comp_info_enabled." + std::to_string(getpid());
        std::remove(m_marker.c_str());
        DriftCompensator::setEnableFrameDiffFile(m_marker);
    }

    void TearDown() override
    {
        std::remove(m_marker.c_str());
        DriftCompensator::setEnableFrameDiffFile("/etc/orvandel/drift_comp_info_enabled");
    }

    void writeMarker(char const* content) { std::ofstream(m_marker) << content; }

    std::string m_marker;
    Testing::LogCapture m_log;
};

class Averaging : public DriftCompensator
{
public:
    AverageValue& average() { return m_average; }
};

// Frames on each output port of the stretcher after one 8-frame period.
std::vector<unsigned int> runPeriod(Testing::StretcherChain& rig)
{
    rig.run(std::vector<tSample>(8, tSample(0.25)));
    std::vector<unsigned int> frames;
    for (unsigned int port = 0; port < rig.module->getNumOutPorts(); ++port)
        frames.push_back(static_cast<unsigned int>(rig.output(port).size()));
    return frames;
}

} // namespace

TEST_F(DriftCompensatorTest, AverageRoundsHalfAwayFromZero)
{
    DriftCompensator::AverageValue average;
    for (auto const& [values, expected] :
         {std::pair{std::vector<int>{}, 0}, {{1, 2}, 2}, {{-1, -2}, -2}, {{-1, -1, 1}, 0}}) {
        for (int value : values)
            average.addValue(value);
        EXPECT_EQ(average.readAndReset(), expected) << values.size();
        EXPECT_EQ(average.readAndReset(), 0) << "reset";
    }
}

TEST_F(DriftCompensatorTest, MarkerFileEnablesReportsAndSetsTheirPeriod)
{
    DriftCompensator quiet;
    EXPECT_FALSE(DriftCompensator::isFrameDiffLoggingEnabled());
    EXPECT_TRUE(m_log.messages().empty());

    writeMarker("20\n");
    DriftCompensator shortPeriod;
    EXPECT_TRUE(DriftCompensator::isFrameDiffLoggingEnabled());
    EXPECT_EQ(DriftCompensator::getDiffReportDelta(), 500u);

    writeMarker("2000\n");
    DriftCompensator longPeriod;
    EXPECT_EQ(DriftCompensator::getDiffReportDelta(), 2000u);
    ASSERT_EQ(m_log.leveled().size(), 2u);
    EXPECT_EQ(m_log.leveled()[1], "3 DriftCompensator::enabling logging with every 2000 ms");

    writeMarker("");
    DriftCompensator empty;
    EXPECT_TRUE(DriftCompensator::isFrameDiffLoggingEnabled());
    EXPECT_EQ(DriftCompensator::getDiffReportDelta(), 500u);
    EXPECT_EQ(DriftCompensator::readLogPeriod(m_marker.c_str()), 0);
    EXPECT_EQ(DriftCompensator::readLogPeriod("/nonexistent/drift"), 0);
}

TEST_F(DriftCompensatorTest, ReportsAtMostOncePerPeriodUntilAnyCompensatorStops)
{
    writeMarker("2000");
    Averaging compensator;
    DriftCompensator other;
    m_log.clear();
    compensator.average().addValue(1);
    compensator.average().addValue(2);
    compensator.reportFrameDelta(7);
    compensator.reportFrameDelta(8);
    EXPECT_EQ(m_log.leveled(), std::vector<std::string>{"2 frame delta: 7 2"});

    other.start();
    EXPECT_TRUE(other.isRunning());
    other.stop();
    EXPECT_FALSE(other.isRunning());
    Averaging fresh;
    EXPECT_TRUE(DriftCompensator::isFrameDiffLoggingEnabled());
    fresh.stop();
    fresh.reportFrameDelta(9);
    EXPECT_EQ(m_log.messages().size(), 2u) << "only the construction notice";

    EXPECT_EQ(other.setFrameDelta(-12), 0);
    EXPECT_EQ(other.getFrameDelta(), -12);
}

// The clock-steering types are created in their own suites, which provide a device to open.
TEST_F(DriftCompensatorTest, CreatesTheTimeStretchingTypes)
{
    auto const playback = DriftCompensator::create(Type::TimeStretching);
    auto const* stretching = dynamic_cast<TimeStretchingDriftCompensator*>(playback.get());
    ASSERT_NE(stretching, nullptr);
    EXPECT_EQ(stretching->getTimeStretcherModuleID(), "timestretcher");
    auto const lineIn = DriftCompensator::create(Type::TimeStretchingLineIn);
    auto const* lineInStretching = dynamic_cast<TimeStretchingLineInDriftCompensator*>(lineIn.get());
    ASSERT_NE(lineInStretching, nullptr);
    EXPECT_EQ(lineInStretching->getTimeStretcherModuleID(), "line-in-timestretcher");
    EXPECT_EQ(DriftCompensator::create(static_cast<Type>(7)), nullptr);
}

TEST_F(DriftCompensatorTest, SmoothedSignDecidesTheOrder)
{
    TimeStretchingDriftCompensator ahead;
    for (int call = 1; call <= 13; ++call)
        EXPECT_EQ(ahead.setFrameDelta(1), 0) << call;
    EXPECT_EQ(ahead.setFrameDelta(1), 1);
    EXPECT_NEAR(ahead.getFilteredDelta(), 1 - std::pow(0.95, 14), 1e-12);
    EXPECT_EQ(ahead.setFrameDelta(100), 1);
    // A zero decays the value by 5% without pushing it: 1 - 0.95^15 = 0.536..., then 0.509..., 0.484...
    EXPECT_EQ(ahead.setFrameDelta(0), 1);
    EXPECT_EQ(ahead.setFrameDelta(0), 0);
    EXPECT_NEAR(ahead.getFilteredDelta(), (1 - std::pow(0.95, 15)) * 0.95 * 0.95, 1e-12);

    TimeStretchingDriftCompensator wobbling;
    for (int call = 0; call < 200; ++call)
        EXPECT_EQ(wobbling.setFrameDelta(call % 2 ? -3 : 3), 0) << call;
}

TEST_F(DriftCompensatorTest, BothStretchersOfAStereoPairGetTheSameOrder)
{
    Testing::StretcherChain rig("timestretcher", true);
    TimeStretchingDriftCompensator compensator;
    compensator.initChain(rig.chain);
    for (int call = 0; call < 14; ++call)
        compensator.setFrameDelta(2);
    EXPECT_EQ(runPeriod(rig), (std::vector<unsigned int>{7, 7}));
    for (int call = 0; call < 40; ++call)
        compensator.setFrameDelta(-2);
    EXPECT_EQ(runPeriod(rig), (std::vector<unsigned int>{9, 9}));
    EXPECT_TRUE(m_log.messages().empty());
}

TEST_F(DriftCompensatorTest, LineInCountsFramesOfAMonoStretcher)
{
    Testing::StretcherChain rig("line-in-timestretcher", false);
    TimeStretchingLineInDriftCompensator compensator;
    EXPECT_EQ(compensator.getNumSamplesProduced(), 0u);
    compensator.initChain(rig.chain);
    runPeriod(rig);
    for (int call = 0; call < 14; ++call)
        compensator.setFrameDelta(-1);
    EXPECT_EQ(runPeriod(rig), std::vector<unsigned int>{9});
    EXPECT_EQ(compensator.getNumSamplesProduced(), 17u);
    compensator.resetNumSamplesProduced();
    EXPECT_EQ(compensator.getNumSamplesProduced(), 0u);
}

TEST_F(DriftCompensatorTest, MissingStretcherIsLoggedAndNotFatal)
{
    Testing::StretcherChain rig("timestretcher", true);
    TimeStretchingLineInDriftCompensator compensator;
    compensator.initChain(rig.chain);
    EXPECT_EQ(m_log.leveled(),
              std::vector<std::string>{
                  "4 There is no timestretcher with id line-in-timestretcher in the dsp chain"});
    for (int call = 0; call < 13; ++call)
        compensator.setFrameDelta(1);
    EXPECT_EQ(compensator.setFrameDelta(1), 1);
    EXPECT_EQ(compensator.getNumSamplesProduced(), 0u);
    EXPECT_EQ(runPeriod(rig), (std::vector<unsigned int>{8, 8}));
}

TEST_F(DriftCompensatorTest, DeltaLogLineIsThrottledWhenEnabled)
{
    TimeStretchingDriftCompensator silent;
    silent.setFrameDelta(3);
    EXPECT_TRUE(m_log.messages().empty());

    writeMarker("");
    TimeStretchingDriftCompensator logging;
    m_log.clear();
    logging.setFrameDelta(3);
    logging.setFrameDelta(4);
    EXPECT_EQ(m_log.leveled(), std::vector<std::string>{"2 TimeStretchingDriftCompensator: frame delta 3"});
}
