#include "dsp/StereoBiQuad.h"

namespace Zelmar {

namespace {

// Both channels in one loop: the two recursions are independent, so their multiplies overlap. The
// bits are those of running each channel on its own.
void runInterleaved(BiQuadSection const& coefficients, tSample const* inL, tSample const* inR, tSample* outL,
                    tSample* outR, unsigned int numFrames, tSample& z1L, tSample& z2L, tSample& z1R,
                    tSample& z2R)
{
    // A local copy: the output stores could otherwise alias the coefficients and force reloads.
    BiQuadSection const c = coefficients;
    tSample s1L = z1L, s2L = z2L, s1R = z1R, s2R = z2R;
    for (unsigned int i = 0; i < numFrames; ++i) {
        tSample const xL = inL[i];
        tSample const xR = inR[i];
        outL[i] = c.step(xL, s1L, s2L);
        outR[i] = c.step(xR, s1R, s2R);
    }
    z1L = s1L, z2L = s2L, z1R = s1R, z2R = s2R;
}

} // namespace

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
        m_precalculatedKernel(inData[0], outData[0], n, m_z1Left, m_z2Left);
        m_precalculatedKernel(inData[1], outData[1], n, m_z1Right, m_z2Right);
    } else {
        runInterleaved(*ps, inData[0], inData[1], outData[0], outData[1], n, m_z1Left, m_z2Left, m_z1Right,
                       m_z2Right);
    }
}

} // namespace Zelmar
