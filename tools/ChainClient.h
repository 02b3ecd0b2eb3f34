#pragma once

#include "tools/HostClient.h"

#include <gio/gio.h>
#include <optional>
#include <string>
#include <vector>

namespace Zelmar {
namespace Host {

// Talks to a chain served on D-Bus (by `orvandeldsp run --realtime` or the player): sets parameters and
// plays, loops and stops system sounds. Every failure is a ToolError with one line to show.
class ChainClient
{
public:
    struct Setting
    {
        std::string module;
        std::string key;
        std::string value;
    };

    // Throws ToolError when the bus cannot be reached.
    explicit ChainClient(GBusType bus);
    ~ChainClient();

    ChainClient(ChainClient const&) = delete;
    ChainClient& operator=(ChainClient const&) = delete;

    // From here on a setting for a module or key the chain does not have, or a sound for a chain
    // without system sounds, is refused before anything is sent (a ToolError naming it), where without
    // the list the service would pass over it.
    void knowModules(std::vector<HostClient::Module> const& modules) { m_modules = modules; }

    void setParameter(Setting const& setting);
    // All in one call, so every module named receives its new set at once.
    void setParameters(std::vector<Setting> const& settings);
    void playSound(int sound);
    // Returns the id to stop it with.
    unsigned int loopSound(int sound, unsigned int intervalMs);
    void stopSound(unsigned int id);

    // A parameters file: one "MODULE KEY VALUE" per line, the value being the rest of the line;
    // blank lines and lines starting with '#' are skipped. Throws ToolError, naming the bad line.
    static std::vector<Setting> readSettings(std::string const& path);

private:
    // The reply, which the caller unrefs; a failed call throws.
    GVariant* call(char const* method, GVariant* arguments, GVariantType const* replyType);
    void refuseWhatTheChainLacks(Setting const& setting) const;
    void refuseSoundsWithoutTheirModule() const;

    GBusType m_bus;
    GDBusConnection* m_connection;
    std::optional<std::vector<HostClient::Module>> m_modules;
};

} // namespace Host
} // namespace Zelmar
