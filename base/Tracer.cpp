#include "base/Tracer.h"

#include "base/Assert.h"

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

GLogLevelFlags glibLevel(int level)
{
    if (level <= Tracer::Debug)
        return G_LOG_LEVEL_DEBUG;
    return level < Tracer::Error ? G_LOG_LEVEL_MESSAGE : G_LOG_LEVEL_WARNING;
}

char const* syslogPriority(int level)
{
    switch (level) {
    case Tracer::Debug:
        return "7";
    case Tracer::Info:
        return "6";
    case Tracer::Notice:
        return "5";
    case Tracer::Error:
        return "3";
    case Tracer::Critical:
        return "2";
    default:
        return level < Tracer::Debug ? "7" : "1";
    }
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
    static String const name =
        g_get_prgname() ? String(g_get_prgname()) : String(program_invocation_short_name);
    return name;
}

Connection Tracer::addSink(std::function<void(LogBufferEntry const&)> sink)
{
    return m_sinks.connect(std::move(sink));
}

void Tracer::emit(LogBufferEntry const& entry)
{
    if (m_sinks.getNumConnections() == 0) {
        writeToLog(entry);
        return;
    }
    m_sinks(entry);
}

void Tracer::writeToLog(LogBufferEntry const& entry)
{
    GLogField const fields[] = {
        {"GLIB_DOMAIN", c_logDomain, -1},
        {"PRIORITY", syslogPriority(entry.level), -1},
        {"SYSLOG_IDENTIFIER", entry.component.c_str(), -1},
        {"MESSAGE", entry.message.c_str(), -1},
    };
    g_log_structured_array(glibLevel(entry.level), fields, G_N_ELEMENTS(fields));
}

} // namespace Tools
} // namespace Zelmar
