#include "dsp/ChainService.h"

#include "dsp/Chain.h"
#include "dsp/Gain.h"
#include "tests/support/LogCapture.h"
#include "tests/support/MainLoop.h"
#include "tests/support/ModuleHarness.h"
#include "tests/support/PrivateDbus.h"

#include <algorithm>
#include <fstream>
#include <gtest/gtest.h>

using namespace Zelmar;
using Testing::runMainLoopUntil;

namespace {

struct Reply
{
    bool done = false;
    GVariant* value = nullptr;
    std::string error;
    int code = -1;
};

class ChainServiceTest : public ::testing::Test
{
protected:
    ChainServiceTest() : m_serverConnection(m_bus.connect()), m_client(m_bus.connect()) {}
    ~ChainServiceTest() override
    {
        g_object_unref(m_client);
        g_object_unref(m_serverConnection);
    }

    std::unique_ptr<ChainService> serve()
    {
        auto service = std::make_unique<ChainService>(m_chain, m_serverConnection);
        EXPECT_TRUE(runMainLoopUntil([&] { return service->isServiceReady(); }));
        return service;
    }

    // A real client call from a second connection, answered while the test iterates the main loop.
    Reply call(char const* method, GVariant* arguments, char const* replyType = "()")
    {
        Reply reply;
        g_dbus_connection_call(
            m_client, "com.orvandeldsp.Chain", "/com/orvandeldsp/Chain", "com.orvandeldsp.Chain", method,
            arguments, G_VARIANT_TYPE(replyType), G_DBUS_CALL_FLAGS_NONE, 5000, nullptr,
            [](GObject* source, GAsyncResult* result, gpointer data) {
                auto* r = static_cast<Reply*>(data);
                GError* error = nullptr;
                r->value = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
                if (error) {
                    gchar* remote = g_dbus_error_get_remote_error(error);
                    g_dbus_error_strip_remote_error(error);
                    r->error = error->message;
                    r->code = error->domain == G_DBUS_ERROR ? error->code : -1;
                    g_free(remote);
                    g_error_free(error);
                }
                r->done = true;
            },
            &reply);
        EXPECT_TRUE(runMainLoopUntil([&] { return reply.done; }));
        return reply;
    }

    static GVariant* tuples(std::vector<std::array<char const*, 3>> const& entries)
    {
        GVariantBuilder builder;
        g_variant_builder_init(&builder, G_VARIANT_TYPE("a(sss)"));
        for (auto const& e : entries)
            g_variant_builder_add(&builder, "(sss)", e[0], e[1], e[2]);
        return g_variant_new("(a(sss))", &builder);
    }

    static double gainOf(std::shared_ptr<Module> const& module)
    {
        return static_cast<double>(std::dynamic_pointer_cast<Gain>(module)->getTargetGain().toFloat());
    }

    Testing::PrivateDbus m_bus;
    GDBusConnection* m_serverConnection;
    GDBusConnection* m_client;
    Chain m_chain{48000};
};

} // namespace

TEST_F(ChainServiceTest, SetsParametersThatReachTheModules)
{
    auto const gain = m_chain.addModule("gain", "volume");
    auto const other = m_chain.addModule("gain", "other");
    gain->setParameters(Parameters{{"gain", "0"}}, 48000);
    other->setParameters(Parameters{{"gain", "-6"}, {"note", "kept"}}, 48000);
    auto const service = serve();
    EXPECT_FALSE(service->isChainReady());

    Reply reply = call("SetParameter", g_variant_new("(sss)", "volume", "gain", "-12"));
    EXPECT_EQ(reply.error, "");
    EXPECT_DOUBLE_EQ(gainOf(gain), 0.25);
    EXPECT_FALSE(service->isChainReady());
    // The level reaches the audio.
    Testing::ModuleHarness harness(gain);
    std::vector<tSample> const out = harness.run(std::vector<tSample>(64, tSample(0.5)));
    EXPECT_EQ(out[10], tSample(0.125));

    // Unknown modules are skipped silently, by both methods.
    EXPECT_EQ(call("SetParameter", g_variant_new("(sss)", "nowhere", "gain", "1")).error, "");
    reply = call("SetParameters", tuples({{"nowhere", "gain", "3"}, {"other", "gain", "6"}}));
    EXPECT_EQ(reply.error, "");
    EXPECT_DOUBLE_EQ(gainOf(other), 2.0);
    EXPECT_EQ(other->getParameters().getString("note"), "kept");
    EXPECT_DOUBLE_EQ(gainOf(gain), 0.25);
    EXPECT_TRUE(service->isChainReady());

    // An empty array re-applies what every module has.
    std::dynamic_pointer_cast<Gain>(other)->fadeTo(tSample(0.0));
    EXPECT_EQ(call("SetParameters", tuples({})).error, "");
    EXPECT_DOUBLE_EQ(gainOf(other), 2.0);
}

