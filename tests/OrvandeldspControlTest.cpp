// `orvandeldsp set` and `sound` against a served chain: a live run on the tests' own sound card that goes
// on until the test ends it, so that every bound is in frames the device recorded, not in wall time. Then
// the host service of `orvandeldsp live` used as a user would: status, the module list that set checks
// against, bus policies that refuse, and reload.
#include "support/DataFile.h"
#include "support/HeapWatch.h"
#include "support/LiveTool.h"
#include "support/MainLoop.h"

#include <cmath>

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
    std::string const config = writeConfig("two-gains.xml", readDataFile("two-gains.xml"));
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
    writeConfig("two-gains.xml", readDataFile("two-gains-left-6.xml"));
    run->signal(SIGHUP);
    EXPECT_EQ(run->readLine(std::chrono::seconds(30)), "orvandeldsp: reloaded config " + config);
    ASSERT_TRUE(waitUntilPlayed(c_squareLevel / 2));
    run->signal(SIGTERM);
    ASSERT_EQ(run->wait(std::chrono::seconds(30)), 0);
    auto const summary = run->readLine(std::chrono::seconds(1));
    EXPECT_TRUE(g_regex_match_simple("^orvandeldsp: \\d+ frames, .*; xruns: capture 0, playback 0;",
                                     summary.c_str(), G_REGEX_DEFAULT, G_REGEX_MATCH_DEFAULT))
        << summary;

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

// The number after `"key":` in a JSON object.
double jsonNumber(std::string const& json, std::string const& key)
{
    auto const at = json.find("\"" + key + "\":");
    return at == std::string::npos ? NAN : std::strtod(json.c_str() + at + key.size() + 3, nullptr);
}

// The test bus's configuration with one more rule, which it applies to anyone, root included.
std::string refusingBusConfig(TemporaryDirectory const& scratch, char const* name, std::string const& rule)
{
    gchar* text = nullptr;
    g_file_get_contents(PrivateDbus::getDefaultConfigFile().c_str(), &text, nullptr, nullptr);
    std::string config = text;
    g_free(text);
    config.insert(config.find("</policy>"), rule);
    return scratch.write(name, config);
}

class OrvandeldspHostServiceTest : public ServedLiveTest
{
protected:
    ~OrvandeldspHostServiceTest() override { g_object_unref(m_connection); }

    // `status --json` once `ready` accepts it; the service refreshes its figures once a second.
    static std::string waitForStatus(std::function<bool(std::string const&)> const& ready)
    {
        std::string json;
        EXPECT_TRUE(waitFor([&] { return ready(json = client({"status", "--json"}).out); })) << json;
        return json;
    }

    // Each reload serves the chain anew, which the library notes at level 3.
    ScopedVariable m_traceLevel{"ORVANDELDSP_TRACE_LEVEL", "4"};
    // GLib's slice allocator would keep freed blocks of its own, counted as heap in use.
    ScopedVariable m_slices{"G_SLICE", "always-malloc"};
    GDBusConnection* m_connection = m_bus.connect();
    std::unique_ptr<BackgroundTool> m_run;
};

