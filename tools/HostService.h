#pragma once

#include "base/DbusService.h"

#include <cstdint>
#include <gio/gio.h>
#include <memory>
#include <string>

namespace Zelmar {
namespace Host {

class ChainReloader;
class LivePeriodLoop;
struct LiveTelemetry;

// Serves a live run on D-Bus as "com.orvandeldsp.Host" (interface in dbus/com.orvandeldsp.Host.xml),
// next to its chain: what the run is doing as read-only properties, refreshed once a second from the
// audio thread's telemetry and announced in one PropertiesChanged, and Reload. Main loop only.
class HostService
{
public:
    static constexpr char const* c_busName = "com.orvandeldsp.Host";
    static constexpr char const* c_objectPath = "/com/orvandeldsp/Host";
    static constexpr char const* c_interfaceName = "com.orvandeldsp.Host";

    // What does not change while the run goes on.
    struct Run
    {
        std::string input;
        std::string playback;
        unsigned int sampleRate = 48000;
        unsigned int periodFrames = 1024;
    };

    // Returns once the service owns its name. Throws ToolError when there is no bus or the name is taken.
    HostService(GBusType bus, Run const& run, LivePeriodLoop const& loop, LiveTelemetry const& telemetry,
                ChainReloader& reloader);
    ~HostService();

    HostService(HostService const&) = delete;
    HostService& operator=(HostService const&) = delete;

private:
    void refresh();
    void refreshTelemetry(gpointer skeleton);
    void refreshChain(gpointer skeleton);
    double takeLoadSinceLastRefresh();
    static gboolean onReload(gpointer skeleton, GDBusMethodInvocation* invocation, char const* config,
                             HostService* self);

    Run m_run;
    LivePeriodLoop const& m_loop;
    LiveTelemetry const& m_telemetry;
    ChainReloader& m_reloader;
    GDBusConnection* m_connection;
    std::unique_ptr<Tools::DbusService> m_service;
    gulong m_reloadHandler = 0;
    guint m_refreshTimer = 0;
    // The busy time and periods at the last refresh, for the load over the second since.
    uint64_t m_busyNanoseconds = 0;
    uint64_t m_periods = 0;
};

} // namespace Host
} // namespace Zelmar
