// Runs `orvandeldsp live` as a user would, on the tests' own sound card (tests/alsa/TestPcmPlugin.c) and on
// alsa-lib's file plugin, and checks what the playback device was given.
#include "support/BackgroundTool.h"
#include "support/PrivateDbus.h"

#include <algorithm>
#include <alsa/asoundlib.h>
#include <cmath>
#include <cstdlib>

namespace {

using namespace Zelmar::Testing;
using namespace std::chrono_literals;

constexpr unsigned int c_rate = 48000;
constexpr size_t c_period = 1024;
// The playback's whole buffer, three periods, is primed with silence before the first period.
constexpr size_t c_primed = 3 * c_period;
// The output stage fades over a tenth of a second, arriving within a few frames of it.
constexpr size_t c_fadeFrames = c_rate / 10;
constexpr size_t c_fadeLate = 10;
// The test card's square wave, in S32_LE.
constexpr int32_t c_squareLevel = 0x20000000;
std::string const c_passthrough = PROJECT_SOURCE_DIR "/tests/data/passthrough.xml";
// With a time stretcher, so that a capture run has nothing to warn about.
std::string const c_compensated = PROJECT_SOURCE_DIR "/configs/drift.xml";

// Left-justified 32-bit words to raw samples of a format and back.
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

std::vector<int32_t> decode(std::string const& raw, snd_pcm_format_t format)
{
    auto const width = size_t(snd_pcm_format_physical_width(format) / 8);
    std::vector<int32_t> words;
    for (size_t i = 0; i + width <= raw.size(); i += width) {
        uint32_t value = 0;
        for (size_t b = 0; b < width; ++b)
            value |= uint32_t(uint8_t(raw[i + b])) << (8 * b);
        words.push_back(int32_t(value << (32 - snd_pcm_format_width(format))));
    }
    return words;
}

// A tone and a fast wobble, in the format's own bits.
std::vector<int32_t> music(size_t frames, snd_pcm_format_t format)
{
    uint32_t const kept = ~0u << (32 - snd_pcm_format_width(format));
    return stereoWords(frames, [&](size_t f) {
        double const x =
            0.4 * std::sin(2 * M_PI * 440.0 * double(f) / c_rate) + 0.1 * std::sin(0.7 * double(f));
        return int32_t(uint32_t(std::lround(x * 2147483647.0)) & kept);
    });
}

// The left channel's level, frame by frame.
std::vector<int32_t> leftLevels(std::vector<int32_t> const& played)
{
    std::vector<int32_t> levels;
    for (size_t i = 0; i < played.size(); i += 2)
        levels.push_back(std::abs(played[i]));
    return levels;
}

class OrvandeldspLiveTest : public ToolTest
{
protected:
    void SetUp() override { setenv("ALSA_CONFIG_PATH", ALSA_TEST_CONFIG_DIR "/live-pcm.conf", 1); }
    void TearDown() override { unsetenv("ALSA_CONFIG_PATH"); }

    // Not served, not at real-time priority: these runs never wait for a clock.
    static std::vector<std::string> live(std::vector<std::string> const& args)
    {
        std::vector<std::string> all{"live",     "--no-service", "--priority", "0",
                                     "--period", "1024",         "--periods",  "3"};
        all.insert(all.end(), args.begin(), args.end());
        return all;
    }
    std::vector<int32_t> played(snd_pcm_format_t format = SND_PCM_FORMAT_S32_LE) const
    {
        return decode(m_scratch.read("out.raw"), format);
    }
    // Stereo through a gain "volume" of `gain` dB.
    static std::string volumeConfig(char const* gain)
    {
        return std::string(R"(<dsp>
  <module type="input" id="in"/>
  <stereo-module type="gain" id="volume"><parameter id="gain" type="double">)") +
               gain + R"(</parameter></stereo-module>
  <module type="output" id="out"><parameter id="interleave-pattern" type="string">01</parameter></module>
  <cable out="in" in="volume"/>
  <cable out="volume" in="out"/>
</dsp>)";
    }
    void waitUntilPlayed(int32_t level) const
    {
        auto const played = [&] {
            auto const levels = leftLevels(this->played());
            return std::find(levels.begin(), levels.end(), level) != levels.end();
        };
        for (auto const end = Clock::now() + 10s; !played() && Clock::now() < end;)
            std::this_thread::sleep_for(20ms);
    }
    std::string const m_out = path("out.raw");
};

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
        // The file is read ahead by a thread that a device never waiting would outrun.
        {"s16", SF_FORMAT_PCM_16, SND_PCM_FORMAT_S16_LE, "", "livetest:SPEED=4,MMAP=1,RECORD=" + m_out},
    };
    std::string const config = PROJECT_SOURCE_DIR "/configs/default.xml";
    for (auto const& c : cases) {
        SCOPED_TRACE(c.playback + " " + c.format);
        auto const in = music(c_rate, c.device);
        writeSound(path("in.wav"), c.subtype, 2, in);
        m_scratch.write("in.raw", encode(in, c.device));
        ASSERT_EQ(
            runTool({"run", "-c", config, "-p", "1024", "-f", c.format, path("in.wav"), path("ref.wav")})
                .status,
            0);
        auto const result = runTool(live({"-c", config, "-f", c.format, "--frames", "48000", "--playback",
                                          c.playback, c.capture.empty() ? "--input" : "--capture",
                                          c.capture.empty() ? path("in.wav") : c.capture}));
        ASSERT_EQ(result.status, 0) << result.err;

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
        auto const levels = leftLevels(played());
        size_t starts = 0;
        for (size_t f = 1; f < levels.size(); ++f)
            starts += levels[f - 1] == 0 && levels[f] != 0;
        auto const fading = size_t(std::count_if(levels.begin(), levels.end(),
                                                 [](int32_t l) { return l != 0 && l != c_squareLevel; }));
        EXPECT_EQ(starts, 2u) << "the start and the restart after the xrun";
        EXPECT_GE(fading, 2 * (c_fadeFrames - 2));
        EXPECT_LE(fading, 2 * (c_fadeFrames + c_fadeLate));
    }
}

