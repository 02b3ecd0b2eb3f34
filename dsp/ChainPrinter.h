#pragma once

#include "base/String.h"

#include <glib.h>

namespace Zelmar {

class Chain;

// Draws a chain's signal flow: a Graphviz description written to a fixed file, rendered by `dot`.
// Diagnostics only: failures are logged, never thrown, and the chain is not touched.
class ChainPrinter
{
public:
    static constexpr char const* c_dotFile = "/tmp/liborvandeldsp.dot";

    // format is handed to `dot -T`; an empty output discards the rendering. The dot file can be moved
    // so that tests do not share the fixed path with a running device.
    static void print(Chain const& chain, Tools::String const& format, Tools::String const& output,
                      Tools::String const& dotFile = c_dotFile);

    // One node line per wire source (sinks keep the default style), then one edge per wire. Meant for a
    // compiled chain: before compile() a shortcut cable names no port and is refused as such.
    static Tools::String describe(Chain const& chain);

private:
    static bool render(Tools::String const& format, Tools::String const& output, Tools::String const& dotFile,
                       GError** error);
};

} // namespace Zelmar
