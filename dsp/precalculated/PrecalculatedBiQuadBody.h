#pragma once

// The body every generated kernel runs; included by the generated kernels only, so the choice of vector
// path stays out of the headers hosts see.
#include "dsp/BiQuadSection.h"
#include "dsp/VectorLoops.h"
#include "dsp/precalculated/PrecalculatedBiQuad.h"

namespace Zelmar {

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
