#pragma once

#include "dsp/Export.h"
#include "dsp/Module.h"

namespace Zelmar {

// Peak limiter: a one-pole envelope follower and a gain computed per sample from it, no look-ahead,
// so peaks faster than the attack pass partly above the threshold.
class ORVANDELDSP_EXPORT Limiter : public Module
{
public:
    explicit Limiter(Tools::String const& id) : Module(id) {}
    ~Limiter() override = default;

    // "attack" and "release" in ms (99 % of a rise or fall), "threshold" in dB at six per doubling.
    void setParameters(Parameters const& params, unsigned int sampleRate) override;
    unsigned int getNumOutPorts() const override { return 1; }
    unsigned int getNumInPorts() const override { return 1; }
    void process() override;

    // Weight of the old envelope per sample for a time of `ms`; 0 ms follows the signal at once.
    static tSample calcCoefficient(double ms, unsigned int sampleRate);

protected:
    void checkParameters(Parameters const& parameters, unsigned int sampleRate) const override;

private:
    // Until the first set everything is 0, which makes an unconfigured limiter silent.
    struct Coefficients : ParameterSet
    {
        tSample attack;
        tSample release;
        tSample threshold;
    };

    // Carried across periods and parameter changes; audio thread only.
    tSample m_envelope;
};

} // namespace Zelmar
