#include "dsp/VectorLoops.h"

#ifdef ORVANDELDSP_SIMD_SSE41

#include "dsp/BiQuadSection.h"

#include <smmintrin.h>

namespace Zelmar {

namespace {

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

// A section in the form of runBiQuadLoop: y, its input x and z2 of the current frame are carried, and
// advance() moves them to the next frame given that frame's input. Everything but a1 y is summed
// before y is known, so the recursion is one multiply, shift and subtract.
struct VectorSectionState
{
    __m128i x, y, s2;

    __attribute__((target("sse4.1"))) void start(VectorSection const& c, __m128i z1, __m128i z2,
                                                 __m128i input)
    {
        x = input;
        y = _mm_add_epi32(z1, product(input, c.b0));
        s2 = z2;
    }

    __attribute__((target("sse4.1"))) void advance(VectorSection const& c, __m128i next)
    {
        __m128i ahead = _mm_add_epi32(_mm_add_epi32(s2, product(x, c.b1)), product(next, c.b0));
        asm("" : "+x"(ahead));
        s2 = _mm_sub_epi32(product(x, c.b2), product(y, c.a2));
        y = _mm_sub_epi32(ahead, product(y, c.a1));
        x = next;
    }

    __attribute__((target("sse4.1"))) __m128i z1(VectorSection const& c) const
    {
        return _mm_sub_epi32(_mm_add_epi32(s2, product(x, c.b1)), product(y, c.a1));
    }

    __attribute__((target("sse4.1"))) __m128i z2(VectorSection const& c) const
    {
        return _mm_sub_epi32(product(x, c.b2), product(y, c.a2));
    }
};

__attribute__((target("sse4.1"))) inline __m128i frame(tSample const* inL, tSample const* inR, unsigned int i)
{
    return _mm_setr_epi32(inL[i].getRaw(), 0, inR[i].getRaw(), 0);
}

// Moves every section of the cascade one frame on; next is the cascade's input at that frame, and each
// section's new y is the next one's input. Returns the cascade's output at the frame being left.
template <unsigned int Sections, bool ApplyGain>
__attribute__((target("sse4.1"))) inline __m128i advanceFrame(VectorSection const* c, VectorSectionState* s,
                                                              __m128i gain, __m128i next)
{
    __m128i const y = s[Sections - 1].y;
// Unrolled, so that the state of every section stays in registers.
#pragma GCC unroll 3
    for (unsigned int k = 0; k < Sections; ++k) {
        s[k].advance(c[k], next);
        next = s[k].y;
    }
    return ApplyGain ? product(y, gain) : y;
}

template <unsigned int Sections, bool ApplyGain>
__attribute__((target("sse4.1"))) void runSse41(BiQuadSection const* sections, StereoBiQuadState* states,
                                                tSample gain, tSample const* inL, tSample const* inR,
                                                tSample* outL, tSample* outR, unsigned int numFrames)
{
    if (numFrames == 0)
        return;
    VectorSection c[Sections];
    VectorSectionState s[Sections];
    __m128i input = frame(inL, inR, 0);
    for (unsigned int k = 0; k < Sections; ++k) {
        c[k] = {splat(sections[k].b0), splat(sections[k].b1), splat(sections[k].b2), splat(sections[k].a1),
                splat(sections[k].a2)};
        s[k].start(c[k], _mm_setr_epi32(states[k].z1[0].getRaw(), 0, states[k].z1[1].getRaw(), 0),
                   _mm_setr_epi32(states[k].z2[0].getRaw(), 0, states[k].z2[1].getRaw(), 0), input);
        input = s[k].y;
    }
    __m128i const g = splat(gain);
    // Two frames per pass so that loads and stores move a pair of samples per channel; frames i + 1 and
    // i + 2 are read before frames i and i + 1 are written.
    unsigned int i = 0;
    for (; i + 3 <= numFrames; i += 2) {
        __m128i const x = _mm_unpacklo_epi32(_mm_loadl_epi64(reinterpret_cast<__m128i const*>(inL + i + 1)),
                                             _mm_loadl_epi64(reinterpret_cast<__m128i const*>(inR + i + 1)));
        __m128i const y0 =
            advanceFrame<Sections, ApplyGain>(c, s, g, _mm_shuffle_epi32(x, _MM_SHUFFLE(1, 1, 0, 0)));
        __m128i const y1 =
            advanceFrame<Sections, ApplyGain>(c, s, g, _mm_shuffle_epi32(x, _MM_SHUFFLE(3, 3, 2, 2)));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(outL + i), _mm_unpacklo_epi32(y0, y1));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(outR + i), _mm_unpackhi_epi32(y0, y1));
    }
    for (; i + 1 < numFrames; ++i) {
        __m128i const y = advanceFrame<Sections, ApplyGain>(c, s, g, frame(inL, inR, i + 1));
        outL[i] = tSample(_mm_cvtsi128_si32(y));
        outR[i] = tSample(_mm_extract_epi32(y, 2));
    }
    __m128i const last = ApplyGain ? product(s[Sections - 1].y, g) : s[Sections - 1].y;
    outL[i] = tSample(_mm_cvtsi128_si32(last));
    outR[i] = tSample(_mm_extract_epi32(last, 2));
    for (unsigned int k = 0; k < Sections; ++k) {
        __m128i const z1 = s[k].z1(c[k]), z2 = s[k].z2(c[k]);
        states[k].z1[0] = tSample(_mm_cvtsi128_si32(z1));
        states[k].z1[1] = tSample(_mm_extract_epi32(z1, 2));
        states[k].z2[0] = tSample(_mm_cvtsi128_si32(z2));
        states[k].z2[1] = tSample(_mm_extract_epi32(z2, 2));
    }
}

