#include "tools/RealtimeHost.h"

#include "base/MainLoopCallback.h"
#include "tools/RealtimeScheduling.h"
#include "tools/ServedChain.h"

#include <csignal>
#include <cstdio>
#include <exception>
#include <glib-unix.h>
#include <pthread.h>
#include <string>
#include <thread>

namespace Zelmar {
namespace Host {

namespace {

gboolean requestStop(gpointer stopRequested)
{
    static_cast<std::atomic<bool>*>(stopRequested)->store(true);
    return G_SOURCE_CONTINUE;
}

// One line, whatever was refused; the run goes on either way.
void warnAboutRefusals(std::string const& memory, std::string const& priority)
{
    if (!priority.empty())
        std::fprintf(stderr,
                     "orvandeldsp: warning: no real-time priority (%s%s%s), running at normal priority\n",
                     priority.c_str(), memory.empty() ? "" : "; ", memory.c_str());
    else if (!memory.empty())
        std::fprintf(stderr, "orvandeldsp: warning: memory not locked (%s), periods may wait for paging\n",
                     memory.c_str());
    std::fflush(stderr);
}

} // namespace

RealtimeHost::RealtimeHost(Chain& chain, std::optional<GBusType> bus)
{
    // Before the service says it is serving: a script may signal as soon as it reads that line. From
    // here on an interrupted run ends the way its loop chooses instead of at once.
    m_signalSources[0] = g_unix_signal_add(SIGINT, &requestStop, &m_stopRequested);
    m_signalSources[1] = g_unix_signal_add(SIGTERM, &requestStop, &m_stopRequested);
    try {
        if (bus) {
            m_served = std::make_unique<ServedChain>(chain, *bus);
            m_served->announce();
        }
    } catch (...) {
        removeSignalSources();
        throw;
    }
}

RealtimeHost::~RealtimeHost()
{
    removeSignalSources();
}

void RealtimeHost::removeSignalSources()
{
    for (guint const source : m_signalSources)
        g_source_remove(source);
}

bool RealtimeHost::play(PeriodLoop& loop, int priority)
{
    GMainLoop* const mainLoop = g_main_loop_new(nullptr, FALSE);
    // The audio thread must not allocate to end the loop; this job is posted with an atomic flag.
    Tools::MainLoopCallback quit([mainLoop] { g_main_loop_quit(mainLoop); });
    std::atomic<bool> ended{false};
    std::exception_ptr failure;

    std::string const memoryRefused = priority > 0 ? RealtimeScheduling::lockMemory() : "";
    std::thread audio([&] {
        try {
            if (priority > 0)
                RealtimeScheduling::pretouchStack();
            loop.run(m_stopRequested);
        } catch (...) {
            failure = std::current_exception();
        }
        ended.store(true);
        quit.schedule();
    });
    pthread_setname_np(audio.native_handle(), "orvandeldsp-rt");
    if (priority > 0)
        warnAboutRefusals(memoryRefused, RealtimeScheduling::raisePriority(audio, priority));
    while (!ended.load())
        g_main_loop_run(mainLoop);
    audio.join();

    g_main_loop_unref(mainLoop);
    if (failure)
        std::rethrow_exception(failure);
    return m_stopRequested.load();
}

} // namespace Host
} // namespace Zelmar
