#include "base/MainLoopCallback.h"

namespace Zelmar {
namespace Tools {

struct MainLoopCallback::PendingSource
{
    GSource source;
    MainLoopCallback* owner;
};

GSourceFuncs MainLoopCallback::s_sourceFuncs = {&MainLoopCallback::prepare, &MainLoopCallback::check,
                                                &MainLoopCallback::dispatch, nullptr, nullptr, nullptr};

MainLoopCallback::MainLoopCallback(std::function<void()> job, int priority)
    : m_job(std::move(job)), m_context(g_main_context_ref_thread_default()),
      m_source(g_source_new(&s_sourceFuncs, sizeof(PendingSource)))
{
    reinterpret_cast<PendingSource*>(m_source)->owner = this;
    g_source_set_priority(m_source, priority);
    g_source_attach(m_source, m_context);
}

MainLoopCallback::~MainLoopCallback()
{
    g_source_destroy(m_source);
    g_source_unref(m_source);
    g_main_context_unref(m_context);
}

void MainLoopCallback::schedule()
{
    if (!m_pending.exchange(true))
        g_main_context_wakeup(m_context);
}

gboolean MainLoopCallback::prepare(GSource* source, gint* timeout)
{
    *timeout = -1;
    return reinterpret_cast<PendingSource*>(source)->owner->m_pending.load();
}

gboolean MainLoopCallback::check(GSource* source)
{
    return reinterpret_cast<PendingSource*>(source)->owner->m_pending.load();
}

gboolean MainLoopCallback::dispatch(GSource* source, GSourceFunc, gpointer)
{
    MainLoopCallback* owner = reinterpret_cast<PendingSource*>(source)->owner;
    // Cleared before the job runs, so a schedule() made during the job runs it again.
    if (owner->m_pending.exchange(false) && owner->m_job)
        owner->m_job();
    return G_SOURCE_CONTINUE;
}

} // namespace Tools
} // namespace Zelmar
