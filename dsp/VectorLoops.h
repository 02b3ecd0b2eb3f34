#pragma once

#include "dsp/FixedPoint.h"

// The one place that decides which vector instructions the hot loops use: SSE4.1 on x86 (asked of
// the processor at start-up), NEON where the compiler targets it (-mfpu=neon on 32-bit ARM), none
// elsewhere. Each vector file compiles its loops only for its own path; everything else calls them
// through vectorLoops() and never names an instruction set.
#if (defined(__x86_64__) || defined(__i386__)) && defined(__GNUC__)
#define ORVANDELDSP_SIMD_SSE41 1
#elif defined(__ARM_NEON)
#define ORVANDELDSP_SIMD_NEON 1
#endif

namespace Zelmar {

struct BiQuadSection;
struct StereoBiQuadState;
struct CascadeSection;

// Vector forms of scalar loops, each with exactly the bits of the loop it replaces (named beside it).
struct VectorLoops
{
    char const* name;
    // runStereoBiQuadCascade with one section and no gain (which it ignores), and with three sections
    // and the gain.
    using tStereoCascade = void (*)(BiQuadSection const* sections, StereoBiQuadState* states, tSample gain,
                                    tSample const* inL, tSample const* inR, tSample* outL, tSample* outR,
                                    unsigned int numFrames);
    tStereoCascade stereoBiQuad;
    tStereoCascade stereoThreeBandsWithGain;
    // runBiQuadLoop and runBiQuadLoopSharedB1A1.
    void (*monoBiQuad)(BiQuadSection const& section, tSample const* in, tSample* out, unsigned int numFrames,
                       tSample& z1, tSample& z2);
    void (*monoBiQuadSharedB1A1)(BiQuadSection const& section, tSample const* in, tSample* out,
                                 unsigned int numFrames, tSample& z1, tSample& z2);
    // Every sample becomes sample * gain, as AudioBuffer::amplify.
    void (*amplify)(tSample* samples, unsigned int numSamples, tSample gain);
    // runBiQuadCascade; null where the sections run one after another with the loops above.
    void (*biQuadCascade)(CascadeSection const* sections, unsigned int numSections, unsigned int numChannels,
                          tSample const* const* in, tSample* const* out, unsigned int numFrames);
};

// The loops for this target and processor, or null where there are none.
VectorLoops const* vectorLoops();

// Whether this target has a vector path at all; the generated kernels then hand their constants to it.
#if defined(ORVANDELDSP_SIMD_SSE41) || defined(ORVANDELDSP_SIMD_NEON)
constexpr bool c_targetHasVectorLoops = true;
#else
constexpr bool c_targetHasVectorLoops = false;
#endif

} // namespace Zelmar
