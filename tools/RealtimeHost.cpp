#include "tools/RealtimeHost.h"

#include "base/MainLoopCallback.h"
#include "dsp/ChainService.h"
#include "tools/ControlBus.h"
#include "tools/ToolError.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <exception>
#include <glib-unix.h>
#include <string>
#include <thread>

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

// The moment `frames` frames after `start` are due, without overflow for any run length.
timespec framesAfter(timespec const& start, uint64_t frames, unsigned int sampleRate)
{
    uint64_t const nanoseconds = uint64_t(start.tv_nsec) + (frames % sampleRate) * 1000000000u / sampleRate;
    timespec due{};
    due.tv_sec = start.tv_sec + time_t(frames / sampleRate) + time_t(nanoseconds / 1000000000u);
    due.tv_nsec = long(nanoseconds % 1000000000u);
    return due;
}

gboolean requestStop(gpointer stopRequested)
{
    static_cast<std::atomic<bool>*>(stopRequested)->store(true);
    return G_SOURCE_CONTINUE;
}

} // namespace

RealtimeHost::RealtimeHost(Chain& chain, GBusType bus) : m_connection(ControlBus::connect(bus))
{
    try {
        // A second run would otherwise only learn from a timeout that the first one has the name.
        if (nameHasOwner(m_connection, ChainService::c_busName))
            throw ToolError(ToolError::c_ioFailure, std::string(ChainService::c_busName) +
                                                        " is already served on " + ControlBus::describe(bus) +
                                                        " (is another realtime run going?)");
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
    // From here on an interrupted run ends cleanly, without a partial output file.
    m_signalSources[0] = g_unix_signal_add(SIGINT, &requestStop, &m_stopRequested);
    m_signalSources[1] = g_unix_signal_add(SIGTERM, &requestStop, &m_stopRequested);
    // Scripts wait for this line before they send anything.
    std::printf("orvandeldsp: serving %s on %s\n", ChainService::c_busName,
                ControlBus::describe(bus).c_str());
    std::fflush(stdout);
}

RealtimeHost::~RealtimeHost()
{
    for (guint const source : m_signalSources)
        g_source_remove(source);
    m_service.reset();
    g_object_unref(m_connection);
}

void RealtimeHost::waitForName(GBusType bus)
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

void RealtimeHost::play(unsigned int sampleRate, PlayPeriod const& playPeriod)
{
    GMainLoop* const loop = g_main_loop_new(nullptr, FALSE);
    // The audio thread must not allocate to end the loop; this job is posted with an atomic flag.
    Tools::MainLoopCallback quit([loop] { g_main_loop_quit(loop); });
    std::atomic<bool> ended{false};
    std::exception_ptr failure;

    std::thread audio([&] {
        try {
            timespec start{};
            clock_gettime(CLOCK_MONOTONIC, &start);
            uint64_t frames = 0;
            while (!m_stopRequested.load()) {
                unsigned int const taken = playPeriod();
                if (taken == 0)
                    break;
                frames += taken;
                // Against the start rather than the last wake-up, so late wake-ups do not add up.
                timespec const due = framesAfter(start, frames, sampleRate);
                while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &due, nullptr) == EINTR) {
                }
            }
        } catch (...) {
            failure = std::current_exception();
        }
        ended.store(true);
        quit.schedule();
    });
    while (!ended.load())
        g_main_loop_run(loop);
    audio.join();

    g_main_loop_unref(loop);
    if (failure)
        std::rethrow_exception(failure);
    if (m_stopRequested.load())
        throw ToolError(ToolError::c_ioFailure, "interrupted; no output written");
}

} // namespace Host
} // namespace Zelmar
