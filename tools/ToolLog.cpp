#include "tools/ToolLog.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <glib.h>
#include <string>

namespace Zelmar {
namespace Host {

namespace {

// Syslog's numbers: warnings are 4, errors and worse below.
constexpr int c_warningPriority = 4;

std::atomic<bool> s_verbose{false};

int priorityOfLevel(GLogLevelFlags level)
{
    if (level & (G_LOG_LEVEL_ERROR | G_LOG_LEVEL_CRITICAL))
        return 3;
    if (level & G_LOG_LEVEL_WARNING)
        return c_warningPriority;
    if (level & G_LOG_LEVEL_MESSAGE)
        return 5;
    return level & G_LOG_LEVEL_INFO ? 6 : 7;
}

std::string fieldText(GLogField const& field)
{
    auto const* text = static_cast<char const*>(field.value);
    return field.length < 0 ? std::string(text) : std::string(text, size_t(field.length));
}

GLogWriterOutput write(GLogLevelFlags level, GLogField const* fields, gsize numFields, gpointer)
{
    int priority = priorityOfLevel(level);
    std::string message;
    for (gsize i = 0; i < numFields; ++i) {
        if (std::strcmp(fields[i].key, "PRIORITY") == 0)
            priority = std::atoi(fieldText(fields[i]).c_str());
        else if (std::strcmp(fields[i].key, "MESSAGE") == 0)
            message = fieldText(fields[i]);
    }
    if (priority > c_warningPriority && !s_verbose.load())
        return G_LOG_WRITER_HANDLED;
    if (g_log_writer_is_journald(fileno(stderr)) &&
        g_log_writer_journald(level, fields, numFields, nullptr) == G_LOG_WRITER_HANDLED)
        return G_LOG_WRITER_HANDLED;
    char const* const kind = priority < c_warningPriority    ? "error: "
                             : priority == c_warningPriority ? "warning: "
                                                             : "";
    std::fprintf(stderr, "orvandeldsp: %s%s\n", kind, message.c_str());
    return G_LOG_WRITER_HANDLED;
}

} // namespace

void ToolLog::install()
{
    g_log_set_writer_func(write, nullptr, nullptr);
}

void ToolLog::setVerbose(bool verbose)
{
    s_verbose.store(verbose);
}

void ToolLog::warn(std::string const& message)
{
    std::fprintf(stderr, "orvandeldsp: warning: %s\n", message.c_str());
}

} // namespace Host
} // namespace Zelmar
