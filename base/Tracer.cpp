#include "base/Tracer.h"

#include <cerrno>
#include <cstdlib>
#include <glib.h>

namespace Zelmar {
namespace Tools {

namespace {

// ORVANDELDSP_TRACE_LEVEL lets a developer see more (or less) without rebuilding.
int initialMinLevel()
{
    char const* configured = g_getenv("ORVANDELDSP_TRACE_LEVEL");
    if (configured && g_ascii_isdigit(configured[0]))
        return static_cast<int>(strtol(configured, nullptr, 10));
    return Tracer::Info;
}

} // namespace

Tracer::Tracer() : m_minLevel(initialMinLevel()) {}

Tracer& Tracer::get()
{
    static Tracer instance;
    return instance;
}

String const& Tracer::getProcessName()
{
    static String const name = g_get_prgname() ? String(g_get_prgname()) : String(program_invocation_short_name);
    return name;
}

Connection Tracer::addSink(std::function<void(LogBufferEntry const&)> sink)
{
    return m_sinks.connect(std::move(sink));
}

void Tracer::emit(LogBufferEntry const& entry)
{
    if (m_sinks.getNumConnections() == 0) {
        g_printerr("%s [%d] %s\n", entry.component.c_str(), entry.level, entry.message.c_str());
        return;
    }
    m_sinks(entry);
}

} // namespace Tools
} // namespace Zelmar
