#include "dsp/VectorLoops.h"

#ifdef ORVANDELDSP_SIMD_NEON

#include "dsp/BiQuadSection.h"

#include <arm_neon.h>

namespace Zelmar {

namespace {

// Q4.27 products of both lanes: vmull forms the two 64-bit products and vshrn keeps bits 27 to 58 of
// each, which is the product shifted right by 27 with its low 32 bits kept, for either shift.
inline int32x2_t product(int32x2_t x, int32x2_t coefficient)
{
    return vshrn_n_s64(vmull_s32(x, coefficient), 27);
}

inline int32x2_t splat(tSample value)
{
    return vdup_n_s32(value.getRaw());
}

inline int32_t const* raw(tSample const* samples)
{
    return reinterpret_cast<int32_t const*>(samples);
}

inline int32_t* raw(tSample* samples)
{
    return reinterpret_cast<int32_t*>(samples);
}

// Keeps the compiler from moving an add onto the path carried from one frame to the next; the bits do
// not change.
inline void keepOffCarriedPath(int32x2_t& partial)
{
    asm("" : "+w"(partial));
}

// The stereo cascade has the left channel in lane 0 and the right in lane 1.
struct NeonSection
{
    int32x2_t b0, b1, b2, a1, a2;
};

// A section in the form of runBiQuadLoop: y, its input x and z2 of the current frame are carried, and
// advance() moves them to the next frame given that frame's input.
struct NeonSectionState
{
    int32x2_t x, y, s2;

    void start(NeonSection const& c, int32x2_t z1, int32x2_t z2, int32x2_t input)
    {
        x = input;
        y = vadd_s32(z1, product(input, c.b0));
        s2 = z2;
    }

    void advance(NeonSection const& c, int32x2_t next)
    {
        int32x2_t ahead = vadd_s32(vadd_s32(s2, product(x, c.b1)), product(next, c.b0));
        keepOffCarriedPath(ahead);
        s2 = vsub_s32(product(x, c.b2), product(y, c.a2));
        y = vsub_s32(ahead, product(y, c.a1));
        x = next;
    }

