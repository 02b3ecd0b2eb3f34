#include "base/PrintableText.h"

#include <cstdio>
#include <glib.h>

namespace Zelmar {
namespace Tools {

std::string printableLine(std::string const& text)
{
    gchar* const valid = g_utf8_make_valid(text.c_str(), gssize(text.size()));
    std::string line;
    for (char const* c = valid; *c; ++c) {
        auto const byte = static_cast<unsigned char>(*c);
        if (byte == '\n') {
            line += "\\n";
        } else if (byte == '\t') {
            line += "\\t";
        } else if (byte < 0x20 || byte == 0x7F) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02x", byte);
            line += escaped;
        } else {
            line += *c;
        }
    }
    g_free(valid);
    return line;
}

} // namespace Tools
} // namespace Zelmar
