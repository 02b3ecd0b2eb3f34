#pragma once

#include "base/String.h"
#include "dsp/Export.h"
#include "dsp/ParameterDescriptor.h"
#include "dsp/Parameters.h"

#include <typeindex>
#include <typeinfo>
#include <vector>

namespace Zelmar {

class Module;

// A module type as a config file sees it: the name, how a module is made, its ports, the type a
// stereo-module of it becomes, and its parameters. The factory holds one per type.
class ORVANDELDSP_EXPORT ModuleDescriptor
{
public:
    using tConstructor = Module* (*)(Tools::String const& id);

    struct KeyFinding
    {
        Tools::String key;
        ParameterDescriptor::Finding finding;
    };

    template <class T>
    static ModuleDescriptor of(char const* type, unsigned int inPorts, unsigned int outPorts,
                               char const* meaning, std::vector<ParameterDescriptor> parameters = {})
    {
        return ModuleDescriptor(
            type, typeid(T), [](Tools::String const& id) -> Module* { return new T(id); }, inPorts, outPorts,
            meaning, std::move(parameters));
    }

    // A stereo-module of this type is a module of `type` rather than two of this one in a wrapper.
    ModuleDescriptor withStereoVariant(char const* type) const;
    // The in ports are as many as the characters of the parameter `key`, whose digits name the ports
    // that are read; a port no digit names may stay unconnected.
    ModuleDescriptor withInPortsFrom(char const* key) const;
    // What the ports carry, for the reference ("0 = left, 1 = right").
    ModuleDescriptor withPortNote(char const* note) const;

    char const* getType() const { return m_type; }
    // The class that modules of this type are.
    std::type_index getClass() const { return m_class; }
    char const* getMeaning() const { return m_meaning; }
    char const* getStereoVariant() const { return m_stereoVariant; }
    char const* getInPortsKey() const { return m_inPortsKey; }
    char const* getPortNote() const { return m_portNote; }
    unsigned int getNumOutPorts() const { return m_outPorts; }
    // The fixed count, or the one the parameters give.
    unsigned int getNumInPorts(Parameters const& parameters) const;
    bool readsInPort(Parameters const& parameters, unsigned int inPort) const;
    std::vector<ParameterDescriptor> const& getParameters() const { return m_parameters; }
    ParameterDescriptor const* findParameter(Tools::String const& key) const;
    // The caller owns the new module; its type is not set here.
    Module* create(Tools::String const& id) const { return m_constructor(id); }

    // Everything wrong with a set: missing required keys, values, and keys the type does not know.
    std::vector<KeyFinding> review(Parameters const& parameters, unsigned int sampleRate) const;
    // Throws IllegalArgumentException naming the module and the key for the first refused finding.
    void validate(Parameters const& parameters, unsigned int sampleRate, Tools::String const& moduleId) const;

private:
    ModuleDescriptor(char const* type, std::type_index moduleClass, tConstructor constructor,
                     unsigned int inPorts, unsigned int outPorts, char const* meaning,
                     std::vector<ParameterDescriptor> parameters);

    char const* m_type;
    std::type_index m_class;
    tConstructor m_constructor;
    unsigned int m_inPorts;
    unsigned int m_outPorts;
    char const* m_meaning;
    std::vector<ParameterDescriptor> m_parameters;
    char const* m_stereoVariant = nullptr;
    char const* m_inPortsKey = nullptr;
    char const* m_portNote = "";
};

} // namespace Zelmar
