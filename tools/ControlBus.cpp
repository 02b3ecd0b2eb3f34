#include "tools/ControlBus.h"

#include "tools/ToolError.h"

#include <unistd.h>

namespace Zelmar {
namespace Host {

namespace {

// Owning a name is one round trip to the bus; this only guards against a bus that never answers.
constexpr guint c_nameTimeoutMs = 5000;

} // namespace

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
    std::string const why = error ? error->message : "unknown error";
    g_clear_error(&error);
    throw ToolError(ToolError::c_ioFailure, "cannot reach " + describe(type) + ": " + why);
}

bool ControlBus::hasOwner(GDBusConnection* connection, char const* name)
{
    GVariant* reply = g_dbus_connection_call_sync(
        connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "NameHasOwner",
        g_variant_new("(s)", name), G_VARIANT_TYPE("(b)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    // Without an answer the request for the name itself tells whether it can be had.
    if (!reply)
        return false;
    gboolean owned = FALSE;
    g_variant_get(reply, "(b)", &owned);
    g_variant_unref(reply);
    return owned;
}

void ControlBus::waitUntilOwned(std::function<bool()> const& owned, char const* name, GBusType type)
{
    bool timedOut = false;
    guint const timeout = g_timeout_add(
        c_nameTimeoutMs,
        [](gpointer flag) {
            *static_cast<bool*>(flag) = true;
            return gboolean(G_SOURCE_REMOVE);
        },
        &timedOut);
    while (!owned() && !timedOut)
        g_main_context_iteration(nullptr, TRUE);
    if (!timedOut)
        g_source_remove(timeout);
    if (!owned())
        throw ToolError(ToolError::c_ioFailure, std::string("could not own ") + name + " on " +
                                                    describe(type) +
                                                    " (taken, or not allowed by the bus's policy)");
}

} // namespace Host
} // namespace Zelmar
