#include "tools/ResponseCsv.h"

#include "tools/PendingFile.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <glib.h>
#include <unistd.h>

namespace Zelmar {
namespace Host {

namespace {

void append(std::string& line, char const* format, double value)
{
    char text[G_ASCII_DTOSTR_BUF_SIZE];
    g_ascii_formatd(text, sizeof text, format, value);
    // A value that rounds to zero reads 0, whichever side of it it lies.
    bool const negativeZero = text[0] == '-' && std::strspn(text + 1, "0.") == std::strlen(text + 1);
    line += negativeZero ? text + 1 : text;
}

double decibels(std::complex<double> gain)
{
    return 20.0 * std::log10(std::abs(gain));
}

// From -180 exclusive to 180 inclusive.
double degrees(std::complex<double> gain)
{
    if (gain == 0.0)
        return NAN;
    double const value = std::arg(gain) * 180.0 / M_PI;
    return value <= -180.0 ? value + 360.0 : value;
}

} // namespace

std::string ResponseCsv::format(std::vector<ResponseMeasurement::Point> const& points)
{
    std::string text = "frequency_hz";
    size_t const channels = points.empty() ? 0 : points.front().gains.size();
    for (size_t c = 0; c < channels; ++c)
        text += ",out" + std::to_string(c) + "_db,out" + std::to_string(c) + "_phase_deg";
    text += '\n';
    for (auto const& point : points) {
        append(text, "%.2f", point.frequency);
        for (auto const& gain : point.gains) {
            append(text += ',', "%.4f", decibels(gain));
            append(text += ',', "%.3f", degrees(gain));
        }
        text += '\n';
    }
    return text;
}

void ResponseCsv::write(std::vector<ResponseMeasurement::Point> const& points, std::string const& path)
{
    PendingFile file(path);
    int const fd = file.takeDescriptor();
    FILE* stream = fdopen(fd, "w");
    if (!stream) {
        close(fd);
        file.fail(std::strerror(errno));
    }
    bool const written = std::fputs(format(points).c_str(), stream) >= 0;
    if (std::fclose(stream) != 0 || !written)
        file.fail(std::strerror(errno));
    file.commit();
}

} // namespace Host
} // namespace Zelmar
