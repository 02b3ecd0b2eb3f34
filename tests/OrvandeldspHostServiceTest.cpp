// The host service of `orvandeldsp live` on a private bus, used as a user would: status, the module list
// that set checks against, and reload, on the tests' own sound card.
#include "support/BackgroundTool.h"
#include "support/PrivateDbus.h"

#include <cmath>
#include <cstdlib>
#include <functional>
#include <memory>
#include <sstream>
#include <thread>

namespace {

using namespace Zelmar::Testing;
using namespace std::chrono_literals;

constexpr unsigned int c_period = 1024;
// The test card's square wave, at a quarter of full scale.
double const c_squareDb = 20.0 * std::log10(0.25);

// The left channel boosted by 12 dB to exactly full scale, which the output conversion clips; the
// right one as it comes.
std::string const c_clippingConfig = R"(<dsp>
  <module type="input" id="in"/>
  <module type="meter" id="level"/>
  <module type="gain" id="boost"><parameter id="gain" type="double">12</parameter></module>
  <module type="output" id="out"><parameter id="interleave-pattern" type="string">01</parameter></module>
  <cable out="in[0]" in="level[0]"/>
  <cable out="in[0]" in="boost[0]"/>
  <cable out="boost[0]" in="out[0]"/>
  <cable out="in[1]" in="out[1]"/>
</dsp>
)";

// The number after `"key":` in a JSON object.
double jsonNumber(std::string const& json, std::string const& key)
{
    auto const at = json.find("\"" + key + "\":");
    return at == std::string::npos ? NAN : std::strtod(json.c_str() + at + key.size() + 3, nullptr);
}

class OrvandeldspHostServiceTest : public ToolTest
{
protected:
    void SetUp() override
    {
        setenv("ALSA_CONFIG_PATH", ALSA_TEST_CONFIG_DIR "/live-pcm.conf", 1);
        // Each reload serves the chain anew, which the library notes at level 3.
        setenv("ORVANDELDSP_TRACE_LEVEL", "4", 1);
        // GLib's slice allocator would keep freed blocks of its own, counted as heap in use.
        setenv("G_SLICE", "always-malloc", 1);
    }
    void TearDown() override
    {
        unsetenv("ALSA_CONFIG_PATH");
        unsetenv("ORVANDELDSP_TRACE_LEVEL");
        unsetenv("G_SLICE");
        g_object_unref(m_connection);
    }

