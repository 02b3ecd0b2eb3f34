#include "dsp/SignalDetector.h"
#include "dsp/FilterChHp1.h"
#include "dsp/StaticNoiseDetector.h"
#include "dsp/ThetaBuffer.h"
#include "support/LogCapture.h"
#include "support/MainLoop.h"
#include "support/ModuleHarness.h"
#include "support/TemporaryDirectory.h"
#include <algorithm>
#include <atomic>
#include <cmath>
#include <functional>
#include <gtest/gtest.h>
#include <thread>

using namespace Zelmar;

namespace {

// The level statistics count as at 44100 Hz whatever the rate: an analysis every 82688 decimated
// frames, 13.78 s of this input, and seconds that are 48000 / 44100 of the real ones.
constexpr unsigned int c_rate = 48000;
constexpr unsigned int c_block = 1200; // ten blocks are one 250 ms poll

double sine(double levelDb, uint64_t i)
{
    return std::sqrt(2.0) * std::pow(10.0, levelDb / 20.0) * std::sin(2.0 * M_PI * 1000.0 * i / c_rate);
}

// Every eighth sample alternates in sign: the high-pass passes it at unity gain, so each 10 ms level
// is exactly levelDb.
double steady(double levelDb, uint64_t i)
{
    return (i / 8 % 2 ? -1.0 : 1.0) * std::pow(10.0, levelDb / 20.0);
}

// A detector keeping its file in a scratch directory, fed through its input port as
// the audio thread would and polled every 250 ms of audio as the main loop would.
class Detector
{
public:
    explicit Detector(double thresholdDb,
                      Testing::TemporaryDirectory const& dir = Testing::TemporaryDirectory())
        : m_module(std::make_shared<SignalDetector>("sd", dir.path() + "/"))
    {
        m_module->setParameters(Parameters{{"signal-threshold", std::to_string(thresholdDb)}}, c_rate);
        m_connection = detector().onThresholdTriggered([this](bool on) {
            transitions.push_back({double(m_frame) / c_rate, on});
        });
    }

    SignalDetector& detector() { return *m_module; }

    void run(double duration, std::function<double(uint64_t)> const& signal, bool poll = true)
    {
        std::vector<tSample> block(c_block);
        for (long blocks = std::lround(duration * 40); blocks > 0; --blocks) {
            for (auto& sample : block)
                sample = tSample(signal(m_frame++));
            m_harness.process({block});
            if (poll && blocks % 10 == 1)
                detector().pollSignal();
        }
    }

    std::vector<std::pair<double, bool>> transitions;

private:
    std::shared_ptr<SignalDetector> m_module;
    Testing::ModuleHarness m_harness{m_module};
    uint64_t m_frame = 0;
    Tools::Connection m_connection;
};

} // namespace

// Loud from the start; that it starts silent shows in the transitions of the tone below.
TEST(SignalDetectorTest, IgnoresTheFirst100000FramesThenStartsSilent)
{
    Detector d(-40.0);
    std::vector<tSample> const loud = Testing::makeSine(0.1414, 1000, c_rate, 1000);
    for (int i = 0; i < 100; ++i)
        d.detector().runDetector(loud.data(), 1000);
    // Still the result the detector was made with: nothing was written.
    SignalDetector::DetectionInfo info;
    EXPECT_EQ(d.detector().consumeDetectionResult(info), SignalDetector::Silent);
    EXPECT_EQ(d.detector().consumeDetectionResult(info), SignalDetector::NoProcessingSinceLastReport);
    d.detector().runDetector(loud.data(), 1000);
    EXPECT_EQ(d.detector().consumeDetectionResult(info), SignalDetector::Active);
}

TEST(SignalDetectorTest, ToneOverThresholdIsActiveAndHeldTenSecondsAfterItEnds)
{
    Testing::LogCapture log(Tools::Tracer::Info);
    Detector d(-40.0);
    // The tone starts within a poll interval, after quiet blocks, so the activation has a reason.
    d.run(15.0, [](uint64_t i) { return i >= 2.6 * c_rate && i < 3.6 * c_rate ? sine(-20.0, i) : 0.0; });
    // The hold covers the 480000 frames after the last loud block, 3.6 s to 13.6 s. The interval polled
    // at 13.75 s still starts held, so its result is active; the poll at 14 s is the first to see silence.
    EXPECT_EQ(d.transitions, (std::vector<std::pair<double, bool>>{{2.75, true}, {14.0, false}}));
    auto const lines = log.lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_NEAR(20 * std::log10(std::atof(lines[1].c_str() + 18)), -20.0, 0.5) << lines[1];
    EXPECT_EQ(lines[1].substr(0, 18) + lines[1].substr(lines[1].find(" Reason:")),
              "3 Signal trigger:  Reason: Rms value is over threshold");
    // Audio is counted from the end of the skip, 2.1 s: 11.9 s, counted as 11.9 * 48000 / 44100.
    EXPECT_EQ(lines[2], "3 No signal in line-in: 12.9524");
}

