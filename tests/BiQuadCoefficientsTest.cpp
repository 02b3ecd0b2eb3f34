#include "dsp/BiQuadSection.h"

#include "support/Thrown.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

using namespace Zelmar;
using AudioFilter::Characteristic;

namespace {

BiQuadSection design(char const* type, double rate, double frequency, double q, double gain)
{
    BiQuadSection s;
    s.design(tBiQuadDesign::translateType(type), rate, frequency, q, gain);
    return s;
}

std::vector<int32_t> raw(BiQuadSection const& s)
{
    return {s.b0.getRaw(), s.b1.getRaw(), s.b2.getRaw(), s.a1.getRaw(), s.a2.getRaw()};
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

// Reference values come from an independent script evaluating the same formulas in Python.
TEST(BiQuadCoefficientsTest, DesignsMatchIndependentlyComputedTable)
{
    std::ifstream file(TEST_SOURCE_DIR "/data/biquad-designs.txt");
    ASSERT_TRUE(file.is_open());
    std::string line;
    int cases = 0;
    while (std::getline(file, line)) {
        if (line.empty() || line[0] == '#')
            continue;
        std::istringstream fields(line);
        std::string type;
        double rate, frequency, q, gain;
        std::vector<int32_t> expected(5);
        fields >> type >> rate >> frequency >> q >> gain >> expected[0] >> expected[1] >> expected[2] >>
            expected[3] >> expected[4];
        EXPECT_EQ(raw(design(type.c_str(), rate, frequency, q, gain)), expected) << line;
        ++cases;
    }
    EXPECT_EQ(cases, 24);
}

TEST(BiQuadCoefficientsTest, IdentitiesOfPassthruPeakAndShelves)
{
    EXPECT_EQ(raw(design("passthru", 44100, 100, 1, 3)), (std::vector<int32_t>{0x08000000, 0, 0, 0, 0}));

    BiQuadSection const flat = design("peak", 48000, 1000, 2, 0);
    EXPECT_EQ(flat.b1, flat.a1);
    EXPECT_EQ(flat.b2, flat.a2);
    EXPECT_NEAR(flat.b0.getRaw(), 0x08000000, 8);

    EXPECT_EQ(raw(design("loshelf", 48000, 300, 0.5, 4)), raw(design("loshelf", 48000, 300, 3, 4)));
    EXPECT_EQ(raw(design("hishelf", 48000, 3000, 0.5, -4)), raw(design("hishelf", 48000, 3000, 3, -4)));
}

TEST(BiQuadCoefficientsTest, CutUndoesBoostOfSameMagnitude)
{
    for (char const* type : {"peak", "loshelf", "hishelf"}) {
        BiQuadSection const boost = design(type, 48000, 1000, 1.5, 6);
        BiQuadSection const cut = design(type, 48000, 1000, 1.5, -6);
        tSample z[4];
        tSample y;
        for (int i = 0; i < 2000; ++i) {
            tSample const x = tSample(i == 0 ? 0.5 : 0.0);
            y = cut.step(boost.step(x, z[0], z[1]), z[2], z[3]);
            EXPECT_NEAR(y.toDouble(), i == 0 ? 0.5 : 0.0, 1e-5) << type << " at " << i;
        }
    }
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
