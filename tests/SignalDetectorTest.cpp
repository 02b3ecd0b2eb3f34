#include "dsp/SignalDetector.h"

#include "base/Tracer.h"
#include "dsp/Chain.h"
#include "support/LogCapture.h"
#include "support/ModuleHarness.h"
#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <functional>
#include <thread>
#include <vector>

using namespace Zelmar;

namespace {

constexpr unsigned int c_rate = 48000;
constexpr unsigned int c_block = 1200; // ten blocks are one 250 ms poll
constexpr unsigned int c_blocksPerPoll = 10;
// The level statistics count as at 44100 Hz whatever the rate: an analysis every 82688 decimated
// frames, 13.78 s of this input, and seconds that are 48000 / 44100 of the real ones.
constexpr double c_analysisSeconds = 82688 * 8 / double(c_rate);
constexpr double c_statisticsSecond = double(c_rate) / 44100;

// The detector names its file <directory><id>, so the directory is passed with its separator.
class ThresholdDirectory : public Testing::TemporaryDirectory
{
public:
    std::string path() const { return TemporaryDirectory::path() + "/"; }
};

double sine(double levelDb, double frequency, uint64_t i)
{
    return std::sqrt(2.0) * std::pow(10.0, levelDb / 20.0) * std::sin(2.0 * M_PI * frequency * i / c_rate);
}

// A 1 kHz tone at -20 dB RMS.
std::vector<tSample> tone(unsigned int frames)
{
    return Testing::makeSine(std::sqrt(2.0) * 0.1, 1000.0, c_rate, frames);
}

// Every eighth sample alternates in sign: the high-pass passes it at unity gain, so each 10 ms level
// is exactly levelDb.
double steady(double levelDb, uint64_t i)
{
    return (i / 8 % 2 ? -1.0 : 1.0) * std::pow(10.0, levelDb / 20.0);
}

// Feeds a detector as the audio thread would and polls it every 250 ms of audio, as the main loop would.
class Driver
{
public:
    explicit Driver(SignalDetector& detector) : m_detector(detector)
    {
        m_connection = detector.onThresholdTriggered([this](bool present) {
            transitions.push_back({seconds(), present});
        });
    }

    void run(double duration, std::function<double(uint64_t)> const& signal)
    {
        std::vector<tSample> block(c_block);
        for (long poll = std::lround(duration * 4); poll > 0; --poll) {
            for (unsigned int b = 0; b < c_blocksPerPoll; ++b) {
                for (auto& sample : block)
                    sample = tSample(signal(m_frame++));
                m_detector.runDetector(block.data(), c_block);
            }
            m_detector.pollSignal();
        }
    }
    double seconds() const { return double(m_frame) / c_rate; }

    std::vector<std::pair<double, bool>> transitions;

private:
    SignalDetector& m_detector;
    uint64_t m_frame = 0;
    Tools::Connection m_connection;
};

std::unique_ptr<SignalDetector> makeDetector(ThresholdDirectory const& dir, double thresholdDb)
{
    auto detector = std::make_unique<SignalDetector>("sd", dir.path());
    detector->setParameters(Parameters{{"signal-threshold", std::to_string(thresholdDb)}}, c_rate);
    return detector;
}

// The level in a "Signal trigger: <value> Reason: <text>" entry, in dB.
double triggerLevelDb(std::string const& message)
{
    std::string const prefix = "Signal trigger: ";
    EXPECT_EQ(message.rfind(prefix, 0), 0u) << message;
    return 20.0 * std::log10(std::atof(message.c_str() + prefix.size()));
}

} // namespace

