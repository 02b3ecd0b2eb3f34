#pragma once

#include "base/Assert.h"
#include "base/String.h"
#include "dsp/Export.h"
#include "dsp/ModuleDescriptor.h"

#include <map>
#include <typeindex>
#include <typeinfo>
#include <vector>

namespace Zelmar {

class Module;

// Makes modules by the type name used in dsp config files, from one table of module descriptors.
// One process-wide instance, filled once.
class ORVANDELDSP_EXPORT ModuleFactory
{
public:
    static ModuleFactory& get();
    virtual ~ModuleFactory() = default;

    // Null for an unknown type (names are case-sensitive); the caller owns the new module.
    Module* createModule(Tools::String const& type, Tools::String const& id) const;
    // Null for an unknown type.
    ModuleDescriptor const* findDescriptor(Tools::String const& type) const;
    // The descriptor of the type whose modules are of exactly this class; null for any other class.
    ModuleDescriptor const* findDescriptor(std::type_info const& moduleClass) const;
    // By type name.
    std::map<Tools::String, ModuleDescriptor> const& getDescriptors() const { return m_descriptors; }
    std::vector<Tools::String> getTypeNames() const;

private:
    ModuleFactory();

    void registerModule(ModuleDescriptor const& descriptor);

    std::map<Tools::String, ModuleDescriptor> m_descriptors;
    std::map<std::type_index, ModuleDescriptor const*> m_descriptorsByClass;
};

} // namespace Zelmar
