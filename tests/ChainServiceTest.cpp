#include "dsp/ChainService.h"

#include "dsp/Chain.h"
#include "dsp/Gain.h"
#include "tests/support/LogCapture.h"
#include "tests/support/MainLoop.h"
#include "tests/support/ModuleHarness.h"
#include "tests/support/PrivateDbus.h"

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

// The service on a private bus, called by a client of its own while the test iterates the main loop.
class ChainServiceTest : public ::testing::Test
{
protected:
    ChainServiceTest() : m_serverConnection(m_bus.connect()), m_client(m_bus.connect()) {}
    ~ChainServiceTest() override
    {
        m_service.reset();
        g_object_unref(m_client);
        g_object_unref(m_serverConnection);
    }

    void serve()
    {
        m_service = std::make_unique<ChainService>(m_chain, m_serverConnection);
        ASSERT_TRUE(runMainLoopUntil([&] { return m_service->isServiceReady(); }));
    }

    Reply call(char const* method, GVariant* arguments, char const* replyType = "()")
    {
        Reply reply;
        g_dbus_connection_call(
            m_client, ChainService::c_busName, ChainService::c_objectPath, ChainService::c_interfaceName,
            method, arguments, G_VARIANT_TYPE(replyType), G_DBUS_CALL_FLAGS_NONE, 5000, nullptr,
            [](GObject* source, GAsyncResult* result, gpointer data) {
                auto* r = static_cast<Reply*>(data);
                GError* error = nullptr;
                r->value = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
                if (error) {
                    g_dbus_error_strip_remote_error(error);
                    r->error = error->message;
                    r->code = error->domain == G_DBUS_ERROR ? error->code : -1;
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

    static float gainOf(std::shared_ptr<Module> const& module)
    {
        return std::dynamic_pointer_cast<Gain>(module)->getTargetGain().toFloat();
    }

    Testing::PrivateDbus m_bus;
    GDBusConnection* m_serverConnection;
    GDBusConnection* m_client;
    Chain m_chain{48000};
    std::unique_ptr<ChainService> m_service;
};

} // namespace

// The messages of refusals are the descriptors' (ModuleDescriptorTest); here how they travel.
TEST_F(ChainServiceTest, SetsParametersThatReachTheModulesAndRefusesBadOnes)
{
    auto const gain = m_chain.addModule("gain", "volume");
    auto const other = m_chain.addModule("gain", "other");
    gain->setParameters(Parameters{{"gain", "0"}}, 48000);
    other->setParameters(Parameters{{"gain", "-6"}, {"note", "kept"}}, 48000);
    serve();
    EXPECT_EQ(call("SetParameter", g_variant_new("(sss)", "volume", "gain", "-12")).error, "");
    EXPECT_FLOAT_EQ(gainOf(gain), 0.25f);
    EXPECT_EQ(Testing::ModuleHarness(gain).run(std::vector<tSample>(64, tSample(0.5)))[10], tSample(0.125));
    EXPECT_FALSE(m_service->isChainReady());

    Reply refused = call("SetParameter", g_variant_new("(sss)", "volume", "gain", "24"));
    EXPECT_EQ(refused.code, G_DBUS_ERROR_INVALID_ARGS);
    EXPECT_EQ(refused.error, "parameter gain of module volume: must be below 24 dB, not 24");
    EXPECT_EQ(gain->getParameters().getString("gain"), "-12") << "the set in force stays";

    // Unknown modules are skipped silently by both methods; a refusing module keeps its set while the
    // others of the same call get theirs.
    EXPECT_EQ(call("SetParameter", g_variant_new("(sss)", "nowhere", "gain", "1")).error, "");
    refused = call("SetParameters",
                   tuples({{"nowhere", "gain", "3"}, {"other", "gain", "6"}, {"volume", "gain", "48"}}));
    EXPECT_EQ(refused.code, G_DBUS_ERROR_INVALID_ARGS);
    EXPECT_EQ(std::vector<float>({gainOf(gain), gainOf(other)}), std::vector<float>({0.25f, 2.0f}));
    EXPECT_EQ(other->getParameters().getString("note"), "kept");
    EXPECT_EQ(call("SetParameters", tuples({{"other", "gain", "6"}})).error, "");
    EXPECT_TRUE(m_service->isChainReady());

    // An empty array re-applies what every module has.
    std::dynamic_pointer_cast<Gain>(other)->fadeTo(tSample(0.0));
    EXPECT_EQ(call("SetParameters", tuples({})).error, "");
    EXPECT_FLOAT_EQ(gainOf(other), 2.0f);
}

TEST_F(ChainServiceTest, PlaysLoopsAndStopsSoundsAndRefusesInvalidOnes)
{
    Testing::LogCapture log;
    serve();
    std::string const noModule = "4 SystemSoundsPlayer::play(): could not find module system-sounds";
    auto const plays = [&] { return log.count(noModule); };
    for (int sound : {10, -1}) {
        Reply r = call("PlaySystemSound", g_variant_new("(i)", sound));
        EXPECT_EQ(std::make_pair(r.code, r.error),
                  std::make_pair(int(G_DBUS_ERROR_INVALID_ARGS), std::string("unable to play system sound")));
        r = call("LoopSystemSound", g_variant_new("(iu)", sound, 100u), "(u)");
        EXPECT_EQ(r.error, "unable to loop system sound");
        auto const lines = log.lines();
        std::string const start =
            "4 ChainService: " + std::to_string(sound) + " is not a valid system sound to be ";
        EXPECT_EQ(std::vector<std::string>(lines.end() - 2, lines.end()),
                  std::vector<std::string>({start + "played", start + "looped"}));
    }
    EXPECT_EQ(call("LoopSystemSound", g_variant_new("(iu)", 3, 0u), "(u)").error,
              "unable to loop system sound: an interval of 0 ms is shorter than 100 ms");
    EXPECT_EQ(call("PlaySystemSound", g_variant_new("(i)", 4)).error, "");
    EXPECT_EQ(plays(), 1);

    // A loop asked for before the chain is configured waits for the first set-parameters call.
    Reply const loop = call("LoopSystemSound", g_variant_new("(iu)", 3, 100u), "(u)");
    ASSERT_EQ(loop.error, "");
    guint32 id = 0;
    g_variant_get(loop.value, "(u)", &id);
    g_variant_unref(loop.value);
    runMainLoopUntil([] { return false; }, std::chrono::milliseconds(250));
    EXPECT_EQ(plays(), 1);
    EXPECT_EQ(call("SetParameters", tuples({})).error, "");
    EXPECT_TRUE(runMainLoopUntil([&] { return plays() >= 3; }));

    EXPECT_EQ(call("StopLoopingSystemSound", g_variant_new("(u)", id)).error, "");
    auto const stopped = plays();
    runMainLoopUntil([] { return false; }, std::chrono::milliseconds(250));
    EXPECT_EQ(plays(), stopped);
    EXPECT_EQ(call("StopLoopingSystemSound", g_variant_new("(u)", 9999u)).error, "");
}

TEST(DbusServiceTest, SystemBusPolicyFileLetsRootOwnTheName)
{
    std::string const config = testing::TempDir() + "/chain-policy-bus.conf";
    std::ofstream(config)
        << "<busconfig><type>system</type><listen>unix:tmpdir=/tmp</listen><auth>EXTERNAL</auth>"
           "<policy context=\"default\"><allow send_destination=\"*\" eavesdrop=\"true\"/>"
           "<allow eavesdrop=\"true\"/></policy><include>"
        << PROJECT_SOURCE_DIR << "/dbus/com.orvandeldsp.Chain.conf</include></busconfig>";
    Testing::PrivateDbus bus(config);
    GDBusConnection* connection = bus.connect();
    GVariant* owned = g_dbus_connection_call_sync(
        connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
        g_variant_new("(su)", ChainService::c_busName, 0u), G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE,
        5000, nullptr, nullptr);
    ASSERT_NE(owned, nullptr);
    guint32 result = 0;
    g_variant_get(owned, "(u)", &result);
    EXPECT_EQ(result, 1u);
    g_variant_unref(owned);
    g_object_unref(connection);
}
