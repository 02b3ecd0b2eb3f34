#include "dsp/AlsaDriftCompensator.h"
#include "dsp/HardwareDriftCompensator.h"
#include "dsp/TimeStretchingLineInDriftCompensator.h"

#include "support/LogCapture.h"
#include "support/MainLoop.h"
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

using namespace Zelmar;
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
        std::string fresh = text.substr(std::min(m_readUpTo[path], text.size()));
        m_readUpTo[path] = text.size();
        return fresh;
    }

    // The values written to the control (decimal lines) or the DAC ("%d\n\0" records) since the last call.
    std::vector<long> written(std::string const& path)
    {
        std::string text = appended(path);
        std::replace(text.begin(), text.end(), '\0', ' ');
        std::istringstream values(text);
        return {std::istream_iterator<long>(values), std::istream_iterator<long>()};
    }

    // The values the main loop's timer writes until `count` have come, or the timeout has passed.
    std::vector<long> ticks(std::string const& path, size_t count,
                            std::chrono::milliseconds timeout = std::chrono::seconds(5))
    {
        std::vector<long> values;
        Testing::runMainLoopUntil(
            [&] {
                for (long value : written(path))
                    values.push_back(value);
                return values.size() >= count;
            },
            timeout);
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
            if (!compensator.writeClock())
                return -2;
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

} // namespace

TEST_F(AlsaDriftCompensatorTest, FactoryMakesEachTypeAndNothingForAnUnknownOne)
{
    using Type = Tools::Hardware::DriftCompensatorType;
    EXPECT_NE(dynamic_cast<HardwareDriftCompensator*>(DriftCompensator::create(Type(0)).get()), nullptr);
    EXPECT_NE(dynamic_cast<AlsaDriftCompensator*>(DriftCompensator::create(Type(1)).get()), nullptr);
    std::vector<Tools::String> ids;
    for (int type : {2, 3}) {
        auto const compensator = DriftCompensator::create(Type(type));
        auto const* stretching = dynamic_cast<TimeStretchingDriftCompensator*>(compensator.get());
        ids.push_back(stretching ? stretching->getTimeStretcherModuleID() : "none");
        EXPECT_EQ(dynamic_cast<TimeStretchingLineInDriftCompensator*>(compensator.get()) != nullptr,
                  type == 3);
    }
    EXPECT_EQ(ids, std::vector<Tools::String>({"timestretcher", "line-in-timestretcher"}));
    EXPECT_EQ(DriftCompensator::create(Type(7)), nullptr);
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
    EXPECT_EQ(m_log.lines(),
              (std::vector<std::string>{"3 AlsaDriftCompensator: 2nd generation HW clock control initialized",
                                        "3 AlsaDriftCompensator::start", "3 AlsaDriftCompensator::stop",
                                        "3 AlsaDriftCompensator::start"}));
}

TEST_F(AlsaDriftCompensatorTest, MissingElementOrDeviceLeavesItInert)
{
    for (auto const& [config, lines] :
         {std::pair{
              "drift-control-other-element.conf",
              std::vector<std::string>{
                  "6 AlsaDriftCompensator: Cannot find mixer control Drift compensator",
                  "6 AlsaDriftCompensator: unable to initialize drift alsa control: Drift compensator"}},
          {"drift-control-broken.conf",
           {"6 AlsaDriftCompensator: unable to open mixer device for clock control: No such device"}}}) {
        useAlsaConfig(config);
        m_log.clear();
        {
            AlsaDriftCompensator compensator;
            compensator.start();
            compensator.setFrameDelta(3);
            EXPECT_FALSE(compensator.writeClock());
        }
        std::vector<std::string> expected = lines;
        expected.insert(expected.end(), {"3 AlsaDriftCompensator::start", "4 STOP DRIFT COMP"});
        EXPECT_EQ(m_log.lines(), expected) << config;
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

// The model clock runs 50 ppm fast and `gain` ppm per control unit faster. The loop settles within
// +-1 frame for gains from about 0.055 (the +-1000 range must cover the offset with some margin: the
// saturated integral winds up) to about 1.34 ppm per unit, where each one-frame step's derivative kick
// of 150 units moves the phase by a frame itself and the delta keeps swinging by several frames.
TEST_F(AlsaDriftCompensatorTest, ModelClockSettlesWithinOneFrameForModerateGains)
{
    auto const settle = [this](double gain) {
        return settlingTick<AlsaDriftCompensator>(m_record, 0.0, 50.0, gain, 0, 4000);
    };
    int const weak = settle(0.1), strong = settle(1.2);
    EXPECT_TRUE(weak >= 0 && weak < 2000) << weak;
    EXPECT_TRUE(strong >= 0 && strong < 600) << strong;
    EXPECT_EQ(settle(1.5), -1) << "oscillates";
    EXPECT_EQ(settle(0.04), -1) << "cannot cover 50 ppm";
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
    EXPECT_EQ(m_log.lines(),
              (std::vector<std::string>{"3 HardwareDriftCompensator: HW clock control initialized",
                                        "3 HardwareDriftCompensator::start"}));
}

TEST_F(HardwareDriftCompensatorTest, ShortWriteNamesTheIioPathAndIsNotRetried)
{
    makeDevice(HardwareDriftCompensator::s_legacyDevicePath, "/dev/full");
    HardwareDriftCompensator compensator;
    compensator.start();
    m_log.clear();
    compensator.setFrameDelta(1);
    EXPECT_TRUE(compensator.writeClock());
    EXPECT_TRUE(compensator.writeClock());
    EXPECT_EQ(m_log.lines(),
              std::vector<std::string>{"4 HardwareDriftCompensator: Can't write to " + m_scratch.path() +
                                       HardwareDriftCompensator::s_devicePath});
}

TEST_F(HardwareDriftCompensatorTest, WithoutDeviceStaysInertAndStopLogsTheSharedLine)
{
    HardwareDriftCompensator compensator;
    compensator.start();
    EXPECT_FALSE(compensator.writeClock());
    compensator.stop();
    EXPECT_EQ(m_log.lines(), (std::vector<std::string>{
                                 "6 HardwareDriftCompensator: unable to open hardware clock device",
                                 "3 HardwareDriftCompensator::start", "3 AlsaDriftCompensator::stop"}));
}

// A model clock 40 ppm fast whose DAC pulls it by -0.05 ppm per step above mid scale (about +-100 ppm
// over the DAC range). Starting 20 frames behind, the proportional law then holds the delta at 0 or +1.
TEST_F(HardwareDriftCompensatorTest, ModelClockSettlesWithinOneFrame)
{
    std::string const device = makeDevice(HardwareDriftCompensator::s_legacyDevicePath);
    int const settledAt = settlingTick<HardwareDriftCompensator>(device, -20.0, 40.0, -0.05, 2048, 400);
    EXPECT_TRUE(settledAt >= 0 && settledAt < 100)
        << "20 frames behind catch up at 142 ppm in about 3 s: " << settledAt;
}