    int32x2_t z1(NeonSection const& c) const
    {
        return vsub_s32(vadd_s32(s2, product(x, c.b1)), product(y, c.a1));
    }
    int32x2_t z2(NeonSection const& c) const { return vsub_s32(product(x, c.b2), product(y, c.a2)); }
};

int32x2_t pair(tSample left, tSample right)
{
    return vset_lane_s32(right.getRaw(), vdup_n_s32(left.getRaw()), 1);
}

// Moves every section one frame on; next is the cascade's input at that frame, and each section's new
// y is the next one's input. Returns the cascade's output at the frame being left.
template <unsigned int Sections, bool ApplyGain>
inline int32x2_t advanceFrame(NeonSection const* c, NeonSectionState* s, int32x2_t gain, int32x2_t next)
{
    int32x2_t const y = s[Sections - 1].y;
// Unrolled, so that the state of every section stays in registers.
#pragma GCC unroll 3
    for (unsigned int k = 0; k < Sections; ++k) {
        s[k].advance(c[k], next);
        next = s[k].y;
    }
    return ApplyGain ? product(y, gain) : y;
}

template <unsigned int Sections, bool ApplyGain>
void runStereoNeon(BiQuadSection const* sections, StereoBiQuadState* states, tSample gain, tSample const* inL,
                   tSample const* inR, tSample* outL, tSample* outR, unsigned int numFrames)
{
    if (numFrames == 0)
        return;
    NeonSection c[Sections];
    NeonSectionState s[Sections];
    int32x2_t input = pair(inL[0], inR[0]);
    for (unsigned int k = 0; k < Sections; ++k) {
        c[k] = {splat(sections[k].b0), splat(sections[k].b1), splat(sections[k].b2), splat(sections[k].a1),
                splat(sections[k].a2)};
        s[k].start(c[k], pair(states[k].z1[0], states[k].z1[1]), pair(states[k].z2[0], states[k].z2[1]),
                   input);
        input = s[k].y;
    }
    int32x2_t const g = splat(gain);
    // Two frames per pass: vtrn turns two frames of each channel into a left-right pair per frame and
    // back. Frames i + 1 and i + 2 are read before frames i and i + 1 are written.
    unsigned int i = 0;
    for (; i + 3 <= numFrames; i += 2) {
        int32x2x2_t const x = vtrn_s32(vld1_s32(raw(inL + i + 1)), vld1_s32(raw(inR + i + 1)));
        int32x2_t const y0 = advanceFrame<Sections, ApplyGain>(c, s, g, x.val[0]);
        int32x2_t const y1 = advanceFrame<Sections, ApplyGain>(c, s, g, x.val[1]);
        int32x2x2_t const y = vtrn_s32(y0, y1);
        vst1_s32(raw(outL + i), y.val[0]);
        vst1_s32(raw(outR + i), y.val[1]);
    }
    for (; i + 1 < numFrames; ++i) {
        int32x2_t const y = advanceFrame<Sections, ApplyGain>(c, s, g, pair(inL[i + 1], inR[i + 1]));
        vst1_lane_s32(raw(outL + i), y, 0);
        vst1_lane_s32(raw(outR + i), y, 1);
    }
    int32x2_t const last = ApplyGain ? product(s[Sections - 1].y, g) : s[Sections - 1].y;
    vst1_lane_s32(raw(outL + i), last, 0);
    vst1_lane_s32(raw(outR + i), last, 1);
    for (unsigned int k = 0; k < Sections; ++k) {
        int32x2_t const z1 = s[k].z1(c[k]), z2 = s[k].z2(c[k]);
        states[k].z1[0] = tSample(vget_lane_s32(z1, 0));
        states[k].z1[1] = tSample(vget_lane_s32(z1, 1));
        states[k].z2[0] = tSample(vget_lane_s32(z2, 0));
        states[k].z2[1] = tSample(vget_lane_s32(z2, 1));
    }
}

// Products of four samples by one coefficient.
inline int32x4_t products(int32x4_t x, int32x2_t coefficient)
{
    return vcombine_s32(product(vget_low_s32(x), coefficient), product(vget_high_s32(x), coefficient));
}

// One channel, four frames per pass. The products of the input are made four at a time; the recursion
// carries r = {y, z} of the current frame, z being z2 (or -z2 for a shared b1 = a1, so that both lanes
// add), and one multiply of both lanes moves it a frame on:
//   r' = {b1 x + b0 x' + z, b2 x} - {a1 y, a2 y}, or r' = {b0 x' - z, -b2 x} + {b1 (x - y), a2 y}.
// A pass reads frame i + 4, so it needs five frames; the scalar loop finishes, from z1 = y - b0 x,
// which undoes y = z1 + b0 x exactly.
template <bool SharedB1A1>
void runMonoNeon(BiQuadSection const& section, tSample const* in, tSample* out, unsigned int numFrames,
                 tSample& z1, tSample& z2)
{
    BiQuadSection const c = section;
    unsigned int i = 0;
    if (numFrames >= 5) {
        int32x2_t const b0 = splat(c.b0), b1 = splat(c.b1), b2 = splat(c.b2);
        int32x2_t const recursive = SharedB1A1 ? pair(c.b1, c.a2) : pair(c.a1, c.a2);
        int32x2_t const zero = vdup_n_s32(0);
        int32x2_t r = pair(z1 + c.b0 * in[0], SharedB1A1 ? -z2 : z2);
        for (; i + 5 <= numFrames; i += 4) {
            int32x4_t const x = vld1q_s32(raw(in + i));
            int32x4_t const b0Next = products(vld1q_s32(raw(in + i + 1)), b0);
            int32x4_t const b2x = products(x, b2);
            int32x4x2_t const t = SharedB1A1 ? vzipq_s32(b0Next, vnegq_s32(b2x))
                                             : vzipq_s32(vaddq_s32(products(x, b1), b0Next), b2x);
            int32x2_t const tk[4] = {vget_low_s32(t.val[0]), vget_high_s32(t.val[0]), vget_low_s32(t.val[1]),
                                     vget_high_s32(t.val[1])};
            // Lane 0 of xk[k] is frame i + k.
            int32x2_t const xk[4] = {vget_low_s32(x), vrev64_s32(vget_low_s32(x)), vget_high_s32(x),
                                     vrev64_s32(vget_high_s32(x))};
            int32x2_t rk[4];
            #pragma GCC unroll 4
            for (int k = 0; k < 4; ++k) {
                rk[k] = r;
                int32x2_t const z = vext_s32(r, zero, 1);
                int32x2_t ahead = SharedB1A1 ? vsub_s32(tk[k], z) : vadd_s32(tk[k], z);
                keepOffCarriedPath(ahead);
                if (SharedB1A1)
                    r = vadd_s32(ahead, product(vzip_s32(vsub_s32(xk[k], r), r).val[0], recursive));
                else
                    r = vsub_s32(ahead, vshrn_n_s64(vmull_lane_s32(recursive, r, 0), 27));
            }
            vst1q_s32(raw(out + i),
                      vcombine_s32(vzip_s32(rk[0], rk[1]).val[0], vzip_s32(rk[2], rk[3]).val[0]));
        }
        tSample const z(vget_lane_s32(r, 1));
        z1 = tSample(vget_lane_s32(r, 0)) - c.b0 * in[i];
        z2 = SharedB1A1 ? -z : z;
    }
    if (SharedB1A1)
        runBiQuadLoopSharedB1A1(c, in + i, out + i, numFrames - i, z1, z2);
    else
        runBiQuadLoop(c, in + i, out + i, numFrames - i, z1, z2);
}

// Four samples per pass, two products per multiply.
void amplifyNeon(tSample* samples, unsigned int numSamples, tSample gain)
{
    int32x2_t const g = splat(gain);
    unsigned int i = 0;
    for (; i + 4 <= numSamples; i += 4) {
        int32x4_t const x = vld1q_s32(raw(samples + i));
        vst1q_s32(raw(samples + i), vcombine_s32(product(vget_low_s32(x), g), product(vget_high_s32(x), g)));
    }
    for (; i < numSamples; ++i)
        samples[i] = samples[i] * gain;
}

} // namespace

extern VectorLoops const c_neonLoops;
VectorLoops const c_neonLoops = {
    "neon",      &runStereoNeon<1, false>, &runStereoNeon<3, true>, &runMonoNeon<false>, &runMonoNeon<true>,
    &amplifyNeon};

} // namespace Zelmar

#endif
