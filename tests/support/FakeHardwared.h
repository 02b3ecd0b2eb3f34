#pragma once

#include "tests/support/PrivateDbus.h"

#include <gio/gio.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace Zelmar {
namespace Testing {

// Stands in for the hardware daemon: serves the interface of dbus/com.orvandel.Hardwared.xml on a
// connection of its own, so the client under test talks to it as to the real daemon.
// The object is exported at once; the bus name only on ownName().
class FakeHardwared
{
public:
    explicit FakeHardwared(PrivateDbus const& bus);
    ~FakeHardwared();

    FakeHardwared(FakeHardwared const&) = delete;
    FakeHardwared& operator=(FakeHardwared const&) = delete;

    // Both return once the bus has confirmed; they throw std::runtime_error if it does not.
    void ownName();
    void releaseName();

    // Emits PropertiesChanged, as the real daemon does on every volume change.
    void setVolume(double volume);

    // Property reads answer that there is no "volume", like a daemon that has not set it up yet, so a
    // client connecting afterwards has none.
    void withholdVolume() { m_withholdVolume = true; }

    // Later SetHiddenVolumeDelta calls are recorded and answered with this D-Bus error; an empty
    // name makes them succeed again.
    void failCallsWith(std::string errorName, std::string message)
    {
        m_errorName = std::move(errorName);
        m_errorMessage = std::move(message);
    }

    std::vector<double> const& getReceivedDeltas() const { return m_receivedDeltas; }

private:
    static void onMethodCall(GDBusConnection*, gchar const*, gchar const*, gchar const*, gchar const*,
                             GVariant* parameters, GDBusMethodInvocation* invocation, gpointer self);
    static GVariant* onGetProperty(GDBusConnection*, gchar const*, gchar const*, gchar const*,
                                   gchar const* property, GError** error, gpointer self);

    GDBusConnection* m_connection;
    GDBusNodeInfo* m_introspection = nullptr;
    guint m_registrationId = 0;
    guint m_ownerId = 0;
    bool m_ownsName = false;
    double m_volume = 0.0;
    bool m_withholdVolume = false;
    std::string m_errorName;
    std::string m_errorMessage;
    std::vector<double> m_receivedDeltas;
};

// A private bus standing in for the system bus, the fake daemon on it (not owning its name yet) and a
// HardwaredClient started afresh on that bus. The client is reset again before the bus goes away.
class HardwaredBusTest : public ::testing::Test
{
protected:
    HardwaredBusTest();
    ~HardwaredBusTest() override;
    void TearDown() override;

    // Owns the daemon's name and waits until the client has connected.
    void bringUpDaemon();

    // The deltas the daemon received, up to a marker call sent now: calls on one connection arrive in
    // order, so once the marker is in, any earlier call is too.
    std::vector<double> receivedUpToMarker();
    static constexpr double c_marker = 0.25;

    PrivateDbus m_bus;
    ScopedBusAddress m_systemBus{"DBUS_SYSTEM_BUS_ADDRESS", m_bus.getAddress()};
    FakeHardwared m_daemon{m_bus};
};

} // namespace Testing
} // namespace Zelmar
