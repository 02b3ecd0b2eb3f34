#include "dsp/BiQuadSection.h"

#include "dsp/VectorLoops.h"

namespace Zelmar {

namespace {

// One section on one channel in the form of runBiQuadLoop: y, its input x and z2 of the current frame
// are carried, and advance() moves them to the next frame given that frame's input, summing all but
// a1 y before y is known.
struct SectionState
{
    tSample x, y, s2;

    void start(BiQuadSection const& c, tSample z1, tSample z2, tSample input)
    {
        x = input;
        y = z1 + c.b0 * input;
        s2 = z2;
    }

    void advance(BiQuadSection const& c, tSample next)
    {
        tSample ahead = s2 + c.b1 * x + c.b0 * next;
        keepOffCarriedPath(ahead);
        s2 = c.b2 * x - c.a2 * y;
        y = ahead - c.a1 * y;
        x = next;
    }

    tSample z1(BiQuadSection const& c) const { return (s2 + c.b1 * x) - c.a1 * y; }
    tSample z2(BiQuadSection const& c) const { return c.b2 * x - c.a2 * y; }
};

// Both channels in one loop: the two recursions are independent, so their multiplies overlap. Each
// section's new y is the next one's input at the same frame.
template <unsigned int Sections, bool ApplyGain>
void runScalar(BiQuadSection const* sections, StereoBiQuadState* states, tSample gain, tSample const* inL,
               tSample const* inR, tSample* outL, tSample* outR, unsigned int numFrames)
{
    if (numFrames == 0)
        return;
    // Local copies: the output stores could otherwise alias coefficients and state and force reloads.
    BiQuadSection c[Sections];
    SectionState s[Sections][2];
    tSample inputL = inL[0], inputR = inR[0];
    for (unsigned int k = 0; k < Sections; ++k) {
        c[k] = sections[k];
        s[k][0].start(c[k], states[k].z1[0], states[k].z2[0], inputL);
        s[k][1].start(c[k], states[k].z1[1], states[k].z2[1], inputR);
        inputL = s[k][0].y;
        inputR = s[k][1].y;
    }
    // Frame i is written after frame i + 1 is read, so in == out is safe.
    for (unsigned int i = 0;; ++i) {
        tSample yL = s[Sections - 1][0].y;
        tSample yR = s[Sections - 1][1].y;
        if (ApplyGain) {
            yL = yL * gain;
            yR = yR * gain;
        }
        if (i + 1 == numFrames) {
            outL[i] = yL;
            outR[i] = yR;
            break;
        }
        tSample nextL = inL[i + 1], nextR = inR[i + 1];
        outL[i] = yL;
        outR[i] = yR;
// Unrolled, so that the state of every section stays in registers.
#pragma GCC unroll 3
        for (unsigned int k = 0; k < Sections; ++k) {
            s[k][0].advance(c[k], nextL);
            s[k][1].advance(c[k], nextR);
            nextL = s[k][0].y;
            nextR = s[k][1].y;
        }
    }
    for (unsigned int k = 0; k < Sections; ++k) {
        for (unsigned int ch = 0; ch < 2; ++ch) {
            states[k].z1[ch] = s[k][ch].z1(c[k]);
            states[k].z2[ch] = s[k][ch].z2(c[k]);
        }
    }
}

void checkCascadeShape(unsigned int numSections, bool applyGain)
{
    ZELMAR_ASSERT((numSections == 1 && !applyGain) || (numSections == 3 && applyGain));
}

} // namespace

void runStereoBiQuadCascade(BiQuadSection const* sections, StereoBiQuadState* states,
                            unsigned int numSections, bool applyGain, tSample gain, tSample const* inL,
                            tSample const* inR, tSample* outL, tSample* outR, unsigned int numFrames)
{
    VectorLoops const* vector = vectorLoops();
    if (!vector)
        return runStereoBiQuadCascadeScalar(sections, states, numSections, applyGain, gain, inL, inR, outL,
                                            outR, numFrames);
    checkCascadeShape(numSections, applyGain);
    auto const run = numSections == 1 ? vector->stereoBiQuad : vector->stereoThreeBandsWithGain;
    run(sections, states, gain, inL, inR, outL, outR, numFrames);
}

void runStereoBiQuadCascadeScalar(BiQuadSection const* sections, StereoBiQuadState* states,
                                  unsigned int numSections, bool applyGain, tSample gain, tSample const* inL,
                                  tSample const* inR, tSample* outL, tSample* outR, unsigned int numFrames)
{
    checkCascadeShape(numSections, applyGain);
    auto const run = numSections == 1 ? &runScalar<1, false> : &runScalar<3, true>;
    run(sections, states, gain, inL, inR, outL, outR, numFrames);
}

namespace {

using tSectionLoop = void (*)(BiQuadSection const&, tSample const*, tSample*, unsigned int, tSample&,
                              tSample&);

// Section after section over the buffer, each with the loop its module would run.
void runSectionAfterSection(CascadeSection const* sections, unsigned int numSections,
                            unsigned int numChannels, tSample const* const* in, tSample* const* out,
                            unsigned int numFrames, tSectionLoop generic, tSectionLoop shared)
{
    for (unsigned int channel = 0; channel < numChannels; ++channel) {
        tSample const* from = in[channel];
        for (unsigned int k = 0; k < numSections; ++k) {
            CascadeSection const& s = sections[k];
            (s.sharedB1A1 ? shared : generic)(s.coefficients, from, out[channel], numFrames, *s.z1[channel],
                                              *s.z2[channel]);
            from = out[channel];
        }
    }
}

} // namespace

void runBiQuadCascade(CascadeSection const* sections, unsigned int numSections, unsigned int numChannels,
                      tSample const* const* in, tSample* const* out, unsigned int numFrames)
{
    VectorLoops const* vector = vectorLoops();
    if (vector && vector->biQuadCascade)
        return vector->biQuadCascade(sections, numSections, numChannels, in, out, numFrames);
    runSectionAfterSection(sections, numSections, numChannels, in, out, numFrames, &runMonoBiQuad,
                           &runMonoBiQuadSharedB1A1);
}

void runBiQuadCascadeScalar(CascadeSection const* sections, unsigned int numSections,
                            unsigned int numChannels, tSample const* const* in, tSample* const* out,
                            unsigned int numFrames)
{
    runSectionAfterSection(
        sections, numSections, numChannels, in, out, numFrames,
        [](BiQuadSection const& c, tSample const* from, tSample* to, unsigned int n, tSample& z1,
           tSample& z2) { runBiQuadLoop(c, from, to, n, z1, z2); },
        [](BiQuadSection const& c, tSample const* from, tSample* to, unsigned int n, tSample& z1,
           tSample& z2) { runBiQuadLoopSharedB1A1(c, from, to, n, z1, z2); });
}

void runMonoBiQuadScalar(BiQuadSection const& section, bool sharedB1A1, tSample const* in, tSample* out,
                         unsigned int numFrames, tSample& z1, tSample& z2)
{
    if (sharedB1A1)
        runBiQuadLoopSharedB1A1(section, in, out, numFrames, z1, z2);
    else
        runBiQuadLoop(section, in, out, numFrames, z1, z2);
}

void runMonoBiQuad(BiQuadSection const& section, tSample const* in, tSample* out, unsigned int numFrames,
                   tSample& z1, tSample& z2)
{
    if (VectorLoops const* vector = vectorLoops())
        return vector->monoBiQuad(section, in, out, numFrames, z1, z2);
    runBiQuadLoop(section, in, out, numFrames, z1, z2);
}

void runMonoBiQuadSharedB1A1(BiQuadSection const& section, tSample const* in, tSample* out,
                             unsigned int numFrames, tSample& z1, tSample& z2)
{
    if (VectorLoops const* vector = vectorLoops())
        return vector->monoBiQuadSharedB1A1(section, in, out, numFrames, z1, z2);
    runBiQuadLoopSharedB1A1(section, in, out, numFrames, z1, z2);
}

} // namespace Zelmar
