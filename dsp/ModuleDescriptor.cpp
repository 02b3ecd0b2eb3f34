#include "dsp/ModuleDescriptor.h"

#include "dsp/IllegalArgumentException.h"

namespace Zelmar {

ModuleDescriptor::ModuleDescriptor(char const* type, std::type_index moduleClass, tConstructor constructor,
                                   unsigned int inPorts, unsigned int outPorts, char const* meaning,
                                   std::vector<ParameterDescriptor> parameters)
    : m_type(type), m_class(moduleClass), m_constructor(constructor), m_inPorts(inPorts),
      m_outPorts(outPorts), m_meaning(meaning), m_parameters(std::move(parameters))
{
}

ModuleDescriptor ModuleDescriptor::withStereoVariant(char const* type) const
{
    ModuleDescriptor copy = *this;
    copy.m_stereoVariant = type;
    return copy;
}

ModuleDescriptor ModuleDescriptor::withInPortsFrom(char const* key) const
{
    ModuleDescriptor copy = *this;
    copy.m_inPortsKey = key;
    return copy;
}

ModuleDescriptor ModuleDescriptor::withPortNote(char const* note) const
{
    ModuleDescriptor copy = *this;
    copy.m_portNote = note;
    return copy;
}

unsigned int ModuleDescriptor::getNumInPorts(Parameters const& parameters) const
{
    if (!m_inPortsKey)
        return m_inPorts;
    return static_cast<unsigned int>(parameters.getString(m_inPortsKey).length());
}

bool ModuleDescriptor::readsInPort(Parameters const& parameters, unsigned int inPort) const
{
    if (!m_inPortsKey)
        return inPort < m_inPorts;
    std::string const& digits = parameters.getString(m_inPortsKey).str();
    return inPort < 10 && digits.find(static_cast<char>('0' + inPort)) != std::string::npos;
}

ParameterDescriptor const* ModuleDescriptor::findParameter(Tools::String const& key) const
{
    for (auto const& parameter : m_parameters) {
        if (key == parameter.getKey())
            return &parameter;
    }
    return nullptr;
}

std::vector<ModuleDescriptor::KeyFinding> ModuleDescriptor::review(Parameters const& parameters,
                                                                   unsigned int sampleRate) const
{
    using Finding = ParameterDescriptor::Finding;
    std::vector<KeyFinding> findings;
    auto const& given = parameters.getParams();
    for (auto const& parameter : m_parameters) {
        auto const it = given.find(parameter.getKey());
        if (it == given.end()) {
            if (parameter.isRequired())
                findings.push_back({parameter.getKey(),
                                    {Finding::Refused, std::string("is required (for example \"") +
                                                           parameter.getDefault() + "\")"}});
            continue;
        }
        for (auto& finding : parameter.inspect(it->second, sampleRate))
            findings.push_back({parameter.getKey(), std::move(finding)});
    }
    for (auto const& entry : given) {
        if (!findParameter(entry.first))
            findings.push_back({entry.first,
                                {Finding::Doubtful, std::string("is not a parameter of the type ") + m_type +
                                                        ", which ignores it"}});
    }
    return findings;
}

void ModuleDescriptor::validate(Parameters const& parameters, unsigned int sampleRate,
                                Tools::String const& moduleId) const
{
    for (auto const& keyFinding : review(parameters, sampleRate)) {
        if (keyFinding.finding.level == ParameterDescriptor::Finding::Refused)
            throw IllegalArgumentException("parameter %0 of module %1: %2", keyFinding.key, moduleId,
                                           keyFinding.finding.message);
    }
}

} // namespace Zelmar