TEST(SignalDetectorTest, IgnoresTheFirst100000FramesThenStartsSilent)
{
    ThresholdDirectory dir;
    for (bool loud : {true, false}) {
        auto detector = makeDetector(dir, -40.0);
        std::vector<tSample> const block = loud ? tone(1000) : std::vector<tSample>(1000);
        for (int i = 0; i < 100; ++i)
            detector->runDetector(block.data(), 1000);
        // Still the result the detector was made with: nothing was written.
        SignalDetector::DetectionInfo info;
        EXPECT_EQ(detector->consumeDetectionResult(info), SignalDetector::Silent);
        EXPECT_EQ(detector->consumeDetectionResult(info), SignalDetector::NoProcessingSinceLastReport);
        detector->runDetector(block.data(), 1000);
        EXPECT_EQ(detector->consumeDetectionResult(info),
                  loud ? SignalDetector::Active : SignalDetector::Silent);
    }
}

TEST(SignalDetectorTest, ToneOverThresholdIsActiveAndHeldTenSecondsAfterItEnds)
{
    ThresholdDirectory dir;
    Testing::LogCapture log(Tools::Tracer::Info);
    auto detector = makeDetector(dir, -40.0);
    Driver driver(*detector);
    // The tone starts within a poll interval, after quiet blocks, so the activation has a reason.
    driver.run(15.0, [](uint64_t i) {
        return i >= 2.6 * c_rate && i < 3.6 * c_rate ? sine(-20.0, 1000.0, i) : 0.0;
    });

    // The hold covers the 480000 frames after the last loud block, 3.6 s to 13.6 s. The interval polled
    // at 13.75 s still starts held, so its result is active; the poll at 14 s is the first to see silence.
    ASSERT_EQ(driver.transitions.size(), 2u);
    EXPECT_EQ(driver.transitions[0], std::make_pair(2.75, true));
    EXPECT_EQ(driver.transitions[1], std::make_pair(14.0, false));

    auto const notices = log.messagesAt(Tools::Tracer::Notice);
    ASSERT_EQ(notices.size(), 2u);
    EXPECT_NEAR(triggerLevelDb(notices[0]), -20.0, 0.5);
    EXPECT_EQ(notices[0].substr(notices[0].find(" Reason:")), " Reason: Rms value is over threshold");
    // Audio is counted from the end of the skip, 2.1 s (the block that crosses 100000 frames is
    // skipped): 11.9 s, counted as 12.9524.
    EXPECT_EQ(notices[1], "No signal in line-in: 12.9524");
    EXPECT_NEAR(11.9 * c_statisticsSecond, 12.9524, 1e-4);
}

TEST(SignalDetectorTest, FluctuatingInputBelowThresholdIsActiveWithReasonOne)
{
    ThresholdDirectory dir;
    Testing::LogCapture log(Tools::Tracer::Info);
    auto detector = makeDetector(dir, -30.0);
    Driver driver(*detector);
    // Half a second at -50 dB, half a second at -40 dB: a deviation of 5 dB, all below the threshold.
    driver.run(18.25, [](uint64_t i) { return sine(i / (c_rate / 2) % 2 ? -40.0 : -50.0, 1000.0, i); });

    // The first analysis comes 13.78 s after the skip ended at 2.1 s; the next poll reports it.
    ASSERT_EQ(driver.transitions.size(), 1u);
    EXPECT_EQ(driver.transitions[0], std::make_pair(16.0, true));
    EXPECT_LT(2.1 + c_analysisSeconds, 16.0);
    EXPECT_GT(2.1 + c_analysisSeconds, 15.75);
    auto const notices = log.messagesAt(Tools::Tracer::Notice);
    ASSERT_EQ(notices.size(), 1u);
    EXPECT_EQ(notices[0].substr(notices[0].find(" Reason:")), " Reason: State is Active");
    double const level = triggerLevelDb(notices[0]);
    EXPECT_TRUE(level > -50.5 && level < -39.5) << notices[0];
}

