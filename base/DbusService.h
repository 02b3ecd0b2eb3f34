#pragma once

#include <gio/gio.h>

namespace Zelmar {
namespace Tools {

// Owns a bus name and serves one generated interface skeleton at an object path while it owns the name.
// The skeleton exists from construction, so handlers can be connected before the bus is reached.
// The bus connection is a private one: losing the bus never ends the process.
class DbusService
{
public:
    // busType follows GLib's numbering: 1 is the system bus, 2 the session bus.
    DbusService(int busType, char const* busName, char const* objectPath, GType skeletonType);
    // Serves on a connection the caller already has.
    DbusService(GDBusConnection* connection, char const* busName, char const* objectPath, GType skeletonType);
    ~DbusService();

    DbusService(DbusService const&) = delete;
    DbusService& operator=(DbusService const&) = delete;

    bool isNameOwned() const { return m_nameOwned; }
    gpointer getSkeleton() const { return m_skeleton; }

private:
    void own(char const* busName, char const* objectPath);
    static void onNameAcquired(GDBusConnection* connection, gchar const* name, gpointer self);
    static void onNameLost(GDBusConnection* connection, gchar const* name, gpointer self);

    GDBusInterfaceSkeleton* m_skeleton = nullptr;
    GDBusConnection* m_connection = nullptr;
    guint m_ownerId = 0;
    bool m_nameOwned = false;
};

} // namespace Tools
} // namespace Zelmar
