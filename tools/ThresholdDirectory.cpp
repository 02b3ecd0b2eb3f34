#include "tools/ThresholdDirectory.h"

#include "dsp/SignalDetector.h"
#include "tools/ToolError.h"

#include <glib.h>
#include <glib/gstdio.h>

namespace Zelmar {
namespace Host {

ThresholdDirectory::ThresholdDirectory(std::string const& given)
{
    if (given.empty()) {
        gchar* made = g_dir_make_tmp("orvandeldsp-detect-XXXXXX", nullptr);
        if (!made)
            throw ToolError(ToolError::c_ioFailure, "cannot make a directory for the detector's threshold");
        m_temporary = made;
        g_free(made);
    }
    std::string const directory = given.empty() ? m_temporary : given;
    SignalDetector::setDefaultThresholdDirectory(directory + G_DIR_SEPARATOR_S);
}

ThresholdDirectory::~ThresholdDirectory()
{
    if (m_temporary.empty())
        return;
    if (GDir* dir = g_dir_open(m_temporary.c_str(), 0, nullptr)) {
        while (char const* name = g_dir_read_name(dir))
            g_remove((m_temporary + G_DIR_SEPARATOR_S + name).c_str());
        g_dir_close(dir);
    }
    g_rmdir(m_temporary.c_str());
}

} // namespace Host
} // namespace Zelmar
