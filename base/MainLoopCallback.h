#pragma once

#include <atomic>
#include <functional>
#include <glib.h>

namespace Zelmar {
namespace Tools {

// A job that any thread, the audio thread included, can ask the main loop to run.
// The job runs on the GLib main context that was the thread default where this object was made.
// schedule() neither locks nor allocates: it raises an atomic flag and wakes the context.
// Several schedules before the job runs collapse into one run.
class MainLoopCallback
{
public:
    explicit MainLoopCallback(std::function<void()> job, int priority = G_PRIORITY_DEFAULT);
    ~MainLoopCallback();

    MainLoopCallback(MainLoopCallback const&) = delete;
    MainLoopCallback& operator=(MainLoopCallback const&) = delete;

    void schedule();
    bool isScheduled() const { return m_pending.load(); }

private:
    struct PendingSource;
    static gboolean prepare(GSource* source, gint* timeout);
    static gboolean check(GSource* source);
    static gboolean dispatch(GSource* source, GSourceFunc, gpointer);
    static GSourceFuncs s_sourceFuncs;

    std::function<void()> m_job;
    std::atomic<bool> m_pending{false};
    GMainContext* m_context;
    GSource* m_source;
};

} // namespace Tools
} // namespace Zelmar
