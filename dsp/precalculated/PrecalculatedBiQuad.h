#pragma once

#include "dsp/BiQuadSection.h"
#include "dsp/FixedPoint.h"
#include "dsp/VectorLoops.h"

#include <cstdint>

namespace Zelmar {

// A biquad with its coefficients compiled in; processes numFrames samples (in == out allowed) and
// carries the state in z1 and z2 exactly as BiQuadSection::run does.
using tBiQuadKernel = void (*)(tSample const* in, tSample* out, unsigned int numFrames, tSample& z1,
                               tSample& z2);

// The kernel whose designed coefficients agree with these to 10^-5, or null. Scans the generated table
// once per coefficient change; no allocation, safe on the audio thread.
tBiQuadKernel findPrecalculatedBiQuad(tSample b0, tSample b1, tSample b2, tSample a1, tSample a2);

// A coefficient in units of 10^-5, truncated. The steps are single precision on purpose: the generated
// table was keyed the same way.
inline int32_t quantisePrecalculatedBiQuadKey(tSample coefficient)
{
    return static_cast<int32_t>(static_cast<float>(coefficient.getRaw()) * 7.450580596923828e-09f *
                                100000.0f);
}

struct PrecalculatedBiQuadEntry
{
    int32_t key[5]; // b0, b1, b2, a1, a2 in units of 10^-5
    int32_t raw[5]; // the Q4.27 constants compiled into the kernel
    tBiQuadKernel kernel;
    char const* name;
};

// Generated at build time, in lookup order.
extern PrecalculatedBiQuadEntry const c_precalculatedBiQuads[];
extern unsigned int const c_numPrecalculatedBiQuads;

// Kernel bodies: the loops of BiQuadSection. Where a vector loop exists it beats folded constants, so
// the constants are handed to it; elsewhere the compiler folds them into the scalar loop.
template <int32_t B0, int32_t B1, int32_t B2, int32_t A1, int32_t A2> struct ConstantBiQuadCoefficients
{
    static constexpr tSample b0{B0}, b1{B1}, b2{B2}, a1{A1}, a2{A2};
};

template <int32_t B0, int32_t B1, int32_t B2, int32_t A1, int32_t A2>
void runPrecalculatedBiQuad(tSample const* in, tSample* out, unsigned int numFrames, tSample& z1, tSample& z2)
{
    if constexpr (c_targetHasVectorLoops)
        runMonoBiQuad(BiQuadSection{tSample(B0), tSample(B1), tSample(B2), tSample(A1), tSample(A2)}, in, out,
                      numFrames, z1, z2);
    else
        runBiQuadLoop(ConstantBiQuadCoefficients<B0, B1, B2, A1, A2>(), in, out, numFrames, z1, z2);
}

// With b1 == a1 one product of the 32-bit difference x - y replaces two; the result may differ from
// the generic loop in the lowest bit, and that is accepted.
template <int32_t B0, int32_t B1, int32_t B2, int32_t A2>
void runPrecalculatedBiQuadSharedB1A1(tSample const* in, tSample* out, unsigned int numFrames, tSample& z1,
                                      tSample& z2)
{
    if constexpr (c_targetHasVectorLoops)
        runMonoBiQuadSharedB1A1(
            BiQuadSection{tSample(B0), tSample(B1), tSample(B2), tSample(B1), tSample(A2)}, in, out,
            numFrames, z1, z2);
    else
        runBiQuadLoopSharedB1A1(ConstantBiQuadCoefficients<B0, B1, B2, B1, A2>(), in, out, numFrames, z1, z2);
}

} // namespace Zelmar
