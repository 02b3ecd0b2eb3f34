#include "dsp/BiQuadSection.h"
#include "dsp/precalculated/PrecalculatedBiQuadKernels.h"

#include "support/ModuleHarness.h"
#include "support/Thrown.h"

#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>

using namespace Zelmar;
using AudioFilter::Characteristic;

namespace {

std::vector<int32_t> words(tSample const& b0, tSample const& b1, tSample const& b2, tSample const& a1,
                           tSample const& a2)
{
    return {b0.getRaw(), b1.getRaw(), b2.getRaw(), a1.getRaw(), a2.getRaw()};
}

std::vector<int32_t> words(int32_t const (&v)[5])
{
    return {v[0], v[1], v[2], v[3], v[4]};
}

PrecalculatedBiQuadEntry const* findEntry(char const* name)
{
    auto const* const end = c_precalculatedBiQuads + c_numPrecalculatedBiQuads;
    auto const* entry =
        std::find_if(c_precalculatedBiQuads, end, [&](auto& e) { return !std::strcmp(e.name, name); });
    return entry == end ? nullptr : entry;
}

tBiQuadKernel lookUp(Characteristic type, double rate, double frequency, double q, double gain,
                     int32_t nudge = 0)
{
    BiQuadSection s;
    s.design(type, rate, frequency, q, gain);
    return findPrecalculatedBiQuad(s.b0 + tSample(nudge), s.b1, s.b2 - tSample(nudge), s.a1, s.a2);
}

} // namespace

TEST(BiQuadCoefficientsTest, NamesMapToCharacteristicsCaseSensitively)
{
    char const* const names[] = {"passthru", "lopass", "hipass",  "bandpass",
                                 "notch",    "peak",   "loshelf", "hishelf"};
    for (int value = 0; value < 8; ++value)
        EXPECT_EQ(static_cast<int>(tBiQuadDesign::translateType(names[value])), value) << names[value];
    EXPECT_EQ(Testing::thrownMessage<ParsingException>([&] { tBiQuadDesign::translateType("Peak"); }),
              "The type Peak is unknown for the BiQuad module. Supported values are "
              "bandpass, hipass, hishelf, lopass, loshelf, notch, passthru, peak");
}

// Reference values from an independent script evaluating the design formulas in Python: every
// characteristic, boosts and cuts (a cut is the boost's inverse), gain 0 and shelves of another Q.
TEST(BiQuadCoefficientsTest, DesignsMatchIndependentlyComputedTable)
{
    std::ifstream file(TEST_SOURCE_DIR "/data/biquad-designs.txt");
    ASSERT_TRUE(file.is_open());
    int cases = 0;
    for (std::string line; std::getline(file, line);) {
        if (line.empty() || line[0] == '#')
            continue;
        std::istringstream fields(line);
        std::string type;
        double rate, frequency, q, gain;
        std::vector<int32_t> expected(5);
        fields >> type >> rate >> frequency >> q >> gain >> expected[0] >> expected[1] >> expected[2] >>
            expected[3] >> expected[4];
        tSample c[5];
        tBiQuadDesign::get(tBiQuadDesign::translateType(type.c_str()), rate, frequency, q, gain, c[0], c[1],
                           c[2], c[3], c[4]);
        EXPECT_EQ(words(c[0], c[1], c[2], c[3], c[4]), expected) << line;
        ++cases;
    }
    EXPECT_EQ(cases, 26);
}

TEST(BiQuadCoefficientsDeathTest, QOfZeroAndUnknownCharacteristicAbort)
{
    tSample c[5];
    EXPECT_DEATH(tBiQuadDesign::get(Characteristic::Peak, 48000, 1000, 0, 3, c[0], c[1], c[2], c[3], c[4]),
                 "Q != _NUMERICALTYPE_\\(0\\)");
    EXPECT_DEATH(
        tBiQuadDesign::get(static_cast<Characteristic>(8), 48000, 1000, 1, 3, c[0], c[1], c[2], c[3], c[4]),
        "Unknown filter type");
}

