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
    // Returns once the service owns its name, having said so on stdout.
    // Throws ToolError when there is no bus or the name is taken.
    ServedChain(Chain& chain, GBusType bus);
    ~ServedChain();

    ServedChain(ServedChain const&) = delete;
    ServedChain& operator=(ServedChain const&) = delete;

private:
    void waitForName(GBusType bus);

    GDBusConnection* m_connection;
    std::unique_ptr<ChainService> m_service;
};

} // namespace Host
} // namespace Zelmar
