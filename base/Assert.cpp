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

} // namespace Tools
} // namespace Zelmar
