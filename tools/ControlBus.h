#pragma once

#include <functional>
#include <gio/gio.h>
#include <string>

namespace Zelmar {
namespace Host {

// The bus a chain is served on and reached through: the system bus for root, as on the device, the
// session bus for a developer's own runs.
class ControlBus
{
public:
    static GBusType defaultType();
    // "the session bus" or "the system bus", for messages.
    static std::string describe(GBusType type);
    // A private connection of the caller's own; throws ToolError (I/O failure) when there is no bus.
    static GDBusConnection* connect(GBusType type);
    // Asks for `name` once and gives it back, so that a name another run holds and a bus policy that
    // refuses it are told apart at once, each in one line (ToolError); the service then owns it for good.
    // `holder` says who else may hold it, for example "another live run".
    static void tryToOwn(GDBusConnection* connection, char const* name, GBusType type, char const* holder);
    // Whether another connection owns `name`; false when the bus does not answer.
    static bool hasOwner(GDBusConnection* connection, char const* name);
    // Runs the thread's main context until `owned` holds; throws ToolError when the bus has not given
    // `name` within a few seconds.
    static void waitUntilOwned(std::function<bool()> const& owned, char const* name, GBusType type);
};

} // namespace Host
} // namespace Zelmar
