// `orvandeldsp response`: the measured curves against ones computed apart from the chain, and its files.
#include "dsp/BiQuadSection.h"
#include "support/DataFile.h"
#include "support/ToolRun.h"

#include <cmath>
#include <complex>

namespace {

using namespace Zelmar;
using namespace Zelmar::Testing;
using OrvandeldspResponseTest = ToolTest;

// The CSV's lines, the header first, and the numbers of each line after it.
std::pair<std::vector<std::string>, std::vector<std::vector<double>>> parseCsv(std::string const& text)
{
    auto lines = split(text.substr(0, text.size() - 1), "\n");
    std::vector<std::vector<double>> rows;
    for (size_t i = 1; i < lines.size(); ++i) {
        rows.emplace_back();
        for (auto const& field : split(lines[i], ","))
            rows.back().push_back(g_ascii_strtod(field.c_str(), nullptr));
    }
    return {lines, rows};
}

struct Section
{
    char const* type;
    double frequency, q, gainDb;
};

// In double from the quantised coefficients: the cascade's gain is the product of the sections'.
std::complex<double> cascadeGain(std::vector<Section> const& sections, double rate, double frequency)
{
    std::complex<double> const z1 = std::polar(1.0, -2.0 * M_PI * frequency / rate);
    std::complex<double> gain = 1.0;
    for (auto const& s : sections) {
        BiQuadSection c;
        c.design(tBiQuadDesign::translateType(s.type), rate, s.frequency, s.q, s.gainDb);
        gain *= (c.b0.toDouble() + z1 * (c.b1.toDouble() + z1 * c.b2.toDouble())) /
                (1.0 + z1 * (c.a1.toDouble() + z1 * c.a2.toDouble()));
    }
    return gain;
}

} // namespace

// The sections of tests/data/cascade.xml on the left channel, the right one straight through.
TEST_F(OrvandeldspResponseTest, MeasuresABiquadCascadeAsItsQuantisedCoefficientsPredictIntoItsFiles)
{
    std::vector<Section> const sections = {
        {"peak", 1000.0, 1.4, 6.0}, {"loshelf", 200.0, 0.707, -4.0}, {"hipass", 60.0, 0.707, 0.0}};
    // Another rate than the default, so that the chain and the curve must both follow --rate.
    auto const result =
        runTool({"response", "-c", TEST_SOURCE_DIR "/data/cascade.xml", "--rate", "44100", "--from", "30",
                 "--to", "15000", "--points", "60", "--csv", path("r.csv"), "-o", path("r.svg")});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "");
    EXPECT_NE(m_scratch.read("r.svg").find("<svg"), std::string::npos);
    // Written under temporary names first; none may be left over.
    EXPECT_EQ(m_scratch.entries().size(), 2u);
    auto const [lines, rows] = parseCsv(m_scratch.read("r.csv"));
    ASSERT_EQ(rows.size(), 60u);
    EXPECT_EQ(lines[0], "frequency_hz,out0_db,out0_phase_deg,out1_db,out1_phase_deg");
    for (size_t i = 0; i < rows.size(); ++i) {
        auto const& row = rows[i];
        SCOPED_TRACE(lines[i + 1]);
        EXPECT_TRUE(g_regex_match_simple("^\\d+\\.\\d{2,}(,-?\\d+\\.\\d{3,}){4}$", lines[i + 1].c_str(),
                                         G_REGEX_DEFAULT, G_REGEX_MATCH_DEFAULT));
        std::complex<double> const expected = cascadeGain(sections, 44100.0, row[0]);
        EXPECT_NEAR(row[1], 20.0 * std::log10(std::abs(expected)), 0.05);
        EXPECT_NEAR(std::remainder(row[2] - std::arg(expected) * 180.0 / M_PI, 360.0), 0.0, 0.5);
        EXPECT_NEAR(row[3], 0.0, 1e-3);
        EXPECT_NEAR(row[4], 0.0, 1e-2);
    }
}

// A limiter shows at a high level, and an adaptive one follows the volume asked for.
TEST_F(OrvandeldspResponseTest, LevelAndVolumeShowHowALimiterActs)
{
    std::string const config = TEST_SOURCE_DIR "/data/limited.xml";
    struct Case
    {
        char const* level;
        char const* volume; // 100 is 0 dB, 10 is -40 dB
        double expectedDb;
        double tolerance;
    } const cases[] = {
        {"-30", "100", 20.0 * std::log10(4.0), 0.01}, // 12 dB by six per doubling, under any threshold
        {"0", "100", 20.0 * std::log10(0.5), 0.5},    // held at the threshold of -6 dB, that is 0.5
        {"0", "10", 0.0, 0.5},                        // held at 0 dB
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(std::string(c.level) + " dBFS, volume " + c.volume);
        auto const result = runTool({"response", "-c", config, "--level", c.level, "--volume", c.volume,
                                     "--from", "1000", "--to", "1001", "--points", "2"});
        ASSERT_EQ(result.status, 0) << result.err;
        auto const rows = parseCsv(result.out).second;
        ASSERT_EQ(rows.size(), 2u);
        EXPECT_NEAR(rows[0][1], c.expectedDb, c.tolerance);
        EXPECT_NEAR(rows[0][3], c.expectedDb, c.tolerance);
    }
}
