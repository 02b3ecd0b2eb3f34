// `orvandeldsp set` and `sound` against a served chain: a live run on the tests' own sound card that goes
// on until the test ends it, so that every bound is in frames the device recorded, not in wall time.
#include "support/LiveTool.h"

#include <csignal>

namespace {

using namespace Zelmar::Testing;

// A change sent once `before` frames were recorded and answered at `after` is heard from the period
// after the one being written then, which the primed buffer delays by its length.
void expectLandedBetween(size_t frame, size_t before, size_t after)
{
    EXPECT_GE(frame, before);
    EXPECT_LE(frame, after + c_servedBuffer + 2 * c_livePeriod);
}

size_t firstFrom(std::vector<int32_t> const& levels, size_t from, int32_t level)
{
    return size_t(std::find(levels.begin() + long(from), levels.end(), level) - levels.begin());
}

// The frame after the last one at `level`.
size_t afterLast(std::vector<int32_t> const& levels, int32_t level)
{
    return size_t(std::find(levels.rbegin(), levels.rend(), level).base() - levels.begin());
}

void expectFadeBetween(size_t from, size_t to)
{
    EXPECT_GE(to - from, c_fadeFrames - 2) << from;
    EXPECT_LE(to - from, c_fadeFrames + c_fadeLate) << from;
}

using OrvandeldspControlTest = ServedLiveTest;

// The left level goes from full to a quarter by `set` and back by a file, which halves the right; a
// refused value and a refused reload change nothing; a reload halves the left, and SIGTERM fades out.
TEST_F(OrvandeldspControlTest, SetAndReloadChangeTheLiveSoundAndSigtermFadesItOut)
{
    std::string const config = writeConfig("two-gains.xml", twoGains("0"));
    auto const run = serve(config, "livetest", {}, true);
    ASSERT_TRUE(waitUntilPlayed(c_squareLevel));
    writeSound(path("in.wav"), SF_FORMAT_PCM_16, 2, {0, 0});
    auto const second = runTool({"run", "--realtime", "--bus", "session", path("in.wav"), path("o.wav")});
    EXPECT_EQ(second.status, 1);
    EXPECT_EQ(second.err, "orvandeldsp: com.orvandeldsp.Chain is already served on the session bus (is "
                          "another realtime run going?)\n");

    size_t const before = recordedFrames();
    auto const set = client({"set", "left", "gain", "-12"});
    size_t const after = recordedFrames();
    EXPECT_EQ(set.status, 0) << set.err;
    ASSERT_TRUE(waitUntilPlayed(c_squareLevel / 4));
    auto const fromFile =
        client({"set", "--file",
                writeConfig("levels.txt", "# both channels\n\nleft gain 0\n  right   gain  -6  \n")});
    EXPECT_EQ(fromFile.status, 0) << fromFile.err;
    ASSERT_TRUE(waitUntilPlayed(c_squareLevel / 2, 1));
    auto const refused = client({"set", "left", "gain", "30"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.err, "orvandeldsp: parameter gain of module left: must be below 24 dB, not 30\n");
    size_t const refusedAt = recordedFrames();
    ASSERT_TRUE(waitFor([&] { return recordedFrames() > refusedAt + c_servedBuffer + 4 * c_livePeriod; }));

    writeConfig("two-gains.xml", "<dsp>\n  <module type=\"input\" id=\"in\">\n</dsp>\n");
    run->signal(SIGHUP);
    // Past the warnings and log entries before it.
    std::string refusal;
    EXPECT_TRUE(waitFor([&] {
        return (refusal = run->readErrorLine(std::chrono::seconds(1))).rfind("orvandeldsp: reload", 0) == 0;
    }));
    EXPECT_EQ(refusal.rfind("orvandeldsp: reload refused: config " + config + ":3:7: malformed XML", 0), 0u)
        << refusal;
    writeConfig("two-gains.xml", twoGains("-6"));
    run->signal(SIGHUP);
    EXPECT_EQ(run->readLine(std::chrono::seconds(30)), "orvandeldsp: reloaded config " + config);
    ASSERT_TRUE(waitUntilPlayed(c_squareLevel / 2));
    run->signal(SIGTERM);
    ASSERT_EQ(run->wait(std::chrono::seconds(30)), 0);
    auto const summary = run->readLine(std::chrono::seconds(1));
    EXPECT_EQ(summary.rfind("orvandeldsp: ", 0), 0u) << summary;
    EXPECT_NE(summary.find(" frames, "), std::string::npos) << summary;
    EXPECT_NE(summary.find("xruns: capture 0, playback 0;"), std::string::npos) << summary;

    auto const left = levelsOf(played(), 0);
    auto const right = levelsOf(played(), 1);
    size_t const quarter = firstFrom(left, 0, c_squareLevel / 4);
    expectLandedBetween(quarter, before, after);
    size_t fullUntil = quarter;
    while (fullUntil > 0 && left[fullUntil - 1] != c_squareLevel)
        --fullUntil;
    EXPECT_LE(quarter - fullUntil, c_livePeriod) << "set changes within a period";
    // From where both lines of the file are heard to the reload, left is full and right half: neither the
    // refused 30 dB nor the refused reload changed anything.
    size_t const steady =
        std::max(firstFrom(left, quarter, c_squareLevel), firstFrom(right, quarter, c_squareLevel / 2));
    size_t const lastFull = afterLast(left, c_squareLevel);
    ASSERT_GT(lastFull, refusedAt + c_servedBuffer);
    for (size_t f = steady; f < lastFull; ++f) {
        ASSERT_EQ(left[f], c_squareLevel) << f;
        ASSERT_EQ(right[f], c_squareLevel / 2) << f;
    }
    EXPECT_EQ(soundStarts(left).size(), 2u) << "the start and the new chain's";
    size_t const silent = firstFrom(left, lastFull, 0);
    auto const sounding = size_t(
        std::find_if(left.begin() + long(silent), left.end(), [](int32_t level) { return level != 0; }) -
        left.begin());
    expectFadeBetween(lastFull, silent);
    EXPECT_LE(sounding - silent, 2 * c_livePeriod) << "the new chain took over at the next period";
    expectFadeBetween(sounding, firstFrom(left, sounding, c_squareLevel / 2));
    // The fade-out: falling from the half level to silence, all of it played.
    size_t const lastHalf = afterLast(left, c_squareLevel / 2);
    size_t silentFrom = left.size();
    while (silentFrom > 0 && left[silentFrom - 1] == 0)
        --silentFrom;
    expectFadeBetween(lastHalf, silentFrom);
    EXPECT_LT(left.size() - silentFrom, c_livePeriod);
    for (size_t f = lastHalf; f < silentFrom; ++f)
        ASSERT_LE(left[f], left[f - 1]) << f;
}

TEST_F(OrvandeldspControlTest, SoundsPlayLoopAndStopOnTheServedChain)
{
    // Silent capture, so that every sound is a burst of its own.
    auto const run = serve(PROJECT_SOURCE_DIR "/configs/sounds.xml", "livetest:CAPTURE=/dev/null");
    // Past the primed buffer and the fade-in.
    ASSERT_TRUE(waitFor([&] { return recordedFrames() > c_servedBuffer + c_fadeFrames; }));
    // Sound 4 is the 30 ms touch click; bursts are told apart by a tenth of a second of silence.
    auto const bursts = [&] { return soundStarts(levelsOf(played()), c_liveRate / 10); };
    size_t const played = recordedFrames();
    EXPECT_EQ(client({"sound", "play", "4"}).status, 0);
    size_t const answered = recordedFrames();
    auto const invalid = client({"sound", "play", "10"});
    EXPECT_EQ(invalid.status, 1);
    EXPECT_EQ(invalid.err, "orvandeldsp: unable to play system sound\n");
    ASSERT_TRUE(waitFor([&] { return !bursts().empty(); }));

    size_t const looped = recordedFrames();
    auto const loop = client({"sound", "loop", "4", "300"});
    ASSERT_EQ(loop.status, 0) << loop.err;
    ASSERT_FALSE(loop.out.empty());
    EXPECT_EQ(loop.out.find_first_not_of("0123456789"), loop.out.size() - 1) << loop.out;
    ASSERT_TRUE(waitFor([&] { return bursts().size() >= 4; }));
    EXPECT_EQ(client({"sound", "stop", loop.out.substr(0, loop.out.size() - 1)}).status, 0);
    size_t const stopped = recordedFrames();
    // An id nobody has is only logged by the service.
    EXPECT_EQ(client({"sound", "stop", "4000000000"}).status, 0);
    // Long enough for two more loop bursts, had the loop not stopped.
    ASSERT_TRUE(waitFor([&] { return recordedFrames() > stopped + c_servedBuffer + c_liveRate * 6 / 10; }));
    run->signal(SIGTERM);
    ASSERT_EQ(run->wait(std::chrono::seconds(30)), 0);

    auto const starts = bursts();
    ASSERT_GE(starts.size(), 4u);
    expectLandedBetween(starts[0], played, answered);
    EXPECT_LT(starts[0], looped);
    // A burst every 300 ms from the loop to the stop, never sooner, then none.
    for (size_t i = 1; i < starts.size(); ++i)
        expectLandedBetween(starts[i], looped, stopped);
    size_t const loopFrames = c_liveRate * 3 / 10;
    EXPECT_LE(starts.size() - 1, 2 + (stopped + c_servedBuffer - looped) / (loopFrames - c_livePeriod));
}

TEST_F(OrvandeldspControlTest, ARealtimeRunIsPacedByItsAudioAndClientsNameWhatTheyMiss)
{
    for (auto const& args :
         {std::vector<std::string>{"set", "volume", "gain", "-6"}, {"sound", "play", "4"}}) {
        auto const result = client(args);
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.err, "orvandeldsp: no chain is being served on the session bus\n");
    }
    // Half a second of audio takes at least half a second, less the period the pacing may start ahead.
    writeSound(path("short.wav"), SF_FORMAT_PCM_16, 2, std::vector<int32_t>(c_liveRate, 0));
    auto const start = Clock::now();
    auto const paced = client({"run", "--realtime", path("short.wav"), path("out.wav")});
    EXPECT_EQ(paced.status, 0);
    EXPECT_EQ(paced.err, "") << "the library's informational lines only with --verbose";
    EXPECT_GE(std::chrono::duration<double>(Clock::now() - start).count(),
              0.5 - double(c_livePeriod) / c_liveRate);
    EXPECT_NE(paced.out.find("\norvandeldsp: 24000 frames in, 24000 out"), std::string::npos) << paced.out;

    // Interrupted long before its end, a realtime run leaves no output behind.
    writeSound(path("long.wav"), SF_FORMAT_PCM_16, 2, std::vector<int32_t>(2 * 60 * c_liveRate, 0));
    BackgroundTool run(
        {"run", "-v", "--realtime", "--bus", "session", path("long.wav"), path("long-out.wav")},
        m_bus.getAddress(), true);
    ASSERT_EQ(run.readLine(std::chrono::seconds(30)), c_servingLine);
    EXPECT_TRUE(waitFor([&] {
        return run.readErrorLine(std::chrono::seconds(1)) ==
               "orvandeldsp: DbusService: owns com.orvandeldsp.Chain";
    }));
    run.signal(SIGTERM);
    EXPECT_EQ(run.wait(std::chrono::seconds(30)), 1);
    EXPECT_FALSE(exists("long-out.wav"));
}

} // namespace
