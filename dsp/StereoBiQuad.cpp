#include "dsp/StereoBiQuad.h"

namespace Zelmar {

void StereoBiQuad::process()
{
    auto const* ps = static_cast<ParameterSet const*>(getCurrentParameterSet());
    if (!ps) {
        outBuffer(0).copyFrom(&inBuffer(0));
        outBuffer(1).copyFrom(&inBuffer(1));
        return;
    }
    tSample const* inData[2];
    tSample* outData[2];
    for (unsigned int port = 0; port < 2; ++port) {
        AudioBuffer const* in = &inBuffer(port);
        AudioBuffer* out = &outBuffer(port);
        out->setSize(in->getNumSampleFrames());
        ZELMAR_ASSERT(out->getNumSampleFrames() >= in->getNumSampleFrames());
        inData[port] = in->getRawData();
        outData[port] = out->getRawData();
    }
    unsigned int const n = inBuffer(1).getNumSampleFrames();
    lookUpPrecalculatedKernel(*ps);
    if (m_precalculatedKernel) {
        m_precalculatedKernel(inData[0], outData[0], n, m_state.z1[0], m_state.z2[0]);
        m_precalculatedKernel(inData[1], outData[1], n, m_state.z1[1], m_state.z2[1]);
    } else {
        runStereoBiQuadCascade(ps, &m_state, 1, false, tSample::s_Zero, inData[0], inData[1], outData[0],
                               outData[1], n);
    }
}

void StereoBiQuad::bindCascadeState(CascadeSection& section)
{
    for (unsigned int channel = 0; channel < 2; ++channel) {
        section.z1[channel] = &m_state.z1[channel];
        section.z2[channel] = &m_state.z2[channel];
    }
}

} // namespace Zelmar
