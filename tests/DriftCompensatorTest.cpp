#include "dsp/DriftCompensator.h"
#include "dsp/TimeStretcher.h"

#include "dsp/InputStage.h"
#include "dsp/StereoWrapper.h"
#include "dsp/TimeStretchingDriftCompensator.h"
#include "dsp/TimeStretchingLineInDriftCompensator.h"
#include "support/LogCapture.h"
#include "support/MemoryAlsaBuffers.h"
#include "support/TemporaryDirectory.h"

#include <cmath>
#include <gtest/gtest.h>
#include <vector>

using namespace Zelmar;

namespace {

// A compiled chain "in" -> time stretcher `id` (mono on the left channel, or stereo-wrapped) -> meters,
// fed the same period on both capture channels.
class StretcherChain
{
public:
    StretcherChain(Tools::String const& id, bool stereo) : chain(48000)
    {
        chain.addModule("input", "in");
        module = stereo ? chain.addStereoModule("timestretcher", id) : chain.addModule("timestretcher", id);
        chain.addModule("meter", "m0");
        chain.addModule("meter", "m1");
        chain.pullWire(id + "[0]", "in[0]");
        chain.pullWire("m0[0]", id + "[0]");
        chain.pullWire(stereo ? id + "[1]" : Tools::String("m1[0]"), "in[1]");
        if (stereo)
            chain.pullWire("m1[0]", id + "[1]");
        chain.compile();
        std::dynamic_pointer_cast<InputStage>(chain.findModule("in"))->setInput(&capture);
        if (auto const wrapper = std::dynamic_pointer_cast<StereoWrapper>(module))
            stretchers = {std::dynamic_pointer_cast<TimeStretcher>(wrapper->getLeft()),
                          std::dynamic_pointer_cast<TimeStretcher>(wrapper->getRight())};
        else
            stretchers = {std::dynamic_pointer_cast<TimeStretcher>(module)};
    }

    // One period with an order for every stretcher; returns the output of port 0.
    std::vector<tSample> run(std::vector<tSample> const& period, TimeStretcher::TaskForNextBuffer task)
    {
        for (auto& stretcher : stretchers)
            stretcher->setTaskForNextBuffer(task);
        return run(period);
    }

    std::vector<tSample> run(std::vector<tSample> const& period)
    {
        capture.getChannel(0).setPeriod(period);
        capture.getChannel(1).setPeriod(period);
        chain.process();
        return output(0);
    }

    std::vector<tSample> output(unsigned int port) const
    {
        AudioBuffer const& out = *module->getOutPort(port);
        return std::vector<tSample>(out.getRawData(), out.getRawData() + out.getNumSampleFrames());
    }

    Chain chain;
    Testing::MemoryAlsaBuffers capture{2};
    std::shared_ptr<Module> module;
    std::vector<std::shared_ptr<TimeStretcher>> stretchers;
};

// Points the logging marker at a scratch path and collects the log entries of each test.
class DriftCompensatorTest : public ::testing::Test
{
protected:
    DriftCompensatorTest() { DriftCompensator::setEnableFrameDiffFile(m_marker); }
    ~DriftCompensatorTest() override
    {
        DriftCompensator::setEnableFrameDiffFile("/etc/orvandel/drift_comp_info_enabled");
    }

    void writeMarker(char const* content) { m_scratch.write("marker", content); }

    Testing::TemporaryDirectory m_scratch{"drift-XXXXXX"};
    std::string const m_marker = m_scratch.path("marker");
    Testing::LogCapture m_log;
};

class Averaging : public DriftCompensator
{
public:
    AverageValue& average() { return m_average; }
};

// Frames on each output port of the stretcher after one 8-frame period.
std::vector<unsigned int> runPeriod(StretcherChain& rig)
{
    rig.run(std::vector<tSample>(8, tSample(0.25)));
    std::vector<unsigned int> frames;
    for (unsigned int port = 0; port < rig.module->getNumOutPorts(); ++port)
        frames.push_back(static_cast<unsigned int>(rig.output(port).size()));
    return frames;
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
        EXPECT_EQ(average.readAndReset(), expected) << values.size();
        EXPECT_EQ(average.readAndReset(), 0) << "reset";
    }
}

