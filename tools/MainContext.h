#pragma once

#include <glib.h>

namespace Zelmar {
namespace Host {

// The library hands work to the main loop (freeing finished voices, publishing encoded frames); an
// offline run has no loop running, so it dispatches what is ready between periods.
inline void dispatchMainContext()
{
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
}

// Dispatches the main context until `done` holds or `timeoutSeconds` have passed; false on timeout.
// Work done by other threads (loading, encoding) is polled every 0.2 ms meanwhile.
template <class Condition> bool dispatchMainContextUntil(Condition done, double timeoutSeconds)
{
    gint64 const deadline = g_get_monotonic_time() + gint64(timeoutSeconds * G_USEC_PER_SEC);
    for (;;) {
        dispatchMainContext();
        if (done())
            return true;
        if (g_get_monotonic_time() >= deadline)
            return false;
        g_usleep(200);
    }
}

} // namespace Host
} // namespace Zelmar
