// Runs `orvandeldsp live` as a user would, on the tests' own sound card (tests/alsa/TestPcmPlugin.c) and on
// alsa-lib's file plugin, and checks what the playback device was given; the table of tool answers holds
// the devices that fail. Last, devices whose clocks drift apart: the test card on its virtual clock,
// capture running 100 ppm fast or slow against playback, for an hour of audio. And the live host's period
// loop in this process, on the same card, where its heap calls are counted as for a chain's process(), and
// where its main loop is the test's.
#include "support/HeapWatch.h"
#include "support/LiveTool.h"
#include "tools/AlsaPcm.h"
#include "tools/LiveChain.h"
#include "tools/LivePeriodLoop.h"
#include "tools/MainContext.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace {

using namespace Zelmar::Testing;

// The playback's whole buffer, three periods, is primed with silence before the first period.
constexpr size_t c_primed = 3 * c_livePeriod;
std::string const c_passthrough = PROJECT_SOURCE_DIR "/tests/data/passthrough.xml";

// Left-justified 32-bit words to raw samples of a format.
std::string encode(std::vector<int32_t> const& words, snd_pcm_format_t format)
{
    int const width = snd_pcm_format_physical_width(format) / 8;
    std::string raw;
    for (int32_t const word : words) {
        auto const value = uint32_t(word >> (32 - snd_pcm_format_width(format)));
        for (int b = 0; b < width; ++b)
            raw += char(value >> (8 * b));
    }
    return raw;
}

// A tone and a fast wobble, in the format's own bits.
std::vector<int32_t> music(size_t frames, snd_pcm_format_t format)
{
    uint32_t const kept = ~0u << (32 - snd_pcm_format_width(format));
    return stereoWords(frames, [&](size_t f) {
        double const x =
            0.4 * std::sin(2 * M_PI * 440.0 * double(f) / c_liveRate) + 0.1 * std::sin(0.7 * double(f));
        return int32_t(uint32_t(std::lround(x * 2147483647.0)) & kept);
    });
}

// Not served, not at real-time priority: these runs never wait for a clock.
std::vector<std::string> live(std::vector<std::string> const& args)
{
    std::vector<std::string> all{"live",     "--no-service", "--priority", "0",
                                 "--period", "1024",         "--periods",  "3"};
    all.insert(all.end(), args.begin(), args.end());
    return all;
}

using OrvandeldspLiveTest = ServedLiveTest;

constexpr long long c_hourOfFrames = 48000LL * 3600;

// The first latency the host measures is the primed playback buffer, plus at most the frame the capture
// is ahead by then. The compensator orders its first correction once the smoothed sign of the deltas
// passes 0.5: from the worst start, -1, that takes 28 periods (1 - 2 * 0.95^n > 0.5), in which 100 ppm
// of 1024-frame periods add 2.9 frames; with the frame a delta must reach before it counts and a frame
// of rounding in each device's position, the latency stays within 5 frames of where it started.
constexpr int c_latencyAtStart = c_primed;
constexpr int c_compensatedSwing = 5;

struct DriftCase
{
    double ppm;
    bool compensated;
};

} // namespace

TEST_F(OrvandeldspLiveTest, AfterTheFadeInThePlayedFramesAreThoseRunWrites)
{
    struct Case
    {
        char const* format;
        int subtype;
        snd_pcm_format_t device;
        // A device reads in.raw or records out.raw; without a capture device in.wav is the input.
        std::string capture;
        std::string playback;
    } const cases[] = {
        {"s16", SF_FORMAT_PCM_16, SND_PCM_FORMAT_S16_LE, "livetest:SPEED=0,CAPTURE=" + path("in.raw"),
         "livetest:SPEED=0,RECORD=" + m_out},
        {"s24", SF_FORMAT_PCM_24, SND_PCM_FORMAT_S24_LE,
         "livetest:SPEED=0,MMAP=1,FORMAT=S24_LE,CAPTURE=" + path("in.raw"),
         "livetest:SPEED=0,MMAP=1,FORMAT=S24_LE,RECORD=" + m_out},
        {"s32", SF_FORMAT_PCM_32, SND_PCM_FORMAT_S32_LE, "livetest:SPEED=0,MMAP=1,CAPTURE=" + path("in.raw"),
         "livetest:SPEED=0,RECORD=" + m_out},
        {"s24", SF_FORMAT_PCM_24, SND_PCM_FORMAT_S24_3LE, "filetest:IN=" + path("in.raw"),
         "filetest:OUT=" + m_out},
        // No device here waits for a clock: one paced faster than real time underruns on a loaded machine
        // and fades in again. The file feed's reader is through a file this short before the start.
        {"s16", SF_FORMAT_PCM_16, SND_PCM_FORMAT_S16_LE, "", "livetest:SPEED=0,MMAP=1,RECORD=" + m_out},
    };
    std::string const config = PROJECT_SOURCE_DIR "/configs/default.xml";
    // A third of a second: well past the fade-in.
    size_t const frames = 16000;
    for (auto const& c : cases) {
        SCOPED_TRACE(c.playback + " " + c.format);
        auto const in = music(frames, c.device);
        writeSound(path("in.wav"), c.subtype, 2, in);
        m_scratch.write("in.raw", encode(in, c.device));
        auto const reference =
            runTool({"run", "-c", config, "-p", "1024", "-f", c.format, path("in.wav"), path("ref.wav")});
        ASSERT_EQ(reference.status, 0) << reference.err;
        auto const result = runTool(live(
            {"-c", config, "-f", c.format, "--frames", std::to_string(frames), "--playback", c.playback,
             c.capture.empty() ? "--input" : "--capture", c.capture.empty() ? path("in.wav") : c.capture}));
        ASSERT_EQ(result.status, 0) << result.err;
        EXPECT_NE(result.out.find(", playback 0;"), std::string::npos)
            << "an xrun fades in again: " << result.out;

        auto const expected = readSound(path("ref.wav")).samples;
        auto const got = played(c.device);
        ASSERT_EQ(got.size(), 2 * c_primed + expected.size());
        EXPECT_EQ(std::count(got.begin(), got.begin() + 2 * c_primed, 0), std::ptrdiff_t(2 * c_primed));
        size_t differing = 0, lastDiffering = 0;
        for (size_t i = 0; i < expected.size(); ++i) {
            if (got[2 * c_primed + i] != expected[i]) {
                ++differing;
                lastDiffering = i / 2;
            }
        }
        EXPECT_GT(differing, 0u) << "the start fades in";
        EXPECT_LT(lastDiffering, c_fadeFrames + c_fadeLate);
    }
}