TEST_F(OrvandeldspLiveTest, ADeviceThatFailsEndsTheRunWithOneLineAfterTheSummary)
{
    struct Case
    {
        char const* rate;
        std::string capture;
        std::string playback;
        std::string err;
        bool started;
    } const cases[] = {
        {"48000", "livetest:SPEED=0", "livetest:SPEED=0,VANISH=20000",
         "playback PCM livetest:SPEED=0,VANISH=20000: No such device", true},
        {"48000", "livetest:SPEED=0,SUSPEND=20000", "livetest:SPEED=0",
         "capture PCM livetest:SPEED=0,SUSPEND=20000: Streams pipe error", true},
        {"48000", "no-such-card", "livetest",
         "capture PCM no-such-card: cannot open: No such file or directory", false},
        {"44100", "livetest:RATE=48000", "livetest",
         "capture PCM livetest:RATE=48000: does not take 44100 Hz (it offers 48000 Hz)", false},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.err);
        auto const result = runTool(
            live({"-c", c_compensated, "-r", c.rate, "--capture", c.capture, "--playback", c.playback}));
        EXPECT_EQ(result.status, 1);
        // The tool's one line; the library's log entries read "orvandeldsp [level]".
        EXPECT_EQ(result.err.find("orvandeldsp: "), result.err.rfind("orvandeldsp: ")) << result.err;
        EXPECT_TRUE(g_str_has_suffix(result.err.c_str(), ("orvandeldsp: " + c.err + "\n").c_str()))
            << result.err;
        EXPECT_EQ(result.out.find("xruns: capture 0, playback 0;") != std::string::npos, c.started)
            << result.out;
    }
    for (auto const& args :
         {live({"--capture", "livetest", "--input", path("in.wav"), "--playback", "livetest"}),
          live({"--capture", "livetest"}), live({"-p", "1281", "--capture", "x", "--playback", "y"}),
          live({"--bus", "session", "--capture", "x", "--playback", "y"}),
          live({"--capture", "", "--playback", "y"})})
        expectFailure(runTool(args), 2, "orvandeldsp: ", true);
}

