#include "dsp/Equalizer.h"

#include "dsp/Gain.h"
#include "dsp/ModuleFactory.h"
#include "support/ModuleHarness.h"
#include "tests/support/FakeHardwared.h"

#include <gtest/gtest.h>

using namespace Zelmar;
using Testing::ModuleHarness;

namespace {

Parameters bands(char const* low, char const* mid, char const* high, char const* correction)
{
    return Parameters{
        {"low-gain", low}, {"mid-gain", mid}, {"high-gain", high}, {"gain-correction", correction}};
}

std::shared_ptr<Equalizer> makeEqualizer()
{
    std::shared_ptr<Module> module(ModuleFactory::get().createModule("equalizer", "eq"));
    return std::dynamic_pointer_cast<Equalizer>(module);
}

class EqualizerTest : public Testing::HardwaredBusTest
{
protected:
    static Tools::String correctionText(Equalizer const& eq)
    {
        return eq.getChildModules()[3]->getParameters().getString("gain");
    }

    static tSample correctionFactor(Equalizer const& eq)
    {
        return static_cast<Gain&>(*eq.getChildModules()[3]).getTargetGain();
    }
};

} // namespace

TEST_F(EqualizerTest, CorrectsTheLargestBoostAndReportsItAsHiddenVolume)
{
    // Without a chain there is nowhere to report to; the correction is still applied.
    auto unchained = makeEqualizer();
    unchained->setParameters(bands("6", "3", "-2", "true"), 48000);
    EXPECT_EQ(correctionText(*unchained), "-6.000000");

    bringUpDaemon();
    auto eq = makeEqualizer();
    ModuleHarness harness(eq, true);
    eq->setParameters(bands("6", "3", "-2", "true"), 48000);
    EXPECT_EQ(correctionText(*eq), "-6.000000");
    EXPECT_EQ(correctionFactor(*eq), tSample(0.5));
    eq->setParameters(bands("1", "4.5", "2", "true"), 48000);
    EXPECT_EQ(correctionText(*eq), "-4.500000");
    // Cuts are not made up for; the zero keeps its sign through "%f".
    eq->setParameters(bands("-3", "-6", "-1", "true"), 48000);
    EXPECT_EQ(correctionText(*eq), "-0.000000");
    EXPECT_EQ(correctionFactor(*eq).getRaw(), 0x08000000);
    eq->setParameters(bands("0", "0", "0", "true"), 48000);
    EXPECT_EQ(correctionText(*eq), "-0.000000");
    // Correction off: the last correction stays and nothing is reported.
    eq->setParameters(bands("2", "1", "0", "true"), 48000);
    eq->setParameters(bands("9", "0", "0", "false"), 48000);
    EXPECT_EQ(correctionText(*eq), "-2.000000");
    EXPECT_EQ(receivedUpToMarker(), (std::vector<double>{6, 4.5, 0, 0, 2, c_marker}));

    EXPECT_THROW(eq->setParameters(bands("2", "loud", "0", "true"), 48000), std::invalid_argument);
}

TEST_F(EqualizerTest, FixesItsFiltersAtTheFirstSetAndRunsThemInPlaceInSeries)
{
    auto const input = Testing::noise(900, 1, 0x02000000);
    auto eq = makeEqualizer();
    ModuleHarness harness(eq, true);
    // The correction gain starts at zero, so nothing comes out until the first parameter set.
    EXPECT_EQ(harness.run(input), Testing::constant(900, tSample::s_Zero));
    for (auto const& child : eq->getChildModules())
        EXPECT_EQ(child->getOutPort(0), harness.getSourceBuffer(0)) << child->getID();

    eq->setParameters(bands("5", "-4", "2.5", "false"), 44100);
    using tMap = Parameters::tMap;
    std::pair<char const*, tMap> const children[] = {
        {"low-gain", {{"type", "loshelf"}, {"frequency", "300"}, {"q", "0.707"}, {"gain", "5"}}},
        {"mid-gain", {{"type", "peak"}, {"frequency", "1000"}, {"q", "0.707"}, {"gain", "-4"}}},
        {"high-gain", {{"type", "hishelf"}, {"frequency", "3000"}, {"q", "0.707"}, {"gain", "2.5"}}},
        {"gain-correction", {{"gain", "0"}}}};
    for (unsigned int i = 0; i < 4; ++i) {
        auto const& child = *eq->getChildModules()[i];
        EXPECT_EQ(child.getID(), children[i].first);
        EXPECT_EQ(child.getType(), i < 3 ? "biquad" : "gain");
        EXPECT_EQ(child.getParameters().getParams(), children[i].second) << children[i].first;
    }

    // The same filters and correction as separate modules in series.
    auto const whole = harness.run(input);
    std::vector<tSample> expected = input;
    for (auto const& child : eq->getChildModules()) {
        std::shared_ptr<Module> single(ModuleFactory::get().createModule(child->getType(), "single"));
        single->setParameters(child->getParameters(), 44100);
        expected = ModuleHarness(single).run(expected);
    }
    EXPECT_EQ(whole, expected);
    // Fed from an output another module also reads, the input must stay as it was; periods carry state.
    auto shared = makeEqualizer();
    shared->setParameters(bands("5", "-4", "2.5", "false"), 44100);
    ModuleHarness sharedHarness(shared, false);
    EXPECT_EQ(sharedHarness.processInPeriods({input}, 450)[0], whole);
    EXPECT_EQ(sharedHarness.getSourceBuffer(0)->getUnderlyingStorage(),
              std::vector<tSample>(input.begin() + 450, input.end()));

    // A later set touches only the band gains.
    eq->getChildModules()[0]->setParameter("frequency", "500");
    eq->setParameters(bands("1", "1", "1", "false"), 48000);
    EXPECT_EQ(eq->getChildModules()[0]->getParameters().getString("frequency"), "500");
    EXPECT_EQ(eq->getChildModules()[0]->getParameters().getString("gain"), "1");
}

TEST_F(EqualizerTest, BoostsTheMidBandAndTakesItBackWithTheCorrection)
{
    auto const sine = Testing::makeSine(0.25, 1000, 48000, 9600);
    auto eq = makeEqualizer();
    ModuleHarness harness(eq, true);
    eq->setParameters(bands("0", "6", "0", "false"), 48000);
    EXPECT_NEAR(Testing::levelDb(harness.run(sine), 4800, 0.25), 6.0, 0.1);
    eq->setParameters(bands("0", "6", "0", "true"), 48000);
    EXPECT_NEAR(Testing::levelDb(harness.run(sine), 4800, 0.25), 0.0, 0.1);

    // Bass, on the low shelf's plateau well below 300 Hz: switching the correction off keeps the last
    // one, which here takes the bass boost back; the corrected treble boost leaves the bass 6 dB down.
    auto const bass = Testing::makeSine(0.25, 25, 48000, 96000);
    eq->setParameters(bands("6", "0", "0", "false"), 48000);
    EXPECT_NEAR(Testing::levelDb(harness.run(bass), 48000, 0.25), 0.0, 0.1);
    eq->setParameters(bands("0", "0", "6", "true"), 48000);
    EXPECT_NEAR(Testing::levelDb(harness.run(bass), 48000, 0.25), -6.0, 0.1);
}

TEST(EqualizerDeathTest, AcceptsOnlyPortZero)
{
    auto eq = makeEqualizer();
    EXPECT_DEATH(eq->setInPortBuffer(1, eq, 0), "inPort == 0");
    EXPECT_DEATH(eq->setOutPortBuffer(1, std::make_shared<AudioBuffer>(16)), "outPort == 0");
}
