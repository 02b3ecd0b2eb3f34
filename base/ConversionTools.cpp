#include "base/ConversionTools.h"

#include <string>

namespace Zelmar {
namespace HW {
namespace ConversionTools {

namespace {

struct LegacyRouting
{
    char const* text;
    ChannelConfiguration configuration;
};

constexpr LegacyRouting c_legacyRoutings[] = {
    {"stereo", ChannelConfiguration::Stereo}, {"swapped", ChannelConfiguration::Swapped},
    {"left", ChannelConfiguration::BothLeft}, {"right", ChannelConfiguration::BothRight},
    {"mono", ChannelConfiguration::Mono},
};

Tools::String trimmed(Tools::String const& text)
{
    std::string const& s = text.str();
    std::size_t const first = s.find_first_not_of(" \t");
    if (first == std::string::npos)
        return Tools::String();
    std::size_t const last = s.find_last_not_of(" \t");
    return Tools::String(s.substr(first, last - first + 1));
}

} // namespace

ChannelConfiguration mapFromLegacyRoutingString(Tools::String const& routing)
{
    Tools::String const word = trimmed(routing);
    for (auto const& entry : c_legacyRoutings) {
        if (word.equals(entry.text, false))
            return entry.configuration;
    }
    return ChannelConfiguration::Unknown;
}

} // namespace ConversionTools
} // namespace HW
} // namespace Zelmar
