#pragma once

#include "dsp/BiQuadCoefficients.h"
#include "dsp/FixedPoint.h"

namespace Zelmar {

using tBiQuadDesign = AudioFilter::BiquadCoefficients<double, tSample>;

// Wrapping sums are associative, so the compiler may reorder a sum and put one more add on the
// recursion through y. An empty asm makes the partial sum opaque; the bits do not change.
inline void keepOffCarriedPath(tSample& partial)
{
#if defined(__GNUC__)
    int32_t raw = partial.getRaw();
    asm("" : "+r"(raw));
    partial.setRaw(raw);
#else
    (void)partial;
#endif
}

// The loop of BiQuadSection for any type with members b0, b1, b2, a1, a2 (constants in the generated
// kernels). It carries y rather than z1: y[i+1] = (z2 + b1 x[i] + b0 x[i+1]) - a1 y[i] is the same
// wrapped sum as z1 + b0 x[i+1], but everything except a1 y[i] is ready before y[i] is, so the
// recursion is one multiply, shift and subtract per sample. in == out is safe: in[i+1] is read before
// out[i] is written. The coefficients come by value: the output stores cannot alias a local copy.
template <class Coefficients>
void runBiQuadLoop(Coefficients const c, tSample const* in, tSample* out, unsigned int numFrames, tSample& z1,
                   tSample& z2)
{
    if (numFrames == 0)
        return;
    tSample s2 = z2;
    tSample x = in[0];
    tSample y = z1 + c.b0 * x;
    for (unsigned int i = 0; i + 1 < numFrames; ++i) {
        tSample const next = in[i + 1];
        tSample ahead = s2 + c.b1 * x + c.b0 * next;
        keepOffCarriedPath(ahead);
        s2 = c.b2 * x - c.a2 * y;
        out[i] = y;
        y = ahead - c.a1 * y;
        x = next;
    }
    out[numFrames - 1] = y;
    z1 = (s2 + c.b1 * x) - c.a1 * y;
    z2 = c.b2 * x - c.a2 * y;
}

// The same with z1 = z2 + (x - y) b1 for sections whose b1 equals a1: x - y is formed in 32 bits and
// one product replaces two, which may differ from runBiQuadLoop in the lowest bit. a1 is not read.
template <class Coefficients>
void runBiQuadLoopSharedB1A1(Coefficients const c, tSample const* in, tSample* out, unsigned int numFrames,
                             tSample& z1, tSample& z2)
{
    if (numFrames == 0)
        return;
    tSample s2 = z2;
    tSample x = in[0];
    tSample y = z1 + c.b0 * x;
    for (unsigned int i = 0; i + 1 < numFrames; ++i) {
        tSample const next = in[i + 1];
        tSample ahead = s2 + c.b0 * next;
        keepOffCarriedPath(ahead);
        s2 = c.b2 * x - c.a2 * y;
        out[i] = y;
        y = ahead + (x - y) * c.b1;
        x = next;
    }
    out[numFrames - 1] = y;
    z1 = s2 + (x - y) * c.b1;
    z2 = c.b2 * x - c.a2 * y;
}

struct BiQuadSection;

// One section on one channel: runBiQuadLoop, or the target's vector loop with the same bits.
void runMonoBiQuad(BiQuadSection const& section, tSample const* in, tSample* out, unsigned int numFrames,
                   tSample& z1, tSample& z2);

// The same for runBiQuadLoopSharedB1A1.
void runMonoBiQuadSharedB1A1(BiQuadSection const& section, tSample const* in, tSample* out,
                             unsigned int numFrames, tSample& z1, tSample& z2);

// The scalar loops alone, whatever the processor offers; the reference the vector loops are tested
// against.
void runMonoBiQuadScalar(BiQuadSection const& section, bool sharedB1A1, tSample const* in, tSample* out,
                         unsigned int numFrames, tSample& z1, tSample& z2);

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

    void run(tSample const* in, tSample* out, unsigned int numFrames, tSample& z1, tSample& z2) const
    {
        runMonoBiQuad(*this, in, out, numFrames, z1, z2);
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

// One section of a fused cascade: the coefficients and the loop (runBiQuadLoop, or the shared form of
// runBiQuadLoopSharedB1A1) that its module would run on its own, and its state per channel.
struct CascadeSection
{
    BiQuadSection coefficients;
    bool sharedB1A1;
    tSample* z1[2];
    tSample* z2[2];
};

// Runs numSections sections one after another over one channel (numChannels 1) or both of a pair (2),
// from in to out (in == out is safe), with every output bit that each section's own loop would give on
// each channel in turn, state included.
void runBiQuadCascade(CascadeSection const* sections, unsigned int numSections, unsigned int numChannels,
                      tSample const* const* in, tSample* const* out, unsigned int numFrames);

// The same section after section with the scalar loops, whatever the processor offers; the reference the
// vector path is tested against.
void runBiQuadCascadeScalar(CascadeSection const* sections, unsigned int numSections,
                            unsigned int numChannels, tSample const* const* in, tSample* const* out,
                            unsigned int numFrames);

} // namespace Zelmar