// One served chain through status, announcements, the set and sound refusals and reloads, in turn.
TEST_F(OrvandeldspHostServiceTest, StatusRefusalsAnnouncementsAndReloadsOfAServedChain)
{
    std::string const config = TEST_SOURCE_DIR "/data/clipping.xml";
    m_run = serve(config);
    auto json = waitForStatus([](std::string const& json) { return jsonNumber(json, "frames") > 0; });
    for (std::string const& expected :
         {"{\"state\":\"running\",\"config\":\"" + config +
              "\",\"input\":\"capture PCM livetest\",\"playback\":\"playback PCM livetest:RECORD=" + m_out +
              "\",\"rate\":48000,\"period_frames\":1024,",
          std::string("\"capture_xruns\":0,\"playback_xruns\":0,"),
          std::string("\"drift_compensator\":\"\",\"drift_correction\":0,\"meters\":[{\"id\":\"level\","),
          std::string(
              "\"modules\":[{\"id\":\"in\",\"type\":\"input\",\"parameters\":[]},{\"id\":\"level\",\"type\":"
              "\"meter\",\"parameters\":[]},{\"id\":\"boost\",\"type\":\"gain\",\"parameters\":[\"gain\"]},"
              "{\"id\":\"trim\",\"type\":\"gain\",\"parameters\":[\"gain\"]},{\"id\":\"out\",\"type\":"
              "\"output\",\"parameters\":[\"interleave-pattern\"]}],\"reloads\":"
              "0,")})
        EXPECT_NE(json.find(expected), std::string::npos) << expected << "\n" << json;
    // The test card's square wave is at a quarter of full scale.
    EXPECT_NEAR(jsonNumber(json, "peak_dbfs"), 20.0 * std::log10(0.25), 0.01) << json;
    // The left channel's positive half waves reach 1.0 and clip; its negative ones reach -1.0, which the
    // formats hold. Frames and clipped samples are read a period apart at most.
    EXPECT_NEAR(jsonNumber(json, "clipped_samples"), jsonNumber(json, "frames") / 2, double(c_livePeriod))
        << json;
    EXPECT_NEAR(jsonNumber(json, "latency"), 8 * double(c_livePeriod), double(c_livePeriod)) << json;

    // Every value starts in one column, right of the longest label.
    auto const block = client({"status"});
    ASSERT_EQ(block.status, 0) << block.err;
    std::string const valueColumn = "clipped samples  ";
    for (auto const& line : split(block.out.substr(0, block.out.size() - 1), "\n"))
        EXPECT_EQ(line.find_first_not_of(' ', line.find("  ")), valueColumn.size()) << line;
    EXPECT_NE(block.out.find("\nmodule boost     gain: gain\n"), std::string::npos) << block.out;

    // The frames each announcement carries: the devices' clock, whenever the test gets to see them.
    std::vector<guint64> frames;
    guint const subscription = g_dbus_connection_signal_subscribe(
        m_connection, nullptr, "org.freedesktop.DBus.Properties", "PropertiesChanged",
        "/com/orvandeldsp/Host", nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
        [](GDBusConnection*, gchar const*, gchar const*, gchar const*, gchar const*, GVariant* parameters,
           gpointer frames) {
            GVariant* changed = g_variant_get_child_value(parameters, 1);
            guint64 value = 0;
            auto& counts = *static_cast<std::vector<guint64>*>(frames);
            // Only announcements before the first period has run may leave the unchanged count out.
            if (g_variant_lookup(changed, "Frames", "t", &value))
                counts.push_back(value);
            else
                EXPECT_TRUE(counts.empty()) << "an announcement of its own";
            g_variant_unref(changed);
        },
        &frames, nullptr);
    EXPECT_TRUE(runMainLoopUntil([&] { return frames.size() >= 4; }, std::chrono::seconds(30)));
    g_dbus_connection_signal_unsubscribe(m_connection, subscription);
    // A second apart at least, less how far a count may lag the clock: the audio thread of a loaded
    // machine may fall as far behind as the playback buffer reaches, and a period more.
    for (size_t i = 1; i < frames.size(); ++i)
        EXPECT_GE(frames[i], frames[i - 1] + c_liveRate - c_servedBuffer - c_livePeriod) << i;

    // Over the system bus too, where a bus policy may refuse the caller or the owner.
    writeSound(path("short.wav"), SF_FORMAT_PCM_16, 2, std::vector<int32_t>(2 * 2400, 0));
    PrivateDbus refusingOwners(
        refusingBusConfig(m_scratch, "no-owner.conf", "<deny own=\"com.orvandeldsp.Chain\"/>"));
    PrivateDbus refusingCallers(refusingBusConfig(
        m_scratch, "no-caller.conf",
        "<deny send_destination=\"com.orvandeldsp.Chain\" send_interface=\"com.orvandeldsp.Chain\"/>"));
    BackgroundTool refused(
        {"live", "--bus", "session", "-c", config, "--capture", "livetest", "--playback", "livetest"},
        refusingCallers.getAddress());
    ASSERT_EQ(refused.readLine(std::chrono::seconds(30)), c_servingLine);
    std::string const served = m_bus.getAddress();
    std::string const noModule = "the served chain has no module bost (it has in, level, boost, trim, out)";
    std::string const noSounds = "the served chain has no module system-sounds to play system sounds";
    std::string const settings = m_scratch.write("settings.txt", "trim gain -3\nbost gain -3\n");
    struct Case
    {
        std::string systemBus;
        std::string args; // after "orvandeldsp COMMAND --bus system"
        std::string err;  // after "orvandeldsp: "
    } const cases[] = {
        {served, "set -- trim gain 6", ""},
        {served, "set bost gain 6", noModule},
        {served, "set trim gian 6", "module trim of the served chain has no parameter gian (it has gain)"},
        {served, "set level gain 6", "module level of the served chain has no parameter gain (it has none)"},
        {served, "set trim gain abc", "parameter gain of module trim: \"abc\" is not a number"},
        {served, "set --file " + settings, noModule},
        {served, "sound play 4", noSounds},
        {served, "sound loop 4 1000", noSounds},
        {refusingCallers.getAddress(), "set trim gain -3",
         "not allowed to control com.orvandeldsp.Chain on the system bus: run as root or as a member of "
         "group audio"},
        {refusingOwners.getAddress(), "run --realtime " + path("short.wav") + " " + path("out.wav"),
         "not allowed to own com.orvandeldsp.Chain on the system bus: run as root (the bus's policy "
         "com.orvandeldsp.Chain.conf allows root)"},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.args);
        ScopedBusAddress const systemAddress("DBUS_SYSTEM_BUS_ADDRESS", c.systemBus);
        auto args = split(c.args, " ");
        args.insert(args.begin() + 1, {"--bus", "system"});
        auto const result = runTool(args);
        EXPECT_EQ(result.status, c.err.empty() ? 0 : 1);
        EXPECT_EQ(result.err, c.err.empty() ? "" : "orvandeldsp: " + c.err + "\n");
    }

    std::string const stereoIn = R"(<dsp><module type="input" id="in"/><module type="output" id="out">)";
    std::string const stereoOut =
        stereoIn + R"(<parameter id="interleave-pattern" type="string">01</parameter>)";
    struct Refused
    {
        char const* name;
        std::string text;
        std::string problem;
    } const refusedReloads[] = {
        {"malformed.xml", "<dsp>\n<module type=\"input\" id=\"in\">\n</dsp>\n", ":3:7: malformed XML"},
        {"lost.xml",
         stereoOut + R"(</module><module type="gain" id="lost"/><cable out="in" in="out"/></dsp>)", ":1:"},
        {"three.xml", stereoIn + R"(<parameter id="interleave-pattern" type="string">012</parameter></module>
           <cable out="in[0]" in="out[0]"/><cable out="in[1]" in="out[1]"/><cable out="in[0]" in="out[2]"/></dsp>)",
         ": the output stage has 3 channels, the playback device runs with 2"},
    };
    for (auto const& c : refusedReloads) {
        SCOPED_TRACE(c.name);
        std::string const broken = writeConfig(c.name, c.text);
        auto const result = client({"reload", "--config", broken});
        EXPECT_EQ(result.status, 2);
        EXPECT_EQ(result.err.rfind("orvandeldsp: reload refused: config " + broken + c.problem, 0), 0u)
            << result.err;
        EXPECT_EQ(result.err.find('\n'), result.err.size() - 1) << result.err;
    }
    std::string const plain =
        writeConfig("plain.xml", stereoOut + R"(</module><cable out="in" in="out"/></dsp>)");
    auto const reload = client({"reload", "--config", plain});
    EXPECT_EQ(reload.status, 0) << reload.err;
    json = waitForStatus([](std::string const& json) { return jsonNumber(json, "reloads") == 1; });
    EXPECT_NE(json.find("\"config\":\"" + plain + "\""), std::string::npos) << json;
    EXPECT_NE(json.find("\"capture_xruns\":0,\"playback_xruns\":0,"), std::string::npos) << json;
}

