#include "base/DbusService.h"

#include "base/Tracer.h"

namespace Zelmar {
namespace Tools {

DbusService::DbusService(int busType, char const* busName, char const* objectPath, GType skeletonType)
    : m_skeleton(G_DBUS_INTERFACE_SKELETON(g_object_new(skeletonType, nullptr)))
{
    GError* error = nullptr;
    gchar* address = g_dbus_address_get_for_bus_sync(static_cast<GBusType>(busType), nullptr, &error);
    if (address) {
        m_connection = g_dbus_connection_new_for_address_sync(
            address,
            GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                 G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, nullptr, &error);
        g_free(address);
    }
    if (!m_connection) {
        trace(Tracer::Error, "DbusService: no bus for", busName, ":", error->message);
        g_error_free(error);
        return;
    }
    own(busName, objectPath);
}

DbusService::DbusService(GDBusConnection* connection, char const* busName, char const* objectPath,
                         GType skeletonType)
    : m_skeleton(G_DBUS_INTERFACE_SKELETON(g_object_new(skeletonType, nullptr))),
      m_connection(G_DBUS_CONNECTION(g_object_ref(connection)))
{
    own(busName, objectPath);
}

DbusService::~DbusService()
{
    if (m_ownerId)
        g_bus_unown_name(m_ownerId);
    if (g_dbus_interface_skeleton_get_connection(m_skeleton))
        g_dbus_interface_skeleton_unexport(m_skeleton);
    g_object_unref(m_skeleton);
    if (m_connection)
        g_object_unref(m_connection);
}

void DbusService::own(char const* busName, char const* objectPath)
{
    GError* error = nullptr;
    if (!g_dbus_interface_skeleton_export(m_skeleton, m_connection, objectPath, &error)) {
        trace(Tracer::Error, "DbusService: cannot export", objectPath, ":", error->message);
        g_error_free(error);
        return;
    }
    m_ownerId =
        g_bus_own_name_on_connection(m_connection, busName, G_BUS_NAME_OWNER_FLAGS_NONE,
                                     &DbusService::onNameAcquired, &DbusService::onNameLost, this, nullptr);
}

void DbusService::onNameAcquired(GDBusConnection*, gchar const* name, gpointer self)
{
    static_cast<DbusService*>(self)->m_nameOwned = true;
    trace(Tracer::Notice, "DbusService: owns", name);
}

void DbusService::onNameLost(GDBusConnection*, gchar const* name, gpointer self)
{
    static_cast<DbusService*>(self)->m_nameOwned = false;
    trace(Tracer::Error, "DbusService: does not own", name);
}

} // namespace Tools
} // namespace Zelmar
