#pragma once

#include <string>

namespace Zelmar {
namespace Host {

// Where the tool finds the configs and sounds shipped with it: in the source and build trees when it
// runs from its build directory, else in the data folder beside the installed program (found from
// the program's own place, so an install moved to another prefix still finds them), else where the
// build meant to install them.
class ToolData
{
public:
    static std::string configsDirectory();
    static std::string defaultConfig() { return configsDirectory() + "/default.xml"; }
    // ORVANDELDSP_SOUNDS_DIR when it is set: the variable belongs to the tool, never to the library.
    static std::string soundsDirectory();
};

} // namespace Host
} // namespace Zelmar
