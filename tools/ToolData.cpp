#include "tools/BundledConfigs.h"

#include <glib.h>

namespace Zelmar {
namespace Host {

namespace {

bool runsFromBuildTree()
{
    gchar* executable = g_file_read_link("/proc/self/exe", nullptr);
    if (!executable)
        return false;
    gchar* directory = g_path_get_dirname(executable);
    gchar* canonicalBuildDir = g_canonicalize_filename(ORVANDELDSP_TOOL_BUILD_DIR, nullptr);
    bool const inBuildTree = g_strcmp0(directory, canonicalBuildDir) == 0;
    g_free(canonicalBuildDir);
    g_free(directory);
    g_free(executable);
    return inBuildTree;
}

} // namespace

std::string BundledConfigs::directory()
{
    std::string const source = ORVANDELDSP_SOURCE_CONFIG_DIR;
    std::string const installed = ORVANDELDSP_INSTALLED_CONFIG_DIR;
    bool const fromBuildTree = runsFromBuildTree();
    std::string const first = fromBuildTree ? source : installed;
    std::string const second = fromBuildTree ? installed : source;
    if (g_file_test((first + "/default.xml").c_str(), G_FILE_TEST_IS_REGULAR) ||
        !g_file_test((second + "/default.xml").c_str(), G_FILE_TEST_IS_REGULAR))
        return first;
    return second;
}

} // namespace Host
} // namespace Zelmar
