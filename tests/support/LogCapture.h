#pragma once

#include "base/Tracer.h"

#include <algorithm>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace Zelmar {
namespace Testing {

// Collects the log entries of any thread while it exists, down to the given level.
class LogCapture
{
public:
    explicit LogCapture(int minLevel = Tools::Tracer::get().getMinLevel())
        : m_previousMinLevel(Tools::Tracer::get().getMinLevel()),
          m_connection(Tools::Tracer::get().addSink([this](Tools::LogBufferEntry const& entry) {
              std::lock_guard<std::mutex> lock(m_mutex);
              m_entries.push_back({entry.level, entry.message.str()});
          }))
    {
        Tools::Tracer::get().setMinLevel(minLevel);
    }
    ~LogCapture() { Tools::Tracer::get().setMinLevel(m_previousMinLevel); }
    LogCapture(LogCapture const&) = delete;
    LogCapture& operator=(LogCapture const&) = delete;

    std::vector<std::string> messages() { return messagesAt(c_anyLevel); }

    std::vector<std::string> messagesAt(int level)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<std::string> messages;
        for (auto const& entry : m_entries)
            if (level == c_anyLevel || entry.level == level)
                messages.push_back(entry.message);
        return messages;
    }

    // Every entry as "<level> <message>", for checks of level and text at once.
    std::vector<std::string> leveled()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<std::string> texts;
        for (auto const& entry : m_entries)
            texts.push_back(std::to_string(entry.level) + " " + entry.message);
        return texts;
    }

    // How many entries (at `level`, unless any) begin with `start`.
    std::size_t countStarting(std::string const& start, int level = c_anyLevel)
    {
        auto const all = messagesAt(level);
        return std::size_t(std::count_if(all.begin(), all.end(),
                                         [&](std::string const& m) { return m.rfind(start, 0) == 0; }));
    }
    bool containsStart(std::string const& start, int level = c_anyLevel)
    {
        return countStarting(start, level) > 0;
    }

    bool contains(std::string const& message)
    {
        auto const all = messages();
        return std::find(all.begin(), all.end(), message) != all.end();
    }

    void clear()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_entries.clear();
    }

    // For entries that worker threads write.
    bool waitForMessages(std::size_t count)
    {
        for (int i = 0; i < 5000 && messages().size() < count; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return messages().size() >= count;
    }

    static constexpr int c_anyLevel = -1;

private:
    struct Entry
    {
        int level;
        std::string message;
    };

    int const m_previousMinLevel;
    std::mutex m_mutex;
    std::vector<Entry> m_entries;
    Tools::Connection m_connection;
};

} // namespace Testing
} // namespace Zelmar