TEST_F(OrvandeldspLiveTest, AnXrunOnEitherSideIsCountedAndFadesBackIn)
{
    for (bool const onCapture : {true, false}) {
        SCOPED_TRACE(onCapture ? "capture" : "playback");
        std::string const xrun = ",XRUN=48000";
        auto const result = runTool(live({"-c", c_passthrough, "--frames", "96000", "--capture",
                                          "livetest:SPEED=0" + (onCapture ? xrun : ""), "--playback",
                                          "livetest:SPEED=0,RECORD=" + m_out + (onCapture ? "" : xrun)}));
        ASSERT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(
            result.out.rfind(std::string("orvandeldsp: 96000 frames, 2.000 s at 48000 Hz; xruns: capture ") +
                                 (onCapture ? "1, playback 0;" : "0, playback 1;"),
                             0),
            0u)
            << result.out;
        // The square wave never crosses zero: sound after silence is a start, and a start fades in.
        auto const levels = levelsOf(played());
        auto const fading = size_t(std::count_if(levels.begin(), levels.end(),
                                                 [](int32_t l) { return l != 0 && l != c_squareLevel; }));
        EXPECT_EQ(soundStarts(levels).size(), 2u) << "the start and the restart after the xrun";
        EXPECT_GE(fading, 2 * (c_fadeFrames - 2));
        EXPECT_LE(fading, 2 * (c_fadeFrames + c_fadeLate));
    }
}

using OrvandeldspLiveDriftTest = testing::TestWithParam<DriftCase>;

TEST_P(OrvandeldspLiveDriftTest, AnHourOfDriftRunsWithoutXrunOnlyWhenCompensated)
{
    auto const& c = GetParam();
    ScopedVariable const card("ALSA_CONFIG_PATH", ALSA_TEST_CONFIG_DIR "/live-pcm.conf");
    char capture[64];
    std::snprintf(capture, sizeof capture, "livetest:VIRTUAL=1,PPM=%g", c.ppm);
    // Through a time stretcher, or straight through.
    auto const result =
        runTool(live({"-c",
                      PROJECT_SOURCE_DIR +
                          std::string(c.compensated ? "/configs/drift.xml" : "/tests/data/passthrough.xml"),
                      "--frames", std::to_string(c_hourOfFrames), "--capture", capture, "--playback",
                      "livetest:VIRTUAL=1"}));
    ASSERT_EQ(result.status, 0) << result.err;
    auto const from = [&](char const* text) {
        return result.out.c_str() + std::min(result.out.find(text), result.out.size());
    };
    unsigned int xruns[2] = {};
    int lowest = 0, highest = 0;
    double correction = 0;
    ASSERT_EQ(std::sscanf(from("xruns: "), "xruns: capture %u, playback %u", &xruns[0], &xruns[1]), 2);
    ASSERT_EQ(std::sscanf(from("; latency "), "; latency %*d frames (%d to %d)", &lowest, &highest), 2);
    bool const corrected =
        std::sscanf(from("; drift corrected by "), "; drift corrected by %lf", &correction) == 1;
    std::string const warning = "drift between the capture and playback clocks is not compensated";
    size_t const warned = result.err.find(warning);
    EXPECT_EQ(warned == std::string::npos           ? 0
              : warned == result.err.rfind(warning) ? 1
                                                    : 2,
              c.compensated ? 0 : 1)
        << "warned once when not compensated: " << result.err;

    if (c.compensated) {
        EXPECT_EQ(xruns[0] + xruns[1], 0u) << result.out;
        EXPECT_GE(lowest, c_latencyAtStart - c_compensatedSwing) << result.out;
        EXPECT_LE(highest, c_latencyAtStart + 1 + c_compensatedSwing) << result.out;
        // Every frame of drift was corrected, to a few frames in the 172.8 million.
        ASSERT_TRUE(corrected) << result.out;
        EXPECT_NEAR(correction, c.ppm, 0.1);
    } else {
        // Fast capture overruns its buffer, slow capture lets the playback run dry.
        EXPECT_GT(xruns[c.ppm > 0 ? 0 : 1], 0u) << result.out;
        EXPECT_NE(result.out.find("; drift not compensated"), std::string::npos) << result.out;
    }
}

