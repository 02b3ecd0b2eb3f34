#pragma once

#include <glib.h>
#include <string>

namespace Zelmar {
namespace Testing {

// Sets an environment variable (or, given nullptr, removes it) for its lifetime, then restores it.
class ScopedVariable
{
public:
    ScopedVariable(char const* name, char const* value)
        : m_name(name), m_hadValue(g_getenv(name) != nullptr), m_previous(m_hadValue ? g_getenv(name) : "")
    {
        if (value)
            g_setenv(name, value, TRUE);
        else
            g_unsetenv(name);
    }
    ScopedVariable(char const* name, std::string const& value) : ScopedVariable(name, value.c_str()) {}
    ~ScopedVariable()
    {
        if (m_hadValue)
            g_setenv(m_name.c_str(), m_previous.c_str(), TRUE);
        else
            g_unsetenv(m_name.c_str());
    }
    ScopedVariable(ScopedVariable const&) = delete;
    ScopedVariable& operator=(ScopedVariable const&) = delete;

private:
    std::string m_name;
    bool m_hadValue;
    std::string m_previous;
};

} // namespace Testing
} // namespace Zelmar
