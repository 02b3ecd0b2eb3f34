#pragma once

#include <stdexcept>
#include <string>

namespace Zelmar {
namespace Host {

// A failure the tool reports as one line on stderr, with the exit status it ends with.
class ToolError : public std::runtime_error
{
public:
    static constexpr int c_ioFailure = 1;
    // Usage mistakes and bad configs: the user has to change the command or the file.
    static constexpr int c_badInput = 2;

    ToolError(int exitStatus, std::string const& message)
        : std::runtime_error(message), m_exitStatus(exitStatus)
    {
    }

    int getExitStatus() const { return m_exitStatus; }

private:
    int m_exitStatus;
};

} // namespace Host
} // namespace Zelmar
