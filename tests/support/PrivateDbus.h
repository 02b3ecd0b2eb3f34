#pragma once

#include "tests/support/ScopedVariable.h"

#include <gio/gio.h>
#include <string>

namespace Zelmar {
namespace Testing {

// A dbus-daemon of the test's own, so that D-Bus tests never reach the machine's buses.
// The daemon runs as a child process from construction to destruction and dies with the test process.
class PrivateDbus
{
public:
    // Starts dbus-daemon with the given configuration and waits for its address;
    // throws std::runtime_error when it cannot be started.
    explicit PrivateDbus(std::string const& configFile = getDefaultConfigFile());
    ~PrivateDbus();

    PrivateDbus(PrivateDbus const&) = delete;
    PrivateDbus& operator=(PrivateDbus const&) = delete;

    std::string const& getAddress() const { return m_address; }

    // A new connection of its own to this bus, registered with it; the caller unrefs it.
    // Throws std::runtime_error when it fails.
    GDBusConnection* connect() const;

    // tests/data/private-bus.conf: anyone may own and call anything, nothing is activated.
    static std::string getDefaultConfigFile();

private:
    GSubprocess* m_daemon = nullptr;
    std::string m_address;
};

// Points a bus variable (DBUS_SYSTEM_BUS_ADDRESS, DBUS_SESSION_BUS_ADDRESS) at an address for its lifetime.
using ScopedBusAddress = ScopedVariable;

// What both bus variables hold in the test program outside a ScopedBusAddress: a well-formed address with
// nothing behind it, so code that reaches for a bus fails at once instead of using the machine's.
extern char const* const c_noBusAddress;

} // namespace Testing
} // namespace Zelmar
