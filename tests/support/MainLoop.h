#pragma once

#include <chrono>
#include <functional>
#include <glib.h>

namespace Zelmar {
namespace Testing {

// Iterates the default main context until condition() holds or the timeout passes; returns condition().
bool runMainLoopUntil(std::function<bool()> const& condition,
                      std::chrono::milliseconds timeout = std::chrono::seconds(5));

// Runs what the default main context has ready, without waiting.
inline void runPendingMainLoopJobs()
{
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
}

} // namespace Testing
} // namespace Zelmar
