#include "dsp/BiQuad.h"

#include "dsp/IllegalArgumentException.h"

namespace Zelmar {

BiQuad::ParameterSet::ParameterSet(Parameters const& params, unsigned int sampleRate)
{
    Tools::String type = params.getString("type");
    double const frequency = params.getDouble("frequency");
    double const q = params.getDouble("q");
    double const gain = params.getDouble("gain");
    if (frequency >= 0.5 * sampleRate)
        type = "passthru";
    design(tBiQuadDesign::translateType(type), sampleRate, frequency, q, gain);
}

void BiQuad::setParameters(Parameters const& params, unsigned int sampleRate)
{
    Module::setParameters(params, sampleRate);
    setFutureParameterSet(new ParameterSet(params, sampleRate));
}

void BiQuad::checkParameters(Parameters const& params, unsigned int sampleRate) const
{
    AudioFilter::Characteristic type = tBiQuadDesign::translateType(params.getString("type"));
    double const frequency = params.getDouble("frequency");
    double const q = params.getDouble("q");
    double const gain = params.getDouble("gain");
    if (frequency >= 0.5 * sampleRate)
        type = AudioFilter::Characteristic::Passthru;
    bool const usesQ = type != AudioFilter::Characteristic::Passthru &&
                       type != AudioFilter::Characteristic::LoShelf &&
                       type != AudioFilter::Characteristic::HiShelf;
    if (usesQ && q == 0.0)
        throw IllegalArgumentException("parameter q of module %0: must be above 0 for the type %1", getID(),
                                       params.getString("type"));
    double c[5];
    tBiQuadDesign::design(type, sampleRate, frequency, q, gain, c);
    for (double const coefficient : c)
        requireSampleRange(coefficient, "a filter coefficient");
}

void BiQuad::lookUpPrecalculatedKernel(ParameterSet const& ps)
{
    if (m_precalculatedKernelLookedUpFor == &ps)
        return;
    m_precalculatedEntry = findPrecalculatedBiQuadEntry(ps.b0, ps.b1, ps.b2, ps.a1, ps.a2);
    m_precalculatedKernel = m_precalculatedEntry ? m_precalculatedEntry->kernel : nullptr;
    m_precalculatedKernelLookedUpFor = &ps;
}

void BiQuad::prepareCascadeSection(CascadeSection& section)
{
    auto const* ps = static_cast<ParameterSet const*>(getCurrentParameterSet());
    section.sharedB1A1 = false;
    if (!ps) {
        // Before the first set the state is still zero, which the identity keeps.
        section.coefficients = {tSample(tSample::tFundamental(1) << 27), {}, {}, {}, {}};
        return;
    }
    lookUpPrecalculatedKernel(*ps);
    section.coefficients = *ps;
    if (PrecalculatedBiQuadEntry const* entry = m_precalculatedEntry) {
        // The kernel's own constants: the match is to 10^-5, not to the bit.
        int32_t const* raw = entry->raw;
        section.coefficients = {tSample(raw[0]), tSample(raw[1]), tSample(raw[2]), tSample(raw[3]),
                                tSample(raw[4])};
        section.sharedB1A1 = entry->sharesB1A1();
    }
}

void BiQuad::bindCascadeState(CascadeSection& section)
{
    section.z1[0] = &m_z1;
    section.z2[0] = &m_z2;
}

void BiQuad::process()
{
    AudioBuffer const* in = &inBuffer(0);
    AudioBuffer* out = &outBuffer(0);
    out->setSize(in->getNumSampleFrames());
    ZELMAR_ASSERT(out->getNumSampleFrames() >= in->getNumSampleFrames());
    auto const* ps = static_cast<ParameterSet const*>(getCurrentParameterSet());
    if (!ps) {
        out->copyFrom(in);
        return;
    }
    unsigned int const n = in->getNumSampleFrames();
    lookUpPrecalculatedKernel(*ps);
    if (m_precalculatedKernel)
        m_precalculatedKernel(in->getRawData(), out->getRawData(), n, m_z1, m_z2);
    else
        ps->run(in->getRawData(), out->getRawData(), n, m_z1, m_z2);
}

} // namespace Zelmar