TEST(SignalDetectorTest, FluctuatingInputBelowThresholdIsActiveWithReasonOne)
{
    Testing::LogCapture log(Tools::Tracer::Info);
    Detector d(-30.0);
    // Half a second at -50 dB, half a second at -40 dB: a deviation of 5 dB, all below the threshold.
    d.run(18.25, [](uint64_t i) { return sine(i / (c_rate / 2) % 2 ? -40.0 : -50.0, i); });
    // The first analysis comes 13.78 s after the skip ended at 2.1 s; the next poll reports it.
    EXPECT_EQ(d.transitions, (std::vector<std::pair<double, bool>>{{16.0, true}}));
    auto const lines = log.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[1].substr(lines[1].find(" Reason:")), " Reason: State is Active");
    double const level = 20 * std::log10(std::atof(lines[1].c_str() + 18));
    EXPECT_TRUE(level > -50.5 && level < -39.5) << lines[1];
}

// -70 dB is squeezed to -69.07 dB in the level statistics, and the headroom rule is applied to that:
// 8.07 dB of headroom and -61.0 dB. A noise whose squeezed level is -70 dB gives -70 + 8.4 = -61.6.
TEST(SignalDetectorTest, LearnsThresholdFromThirtySecondsOfSteadyNoiseAndReadsItBack)
{
    for (auto const& [inputDb, file] :
         {std::pair{-70.0, "-61.0\n#headroom: 8.1\n"}, {-71.30425, "-61.6\n#headroom: 8.4\n"}}) {
        Testing::TemporaryDirectory dir;
        Testing::LogCapture log(Tools::Tracer::Info);
        Detector d(-50.0, dir);
        auto const noise = [level = inputDb](uint64_t i) { return steady(level, i); };
        // Two analyses of static noise make 30 s as the statistics count: learnt at 2.1 + 27.56 s, polled
        // at 29.75 s.
        d.run(29.5, noise);
        EXPECT_EQ(log.lines().size(), 1u) << "learnt before 30 s of static noise";
        d.run(0.25, noise);
        EXPECT_EQ(log.count("3 sd : new signal threshold: " + std::string(file).substr(0, 5)), 1);
        EXPECT_EQ(dir.entries(), std::vector<std::string>{"sd"}) << "no temporary file is left";
        EXPECT_EQ(dir.read("sd"), file);
        // The next analysis learns the same floor again: within 0.5 dB, so nothing changes.
        d.run(15.0, noise);
        EXPECT_EQ(log.lines().size(), 2u);
        EXPECT_TRUE(d.transitions.empty());

        Detector restarted(-20.0, dir);
        EXPECT_TRUE(restarted.detector().hasMeasuredThreshold());
        EXPECT_NEAR(20.0 * std::log10(restarted.detector().getThreshold()), std::atof(file), 1e-4);
    }
}

TEST(SignalDetectorTest, ThresholdFileWinsOverTheParameterWhichAppliesOnlyOnce)
{
    Testing::TemporaryDirectory dir;
    Testing::LogCapture log(Tools::Tracer::Info);
    {
        SignalDetector detector("sd", dir.path() + "/");
        EXPECT_EQ(log.lines(), std::vector<std::string>{
                                   "2 sd : no measured signal threshold yet, using default value: -inf"});
        detector.setParameters(Parameters{{"signal-threshold", "-20"}}, c_rate);
        detector.setParameters(Parameters{{"signal-threshold", "-30"}}, c_rate);
        EXPECT_FLOAT_EQ(detector.getThreshold(), 0.1f);
    }
    dir.write("sd", "not a number\n");
    EXPECT_FALSE(Detector(-20.0, dir).detector().hasMeasuredThreshold());
    dir.write("sd", "-40.0\n#headroom: 3.0\n");
    log.clear();
    Detector d(-20.0, dir);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_FLOAT_EQ(d.detector().getThreshold(), 0.01f);

    // Saving rounds to one decimal, and never writes outside the directory or into a missing one.
    SignalDetector("sd", dir.path() + "/").saveThreshold(0.999f, 0.04f);
    EXPECT_EQ(dir.read("sd"), "0.0\n#headroom: 0.0\n");
    log.clear();
    SignalDetector("line/in", dir.path() + "/").saveThreshold(0.01f, 3.0f);
    SignalDetector("sd", dir.path() + "/missing/").saveThreshold(0.01f, 3.0f);
    EXPECT_EQ(dir.entries(), std::vector<std::string>{"sd"});
    EXPECT_EQ(log.count("4 line/in : signal threshold not saved, the id contains a path separator"), 1);
    EXPECT_EQ(log.count("4 sd : could not save signal threshold:"), 1);
}

