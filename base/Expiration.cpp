#include "base/Expiration.h"

namespace Zelmar {
namespace Tools {

namespace {

gboolean dispatchWhenReady(GSource*, GSourceFunc callback, gpointer data)
{
    return callback(data);
}

GSourceFuncs c_readyTimeFuncs = {nullptr, nullptr, &dispatchWhenReady, nullptr, nullptr, nullptr};

} // namespace

Expiration::Expiration(std::function<void()> callback, int priority)
    : m_callback(std::move(callback)), m_priority(priority), m_context(g_main_context_ref_thread_default())
{
}

Expiration::~Expiration()
{
    cancel();
    g_main_context_unref(m_context);
}

void Expiration::refresh(unsigned int seconds, unsigned int milliseconds, unsigned int microseconds)
{
    m_timeoutUs = guint64(seconds) * G_USEC_PER_SEC + guint64(milliseconds) * 1000 + microseconds;
    refresh();
}

void Expiration::refresh()
{
    cancel();
    // A ready time rather than g_timeout_source_new keeps microsecond resolution.
    m_source = g_source_new(&c_readyTimeFuncs, sizeof(GSource));
    g_source_set_ready_time(m_source, g_get_monotonic_time() + gint64(m_timeoutUs));
    g_source_set_priority(m_source, m_priority);
    g_source_set_callback(m_source, &Expiration::onTimeout, this, nullptr);
    g_source_attach(m_source, m_context);
}

void Expiration::cancel()
{
    if (!m_source)
        return;
    g_source_destroy(m_source);
    g_source_unref(m_source);
    m_source = nullptr;
}

gboolean Expiration::onTimeout(gpointer data)
{
    auto* self = static_cast<Expiration*>(data);
    // Disarm first: the callback may re-arm the timer or destroy its owner.
    self->cancel();
    if (self->m_callback) {
        auto callback = self->m_callback;
        callback();
    }
    return G_SOURCE_REMOVE;
}

} // namespace Tools
} // namespace Zelmar
