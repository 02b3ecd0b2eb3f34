#include "dsp/Limiter.h"

#include <cmath>

namespace Zelmar {

void Limiter::setParameters(Parameters const& params, unsigned int sampleRate)
{
    Module::setParameters(params, sampleRate);
    double const attackMs = params.getDouble("attack");
    double const releaseMs = params.getDouble("release");
    double const thresholdDb = params.getDouble("threshold");
    Coefficients coefficients;
    // Same six-decibels-per-doubling rule as the gain stage; 24 dB or more does not fit and asserts.
    coefficients.threshold = tSample(std::pow(2.0, thresholdDb / 6.0));
    coefficients.attack = calcCoefficient(attackMs, sampleRate);
    coefficients.release = calcCoefficient(releaseMs, sampleRate);
    setFutureParameterSet(new Coefficients(coefficients));
}

// Times of 0 ms or more always give a coefficient from 0 to 1; the threshold factor is what may not fit.
void Limiter::checkParameters(Parameters const& params, unsigned int) const
{
    requireSampleRange(std::pow(2.0, params.getDouble("threshold") / 6.0), "the threshold factor");
}

tSample Limiter::calcCoefficient(double ms, unsigned int sampleRate)
{
    // Goes through float on the way to Q4.27, which is what fixes the exact coefficient bits.
    return tSample(std::pow(0.01, 1.0 / (ms * sampleRate * 0.001)));
}

void Limiter::process()
{
    AudioBuffer const* in = &inBuffer(0);
    AudioBuffer* out = &outBuffer(0);
    out->setSize(in->getNumSampleFrames());
    ZELMAR_ASSERT(out->getNumSampleFrames() >= in->getNumSampleFrames());

    Coefficients const unconfigured;
    auto const* current = static_cast<Coefficients const*>(getCurrentParameterSet());
    Coefficients const& c = current ? *current : unconfigured;
    tSample const* input = in->getRawData();
    tSample* output = out->getRawData();
    unsigned int const n = in->getNumSampleFrames();
    tSample envelope = m_envelope;
    for (unsigned int i = 0; i < n; ++i) {
        tSample const x = input[i];
        // Wrapping absolute value: -16.0 stays negative and then never exceeds the threshold.
        tSample const a = x < tSample::s_Zero ? -x : x;
        tSample const weight = envelope < a ? c.attack : c.release;
        envelope = a + weight * (envelope - a);
        // The threshold is never negative, so an envelope above it is positive and a safe divisor.
        output[i] = c.threshold < envelope ? (x * c.threshold) / envelope : x;
    }
    m_envelope = envelope;
}

} // namespace Zelmar