TEST_F(ChainServiceTest, RefusesBadParametersAndKeepsThePreviousOnes)
{
    auto const gain = m_chain.addModule("gain", "volume");
    auto const limiter = m_chain.addModule("limiter", "limiter");
    gain->setParameters(Parameters{{"gain", "-6"}}, 48000);
    limiter->setParameters(Parameters{{"attack", "1"}, {"release", "100"}, {"threshold", "0"}}, 48000);
    auto const service = serve();

    struct Case
    {
        char const* module;
        char const* key;
        char const* value;
        char const* message;
    };
    for (Case const& c :
         {Case{"volume", "gain", "24", "parameter gain of module volume: must be below 24 dB, not 24"},
          Case{"volume", "gain", "loud", "parameter gain of module volume: \"loud\" is not a number"},
          Case{"volume", "gain", "nan",
               "parameter gain of module volume: must be a finite number, not \"nan\""},
          Case{"limiter", "threshold", "30",
               "parameter threshold of module limiter: must be below 24 dB, not 30"},
          Case{"limiter", "attack", "-0.001",
               "parameter attack of module limiter: must be at least 0 ms, not -0.001"}}) {
        Reply const reply = call("SetParameter", g_variant_new("(sss)", c.module, c.key, c.value));
        EXPECT_EQ(reply.code, G_DBUS_ERROR_INVALID_ARGS) << c.value;
        EXPECT_EQ(reply.error, c.message);
    }
    EXPECT_DOUBLE_EQ(gainOf(gain), 0.5);
    EXPECT_EQ(gain->getParameters().getString("gain"), "-6");
    EXPECT_EQ(limiter->getParameters().getString("attack"), "1");

    // In a set, the refusing module keeps its parameters and the others still get theirs.
    auto const second = m_chain.addModule("gain", "second");
    Reply const reply = call("SetParameters", tuples({{"volume", "gain", "48"}, {"second", "gain", "6"}}));
    EXPECT_EQ(reply.code, G_DBUS_ERROR_INVALID_ARGS);
    EXPECT_EQ(gain->getParameters().getString("gain"), "-6");
    EXPECT_DOUBLE_EQ(gainOf(second), 2.0);
}

TEST_F(ChainServiceTest, PlaysLoopsAndStopsSoundsAndRefusesInvalidOnes)
{
    Testing::LogCapture log;
    auto const service = serve();
    auto const count = [&](std::string const& text) {
        auto const m = log.messages();
        return std::count_if(m.begin(), m.end(),
                             [&](std::string const& s) { return s.find(text) != std::string::npos; });
    };
    char const* const noModule = "could not find module system-sounds";

    for (int sound : {10, -1}) {
        Reply r = call("PlaySystemSound", g_variant_new("(i)", sound));
        EXPECT_EQ(r.code, G_DBUS_ERROR_INVALID_ARGS);
        EXPECT_EQ(r.error, "unable to play system sound");
        EXPECT_EQ(
            count("ChainService: " + std::to_string(sound) + " is not a valid system sound to be played"), 1);
        r = call("LoopSystemSound", g_variant_new("(iu)", sound, 10u), "(u)");
        EXPECT_EQ(r.error, "unable to loop system sound");
        EXPECT_EQ(
            count("ChainService: " + std::to_string(sound) + " is not a valid system sound to be looped"), 1);
    }
    EXPECT_EQ(call("PlaySystemSound", g_variant_new("(i)", 4)).error, "");
    EXPECT_EQ(count(noModule), 1);

    // A loop asked for before the chain is configured waits for the first set-parameters call.
    Reply const loop = call("LoopSystemSound", g_variant_new("(iu)", 3, 100u), "(u)");
    ASSERT_EQ(loop.error, "");
    guint32 id = 0;
    g_variant_get(loop.value, "(u)", &id);
    g_variant_unref(loop.value);
    EXPECT_GE(id, 1u);
    runMainLoopUntil([] { return false; }, std::chrono::milliseconds(250));
    EXPECT_EQ(count(noModule), 1);
    EXPECT_EQ(call("SetParameters", tuples({})).error, "");
    EXPECT_TRUE(runMainLoopUntil([&] { return count(noModule) >= 3; }));

    EXPECT_EQ(call("StopLoopingSystemSound", g_variant_new("(u)", id)).error, "");
    auto const stopped = count(noModule);
    runMainLoopUntil([] { return false; }, std::chrono::milliseconds(250));
    EXPECT_EQ(count(noModule), stopped);
    EXPECT_EQ(call("StopLoopingSystemSound", g_variant_new("(u)", 9999u)).error, "");
}

TEST(DbusServiceTest, SystemBusPolicyFileLoads)
{
    std::string const config = testing::TempDir() + "/chain-policy-bus.conf";
    std::ofstream(config)
        << "<busconfig><type>system</type><listen>unix:tmpdir=/tmp</listen><auth>EXTERNAL</auth>"
           "<policy context=\"default\"><allow send_destination=\"*\" eavesdrop=\"true\"/>"
           "<allow eavesdrop=\"true\"/></policy><include>"
        << PROJECT_SOURCE_DIR << "/dbus/com.orvandeldsp.Chain.conf</include></busconfig>";
    Testing::PrivateDbus bus(config);
    GDBusConnection* connection = bus.connect();
    // Root may own the name under this policy.
    GVariant* owned = g_dbus_connection_call_sync(
        connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
        g_variant_new("(su)", "com.orvandeldsp.Chain", 0u), G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE,
        5000, nullptr, nullptr);
    ASSERT_NE(owned, nullptr);
    guint32 result = 0;
    g_variant_get(owned, "(u)", &result);
    EXPECT_EQ(result, 1u);
    g_variant_unref(owned);
    g_object_unref(connection);
}
