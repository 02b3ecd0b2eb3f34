#include "dsp/Module.h"

#include "dsp/IllegalArgumentException.h"
#include "dsp/ModuleFactory.h"
#include "dsp/ParsingException.h"

#include <thread>

namespace Zelmar {

namespace {

constexpr char const* c_notConnected = "Input port %0 of module %1 is not connected!\n";

} // namespace

Module::Module(Tools::String const& id)
    : m_id(id), m_deleteOldParameterSetCallback([this] { deleteOldParameterSet(); })
{
}

Module::~Module()
{
    delete m_oldParameterSet.load();
    delete m_currentParameterSet;
    delete m_futureParameterSet.load();
}

bool Module::canProcessInPlace() const
{
    return getNumInPorts() == getNumOutPorts();
}

void Module::preSetup(Chain&, unsigned int)
{
    m_outputs.resize(getNumOutPorts());
    m_ins.resize(getNumInPorts());
}

void Module::postSetup(unsigned int maxFrames)
{
    if (canProcessInPlace()) {
        for (unsigned int out = 0; out < getNumOutPorts(); ++out) {
            ZELMAR_ASSERT(m_ins.size() > out);
            if (!m_ins[out].module)
                throw ParsingException(c_notConnected, out, m_id);
            if (m_ins[out].inPlace)
                m_outputs[out] = m_ins[out].module->getOutPortBuffer(m_ins[out].port);
        }
    }
    for (auto& output : m_outputs) {
        if (!output)
            output = std::make_shared<AudioBuffer>(maxFrames, maxFrames);
    }
}

void Module::setParameters(Parameters const& parameters, unsigned int sampleRate)
{
    m_parameters = parameters;
    m_sampleRate = sampleRate;
}

void Module::checkParameters(Parameters const&, unsigned int) const {}

void Module::validateParameters(Parameters const& parameters, unsigned int sampleRate) const
{
    if (ModuleDescriptor const* descriptor = getDescriptor())
        descriptor->validate(parameters, sampleRate, m_id);
    checkParameters(parameters, sampleRate);
}

void Module::applyParameters(Parameters const& parameters, unsigned int sampleRate)
{
    validateParameters(parameters, sampleRate);
    Parameters const previous = getConfiguredParameters();
    try {
        setParameters(parameters, sampleRate);
    } catch (...) {
        try {
            validateParameters(previous, sampleRate);
            setParameters(previous, sampleRate);
        } catch (...) {
            // The previous set was never valid either (a module that was not configured yet).
        }
        throw;
    }
}

void Module::requireSampleRange(double value, char const* what) const
{
    float const narrowed = static_cast<float>(value);
    if (!(narrowed < 16.0f && narrowed > -16.0f))
        throw IllegalArgumentException("%0 of module %1 is out of range: %2 does not fit a sample (|x| < 16)",
                                       what, m_id, value);
}

void Module::activeInPlaceProcessingForPort(unsigned int inPort)
{
    m_ins[inPort].inPlace = true;
}

void Module::setInPortBuffer(unsigned int inPort, std::shared_ptr<Module> source, unsigned int outPort)
{
    if (inPort >= m_ins.size())
        throw IllegalArgumentException("inport %0 of module %1 does not exist", inPort, m_id);
    m_ins[inPort].module = std::move(source);
    m_ins[inPort].port = outPort;
    m_ins[inPort].inPlace = false;
}

void Module::setOutPortBuffer(unsigned int port, std::shared_ptr<AudioBuffer> buffer)
{
    m_outputs[port] = std::move(buffer);
}

Parameters const& Module::getParameters() const
{
    return m_parameters;
}

Parameters const& Module::getConfiguredParameters() const
{
    return m_parameters;
}

ModuleDescriptor const* Module::getDescriptor() const
{
    return ModuleFactory::get().findDescriptor(typeid(*this));
}

void Module::onModuleAddedToChain(Chain&) {}

void Module::setParameter(Tools::String const& key, Tools::String const& value)
{
    Parameters changed = getConfiguredParameters();
    changed.set(key, value);
    setParameters(changed, m_sampleRate);
}

std::shared_ptr<AudioBuffer> Module::getInPort(unsigned int inPort) const
{
    InPortSpec const& portSpec = m_ins[inPort];
    if (!portSpec.module)
        throw ParsingException(c_notConnected, inPort, m_id);
    return portSpec.module->getOutPortBuffer(portSpec.port);
}

void Module::allocateMeters()
{
    m_meters.assign(getNumOutPorts(), 0.0f);
}

void Module::resetMeters()
{
    for (auto& meter : m_meters)
        meter = 0.0f;
}

void Module::storeMeters()
{
    for (unsigned int port = 0; port < m_meters.size() && port < m_outputs.size(); ++port) {
        float const level = m_outputs[port]->getMaxLevel();
        if (level > m_meters[port])
            m_meters[port] = level;
    }
}

void Module::describe(std::stringstream& out) const
{
    out << getDotSafeID() << " [label=\"" << m_type << " '" << m_id << "'\\l" << getParameters().describe()
        << "\"]";
}

void Module::setFutureParameterSet(ParameterSet* parameterSet)
{
    for (;;) {
        ParameterSet* const expected = m_futureParameterSet.load();
        ParameterSet* observed = expected;
        if (m_futureParameterSet.compare_exchange_strong(observed, parameterSet)) {
            delete expected;
            return;
        }
        if (expected == nullptr) {
            // Another writer filled the empty slot first; its set wins.
            delete parameterSet;
            return;
        }
        // The audio thread took the set meanwhile; try again against the now empty slot.
        std::this_thread::yield();
    }
}

Module::ParameterSet* Module::getCurrentParameterSet()
{
    ParameterSet* taken = m_futureParameterSet.load();
    if (taken && m_futureParameterSet.compare_exchange_strong(taken, nullptr)) {
        if (m_currentParameterSet) {
            m_oldParameterSet.store(m_currentParameterSet);
            m_deleteOldParameterSetCallback.schedule();
        }
        m_currentParameterSet = taken;
    }
    return m_currentParameterSet;
}

Module::ParameterSet* Module::takeNewParameterSet()
{
    ParameterSet* const before = m_currentParameterSet;
    ParameterSet* const current = getCurrentParameterSet();
    return current != before ? current : nullptr;
}

void Module::deleteOldParameterSet()
{
    delete m_oldParameterSet.exchange(nullptr);
}

} // namespace Zelmar
