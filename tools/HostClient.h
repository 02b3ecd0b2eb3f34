#pragma once

#include <gio/gio.h>
#include <optional>
#include <string>
#include <vector>

namespace Zelmar {
namespace Host {

// Talks to the host service of a live run (`orvandeldsp live`): its status and Reload. Every failure is
// a ToolError with one line to show.
class HostClient
{
public:
    struct Module
    {
        std::string id;
        std::string type;
        std::vector<std::string> parameterKeys;
    };

    // Throws ToolError when the bus cannot be reached.
    explicit HostClient(GBusType bus);
    ~HostClient();

    HostClient(HostClient const&) = delete;
    HostClient& operator=(HostClient const&) = delete;

    // Every property of the service, as an a{sv} the caller unrefs.
    GVariant* getStatus();
    // Returns once the new chain plays. A refused config is a ToolError of a config mistake.
    void reload(std::string const& config);
    // The served chain's modules; none when no live run is served (a player serves its chain without
    // the list).
    std::optional<std::vector<Module>> findModules();

private:
    GVariant* call(char const* interface, char const* method, GVariant* arguments,
                   GVariantType const* replyType, gint timeoutMs);

    GBusType m_bus;
    GDBusConnection* m_connection;
};

} // namespace Host
} // namespace Zelmar