TEST_F(OrvandeldspLiveTest, SetChangesTheLiveSoundAndSigtermFadesItOut)
{
    PrivateDbus bus;
    ScopedBusAddress session("DBUS_SESSION_BUS_ADDRESS", bus.getAddress());
    std::string const config = writeConfig("volume.xml", volumeConfig("0"));
    // Paced by the wall clock at real-time priority, with a buffer of eight periods to spare.
    BackgroundTool run({"live", "--bus", "session", "-c", config, "--periods", "8", "--capture", "livetest",
                        "--playback", "livetest:RECORD=" + m_out},
                       bus.getAddress());
    ASSERT_EQ(run.readLine(10s), "orvandeldsp: serving com.orvandeldsp.Chain on the session bus");
    waitUntilPlayed(c_squareLevel);
    auto const set = runTool({"set", "--bus", "session", "volume", "gain", "-12"});
    ASSERT_EQ(set.status, 0) << set.err;
    waitUntilPlayed(c_squareLevel / 4);
    run.signal(SIGTERM);
    ASSERT_EQ(run.wait(10s), 0);
    auto const summary = run.readLine(1s);
    EXPECT_EQ(summary.rfind("orvandeldsp: ", 0), 0u);
    EXPECT_NE(summary.find(" frames, "), std::string::npos) << summary;

    auto const levels = leftLevels(played());
    auto const firstQuarter =
        size_t(std::find(levels.begin(), levels.end(), c_squareLevel / 4) - levels.begin());
    auto const lastFull =
        size_t(std::find(levels.rbegin(), levels.rend(), c_squareLevel).base() - levels.begin());
    auto const lastQuarter =
        size_t(std::find(levels.rbegin(), levels.rend(), c_squareLevel / 4).base() - levels.begin());
    ASSERT_LT(firstQuarter, levels.size());
    EXPECT_LE(firstQuarter - lastFull, c_period) << "the change lands within a period";
    for (size_t f = firstQuarter; f < lastQuarter; ++f)
        ASSERT_EQ(levels[f], c_squareLevel / 4) << f;
    // The fade-out: falling from the quarter level to silence, all of it played.
    size_t silentFrom = levels.size();
    while (silentFrom > 0 && levels[silentFrom - 1] == 0)
        --silentFrom;
    EXPECT_GE(silentFrom - lastQuarter, c_fadeFrames - 2);
    EXPECT_LE(silentFrom - lastQuarter, c_fadeFrames + c_fadeLate);
    EXPECT_LT(levels.size() - silentFrom, c_period);
    for (size_t f = lastQuarter; f < silentFrom; ++f)
        ASSERT_LE(levels[f], levels[f - 1]) << f;
}

} // namespace

namespace {

// The next line on the tool's stderr that begins with `start`, passing over others (warnings, log
// entries); "" when none comes within the timeout.
std::string nextErrorLine(BackgroundTool& run, std::string const& start)
{
    for (auto const end = Clock::now() + 10s; Clock::now() < end;) {
        std::string const line = run.readErrorLine(1s);
        if (line.rfind(start, 0) == 0)
            return line;
    }
    return "";
}

} // namespace

TEST_F(OrvandeldspLiveTest, SighupReloadsTheConfigFadingOverAndLeavesTheSoundAloneWhenItFails)
{
    std::string const config = writeConfig("volume.xml", volumeConfig("0"));
    BackgroundTool run({"live", "--no-service", "-c", config, "--periods", "8", "--capture", "livetest",
                        "--playback", "livetest:RECORD=" + m_out},
                       c_noBusAddress, true);
    waitUntilPlayed(c_squareLevel);
    writeConfig("volume.xml", "<dsp>\n  <module type=\"input\" id=\"in\">\n</dsp>\n");
    run.signal(SIGHUP);
    EXPECT_EQ(nextErrorLine(run, "orvandeldsp: reload")
                  .rfind("orvandeldsp: reload refused: config " + config + ":3:7: malformed XML", 0),
              0u);
    writeConfig("volume.xml", volumeConfig("-12"));
    run.signal(SIGHUP);
    EXPECT_EQ(run.readLine(10s), "orvandeldsp: reloaded config " + config);
    waitUntilPlayed(c_squareLevel / 4);
    run.signal(SIGTERM);
    ASSERT_EQ(run.wait(10s), 0);
    EXPECT_NE(run.readLine(1s).find("xruns: capture 0, playback 0;"), std::string::npos);

    // Full level, a fade to silence and back in to a quarter: the refused reload left no dip.
    auto const levels = leftLevels(played());
    auto const lastFull =
        size_t(std::find(levels.rbegin(), levels.rend(), c_squareLevel).base() - levels.begin());
    auto const firstQuarter =
        size_t(std::find(levels.begin(), levels.end(), c_squareLevel / 4) - levels.begin());
    ASSERT_LT(firstQuarter, levels.size());
    size_t starts = 0;
    for (size_t f = 1; f < levels.size(); ++f)
        starts += levels[f - 1] == 0 && levels[f] != 0;
    EXPECT_EQ(starts, 2u) << "the start and the new chain's";
    auto const silent = size_t(std::find(levels.begin() + long(lastFull), levels.end(), 0) - levels.begin());
    auto const sounding = size_t(
        std::find_if(levels.begin() + long(silent), levels.end(), [](int32_t level) { return level != 0; }) -
        levels.begin());
    EXPECT_GE(silent - lastFull, c_fadeFrames - 2) << "the old chain faded out";
    EXPECT_LE(silent - lastFull, c_fadeFrames + c_fadeLate);
    EXPECT_LE(sounding - silent, 2 * c_period) << "the new chain took over at the next period";
    EXPECT_GE(firstQuarter - sounding, c_fadeFrames - 2) << "the new chain faded in";
    EXPECT_LE(firstQuarter - sounding, c_fadeFrames + c_fadeLate);
}