TEST(SignalDetectorTest, LearnsThresholdFromThirtySecondsOfSteadyNoiseAndReadsItBack)
{
    // -70 dB is squeezed to -69.07 dB in the level statistics, and the headroom rule is applied to that:
    // 8.07 dB of headroom and -61.0 dB. A noise whose squeezed level is -70 dB gives -70 + 8.4 = -61.6.
    struct Case
    {
        double inputDb;
        char const* file;
        char const* logged;
    };
    for (Case const& c : {Case{-70.0, "-61.0\n#headroom: 8.1\n", "sd : new signal threshold: -61.0"},
                          Case{-71.30425, "-61.6\n#headroom: 8.4\n", "sd : new signal threshold: -61.6"}}) {
        ThresholdDirectory dir;
        Testing::LogCapture log(Tools::Tracer::Info);
        auto detector = makeDetector(dir, -50.0);
        EXPECT_FALSE(detector->hasMeasuredThreshold());
        Driver driver(*detector);
        auto const noise = [&](uint64_t i) { return steady(c.inputDb, i); };
        // Two analyses of static noise make 30 s as the statistics count: learnt at 2.1 + 27.56 s, polled at
        // 29.75 s.
        EXPECT_NEAR(2 * c_analysisSeconds * c_statisticsSecond, 30.0, 0.01);
        driver.run(29.5, noise);
        EXPECT_TRUE(log.messagesAt(Tools::Tracer::Notice).empty()) << "learnt before 30 s of static noise";
        driver.run(0.25, noise);
        ASSERT_EQ(log.messagesAt(Tools::Tracer::Notice).size(), 1u);
        EXPECT_EQ(log.messagesAt(Tools::Tracer::Notice)[0].rfind(c.logged, 0), 0u);
        EXPECT_EQ(dir.entries(), std::vector<std::string>{"sd"}) << "no temporary file is left";
        EXPECT_EQ(dir.read("sd"), c.file);
        EXPECT_TRUE(detector->hasMeasuredThreshold());
        // The next analysis learns the same floor again: within 0.5 dB, so nothing changes.
        driver.run(15.0, noise);
        EXPECT_EQ(log.messagesAt(Tools::Tracer::Notice).size(), 1u);
        EXPECT_TRUE(driver.transitions.empty());

        float const learnt = detector->getThreshold();
        auto restarted = makeDetector(dir, -20.0);
        EXPECT_TRUE(restarted->hasMeasuredThreshold());
        EXPECT_NEAR(20.0 * std::log10(restarted->getThreshold()), std::atof(c.file), 1e-4);
        EXPECT_NEAR(restarted->getThreshold(), learnt, learnt * 0.006);
    }
}

TEST(SignalDetectorTest, ThresholdFileWinsOverTheParameterWhichAppliesOnlyOnce)
{
    ThresholdDirectory dir;
    Testing::LogCapture log(Tools::Tracer::Info);
    {
        auto detector = std::make_unique<SignalDetector>("sd", dir.path());
        EXPECT_EQ(
            log.messagesAt(Tools::Tracer::Info),
            std::vector<std::string>{"sd : no measured signal threshold yet, using default value: -inf"});
        detector->setParameters(Parameters{{"signal-threshold", "-20"}}, c_rate);
        EXPECT_FLOAT_EQ(detector->getThreshold(), 0.1f);
        detector->setParameters(Parameters{{"signal-threshold", "-30"}}, c_rate);
        EXPECT_FLOAT_EQ(detector->getThreshold(), 0.1f);
    }
    dir.write("sd", "not a number\n");
    EXPECT_FALSE(makeDetector(dir, -20.0)->hasMeasuredThreshold());

    dir.write("sd", "-40.0\n#headroom: 3.0\n");
    log.clear();
    auto detector = makeDetector(dir, -20.0);
    EXPECT_TRUE(log.messages().empty());
    EXPECT_TRUE(detector->hasMeasuredThreshold());
    EXPECT_FLOAT_EQ(detector->getThreshold(), 0.01f);
}

