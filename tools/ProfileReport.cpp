#include "tools/ProfileReport.h"

#include "base/PrintableText.h"
#include "dsp/Chain.h"

#include <algorithm>
#include <cstdio>

namespace Zelmar {
namespace Host {

namespace {

std::string format(std::string const& pattern, std::string const& id, int idWidth, std::string const& type,
                   int typeWidth, double nsPerFrame, double percent)
{
    char line[512];
    std::snprintf(line, sizeof line, pattern.c_str(), idWidth, id.c_str(), typeWidth, type.c_str(),
                  nsPerFrame, percent);
    return line;
}

double perFrame(uint64_t nanoseconds, uint64_t frames)
{
    return frames ? double(nanoseconds) / double(frames) : 0.0;
}

double percentOf(uint64_t part, uint64_t whole)
{
    return whole ? 100.0 * double(part) / double(whole) : 0.0;
}

} // namespace

std::string profileReport(Chain const& chain, uint64_t frames, uint64_t wallNanoseconds,
                          std::string const& hostDoes)
{
    auto const times = chain.getProfile();
    if (times.empty())
        return {};
    uint64_t chainNanoseconds = 0;
    int idWidth = 4, typeWidth = 0;
    for (auto const& time : times) {
        chainNanoseconds += time.nanoseconds;
        idWidth = std::max(idWidth, int(Tools::printableLine(time.module->getID().str()).size()));
        typeWidth = std::max(typeWidth, int(time.module->getType().str().size()));
    }
    std::string report;
    for (auto const& time : times)
        report += format(time.fused ? "orvandeldsp profile: %-*s %-*s %9.2f ns/frame %5.1f %% of the chain "
                                      "(fused cascade, its time shared evenly)\n"
                                    : "orvandeldsp profile: %-*s %-*s %9.2f ns/frame %5.1f %% of the chain\n",
                         Tools::printableLine(time.module->getID().str()), idWidth,
                         time.module->getType().str(), typeWidth, perFrame(time.nanoseconds, frames),
                         percentOf(time.nanoseconds, chainNanoseconds));
    // The clock is read between modules only, so the chain cannot have taken longer than the run.
    uint64_t const wall = std::max(wallNanoseconds, chainNanoseconds);
    report += format("orvandeldsp profile: %-*s %-*s %9.2f ns/frame %5.1f %% of the run\n", "chain", idWidth,
                     "", typeWidth, perFrame(chainNanoseconds, frames), percentOf(chainNanoseconds, wall));
    report += format("orvandeldsp profile: %-*s %-*s %9.2f ns/frame %5.1f %% of the run (" + hostDoes + ")\n",
                     "host", idWidth, "", typeWidth, perFrame(wall - chainNanoseconds, frames),
                     percentOf(wall - chainNanoseconds, wall));
    return report;
}

} // namespace Host
} // namespace Zelmar