INSTANTIATE_TEST_SUITE_P(Drift, OrvandeldspLiveDriftTest,
                         testing::Values(DriftCase{100, true}, DriftCase{-100, true}, DriftCase{100, false},
                                         DriftCase{-100, false}),
                         [](testing::TestParamInfo<DriftCase> const& info) {
                             return std::string(info.param.ppm > 0 ? "CaptureFast" : "CaptureSlow") +
                                    (info.param.compensated ? "Compensated" : "Uncompensated");
                         });

TEST(LivePeriodLoopTest, PeriodsDriftCompensationXrunRecoveryAChainSwapAndTheFadeOutNeverTouchTheHeap)
{
    using namespace Zelmar;
    using namespace Zelmar::Host;
    setenv("ALSA_CONFIG_PATH", ALSA_TEST_CONFIG_DIR "/live-pcm.conf", 1);
    snd_config_update_free_global();
    std::string const config = PROJECT_SOURCE_DIR "/configs/live-line-in.xml";
    AlsaPcm::Setup setup;
    setup.periodFrames = 256;
    // One device through mmap, the other through readi/writei; each runs over once. The capture's clock
    // runs 1000 ppm fast, so that the line-in's compensator drops frames within the run.
    AlsaPcm capture("livetest:VIRTUAL=1,PPM=1000,XRUN=10000", SND_PCM_STREAM_CAPTURE, setup);
    AlsaPcm playback("livetest:VIRTUAL=1,MMAP=1,XRUN=20000", SND_PCM_STREAM_PLAYBACK, setup);
    ASSERT_TRUE(playback.usesMmap() && !capture.usesMmap());
    auto const telemetry = std::make_unique<LiveTelemetry>();
    LivePeriodLoop loop(std::make_unique<LiveChain>(config, LiveChain::Needs{48000, 0, true}), capture,
                        playback, {setup.periodFrames, 48000, 0}, *telemetry);

    std::atomic<bool> stop{false};
    int heapCalls = -1;
    std::thread audio([&] {
        Testing::takeHeapCallsOfWatchedThreads();
        Testing::watchHeapOnThisThread(true);
        loop.run(stop);
        Testing::watchHeapOnThisThread(false);
        heapCalls = Testing::takeHeapCallsOfWatchedThreads();
    });
    while (telemetry->frames.load() < 12000)
        std::this_thread::yield();
    LiveChain const* const first = &loop.getChain();
    auto next = std::make_unique<LiveChain>(config, LiveChain::Needs{48000, 2, true});
    bool swapped = false;
    ASSERT_TRUE(loop.offer(next, [&] { swapped = true; }));
    EXPECT_FALSE(loop.offer(next, {})) << "one handover at a time";
    // The replaced chain is destroyed here, on the main loop.
    EXPECT_TRUE(dispatchMainContextUntil([&] { return swapped; }, 10.0));
    EXPECT_NE(&loop.getChain(), first);
    // The audio thread runs ahead of this one on its virtual clock: the new chain's fade-in must be over
    // before the stop, or the fade-out starts below full level and ends early.
    uint64_t const stopAt = std::max<uint64_t>(30000, telemetry->frames.load() + 12000);
    while (telemetry->frames.load() < stopAt)
        std::this_thread::yield();
    stop.store(true);
    audio.join();

    EXPECT_EQ(heapCalls, 0);
    EXPECT_EQ(loop.describeFailure(), "");
    EXPECT_EQ(telemetry->xruns[LiveTelemetry::c_capture].load(), 1u);
    EXPECT_EQ(telemetry->xruns[LiveTelemetry::c_playback].load(), 1u);
    EXPECT_GE(telemetry->frames.load(), stopAt + 4800) << "the fade-out was played";
    EXPECT_GT(telemetry->framesDropped.load(), 0u);
}
