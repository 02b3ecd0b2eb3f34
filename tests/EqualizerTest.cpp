// The tone controls: the mono equaliser of four child modules, the single-module stereo one, and the
// biquad and limiter that follow the hardware daemon's volume through a curve.
#include "dsp/Equalizer.h"
#include "base/HardwaredClient.h"
#include "dsp/AdaptiveBiquad.h"
#include "dsp/AdaptiveLimiter.h"
#include "dsp/Gain.h"
#include "dsp/LinearInterpolator.h"
#include "dsp/ModuleFactory.h"
#include "dsp/ThreeBandStereoEQ.h"
#include "tests/support/DataFile.h"
#include "tests/support/FakeHardwared.h"
#include "tests/support/LogCapture.h"
#include "tests/support/MainLoop.h"
#include "tests/support/ModuleHarness.h"
#include "tests/support/Thrown.h"
#include <gtest/gtest.h>
#include <stdexcept>

using namespace Zelmar;
using Testing::ModuleHarness;
using Testing::runMainLoopUntil;
using tKey = LinearInterpolator::tKey;

namespace {

Parameters bands(std::string const& low, std::string const& mid, std::string const& high,
                 std::string const& correction)
{
    return Parameters{
        {"low-gain", low}, {"mid-gain", mid}, {"high-gain", high}, {"gain-correction", correction}};
}

// The correction child's level as text and as the factor it applies.
std::pair<std::string, tSample> correction(Equalizer const& eq)
{
    return {eq.getChildModules()[3]->getParameters().getString("gain").str(),
            static_cast<Gain&>(*eq.getChildModules()[3]).getTargetGain()};
}

using EqualizerTest = Testing::HardwaredBusTest;

} // namespace

// The mono equaliser reports its correction only when correcting, the stereo one on every change.
TEST_F(EqualizerTest, CorrectsTheLargestBoostAndReportsItAsHiddenVolume)
{
    // Without a chain there is nowhere to report to; the correction is still applied.
    auto unchained = std::make_shared<Equalizer>("eq");
    unchained->setParameters(bands("6", "3", "-2", "true"), 48000);
    EXPECT_EQ(correction(*unchained), std::make_pair(std::string("-6.000000"), tSample(0.5)));

    bringUpDaemon();
    auto eq = std::make_shared<Equalizer>("eq");
    ModuleHarness harness(eq, true);
    for (auto const& row : Testing::readTable("equalizer-corrections.txt")) {
        auto const set = Testing::split(row[0], " ");
        eq->setParameters(bands(set[0], set[1], set[2], set[3]), 48000);
        EXPECT_EQ(correction(*eq), std::make_pair(row[1], tSample(std::pow(2.0, std::stod(row[1]) / 6))))
            << row[0];
    }
    Chain chain(48000);
    auto const stereo = chain.addModule("stereo-equalizer", "tone");
    for (auto const& set :
         {bands("6", "0", "3", "true"), bands("-3", "-6", "-1", "true"), bands("6", "0", "3", "false")})
        stereo->setParameters(set, 48000);
    EXPECT_EQ(receivedUpToMarker(), (std::vector<double>{6, 4.5, 0, 0, 2, 6, 0, 0, c_marker}));
    EXPECT_THROW(eq->setParameters(bands("2", "loud", "0", "true"), 48000), std::invalid_argument);
}

