#pragma once

#include "dsp/BiQuadSection.h"
#include "dsp/Export.h"
#include "dsp/Module.h"

namespace Zelmar {

// Tone control for a stereo pair (ports 0 = left, 1 = right): a 300 Hz low shelf, a 1000 Hz peak and a
// 3000 Hz high shelf with user gains ("low-gain", "mid-gain", "high-gain", dB), then with
// "gain-correction" the output lowered by the largest boost, which is reported as hidden volume delta.
// The bands are designed for rates above 6000 Hz. Passes audio through until the first parameter set.
class ORVANDELDSP_EXPORT ThreeBandStereoEQ : public Module
{
public:
    class ParameterSet : public Module::ParameterSet
    {
    public:
        // Throws for missing keys; a boost of 16 dB or more with correction on breaks the Q4.27 range.
        ParameterSet(Parameters const& params, unsigned int sampleRate);

        BiQuadSection m_low;
        BiQuadSection m_mid;
        BiQuadSection m_high;
        tSample m_correctionGain;
        tSample m_hiddenVolumeDelta; // dB

    private:
        double setLowCoefficients(Parameters const& params, unsigned int sampleRate);
        double setMidCoefficients(Parameters const& params, unsigned int sampleRate);
        double setHighCoefficients(Parameters const& params, unsigned int sampleRate);
    };

    explicit ThreeBandStereoEQ(Tools::String const& id) : Module(id) {}
    ~ThreeBandStereoEQ() override = default;

    bool canProcessInPlace() const override { return true; }
    void setParameters(Parameters const& params, unsigned int sampleRate) override;
    unsigned int getNumOutPorts() const override { return 2; }
    unsigned int getNumInPorts() const override { return 2; }
    void process() override;
    void onModuleAddedToChain(Chain& chain) override;

protected:
    void checkParameters(Parameters const& parameters, unsigned int sampleRate) const override;

private:
    StereoBiQuadState m_states[3]; // low, mid, high
    Chain* m_chain = nullptr;
};

} // namespace Zelmar
