#include "dsp/HardwareDriftCompensator.h"

#include "base/Tracer.h"
#include "support/FileTail.h"
#include "support/LogCapture.h"
#include "support/MainLoop.h"
#include "support/ModelClock.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <unistd.h>
#include <vector>

using namespace Zelmar;
namespace fs = std::filesystem;

namespace {

// A scratch tree standing in for /sys; each test creates the device files it needs.
class HardwareDriftCompensatorTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_root = fs::path(::testing::TempDir()) / ("hwclock-" + std::to_string(getpid()));
        fs::remove_all(m_root);
        fs::create_directories(m_root);
        HardwareDriftCompensator::setDeviceRoot(m_root.string());
    }

    void TearDown() override
    {
        HardwareDriftCompensator::setDeviceRoot("");
        fs::remove_all(m_root);
    }

    // Creates the device file (empty) and returns its path.
    std::string makeDevice(char const* devicePath)
    {
        fs::path const path = m_root.string() + devicePath;
        fs::create_directories(path.parent_path());
        std::ofstream{path};
        return path.string();
    }

    // The decimal values of the "%d\n\0" records written since the last call.
    static std::vector<int> records(Testing::FileTail& tail)
    {
        std::vector<int> values;
        std::string const text = tail.readNew();
        std::string::size_type start = 0;
        for (auto end = text.find('\0'); end != std::string::npos; end = text.find('\0', start)) {
            values.push_back(std::stoi(text.substr(start, end - start)));
            start = end + 1;
        }
        EXPECT_EQ(start, text.size()) << "unterminated record";
        return values;
    }

    fs::path m_root;
    Testing::LogCapture m_log;
};

} // namespace

TEST_F(HardwareDriftCompensatorTest, DeltaTableAndNoRewriteOfAnUnchangedValue)
{
    std::vector<int> table;
    for (int delta = -3; delta <= 3; ++delta)
        table.push_back(HardwareDriftCompensator::dacValue(delta));
    EXPECT_EQ(table, (std::vector<int>{0, 0, 1024, 2048, 3072, 4095, 4095}));
    // (2^21 - 2 + 2) * 1024 wraps to -2^31.
    EXPECT_EQ(HardwareDriftCompensator::dacValue(2097150), 0);

    Testing::FileTail device(makeDevice(HardwareDriftCompensator::s_legacyDevicePath));
    auto const compensator = DriftCompensator::create(Tools::Hardware::DriftCompensatorType::HardwareClock);
    auto* hardware = dynamic_cast<HardwareDriftCompensator*>(compensator.get());
    ASSERT_NE(hardware, nullptr);
    hardware->start();
    for (int delta = -3; delta <= 3; ++delta) {
        hardware->setFrameDelta(delta);
        EXPECT_TRUE(hardware->writeClock());
    }
    // -3 and -2 give 0, the cleared last value; 3 repeats 4095.
    EXPECT_EQ(records(device), (std::vector<int>{1024, 2048, 3072, 4095}));
    EXPECT_TRUE(hardware->writeClock());
    EXPECT_TRUE(records(device).empty());
}

TEST_F(HardwareDriftCompensatorTest, WritesSixBytesToTheIioFileWhenThereIsNoLegacyOne)
{
    std::string const path = makeDevice(HardwareDriftCompensator::s_devicePath);
    HardwareDriftCompensator compensator;
    EXPECT_EQ(m_log.leveled(),
              std::vector<std::string>{"3 HardwareDriftCompensator: HW clock control initialized"});
    EXPECT_FALSE(compensator.writeClock()) << "not started";
    compensator.start();
    EXPECT_TRUE(compensator.writeClock());
    EXPECT_EQ(Testing::FileTail(path).readNew(), std::string("2048\n\0", 6));
}

TEST_F(HardwareDriftCompensatorTest, ShortWriteNamesTheIioPathAndIsNotRetried)
{
    // Every write to /dev/full fails.
    fs::path const legacy = m_root.string() + HardwareDriftCompensator::s_legacyDevicePath;
    fs::create_directories(legacy.parent_path());
    fs::create_symlink("/dev/full", legacy);
    HardwareDriftCompensator compensator;
    compensator.start();
    m_log.clear();
    compensator.setFrameDelta(1);
    EXPECT_TRUE(compensator.writeClock());
    EXPECT_TRUE(compensator.writeClock());
    EXPECT_EQ(m_log.leveled(),
              std::vector<std::string>{"4 HardwareDriftCompensator: Can't write to " + m_root.string() +
                                       HardwareDriftCompensator::s_devicePath});
}

TEST_F(HardwareDriftCompensatorTest, WithoutDeviceStaysInertAndStopLogsTheSharedLine)
{
    HardwareDriftCompensator compensator;
    EXPECT_EQ(m_log.leveled(),
              std::vector<std::string>{"6 HardwareDriftCompensator: unable to open hardware clock device"});
    compensator.start();
    EXPECT_FALSE(compensator.writeClock());
    compensator.stop();
    ASSERT_EQ(m_log.leveled().size(), 3u);
    EXPECT_EQ(m_log.messages()[1], "HardwareDriftCompensator::start");
    EXPECT_EQ(m_log.leveled()[2], "3 AlsaDriftCompensator::stop");
}

TEST_F(HardwareDriftCompensatorTest, TimerOnTheMainLoopWritesEveryTickUntilStopped)
{
    Testing::FileTail device(makeDevice(HardwareDriftCompensator::s_legacyDevicePath));
    HardwareDriftCompensator compensator;
    compensator.start();
    std::vector<int> written;
    // Accumulates: the main-loop helper evaluates the condition once more before returning.
    auto const collect = [&] {
        for (int value : records(device))
            written.push_back(value);
        return !written.empty();
    };
    compensator.setFrameDelta(1);
    ASSERT_TRUE(Testing::runMainLoopUntil(collect));
    EXPECT_EQ(written, std::vector<int>{3072});
    compensator.setFrameDelta(-1);
    written.clear();
    ASSERT_TRUE(Testing::runMainLoopUntil(collect));
    EXPECT_EQ(written, std::vector<int>{1024});
    compensator.stop();
    compensator.setFrameDelta(0);
    written.clear();
    EXPECT_FALSE(Testing::runMainLoopUntil(collect, std::chrono::milliseconds(250)));
}

// A model clock 40 ppm fast whose DAC pulls it by -0.05 ppm per step above mid scale (about
// +-100 ppm over the DAC range), at 48 kHz with the 100 ms tick: the host measures the phase
// rounded to whole frames. Starting 20 frames behind, the proportional law then holds the delta
// at 0 or +1.
TEST_F(HardwareDriftCompensatorTest, ModelClockSettlesWithinOneFrame)
{
    Testing::FileTail device(makeDevice(HardwareDriftCompensator::s_legacyDevicePath));
    HardwareDriftCompensator compensator;
    compensator.start();
    Testing::ModelClock clock(-20.0);
    int dac = 2048;
    for (int tick = 0; tick < 400; ++tick) {
        compensator.setFrameDelta(clock.measureDelta());
        ASSERT_TRUE(compensator.writeClock());
        std::vector<int> const written = records(device);
        if (!written.empty())
            dac = written.back();
        clock.run(40.0 - 0.05 * (dac - 2048));
    }
    int const settledAt = clock.getSettledAt();
    EXPECT_GE(settledAt, 0);
    EXPECT_LT(settledAt, 100) << "20 frames behind catch up at 142 ppm in about 3 s";
}