    // `live` serving `config` on the private bus until the test ends, its buffer eight periods long.
    void startLive(std::string const& config, std::string const& capture = "livetest",
                   std::string const& playback = "livetest")
    {
        m_run = std::make_unique<BackgroundTool>(
            std::vector<std::string>{"live", "--bus", "session", "--priority", "0", "-c", config, "--periods",
                                     "8", "--capture", capture, "--playback", playback},
            m_bus.getAddress());
        ASSERT_EQ(m_run->readLine(10s), "orvandeldsp: serving com.orvandeldsp.Chain on the session bus");
    }
    static ToolResult tool(std::vector<std::string> args)
    {
        args.insert(args.begin() + 1, {"--bus", "session"});
        return runTool(args);
    }
    // Every property once `ready` accepts them; the service refreshes them once a second.
    GVariantDict* waitForStatus(std::function<bool(GVariantDict*)> const& ready)
    {
        for (auto const end = Clock::now() + 10s; Clock::now() < end; std::this_thread::sleep_for(50ms)) {
            GVariant* reply = g_dbus_connection_call_sync(
                m_connection, "com.orvandeldsp.Host", "/com/orvandeldsp/Host",
                "org.freedesktop.DBus.Properties", "GetAll", g_variant_new("(s)", "com.orvandeldsp.Host"),
                G_VARIANT_TYPE("(a{sv})"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
            if (!reply)
                continue;
            GVariant* const all = g_variant_get_child_value(reply, 0);
            GVariantDict* const status = g_variant_dict_new(all);
            g_variant_unref(all);
            g_variant_unref(reply);
            if (ready(status))
                return status;
            g_variant_dict_unref(status);
        }
        ADD_FAILURE() << "the status never got ready";
        return g_variant_dict_new(nullptr);
    }
    template <class T> static T get(GVariantDict* status, char const* name, char const* type)
    {
        T value{};
        g_variant_dict_lookup(status, name, type, &value);
        return value;
    }

    PrivateDbus m_bus;
    ScopedBusAddress m_session{"DBUS_SESSION_BUS_ADDRESS", m_bus.getAddress()};
    GDBusConnection* m_connection = m_bus.connect();
    std::unique_ptr<BackgroundTool> m_run;
};

TEST_F(OrvandeldspHostServiceTest, StatusShowsTheRunItsChainMetersAndClippingForPeopleAndScripts)
{
    std::string const config = writeConfig("clipping.xml", c_clippingConfig);
    startLive(config);
    g_variant_dict_unref(
        waitForStatus([](GVariantDict* status) { return get<guint64>(status, "Frames", "t") > 0; }));

    auto const json = tool({"status", "--json"});
    ASSERT_EQ(json.status, 0) << json.err;
    for (std::string const& expected :
         {"{\"state\":\"running\",\"config\":\"" + config +
              "\",\"input\":\"capture PCM livetest\","
              "\"playback\":\"playback PCM livetest\",\"rate\":48000,\"period_frames\":1024,",
          std::string("\"capture_xruns\":0,\"playback_xruns\":0,"),
          std::string("\"drift_compensator\":\"\",\"drift_correction\":0,\"meters\":[{\"id\":\"level\","
                      "\"peak_dbfs\":"),
          std::string(
              "\"modules\":[{\"id\":\"in\",\"type\":\"input\",\"parameters\":[]},{\"id\":\"level\",\"type\":"
              "\"meter\",\"parameters\":[]},{\"id\":\"boost\",\"type\":\"gain\",\"parameters\":[\"gain\"]},"
              "{\"id\":\"out\",\"type\":\"output\",\"parameters\":[\"interleave-pattern\"]}],\"reloads\":"
              "0,")})
        EXPECT_NE(json.out.find(expected), std::string::npos) << expected << "\n" << json.out;
    EXPECT_NEAR(jsonNumber(json.out, "peak_dbfs"), c_squareDb, 0.01) << json.out;
    // The left channel's positive half waves reach 1.0 and clip; its negative ones reach -1.0, which the
    // formats hold. Frames and clipped samples are read a period apart at most.
    double const frames = jsonNumber(json.out, "frames");
    EXPECT_NEAR(jsonNumber(json.out, "clipped_samples"), frames / 2, c_period) << json.out;
    EXPECT_NEAR(jsonNumber(json.out, "latency"), 8 * c_period, c_period) << json.out;
    EXPECT_GT(jsonNumber(json.out, "heap_bytes"), 0.0);

    auto const block = tool({"status"});
    ASSERT_EQ(block.status, 0) << block.err;
    // Every value starts in one column, right of the longest label: "clipped samples".
    std::string const valueColumn = "clipped samples  ";
    std::istringstream lines(block.out);
    std::vector<std::string> labels;
    for (std::string line; std::getline(lines, line);) {
        ASSERT_GT(line.size(), valueColumn.size()) << line;
        EXPECT_NE(line[valueColumn.size()], ' ') << line;
        EXPECT_EQ(line.substr(valueColumn.size() - 2, 2), "  ") << line;
        labels.push_back(line.substr(0, line.find("  ")));
    }
    EXPECT_EQ(labels, (std::vector<std::string>{"state", "config", "reloads", "input", "playback", "rate",
                                                "frames", "xruns", "load", "period time", "latency", "drift",
                                                "clipped samples", "memory", "meter level", "module in",
                                                "module level", "module boost", "module out"}));
    EXPECT_NE(block.out.find("\nmodule boost     gain: gain\n"), std::string::npos) << block.out;
}

TEST_F(OrvandeldspHostServiceTest, ChangesAreAnnouncedAtMostOnceASecond)
{
    startLive(writeConfig("clipping.xml", c_clippingConfig));
    unsigned int signals = 0;
    guint const subscription = g_dbus_connection_signal_subscribe(
        m_connection, nullptr, "org.freedesktop.DBus.Properties", "PropertiesChanged",
        "/com/orvandeldsp/Host", nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
        [](GDBusConnection*, gchar const*, gchar const*, gchar const*, gchar const*, GVariant*,
           gpointer count) { ++*static_cast<unsigned int*>(count); },
        &signals, nullptr);
    // The frames change all the time; a refresh every second, each announced once, may land late by up
    // to a second, so a window of three seconds sees two to five of them.
    for (auto const end = Clock::now() + 3s; Clock::now() < end;)
        g_main_context_iteration(nullptr, FALSE) || (std::this_thread::sleep_for(5ms), true);
    g_dbus_connection_signal_unsubscribe(m_connection, subscription);
    EXPECT_GE(signals, 2u);
    EXPECT_LE(signals, 5u);
}

TEST_F(OrvandeldspHostServiceTest, SetRefusesAModuleOrKeyTheServedChainDoesNotHave)
{
    startLive(writeConfig("clipping.xml", c_clippingConfig));
    m_scratch.write("settings.txt", "boost gain -3\nbost gain -3\n");
    struct Case
    {
        std::vector<std::string> args;
        int status;
        std::string err;
    } const cases[] = {
        {{"set", "boost", "gain", "6"}, 0, ""},
        {{"set", "bost", "gain", "6"},
         1,
         "orvandeldsp: the served chain has no module bost (it has in, level, boost, out)\n"},
        {{"set", "boost", "gian", "6"},
         1,
         "orvandeldsp: module boost of the served chain has no parameter gian (it has gain)\n"},
        {{"set", "level", "gain", "6"},
         1,
         "orvandeldsp: module level of the served chain has no parameter gain (it has none)\n"},
        {{"set", "--file", path("settings.txt")},
         1,
         "orvandeldsp: the served chain has no module bost (it has in, level, boost, out)\n"},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.args[1]);
        auto const result = tool(c.args);
        EXPECT_EQ(result.status, c.status);
        EXPECT_EQ(result.err, c.err);
    }
}

TEST_F(OrvandeldspHostServiceTest, ReloadRefusesWhatDoesNotLoadCheckOrFitAndPlaysWhatDoes)
{
    std::string const config = writeConfig("clipping.xml", c_clippingConfig);
    startLive(config);
    struct Case
    {
        char const* name;
        std::string text;
        std::string problem;
    } const cases[] = {
        {"malformed.xml", "<dsp>\n<module type=\"input\" id=\"in\">\n</dsp>\n", "malformed XML at line 3"},
        {"lost.xml",
         c_clippingConfig.substr(0, c_clippingConfig.find("  <cable out=\"in[0]\" in=\"level[0]\"/>")) +
             "</dsp>\n",
         "module in, boost leads to no sink"},
        {"three.xml",
         R"(<dsp><module type="input" id="in"/><module type="output" id="out"><parameter id="interleave-pattern"
             type="string">012</parameter></module><cable out="in[0]" in="out[0]"/><cable out="in[1]" in="out[1]"/>
             <cable out="in[0]" in="out[2]"/></dsp>)",
         "the output stage has 3 channels, the playback device runs with 2"},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.name);
        std::string const broken = writeConfig(c.name, c.text);
        auto const result = tool({"reload", "--config", broken});
        EXPECT_EQ(result.status, 2);
        EXPECT_EQ(result.err.rfind("orvandeldsp: reload refused: config " + broken + ": " + c.problem, 0), 0u)
            << result.err;
        EXPECT_TRUE(isOneLine(result.err)) << result.err;
    }
    std::string const quiet = writeConfig("quiet.xml", R"(<dsp>
  <module type="input" id="in"/>
  <module type="output" id="out"><parameter id="interleave-pattern" type="string">01</parameter></module>
  <cable out="in" in="out"/>
</dsp>)");
    auto const reload = tool({"reload", "--config", quiet});
    EXPECT_EQ(reload.status, 0) << reload.err;
    GVariantDict* const status =
        waitForStatus([](GVariantDict* status) { return get<guint32>(status, "Reloads", "u") == 1; });
    gchar const* playing = nullptr;
    EXPECT_TRUE(g_variant_dict_lookup(status, "Config", "&s", &playing));
    EXPECT_EQ(std::string(playing ? playing : ""), quiet);
    EXPECT_EQ(get<guint32>(status, "CaptureXruns", "u") + get<guint32>(status, "PlaybackXruns", "u"), 0u);
    g_variant_dict_unref(status);
}

