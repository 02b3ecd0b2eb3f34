#pragma once

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
};

} // namespace Host
} // namespace Zelmar
