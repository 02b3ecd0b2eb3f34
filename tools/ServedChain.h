#pragma once

#include <gio/gio.h>
#include <memory>

namespace Zelmar {

class Chain;
class ChainService;

namespace Host {

// A chain served on D-Bus as the player serves it, so that `orvandeldsp set` and `orvandeldsp sound`
// reach it while it plays. The handlers run on the main loop of the thread that made it.
class ServedChain
{
public:
    // Returns once the service owns its name. Throws ToolError when there is no bus or the name is taken.
    ServedChain(Chain& chain, GBusType bus);
    ~ServedChain();

    ServedChain(ServedChain const&) = delete;
    ServedChain& operator=(ServedChain const&) = delete;

    // Says on stdout that the chain is served: scripts wait for this line before they send anything.
    void announce() const;
    // Serves another chain instead, which a reload has made. The name is released and taken again, so a
    // call in between finds no chain, as it would during a restart; repeating sounds end with the old
    // chain.
    void serve(Chain& chain);

private:
    void startService(Chain& chain);

    GBusType m_bus;
    GDBusConnection* m_connection;
    std::unique_ptr<ChainService> m_service;
};

} // namespace Host
} // namespace Zelmar
