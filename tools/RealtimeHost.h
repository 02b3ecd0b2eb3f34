#pragma once

#include "tools/PeriodLoop.h"

#include <atomic>
#include <gio/gio.h>
#include <memory>
#include <optional>

namespace Zelmar {

class Chain;

namespace Host {

class ServedChain;

// Runs a chain as a sound card would: the periods on an audio thread of their own, while the calling
// thread runs the GLib main loop that the service's handlers, the sounds' timers and the chain's
// main-loop jobs need. SIGINT and SIGTERM ask the period loop to stop.
class RealtimeHost
{
public:
    // Serves the chain on `bus` (see ServedChain), or not at all without one.
    RealtimeHost(Chain& chain, std::optional<GBusType> bus);
    ~RealtimeHost();

    RealtimeHost(RealtimeHost const&) = delete;
    RealtimeHost& operator=(RealtimeHost const&) = delete;

    // Runs the loop on the audio thread and the main loop here until the loop returns. With a priority
    // (1 to 99) the audio thread runs at SCHED_FIFO with the memory locked, or says on stderr why it
    // cannot. Rethrows what the loop threw; returns whether a signal asked it to stop.
    bool play(PeriodLoop& loop, int priority = 0);

private:
    void removeSignalSources();

    std::unique_ptr<ServedChain> m_served;
    // Raised on the main loop by SIGINT and SIGTERM, read by the audio thread between periods.
    std::atomic<bool> m_stopRequested{false};
    guint m_signalSources[2] = {};
};

} // namespace Host
} // namespace Zelmar
