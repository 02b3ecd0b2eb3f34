#include "tests/support/FakeHardwared.h"

#include "base/HardwaredClient.h"
#include "tests/support/MainLoop.h"

#include <stdexcept>

namespace Zelmar {
namespace Testing {

namespace {

constexpr char const* c_busName = "com.orvandel.Hardwared";
constexpr char const* c_objectPath = "/com/orvandel/Hardwared";
constexpr char const* c_interfaceName = "com.orvandel.Hardwared";

// The interface as the real daemon declares it; a test cannot go on without it.
GDBusNodeInfo* loadInterfaceXml()
{
    g_autofree gchar* xml = nullptr;
    g_file_get_contents(PROJECT_SOURCE_DIR "/dbus/com.orvandel.Hardwared.xml", &xml, nullptr, nullptr);
    if (GDBusNodeInfo* info = xml ? g_dbus_node_info_new_for_xml(xml, nullptr) : nullptr)
        return info;
    throw std::runtime_error("cannot read dbus/com.orvandel.Hardwared.xml");
}

} // namespace

FakeHardwared::FakeHardwared(PrivateDbus const& bus)
    : m_connection(bus.connect()), m_introspection(loadInterfaceXml())
{
    static GDBusInterfaceVTable const vtable = {
        &FakeHardwared::onMethodCall, &FakeHardwared::onGetProperty, nullptr, {}};
    m_registrationId = g_dbus_connection_register_object(
        m_connection, c_objectPath, g_dbus_node_info_lookup_interface(m_introspection, c_interfaceName),
        &vtable, this, nullptr, nullptr);
    if (!m_registrationId)
        throw std::runtime_error(std::string("cannot export ") + c_interfaceName);
}

FakeHardwared::~FakeHardwared()
{
    if (m_ownerId)
        g_bus_unown_name(m_ownerId);
    g_dbus_connection_unregister_object(m_connection, m_registrationId);
    g_dbus_connection_close_sync(m_connection, nullptr, nullptr);
    g_object_unref(m_connection);
    g_dbus_node_info_unref(m_introspection);
}

void FakeHardwared::ownName()
{
    m_ownerId = g_bus_own_name_on_connection(
        m_connection, c_busName, G_BUS_NAME_OWNER_FLAGS_NONE,
        [](GDBusConnection*, gchar const*, gpointer self) {
            static_cast<FakeHardwared*>(self)->m_ownsName = true;
        },
        [](GDBusConnection*, gchar const*, gpointer self) {
            static_cast<FakeHardwared*>(self)->m_ownsName = false;
        },
        this, nullptr);
    if (!runMainLoopUntil([this] { return m_ownsName; }))
        throw std::runtime_error(std::string("the private bus did not give the fake daemon ") + c_busName);
}

void FakeHardwared::releaseName()
{
    g_bus_unown_name(m_ownerId);
    m_ownerId = 0;
    m_ownsName = false;
    // The bus confirms by telling us the name has no owner any more.
    GVariant* reply = g_dbus_connection_call_sync(
        m_connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "NameHasOwner",
        g_variant_new("(s)", c_busName), G_VARIANT_TYPE("(b)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    gboolean owned = TRUE;
    if (reply) {
        g_variant_get(reply, "(b)", &owned);
        g_variant_unref(reply);
    }
    if (owned)
        throw std::runtime_error(std::string("the fake daemon could not release ") + c_busName);
}

void FakeHardwared::setVolume(double volume)
{
    m_volume = volume;
    GVariantBuilder changed;
    g_variant_builder_init(&changed, G_VARIANT_TYPE_VARDICT);
    g_variant_builder_add(&changed, "{sv}", "volume", g_variant_new_double(volume));
    g_dbus_connection_emit_signal(
        m_connection, nullptr, c_objectPath, "org.freedesktop.DBus.Properties", "PropertiesChanged",
        g_variant_new("(sa{sv}@as)", c_interfaceName, &changed, g_variant_new_strv(nullptr, 0)), nullptr);
}

void FakeHardwared::onMethodCall(GDBusConnection*, gchar const*, gchar const*, gchar const*, gchar const*,
                                 GVariant* parameters, GDBusMethodInvocation* invocation, gpointer self)
{
    auto* daemon = static_cast<FakeHardwared*>(self);
    // SetHiddenVolumeDelta is the only method, and GDBus has checked the argument types against the XML.
    double delta = 0.0;
    g_variant_get(parameters, "(d)", &delta);
    daemon->m_receivedDeltas.push_back(delta);
    if (daemon->m_errorName.empty())
        g_dbus_method_invocation_return_value(invocation, nullptr);
    else
        g_dbus_method_invocation_return_dbus_error(invocation, daemon->m_errorName.c_str(),
                                                   daemon->m_errorMessage.c_str());
}

GVariant* FakeHardwared::onGetProperty(GDBusConnection*, gchar const*, gchar const*, gchar const*,
                                       gchar const*, GError** error, gpointer self)
{
    // "volume" is the interface's only property, and GDBus lets through only what the XML declares.
    auto* daemon = static_cast<FakeHardwared*>(self);
    if (daemon->m_withholdVolume) {
        g_set_error(error, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_PROPERTY, "volume not known yet");
        return nullptr;
    }
    return g_variant_new_double(daemon->m_volume);
}

HardwaredBusTest::HardwaredBusTest()
{
    HardwaredClient::reset();
    HardwaredClient::get();
}

void HardwaredBusTest::TearDown()
{
    // Replies still on their way reach the client before the daemon's name is gone, so they are
    // handled in this test rather than failing as "connection closed" inside the next one.
    if (!HardwaredClient::get().isConnected())
        return;
    m_daemon.releaseName();
    EXPECT_TRUE(runMainLoopUntil([] { return !HardwaredClient::get().isConnected(); }));
}

HardwaredBusTest::~HardwaredBusTest()
{
    HardwaredClient::reset();
}

void HardwaredBusTest::bringUpDaemon()
{
    m_daemon.ownName();
    ASSERT_TRUE(runMainLoopUntil([] { return HardwaredClient::get().isConnected(); }));
}

std::vector<double> HardwaredBusTest::receivedUpToMarker()
{
    bool done = false;
    HardwaredClient::get().setHiddenVolumeDelta(
        c_marker, [&] { done = true; }, [&](auto const&) { done = true; });
    EXPECT_TRUE(runMainLoopUntil([&] { return done; }));
    return m_daemon.getReceivedDeltas();
}

} // namespace Testing
} // namespace Zelmar
