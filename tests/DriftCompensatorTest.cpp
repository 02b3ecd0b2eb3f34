#include "dsp/DriftCompensator.h"
#include "dsp/TimeStretcher.h"

#include "dsp/Chain.h"
#include "dsp/StereoWrapper.h"
#include "dsp/TimeStretchingDriftCompensator.h"
#include "dsp/TimeStretchingLineInDriftCompensator.h"
#include "support/LogCapture.h"
#include "support/ModuleHarness.h"
#include "support/TemporaryDirectory.h"

#include <cmath>
#include <gtest/gtest.h>
#include <vector>

using namespace Zelmar;
using Testing::ModuleHarness;

namespace {

// Points the logging marker at a scratch path and collects the log lines of each test.
class DriftCompensatorTest : public ::testing::Test
{
protected:
    DriftCompensatorTest() { DriftCompensator::setEnableFrameDiffFile(m_scratch.path("marker")); }
    ~DriftCompensatorTest() override
    {
        DriftCompensator::setEnableFrameDiffFile("/etc/orvandel/drift_comp_info_enabled");
    }

    Testing::TemporaryDirectory m_scratch{"drift-XXXXXX"};
    Testing::LogCapture m_log;
};

class Averaging : public DriftCompensator
{
public:
    AverageValue& average() { return m_average; }
};

// A chain holding a time stretcher `id`, mono or stereo-wrapped, where the compensators look for it,
// run through the module harness.
struct Stretching
{
    Stretching(char const* id, bool stereo)
        : module(stereo ? chain.addStereoModule("timestretcher", id) : chain.addModule("timestretcher", id))
    {
    }
    // The frames on each output after an 8-frame period.
    std::vector<size_t> period()
    {
        std::vector<size_t> frames;
        for (auto const& out :
             harness.process(ModuleHarness::tChannels(module->getNumInPorts(), std::vector<tSample>(8))))
            frames.push_back(out.size());
        return frames;
    }
    Chain chain{48000};
    std::shared_ptr<Module> module;
    ModuleHarness harness{module};
};

// Gives the stretcher, or both of a stereo-wrapped pair, the order for the next period.
void order(std::shared_ptr<Module> const& module, TimeStretcher::TaskForNextBuffer task)
{
    if (auto const pair = std::dynamic_pointer_cast<StereoWrapper>(module)) {
        order(pair->getLeft(), task);
        order(pair->getRight(), task);
    } else {
        std::static_pointer_cast<TimeStretcher>(module)->setTaskForNextBuffer(task);
    }
}

std::vector<tSample> samples(std::vector<double> const& values)
{
    return std::vector<tSample>(values.begin(), values.end());
}

std::vector<tSample> raw(std::vector<int32_t> const& values)
{
    return std::vector<tSample>(values.begin(), values.end());
}

} // namespace

TEST_F(DriftCompensatorTest, AverageRoundsHalfAwayFromZero)
{
    DriftCompensator::AverageValue average;
    for (auto const& [values, expected] :
         {std::pair{std::vector<int>{}, 0}, {{1, 2}, 2}, {{-1, -2}, -2}, {{-1, -1, 1}, 0}}) {
        for (int value : values)
            average.addValue(value);
        int const read = average.readAndReset();
        EXPECT_EQ(std::make_pair(read, average.readAndReset()), std::make_pair(expected, 0)) << values.size();
    }
}

TEST_F(DriftCompensatorTest, MarkerFileEnablesReportsAndSetsTheirPeriod)
{
    DriftCompensator quiet;
    EXPECT_FALSE(DriftCompensator::isFrameDiffLoggingEnabled());
    for (auto const& [content, period] : {std::pair{"20\n", 500u}, {"2000\n", 2000u}, {"", 500u}}) {
        m_scratch.write("marker", content);
        DriftCompensator enabled;
        EXPECT_TRUE(DriftCompensator::isFrameDiffLoggingEnabled());
        EXPECT_EQ(DriftCompensator::getDiffReportDelta(), period) << content;
        EXPECT_EQ(m_log.lines().back(),
                  "3 DriftCompensator::enabling logging with every " + std::to_string(period) + " ms");
    }
    EXPECT_EQ(m_log.lines().size(), 3u);
    EXPECT_EQ(DriftCompensator::readLogPeriod("/nonexistent/drift"), 0);
}

