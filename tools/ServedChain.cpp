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

// RequestName's answers, and the flag that makes it answer at once instead of queueing.
constexpr guint32 c_doNotQueue = 4;
constexpr guint32 c_primaryOwner = 1;

// Asks for the name once and gives it back, so that a name taken by another run and a bus policy that
// refuses it are told apart at once; the service then owns it for good.
void tryName(GDBusConnection* connection, GBusType bus)
{
    std::string const where = std::string(ChainService::c_busName) + " on " + ControlBus::describe(bus);
    GError* error = nullptr;
    GVariant* reply = g_dbus_connection_call_sync(
        connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
        g_variant_new("(su)", ChainService::c_busName, c_doNotQueue), G_VARIANT_TYPE("(u)"),
        G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
    if (!reply) {
        bool const refused = g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_ACCESS_DENIED);
        g_dbus_error_strip_remote_error(error);
        std::string const why = error->message;
        g_error_free(error);
        if (refused && bus == G_BUS_TYPE_SYSTEM)
            throw ToolError(ToolError::c_ioFailure,
                            "not allowed to own " + where +
                                ": run as root (the bus's policy com.orvandeldsp.Chain.conf allows root)");
        if (refused)
            throw ToolError(ToolError::c_ioFailure, "not allowed to own " + where + " by the bus's policy");
        throw ToolError(ToolError::c_ioFailure, "could not own " + where + ": " + why);
    }
    guint32 answer = 0;
    g_variant_get(reply, "(u)", &answer);
    g_variant_unref(reply);
    if (answer != c_primaryOwner)
        throw ToolError(ToolError::c_ioFailure, std::string(ChainService::c_busName) +
                                                    " is already served on " + ControlBus::describe(bus) +
                                                    " (is another realtime run going?)");
    g_dbus_connection_call_sync(
        connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "ReleaseName",
        g_variant_new("(s)", ChainService::c_busName), nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
}

} // namespace

ServedChain::ServedChain(Chain& chain, GBusType bus) : m_connection(ControlBus::connect(bus))
{
    try {
        // A second run or a refusing policy would otherwise only show as a timeout.
        tryName(m_connection, bus);
        m_service = std::make_unique<ChainService>(chain, m_connection);
        // The config file has configured the chain: looped sounds play from the start, without waiting
        // for a first set of parameters as they do in the player.
        std::unique_ptr<GVariant, decltype(&g_variant_unref)> const nothingNew(
            g_variant_ref_sink(g_variant_new_array(G_VARIANT_TYPE("(sss)"), nullptr, 0)), g_variant_unref);
        m_service->handleSetParameters(nothingNew.get());
        waitForName(bus);
    } catch (...) {
        m_service.reset();
        g_object_unref(m_connection);
        throw;
    }
    // Scripts wait for this line before they send anything.
    std::printf("orvandeldsp: serving %s on %s\n", ChainService::c_busName,
                ControlBus::describe(bus).c_str());
    std::fflush(stdout);
}

ServedChain::~ServedChain()
{
    m_service.reset();
    g_object_unref(m_connection);
}

void ServedChain::waitForName(GBusType bus)
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
                                                    " on " + ControlBus::describe(bus) +
                                                    " (taken, or not allowed by the bus's policy)");
}

} // namespace Host
} // namespace Zelmar