TEST_F(EqualizerTest, FixesItsFiltersAtTheFirstSetAndRunsThemInPlaceInSeries)
{
    auto const input = Testing::noise(900, 1, 0x02000000);
    auto eq = std::make_shared<Equalizer>("eq");
    ModuleHarness harness(eq, true);
    // The correction gain starts at zero, so nothing comes out until the first parameter set.
    EXPECT_EQ(harness.run(input), Testing::constant(900, tSample::s_Zero));
    for (auto const& child : eq->getChildModules())
        EXPECT_EQ(child->getOutPort(0), harness.getSourceBuffer(0)) << child->getID();

    eq->setParameters(bands("5", "-4", "2.5", "false"), 44100);
    std::vector<std::string> children;
    for (auto const& child : eq->getChildModules()) {
        children.push_back((child->getType() + " " + child->getID()).str());
        for (auto const& [key, value] : child->getParameters().getParams())
            children.back() += " " + (key + "=" + value).str();
    }
    EXPECT_EQ(children,
              (std::vector<std::string>{"biquad low-gain frequency=300 gain=5 q=0.707 type=loshelf",
                                        "biquad mid-gain frequency=1000 gain=-4 q=0.707 type=peak",
                                        "biquad high-gain frequency=3000 gain=2.5 q=0.707 type=hishelf",
                                        "gain gain-correction gain=0"}));

    // The same filters and correction as separate modules in series.
    auto const whole = harness.run(input);
    std::vector<tSample> expected = input;
    for (auto const& child : eq->getChildModules()) {
        std::shared_ptr<Module> single(ModuleFactory::get().createModule(child->getType(), "single"));
        single->setParameters(child->getParameters(), 44100);
        expected = ModuleHarness(single).run(expected);
    }
    EXPECT_EQ(whole, expected);

    // A later set touches only the band gains.
    eq->getChildModules()[0]->setParameter("frequency", "500");
    eq->setParameters(bands("1", "1", "1", "false"), 48000);
    EXPECT_EQ(eq->getChildModules()[0]->getParameters().getString("frequency"), "500");
    EXPECT_EQ(eq->getChildModules()[0]->getParameters().getString("gain"), "1");
}

TEST(EqualizerDeathTest, AcceptsOnlyPortZero)
{
    auto eq = std::make_shared<Equalizer>("eq");
    EXPECT_DEATH(eq->setInPortBuffer(1, eq, 0), "inPort == 0");
    EXPECT_DEATH(eq->setOutPortBuffer(1, std::make_shared<AudioBuffer>(16)), "outPort == 0");
}

// Six decibels per doubling for the correction, true decibels for the bands, deliberately.
TEST(ThreeBandStereoEQTest, CorrectionUsesSixDecibelsPerDoublingAndTheLargestBoost)
{
    for (auto const& [set, factor, delta] :
         {std::tuple{bands("6", "0", "3", "true"), 0.5, 6.0},
          {bands("-3", "-6", "-1", "true"), 1.0, 0.0},
          {bands("6", "0", "3", "false"), 1.0, 0.0},
          {bands("1", "4.5", "-2", "true"), std::pow(2.0, -4.5 / 6.0), 4.5}}) {
        ThreeBandStereoEQ::ParameterSet const ps(set, 48000);
        EXPECT_EQ(std::make_pair(ps.m_correctionGain, ps.m_hiddenVolumeDelta),
                  std::make_pair(tSample(factor), tSample(delta)));
    }
    // The shelves as the generic design at 300 and 3000 Hz; the mid band multiplies by 1/0.707 rather
    // than dividing: equal up to the last single-precision bit.
    ThreeBandStereoEQ::ParameterSet const ps(bands("4", "-5", "2", "false"), 44100);
    BiQuadSection low, high, mid;
    low.design(AudioFilter::Characteristic::LoShelf, 44100, 300, 1, 4);
    high.design(AudioFilter::Characteristic::HiShelf, 44100, 3000, 1, 2);
    mid.design(AudioFilter::Characteristic::Peak, 44100, 1000, 0.707, -5);
    EXPECT_EQ(std::vector<tSample>({ps.m_low.b0, ps.m_low.a2, ps.m_high.b0, ps.m_high.a2}),
              std::vector<tSample>({low.b0, low.a2, high.b0, high.a2}));
    EXPECT_NEAR(ps.m_mid.b0.getRaw(), mid.b0.getRaw(), 16);
    EXPECT_NEAR(ps.m_mid.a2.getRaw(), mid.a2.getRaw(), 16);
}

