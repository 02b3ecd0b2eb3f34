#pragma once

#include <string>

namespace Zelmar {
namespace Host {

// The tool's writer of GLib's structured log, where the library's tracer writes: warnings and errors
// always, informational lines (a notice, "no system bus" ...) only when asked for with --verbose. Into
// the journal when stderr is one, with each entry's priority; else one "orvandeldsp: " line each.
class ToolLog
{
public:
    // Once, before anything logs.
    static void install();
    static void setVerbose(bool verbose);
    // The tool's own warnings, shown like the library's: "orvandeldsp: warning: ...".
    static void warn(std::string const& message);
};

} // namespace Host
} // namespace Zelmar
