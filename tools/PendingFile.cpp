#include "tools/PendingFile.h"

#include "tools/ToolError.h"

#include <cerrno>
#include <cstring>
#include <glib.h>
#include <glib/gstdio.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Zelmar {
namespace Host {

PendingFile::PendingFile(std::string const& path) : m_path(path), m_temporaryPath(path + ".XXXXXX")
{
    m_fd = g_mkstemp(&m_temporaryPath[0]);
    if (m_fd < 0) {
        m_temporaryPath.clear();
        fail(std::strerror(errno));
    }
    // mkstemp makes the file private; a result file gets the permissions any new file would get.
    mode_t const mask = umask(0);
    umask(mask);
    fchmod(m_fd, 0666 & ~mask);
}

PendingFile::~PendingFile()
{
    if (m_fd >= 0)
        close(m_fd);
    if (!m_committed && !m_temporaryPath.empty())
        g_unlink(m_temporaryPath.c_str());
}

int PendingFile::takeDescriptor()
{
    int const fd = m_fd;
    m_fd = -1;
    return fd;
}

void PendingFile::commit()
{
    if (g_rename(m_temporaryPath.c_str(), m_path.c_str()) != 0)
        fail(std::strerror(errno));
    m_committed = true;
}

void PendingFile::fail(std::string const& what) const
{
    throw ToolError(ToolError::c_ioFailure, "cannot write output " + m_path + ": " + what);
}

} // namespace Host
} // namespace Zelmar