TEST(SignalDetectorTest, HeadroomGrowsFromThreeToTwelveDecibelsWithinTheFirstTwoMinutes)
{
    // -70 dB, giving -61.6 and 8.4, is learnt by the detector above.
    for (auto const& [floor, threshold, headroom] :
         {std::tuple{-55.0f, -52.0f, 3.0f}, {-80.0f, -68.0f, 12.0f}, {-95.0f, -68.0f, 12.0f}}) {
        auto const learnt = SignalDetector::thresholdForNoiseFloor(floor);
        EXPECT_NEAR(learnt.thresholdDb, threshold, 1e-4) << floor;
        EXPECT_NEAR(learnt.headroomDb, headroom, 1e-4) << floor;
    }
    // static time, seconds since start, mean
    for (auto const& [staticTime, since, mean, can] : {std::tuple{30.0f, 120.0f, -55.01f, true},
                                                       {30.0f, 120.01f, -55.01f, false},
                                                       {29.99f, 30.0f, -55.01f, false},
                                                       {30.0f, 30.0f, -55.0f, false}}) {
        SignalState state;
        state.staticTime = staticTime;
        state.secondsSinceStart = since;
        state.meanDb = mean;
        EXPECT_EQ(SignalDetector::canLearnFrom(state), can) << staticTime << " " << since << " " << mean;
    }
}

TEST(SignalDetectorTest, ResultsAndReasonsHaveTheirNames)
{
    std::vector<std::string> names;
    for (auto result :
         {SignalDetector::NoProcessingSinceLastReport, SignalDetector::Silent, SignalDetector::Active})
        names.push_back(SignalDetector::detectionResultAsString(result));
    for (uint8_t reason = 0; reason < 5; ++reason)
        names.push_back(SignalDetector::reasonAsString(reason));
    EXPECT_EQ(names, std::vector<std::string>({"No ProcessingSinceLastReport", "Silent", "Active", "Unknown",
                                               "State is Active", "Rms value is over threshold",
                                               "Meanvalue is over threshold", "Unknown"}));
    EXPECT_DEATH(SignalDetector::detectionResultAsString(SignalDetector::DetectionResult(3)),
                 "should not be reached");
}

TEST(SignalDetectorTest, ResultReasonAndValueTravelInOneWord)
{
    Detector d(-40.0);
    SignalDetector& detector = d.detector();
    d.run(
        2.1, [](uint64_t) { return 0.0; }, false);
    std::vector<tSample> const loud = Testing::makeSine(std::sqrt(2.0) * 0.1, 1000.0, c_rate, c_block);
    // With the audio thread running, a silent result preset between two loud blocks always comes back
    // active with its reason and level: the consumer's reset and the audio thread's update never lose
    // each other.
    std::atomic<bool> stop{false};
    std::atomic<unsigned int> blocks{0};
    std::thread audio([&] {
        while (!stop.load()) {
            detector.runDetector(loud.data(), c_block);
            ++blocks;
        }
    });
    int lost = 0, rounds = 0;
    for (; rounds < 200 && lost == 0; ++rounds) {
        detector.presetDetectionResult(SignalDetector::Silent);
        unsigned int const seen = blocks.load();
        while (blocks.load() < seen + 2)
            std::this_thread::yield();
        SignalDetector::DetectionInfo info;
        lost += detector.consumeDetectionResult(info) != SignalDetector::Active ||
                info.reason != SignalDetector::RmsOverThreshold ||
                std::fabs(20.0 * std::log10(info.value) + 20.0) > 0.5;
    }
    stop = true;
    audio.join();
    EXPECT_EQ(lost, 0) << "in round " << rounds;
}

// Timers never fire early, so the times bound the interval from below; the wait is a safety net.
TEST(SignalDetectorTest, PollsEveryQuarterSecondOnTheMainLoop)
{
    gint64 const start = g_get_monotonic_time(); // before the detector arms its timer
    Detector d(-40.0);
    std::vector<gint64> times;
    auto connection =
        d.detector().onThresholdTriggered([&](bool) { times.push_back(g_get_monotonic_time()); });
    d.detector().presetDetectionResult(SignalDetector::Active);
    EXPECT_TRUE(Testing::runMainLoopUntil([&] { return times.size() == 1; }));
    d.detector().presetDetectionResult(SignalDetector::Silent);
    ASSERT_TRUE(Testing::runMainLoopUntil([&] { return times.size() == 2; }));
    EXPECT_EQ(d.transitions, (std::vector<std::pair<double, bool>>{{0.0, true}, {0.0, false}}));
    EXPECT_GE(times[0] - start, 250000);
    EXPECT_GE(times[1] - times[0], 250000);
}