TEST(SignalDetectorTest, ThresholdFileIsNotWrittenForAnIdWithASeparatorOrIntoAMissingDirectory)
{
    ThresholdDirectory dir;
    Testing::LogCapture log(Tools::Tracer::Info);
    SignalDetector nested("line/in", dir.path());
    nested.saveThreshold(0.01f, 3.0f);
    EXPECT_TRUE(dir.entries().empty());
    SignalDetector homeless("sd", dir.path() + "missing/");
    homeless.saveThreshold(0.01f, 3.0f);
    auto const errors = log.messagesAt(Tools::Tracer::Error);
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_EQ(errors[0], "line/in : signal threshold not saved, the id contains a path separator");
    EXPECT_EQ(errors[1].rfind("sd : could not save signal threshold:", 0), 0u) << errors[1];

    SignalDetector detector("sd", dir.path());
    detector.saveThreshold(0.999f, 0.04f);
    EXPECT_EQ(dir.read("sd"), "0.0\n#headroom: 0.0\n");
}

TEST(SignalDetectorTest, HeadroomGrowsFromThreeToTwelveDecibelsOverTheLearntRange)
{
    auto near = [](SignalDetector::LearntThreshold t, float thresholdDb, float headroomDb) {
        EXPECT_NEAR(t.thresholdDb, thresholdDb, 1e-4);
        EXPECT_NEAR(t.headroomDb, headroomDb, 1e-4);
    };
    near(SignalDetector::thresholdForNoiseFloor(-70.0f), -61.6f, 8.4f);
    near(SignalDetector::thresholdForNoiseFloor(-55.0f), -52.0f, 3.0f);
    near(SignalDetector::thresholdForNoiseFloor(-80.0f), -68.0f, 12.0f);
    near(SignalDetector::thresholdForNoiseFloor(-95.0f), -68.0f, 12.0f);

    SignalState state;
    state.staticTime = 30.0f;
    state.secondsSinceStart = 120.0f;
    state.meanDb = -55.01f;
    EXPECT_TRUE(SignalDetector::canLearnFrom(state));
    state.secondsSinceStart = 120.01f;
    EXPECT_FALSE(SignalDetector::canLearnFrom(state));
    state.secondsSinceStart = 30.0f;
    state.staticTime = 29.99f;
    EXPECT_FALSE(SignalDetector::canLearnFrom(state));
    state.staticTime = 30.0f;
    state.meanDb = -55.0f;
    EXPECT_FALSE(SignalDetector::canLearnFrom(state));
}

TEST(SignalDetectorTest, ResultsAndReasonsHaveTheirNames)
{
    EXPECT_EQ(SignalDetector::detectionResultAsString(SignalDetector::NoProcessingSinceLastReport),
              "No ProcessingSinceLastReport");
    EXPECT_EQ(SignalDetector::detectionResultAsString(SignalDetector::Silent), "Silent");
    EXPECT_EQ(SignalDetector::detectionResultAsString(SignalDetector::Active), "Active");
    EXPECT_STREQ(SignalDetector::reasonAsString(1), "State is Active");
    EXPECT_STREQ(SignalDetector::reasonAsString(2), "Rms value is over threshold");
    EXPECT_STREQ(SignalDetector::reasonAsString(3), "Meanvalue is over threshold");
    EXPECT_STREQ(SignalDetector::reasonAsString(0), "Unknown");
    EXPECT_STREQ(SignalDetector::reasonAsString(4), "Unknown");
}

TEST(SignalDetectorDeathTest, OtherResultsAreUnreachable)
{
    EXPECT_DEATH(SignalDetector::detectionResultAsString(SignalDetector::DetectionResult(3)),
                 "should not be reached");
}

