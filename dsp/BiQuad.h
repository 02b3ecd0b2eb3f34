#pragma once

#include "dsp/BiQuadSection.h"
#include "dsp/Export.h"
#include "dsp/Module.h"
#include "dsp/precalculated/PrecalculatedBiQuad.h"

namespace Zelmar {

// One second-order section on one signal. Parameters: "type" (a characteristic name), "frequency" (Hz),
// "q" and "gain" (dB). Runs a precalculated kernel when one matches the design, else the generic loop.
// Passes audio through until the first parameter set; the state survives parameter changes.
class ORVANDELDSP_EXPORT BiQuad : public Module
{
public:
    class ParameterSet : public Module::ParameterSet, public BiQuadSection
    {
    public:
        // A frequency at or above Nyquist makes the filter the identity. Throws for an unknown type.
        ParameterSet(Parameters const& params, unsigned int sampleRate);
    };

    explicit BiQuad(Tools::String const& id) : Module(id) {}
    ~BiQuad() override = default;

    void setParameters(Parameters const& params, unsigned int sampleRate) override;
    unsigned int getNumOutPorts() const override { return 1; }
    unsigned int getNumInPorts() const override { return 1; }
    void process() override;

    // Which kernel runs the coefficients now in force (null: the generic loop); audio thread only.
    tBiQuadKernel getPrecalculatedKernel() const { return m_precalculatedKernel; }

    // For a fused cascade, in place of process(): takes a pending parameter set as process() would and
    // gives the section that process() would run, the kernel's constants and form when one matches, or
    // the identity before the first set. Audio thread.
    void prepareCascadeSection(CascadeSection& section);
    // Where the state of each channel lives, for the cascade's sections.
    virtual void bindCascadeState(CascadeSection& section);

protected:
    // A designed section must fit Q4.27, and the types that divide by Q need it above 0.
    void checkParameters(Parameters const& parameters, unsigned int sampleRate) const override;
    // Looks the kernel up once per parameter set. Keyed on the set in force rather than a flag that
    // setParameters clears, so a lookup racing with a hand-over cannot pair a kernel with the wrong set.
    void lookUpPrecalculatedKernel(ParameterSet const& ps);

    tBiQuadKernel m_precalculatedKernel = nullptr;
    PrecalculatedBiQuadEntry const* m_precalculatedEntry = nullptr;
    ParameterSet const* m_precalculatedKernelLookedUpFor = nullptr;

private:
    tSample m_z1;
    tSample m_z2;
};

} // namespace Zelmar
