#include "dsp/BiQuadSection.h"
#include "dsp/precalculated/PrecalculatedBiQuadKernels.h"
#include "support/ModuleHarness.h"

#include <gtest/gtest.h>

#include <cstring>

using namespace Zelmar;

namespace {

PrecalculatedBiQuadEntry const* findEntry(char const* name)
{
    for (unsigned int i = 0; i < c_numPrecalculatedBiQuads; ++i) {
        if (std::strcmp(c_precalculatedBiQuads[i].name, name) == 0)
            return &c_precalculatedBiQuads[i];
    }
    return nullptr;
}

std::vector<int32_t> values(int32_t const (&v)[5])
{
    return {v[0], v[1], v[2], v[3], v[4]};
}

} // namespace

TEST(PrecalculatedBiQuadTest, TableHoldsTheDesignedConstants)
{
    ASSERT_EQ(c_numPrecalculatedBiQuads, 252u);
    PrecalculatedBiQuadEntry const& first = c_precalculatedBiQuads[0];
    EXPECT_STREQ(first.name, "hipass_44100_f15_q700_g0");
    EXPECT_EQ(values(first.key), (std::vector<int32_t>{99847, -199694, 99847, -199694, 99695}));
    EXPECT_EQ(values(first.raw),
              (std::vector<int32_t>{134013000, -268026000, 134013000, -268025696, 133808576}));
    EXPECT_EQ(first.kernel, &hipass_44100_f15_q700_g0);

    PrecalculatedBiQuadEntry const* peak = findEntry("peak_44100_f45_q2000_g10000");
    ASSERT_NE(peak, nullptr);
    EXPECT_EQ(values(peak->raw),
              (std::vector<int32_t>{134682160, -268000384, 133323728, -268000384, 133788160}));
    EXPECT_EQ(c_precalculatedBiQuads[251].kernel, &peak_192000_f11000_q6300_gm2100);
    EXPECT_NE(findEntry("hishelf_48000_f1300_q0_gm5000"), nullptr);
    EXPECT_NE(findEntry("loshelf_96000_f450_q700_g4500"), nullptr);
}

TEST(PrecalculatedBiQuadTest, LookupQuantisesToTenMicroUnits)
{
    BiQuadSection s;
    s.design(AudioFilter::Characteristic::Peak, 44100, 45, 2, 10);
    EXPECT_EQ(findPrecalculatedBiQuad(s.b0, s.b1, s.b2, s.a1, s.a2), &peak_44100_f45_q2000_g10000);
    // 16 raw units are about 1.2e-7: below the key resolution.
    tSample const nudge(int32_t(16));
    EXPECT_EQ(findPrecalculatedBiQuad(s.b0 + nudge, s.b1, s.b2 - nudge, s.a1, s.a2),
              &peak_44100_f45_q2000_g10000);
    // The same setting at 44000 Hz has no kernel.
    s.design(AudioFilter::Characteristic::Peak, 44000, 45, 2, 10);
    EXPECT_EQ(findPrecalculatedBiQuad(s.b0, s.b1, s.b2, s.a1, s.a2), nullptr);
    // Equal frequency-to-rate ratios share coefficients; the earlier entry wins.
    s.design(AudioFilter::Characteristic::HiPass, 176400, 60, 0.7, 0);
    EXPECT_EQ(findPrecalculatedBiQuad(s.b0, s.b1, s.b2, s.a1, s.a2), &hipass_44100_f15_q700_g0);
    s.design(AudioFilter::Characteristic::Passthru, 48000, 1000, 1, 0);
    EXPECT_EQ(findPrecalculatedBiQuad(s.b0, s.b1, s.b2, s.a1, s.a2), nullptr);
}

// Every kernel against the generic loop with its own constants, one frame at a time from the generic
// loop's state: bit for bit, except that the single-product form (b1 == a1) may move z1 by one bit.
// Over many frames that bit is amplified by the recursion, so a frame-wise check is the exact one.
TEST(PrecalculatedBiQuadTest, KernelsRunTheGenericLoop)
{
    std::vector<tSample> const input = Testing::noise(512, 7);
    for (unsigned int i = 0; i < c_numPrecalculatedBiQuads; ++i) {
        PrecalculatedBiQuadEntry const& e = c_precalculatedBiQuads[i];
        BiQuadSection const generic{tSample(e.raw[0]), tSample(e.raw[1]), tSample(e.raw[2]),
                                    tSample(e.raw[3]), tSample(e.raw[4])};
        int32_t const z1Tolerance = e.raw[1] == e.raw[3] ? 1 : 0;
        tSample z1, z2;
        for (tSample x : input) {
            tSample kz1 = z1, kz2 = z2, y;
            e.kernel(&x, &y, 1, kz1, kz2);
            ASSERT_EQ(y, generic.step(x, z1, z2)) << e.name;
            ASSERT_NEAR(kz1.getRaw(), z1.getRaw(), z1Tolerance) << e.name;
            ASSERT_EQ(kz2, z2) << e.name;
        }
    }
}

// The single-product form, written out with the published constants of the worked example.
TEST(PrecalculatedBiQuadTest, SharedB1A1KernelFormsOneProduct)
{
    tSample const b0(int32_t(134682160)), b1(int32_t(-268000384)), b2(int32_t(133323728)),
        a2(int32_t(133788160));
    std::vector<tSample> const input = Testing::noise(300, 7);
    std::vector<tSample> output(input.size());
    tSample z1, z2, r1, r2;
    peak_44100_f45_q2000_g10000(input.data(), output.data(), 150, z1, z2);
    peak_44100_f45_q2000_g10000(input.data() + 150, output.data() + 150, 150, z1, z2);
    for (unsigned int n = 0; n < input.size(); ++n) {
        tSample const x = input[n];
        tSample const y = r1 + b0 * x;
        r1 = r2 + (x - y) * b1;
        r2 = b2 * x - a2 * y;
        ASSERT_EQ(output[n], y) << n;
    }
    EXPECT_EQ(z1, r1);
    EXPECT_EQ(z2, r2);
}
