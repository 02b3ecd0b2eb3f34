#include "dsp/BiQuadSection.h"

#if (defined(__x86_64__) || defined(__i386__)) && defined(__GNUC__)
#define ORVANDELDSP_SSE41_PATH 1
#include <smmintrin.h>
#endif

namespace Zelmar {

namespace {

// Both channels in one loop: the two recursions are independent, so their multiplies overlap.
template <unsigned int Sections, bool ApplyGain>
void runScalar(BiQuadSection const* sections, StereoBiQuadState* states, tSample gain, tSample const* inL,
               tSample const* inR, tSample* outL, tSample* outR, unsigned int numFrames)
{
    // Local copies: the output stores could otherwise alias coefficients and state and force reloads.
    BiQuadSection c[Sections];
    StereoBiQuadState s[Sections];
    for (unsigned int k = 0; k < Sections; ++k) {
        c[k] = sections[k];
        s[k] = states[k];
    }
    for (unsigned int i = 0; i < numFrames; ++i) {
        tSample yL = inL[i];
        tSample yR = inR[i];
        for (unsigned int k = 0; k < Sections; ++k) {
            yL = c[k].step(yL, s[k].z1[0], s[k].z2[0]);
            yR = c[k].step(yR, s[k].z1[1], s[k].z2[1]);
        }
        if (ApplyGain) {
            yL = yL * gain;
            yR = yR * gain;
        }
        outL[i] = yL;
        outR[i] = yR;
    }
    for (unsigned int k = 0; k < Sections; ++k)
        states[k] = s[k];
}

#ifdef ORVANDELDSP_SSE41_PATH

// One signed 32x32->64 multiply per channel in one instruction. The left channel lives in dword 0 and
// the right in dword 2; the multiply reads only those, and the low dword of a 64-bit product shifted
// right by 27 is the same for a logical and an arithmetic shift, so the odd dwords may hold anything.
struct VectorSection
{
    __m128i b0, b1, b2, a1, a2;
};

__attribute__((target("sse4.1"))) inline __m128i splat(tSample value)
{
    return _mm_set1_epi32(value.getRaw());
}

__attribute__((target("sse4.1"))) inline __m128i product(__m128i x, __m128i coefficient)
{
    return _mm_srli_epi64(_mm_mul_epi32(x, coefficient), 27);
}

__attribute__((target("sse4.1"))) inline __m128i step(VectorSection const& c, __m128i x, __m128i& z1,
                                                      __m128i& z2)
{
    __m128i const y = _mm_add_epi32(z1, product(x, c.b0));
    __m128i partial = _mm_add_epi32(z2, product(x, c.b1));
    // As in BiQuadSection::step: keep the z2 sum off the recursion through y.
    asm("" : "+x"(partial));
    z1 = _mm_sub_epi32(partial, product(y, c.a1));
    z2 = _mm_sub_epi32(product(x, c.b2), product(y, c.a2));
    return y;
}

template <unsigned int Sections, bool ApplyGain>
__attribute__((target("sse4.1"))) inline __m128i runFrame(VectorSection const* c, __m128i* z1, __m128i* z2,
                                                          __m128i gain, __m128i y)
{
    for (unsigned int k = 0; k < Sections; ++k)
        y = step(c[k], y, z1[k], z2[k]);
    return ApplyGain ? product(y, gain) : y;
}

template <unsigned int Sections, bool ApplyGain>
__attribute__((target("sse4.1"))) void runSse41(BiQuadSection const* sections, StereoBiQuadState* states,
                                                tSample gain, tSample const* inL, tSample const* inR,
                                                tSample* outL, tSample* outR, unsigned int numFrames)
{
    VectorSection c[Sections];
    __m128i z1[Sections], z2[Sections];
    for (unsigned int k = 0; k < Sections; ++k) {
        c[k] = {splat(sections[k].b0), splat(sections[k].b1), splat(sections[k].b2), splat(sections[k].a1),
                splat(sections[k].a2)};
        z1[k] = _mm_setr_epi32(states[k].z1[0].getRaw(), 0, states[k].z1[1].getRaw(), 0);
        z2[k] = _mm_setr_epi32(states[k].z2[0].getRaw(), 0, states[k].z2[1].getRaw(), 0);
    }
    __m128i const g = splat(gain);
    // Two frames per pass so that loads and stores move a pair of samples per channel.
    unsigned int i = 0;
    for (; i + 2 <= numFrames; i += 2) {
        __m128i const x = _mm_unpacklo_epi32(_mm_loadl_epi64(reinterpret_cast<__m128i const*>(inL + i)),
                                             _mm_loadl_epi64(reinterpret_cast<__m128i const*>(inR + i)));
        __m128i const y0 =
            runFrame<Sections, ApplyGain>(c, z1, z2, g, _mm_shuffle_epi32(x, _MM_SHUFFLE(1, 1, 0, 0)));
        __m128i const y1 =
            runFrame<Sections, ApplyGain>(c, z1, z2, g, _mm_shuffle_epi32(x, _MM_SHUFFLE(3, 3, 2, 2)));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(outL + i), _mm_unpacklo_epi32(y0, y1));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(outR + i), _mm_unpackhi_epi32(y0, y1));
    }
    if (i < numFrames) {
        __m128i const y = runFrame<Sections, ApplyGain>(
            c, z1, z2, g, _mm_setr_epi32(inL[i].getRaw(), 0, inR[i].getRaw(), 0));
        outL[i] = tSample(_mm_cvtsi128_si32(y));
        outR[i] = tSample(_mm_extract_epi32(y, 2));
    }
    for (unsigned int k = 0; k < Sections; ++k) {
        states[k].z1[0] = tSample(_mm_cvtsi128_si32(z1[k]));
        states[k].z1[1] = tSample(_mm_extract_epi32(z1[k], 2));
        states[k].z2[0] = tSample(_mm_cvtsi128_si32(z2[k]));
        states[k].z2[1] = tSample(_mm_extract_epi32(z2[k], 2));
    }
}

