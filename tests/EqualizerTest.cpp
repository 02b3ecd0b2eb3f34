#include "dsp/Equalizer.h"

#include "base/HardwaredClient.h"
#include "dsp/Gain.h"
#include "dsp/ModuleFactory.h"
#include "support/ModuleHarness.h"
#include "tests/support/FakeHardwared.h"
#include "tests/support/MainLoop.h"

#include <gtest/gtest.h>

using namespace Zelmar;
using Testing::constant;
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
    auto eq = std::dynamic_pointer_cast<Equalizer>(module);
    EXPECT_NE(eq, nullptr);
    return eq;
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

TEST_F(EqualizerTest, FixesItsFiltersOnlyAtTheFirstParameterSet)
{
    auto eq = makeEqualizer();
    char const* const expected[][2] = {
        {"low-gain", "biquad"}, {"mid-gain", "biquad"}, {"high-gain", "biquad"}, {"gain-correction", "gain"}};
    auto const children = eq->getChildModules();
    for (unsigned int i = 0; i < 4; ++i) {
        EXPECT_EQ(children[i]->getID(), expected[i][0]);
        EXPECT_EQ(children[i]->getType(), expected[i][1]);
        EXPECT_TRUE(children[i]->getParameters().getParams().empty());
    }

    eq->setParameters(bands("4", "-5", "2.5", "false"), 44100);
    using tMap = Parameters::tMap;
    EXPECT_EQ(children[0]->getParameters().getParams(),
              (tMap{{"type", "loshelf"}, {"frequency", "300"}, {"q", "0.707"}, {"gain", "4"}}));
    EXPECT_EQ(children[1]->getParameters().getParams(),
              (tMap{{"type", "peak"}, {"frequency", "1000"}, {"q", "0.707"}, {"gain", "-5"}}));
    EXPECT_EQ(children[2]->getParameters().getParams(),
              (tMap{{"type", "hishelf"}, {"frequency", "3000"}, {"q", "0.707"}, {"gain", "2.5"}}));
    EXPECT_EQ(children[3]->getParameters().getParams(), (tMap{{"gain", "0"}}));
    EXPECT_EQ(children[0]->getSampleRate(), 44100u);

    // A later set touches only the band gains.
    children[0]->setParameter("frequency", "500");
    eq->setParameters(bands("1", "1", "1", "false"), 48000);
    EXPECT_EQ(children[0]->getParameters().getString("frequency"), "500");
    EXPECT_EQ(children[0]->getParameters().getString("gain"), "1");
}

TEST_F(EqualizerTest, RunsItsChildrenInPlaceLikeTheSameModulesInSeries)
{
    auto const input = Testing::noise(900, 1, 0x02000000);
    auto eq = makeEqualizer();
    ModuleHarness harness(eq, true);
    // The correction gain starts at zero, so nothing comes out until the first parameter set.
    EXPECT_EQ(harness.run(input), constant(900, tSample::s_Zero));
    EXPECT_EQ(eq->getOutPort(0), harness.getSourceBuffer(0));
    for (auto const& child : eq->getChildModules())
        EXPECT_EQ(child->getOutPort(0), harness.getSourceBuffer(0)) << child->getID();

    Parameters const params = bands("5", "-4", "3", "true");
    eq->setParameters(params, 48000);
    auto const whole = harness.run(input);

    // The same filters and correction (their designs are checked above) as separate modules in series.
    std::vector<tSample> expected = input;
    for (auto const& child : eq->getChildModules()) {
        std::shared_ptr<Module> single(ModuleFactory::get().createModule(child->getType(), "single"));
        single->setParameters(child->getParameters(), 48000);
        expected = ModuleHarness(single).run(expected);
    }
    EXPECT_EQ(correctionText(*eq), "-5.000000");
    EXPECT_EQ(whole, expected);

    auto split = makeEqualizer();
    split->setParameters(params, 48000);
    ModuleHarness splitHarness(split, true);
    EXPECT_EQ(splitHarness.processInPeriods({input}, 450)[0], whole);

    // Fed from an output another module also reads, the input must stay as it was.
    auto shared = makeEqualizer();
    shared->setParameters(params, 48000);
    ModuleHarness sharedHarness(shared, false);
    EXPECT_EQ(sharedHarness.run(input), whole);
    EXPECT_EQ(sharedHarness.getSourceBuffer(0)->getUnderlyingStorage(), input);
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
