#pragma once

// The built `orvandeldsp` tool running in the background, as realtime and live runs are used.
#include "tests/support/ToolRun.h"

#include <chrono>
#include <csignal>
#include <poll.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace Zelmar {
namespace Testing {

using Clock = std::chrono::steady_clock;

// Killed and reaped whatever happens to the test. It inherits the test's environment, with the session
// bus at `busAddress` and the sounds the build makes, and its stderr unless `readErrors` asks for it.
class BackgroundTool
{
public:
    BackgroundTool(std::vector<std::string> const& args, std::string const& busAddress,
                   bool readErrors = false)
    {
        std::vector<char*> argv{const_cast<char*>(ORVANDELDSP_TOOL)};
        for (auto const& arg : args)
            argv.push_back(const_cast<char*>(arg.c_str()));
        argv.push_back(nullptr);
        gchar** env = g_get_environ();
        env = g_environ_setenv(env, "DBUS_SESSION_BUS_ADDRESS", busAddress.c_str(), TRUE);
        env = g_environ_setenv(env, "ORVANDELDSP_SOUNDS_DIR", GENERATED_SOUNDS_DIR, TRUE);
        g_spawn_async_with_pipes(nullptr, argv.data(), env, G_SPAWN_DO_NOT_REAP_CHILD, nullptr, nullptr,
                                 &m_pid, nullptr, &m_out, readErrors ? &m_err : nullptr, nullptr);
        g_strfreev(env);
    }
    ~BackgroundTool()
    {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
        for (int const fd : {m_out, m_err}) {
            if (fd >= 0)
                close(fd);
        }
    }

    // The next line on its stdout (or stderr), or what came of it when none ends within the timeout.
    std::string readLine(std::chrono::milliseconds timeout) { return readLineOf(m_out, timeout); }
    std::string readErrorLine(std::chrono::milliseconds timeout) { return readLineOf(m_err, timeout); }

    void signal(int number) { kill(m_pid, number); }

    // Its exit status; -1 when it died of a signal or had to be killed after the timeout.
    int wait(std::chrono::milliseconds timeout)
    {
        auto const end = Clock::now() + timeout;
        int status = 0;
        while (waitpid(m_pid, &status, WNOHANG) == 0) {
            if (Clock::now() > end)
                return -1;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        m_pid = 0;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    static std::string readLineOf(int fd, std::chrono::milliseconds timeout)
    {
        std::string line;
        auto const end = Clock::now() + timeout;
        char c = 0;
        while (Clock::now() < end) {
            pollfd ready{fd, POLLIN, 0};
            if (poll(&ready, 1, 50) <= 0)
                continue;
            if (read(fd, &c, 1) != 1 || c == '\n')
                break;
            line += c;
        }
        return line;
    }

    GPid m_pid = 0;
    int m_out = -1;
    int m_err = -1;
};

} // namespace Testing
} // namespace Zelmar
