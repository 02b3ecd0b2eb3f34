#pragma once

#include "dsp/BiQuadCoefficients.h"
#include "dsp/FixedPoint.h"

namespace Zelmar {

using tBiQuadDesign = AudioFilter::BiquadCoefficients<double, tSample>;

// The five coefficients of one second-order section and the loop that runs them. Every product is a
// Q4.27 product (64-bit, shifted right by 27, truncating) and every sum wraps without saturating. The
// four integer bits are the headroom: output and both state words must stay below 16 in magnitude,
// which a full-scale input keeps through boosts of up to about 20 dB. Inputs are read before outputs
// are written, so in == out is safe.
struct BiQuadSection
{
    tSample b0, b1, b2, a1, a2;

    void design(AudioFilter::Characteristic type, double sampleRate, double frequency, double q,
                double gainDb)
    {
        tBiQuadDesign::get(type, sampleRate, frequency, q, gainDb, b0, b1, b2, a1, a2);
    }

    // Transposed direct form II: y = z1 + b0 x; z1 = z2 + b1 x - a1 y; z2 = b2 x - a2 y.
    tSample step(tSample x, tSample& z1, tSample& z2) const
    {
        tSample const y = z1 + b0 * x;
        tSample partial = z2 + b1 * x;
        keepOffCarriedPath(partial);
        z1 = partial - a1 * y;
        z2 = b2 * x - a2 * y;
        return y;
    }

    // Wrapping sums are associative, so the compiler may add z2 after a1 y, which puts one more add on
    // the recursion through y. An empty asm makes the partial sum opaque; the bits do not change.
    static void keepOffCarriedPath(tSample& partial)
    {
#if defined(__GNUC__)
        int32_t raw = partial.getRaw();
        asm("" : "+r"(raw));
        partial.setRaw(raw);
#else
        (void)partial;
#endif
    }

    void run(tSample const* in, tSample* out, unsigned int numFrames, tSample& z1, tSample& z2) const
    {
        BiQuadSection const c = *this;
        tSample s1 = z1, s2 = z2;
        for (unsigned int i = 0; i < numFrames; ++i)
            out[i] = c.step(in[i], s1, s2);
        z1 = s1;
        z2 = s2;
    }
};

} // namespace Zelmar

namespace Zelmar {

// The state of one section on a stereo pair, index 0 = left, 1 = right.
struct StereoBiQuadState
{
    tSample z1[2];
    tSample z2[2];
};

// Runs numSections sections in cascade over both channels of a stereo pair, then multiplies by gain
// (a Q4.27 product, skipped when applyGain is false). The bits are those of BiQuadSection::run on each
// channel and section in turn. in == out is safe per channel. Only 1 and 3 sections are built.
void runStereoBiQuadCascade(BiQuadSection const* sections, StereoBiQuadState* states,
                            unsigned int numSections, bool applyGain, tSample gain, tSample const* inL,
                            tSample const* inR, tSample* outL, tSample* outR, unsigned int numFrames);

// The same without vector instructions, whatever the processor offers; the reference the vector path is
// tested against.
void runStereoBiQuadCascadeScalar(BiQuadSection const* sections, StereoBiQuadState* states,
                                  unsigned int numSections, bool applyGain, tSample gain, tSample const* inL,
                                  tSample const* inR, tSample* outL, tSample* outR, unsigned int numFrames);

} // namespace Zelmar
