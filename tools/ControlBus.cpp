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
    // A bus that does not accept this user closes the connection before saying why.
    std::string const why = g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CLOSED)
                                ? "it closed the connection, so it does not accept this user"
                            : error ? error->message
                                    : "unknown error";
    g_clear_error(&error);
    throw ToolError(ToolError::c_ioFailure, "cannot reach " + describe(type) + ": " + why);
}

void ControlBus::tryToOwn(GDBusConnection* connection, char const* name, GBusType type, char const* holder)
{
    // RequestName's flag that makes it answer at once instead of queueing, and its answer for success.
    constexpr guint32 c_doNotQueue = 4;
    constexpr guint32 c_primaryOwner = 1;
    std::string const where = std::string(name) + " on " + describe(type);
    GError* error = nullptr;
    GVariant* reply = g_dbus_connection_call_sync(
        connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
        g_variant_new("(su)", name, c_doNotQueue), G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr,
        &error);
    if (!reply) {
        bool const refused = g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_ACCESS_DENIED);
        g_dbus_error_strip_remote_error(error);
        std::string const why = error->message;
        g_error_free(error);
        if (refused && type == G_BUS_TYPE_SYSTEM)
            throw ToolError(ToolError::c_ioFailure, "not allowed to own " + where +
                                                        ": run as root (the bus's policy " + name +
                                                        ".conf allows root)");
        if (refused)
            throw ToolError(ToolError::c_ioFailure, "not allowed to own " + where + " by the bus's policy");
        throw ToolError(ToolError::c_ioFailure, "could not own " + where + ": " + why);
    }
    guint32 answer = 0;
    g_variant_get(reply, "(u)", &answer);
    g_variant_unref(reply);
    if (answer != c_primaryOwner)
        throw ToolError(ToolError::c_ioFailure, std::string(name) + " is already served on " +
                                                    describe(type) + " (is " + holder + " going?)");
    g_dbus_connection_call_sync(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                "org.freedesktop.DBus", "ReleaseName", g_variant_new("(s)", name), nullptr,
                                G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
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
