#include "tools/GraphDrawing.h"

#include "base/Assert.h"
#include "dsp/ChainPrinter.h"
#include "tools/ToolError.h"

#include <cerrno>
#include <cstring>
#include <glib.h>
#include <glib/gstdio.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Zelmar {
namespace Host {

namespace {

// Keeps the printer's last complaint; its "invoking dot" notice is not news to the user.
void rememberProblem(gchar const*, GLogLevelFlags, gchar const* message, gpointer problem)
{
    if (g_str_has_prefix(message, "invoking "))
        return;
    *static_cast<std::string*>(problem) = message;
}

} // namespace

void GraphDrawing::draw(Chain const& chain, std::string const& format, std::string const& output)
{
    std::string temporary = output + ".XXXXXX";
    int const fd = g_mkstemp(&temporary[0]);
    if (fd < 0)
        throw ToolError(ToolError::c_ioFailure, "cannot write graph " + output + ": " + std::strerror(errno));
    close(fd);

    std::string problem = "dot produced no output";
    guint const handler =
        g_log_set_handler(Tools::c_logDomain, G_LOG_LEVEL_MESSAGE, rememberProblem, &problem);
    ChainPrinter::print(chain, format, temporary);
    g_log_remove_handler(Tools::c_logDomain, handler);

    GStatBuf status;
    bool const drawn = g_stat(temporary.c_str(), &status) == 0 && status.st_size > 0;
    if (!drawn || g_rename(temporary.c_str(), output.c_str()) != 0) {
        if (drawn)
            problem = std::strerror(errno);
        g_unlink(temporary.c_str());
        throw ToolError(ToolError::c_ioFailure, "cannot draw graph " + output + ": " + problem);
    }
    // The temporary file was private; a picture gets the permissions any new file would get.
    mode_t const mask = umask(0);
    umask(mask);
    g_chmod(output.c_str(), 0666 & ~mask);
}

} // namespace Host
} // namespace Zelmar
