#pragma once

#include "dsp/Export.h"
#include "dsp/Module.h"

#include <array>

namespace Zelmar {

// Mono three-band tone control built from child modules run in series, in place: a 300 Hz low shelf,
// a 1000 Hz peak and a 3000 Hz high shelf ("low-gain", "mid-gain", "high-gain", dB), then a gain
// that with "gain-correction" lowers the output by the largest boost and reports that boost to the
// chain's hidden volume manager. All four keys are required. Silent until the first parameter set,
// which is when the correction gain gets its first level.
class ORVANDELDSP_EXPORT Equalizer : public Module
{
public:
    explicit Equalizer(Tools::String const& id);
    ~Equalizer() override = default;

    bool canProcessInPlace() const override { return true; }
    void preSetup(Chain& chain, unsigned int maxFrames) override;
    void postSetup(unsigned int maxFrames) override;
    void setParameters(Parameters const& params, unsigned int sampleRate) override;
    unsigned int getNumOutPorts() const override { return 1; }
    unsigned int getNumInPorts() const override { return 1; }
    void process() override;
    void setInPortBuffer(unsigned int inPort, std::shared_ptr<Module> source, unsigned int outPort) override;
    void setOutPortBuffer(unsigned int outPort, std::shared_ptr<AudioBuffer> buffer) override;
    void onModuleAddedToChain(Chain& chain) override;

    // Low shelf, peak, high shelf and correction gain, in signal order.
    std::array<tModulePtr, 4> getChildModules() const { return {m_low, m_mid, m_high, m_gainCorrection}; }

protected:
    void checkParameters(Parameters const& parameters, unsigned int sampleRate) const override;

private:
    // Band 0 low, 1 mid, 2 high: the fixed type, corner and Q, with this gain.
    static Parameters bandSettings(unsigned int band, Tools::String const& gain);
    // The corner frequencies and Q never change, so they are set once, with the first band gains.
    void initChildModules(unsigned int sampleRate);

    tModulePtr m_low;
    tModulePtr m_mid;
    tModulePtr m_high;
    tModulePtr m_gainCorrection;
    bool m_childModulesInitialised = false;
    Chain* m_chain = nullptr;
};

} // namespace Zelmar
