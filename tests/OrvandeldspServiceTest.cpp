// The orvandeldsp-live service as cmake --install puts it in place, with the bus policies it needs:
// where systemd and the system bus look for them. InstalledPackageTest.sh verifies the unit.
#include "support/ToolRun.h"

namespace {

using namespace Zelmar::Testing;

bool isFile(std::string const& path)
{
    return g_file_test(path.c_str(), G_FILE_TEST_IS_REGULAR);
}

} // namespace

TEST(OrvandeldspServiceTest, InstallsWhereSystemdAndTheSystemBusLookForUsrAndUsrLocal)
{
    struct Case
    {
        std::string prefix;
        std::string unitDirectory;
        // The system bus reads /usr/share/dbus-1/system.d and /etc/dbus-1/system.d, not /usr/local.
        std::string policyDirectory;
    } const cases[] = {
        {"/usr", "/usr/lib/systemd/system", "/usr/share/dbus-1/system.d"},
        {"/usr/local", "/usr/local/lib/systemd/system", "/etc/dbus-1/system.d"},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.prefix);
        TemporaryDirectory destdir;
        std::string const root = destdir.path();
        auto const installed = runProgram(
            {CMAKE_COMMAND, "--install", PROJECT_BINARY_DIR, "--prefix", c.prefix}, {{"DESTDIR", root}});
        ASSERT_EQ(installed.status, 0) << installed.err;

        std::string const unit = destdir.read(c.unitDirectory + "/orvandeldsp-live.service");
        EXPECT_NE(unit.find("\nExecStart=" + c.prefix +
                            "/bin/orvandeldsp live --config /etc/orvandeldsp/live.xml "),
                  std::string::npos)
            << unit;
        // The installed tool with its sounds and configs, where the library and the tool look for them.
        std::string const data = c.prefix + "/share/orvandel-1.0";
        EXPECT_TRUE(isFile(root + c.prefix + "/bin/orvandeldsp"));
        EXPECT_TRUE(isFile(root + data + "/sounds/touch.flac"));
        EXPECT_TRUE(isFile(root + data + "/configs/live-line-in.xml"));
        for (char const* policy : {"/com.orvandeldsp.Chain.conf", "/com.orvandeldsp.Host.conf"})
            EXPECT_TRUE(isFile(root + c.policyDirectory + policy)) << policy;
        for (char const* config : {"/etc/orvandeldsp/live.xml", "/etc/orvandeldsp/live.env"})
            EXPECT_TRUE(isFile(root + config)) << config;
    }
}