TEST_F(OrvandeldspHostServiceTest, AHundredReloadsInARowLeaveTheHeapAndResidentMemoryFlat)
{
    // The shipped live config, on virtual clocks: the periods run as fast as they can be processed.
    startLive(PROJECT_SOURCE_DIR "/configs/live-line-in.xml", "livetest:VIRTUAL=1,PPM=100",
              "livetest:VIRTUAL=1");
    unsigned int reloads = 0;
    auto const reloadAndMeasure = [&](unsigned int more) {
        for (; more > 0; --more, ++reloads) {
            GError* error = nullptr;
            GVariant* const reply = g_dbus_connection_call_sync(
                m_connection, "com.orvandeldsp.Host", "/com/orvandeldsp/Host", "com.orvandeldsp.Host",
                "Reload", g_variant_new("(s)", ""), nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
            if (!reply) {
                ADD_FAILURE() << error->message;
                g_error_free(error);
                return std::make_pair(guint64(0), guint64(0));
            }
            g_variant_unref(reply);
        }
        GVariantDict* const status = waitForStatus(
            [&](GVariantDict* status) { return get<guint32>(status, "Reloads", "u") == reloads; });
        auto const memory = std::make_pair(get<guint64>(status, "HeapBytes", "t"),
                                           get<guint64>(status, "ResidentBytes", "t"));
        g_variant_dict_unref(status);
        return memory;
    };
    // The first reloads warm up what stays: the bus's buffers, the allocator's free lists. A chain left
    // behind would take over a hundred kilobytes, its service a few; the bus's own bookkeeping varies by
    // a few kilobytes over the run.
    auto const warm = reloadAndMeasure(10);
    auto const after = reloadAndMeasure(90);
    EXPECT_LT(after.first, warm.first + 64 * 1024) << "heap " << warm.first << " -> " << after.first;
    EXPECT_LT(after.second, warm.second + 512 * 1024) << "resident " << warm.second << " -> " << after.second;
}

} // namespace
