#include "dsp/Chain.h"

#include "base/Tracer.h"
#include "dsp/ChainParser.h"
#include "dsp/ModuleFactory.h"
#include "dsp/OutputStage.h"
#include "dsp/ParsingException.h"
#include "dsp/StereoWrapper.h"

#include <algorithm>
#include <string>

namespace Zelmar {

namespace {

// Compile flag 1 marks a module already placed in signal-flow order.
constexpr int c_placedFlag = 1;

bool hasBracket(Tools::String const& portSpec)
{
    return portSpec.str().find_first_of("[]") != std::string::npos;
}

Tools::String moduleIdOf(Tools::String const& portSpec)
{
    return portSpec.str().substr(0, portSpec.str().find('['));
}

} // namespace

Chain::Chain(unsigned int sampleRate) : m_sampleRate(sampleRate) {}

Chain::Chain(unsigned int sampleRate, Tools::String const& path) : Chain(sampleRate)
{
    load(path, true);
}

void Chain::load(Tools::String const& path, bool compile)
{
    ChainParser parser(*this, path);
    parser.applyDelayedParameters();
    if (compile)
        this->compile();
}

std::shared_ptr<Module> Chain::addModule(Tools::String const& type, Tools::String const& id)
{
    std::shared_ptr<Module> module(ModuleFactory::get().createModule(type, id));
    if (!module)
        throw ParsingException("Module type %0 not found in module factory", type);
    m_modules.push_back(module);
    module->onModuleAddedToChain(*this);
    return module;
}

std::shared_ptr<Module> Chain::addStereoModule(Tools::String const& type, Tools::String const& id)
{
    if (type == "biquad")
        return addModule("stereo-biquad", id);
    if (type == "equalizer")
        return addModule("stereo-equalizer", id);
    auto wrapper = std::make_shared<StereoWrapper>(type, id);
    m_modules.push_back(wrapper);
    wrapper->onModuleAddedToChain(*this);
    return wrapper;
}

std::shared_ptr<Module> Chain::tryFindModule(Tools::String const& id) const
{
    for (auto const& module : m_modules) {
        if (module->getID() == id)
            return module;
    }
    return nullptr;
}

std::shared_ptr<Module> Chain::findModule(Tools::String const& id) const
{
    auto module = tryFindModule(id);
    if (!module)
        throw ParsingException("chain does not contain a module with ID %0!", id);
    return module;
}

bool Chain::isExclusiveOutportUser(Tools::String const& to, Tools::String const& from) const
{
    return std::all_of(m_wires.begin(), m_wires.end(),
                       [&](auto const& wire) { return wire.second != from || wire.first == to; });
}

std::shared_ptr<Module> Chain::parseWireModule(Tools::String const& portSpec) const
{
    if (portSpec.str().find('[') == std::string::npos)
        throw ParsingException("something is wrong with the port spec - should be moduleid[portnum]: %0\n", portSpec);
    return tryFindModule(moduleIdOf(portSpec));
}

unsigned int Chain::parseWirePort(Tools::String const& portSpec) const
{
    auto const bracket = portSpec.str().find('[');
    if (bracket == std::string::npos)
        throw ParsingException("something is wrong with the port spec - should be moduleid[portnum]: %0", portSpec);
    return static_cast<unsigned int>(std::stoi(portSpec.str().substr(bracket + 1)));
}

void Chain::compile()
{
    auto const countOfModules = m_modules.size();
    for (auto const& module : m_modules) {
        module->resetCompileFlags();
        module->preSetup(*this, c_maxFramesPerProcessCall);
    }
    replaceShortcutWires();
    wireModules();
    reorderModulesToSignalFlow();
    for (auto const& module : m_modules)
        module->postSetup(c_maxFramesPerProcessCall);
    ZELMAR_ASSERT(countOfModules == m_modules.size());
}

void Chain::replaceShortcutWires()
{
    tWires const wires = m_wires;
    for (auto const& [to, from] : wires) {
        if (hasBracket(to) || hasBracket(from))
            continue;
        auto const destination = findModule(to);
        auto const source = findModule(from);
        unsigned int const ports = destination->getNumInPorts();
        if (ports != source->getNumOutPorts())
            continue;
        for (unsigned int i = 0; i < ports; ++i)
            m_wires[Tools::String::format("%0[%1]", to, i)] = Tools::String::format("%0[%1]", from, i);
        m_wires.erase(to);
    }
}

void Chain::wireModules()
{
    for (auto const& [to, from] : m_wires) {
        auto const destination = parseWireModule(to);
        unsigned int const destinationPort = parseWirePort(to);
        auto const source = parseWireModule(from);
        unsigned int const sourcePort = parseWirePort(from);
        if (!destination)
            throw ParsingException("Module for portSpec %0 does not exist", to);
        if (!source)
            throw ParsingException("Module for portSpec %0 does not exist", from);
        destination->setInPortBuffer(destinationPort, source, sourcePort);
        if (destination->canProcessInPlace() && isExclusiveOutportUser(to, from))
            destination->activeInPlaceProcessingForPort(destinationPort);
    }
}

void Chain::reorderModulesToSignalFlow()
{
    tFeeders feeders;
    for (auto const& [to, from] : m_wires) {
        auto const destination = parseWireModule(to);
        auto const source = parseWireModule(from);
        auto& sources = feeders[destination.get()];
        if (std::find(sources.begin(), sources.end(), source) == sources.end())
            sources.push_back(source);
    }

    tModuleList working;
    working.swap(m_modules);
    while (auto sink = findUncompiledModuleWithoutOutputs(working))
        addModulesSortedBySignalFlow(sink, feeders);
    allocateMeters();
}

std::shared_ptr<Module> Chain::findUncompiledModuleWithoutOutputs(tModuleList const& modules)
{
    for (auto const& module : modules) {
        if (!module->getCompileFlag(c_placedFlag) && module->getNumOutPorts() == 0)
            return module;
    }
    return nullptr;
}

void Chain::addModulesSortedBySignalFlow(std::shared_ptr<Module> const& module, tFeeders const& feeders)
{
    if (module->getCompileFlag(c_placedFlag))
        return;
    // Marked before recursing, so a cycle ends instead of looping.
    module->setCompileFlag(c_placedFlag);
    auto const it = feeders.find(module.get());
    if (it != feeders.end()) {
        for (auto const& feeder : it->second)
            addModulesSortedBySignalFlow(feeder, feeders);
    }
    m_modules.push_back(module);
}

void Chain::process()
{
    for (auto const& module : m_modules) {
        module->process();
        if (m_metersEnabled)
            module->storeMeters();
    }
}

void Chain::allocateMeters()
{
    for (auto const& module : m_modules)
        module->allocateMeters();
}

void Chain::printMeters() const
{
    m_metersEnabled = true;
    char const* processName = Tools::Tracer::getProcessName().c_str();
    for (auto const& module : m_modules) {
        for (unsigned int port = 0; port < module->getNumOutPorts(); ++port)
            g_print("%s %s[%d] = %f\n", processName, module->getID().c_str(), port, module->getStoredMeter(port));
        auto const* output = dynamic_cast<OutputStage const*>(module.get());
        if (output && output->isMuting())
            g_print("%s output is MUTED\n", processName);
        module->resetMeters();
    }
}

} // namespace Zelmar