// Asked once at start-up, so the audio thread only reads a constant.
bool const c_haveSse41 = [] {
    __builtin_cpu_init();
    return __builtin_cpu_supports("sse4.1") != 0;
}();

#endif

template <bool Vector>
void dispatch(BiQuadSection const* sections, StereoBiQuadState* states, unsigned int numSections,
              bool applyGain, tSample gain, tSample const* inL, tSample const* inR, tSample* outL,
              tSample* outR, unsigned int numFrames)
{
#ifdef ORVANDELDSP_SSE41_PATH
    if (Vector && c_haveSse41) {
        if (numSections == 1 && !applyGain)
            return runSse41<1, false>(sections, states, gain, inL, inR, outL, outR, numFrames);
        ZELMAR_ASSERT(numSections == 3 && applyGain);
        return runSse41<3, true>(sections, states, gain, inL, inR, outL, outR, numFrames);
    }
#endif
    if (numSections == 1 && !applyGain)
        return runScalar<1, false>(sections, states, gain, inL, inR, outL, outR, numFrames);
    ZELMAR_ASSERT(numSections == 3 && applyGain);
    runScalar<3, true>(sections, states, gain, inL, inR, outL, outR, numFrames);
}

} // namespace

void runStereoBiQuadCascade(BiQuadSection const* sections, StereoBiQuadState* states,
                            unsigned int numSections, bool applyGain, tSample gain, tSample const* inL,
                            tSample const* inR, tSample* outL, tSample* outR, unsigned int numFrames)
{
    dispatch<true>(sections, states, numSections, applyGain, gain, inL, inR, outL, outR, numFrames);
}

void runStereoBiQuadCascadeScalar(BiQuadSection const* sections, StereoBiQuadState* states,
                                  unsigned int numSections, bool applyGain, tSample gain, tSample const* inL,
                                  tSample const* inR, tSample* outL, tSample* outR, unsigned int numFrames)
{
    dispatch<false>(sections, states, numSections, applyGain, gain, inL, inR, outL, outR, numFrames);
}

} // namespace Zelmar
