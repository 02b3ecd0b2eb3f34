#pragma once

#include "base/Signal.h"
#include "base/String.h"

#include <atomic>
#include <sstream>

namespace Zelmar {
namespace Tools {

struct LogBufferEntry
{
    int level;
    String component;
    String message;
};

// Process-wide logger. Entries below the minimum level are dropped before any piece is formatted.
class Tracer
{
public:
    enum Level : int
    {
        Debug = 1,
        Info = 2,   // measurements and default notices
        Notice = 3, // state changes
        Error = 4,  // errors and failed writes
        Critical = 5,
        Alert = 6 // devices that cannot be opened
    };

    static Tracer& get();
    static String const& getProcessName();

    void setMinLevel(int level) { m_minLevel.store(level); }
    int getMinLevel() const { return m_minLevel.load(); }
    bool isEnabled(int level) const { return level >= m_minLevel.load(); }

    // Pieces are written as a stream writes them and joined by single spaces.
    template <class... Pieces> void log(int level, Pieces const&... pieces)
    {
        if (!isEnabled(level))
            return;
        std::ostringstream text;
        char const* separator = "";
        ((text << separator << pieces, separator = " "), ...);
        emit(LogBufferEntry{level, getProcessName(), String(text.str())});
    }

    // Every emitted entry goes to the sinks; with no sink connected it is written to the log.
    Connection addSink(std::function<void(LogBufferEntry const&)> sink);

    // Through GLib's structured logging in the domain "OrvandelDSP", with the entry's syslog priority,
    // so that a service's entries reach the journal with their level and a host's log writer can sort
    // them. Level 1 is a GLib debug line, 2 and 3 are messages, 4 and above warnings (none fatal).
    static void writeToLog(LogBufferEntry const& entry);

private:
    Tracer();
    void emit(LogBufferEntry const& entry);

    std::atomic<int> m_minLevel;
    Signal<void(LogBufferEntry const&)> m_sinks;
};

template <class... Pieces> void trace(int level, Pieces const&... pieces)
{
    Tracer::get().log(level, pieces...);
}

} // namespace Tools
} // namespace Zelmar
