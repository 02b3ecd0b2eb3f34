#pragma once

#include <chrono>
#include <functional>
#include <glib.h>

namespace Zelmar {
namespace Testing {

// Iterates the thread's default main context until condition() holds or the timeout passes; returns
// condition().
bool runMainLoopUntil(std::function<bool()> const& condition,
                      std::chrono::milliseconds timeout = std::chrono::seconds(5));

// Runs what the thread's default main context has ready, without waiting.
inline void runPendingMainLoopJobs()
{
    GMainContext* context = g_main_context_ref_thread_default();
    while (g_main_context_iteration(context, FALSE)) {
    }
    g_main_context_unref(context);
}

} // namespace Testing
} // namespace Zelmar
