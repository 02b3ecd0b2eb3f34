#pragma once

#include "base/String.h"
#include "dsp/Export.h"

#include <initializer_list>
#include <map>
#include <utility>

namespace Zelmar {

// A module's configuration as text; values are parsed only when a module asks for them in a type.
class ORVANDELDSP_EXPORT Parameters
{
public:
    using tMap = std::map<Tools::String, Tools::String>;

    Parameters() = default;
    Parameters(std::initializer_list<std::pair<Tools::String, Tools::String>> const& entries);
    virtual ~Parameters() = default;

    void set(Tools::String const& key, Tools::String const& value) { m_params[key] = value; }
    void clear() { m_params.clear(); }
    tMap const& getParams() const { return m_params; }

    // A missing key reads as "0" here but as the empty text in getString: callers rely on both.
    Tools::String get(Tools::String const& key) const;
    Tools::String getString(Tools::String const& key) const;
    double getDouble(Tools::String const& key) const;
    int getInt(Tools::String const& key) const;
    bool getBool(Tools::String const& key) const;

    // One "  key=value\l" per entry, for graph labels.
    Tools::String describe() const;

private:
    tMap m_params;
};

} // namespace Zelmar
