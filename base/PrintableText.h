#pragma once

#include <string>

namespace Zelmar {
namespace Tools {

// Text from a file or a caller as a message may show it: valid UTF-8 on one line, line breaks and
// other control characters written as escapes (\n, \t, \x01), invalid bytes as U+FFFD.
std::string printableLine(std::string const& text);

} // namespace Tools
} // namespace Zelmar
