#include "base/Assert.h"

#include <cstdlib>

namespace Zelmar {
namespace Tools {

void reportFailedAssertion(char const* file, int line, char const* function, char const* expression)
{
    g_assertion_message_expr(c_logDomain, file, line, function, expression);
    // GLib aborts above unless a test harness asked it not to; a broken invariant must never continue.
    abort();
}

void reportFailedComparison(char const* file, int line, char const* function, char const* expression,
                            unsigned long long a, char const* comparison, unsigned long long b)
{
    g_assertion_message_cmpnum(c_logDomain, file, line, function, expression, static_cast<long double>(a),
                               comparison, static_cast<long double>(b), 'i');
    abort();
}

} // namespace Tools
} // namespace Zelmar
