#pragma once

// The built tool running in the background, and its `live` command on the tests' own sound card
// (tests/alsa/TestPcmPlugin.c): what its playback device recorded, and runs served on a private bus
// that go on until the test ends them.
#include "tests/support/PrivateDbus.h"
#include "tests/support/ScopedVariable.h"
#include "tests/support/ToolRun.h"

#include <algorithm>
#include <alsa/asoundlib.h>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <memory>
#include <poll.h>
#include <thread>
#include <unistd.h>

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
        close(m_out);
        if (m_err >= 0)
            close(m_err);
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

constexpr unsigned int c_liveRate = 48000;
constexpr size_t c_livePeriod = 1024;
// A served run's playback buffer: eight periods, primed with silence before the first one.
constexpr size_t c_servedBuffer = 8 * c_livePeriod;
// The output stage fades over a tenth of a second, arriving within a few frames of it.
constexpr size_t c_fadeFrames = c_liveRate / 10;
constexpr size_t c_fadeLate = 10;
// The test card's capture without a file: a square wave at a quarter of full scale, in S32_LE.
constexpr int32_t c_squareLevel = 0x20000000;
inline std::string const c_servingLine = "orvandeldsp: serving com.orvandeldsp.Chain on the session bus";

// Polls until `done` holds; false when it still does not after a bound no healthy run comes near.
inline bool waitFor(std::function<bool()> const& done)
{
    for (auto const end = Clock::now() + std::chrono::seconds(30); !done();) {
        if (Clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

// Raw samples of a format to left-justified 32-bit words.
inline std::vector<int32_t> decode(std::string const& raw, snd_pcm_format_t format)
{
    auto const width = size_t(snd_pcm_format_physical_width(format) / 8);
    std::vector<int32_t> words;
    for (size_t i = 0; i + width <= raw.size(); i += width) {
        uint32_t value = 0;
        for (size_t b = 0; b < width; ++b)
            value |= uint32_t(uint8_t(raw[i + b])) << (8 * b);
        words.push_back(int32_t(value << (32 - snd_pcm_format_width(format))));
    }
    return words;
}

// One channel's level (of two), frame by frame.
inline std::vector<int32_t> levelsOf(std::vector<int32_t> const& played, size_t channel = 0)
{
    std::vector<int32_t> levels;
    for (size_t i = channel; i < played.size(); i += 2)
        levels.push_back(std::abs(played[i]));
    return levels;
}

// Where sound starts after silence.
inline std::vector<size_t> soundStarts(std::vector<int32_t> const& levels, size_t silence = 1)
{
    std::vector<size_t> starts;
    size_t quiet = silence;
    for (size_t f = 0; f < levels.size(); ++f) {
        if (levels[f] != 0 && quiet >= silence)
            starts.push_back(f);
        quiet = levels[f] == 0 ? quiet + 1 : 0;
    }
    return starts;
}

// A scratch directory, the test card's configuration, the playback recorded into out.raw, and live runs
// served on a private bus, which the clients reach as the session bus.
class ServedLiveTest : public ToolTest
{
protected:
    std::vector<int32_t> played(snd_pcm_format_t format = SND_PCM_FORMAT_S32_LE) const
    {
        return decode(m_scratch.read("out.raw"), format);
    }
    size_t recordedFrames() const
    {
        GStatBuf status{};
        return g_stat(m_out.c_str(), &status) == 0 ? size_t(status.st_size) / 8 : 0;
    }
    bool waitUntilPlayed(int32_t level, size_t channel = 0) const
    {
        return waitFor([&] {
            auto const levels = levelsOf(played(), channel);
            return std::find(levels.begin(), levels.end(), level) != levels.end();
        });
    }

    // At real-time priority unless `more` says otherwise, so that a loaded machine does not make the
    // wall-clock paced devices xrun; the playback is recorded unless another device is named.
    std::unique_ptr<BackgroundTool> serve(std::string const& config, std::string const& capture = "livetest",
                                          std::vector<std::string> const& more = {}, bool readErrors = false)
    {
        std::vector<std::string> args{"live", "--bus", "session", "-c", config, "--periods", "8"};
        args.insert(args.end(), {"--capture", capture, "--playback", "livetest:RECORD=" + m_out});
        args.insert(args.end(), more.begin(), more.end());
        auto run = std::make_unique<BackgroundTool>(args, m_bus.getAddress(), readErrors);
        EXPECT_EQ(run->readLine(std::chrono::seconds(30)), c_servingLine);
        return run;
    }
    static ToolResult client(std::vector<std::string> args)
    {
        args.insert(args.begin() + 1, {"--bus", "session"});
        return runTool(args);
    }

    ScopedVariable m_alsa{"ALSA_CONFIG_PATH", ALSA_TEST_CONFIG_DIR "/live-pcm.conf"};
    std::string const m_out = path("out.raw");
    PrivateDbus m_bus;
    ScopedBusAddress m_session{"DBUS_SESSION_BUS_ADDRESS", m_bus.getAddress()};
};

} // namespace Testing
} // namespace Zelmar
