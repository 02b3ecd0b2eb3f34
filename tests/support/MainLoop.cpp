#include "tests/support/MainLoop.h"

#include <glib.h>

namespace Zelmar {
namespace Testing {

bool runMainLoopUntil(std::function<bool()> const& condition, std::chrono::milliseconds timeout)
{
    GMainContext* context = g_main_context_ref_thread_default();
    bool timedOut = false;
    // The timer wakes the blocking iteration, so a condition that never comes true still returns.
    GSource* timer = g_timeout_source_new(static_cast<guint>(timeout.count()));
    g_source_set_callback(
        timer,
        [](gpointer flag) -> gboolean {
            *static_cast<bool*>(flag) = true;
            return G_SOURCE_REMOVE;
        },
        &timedOut, nullptr);
    g_source_attach(timer, context);
    while (!condition() && !timedOut)
        g_main_context_iteration(context, TRUE);
    g_source_destroy(timer);
    g_source_unref(timer);
    g_main_context_unref(context);
    return condition();
}

} // namespace Testing
} // namespace Zelmar
