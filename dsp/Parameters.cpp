#include "dsp/Parameters.h"

#include <string>

namespace Zelmar {

Parameters::Parameters(std::initializer_list<std::pair<Tools::String, Tools::String>> const& entries)
{
    for (auto const& entry : entries)
        set(entry.first, entry.second);
}

Tools::String Parameters::get(Tools::String const& key) const
{
    auto const it = m_params.find(key);
    return it == m_params.end() ? Tools::String("0") : it->second;
}

Tools::String Parameters::getString(Tools::String const& key) const
{
    auto const it = m_params.find(key);
    return it == m_params.end() ? Tools::String() : it->second;
}

double Parameters::getDouble(Tools::String const& key) const
{
    Tools::String const value = getString(key);
    return value.empty() ? 0.0 : std::stod(value.str());
}

int Parameters::getInt(Tools::String const& key) const
{
    Tools::String const value = getString(key);
    return value.empty() ? 0 : std::stoi(value.str());
}

bool Parameters::getBool(Tools::String const& key) const
{
    auto const it = m_params.find(key);
    if (it == m_params.end())
        return false;
    Tools::String const& value = it->second;
    return value == "1" || value.equals("yes", false) || value.equals("true", false) || value.equals("on", false);
}

Tools::String Parameters::describe() const
{
    Tools::String text;
    for (auto const& [key, value] : m_params)
        text += Tools::String("  ") + key + "=" + value + "\\l";
    return text;
}

} // namespace Zelmar