namespace {

// Peak gain of a cosine after the filter settled; the filter runs on every eighth sample at 44.1 kHz.
double gainDbAt(double frequency)
{
    FilterChHp1 filter;
    double peak = 0.0;
    for (int i = 0; i < 24000; ++i) {
        double const y =
            filter.step(tSample(0.5 * std::cos(2.0 * M_PI * frequency * i * 8 / 44100))).toDouble();
        peak = i < 4000 ? 0.0 : std::max(peak, std::fabs(y));
    }
    return 20.0 * std::log10(peak / 0.5);
}

} // namespace

// Levels below -60 dB are squeezed continuously.
TEST(StaticNoiseDetectorTest, LengthsFollowTheSampleRateAndLowLevelsAreSqueezed)
{
    StaticNoiseDetector detector(44100.0f);
    auto const lengths = [&] {
        return std::make_pair(detector.getBlockLength(), detector.getAnalysisLength());
    };
    EXPECT_EQ(lengths(), std::make_pair(55u, 82688u));
    detector.adjustSampleRate(48000.0f);
    EXPECT_EQ(lengths(), std::make_pair(60u, 90000u));
    for (auto const& [level, squeezed, tolerance] : {std::tuple{-59.9f, -59.9f, 0.0f},
                                                     {-60.0f, -60.0f, 1e-5f},
                                                     {-60.01f, -60.01f, 0.01f},
                                                     {-70.0f, -69.0714f, 1e-4f},
                                                     {-120.0f, -93.2270f, 1e-3f}})
        EXPECT_NEAR(StaticNoiseDetector::compressLevel(level), squeezed, tolerance) << level;
}

TEST(StaticNoiseDetectorTest, SteadyLevelIsStaticAndFluctuatingLevelIsActive)
{
    StaticNoiseDetector detector(44100.0f);
    unsigned int const n = detector.getAnalysisLength();
    for (unsigned int i = 0; i < n; ++i)
        detector.addSquareValue(1e-7f); // -70 dB, squeezed to -69.07 dB as the learnt thresholds show
    detector.setFastRms(0.1f);
    detector.setFastRms(0.3f);

    SignalState state;
    detector.analyseStaticActive(state);
    EXPECT_EQ(detector.getState(), StaticNoiseDetector::Static);
    EXPECT_NEAR(state.staticTime, 15.0f, 1e-3);
    EXPECT_NEAR(state.secondsSinceStart, 15.0f, 1e-3);
    EXPECT_FLOAT_EQ(state.averageFastRms, 0.2f);
    EXPECT_NEAR(state.lastBlockRms, std::sqrt(1e-7f), 1e-8);

    // Alternating 10 ms blocks of -40 dB and digital silence (-120 dB, squeezed to -93.2 dB).
    unsigned int const block = detector.getBlockLength();
    for (unsigned int i = 0; i < n; ++i)
        detector.addSquareValue(i / block % 2 ? 0.0f : 1e-4f);
    detector.analyseStaticActive(state);
    EXPECT_EQ(detector.getState(), StaticNoiseDetector::Active);
    EXPECT_EQ(state.staticTime, 0.0f);
    EXPECT_EQ(state.averageFastRms, 0.0f);
    EXPECT_NEAR(state.secondsSinceStart, 30.0f, 1e-3);
}

TEST(FilterChHp1Test, PassesHighFrequenciesAndHasItsCornerAtFiftyHertz)
{
    for (auto const& [frequency, db, tolerance] :
         {std::tuple{50.0, -3.01, 0.05}, {1000.0, 0.0, 0.05}, {44100.0 / 16, 0.0, 0.001}, {5.0, -20.0, 1.0}})
        EXPECT_NEAR(gainDbAt(frequency), db, tolerance) << frequency;
    EXPECT_LT(gainDbAt(0.0), -100.0) << "DC is removed";
}

TEST(ThetaBufferTest, StatisticsCoverTheFilledPartAndTheLatestValuesOnceWrapped)
{
    ThetaBuffer theta(4);
    EXPECT_EQ(theta.calcMean(), 0.0f);
    theta.addValue(1.0f);
    theta.addValue(2.0f);
    EXPECT_FLOAT_EQ(theta.calcMean(), 1.5f);
    EXPECT_EQ(theta.calcDeviation(1.5f), 0.0f) << "fewer than three values";
    theta.addValue(3.0f);
    EXPECT_FLOAT_EQ(theta.calcDeviation(2.0f), 1.0f) << "divisor count - 1";
    theta.addValue(4.0f);
    theta.addValue(5.0f); // overwrites the 1
    EXPECT_FLOAT_EQ(theta.calcMean(), 3.5f);
    EXPECT_FLOAT_EQ(theta.calcDeviation(3.5f), std::sqrt(5.0f / 3.0f));
    theta.reset(2);
    theta.addValue(-6.0f);
    EXPECT_FLOAT_EQ(theta.calcMean(), -6.0f);
}
