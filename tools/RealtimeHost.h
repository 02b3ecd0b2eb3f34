#pragma once

#include <atomic>
#include <functional>
#include <gio/gio.h>
#include <memory>

namespace Zelmar {

class Chain;
class ChainService;

namespace Host {

// Plays a run at the audio's own speed, the way a sound card would take it, while the chain is served
// on D-Bus: parameters and sounds can be changed during the run and the change lands in the output.
// The periods run on an audio thread of their own; the calling thread runs the GLib main loop, which
// the service's handlers, the sounds' timers and the chain's main-loop jobs need.
class RealtimeHost
{
public:
    // Takes one period through the chain and returns the input frames it took, 0 at the end.
    using PlayPeriod = std::function<unsigned int()>;

    // Serves the chain and returns once it owns the service's name, having said so on stdout.
    // Throws ToolError when there is no bus or the name is taken.
    RealtimeHost(Chain& chain, GBusType bus);
    ~RealtimeHost();

    RealtimeHost(RealtimeHost const&) = delete;
    RealtimeHost& operator=(RealtimeHost const&) = delete;

    // Calls playPeriod on the audio thread until it returns 0, each period `frames / sampleRate` seconds
    // after the one before, and runs the main loop meanwhile. Rethrows what playPeriod threw; SIGINT or
    // SIGTERM end the run early with a ToolError.
    void play(unsigned int sampleRate, PlayPeriod const& playPeriod);

private:
    void waitForName(GBusType bus);

    GDBusConnection* m_connection;
    std::unique_ptr<ChainService> m_service;
    // Raised on the main loop by SIGINT and SIGTERM, read by the audio thread between periods.
    std::atomic<bool> m_stopRequested{false};
    guint m_signalSources[2] = {};
};

} // namespace Host
} // namespace Zelmar