TEST_F(DriftCompensatorTest, MarkerFileEnablesReportsAndSetsTheirPeriod)
{
    DriftCompensator quiet;
    EXPECT_FALSE(DriftCompensator::isFrameDiffLoggingEnabled());
    for (auto const& [content, period] : {std::pair{"20\n", 500u}, {"2000\n", 2000u}, {"", 500u}}) {
        writeMarker(content);
        DriftCompensator enabled;
        EXPECT_TRUE(DriftCompensator::isFrameDiffLoggingEnabled());
        EXPECT_EQ(DriftCompensator::getDiffReportDelta(), period) << content;
        EXPECT_EQ(m_log.leveled().back(),
                  "3 DriftCompensator::enabling logging with every " + std::to_string(period) + " ms");
    }
    EXPECT_EQ(m_log.leveled().size(), 3u);
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
    fresh.stop();
    fresh.reportFrameDelta(9);
    EXPECT_EQ(m_log.messages().size(), 2u) << "only the construction notice";
    EXPECT_EQ(other.setFrameDelta(-12), 0);
    EXPECT_EQ(other.getFrameDelta(), -12);
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
    StretcherChain rig("timestretcher", true);
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
    StretcherChain rig("line-in-timestretcher", false);
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
    StretcherChain rig("timestretcher", true);
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

TEST(TimeStretcherTest, ChangesOneFrameWhereTheStepIsSmallest)
{
    StretcherChain rig("ts", false);
    auto const input = samples({0, 5, 5, 9});
    rig.run(input);
    EXPECT_EQ(rig.stretchers[0]->findSmallestChangeInBuffer(), 2u);
    EXPECT_EQ(rig.run(input, TimeStretcher::Skip), samples({0, 5, 9}));
    EXPECT_EQ(rig.run(input, TimeStretcher::Stretch), samples({0, 5, 5, 5, 9}));
    // The order is used up by the period it changed.
    EXPECT_EQ(rig.run(input), input);
    EXPECT_EQ(rig.run(input, TimeStretcher::None), input);

    // Equal steps: the first pair wins; the last pair is a candidate too.
    EXPECT_EQ(rig.run(samples({1, 2, 3, 4}), TimeStretcher::Skip), samples({1, 3, 4}));
    EXPECT_EQ(rig.run(samples({0, 5, 9, 10}), TimeStretcher::Skip), samples({0, 5, 9}));
    // The jump across the whole range wraps to a step of 2 raw units and so counts as the smallest.
    EXPECT_EQ(rig.run(raw({INT32_MIN + 1, INT32_MAX, INT32_MAX - 4, 0}), TimeStretcher::Skip),
              raw({INT32_MIN + 1, INT32_MAX - 4, 0}));

    EXPECT_EQ(rig.run(samples({1, 2}), TimeStretcher::Skip), samples({1}));
    EXPECT_EQ(rig.run(samples({1, 2}), TimeStretcher::Stretch), samples({1, 1.5, 2}));
    EXPECT_EQ(rig.stretchers[0]->getNumSamplesProduced(), 4u + 3 + 5 + 4 + 4 + 3 + 3 + 3 + 1 + 3);
    rig.stretchers[0]->resetNumSamplesProduced();
    EXPECT_EQ(rig.stretchers[0]->getNumSamplesProduced(), 0u);
}

TEST(TimeStretcherTest, OneFramePeriodLeavesTheOrderPending)
{
    StretcherChain rig("ts", false);
    EXPECT_EQ(rig.run(samples({0.25}), TimeStretcher::Skip), samples({0.25}));
    EXPECT_EQ(rig.run({}), std::vector<tSample>{});
    EXPECT_EQ(rig.run(samples({0, 5, 5, 9})), samples({0, 5, 9}));
    EXPECT_EQ(rig.run(samples({0, 5, 5, 9})), samples({0, 5, 5, 9}));
    EXPECT_EQ(rig.stretchers[0]->getNumSamplesProduced(), 1u + 0 + 3 + 4);
}

TEST(TimeStretcherTest, InsertedValueRoundsTowardZero)
{
    StretcherChain rig("ts", false);
    EXPECT_EQ(rig.run(samples({-1.0, 0.5}), TimeStretcher::Stretch), samples({-1.0, -0.25, 0.5}));
    // The sum is -2^-27: halving toward zero gives 0, not -2^-27.
    EXPECT_EQ(rig.run(raw({-3, 2}), TimeStretcher::Stretch), raw({-3, 0, 2}));
    // The sum wraps in 32 bits before it is halved.
    EXPECT_EQ(rig.run(raw({INT32_MAX, 1}), TimeStretcher::Stretch), raw({INT32_MAX, -(1 << 30), 1}));
}

TEST(TimeStretcherTest, OutputStorageNeverMovesEvenForAFullPeriod)
{
    std::vector<tSample> const full(Chain::getMaxNumFramesPerProcessCall(), tSample(0.125));
    for (bool stereo : {false, true}) {
        StretcherChain rig("ts", stereo);
        tSample const* const left = rig.module->getOutPort(0)->getRawData();
        tSample const* const right = rig.module->getOutPort(stereo ? 1 : 0)->getRawData();
        for (auto task : {TimeStretcher::Stretch, TimeStretcher::Skip, TimeStretcher::Stretch}) {
            rig.run(full, task);
            EXPECT_EQ(rig.module->getOutPort(0)->getRawData(), left);
            EXPECT_EQ(rig.module->getOutPort(stereo ? 1 : 0)->getRawData(), right);
        }
        EXPECT_EQ(rig.output(0).size(), full.size() + 1);
        if (stereo) {
            EXPECT_EQ(rig.output(1), rig.output(0));
        }
    }
}

TEST(TimeStretcherTest, MovedStorageIsFatal)
{
    StretcherChain rig("ts", false);
    // Without the reserved frame an insertion into a full period has to reallocate.
    rig.module->getOutPort(0)->getUnderlyingStorage().shrink_to_fit();
    std::vector<tSample> const full(Chain::getMaxNumFramesPerProcessCall(), tSample(0.125));
    EXPECT_DEATH(rig.run(full, TimeStretcher::Stretch), "oldOutPtr == getOutPort\\(0\\)->getRawData\\(\\)");
}
