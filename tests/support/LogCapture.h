#pragma once

#include "base/Tracer.h"

#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace Zelmar {
namespace Testing {

// Collects the log entries of any thread while it exists, down to the given level, each as the line
// "<level> <message>", so that a check covers level and text at once.
class LogCapture
{
public:
    explicit LogCapture(int minLevel = Tools::Tracer::get().getMinLevel())
        : m_previousMinLevel(Tools::Tracer::get().getMinLevel()),
          m_connection(Tools::Tracer::get().addSink([this](Tools::LogBufferEntry const& entry) {
              std::lock_guard<std::mutex> lock(m_mutex);
              m_lines.push_back(std::to_string(entry.level) + " " + entry.message.str());
          }))
    {
        Tools::Tracer::get().setMinLevel(minLevel);
    }
    ~LogCapture() { Tools::Tracer::get().setMinLevel(m_previousMinLevel); }
    LogCapture(LogCapture const&) = delete;
    LogCapture& operator=(LogCapture const&) = delete;

    std::vector<std::string> lines()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_lines;
    }

    // How many lines begin with `start`.
    long count(std::string const& start)
    {
        long n = 0;
        for (auto const& line : lines())
            n += line.rfind(start, 0) == 0;
        return n;
    }

    void clear()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_lines.clear();
    }

    // For lines that worker threads write.
    bool waitForLines(std::size_t count)
    {
        for (int i = 0; i < 5000 && lines().size() < count; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return lines().size() >= count;
    }

private:
    int const m_previousMinLevel;
    std::mutex m_mutex;
    std::vector<std::string> m_lines;
    Tools::Connection m_connection;
};

} // namespace Testing
} // namespace Zelmar
