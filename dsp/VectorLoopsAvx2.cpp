#include "dsp/VectorLoops.h"

#ifdef ORVANDELDSP_SIMD_SSE41

#include "dsp/BiQuadSection.h"

#include <immintrin.h>

#define ORVANDELDSP_AVX2 __attribute__((target("avx2")))

namespace Zelmar {

namespace {

// A fused cascade with its sections pipelined across the four 64-bit lanes of AVX2 registers, each
// value in the low dword of its lane, where one multiply forms four Q4.27 products. Section s of the
// cascade runs frame k - s at step k, so its input is what section s - 1 gave at step k - 1 and the
// sections of one step do not wait for each other. Register j holds sections 2j and 2j + 1 of two
// rows: of the left and the right channel, or of the first and the second half of a mono cascade
// (which then feeds the first into the second). The lanes are [row 0: 2j, 2j + 1 | row 1: 2j, 2j + 1]:
// each lane's input is the lane below it, which one in-lane byte shift brings. Sections are padded to
// whole registers with the identity (b0 = 1.0, nothing else), which passes any state of zeros on.
constexpr unsigned int c_maxRegisters = 6;
constexpr int32_t c_one = 1 << 27;

ORVANDELDSP_AVX2 inline __m256i product(__m256i x, __m256i coefficient)
{
    return _mm256_srli_epi64(_mm256_mul_epi32(x, coefficient), 27);
}

// Loads four lanes' values into the low dwords.
ORVANDELDSP_AVX2 inline __m256i lanes(int32_t const (&values)[4])
{
    return _mm256_setr_epi32(values[0], 0, values[1], 0, values[2], 0, values[3], 0);
}

ORVANDELDSP_AVX2 inline int32_t lane(__m256i v, unsigned int q)
{
    alignas(32) int32_t words[8];
    _mm256_store_si256(reinterpret_cast<__m256i*>(words), v);
    return words[2 * q];
}

struct RegisterCoefficients
{
    __m256i b0, b1, b2, a1, a2;
    // All ones (in the low dword, the one that counts) in the lanes of sections with the shared
    // b1 = a1 form, whose a1 is then zero.
    __m256i shared;
};

template <unsigned int Registers, bool Mono, bool Mixed> class Pipeline
{
public:
    static constexpr unsigned int c_sectionsPerRow = 2 * Registers;
    // The step at which the last section runs a frame, after which the cascade's output of that frame
    // is in lane 1 (left or the only row's first half) and lane 3 of the last register.
    static constexpr unsigned int c_lastLag = Mono ? 2 * c_sectionsPerRow - 1 : c_sectionsPerRow - 1;

    ORVANDELDSP_AVX2 Pipeline(CascadeSection const* sections, unsigned int numSections)
    {
        for (unsigned int j = 0; j < Registers; ++j) {
            int32_t c[6][4], z1[4], z2[4], lag[4];
            for (unsigned int q = 0; q < 4; ++q) {
                unsigned int const row = q / 2;
                unsigned int const index = 2 * j + q % 2 + (Mono ? row * c_sectionsPerRow : 0);
                unsigned int const channel = Mono ? 0 : row;
                lag[q] = int32_t(index);
                bool const real = index < numSections;
                CascadeSection const* s = real ? &sections[index] : nullptr;
                BiQuadSection const k =
                    real ? s->coefficients : BiQuadSection{tSample(c_one), {}, {}, {}, {}};
                bool const shared = real && s->sharedB1A1;
                c[0][q] = k.b0.getRaw();
                c[1][q] = k.b1.getRaw();
                c[2][q] = k.b2.getRaw();
                c[3][q] = shared ? 0 : k.a1.getRaw();
                c[4][q] = k.a2.getRaw();
                c[5][q] = shared ? -1 : 0;
                z1[q] = real ? s->z1[channel]->getRaw() : 0;
                z2[q] = real ? s->z2[channel]->getRaw() : 0;
            }
            m_c[j] = {lanes(c[0]), lanes(c[1]), lanes(c[2]), lanes(c[3]), lanes(c[4]), lanes(c[5])};
            m_lag[j] = lanes(lag);
            m_z1[j] = lanes(z1);
            m_z2[j] = lanes(z2);
            m_y[j] = _mm256_setzero_si256();
        }
    }

    ORVANDELDSP_AVX2 void store(CascadeSection const* sections, unsigned int numSections) const
    {
        for (unsigned int j = 0; j < Registers; ++j) {
            for (unsigned int q = 0; q < 4; ++q) {
                unsigned int const row = q / 2;
                unsigned int const index = 2 * j + q % 2 + (Mono ? row * c_sectionsPerRow : 0);
                if (index >= numSections)
                    continue;
                unsigned int const channel = Mono ? 0 : row;
                *sections[index].z1[channel] = tSample(lane(m_z1[j], q));
                *sections[index].z2[channel] = tSample(lane(m_z2[j], q));
            }
        }
    }

    // One step with every section running a frame. `inputs` holds the cascade's input in dword 2 and,
    // for a pair, the right channel's in dword 6. Returns the last register's new outputs.
    ORVANDELDSP_AVX2 __m256i step(__m256i inputs)
    {
        __m256i const below = belowFirst(inputs);
// Unrolled, so that as much state as fits stays in registers.
#pragma GCC unroll 8
        for (unsigned int i = 0; i < Registers; ++i) {
            unsigned int const j = Registers - 1 - i;
            __m256i z1 = m_z1[j], z2 = m_z2[j];
            advance(j, _mm256_alignr_epi8(m_y[j], j ? m_y[j - 1] : below, 8), z1, z2);
            m_z1[j] = z1;
            m_z2[j] = z2;
        }
        return m_y[Registers - 1];
    }

    // Step k of a block of numFrames frames, where some sections may have no frame to run: they keep
    // their state. Their outputs are never read by a section that runs.
    ORVANDELDSP_AVX2 __m256i maskedStep(__m256i inputs, unsigned int k, unsigned int numFrames)
    {
        __m256i const below = belowFirst(inputs);
        __m256i const step = _mm256_set1_epi64x(k);
        __m256i const frames = _mm256_set1_epi64x(numFrames);
        __m256i const none = _mm256_set1_epi64x(-1);
#pragma GCC unroll 8
        for (unsigned int i = 0; i < Registers; ++i) {
            unsigned int const j = Registers - 1 - i;
            __m256i const frame = _mm256_sub_epi64(step, m_lag[j]);
            __m256i const running =
                _mm256_and_si256(_mm256_cmpgt_epi64(frame, none), _mm256_cmpgt_epi64(frames, frame));
            __m256i z1 = m_z1[j], z2 = m_z2[j];
            advance(j, _mm256_alignr_epi8(m_y[j], j ? m_y[j - 1] : below, 8), z1, z2);
            m_z1[j] = _mm256_blendv_epi8(m_z1[j], z1, running);
            m_z2[j] = _mm256_blendv_epi8(m_z2[j], z2, running);
        }
        return m_y[Registers - 1];
    }

private:
    // The register below the first: lane 1 is the first row's input, lane 3 the second row's, which
    // for a mono cascade is the last output of the first row (lane 1 of the last register).
    ORVANDELDSP_AVX2 __m256i belowFirst(__m256i inputs) const
    {
        if (!Mono)
            return inputs;
        return _mm256_blend_epi32(
            inputs, _mm256_permute4x64_epi64(m_y[Registers - 1], _MM_SHUFFLE(1, 1, 1, 1)), 0xF0);
    }

    // One frame of the transposed direct form II, z1 and z2 carried:
    // y = z1 + b0 x; z1 = z2 + b1 x - a1 y (or z2 + (x - y) b1); z2 = b2 x - a2 y.
    ORVANDELDSP_AVX2 void advance(unsigned int j, __m256i x, __m256i& z1, __m256i& z2)
    {
        RegisterCoefficients const& c = m_c[j];
        __m256i const y = _mm256_add_epi32(z1, product(x, c.b0));
        __m256i const b1Term = Mixed ? _mm256_sub_epi32(x, _mm256_and_si256(y, c.shared)) : x;
        __m256i partial = _mm256_add_epi32(z2, product(b1Term, c.b1));
        // Wrapping sums may be reordered; this one stays off the path through y.
        asm("" : "+x"(partial));
        z1 = _mm256_sub_epi32(partial, product(y, c.a1));
        z2 = _mm256_sub_epi32(product(x, c.b2), product(y, c.a2));
        m_y[j] = y;
    }

    RegisterCoefficients m_c[Registers];
    __m256i m_lag[Registers];
    __m256i m_z1[Registers], m_z2[Registers], m_y[Registers];
};

// A step at the start or the end of a block, where not every section has a frame to run.
template <class tPipeline, bool Mono>
ORVANDELDSP_AVX2 void maskedStep(tPipeline& pipeline, tSample const* const* in, tSample* const* out,
                                 unsigned int k, unsigned int numFrames)
{
    int32_t const first = k < numFrames ? in[0][k].getRaw() : 0;
    int32_t const second = !Mono && k < numFrames ? in[1][k].getRaw() : 0;
    __m256i const y = pipeline.maskedStep(_mm256_setr_epi32(0, 0, first, 0, 0, 0, second, 0), k, numFrames);
    if (k < tPipeline::c_lastLag)
        return;
    unsigned int const frame = k - tPipeline::c_lastLag;
    out[0][frame] = tSample(lane(y, Mono ? 3 : 1));
    if (!Mono)
        out[1][frame] = tSample(lane(y, 3));
}

template <unsigned int Registers, bool Mono, bool Mixed>
ORVANDELDSP_AVX2 void runPipeline(CascadeSection const* sections, unsigned int numSections,
                                  tSample const* const* in, tSample* const* out, unsigned int numFrames)
{
    using tPipeline = Pipeline<Registers, Mono, Mixed>;
    constexpr unsigned int lastLag = tPipeline::c_lastLag;
    tPipeline pipeline(sections, numSections);
    unsigned int const steps = numFrames + lastLag;
    unsigned int k = 0;
    for (; k <= lastLag && k < steps; ++k)
        maskedStep<tPipeline, Mono>(pipeline, in, out, k, numFrames);
    // Two steps per pass, so that loads and stores move a pair of frames. Frames k and k + 1 are read
    // before frames k - lastLag and k + 1 - lastLag are written, so in == out is safe.
    for (; k + 1 < numFrames; k += 2) {
        __m128i const first = _mm_loadl_epi64(reinterpret_cast<__m128i const*>(in[0] + k));
        __m128i const second =
            Mono ? _mm_setzero_si128() : _mm_loadl_epi64(reinterpret_cast<__m128i const*>(in[1] + k));
        __m256i const pair = _mm256_inserti128_si256(_mm256_castsi128_si256(first), second, 1);
        __m256i const y0 = pipeline.step(_mm256_shuffle_epi32(pair, _MM_SHUFFLE(0, 0, 0, 0)));
        __m256i const y1 = pipeline.step(_mm256_shuffle_epi32(pair, _MM_SHUFFLE(1, 1, 1, 1)));
        // Dwords 2 and 6 of each: lane 1 and lane 3.
        __m256i const outputs = _mm256_unpackhi_epi32(y0, y1);
        unsigned int const frame = k - lastLag;
        if (Mono) {
            _mm_storel_epi64(reinterpret_cast<__m128i*>(out[0] + frame),
                             _mm256_extracti128_si256(outputs, 1));
        } else {
            _mm_storel_epi64(reinterpret_cast<__m128i*>(out[0] + frame), _mm256_castsi256_si128(outputs));
            _mm_storel_epi64(reinterpret_cast<__m128i*>(out[1] + frame),
                             _mm256_extracti128_si256(outputs, 1));
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
    static constexpr tPipelineRun c_runs[c_maxRegisters] = {
        &runPipeline<1, Mono, Mixed>, &runPipeline<2, Mono, Mixed>, &runPipeline<3, Mono, Mixed>,
        &runPipeline<4, Mono, Mixed>, &runPipeline<5, Mono, Mixed>, &runPipeline<6, Mono, Mixed>};
    return c_runs[registers - 1];
}

// Cascades longer than the registers hold run in passes of about equal length over the buffer.
ORVANDELDSP_AVX2 void runCascadeAvx2(CascadeSection const* sections, unsigned int numSections,
                                     unsigned int numChannels, tSample const* const* in, tSample* const* out,
                                     unsigned int numFrames)
{
    bool const mono = numChannels == 1;
    unsigned int const perRegister = mono ? 4 : 2;
    unsigned int const registers = (numSections + perRegister - 1) / perRegister;
    unsigned int const passes = (registers + c_maxRegisters - 1) / c_maxRegisters;
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

extern void (*const c_avx2BiQuadCascade)(CascadeSection const*, unsigned int, unsigned int,
                                         tSample const* const*, tSample* const*, unsigned int);
void (*const c_avx2BiQuadCascade)(CascadeSection const*, unsigned int, unsigned int, tSample const* const*,
                                  tSample* const*, unsigned int) = &runCascadeAvx2;

} // namespace Zelmar

#undef ORVANDELDSP_AVX2

#endif