TEST_F(DriftCompensatorTest, ReportsAtMostOncePerPeriodUntilAnyCompensatorStops)
{
    m_scratch.write("marker", "2000");
    Averaging compensator;
    DriftCompensator other;
    m_log.clear();
    compensator.average().addValue(1);
    compensator.average().addValue(2);
    compensator.reportFrameDelta(7);
    compensator.reportFrameDelta(8);
    EXPECT_EQ(m_log.lines(), std::vector<std::string>{"2 frame delta: 7 2"});
    other.start();
    EXPECT_TRUE(other.isRunning());
    other.stop();
    EXPECT_FALSE(other.isRunning());
    Averaging fresh;
    fresh.stop();
    fresh.reportFrameDelta(9);
    EXPECT_EQ(m_log.lines().size(), 2u) << "only the construction notice";
    EXPECT_EQ(other.setFrameDelta(-12), 0);
    EXPECT_EQ(other.getFrameDelta(), -12);
}

TEST_F(DriftCompensatorTest, SmoothedSignDecidesTheOrder)
{
    TimeStretchingDriftCompensator ahead;
    std::vector<int> orders;
    for (int call = 1; call <= 14; ++call)
        orders.push_back(ahead.setFrameDelta(1));
    EXPECT_EQ(orders, std::vector<int>({0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}))
        << "the first Skip on the 14th";
    EXPECT_NEAR(ahead.getFilteredDelta(), 1 - std::pow(0.95, 14), 1e-12);
    EXPECT_EQ(ahead.setFrameDelta(100), 1);
    // A zero decays the value by 5% without pushing it: 1 - 0.95^15 = 0.536..., then 0.509..., 0.484...
    EXPECT_EQ(ahead.setFrameDelta(0), 1);
    EXPECT_EQ(ahead.setFrameDelta(0), 0);
    EXPECT_NEAR(ahead.getFilteredDelta(), (1 - std::pow(0.95, 15)) * 0.95 * 0.95, 1e-12);
    TimeStretchingDriftCompensator wobbling;
    int ordered = 0;
    for (int call = 0; call < 200; ++call)
        ordered += wobbling.setFrameDelta(call % 2 ? -3 : 3) != 0;
    EXPECT_EQ(ordered, 0);
}