TEST_F(OrvandeldspHostServiceTest, AHundredReloadsInARowLeaveTheHeapAndResidentMemoryFlat)
{
    // The shipped live config, on virtual clocks: the periods run as fast as they can be processed.
    m_run = serve(PROJECT_SOURCE_DIR "/configs/live-line-in.xml", "livetest:VIRTUAL=1,PPM=100",
                  {"--priority", "0", "--playback", "livetest:VIRTUAL=1"});
    double reloads = 0;
    auto const reloadAndMeasure = [&](int more) {
        for (; more > 0; --more, ++reloads)
            EXPECT_EQ(client({"reload"}).status, 0);
        return waitForStatus([&](std::string const& json) { return jsonNumber(json, "reloads") == reloads; });
    };
    // The first reloads warm up what stays: the bus's buffers, the allocator's free lists. A chain left
    // behind would take some 40 kB, its service a few; the bus's own bookkeeping varies by a few kB.
    auto const warm = reloadAndMeasure(10);
    auto const after = reloadAndMeasure(90);
    EXPECT_LT(jsonNumber(after, "heap_bytes"), jsonNumber(warm, "heap_bytes") + 64 * 1024) << warm << "\n"
                                                                                           << after;
    // A sanitizer's shadow memory and an emulator's translated code grow the resident size by themselves.
#ifndef ORVANDELDSP_TESTS_EMULATED
    if (!runsUnderASanitizer()) {
        EXPECT_LT(jsonNumber(after, "resident_bytes"), jsonNumber(warm, "resident_bytes") + 512 * 1024);
    }
#endif
}

} // namespace
