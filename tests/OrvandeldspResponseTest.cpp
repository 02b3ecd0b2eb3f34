// `orvandeldsp response`: the measured curves against ones computed apart from the chain, and its files.
#include "dsp/BiQuadSection.h"
#include "support/ToolRun.h"

#include <cmath>
#include <complex>
#include <sstream>
#include <string>
#include <vector>

namespace {

using namespace Zelmar;
using namespace Zelmar::Testing;
using OrvandeldspResponseTest = ToolTest;

struct Table
{
    std::vector<std::string> lines; // the header first
    std::vector<std::vector<double>> rows;
};

Table parseCsv(std::string const& text)
{
    std::istringstream input(text);
    Table table;
    for (std::string line; std::getline(input, line); table.lines.push_back(line)) {
        if (table.lines.empty())
            continue;
        std::istringstream fields(line);
        table.rows.emplace_back();
        for (std::string field; std::getline(fields, field, ',');)
            table.rows.back().push_back(g_ascii_strtod(field.c_str(), nullptr));
    }
    return table;
}

std::string const c_output = "<module type=\"output\" id=\"out\">"
                             "<parameter id=\"interleave-pattern\" type=\"string\">01</parameter></module>";

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

// The left channel runs through the sections, the right one straight through.
TEST_F(OrvandeldspResponseTest, MeasuresABiquadCascadeAsItsQuantisedCoefficientsPredict)
{
    std::vector<Section> const sections = {
        {"peak", 1000.0, 1.4, 6.0}, {"loshelf", 200.0, 0.707, -4.0}, {"hipass", 60.0, 0.707, 0.0}};
    std::string config = "<dsp><module type=\"input\" id=\"in\"/>" + c_output;
    std::string from = "in[0]";
    for (size_t i = 0; i < sections.size(); ++i) {
        std::string const id = "s" + std::to_string(i);
        char parameters[512];
        std::snprintf(parameters, sizeof parameters,
                      "<parameter id=\"type\" type=\"string\">%s</parameter>"
                      "<parameter id=\"frequency\" type=\"double\">%g</parameter>"
                      "<parameter id=\"q\" type=\"double\">%g</parameter>"
                      "<parameter id=\"gain\" type=\"double\">%g</parameter>",
                      sections[i].type, sections[i].frequency, sections[i].q, sections[i].gainDb);
        config += "<module type=\"biquad\" id=\"" + id + "\">" + parameters + "</module><cable out=\"" +
                  from + "\" in=\"" + id + "[0]\"/>";
        from = id + "[0]";
    }
    config += "<cable out=\"" + from + "\" in=\"out[0]\"/><cable out=\"in[1]\" in=\"out[1]\"/></dsp>";

    // Another rate than the default, so that the chain and the curve must both follow --rate.
    auto const result = runTool({"response", "-c", writeConfig("cascade.xml", config), "--rate", "44100",
                                 "--from", "30", "--to", "15000", "--points", "60", "--csv", path("r.csv")});
    ASSERT_EQ(result.status, 0) << result.err;
    Table const table = parseCsv(m_scratch.read("r.csv"));
    ASSERT_EQ(table.rows.size(), 60u);
    for (auto const& row : table.rows) {
        SCOPED_TRACE(row[0]);
        std::complex<double> const expected = cascadeGain(sections, 44100.0, row[0]);
        EXPECT_NEAR(row[1], 20.0 * std::log10(std::abs(expected)), 0.05);
        EXPECT_NEAR(std::remainder(row[2] - std::arg(expected) * 180.0 / M_PI, 360.0), 0.0, 0.5);
        EXPECT_NEAR(row[3], 0.0, 1e-3);
        EXPECT_NEAR(row[4], 0.0, 1e-2);
    }
}

TEST_F(OrvandeldspResponseTest, WritesTheCsvAndAPlot)
{
    auto const result = runTool({"response", "--points", "5", "--csv", path("r.csv"), "-o", path("r.svg")});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "");
    Table const table = parseCsv(m_scratch.read("r.csv"));
    ASSERT_EQ(table.rows.size(), 5u);
    EXPECT_EQ(table.lines[0], "frequency_hz,out0_db,out0_phase_deg,out1_db,out1_phase_deg");
    for (size_t i = 0; i < table.rows.size(); ++i) {
        EXPECT_NEAR(table.rows[i][0], 20.0 * std::pow(1000.0, i / 4.0), 0.005);
        EXPECT_TRUE(g_regex_match_simple("^\\d+\\.\\d{2,}(,-?\\d+\\.\\d{3,}){4}$", table.lines[i + 1].c_str(),
                                         G_REGEX_DEFAULT, G_REGEX_MATCH_DEFAULT))
            << table.lines[i + 1];
    }
    EXPECT_NE(m_scratch.read("r.svg").find("<svg"), std::string::npos);
    // Written under temporary names first; none may be left over.
    EXPECT_EQ(m_scratch.entries().size(), 2u);
}

// A limiter shows at a high level, and an adaptive one follows the volume asked for.
TEST_F(OrvandeldspResponseTest, LevelAndVolumeShowHowALimiterActs)
{
    std::string const config = writeConfig(
        "limited.xml", "<dsp><module type=\"input\" id=\"in\"/>" + c_output +
                           "<stereo-module type=\"gain\" id=\"boost\"><parameter id=\"gain\" "
                           "type=\"double\">12</parameter></stereo-module>"
                           "<stereo-module type=\"adaptive-limiter\" id=\"limit\">"
                           "<parameter id=\"threshold\" type=\"string\">-40=0,0=-6</parameter>"
                           "<parameter id=\"attack\" type=\"double\">1</parameter>"
                           "<parameter id=\"release\" type=\"double\">200</parameter></stereo-module>"
                           "<cable out=\"in\" in=\"boost\"/><cable out=\"boost\" in=\"limit\"/>"
                           "<cable out=\"limit\" in=\"out\"/></dsp>");
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
        Table const table = parseCsv(result.out);
        ASSERT_EQ(table.rows.size(), 2u);
        EXPECT_NEAR(table.rows[0][1], c.expectedDb, c.tolerance);
        EXPECT_NEAR(table.rows[0][3], c.expectedDb, c.tolerance);
    }
}