TEST(ThreeBandStereoEQTest, RunsBothChannelsInPlaceWithStateAcrossPeriods)
{
    auto const left = Testing::noise(700, 1, 1 << 26), right = Testing::noise(700, 2, 1 << 26);
    auto const make = [](Parameters const& params) {
        std::shared_ptr<Module> eq(ModuleFactory::get().createModule("stereo-equalizer", "eq"));
        if (!params.getParams().empty())
            eq->setParameters(params, 48000);
        return eq;
    };
    EXPECT_EQ(ModuleHarness(make({}), true).process({left, right}), (ModuleHarness::tChannels{left, right}))
        << "nothing before the first set";
    // Flat and uncorrected: the identity up to the truncation of the coefficients.
    auto const flat = ModuleHarness(make(bands("0", "0", "0", "false")), true).process({left, right});
    for (unsigned int i = 0; i < left.size(); ++i)
        ASSERT_TRUE(std::abs(flat[0][i].getRaw() - left[i].getRaw()) <= 64 &&
                    std::abs(flat[1][i].getRaw() - right[i].getRaw()) <= 64)
            << i;

    // Each channel runs the three sections and the correction, whatever the period split.
    Parameters const params = bands("5", "-4", "3", "true");
    auto const whole = ModuleHarness(make(params)).process({left, right});
    ThreeBandStereoEQ::ParameterSet const ps(params, 48000);
    tSample z[6];
    std::vector<tSample> expected;
    for (tSample x : right)
        expected.push_back(
            ps.m_high.step(ps.m_mid.step(ps.m_low.step(x, z[0], z[1]), z[2], z[3]), z[4], z[5]) *
            ps.m_correctionGain);
    EXPECT_EQ(whole[1], expected);
    EXPECT_EQ(ModuleHarness(make(params), true).processInPeriods({left, right}, 350), whole);
}

namespace {

// A peak at 1 kHz whose gain follows "-60=<at -60 dB>,0=0", and a limiter of instant attack and release,
// which holds a loud input at exactly its threshold, following "-60=-12,0=-6".
class VolumeAdaptiveTest : public Testing::HardwaredBusTest
{
protected:
    void configure(char const* gainAtMinus60 = "9")
    {
        m_biquad->setParameters({{"type", "peak"},
                                 {"frequency", "1000"},
                                 {"q", "1"},
                                 {"gain", "-60=" + std::string(gainAtMinus60) + ",0=0"}},
                                48000);
        m_limiter->setParameters({{"attack", "0"}, {"release", "0"}, {"threshold", "-60=-12,0=-6"}}, 48000);
    }

    // What each runs with, as opposed to the curve the biquad reports.
    std::pair<std::string, std::string> applied() const
    {
        return {m_biquad->Module::getParameters().getString("gain").str(),
                m_limiter->getParameters().getString("threshold").str()};
    }

    double gainAt1kHzDb()
    {
        auto const out = m_biquadHarness.processInPeriods({Testing::makeSine(0.25, 1000, 48000, 4800)}, 480);
        return Testing::levelDb(out[0], 960, 0.25);
    }
    double limitedLevel()
    {
        return m_limiterHarness.run(Testing::constant(480, tSample(0.9)))[479].toDouble();
    }

    bool hasVolume(double volume)
    {
        return runMainLoopUntil([=] { return HardwaredClient::get().getVolume() == volume; });
    }

    Testing::LogCapture m_log;
    std::shared_ptr<AdaptiveBiquad> m_biquad = std::make_shared<AdaptiveBiquad>("loudness");
    std::shared_ptr<AdaptiveLimiter> m_limiter = std::make_shared<AdaptiveLimiter>("guard");
    Testing::ModuleHarness m_biquadHarness{m_biquad}, m_limiterHarness{m_limiter};
};

using AdaptiveBiquadTest = VolumeAdaptiveTest;

} // namespace

// Volume 0 lies below the curves.
TEST_F(AdaptiveBiquadTest, WithoutTheDaemonOrItsVolumeBothLogAndTakeVolumeZero)
{
    configure();
    EXPECT_EQ(m_log.lines(),
              std::vector<std::string>(2, "4 DbusServiceWatcher::getProperty: property volume  - no proxy."));
    EXPECT_EQ(applied(), std::make_pair(std::string("9.000000"), std::string("-12.000000")));
    m_biquad->setControlGain(-30.0);
    m_limiter->setControlGain(-30.0);
    EXPECT_EQ(applied(), std::make_pair(std::string("4.500000"), std::string("-9.000000")));
    EXPECT_EQ(m_biquad->getParameters().getString("gain"), "-60=9,0=0") << "the biquad reports its curve";

    m_daemon.withholdVolume();
    bringUpDaemon();
    m_log.clear();
    configure();
    EXPECT_EQ(m_log.lines()[0], "4 DbusServiceWatcher::getProperty: property volume does not exist (yet).");
    EXPECT_EQ(applied().first, "9.000000");
}

