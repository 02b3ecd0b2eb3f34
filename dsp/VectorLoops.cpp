#include "dsp/VectorLoops.h"

namespace Zelmar {

#if defined(ORVANDELDSP_SIMD_SSE41)

extern VectorLoops const c_sse41Loops;

namespace {

// Asked once at start-up, so the audio thread only reads a constant.
bool const c_haveSse41 = [] {
    __builtin_cpu_init();
    return __builtin_cpu_supports("sse4.1") != 0;
}();

} // namespace

VectorLoops const* vectorLoops()
{
    return c_haveSse41 ? &c_sse41Loops : nullptr;
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
