#pragma once

#include "dsp/FixedPoint.h"

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

    // The kernel runs z1 = z2 + (x - y) b1 (runBiQuadLoopSharedB1A1) rather than the generic loop.
    bool sharesB1A1() const { return raw[1] == raw[3]; }
};

// The table entry findPrecalculatedBiQuad takes its kernel from, or null.
PrecalculatedBiQuadEntry const* findPrecalculatedBiQuadEntry(tSample b0, tSample b1, tSample b2, tSample a1,
                                                             tSample a2);

// Generated at build time, in lookup order.
extern PrecalculatedBiQuadEntry const c_precalculatedBiQuads[];
extern unsigned int const c_numPrecalculatedBiQuads;

} // namespace Zelmar
