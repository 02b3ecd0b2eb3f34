#pragma once

#include "base/Tracer.h"

#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace Zelmar {
namespace Testing {

// Collects the messages of log entries from any thread while it exists.
class LogCapture
{
public:
    LogCapture()
        : m_connection(Tools::Tracer::get().addSink([this](Tools::LogBufferEntry const& entry) {
              std::lock_guard<std::mutex> lock(m_mutex);
              m_messages.push_back(entry.message.str());
          }))
    {
    }

    std::vector<std::string> messages()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_messages;
    }

    // For entries that worker threads write.
    bool waitForMessages(std::size_t count)
    {
        for (int i = 0; i < 5000 && messages().size() < count; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return messages().size() >= count;
    }

private:
    std::mutex m_mutex;
    std::vector<std::string> m_messages;
    Tools::Connection m_connection;
};

} // namespace Testing
} // namespace Zelmar
