#include "dsp/ModuleFactory.h"

#include "dsp/InputStage.h"
#include "dsp/Meter.h"
#include "dsp/OutputStage.h"
#include "dsp/Sounds.h"

namespace Zelmar {

ModuleFactory& ModuleFactory::get()
{
    static ModuleFactory instance;
    return instance;
}

// The one table of creatable types, in the order the type names are documented.
ModuleFactory::ModuleFactory()
{
    registerModule<InputStage>("input");
    registerModule<Meter>("meter");
    registerModule<OutputStage>("output");
    registerModule<Sounds>("sounds");
}

Module* ModuleFactory::createModule(Tools::String const& type, Tools::String const& id) const
{
    auto const it = m_constructors.find(type);
    if (it == m_constructors.end())
        return nullptr;
    Module* module = it->second(id);
    module->setType(type);
    return module;
}

std::vector<Tools::String> ModuleFactory::getTypeNames() const
{
    std::vector<Tools::String> names;
    for (auto const& entry : m_constructors)
        names.push_back(entry.first);
    return names;
}

} // namespace Zelmar
