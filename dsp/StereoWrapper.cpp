#include "dsp/StereoWrapper.h"

#include "dsp/ModuleFactory.h"
#include "dsp/ParsingException.h"

namespace Zelmar {

StereoWrapper::StereoWrapper(Tools::String const& type, Tools::String const& id)
    : Module(id), m_left(ModuleFactory::get().createModule(type, id + "-left")),
      m_right(ModuleFactory::get().createModule(type, id + "-right"))
{
    if (!m_left || !m_right)
        throw ParsingException("Module type %0 not found in module factory", type);
    setType(Tools::String("stereo-wrapped ") + type);
}

bool StereoWrapper::canProcessInPlace() const
{
    return m_left->canProcessInPlace() && m_right->canProcessInPlace();
}

void StereoWrapper::preSetup(Chain& chain, unsigned int maxFrames)
{
    Module::preSetup(chain, maxFrames);
    m_left->preSetup(chain, maxFrames);
    m_right->preSetup(chain, maxFrames);
}

void StereoWrapper::postSetup(unsigned int maxFrames)
{
    Module::postSetup(maxFrames);
    m_left->postSetup(maxFrames);
    m_right->postSetup(maxFrames);
    // The inner modules write straight into the buffers the chain's consumers read.
    if (getNumOutPorts() > 0) {
        m_left->setOutPortBuffer(0, getOutPortBuffer(0));
        m_right->setOutPortBuffer(0, getOutPortBuffer(1));
    }
}

void StereoWrapper::checkParameters(Parameters const& parameters, unsigned int sampleRate) const
{
    m_left->validateParameters(parameters, sampleRate);
}

void StereoWrapper::setParameters(Parameters const& parameters, unsigned int sampleRate)
{
    Module::setParameters(parameters, sampleRate);
    m_left->setParameters(parameters, sampleRate);
    m_right->setParameters(parameters, sampleRate);
}

void StereoWrapper::process()
{
    m_left->process();
    m_right->process();
}

void StereoWrapper::activeInPlaceProcessingForPort(unsigned int inPort)
{
    Module::activeInPlaceProcessingForPort(inPort);
    if (inPort == 0)
        m_left->activeInPlaceProcessingForPort(0);
    else if (inPort == 1)
        m_right->activeInPlaceProcessingForPort(0);
}

void StereoWrapper::setInPortBuffer(unsigned int inPort, std::shared_ptr<Module> source, unsigned int outPort)
{
    Module::setInPortBuffer(inPort, source, outPort);
    unsigned int const perSide = m_left->getNumInPorts();
    if (inPort < perSide)
        m_left->setInPortBuffer(inPort, source, outPort);
    else
        m_right->setInPortBuffer(inPort - perSide, source, outPort);
}

void StereoWrapper::onModuleAddedToChain(Chain& chain)
{
    if (m_left)
        m_left->onModuleAddedToChain(chain);
    if (m_right)
        m_right->onModuleAddedToChain(chain);
}

} // namespace Zelmar
