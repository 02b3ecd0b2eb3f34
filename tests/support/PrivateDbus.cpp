#include "tests/support/PrivateDbus.h"

#include <csignal>
#include <gtest/gtest.h>
#include <stdexcept>
#include <sys/prctl.h>

namespace Zelmar {
namespace Testing {

char const* const c_noBusAddress = "unix:path=/dev/null/no-bus-in-tests";

namespace {

std::runtime_error takeError(std::string const& what, GError* error)
{
    std::runtime_error failure(what + ": " + (error ? error->message : "unknown error"));
    g_clear_error(&error);
    return failure;
}

// Set before any test runs, so suites that never start a bus (and construct a HardwaredClient through
// a Chain) neither wait for nor touch the machine's buses, whatever order the suites run in.
class NoMachineBuses : public ::testing::Environment
{
public:
    void SetUp() override
    {
        g_setenv("DBUS_SYSTEM_BUS_ADDRESS", c_noBusAddress, TRUE);
        g_setenv("DBUS_SESSION_BUS_ADDRESS", c_noBusAddress, TRUE);
    }
};

::testing::Environment* const s_noMachineBuses = ::testing::AddGlobalTestEnvironment(new NoMachineBuses);

} // namespace

PrivateDbus::PrivateDbus(std::string const& configFile)
{
    // Its stderr is kept for the error report only: as root it warns about fd limits on every start.
    GSubprocessLauncher* launcher = g_subprocess_launcher_new(
        GSubprocessFlags(G_SUBPROCESS_FLAGS_STDOUT_PIPE | G_SUBPROCESS_FLAGS_STDERR_PIPE));
    // Should the test process crash, the kernel ends the daemon too.
    g_subprocess_launcher_set_child_setup(
        launcher, [](gpointer) { prctl(PR_SET_PDEATHSIG, SIGKILL); }, nullptr, nullptr);
    std::string const configOption = "--config-file=" + configFile;
    GError* error = nullptr;
    m_daemon = g_subprocess_launcher_spawn(launcher, &error, "dbus-daemon", configOption.c_str(), "--nofork",
                                           "--print-address", nullptr);
    g_object_unref(launcher);
    if (!m_daemon)
        throw takeError("cannot start dbus-daemon", error);

    // The daemon prints its address once it listens; end of output means it gave up.
    GDataInputStream* output = g_data_input_stream_new(g_subprocess_get_stdout_pipe(m_daemon));
    gchar* line = g_data_input_stream_read_line(output, nullptr, nullptr, &error);
    g_object_unref(output);
    if (line)
        m_address = line;
    g_free(line);
    if (m_address.empty()) {
        g_clear_error(&error);
        g_subprocess_force_exit(m_daemon);
        g_subprocess_wait(m_daemon, nullptr, nullptr);
        char complaint[1024] = {};
        gsize length = 0;
        g_input_stream_read_all(g_subprocess_get_stderr_pipe(m_daemon), complaint, sizeof complaint - 1,
                                &length, nullptr, nullptr);
        std::string const why(complaint, length);
        g_object_unref(m_daemon);
        throw std::runtime_error("dbus-daemon with config " + configFile + " did not start: " + why);
    }
}

PrivateDbus::~PrivateDbus()
{
    g_subprocess_send_signal(m_daemon, SIGTERM);
    g_subprocess_wait(m_daemon, nullptr, nullptr);
    g_object_unref(m_daemon);
}

GDBusConnection* PrivateDbus::connect() const
{
    GError* error = nullptr;
    GDBusConnection* connection = g_dbus_connection_new_for_address_sync(
        m_address.c_str(),
        GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                             G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error);
    if (!connection)
        throw takeError("cannot connect to the private bus " + m_address, error);
    return connection;
}

std::string PrivateDbus::getDefaultConfigFile()
{
    return std::string(PROJECT_SOURCE_DIR) + "/tests/data/private-bus.conf";
}

} // namespace Testing
} // namespace Zelmar
