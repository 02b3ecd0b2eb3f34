#pragma once

#include "base/Assert.h"
#include "base/String.h"

#include <functional>
#include <map>
#include <vector>

namespace Zelmar {

class Module;

// Makes modules by the type name used in dsp config files. One process-wide instance, filled once.
class ModuleFactory
{
public:
    using tConstructor = std::function<Module*(Tools::String const& id)>;

    static ModuleFactory& get();
    virtual ~ModuleFactory() = default;

    // Null for an unknown type (names are case-sensitive); the caller owns the new module.
    Module* createModule(Tools::String const& type, Tools::String const& id) const;

    std::vector<Tools::String> getTypeNames() const;

private:
    ModuleFactory();

    template <class T>
    void registerModule(Tools::String const& type)
    {
        ZELMAR_ASSERT(m_constructors.find(type) == m_constructors.end());
        m_constructors[type] = [](Tools::String const& id) -> Module* { return new T(id); };
    }

    std::map<Tools::String, tConstructor> m_constructors;
};

} // namespace Zelmar