// One channel, four frames per pass. The recursion runs in dword 0 of a vector, where a multiply, a
// shift and a subtract carry y to the next frame with no sign extension in between. The products of
// the input are made ahead, two frames per multiply: dwords 0 and 2 of "even" hold frames i and i + 2,
// of "odd" frames i + 1 and i + 3. Frame i + 5 is read, so the pass needs six frames; the scalar loop
// finishes, starting from z1 = y - b0 x, which undoes y = z1 + b0 x exactly.
template <bool SharedB1A1>
__attribute__((target("sse4.1"))) void runMonoSse41(BiQuadSection const& section, tSample const* in,
                                                    tSample* out, unsigned int numFrames, tSample& z1,
                                                    tSample& z2)
{
    BiQuadSection const c = section;
    unsigned int i = 0;
    if (numFrames >= 6) {
        __m128i const b0 = splat(c.b0), b1 = splat(c.b1), b2 = splat(c.b2), a1 = splat(c.a1),
                      a2 = splat(c.a2);
        __m128i y = _mm_cvtsi32_si128((z1 + c.b0 * in[0]).getRaw());
        __m128i s2 = _mm_cvtsi32_si128(z2.getRaw());
        for (; i + 6 <= numFrames; i += 4) {
            __m128i const x0 = _mm_loadu_si128(reinterpret_cast<__m128i const*>(in + i));
            __m128i const x1 = _mm_loadu_si128(reinterpret_cast<__m128i const*>(in + i + 1));
            __m128i const x2 = _mm_loadu_si128(reinterpret_cast<__m128i const*>(in + i + 2));
            // ahead = z2 + b1 x + b0 x' (x' the next frame; b1 x is left out when it pairs with y).
            __m128i const aheadEven =
                SharedB1A1 ? product(x1, b0) : _mm_add_epi32(product(x0, b1), product(x1, b0));
            __m128i const aheadOdd =
                SharedB1A1 ? product(x2, b0) : _mm_add_epi32(product(x1, b1), product(x2, b0));
            __m128i const b2xEven = product(x0, b2), b2xOdd = product(x1, b2);
            __m128i const f[4] = {aheadEven, aheadOdd, _mm_srli_si128(aheadEven, 8),
                                  _mm_srli_si128(aheadOdd, 8)};
            __m128i const g[4] = {b2xEven, b2xOdd, _mm_srli_si128(b2xEven, 8), _mm_srli_si128(b2xOdd, 8)};
            __m128i const x[4] = {x0, x1, _mm_srli_si128(x0, 8), _mm_srli_si128(x1, 8)};
            __m128i ys[4];
            for (int k = 0; k < 4; ++k) {
                __m128i ahead = _mm_add_epi32(s2, f[k]);
                asm("" : "+x"(ahead));
                s2 = _mm_sub_epi32(g[k], product(y, a2));
                ys[k] = y;
                y = SharedB1A1 ? _mm_add_epi32(ahead, product(_mm_sub_epi32(x[k], y), b1))
                               : _mm_sub_epi32(ahead, product(y, a1));
            }
            _mm_storeu_si128(
                reinterpret_cast<__m128i*>(out + i),
                _mm_unpacklo_epi64(_mm_unpacklo_epi32(ys[0], ys[1]), _mm_unpacklo_epi32(ys[2], ys[3])));
        }
        z1 = tSample(_mm_cvtsi128_si32(y)) - c.b0 * in[i];
        z2 = tSample(_mm_cvtsi128_si32(s2));
    }
    if (SharedB1A1)
        runBiQuadLoopSharedB1A1(c, in + i, out + i, numFrames - i, z1, z2);
    else
        runBiQuadLoop(c, in + i, out + i, numFrames - i, z1, z2);
}

// Four samples per pass: dwords 0 and 2 are multiplied, then 1 and 3, and the shifted products are
// blended back into place.
__attribute__((target("sse4.1"))) void amplifySse41(tSample* samples, unsigned int numSamples, tSample gain)
{
    __m128i const g = splat(gain);
    unsigned int i = 0;
    for (; i + 4 <= numSamples; i += 4) {
        __m128i* at = reinterpret_cast<__m128i*>(samples + i);
        __m128i const x = _mm_loadu_si128(at);
        __m128i const even = product(x, g);
        __m128i const odd = product(_mm_srli_epi64(x, 32), g);
        _mm_storeu_si128(at, _mm_blend_epi16(even, _mm_slli_epi64(odd, 32), 0xCC));
    }
    for (; i < numSamples; ++i)
        samples[i] = samples[i] * gain;
}

} // namespace

extern VectorLoops const c_sse41Loops;
VectorLoops const c_sse41Loops = {"sse4.1",
                                  &runSse41<1, false>,
                                  &runSse41<3, true>,
                                  &runMonoSse41<false>,
                                  &runMonoSse41<true>,
                                  &amplifySse41,
                                  nullptr};

} // namespace Zelmar

#endif
