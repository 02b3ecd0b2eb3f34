#pragma once

#include <string>

namespace Zelmar {
namespace Host {

// Where the configs shipped with the tool are: the source tree's for a tool run from its build
// directory, the installed ones otherwise; the other place is the fallback.
class BundledConfigs
{
public:
    static std::string directory();
    static std::string defaultConfig() { return directory() + "/default.xml"; }
};

} // namespace Host
} // namespace Zelmar
