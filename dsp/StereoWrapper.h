#pragma once

#include "dsp/Export.h"
#include "dsp/Module.h"

namespace Zelmar {

// Two mono modules of one type presented as one stereo module. Inputs are split in halves
// (0..n-1 left, n..2n-1 right) while outputs and in-place marks use port 0 for left and 1 for right;
// the two agree for one-in, one-out inner modules, which is what the wrapper is for.
class ORVANDELDSP_EXPORT StereoWrapper : public Module
{
public:
    StereoWrapper(Tools::String const& type, Tools::String const& id);
    ~StereoWrapper() override = default;

    bool canProcessInPlace() const override;
    void preSetup(Chain& chain, unsigned int maxFrames) override;
    void postSetup(unsigned int maxFrames) override;
    void setParameters(Parameters const& parameters, unsigned int sampleRate) override;
    unsigned int getNumOutPorts() const override { return 2 * m_left->getNumOutPorts(); }
    unsigned int getNumInPorts() const override { return 2 * m_left->getNumInPorts(); }
    void process() override;
    void activeInPlaceProcessingForPort(unsigned int inPort) override;
    void setInPortBuffer(unsigned int inPort, std::shared_ptr<Module> source, unsigned int outPort) override;
    void onModuleAddedToChain(Chain& chain) override;

    // The inner type's: both channels take the same parameters.
    ModuleDescriptor const* getDescriptor() const override { return m_left->getDescriptor(); }

    std::shared_ptr<Module> getLeft() const { return m_left; }
    std::shared_ptr<Module> getRight() const { return m_right; }

protected:
    void checkParameters(Parameters const& parameters, unsigned int sampleRate) const override;

private:
    std::shared_ptr<Module> m_left;
    std::shared_ptr<Module> m_right;
};

} // namespace Zelmar