TEST_F(AdaptiveBiquadTest, BothFollowTheDaemonVolumeInParametersAndAudioButNotAnUnchangedStep)
{
    m_biquad->onModuleAddedToChain(m_biquadHarness.getChain());
    m_daemon.setVolume(50);
    bringUpDaemon();
    ASSERT_TRUE(hasVolume(50));
    m_limiter->onModuleAddedToChain(m_limiterHarness.getChain());
    configure("12");
    // Volume 50 is -12.04 dB on the device curve, 12.04 / 60 of the way down from 0 dB.
    double const fromTop = 12.0412 / 60;
    EXPECT_NEAR(std::stod(applied().first), 12 * fromTop, 1e-3);
    EXPECT_NEAR(gainAt1kHzDb(), 12 * fromTop, 0.05);
    EXPECT_NEAR(std::stod(applied().second), -6 - 6 * fromTop, 1e-3);
    EXPECT_NEAR(limitedLevel(), std::pow(2.0, (-6 - 6 * fromTop) / 6), 1e-4);

    // The daemon reports a new value, but it is the same volume step.
    Module::ParameterSet const* const inForce = m_biquad->getCurrentParameterSet();
    m_daemon.setVolume(50.3);
    ASSERT_TRUE(hasVolume(50.3));
    m_biquad->setControlGain(m_biquad->getControlGain());
    EXPECT_EQ(m_biquad->getCurrentParameterSet(), inForce);

    m_daemon.setVolume(100);
    ASSERT_TRUE(runMainLoopUntil(
        [&] { return applied() == std::make_pair(std::string("0.000000"), std::string("-6.000000")); }));
    EXPECT_NEAR(gainAt1kHzDb(), 0.0, 0.05);
    EXPECT_NEAR(limitedLevel(), 0.5, 1e-6);
    m_daemon.setVolume(0);
    ASSERT_TRUE(runMainLoopUntil([&] { return applied().first == "12.000000"; }));
    EXPECT_NEAR(gainAt1kHzDb(), 12.0, 0.05);
    EXPECT_EQ(m_log.count("4 "), 0);
}

TEST(LinearInterpolatorTest, InterpolatesStraightLinesAndHoldsBothEnds)
{
    LinearInterpolator curve;
    auto const at = [&](double key) { return curve.getInterpolated(tKey(key)).toDouble(); };
    curve.load("-60=9,0=0");
    EXPECT_EQ(at(-30), 4.5);

    curve.load("-30=4,0=0,-60=9");
    for (auto const& [key, value] : {std::pair{-45.0, 6.5},
                                     {-30.0, 4.0},
                                     {-15.0, 2.0},
                                     {-60.0, 9.0},
                                     {-100.0, 9.0},
                                     {0.0, 0.0},
                                     {12.0, 0.0}})
        EXPECT_EQ(at(key), value) << key;
    // A third of the way truncates to raw 174762 of 2^19, so the value ends 2 raw steps above 2.
    curve.load("0=3,3=0");
    EXPECT_EQ(curve.getInterpolated(tKey(1.0)).getRaw(), 2 * 524288 + 2);
}

TEST(LinearInterpolatorTest, ParsesPiecesThroughSinglePrecisionAndIgnoresPiecesWithoutEquals)
{
    LinearInterpolator curve;
    curve.load("volume,-10=1, -10=3 ,0.1=-0.1,");
    ASSERT_EQ(curve.getBreakpoints().size(), 2u);
    EXPECT_EQ(curve.getBreakpoints().at(tKey(-10.0)).toDouble(), 3.0);
    // 0.1f * 2^19 = 52428.8 truncates toward zero on both sides.
    EXPECT_EQ(curve.getBreakpoints().begin()->first.getRaw(), -10 * 524288);
    EXPECT_EQ(curve.getBreakpoints().rbegin()->first.getRaw(), 52428);
    EXPECT_EQ(curve.getBreakpoints().rbegin()->second.getRaw(), -52428);

    // Loading replaces, so a curve of pieces without "=" is empty.
    curve.load("-60;9");
    EXPECT_EQ(Testing::thrownMessage<std::invalid_argument>([&] { curve.getInterpolated(tKey(0.0)); }),
              "linear interpolator is not set up properly");
    for (char const* text : {"-60=9,loud=0", "=3", "-60="})
        EXPECT_EQ(Testing::thrownMessage<std::invalid_argument>([&] { curve.load(text); }), "stod") << text;
    EXPECT_EQ(Testing::thrownMessage<std::out_of_range>([&] { curve.load("-60=1e999"); }), "stod");
}
