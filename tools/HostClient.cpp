#include "tools/HostClient.h"

#include "tools/ControlBus.h"
#include "tools/HostService.h"
#include "tools/ToolError.h"

namespace Zelmar {
namespace Host {

namespace {

constexpr gint c_callTimeoutMs = 10000;
// A reload reads and compiles a config and fades for a fifth of a second; a slow device's disk may
// take a while.
constexpr gint c_reloadTimeoutMs = 60000;

bool isNotServed(GError const* error)
{
    return g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_SERVICE_UNKNOWN) ||
           g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_NAME_HAS_NO_OWNER);
}

} // namespace

HostClient::HostClient(GBusType bus) : m_bus(bus), m_connection(ControlBus::connect(bus)) {}

HostClient::~HostClient()
{
    g_object_unref(m_connection);
}

GVariant* HostClient::call(char const* interface, char const* method, GVariant* arguments,
                           GVariantType const* replyType, gint timeoutMs)
{
    GError* error = nullptr;
    GVariant* reply = g_dbus_connection_call_sync(
        m_connection, HostService::c_busName, HostService::c_objectPath, interface, method, arguments,
        replyType, G_DBUS_CALL_FLAGS_NO_AUTO_START, timeoutMs, nullptr, &error);
    if (reply)
        return reply;
    int status = ToolError::c_ioFailure;
    std::string message;
    if (isNotServed(error)) {
        message = "no live run is being served on " + ControlBus::describe(m_bus);
    } else {
        // A config the run refused is the user's to change, as it is for `check`.
        if (g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_INVALID_ARGS))
            status = ToolError::c_badInput;
        g_dbus_error_strip_remote_error(error);
        message = error->message;
    }
    g_error_free(error);
    throw ToolError(status, message);
}

GVariant* HostClient::getStatus()
{
    GVariant* const reply =
        call("org.freedesktop.DBus.Properties", "GetAll", g_variant_new("(s)", HostService::c_interfaceName),
             G_VARIANT_TYPE("(a{sv})"), c_callTimeoutMs);
    GVariant* const properties = g_variant_get_child_value(reply, 0);
    g_variant_unref(reply);
    return properties;
}

void HostClient::reload(std::string const& config)
{
    g_variant_unref(call(HostService::c_interfaceName, "Reload", g_variant_new("(s)", config.c_str()),
                         nullptr, c_reloadTimeoutMs));
}

std::optional<std::vector<HostClient::Module>> HostClient::findModules()
{
    if (!ControlBus::hasOwner(m_connection, HostService::c_busName))
        return std::nullopt;
    GVariant* const reply = call("org.freedesktop.DBus.Properties", "Get",
                                 g_variant_new("(ss)", HostService::c_interfaceName, "Modules"),
                                 G_VARIANT_TYPE("(v)"), c_callTimeoutMs);
    GVariant* listed = nullptr;
    g_variant_get(reply, "(v)", &listed);
    std::vector<Module> modules;
    GVariantIter iter;
    g_variant_iter_init(&iter, listed);
    gchar const* id = nullptr;
    gchar const* type = nullptr;
    GVariantIter* keys = nullptr;
    while (g_variant_iter_next(&iter, "(&s&sas)", &id, &type, &keys)) {
        Module module{id, type, {}};
        gchar const* key = nullptr;
        while (g_variant_iter_next(keys, "&s", &key))
            module.parameterKeys.push_back(key);
        g_variant_iter_free(keys);
        modules.push_back(module);
    }
    g_variant_unref(listed);
    g_variant_unref(reply);
    return modules;
}

} // namespace Host
} // namespace Zelmar
