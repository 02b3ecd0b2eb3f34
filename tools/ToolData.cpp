#include "tools/ToolData.h"

#include <glib.h>
#include <memory>

namespace Zelmar {
namespace Host {

namespace {

using tText = std::unique_ptr<gchar, decltype(&g_free)>;

std::string programDirectory()
{
    tText const executable(g_file_read_link("/proc/self/exe", nullptr), g_free);
    if (!executable)
        return "";
    tText const directory(g_path_get_dirname(executable.get()), g_free);
    return directory.get();
}

bool runsFromBuildTree()
{
    tText const buildDirectory(g_canonicalize_filename(ORVANDELDSP_TOOL_BUILD_DIR, nullptr), g_free);
    return programDirectory() == buildDirectory.get();
}

// <data>/<folder> beside the program, or where the build meant to install it.
std::string installedFolder(char const* folder)
{
    std::string const beside = programDirectory() + "/" ORVANDELDSP_DATA_FROM_PROGRAM "/" + folder;
    if (g_file_test(beside.c_str(), G_FILE_TEST_IS_DIR)) {
        tText const canonical(g_canonicalize_filename(beside.c_str(), nullptr), g_free);
        return canonical.get();
    }
    return std::string(ORVANDELDSP_INSTALLED_DATA_DIR "/") + folder;
}

} // namespace

std::string ToolData::configsDirectory()
{
    return runsFromBuildTree() ? ORVANDELDSP_SOURCE_CONFIG_DIR : installedFolder("configs");
}

std::string ToolData::soundsDirectory()
{
    char const* const chosen = g_getenv("ORVANDELDSP_SOUNDS_DIR");
    if (chosen && *chosen)
        return chosen;
    return runsFromBuildTree() ? ORVANDELDSP_BUILD_SOUNDS_DIR : installedFolder("sounds");
}

} // namespace Host
} // namespace Zelmar
