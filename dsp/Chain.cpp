#include "dsp/Chain.h"

#include "base/Tracer.h"
#include "dsp/BiQuad.h"
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
    append(module);
    return module;
}

std::shared_ptr<Module> Chain::addStereoModule(Tools::String const& type, Tools::String const& id)
{
    ModuleDescriptor const* descriptor = ModuleFactory::get().findDescriptor(type);
    if (descriptor && descriptor->getStereoVariant())
        return addModule(descriptor->getStereoVariant(), id);
    auto wrapper = std::make_shared<StereoWrapper>(type, id);
    append(wrapper);
    return wrapper;
}

void Chain::append(std::shared_ptr<Module> const& module)
{
    m_modules.push_back(module);
    // Lookups find the first module of an id, so a later one does not replace it here.
    m_modulesById.emplace(module->getID(), module);
    module->onModuleAddedToChain(*this);
}

std::shared_ptr<Module> Chain::tryFindModule(Tools::String const& id) const
{
    auto const it = m_modulesById.find(id);
    return it == m_modulesById.end() ? nullptr : it->second;
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
        throw ParsingException("something is wrong with the port spec - should be moduleid[portnum]: %0\n",
                               portSpec);
    return tryFindModule(moduleIdOf(portSpec));
}

unsigned int Chain::parseWirePort(Tools::String const& portSpec) const
{
    auto const bracket = portSpec.str().find('[');
    if (bracket == std::string::npos)
        throw ParsingException("something is wrong with the port spec - should be moduleid[portnum]: %0",
                               portSpec);
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
    findSteps();
    bool const profiling = m_profile.load() != nullptr;
    m_profile.store(nullptr);
    m_profileStorage.reset();
    enableProfile(profiling);
}

void Chain::findSteps()
{
    m_steps.clear();
    m_cascades.clear();
    std::vector<Module*> const order = [this] {
        std::vector<Module*> modules;
        for (auto const& module : m_modules)
            modules.push_back(module.get());
        return modules;
    }();
    for (std::size_t first = 0; first < order.size();) {
        std::size_t end = first + 1;
        while (m_fuseCascades && end < order.size() && BiQuadCascade::canFollow(*order[end - 1], *order[end]))
            ++end;
        if (end - first == 1) {
            m_steps.push_back({order[first], nullptr, first, 1});
        } else {
            std::vector<BiQuad*> members;
            for (std::size_t k = first; k < end; ++k)
                members.push_back(static_cast<BiQuad*>(order[k]));
            m_cascades.push_back(std::make_unique<BiQuadCascade>(std::move(members)));
            m_steps.push_back({nullptr, m_cascades.back().get(), first, end - first});
        }
        first = end;
    }
}

void Chain::enableProfile(bool enable)
{
    // Figures are kept until the next compile(), which no process() runs beside, so a profile switched
    // off while audio runs is never freed under it.
    if (enable && !m_profileStorage)
        m_profileStorage = std::make_unique<ChainProfile>(m_modules.size());
    m_profile.store(enable ? m_profileStorage.get() : nullptr, std::memory_order_release);
}

std::vector<Chain::ModuleTime> Chain::getProfile() const
{
    std::vector<ModuleTime> times;
    ChainProfile const* profile = m_profile.load(std::memory_order_acquire);
    if (!profile)
        return times;
    std::size_t index = 0;
    for (auto const& module : m_modules) {
        if (index < profile->getNumModules())
            times.push_back({module, profile->getNanoseconds(index), false});
        ++index;
    }
    for (Step const& step : m_steps) {
        for (std::size_t k = 0; step.cascade && !m_metersEnabled && k < step.numModules; ++k)
            times[step.firstModule + k].fused = true;
    }
    return times;
}

uint64_t Chain::getNumProfiledPeriods() const
{
    ChainProfile const* profile = m_profile.load(std::memory_order_acquire);
    return profile ? profile->getNumPeriods() : 0;
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
    // How many inputs read each output: an input runs in place only when it is the only reader.
    std::map<Tools::String, unsigned int> readers;
    for (auto const& wire : m_wires)
        ++readers[wire.second];
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
        if (destination->canProcessInPlace() && readers[from] == 1)
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
    // Sinks feed nothing, so placing one never places another: one pass takes them in insertion order.
    for (auto const& module : working) {
        if (module->getNumOutPorts() == 0)
            addModulesSortedBySignalFlow(module, feeders);
    }
    allocateMeters();
}

void Chain::addModulesSortedBySignalFlow(std::shared_ptr<Module> const& sink, tFeeders const& feeders)
{
    // A depth-first post-order, every module after all that feed it, walked with a stack of its own so
    // that a long series of modules cannot exhaust the thread's stack.
    struct Visit
    {
        std::shared_ptr<Module> module;
        std::size_t nextFeeder;
    };
    std::vector<Visit> path;
    auto enter = [&](std::shared_ptr<Module> const& module) {
        // Marked on the way in, so a cycle ends instead of looping.
        if (module->getCompileFlag(c_placedFlag))
            return;
        module->setCompileFlag(c_placedFlag);
        path.push_back({module, 0});
    };
    enter(sink);
    while (!path.empty()) {
        auto const it = feeders.find(path.back().module.get());
        std::size_t const next = path.back().nextFeeder++;
        if (it != feeders.end() && next < it->second.size()) {
            enter(it->second[next]);
            continue;
        }
        m_modules.push_back(path.back().module);
        path.pop_back();
    }
}

void Chain::process()
{
    ChainProfile* const profile = m_profile.load(std::memory_order_acquire);
    if (m_metersEnabled)
        return processMetered(profile);
    if (profile)
        return processProfiled(*profile);
    for (Step const& step : m_steps)
        step.run();
}

// Module by module: each output is metered before a module working in place on its buffer changes it.
void Chain::processMetered(ChainProfile* profile)
{
    std::size_t index = 0;
    uint64_t before = profile ? ChainProfile::now() : 0;
    for (auto const& module : m_modules) {
        module->process();
        module->storeMeters();
        if (profile) {
            uint64_t const after = ChainProfile::now();
            profile->add(index++, after - before);
            before = after;
        }
    }
    if (profile)
        profile->countPeriod();
}

void Chain::processProfiled(ChainProfile& profile)
{
    uint64_t before = ChainProfile::now();
    for (Step const& step : m_steps) {
        step.run();
        uint64_t const after = ChainProfile::now();
        uint64_t const elapsed = after - before;
        // A cascade's sections each cost alike, so its modules share its time equally.
        for (std::size_t k = 0; k < step.numModules; ++k)
            profile.add(step.firstModule + k,
                        elapsed / step.numModules + (k == 0 ? elapsed % step.numModules : 0));
        before = after;
    }
    profile.countPeriod();
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
            g_print("%s %s[%d] = %f\n", processName, module->getID().c_str(), port,
                    module->getStoredMeter(port));
        auto const* output = dynamic_cast<OutputStage const*>(module.get());
        if (output && output->isMuting())
            g_print("%s output is MUTED\n", processName);
        module->resetMeters();
    }
}

} // namespace Zelmar
