#include "tools/ControlBus.h"

#include "tools/ToolError.h"

#include <unistd.h>

namespace Zelmar {
namespace Host {

GBusType ControlBus::defaultType()
{
    return geteuid() == 0 ? G_BUS_TYPE_SYSTEM : G_BUS_TYPE_SESSION;
}

std::string ControlBus::describe(GBusType type)
{
    return type == G_BUS_TYPE_SYSTEM ? "the system bus" : "the session bus";
}

GDBusConnection* ControlBus::connect(GBusType type)
{
    GError* error = nullptr;
    GDBusConnection* connection = nullptr;
    // A private connection: nothing else in the process shares it or its name ownership.
    if (gchar* address = g_dbus_address_get_for_bus_sync(type, nullptr, &error)) {
        connection = g_dbus_connection_new_for_address_sync(
            address,
            GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                 G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, nullptr, &error);
        g_free(address);
    }
    if (connection)
        return connection;
    // A bus that does not accept this user closes the connection before saying why.
    std::string const why = g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CLOSED)
                                ? "it closed the connection, so it does not accept this user"
                            : error ? error->message
                                    : "unknown error";
    g_clear_error(&error);
    throw ToolError(ToolError::c_ioFailure, "cannot reach " + describe(type) + ": " + why);
}

} // namespace Host
} // namespace Zelmar