TEST(SignalDetectorTest, ResultReasonAndValueTravelInOneWord)
{
    ThresholdDirectory dir;
    auto detector = makeDetector(dir, -40.0);
    std::vector<tSample> const loud = tone(c_block), quiet(c_block);
    for (int i = 0; i < 84; ++i)
        detector->runDetector(quiet.data(), c_block);
    detector->runDetector(loud.data(), c_block);
    SignalDetector::DetectionInfo first;
    ASSERT_EQ(detector->consumeDetectionResult(first), SignalDetector::Active);
    EXPECT_EQ(first.reason, SignalDetector::RmsOverThreshold);

    // A preset silent result with the hold still running turns active again, keeping the last reason.
    detector->presetDetectionResult(SignalDetector::Silent);
    detector->runDetector(quiet.data(), c_block);
    SignalDetector::DetectionInfo again;
    ASSERT_EQ(detector->consumeDetectionResult(again), SignalDetector::Active);
    EXPECT_EQ(again.reason, first.reason);
    EXPECT_EQ(again.value, first.value);
    EXPECT_EQ(detector->consumeDetectionResult(again), SignalDetector::NoProcessingSinceLastReport);

    // With the audio thread running, a silent result preset between two loud blocks always comes back
    // active with its reason and level: the consumer's reset and the audio thread's update never lose
    // each other.
    std::atomic<bool> stop{false};
    std::atomic<unsigned int> blocks{0};
    std::thread audio([&] {
        while (!stop.load()) {
            detector->runDetector(loud.data(), c_block);
            ++blocks;
        }
    });
    for (int i = 0; i < 200; ++i) {
        detector->presetDetectionResult(SignalDetector::Silent);
        unsigned int const seen = blocks.load();
        while (blocks.load() < seen + 2)
            std::this_thread::yield();
        SignalDetector::DetectionInfo info;
        ASSERT_EQ(detector->consumeDetectionResult(info), SignalDetector::Active);
        ASSERT_EQ(info.reason, SignalDetector::RmsOverThreshold);
        ASSERT_NEAR(20.0 * std::log10(info.value), -20.0, 0.5);
    }
    stop = true;
    audio.join();
}

TEST(SignalDetectorTest, PollsEveryQuarterSecondOnTheMainLoop)
{
    GMainContext* context = g_main_context_new();
    g_main_context_push_thread_default(context);
    {
        ThresholdDirectory dir;
        // Before the detector arms its timer.
        gint64 const start = g_get_monotonic_time();
        auto detector = makeDetector(dir, -40.0);
        std::vector<bool> reports;
        // Stamped in the report itself: on a slow machine the logging after it would shorten the gap.
        std::vector<gint64> times;
        auto connection = detector->onThresholdTriggered([&](bool present) {
            reports.push_back(present);
            times.push_back(g_get_monotonic_time());
        });
        detector->presetDetectionResult(SignalDetector::Active);
        while (reports.empty())
            g_main_context_iteration(context, TRUE);
        detector->presetDetectionResult(SignalDetector::Silent);
        while (reports.size() < 2)
            g_main_context_iteration(context, TRUE);
        EXPECT_EQ(reports, (std::vector<bool>{true, false}));
        gint64 const first = times[0], second = times[1];
        EXPECT_GE(first - start, 240000);
        EXPECT_GE(second - first, 240000);
    }
    g_main_context_pop_thread_default(context);
    g_main_context_unref(context);
}

TEST(SignalDetectorTest, IsMadeByTheFactoryAndWatchesItsInput)
{
    Chain chain(c_rate);
    auto in = chain.addModule("input", "in");
    auto detector =
        std::dynamic_pointer_cast<SignalDetector>(chain.addModule("signal-detector", "sd-factory-test"));
    ASSERT_NE(detector, nullptr);
    EXPECT_EQ(detector->getType(), "signal-detector");
    detector->setParameters(Parameters{{"signal-threshold", "-40"}}, c_rate);
    chain.pullWire("sd-factory-test[0]", "in[0]");
    chain.compile();
    auto& buffer = *in->getOutPortBuffer(0);
    buffer.setSize(c_block);
    auto const loud = tone(c_block);
    std::copy(loud.begin(), loud.end(), buffer.getRawData());
    for (int i = 0; i < 85; ++i)
        detector->process();
    SignalDetector::DetectionInfo info;
    EXPECT_EQ(detector->consumeDetectionResult(info), SignalDetector::Active);
}
