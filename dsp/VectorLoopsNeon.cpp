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

// A fused cascade's: all ones in the lanes of sections with the shared b1 = a1 form, whose a1 is zero.
struct NeonCascadeCoefficients
{
    int32x2_t b0, b1, b2, a1, a2, shared;
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

// A fused cascade with its sections pipelined across registers: section s runs frame k - s at step
// k, so its input is what section s - 1 gave at step k - 1 and the sections of one step do not wait for
// each other. Register j holds section j of two rows in its lanes: of the left and the right channel,
// or of the first and the second half of a mono cascade (which then feeds the first into the second).
// Sections are padded to whole registers with the identity (b0 = 1.0, nothing else), which passes any
// state of zeros on.
constexpr unsigned int c_maxCascadeRegisters = 4;

template <unsigned int Registers, bool Mono, bool Mixed> class Pipeline
{
public:
    // The step at which the last section runs a frame, whose output is then in the last register: both
    // lanes of a pair, lane 1 of a mono cascade.
    static constexpr unsigned int c_lastLag = Mono ? 2 * Registers - 1 : Registers - 1;

    Pipeline(CascadeSection const* sections, unsigned int numSections)
    {
        for (unsigned int j = 0; j < Registers; ++j) {
            int32_t c[6][2], z1[2], z2[2];
            for (unsigned int row = 0; row < 2; ++row) {
                unsigned int const index = j + (Mono ? row * Registers : 0);
                unsigned int const channel = Mono ? 0 : row;
                m_lag[j][row] = int32_t(index);
                bool const real = index < numSections;
                CascadeSection const* s = real ? &sections[index] : nullptr;
                BiQuadSection const k =
                    real ? s->coefficients : BiQuadSection{tSample(1 << 27), {}, {}, {}, {}};
                bool const shared = real && s->sharedB1A1;
                c[0][row] = k.b0.getRaw();
                c[1][row] = k.b1.getRaw();
                c[2][row] = k.b2.getRaw();
                c[3][row] = shared ? 0 : k.a1.getRaw();
                c[4][row] = k.a2.getRaw();
                c[5][row] = shared ? -1 : 0;
                z1[row] = real ? s->z1[channel]->getRaw() : 0;
                z2[row] = real ? s->z2[channel]->getRaw() : 0;
            }
            m_c[j] = {vld1_s32(c[0]), vld1_s32(c[1]), vld1_s32(c[2]),
                      vld1_s32(c[3]), vld1_s32(c[4]), vld1_s32(c[5])};
            m_z1[j] = vld1_s32(z1);
            m_z2[j] = vld1_s32(z2);
            m_y[j] = vdup_n_s32(0);
        }
    }

    void store(CascadeSection const* sections, unsigned int numSections) const
    {
        for (unsigned int j = 0; j < Registers; ++j) {
            int32_t z1[2], z2[2];
            vst1_s32(z1, m_z1[j]);
            vst1_s32(z2, m_z2[j]);
            for (unsigned int row = 0; row < 2; ++row) {
                unsigned int const index = j + (Mono ? row * Registers : 0);
                if (index >= numSections)
                    continue;
                unsigned int const channel = Mono ? 0 : row;
                *sections[index].z1[channel] = tSample(z1[row]);
                *sections[index].z2[channel] = tSample(z2[row]);
            }
        }
    }

    // One step with every section running a frame; `inputs` holds the cascade's input of each row (a
    // mono cascade's lane 1 is not read). Returns the last register's new outputs.
    int32x2_t step(int32x2_t inputs)
    {
        int32x2_t const below = belowFirst(inputs);
#pragma GCC unroll 8
        for (unsigned int i = 0; i < Registers; ++i) {
            unsigned int const j = Registers - 1 - i;
            advance(j, j ? m_y[j - 1] : below, m_z1[j], m_z2[j]);
        }
        return m_y[Registers - 1];
    }

    // Step k of a block of numFrames frames, where sections with no frame to run keep their state;
    // their outputs are never read by a section that runs.
    int32x2_t maskedStep(int32x2_t inputs, unsigned int k, unsigned int numFrames)
    {
        int32x2_t const below = belowFirst(inputs);
#pragma GCC unroll 8
        for (unsigned int i = 0; i < Registers; ++i) {
            unsigned int const j = Registers - 1 - i;
            int32_t frame[2];
            uint32_t running[2];
            for (unsigned int row = 0; row < 2; ++row) {
                frame[row] = int32_t(k) - m_lag[j][row];
                running[row] = frame[row] >= 0 && frame[row] < int32_t(numFrames) ? ~0u : 0u;
            }
            int32x2_t z1 = m_z1[j], z2 = m_z2[j];
            advance(j, j ? m_y[j - 1] : below, z1, z2);
            uint32x2_t const mask = vld1_u32(running);
            m_z1[j] = vbsl_s32(mask, z1, m_z1[j]);
            m_z2[j] = vbsl_s32(mask, z2, m_z2[j]);
        }
        return m_y[Registers - 1];
    }

private:
    // The input of the first register: a mono cascade's second row takes the first row's last output.
    int32x2_t belowFirst(int32x2_t inputs) const
    {
        return Mono ? vset_lane_s32(vget_lane_s32(m_y[Registers - 1], 0), inputs, 1) : inputs;
    }

    // One frame of the transposed direct form II, z1 and z2 carried:
    // y = z1 + b0 x; z1 = z2 + b1 x - a1 y (or z2 + (x - y) b1); z2 = b2 x - a2 y.
    void advance(unsigned int j, int32x2_t x, int32x2_t& z1, int32x2_t& z2)
    {
        NeonCascadeCoefficients const& c = m_c[j];
        int32x2_t const y = vadd_s32(z1, product(x, c.b0));
        int32x2_t const b1Term = Mixed ? vsub_s32(x, vand_s32(y, c.shared)) : x;
        int32x2_t partial = vadd_s32(z2, product(b1Term, c.b1));
        keepOffCarriedPath(partial);
        z1 = vsub_s32(partial, product(y, c.a1));
        z2 = vsub_s32(product(x, c.b2), product(y, c.a2));
        m_y[j] = y;
    }

    NeonCascadeCoefficients m_c[Registers];
    int32_t m_lag[Registers][2];
    int32x2_t m_z1[Registers], m_z2[Registers], m_y[Registers];
};

// A step at the start or the end of a block, where not every section has a frame to run.
template <class tPipeline, bool Mono>
void maskedStep(tPipeline& pipeline, tSample const* const* in, tSample* const* out, unsigned int k,
                unsigned int numFrames)
{
    int32_t const inputs[2] = {k < numFrames ? in[0][k].getRaw() : 0,
                               !Mono && k < numFrames ? in[1][k].getRaw() : 0};
    int32x2_t const y = pipeline.maskedStep(vld1_s32(inputs), k, numFrames);
    if (k < tPipeline::c_lastLag)
        return;
    unsigned int const frame = k - tPipeline::c_lastLag;
    if (Mono) {
        vst1_lane_s32(raw(out[0] + frame), y, 1);
    } else {
        vst1_lane_s32(raw(out[0] + frame), y, 0);
        vst1_lane_s32(raw(out[1] + frame), y, 1);
    }
}

template <unsigned int Registers, bool Mono, bool Mixed>
void runPipeline(CascadeSection const* sections, unsigned int numSections, tSample const* const* in,
                 tSample* const* out, unsigned int numFrames)
{
    using tPipeline = Pipeline<Registers, Mono, Mixed>;
    constexpr unsigned int lastLag = tPipeline::c_lastLag;
    tPipeline pipeline(sections, numSections);
    unsigned int const steps = numFrames + lastLag;
    unsigned int k = 0;
    for (; k <= lastLag && k < steps; ++k)
        maskedStep<tPipeline, Mono>(pipeline, in, out, k, numFrames);
    // Two steps per pass; vtrn turns two frames of each row into a pair per frame and back. Frames k and
    // k + 1 are read before frames k - lastLag and k + 1 - lastLag are written, so in == out is safe.
    for (; k + 1 < numFrames; k += 2) {
        int32x2_t const first = vld1_s32(raw(in[0] + k));
        int32x2x2_t const x = vtrn_s32(first, Mono ? first : vld1_s32(raw(in[1] + k)));
        int32x2_t const y0 = pipeline.step(x.val[0]);
        int32x2_t const y1 = pipeline.step(x.val[1]);
        int32x2x2_t const y = vtrn_s32(y0, y1);
        unsigned int const frame = k - lastLag;
        if (Mono) {
            vst1_s32(raw(out[0] + frame), y.val[1]);
        } else {
            vst1_s32(raw(out[0] + frame), y.val[0]);
            vst1_s32(raw(out[1] + frame), y.val[1]);
        }
    }
    for (; k < steps; ++k)
        maskedStep<tPipeline, Mono>(pipeline, in, out, k, numFrames);
    pipeline.store(sections, numSections);
}

using tPipelineRun = void (*)(CascadeSection const*, unsigned int, tSample const* const*, tSample* const*,
                              unsigned int);

template <bool Mono, bool Mixed> tPipelineRun pipelineFor(unsigned int registers)
{
    static constexpr tPipelineRun c_runs[c_maxCascadeRegisters] = {
        &runPipeline<1, Mono, Mixed>, &runPipeline<2, Mono, Mixed>, &runPipeline<3, Mono, Mixed>,
        &runPipeline<4, Mono, Mixed>};
    return c_runs[registers - 1];
}

// Cascades longer than the registers hold run in passes of about equal length over the buffer.
void runCascadeNeon(CascadeSection const* sections, unsigned int numSections, unsigned int numChannels,
                    tSample const* const* in, tSample* const* out, unsigned int numFrames)
{
    bool const mono = numChannels == 1;
    unsigned int const perRegister = mono ? 2 : 1;
    unsigned int const registers = (numSections + perRegister - 1) / perRegister;
    unsigned int const passes = (registers + c_maxCascadeRegisters - 1) / c_maxCascadeRegisters;
    tSample const* const* from = in;
    for (unsigned int pass = 0, done = 0; pass < passes; ++pass) {
        unsigned int const count = (numSections - done) / (passes - pass);
        CascadeSection const* first = sections + done;
        bool mixed = false;
        for (unsigned int k = 0; k < count; ++k)
            mixed = mixed || first[k].sharedB1A1;
        unsigned int const used = (count + perRegister - 1) / perRegister;
        tPipelineRun const run =
            mono ? (mixed ? pipelineFor<true, true>(used) : pipelineFor<true, false>(used))
                 : (mixed ? pipelineFor<false, true>(used) : pipelineFor<false, false>(used));
        run(first, count, from, out, numFrames);
        from = out;
        done += count;
    }
}

} // namespace

extern VectorLoops const c_neonLoops;
VectorLoops const c_neonLoops = {
    "neon",       &runStereoNeon<1, false>, &runStereoNeon<3, true>, &runMonoNeon<false>, &runMonoNeon<true>,
    &amplifyNeon, &runCascadeNeon};

} // namespace Zelmar

#endif
