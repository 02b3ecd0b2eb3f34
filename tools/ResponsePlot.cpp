#include "tools/ResponsePlot.h"

#include "tools/PendingFile.h"
#include "tools/ResponseCsv.h"
#include "tools/ToolError.h"

#include <gio/gio.h>
#include <glib/gstdio.h>
#include <map>
#include <unistd.h>

namespace Zelmar {
namespace Host {

namespace {

// Cairo's terminals draw smoother lines than gnuplot's own png; text is taken as it is (noenhanced),
// so that an underscore in a file name stays one.
std::map<std::string, std::string> const c_terminals = {
    {"svg", "svg size 960,720 dynamic noenhanced font 'sans,11' background rgb 'white'"},
    {"png", "pngcairo size 960,720 noenhanced font 'sans,10'"},
    {"pdf", "pdfcairo size 10in,7.5in noenhanced font 'sans,10'"}};

// A gnuplot string in single quotes, where only the quote itself needs escaping (by doubling).
std::string quoted(std::string const& text)
{
    std::string result = "'";
    for (char c : text)
        result += c == '\'' ? std::string("''") : std::string(1, c);
    return result + "'";
}

// gnuplot's complaint without its echo of the script line: the last line that says something.
std::string lastLine(std::string text)
{
    while (!text.empty() && g_ascii_isspace(text.back()))
        text.pop_back();
    auto const start = text.rfind('\n');
    text = start == std::string::npos ? text : text.substr(start + 1);
    auto const first = text.find_first_not_of(' ');
    return first == std::string::npos ? "gnuplot failed" : text.substr(first);
}

ToolError plotError(std::string const& output, std::string const& problem)
{
    return ToolError(ToolError::c_ioFailure, "cannot draw plot " + output + ": " + problem);
}

// A temporary file holding a script, removed with this object.
class ScriptFile
{
public:
    ScriptFile(std::string const& text, std::string const& output)
    {
        GError* error = nullptr;
        gchar* path = nullptr;
        int const fd = g_file_open_tmp("orvandeldsp-response-XXXXXX.gp", &path, &error);
        if (fd >= 0) {
            close(fd);
            m_path = path;
            g_free(path);
            g_file_set_contents(m_path.c_str(), text.data(), gssize(text.size()), &error);
        }
        if (error) {
            std::string const problem = error->message;
            g_error_free(error);
            if (!m_path.empty())
                g_unlink(m_path.c_str());
            throw plotError(output, problem);
        }
    }
    ~ScriptFile()
    {
        if (!m_path.empty())
            g_unlink(m_path.c_str());
    }
    ScriptFile(ScriptFile const&) = delete;
    ScriptFile& operator=(ScriptFile const&) = delete;

    std::string const& getPath() const { return m_path; }

private:
    std::string m_path;
};

} // namespace

std::string ResponsePlot::script(std::vector<ResponseMeasurement::Point> const& points,
                                 std::string const& title, std::string const& format)
{
    std::string const lastChannel = std::to_string(int(points.front().gains.size()) - 1);
    return "set terminal " + c_terminals.at(format) + "\n" +
           "set datafile separator comma\n"
           "$response << EOD\n" +
           ResponseCsv::format(points) +
           "EOD\n"
           "set multiplot layout 2,1 title " +
           quoted(title) +
           "\n"
           "set logscale x\n"
           "set autoscale xfix\n"
           "set grid xtics mxtics ytics\n"
           "set key outside right top\n"
           "set ylabel 'gain (dB)'\n"
           "plot for [c=0:" +
           lastChannel +
           "] $response using 1:(column(2 + 2 * c)) with lines "
           // Later channels are drawn thinner, so that equal curves do not hide each other.
           "linewidth (c == 0 ? 3 : 1.5) title sprintf('out%d', c)\n"
           "set ylabel 'phase (degrees)'\n"
           "set xlabel 'frequency (Hz)'\n"
           "set yrange [-180:180]\n"
           "set ytics 90\n"
           // Wrapped phase jumps from -180 to 180; points show that without a line across the panel.
           "plot for [c=0:" +
           lastChannel +
           "] $response using 1:(column(3 + 2 * c)) with points pointtype 7 "
           "pointsize (c == 0 ? 0.6 : 0.3) "
           "title sprintf('out%d', c)\n"
           "unset multiplot\n";
}

void ResponsePlot::draw(std::vector<ResponseMeasurement::Point> const& points, std::string const& title,
                        std::string const& format, std::string const& output)
{
    // The script goes as a file: gnuplot may stop reading a pipe at its first complaint.
    ScriptFile const scriptFile(script(points, title, format), output);
    PendingFile picture(output);
    GSubprocessLauncher* launcher = g_subprocess_launcher_new(G_SUBPROCESS_FLAGS_STDERR_PIPE);
    // gnuplot draws to its standard output when told no file, here straight into the pending picture.
    g_subprocess_launcher_take_stdout_fd(launcher, picture.takeDescriptor());
    GError* error = nullptr;
    GSubprocess* gnuplot =
        g_subprocess_launcher_spawn(launcher, &error, "gnuplot", scriptFile.getPath().c_str(), nullptr);
    g_object_unref(launcher);
    if (!gnuplot) {
        bool const missing = g_error_matches(error, G_SPAWN_ERROR, G_SPAWN_ERROR_NOENT);
        std::string const problem =
            missing ? "gnuplot is not installed (Debian package gnuplot-nox)" : std::string(error->message);
        g_error_free(error);
        throw plotError(output, problem);
    }

    gchar* complaints = nullptr;
    bool const ran = g_subprocess_communicate_utf8(gnuplot, nullptr, nullptr, nullptr, &complaints, &error);
    bool const drawn =
        ran && g_subprocess_get_if_exited(gnuplot) && g_subprocess_get_exit_status(gnuplot) == 0;
    std::string const problem = ran ? lastLine(complaints ? complaints : "") : error->message;
    g_clear_error(&error);
    g_free(complaints);
    g_object_unref(gnuplot);
    if (!drawn)
        throw plotError(output, problem);
    picture.commit();
}

} // namespace Host
} // namespace Zelmar
