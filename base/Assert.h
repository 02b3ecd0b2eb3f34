#pragma once

#include "dsp/Export.h"

#include <glib.h>

namespace Zelmar {
namespace Tools {

// Every broken invariant in the library is reported in this log domain and aborts.
constexpr char const* c_logDomain = "OrvandelDSP";

[[noreturn]] ORVANDELDSP_EXPORT void reportFailedAssertion(char const* file, int line, char const* function,
                                                           char const* expression);
[[noreturn]] ORVANDELDSP_EXPORT void reportFailedComparison(char const* file, int line, char const* function,
                                                            char const* expression, unsigned long long a,
                                                            char const* comparison, unsigned long long b);

} // namespace Tools
} // namespace Zelmar

// Reports the expression text, source file and function through GLib's assertion machinery, then aborts.
#define ZELMAR_ASSERT(expr)                                                                                  \
    do {                                                                                                     \
        if (G_LIKELY(expr)) {                                                                                \
        } else {                                                                                             \
            ::Zelmar::Tools::reportFailedAssertion(__FILE__, __LINE__, __PRETTY_FUNCTION__, #expr);          \
        }                                                                                                    \
    } while (0)

// Marks code that no valid input can reach ("code should not be reached").
#define ZELMAR_UNREACHABLE()                                                                                 \
    ::Zelmar::Tools::reportFailedAssertion(__FILE__, __LINE__, __PRETTY_FUNCTION__, nullptr)

// Like ZELMAR_ASSERT for two unsigned numbers, and the report also shows both values.
#define ZELMAR_ASSERT_CMPUINT(a, cmp, b)                                                                     \
    do {                                                                                                     \
        unsigned long long const zelmarA = (a);                                                              \
        unsigned long long const zelmarB = (b);                                                              \
        if (G_LIKELY(zelmarA cmp zelmarB)) {                                                                 \
        } else {                                                                                             \
            ::Zelmar::Tools::reportFailedComparison(__FILE__, __LINE__, __PRETTY_FUNCTION__,                 \
                                                    #a " " #cmp " " #b, zelmarA, #cmp, zelmarB);             \
        }                                                                                                    \
    } while (0)
