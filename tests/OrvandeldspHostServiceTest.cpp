// The host service of `orvandeldsp live` on a private bus, used as a user would: status, the module list
// that set checks against, bus policies that refuse, and reload, on the tests' own sound card.
#include "support/DataFile.h"
#include "support/HeapWatch.h"
#include "support/LiveTool.h"
#include "support/MainLoop.h"

#include <cmath>
#include <cstdlib>
#include <sstream>

namespace {

using namespace Zelmar::Testing;

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
    std::istringstream lines(block.out);
    for (std::string line; std::getline(lines, line);)
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
        EXPECT_TRUE(isOneLine(result.err)) << result.err;
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
    if (!runsUnderASanitizer()) {
        EXPECT_LT(jsonNumber(after, "resident_bytes"), jsonNumber(warm, "resident_bytes") + 512 * 1024);
    }
}

} // namespace
