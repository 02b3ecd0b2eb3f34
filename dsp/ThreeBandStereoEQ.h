#pragma once

#include "dsp/BiQuadSection.h"
#include "dsp/Module.h"

namespace Zelmar {

// Tone control for a stereo pair (ports 0 = left, 1 = right): a 300 Hz low shelf, a 1000 Hz peak and a
// 3000 Hz high shelf with user gains ("low-gain", "mid-gain", "high-gain", dB), then with
// "gain-correction" the output lowered by the largest boost, which is reported as hidden volume delta.
// The bands are designed for rates above 6000 Hz. Passes audio through until the first parameter set.
class ThreeBandStereoEQ : public Module
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
    void validateParameters(Parameters const& parameters, unsigned int sampleRate) const override;
    unsigned int getNumOutPorts() const override { return 2; }
    unsigned int getNumInPorts() const override { return 2; }
    void process() override;
    void onModuleAddedToChain(Chain& chain) override;

private:
    // Per section: z1 left, z1 right, z2 left, z2 right.
    tSample m_lowZ1Left, m_lowZ1Right, m_lowZ2Left, m_lowZ2Right;
    tSample m_midZ1Left, m_midZ1Right, m_midZ2Left, m_midZ2Right;
    tSample m_highZ1Left, m_highZ1Right, m_highZ2Left, m_highZ2Right;
    Chain* m_chain = nullptr;
};

} // namespace Zelmar
