#include "dsp/VectorLoops.h"

namespace Zelmar {

#if defined(ORVANDELDSP_SIMD_SSE41)

extern VectorLoops const c_sse41Loops;
extern void (*const c_avx2BiQuadCascade)(CascadeSection const*, unsigned int, unsigned int,
                                         tSample const* const*, tSample* const*, unsigned int);

namespace {

// Asked once at start-up, so the audio thread only reads a constant. AVX2 adds the pipelined cascade
// to the SSE4.1 loops.
VectorLoops const* const c_loops = [] {
    __builtin_cpu_init();
    static VectorLoops avx2 = c_sse41Loops;
    avx2.name = "avx2";
    avx2.biQuadCascade = c_avx2BiQuadCascade;
    if (__builtin_cpu_supports("avx2"))
        return static_cast<VectorLoops const*>(&avx2);
    return __builtin_cpu_supports("sse4.1") ? &c_sse41Loops : nullptr;
}();

} // namespace

VectorLoops const* vectorLoops()
{
    return c_loops;
}

#elif defined(ORVANDELDSP_SIMD_NEON)

extern VectorLoops const c_neonLoops;

VectorLoops const* vectorLoops()
{
    return &c_neonLoops;
}

#else

VectorLoops const* vectorLoops()
{
    return nullptr;
}

#endif

} // namespace Zelmar