TEST_F(DriftCompensatorTest, BothStretchersOfAStereoPairGetTheSameOrder)
{
    Stretching rig("timestretcher", true);
    TimeStretchingDriftCompensator compensator;
    compensator.initChain(rig.chain);
    for (int call = 0; call < 14; ++call)
        compensator.setFrameDelta(2);
    EXPECT_EQ(rig.period(), (std::vector<size_t>{7, 7}));
    for (int call = 0; call < 40; ++call)
        compensator.setFrameDelta(-2);
    EXPECT_EQ(rig.period(), (std::vector<size_t>{9, 9}));
    EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(DriftCompensatorTest, LineInCountsFramesOfAMonoStretcherAndAMissingOneIsLogged)
{
    Stretching rig("line-in-timestretcher", false);
    TimeStretchingLineInDriftCompensator compensator;
    EXPECT_EQ(compensator.getNumSamplesProduced(), 0u);
    compensator.initChain(rig.chain);
    rig.period();
    for (int call = 0; call < 14; ++call)
        compensator.setFrameDelta(-1);
    EXPECT_EQ(rig.period(), std::vector<size_t>{9});
    EXPECT_EQ(compensator.getNumSamplesProduced(), 17u);
    compensator.resetNumSamplesProduced();
    EXPECT_EQ(compensator.getNumSamplesProduced(), 0u);

    Stretching other("timestretcher", true);
    TimeStretchingLineInDriftCompensator unbound;
    unbound.initChain(other.chain);
    EXPECT_EQ(m_log.lines(),
              std::vector<std::string>{
                  "4 There is no timestretcher with id line-in-timestretcher in the dsp chain"});
    for (int call = 0; call < 13; ++call)
        unbound.setFrameDelta(1);
    EXPECT_EQ(unbound.setFrameDelta(1), 1) << "orders are still computed";
    EXPECT_EQ(unbound.getNumSamplesProduced(), 0u);
    EXPECT_EQ(other.period(), (std::vector<size_t>{8, 8}));
}

TEST_F(DriftCompensatorTest, DeltaLogLineIsThrottledWhenEnabled)
{
    TimeStretchingDriftCompensator silent;
    silent.setFrameDelta(3);
    EXPECT_TRUE(m_log.lines().empty());
    m_scratch.write("marker", "");
    TimeStretchingDriftCompensator logging;
    m_log.clear();
    logging.setFrameDelta(3);
    logging.setFrameDelta(4);
    EXPECT_EQ(m_log.lines(), std::vector<std::string>{"2 TimeStretchingDriftCompensator: frame delta 3"});
}

TEST(TimeStretcherTest, ChangesOneFrameWhereTheStepIsSmallestOncePerOrder)
{
    auto const stretcher = std::make_shared<TimeStretcher>("ts");
    ModuleHarness harness(stretcher);
    auto const run = [&](std::vector<tSample> const& in, TimeStretcher::TaskForNextBuffer task) {
        order(stretcher, task);
        return harness.run(in);
    };
    auto const input = samples({0, 5, 5, 9});
    harness.run(input);
    EXPECT_EQ(stretcher->findSmallestChangeInBuffer(), 2u);
    EXPECT_EQ(run(input, TimeStretcher::Skip), samples({0, 5, 9}));
    EXPECT_EQ(run(input, TimeStretcher::Stretch), samples({0, 5, 5, 5, 9}));
    EXPECT_EQ(harness.run(input), input) << "the order is used up by the period it changed";
    EXPECT_EQ(run(input, TimeStretcher::None), input);
    // Equal steps: the first pair wins; the last pair is a candidate too.
    EXPECT_EQ(run(samples({1, 2, 3, 4}), TimeStretcher::Skip), samples({1, 3, 4}));
    EXPECT_EQ(run(samples({0, 5, 9, 10}), TimeStretcher::Skip), samples({0, 5, 9}));
    // The jump across the whole range wraps to a step of 2 raw units and so counts as the smallest.
    EXPECT_EQ(run(raw({INT32_MIN + 1, INT32_MAX, INT32_MAX - 4, 0}), TimeStretcher::Skip),
              raw({INT32_MIN + 1, INT32_MAX - 4, 0}));
    EXPECT_EQ(run(samples({1, 2}), TimeStretcher::Skip), samples({1}));
    EXPECT_EQ(run(samples({1, 2}), TimeStretcher::Stretch), samples({1, 1.5, 2}));
    // Stretch -1.0 and 0.5 to -0.25; a sum of -2^-27 halves toward zero to 0; the sum wraps in 32 bits.
    EXPECT_EQ(run(samples({-1.0, 0.5}), TimeStretcher::Stretch), samples({-1.0, -0.25, 0.5}));
    EXPECT_EQ(run(raw({-3, 2}), TimeStretcher::Stretch), raw({-3, 0, 2}));
    EXPECT_EQ(run(raw({INT32_MAX, 1}), TimeStretcher::Stretch), raw({INT32_MAX, -(1 << 30), 1}));
    EXPECT_EQ(stretcher->getNumSamplesProduced(), 4u + 3 + 5 + 4 + 4 + 3 + 3 + 3 + 1 + 3 + 3 + 3 + 3);

    // A period of one frame leaves the order pending.
    stretcher->resetNumSamplesProduced();
    EXPECT_EQ(run(samples({0.25}), TimeStretcher::Skip), samples({0.25}));
    EXPECT_EQ(harness.run({}), std::vector<tSample>{});
    EXPECT_EQ(harness.run(input), samples({0, 5, 9}));
    EXPECT_EQ(harness.run(input), input);
    EXPECT_EQ(stretcher->getNumSamplesProduced(), 1u + 0 + 3 + 4);
}

TEST(TimeStretcherTest, OutputStorageNeverMovesEvenForAFullPeriod)
{
    std::vector<tSample> const full(Chain::getMaxNumFramesPerProcessCall(), tSample(0.125));
    for (bool stereo : {false, true}) {
        Stretching rig("ts", stereo);
        std::vector<tSample const*> const storage = {rig.module->getOutPort(0)->getRawData(),
                                                     rig.module->getOutPort(stereo)->getRawData()};
        ModuleHarness::tChannels out;
        for (auto task : {TimeStretcher::Stretch, TimeStretcher::Skip, TimeStretcher::Stretch}) {
            order(rig.module, task);
            out = rig.harness.process(ModuleHarness::tChannels(stereo ? 2 : 1, full));
            EXPECT_EQ(storage, std::vector<tSample const*>({rig.module->getOutPort(0)->getRawData(),
                                                            rig.module->getOutPort(stereo)->getRawData()}));
        }
        EXPECT_EQ(out[0].size(), full.size() + 1);
        EXPECT_EQ(out.back(), out[0]);
    }
}

TEST(TimeStretcherTest, MovedStorageIsFatal)
{
    auto const stretcher = std::make_shared<TimeStretcher>("ts");
    ModuleHarness harness(stretcher);
    // Without the reserved frame an insertion into a full period has to reallocate.
    stretcher->getOutPort(0)->getUnderlyingStorage().shrink_to_fit();
    stretcher->setTaskForNextBuffer(TimeStretcher::Stretch);
    std::vector<tSample> const full(Chain::getMaxNumFramesPerProcessCall(), tSample(0.125));
    EXPECT_DEATH(harness.run(full), "oldOutPtr == getOutPort\\(0\\)->getRawData\\(\\)");
}
