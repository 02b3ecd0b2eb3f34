#include "tools/ServedChain.h"

#include "dsp/ChainService.h"
#include "tools/ControlBus.h"
#include "tools/ToolError.h"

#include <cstdio>
#include <string>

namespace Zelmar {
namespace Host {

namespace {

// Owning a name is one round trip to the bus; this only guards against a bus that never answers.
constexpr guint c_nameTimeoutMs = 5000;

bool nameHasOwner(GDBusConnection* connection, char const* name)
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

} // namespace

ServedChain::ServedChain(Chain& chain, GBusType bus) : m_bus(bus), m_connection(ControlBus::connect(bus))
{
    try {
        // A second run would otherwise only learn from a timeout that the first one has the name.
        if (nameHasOwner(m_connection, ChainService::c_busName))
            throw ToolError(ToolError::c_ioFailure, std::string(ChainService::c_busName) +
                                                        " is already served on " + ControlBus::describe(bus) +
                                                        " (is another realtime run going?)");
        startService(chain);
        waitForName();
    } catch (...) {
        m_service.reset();
        g_object_unref(m_connection);
        throw;
    }
}

void ServedChain::announce() const
{
    std::printf("orvandeldsp: serving %s on %s\n", ChainService::c_busName,
                ControlBus::describe(m_bus).c_str());
    std::fflush(stdout);
}

void ServedChain::serve(Chain& chain)
{
    m_service.reset();
    startService(chain);
}

void ServedChain::startService(Chain& chain)
{
    m_service = std::make_unique<ChainService>(chain, m_connection);
    // The config file has configured the chain: looped sounds play from the start, without waiting
    // for a first set of parameters as they do in the player.
    std::unique_ptr<GVariant, decltype(&g_variant_unref)> const nothingNew(
        g_variant_ref_sink(g_variant_new_array(G_VARIANT_TYPE("(sss)"), nullptr, 0)), g_variant_unref);
    m_service->handleSetParameters(nothingNew.get());
}

ServedChain::~ServedChain()
{
    m_service.reset();
    g_object_unref(m_connection);
}

void ServedChain::waitForName()
{
    bool timedOut = false;
    guint const timeout = g_timeout_add(
        c_nameTimeoutMs,
        [](gpointer flag) {
            *static_cast<bool*>(flag) = true;
            return gboolean(G_SOURCE_REMOVE);
        },
        &timedOut);
    while (!m_service->isServiceReady() && !timedOut)
        g_main_context_iteration(nullptr, TRUE);
    if (!timedOut)
        g_source_remove(timeout);
    if (!m_service->isServiceReady())
        throw ToolError(ToolError::c_ioFailure, std::string("could not own ") + ChainService::c_busName +
                                                    " on " + ControlBus::describe(m_bus) +
                                                    " (taken, or not allowed by the bus's policy)");
}

} // namespace Host
} // namespace Zelmar
