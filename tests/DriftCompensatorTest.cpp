#include "dsp/DriftCompensator.h"
#include "dsp/AlsaDriftCompensator.h"
#include "dsp/Chain.h"
#include "dsp/FixedPointClosedLoopControl.h"
#include "dsp/HardwareDriftCompensator.h"
#include "dsp/TimeStretcher.h"
#include "dsp/TimeStretchingDriftCompensator.h"
#include "dsp/TimeStretchingLineInDriftCompensator.h"
#include "support/DataFile.h"
#include "support/LogCapture.h"
#include "support/MainLoop.h"
#include "support/ModuleHarness.h"
#include "support/ScopedVariable.h"
#include "support/TemporaryDirectory.h"
#include <alsa/asoundlib.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <map>
#include <optional>
#include <sstream>
#include <typeindex>
#include <utility>

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

// The log lines a case of tests/data/drift-logs.txt expects.
std::vector<std::string> expectedLog(std::string const& name)
{
    std::vector<std::string> lines;
    for (auto const& row : Testing::readTable("drift-logs.txt"))
        if (row[0] == name)
            lines.push_back(row[1]);
    return lines;
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

// Stopping any compensator switches the reports off for all, until one is constructed again.
TEST_F(DriftCompensatorTest, ReportsAtMostOncePerPeriodUntilAnyCompensatorStops)
{
    m_scratch.write("marker", "2000");
    Averaging compensator, fresh;
    m_log.clear();
    compensator.average().addValue(1);
    compensator.average().addValue(2);
    compensator.reportFrameDelta(7);
    compensator.reportFrameDelta(8);
    EXPECT_EQ(m_log.lines(), std::vector<std::string>{"2 frame delta: 7 2"});
    DriftCompensator().stop();
    fresh.reportFrameDelta(9);
    EXPECT_EQ(m_log.lines().size(), 2u) << "only the construction notice";
}

// The delta log line comes once in 250 ms, and only with the marker.
TEST_F(DriftCompensatorTest, SmoothedSignDecidesTheOrderAndTheDeltaIsLoggedWhenEnabled)
{
    TimeStretchingDriftCompensator wobbling;
    int ordered = 0;
    for (int call = 0; call < 200; ++call)
        ordered += wobbling.setFrameDelta(call % 2 ? -3 : 3) != 0;
    EXPECT_EQ(ordered, 0);
    EXPECT_TRUE(m_log.lines().empty());

    m_scratch.write("marker", "");
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
    EXPECT_EQ(m_log.lines(), expectedLog("smoothed"));
}

// The plain compensator drives both stretchers of a stereo pair, the line-in one its mono stretcher,
// whose frames it counts; one bound to a chain without its stretcher logs so and only computes orders.
TEST_F(DriftCompensatorTest, CompensatorsOrderEveryStretcherTheyFind)
{
    Stretching pair("timestretcher", true), lineIn("line-in-timestretcher", false);
    Chain without(48000);
    TimeStretchingDriftCompensator compensator;
    TimeStretchingLineInDriftCompensator counting, unbound;
    compensator.initChain(pair.chain);
    counting.initChain(lineIn.chain);
    unbound.initChain(without);
    EXPECT_EQ(m_log.lines(), expectedLog("unbound"));
    lineIn.period();
    int unboundOrder = 0;
    for (int call = 0; call < 14; ++call) {
        compensator.setFrameDelta(2);
        counting.setFrameDelta(-1);
        unboundOrder = unbound.setFrameDelta(1);
    }
    EXPECT_EQ(unboundOrder, 1);
    EXPECT_EQ(pair.period(), (std::vector<size_t>{7, 7}));
    EXPECT_EQ(lineIn.period(), std::vector<size_t>{9});
    EXPECT_EQ(counting.getNumSamplesProduced(), 17u);
    EXPECT_EQ(unbound.getNumSamplesProduced(), 0u);
    counting.resetNumSamplesProduced();
    EXPECT_EQ(counting.getNumSamplesProduced(), 0u);
    for (int call = 0; call < 40; ++call)
        compensator.setFrameDelta(-2);
    EXPECT_EQ(pair.period(), (std::vector<size_t>{9, 9}));
}

TEST(TimeStretcherTest, ChangesOneFrameWhereTheStepIsSmallestOncePerOrder)
{
    auto const stretcher = std::make_shared<TimeStretcher>("ts");
    ModuleHarness harness(stretcher);
    std::map<std::string, TimeStretcher::TaskForNextBuffer> const tasks = {
        {"none", TimeStretcher::None}, {"skip", TimeStretcher::Skip}, {"stretch", TimeStretcher::Stretch}};
    uint64_t produced = 0;
    for (auto const& row : Testing::readTable("time-stretches.txt")) {
        SCOPED_TRACE(row[2] + " | " + row[0]);
        if (row[2] != "-")
            stretcher->setTaskForNextBuffer(tasks.at(row[2]));
        EXPECT_EQ(harness.run(Testing::samplesFromText(row[0])), Testing::samplesFromText(row[1]));
        produced += Testing::samplesFromText(row[1]).size();
    }
    EXPECT_EQ(stretcher->getNumSamplesProduced(), produced);
    EXPECT_EQ(produced, 46u) << "all 16 periods read";
}

TEST(TimeStretcherTest, MovedStorageIsFatal)
{
    auto const stretcher = std::make_shared<TimeStretcher>("ts");
    ModuleHarness harness(stretcher);
    // The frame reserved beyond the period keeps an insertion in place (every stretch in the tool's
    // drift runs passes this check); without it, an insertion into a full period has to reallocate.
    stretcher->getOutPort(0)->getUnderlyingStorage().shrink_to_fit();
    stretcher->setTaskForNextBuffer(TimeStretcher::Stretch);
    std::vector<tSample> const full(Chain::getMaxNumFramesPerProcessCall(), tSample(0.125));
    EXPECT_DEATH(harness.run(full), "oldOutPtr == getOutPort\\(0\\)->getRawData\\(\\)");
}

namespace fs = std::filesystem;

namespace {

// Both clock steerers against stand-ins: the test ALSA control plugin (tests/alsa) as the "default"
// control device, which appends every value written to a record file, and a scratch tree for /sys.
class ClockSteering : public testing::Test
{
protected:
    ClockSteering()
    {
        HardwareDriftCompensator::setDeviceRoot(m_scratch.path());
        useAlsaConfig("drift-control.conf");
    }
    ~ClockSteering() override
    {
        HardwareDriftCompensator::setDeviceRoot("");
        snd_config_update_free_global();
    }

    // alsa-lib caches its configuration, so switching files drops the cache.
    void useAlsaConfig(char const* name)
    {
        m_alsaConfig.emplace("ALSA_CONFIG_PATH", std::string(ALSA_TEST_CONFIG_DIR) + "/" + name);
        snd_config_update_free_global();
    }

    // Creates an empty device file under the scratch root; a target makes it a link instead.
    std::string makeDevice(char const* devicePath, char const* target = nullptr)
    {
        fs::path const path = m_scratch.path() + devicePath;
        fs::create_directories(path.parent_path());
        target ? fs::create_symlink(target, path) : void(std::ofstream{path});
        return path.string();
    }

    // What was appended to a file since the last call.
    std::string appended(std::string const& path)
    {
        std::string const text = m_scratch.read(fs::relative(path, m_scratch.path()));
        return text.substr(std::min(std::exchange(m_readUpTo[path], text.size()), text.size()));
    }

    // The values written to the control (decimal lines) or the DAC ("%d\n\0" records) since the last call.
    std::vector<long> written(std::string const& path)
    {
        std::string text = appended(path);
        std::replace(text.begin(), text.end(), '\0', ' ');
        std::istringstream values(text);
        return {std::istream_iterator<long>(values), std::istream_iterator<long>()};
    }

    // The values the main loop's timer writes until `count` have come, or the wait's timeout has passed.
    std::vector<long> ticks(std::string const& path, size_t count)
    {
        std::vector<long> values;
        Testing::runMainLoopUntil([&] {
            for (long value : written(path))
                values.push_back(value);
            return values.size() >= count;
        });
        return values;
    }

    // A playback clock `ppm` fast while the compensator's value is `mid`, pulled by `slope` ppm per unit
    // above it; the host measures its phase, rounded to whole frames, every 100 ms tick at 48 kHz.
    // Returns the tick from which that delta stays within +-1 frame to the end of the run, or -1.
    template <class Compensator>
    int settlingTick(std::string const& device, double phase, double ppm, double slope, long mid, int ticks)
    {
        Compensator compensator;
        compensator.start();
        long value = mid;
        int settledAt = -1;
        for (int tick = 0; tick < ticks; ++tick) {
            int const delta = static_cast<int>(std::lround(phase));
            settledAt = std::abs(delta) > 1 ? -1 : settledAt < 0 ? tick : settledAt;
            compensator.setFrameDelta(delta);
            EXPECT_TRUE(compensator.writeClock());
            for (long latest : written(device))
                value = latest;
            phase += (ppm + slope * double(value - mid)) * 48000 * 0.1 * 1e-6;
        }
        return settledAt;
    }

    Testing::TemporaryDirectory m_scratch{"clock-steering-XXXXXX"};
    std::string const m_record = m_scratch.path("control-record");
    Testing::ScopedVariable m_recordVariable{"DRIFT_CONTROL_RECORD", m_record};
    std::optional<Testing::ScopedVariable> m_alsaConfig;
    std::map<std::string, size_t> m_readUpTo;
    Testing::LogCapture m_log;
};

using AlsaDriftCompensatorTest = ClockSteering;
using HardwareDriftCompensatorTest = ClockSteering;
using ClockDriftCompensatorTest = ClockSteering;

} // namespace

TEST_F(AlsaDriftCompensatorTest, FactoryMakesEachTypeAndNothingForAnUnknownOne)
{
    std::vector<std::type_index> made;
    for (int type : {0, 1, 2, 3, 4, 7}) {
        auto const compensator = DriftCompensator::create(Tools::Hardware::DriftCompensatorType(type));
        DriftCompensator const* const one = compensator.get();
        made.push_back(one ? std::type_index(typeid(*one)) : typeid(nullptr));
    }
    EXPECT_EQ(made, (std::vector<std::type_index>{
                        typeid(HardwareDriftCompensator), typeid(AlsaDriftCompensator),
                        typeid(TimeStretchingDriftCompensator), typeid(TimeStretchingLineInDriftCompensator),
                        typeid(nullptr), typeid(nullptr)}));
}

TEST_F(AlsaDriftCompensatorTest, WritesTheControllerOutputOnlyWhenItChangesAndZeroWhenDestroyed)
{
    {
        AlsaDriftCompensator compensator;
        compensator.start();
        for (int tick = 0; tick < 5; ++tick)
            EXPECT_TRUE(compensator.writeClock());
        EXPECT_TRUE(written(m_record).empty()) << "a constant zero equals the cleared last value";
        compensator.setFrameDelta(200);
        compensator.writeClock();
        compensator.writeClock();
        EXPECT_EQ(written(m_record), std::vector<long>{-1000})
            << "saturated in one tick, and not written again";

        compensator.stop();
        EXPECT_FALSE(compensator.writeClock());
        compensator.start();
        EXPECT_EQ(compensator.getFrameDelta(), 0);
        for (int delta : {5, 5, 4}) {
            compensator.setFrameDelta(delta);
            compensator.writeClock();
        }
        // As from a fresh controller: 10 * -5 + 3 * -0.05 + 1.5 * -5 / 0.01;
        // then -50 - 0.3; then -40 - 0.42 + 1.5 * 1 / 0.01.
        EXPECT_EQ(written(m_record), (std::vector<long>{-800, -50, 109}));
    }
    EXPECT_EQ(written(m_record), std::vector<long>{0});
    EXPECT_EQ(m_log.lines(), expectedLog("alsa"));
}

TEST_F(AlsaDriftCompensatorTest, MissingElementOrDeviceLeavesItInert)
{
    for (char const* config : {"drift-control-other-element.conf", "drift-control-broken.conf"}) {
        useAlsaConfig(config);
        m_log.clear();
        {
            AlsaDriftCompensator compensator;
            compensator.start();
            compensator.setFrameDelta(3);
            EXPECT_FALSE(compensator.writeClock());
        }
        EXPECT_EQ(m_log.lines(), expectedLog(config));
    }
    EXPECT_TRUE(written(m_record).empty());
}

// Timers never fire early, so two ticks bound the interval from below.
TEST_F(AlsaDriftCompensatorTest, BothTimersTickOnTheMainLoopEveryTenthOfASecondUntilStopped)
{
    std::string const dac = makeDevice(HardwareDriftCompensator::s_legacyDevicePath);
    AlsaDriftCompensator alsa;
    HardwareDriftCompensator hardware;
    gint64 const start = g_get_monotonic_time();
    alsa.start();
    hardware.start();
    alsa.setFrameDelta(5);
    hardware.setFrameDelta(1);
    EXPECT_EQ(ticks(m_record, 2), (std::vector<long>{-800, -50}));
    EXPECT_GE(g_get_monotonic_time() - start, 200000);
    hardware.setFrameDelta(-1);
    EXPECT_EQ(ticks(dac, 2), (std::vector<long>{3072, 1024}));
    alsa.stop();
    hardware.stop();
    hardware.setFrameDelta(0);
    alsa.setFrameDelta(0);
    Testing::runMainLoopUntil([] { return false; }, std::chrono::milliseconds(250));
    EXPECT_EQ(written(m_record).size() + written(dac).size(), 0u);
}

// Only the IIO file exists here; the legacy one is preferred where both do (see the short write).
TEST_F(HardwareDriftCompensatorTest, WritesTheDeltaTableAsTerminatedTextAndNoRepeats)
{
    std::string const device = makeDevice(HardwareDriftCompensator::s_devicePath);
    HardwareDriftCompensator compensator;
    EXPECT_FALSE(compensator.writeClock()) << "not started";
    compensator.start();
    for (int delta = -3; delta <= 3; ++delta) {
        compensator.setFrameDelta(delta);
        EXPECT_TRUE(compensator.writeClock());
    }
    EXPECT_TRUE(compensator.writeClock());
    // -3 and -2 give 0, the cleared last value; 3 and the last tick repeat 4095.
    EXPECT_EQ(appended(device), std::string("1024\n\0"
                                            "2048\n\0"
                                            "3072\n\0"
                                            "4095\n\0",
                                            24));
    EXPECT_EQ(HardwareDriftCompensator::dacValue(2097150), 0) << "(2^21 - 2 + 2) * 1024 wraps to -2^31";
    EXPECT_EQ(m_log.lines(), expectedLog("dac"));
}

// A short write names the IIO path even where the legacy file was opened, once; without a device the
// compensator stays inert, and its stop logs the ALSA variant's line.
TEST_F(HardwareDriftCompensatorTest, DeviceFaultsAreLoggedAndNotRetried)
{
    {
        HardwareDriftCompensator compensator;
        compensator.start();
        EXPECT_FALSE(compensator.writeClock());
        compensator.stop();
    }
    makeDevice(HardwareDriftCompensator::s_legacyDevicePath, "/dev/full");
    HardwareDriftCompensator compensator;
    compensator.start();
    compensator.setFrameDelta(1);
    EXPECT_TRUE(compensator.writeClock());
    EXPECT_TRUE(compensator.writeClock());
    std::vector<std::string> expected = expectedLog("dac-faults");
    expected.back() += " " + m_scratch.path() + HardwareDriftCompensator::s_devicePath;
    EXPECT_EQ(m_log.lines(), expected);
}

// Model clocks against both control laws, settling within +-1 frame before a tick, or never (-1).
// ALSA: 50 ppm fast, pulled by `slope` ppm per control unit. It settles for slopes from about 0.055 (the
// +-1000 range must cover the offset with some margin: the saturated integral winds up) to about 1.34,
// where each one-frame step's derivative kick of 150 units moves the phase by a frame itself and the
// delta keeps swinging by several frames.
// DAC: 40 ppm fast, pulled by -0.05 ppm per step above mid scale (about +-100 ppm over the DAC range).
// Starting 20 frames behind, it catches up at 142 ppm in about 3 s; the proportional law then holds the
// delta at 0 or +1.
TEST_F(ClockDriftCompensatorTest, ModelClocksSettleWithinOneFrame)
{
    std::string const dac = makeDevice(HardwareDriftCompensator::s_legacyDevicePath);
    // ALSA rows: slope, settled before (-1: never); 4000 ticks each.
    for (auto const& [slope, before] : {std::pair{0.1, 2000}, {1.2, 600}, {1.5, -1}, {0.04, -1}}) {
        int const settled = settlingTick<AlsaDriftCompensator>(m_record, 0.0, 50.0, slope, 0, 4000);
        EXPECT_TRUE(before < 0 ? settled == -1 : settled >= 0 && settled < before)
            << slope << ": " << settled;
    }
    int const settled = settlingTick<HardwareDriftCompensator>(dac, -20.0, 40.0, -0.05, 2048, 400);
    EXPECT_TRUE(settled >= 0 && settled < 100) << settled;
}

TEST(FixedPointClosedLoopControlTest, OutputsFollowTheGainsTheLimitsAndTheDeadBand)
{
    int steps = 0;
    for (auto const& row : Testing::readTable("closed-loop-steps.txt")) {
        std::istringstream setup(row[0]), values(row[1]);
        float kp, ki, kd, limit;
        setup >> kp >> ki >> kd >> limit;
        FixedPointClosedLoopControl control(kp, ki, kd);
        if (limit > 0)
            control.setMinMax(-limit, limit);
        control.setPoint(0.0f);
        std::string in;
        for (int32_t out; values >> in >> out; ++steps) {
            SCOPED_TRACE(row[0] + " at " + in);
            in == "reset" ? control.reset() : control.process(std::stof(in));
            EXPECT_EQ(control.getOutput().getRaw(), out);
        }
    }
    EXPECT_EQ(steps, 14);
}