TEST(PrecalculatedBiQuadTest, TableHoldsTheDesignedConstants)
{
    ASSERT_EQ(c_numPrecalculatedBiQuads, 252u);
    PrecalculatedBiQuadEntry const& first = c_precalculatedBiQuads[0];
    EXPECT_STREQ(first.name, "hipass_44100_f15_q700_g0");
    EXPECT_EQ(words(first.key), (std::vector<int32_t>{99847, -199694, 99847, -199694, 99695}));
    EXPECT_EQ(words(first.raw),
              (std::vector<int32_t>{134013000, -268026000, 134013000, -268025696, 133808576}));
    EXPECT_EQ(first.kernel, &hipass_44100_f15_q700_g0);
    PrecalculatedBiQuadEntry const* peak = findEntry("peak_44100_f45_q2000_g10000");
    ASSERT_NE(peak, nullptr);
    EXPECT_EQ(words(peak->raw),
              (std::vector<int32_t>{134682160, -268000384, 133323728, -268000384, 133788160}));
    EXPECT_EQ(c_precalculatedBiQuads[251].kernel, &peak_192000_f11000_q6300_gm2100);
    EXPECT_NE(findEntry("hishelf_48000_f1300_q0_gm5000"), nullptr);
    EXPECT_NE(findEntry("loshelf_96000_f450_q700_g4500"), nullptr);
}

TEST(PrecalculatedBiQuadTest, LookupQuantisesToTenMicroUnits)
{
    EXPECT_EQ(lookUp(Characteristic::Peak, 44100, 45, 2, 10), &peak_44100_f45_q2000_g10000);
    // 16 raw units are about 1.2e-7: below the key resolution.
    EXPECT_EQ(lookUp(Characteristic::Peak, 44100, 45, 2, 10, 16), &peak_44100_f45_q2000_g10000);
    EXPECT_EQ(lookUp(Characteristic::Peak, 44000, 45, 2, 10), nullptr) << "no kernel at 44000 Hz";
    // Equal frequency-to-rate ratios share coefficients; the earlier entry wins.
    EXPECT_EQ(lookUp(Characteristic::HiPass, 176400, 60, 0.7, 0), &hipass_44100_f15_q700_g0);
    EXPECT_EQ(lookUp(Characteristic::Passthru, 48000, 1000, 1, 0), nullptr);
}

// Every kernel against the transposed direct form II with its own constants, across a split period.
// Where b1 equals a1 the kernel forms z1 = z2 + (x - y) b1 with one product, which may differ from
// the generic form in the lowest bit.
TEST(PrecalculatedBiQuadTest, KernelsRunTheDirectFormWithOneProductWhereB1EqualsA1)
{
    std::vector<tSample> const input = Testing::noise(512, 7);
    for (unsigned int i = 0; i < c_numPrecalculatedBiQuads; ++i) {
        PrecalculatedBiQuadEntry const& e = c_precalculatedBiQuads[i];
        BiQuadSection const c{tSample(e.raw[0]), tSample(e.raw[1]), tSample(e.raw[2]), tSample(e.raw[3]),
                              tSample(e.raw[4])};
        std::vector<tSample> output(input.size());
        tSample z1, z2, r1, r2;
        e.kernel(input.data(), output.data(), 200, z1, z2);
        e.kernel(input.data() + 200, output.data() + 200, 312, z1, z2);
        for (unsigned int n = 0; n < input.size(); ++n) {
            tSample const x = input[n];
            tSample y = r1 + c.b0 * x;
            if (e.raw[1] == e.raw[3]) {
                r1 = r2 + (x - y) * c.b1;
                r2 = c.b2 * x - c.a2 * y;
            } else {
                y = c.step(x, r1, r2);
            }
            ASSERT_EQ(output[n], y) << e.name << " frame " << n;
        }
        EXPECT_EQ(z1, r1) << e.name;
        EXPECT_EQ(z2, r2) << e.name;
    }
}
