// The biquad modules and the loops they run (the section's rule, its vector forms and the cascade), then
// the designs and the precalculated kernels.
#include "dsp/BiQuad.h"
#include "dsp/BiQuadSection.h"
#include "dsp/ModuleFactory.h"
#include "dsp/StereoBiQuad.h"
#include "dsp/VectorLoops.h"
#include "dsp/precalculated/PrecalculatedBiQuadKernels.h"
#include "support/ModuleHarness.h"
#include "support/Thrown.h"
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>

using namespace Zelmar;
using AudioFilter::Characteristic;
using Testing::ModuleHarness;
using Testing::noise;

namespace {

Parameters filter(char const* type, char const* frequency, char const* q, char const* gain)
{
    return Parameters{{"type", type}, {"frequency", frequency}, {"q", q}, {"gain", gain}};
}

std::shared_ptr<Module> make(char const* type, Parameters const& params = {}, unsigned int rate = 48000)
{
    std::shared_ptr<Module> module(ModuleFactory::get().createModule(type, "f"));
    if (!params.getParams().empty())
        module->setParameters(params, rate);
    return module;
}

// Gain in dB of a 1 s sine after 1 s of settling.
double measure(Parameters const& params, unsigned int rate, double frequency)
{
    ModuleHarness harness(make("biquad", params, rate));
    auto const out = harness.processInPeriods({Testing::makeSine(0.25, frequency, rate, 2 * rate)}, 1280);
    return Testing::levelDb(out[0], rate, 0.25);
}

BiQuadSection section(Characteristic type, double frequency, double q, double gainDb)
{
    BiQuadSection s;
    s.design(type, 48000, frequency, q, gainDb);
    return s;
}

// The vector loops the dispatched runners take when the processor has them.
char const* targetLoops()
{
    return vectorLoops() ? vectorLoops()->name : "scalar (no vector loops)";
}

} // namespace

TEST(BiQuadTest, PassesAudioThroughBeforeParametersAndAtNyquistAndKeepsTheFilterOnAnUnknownType)
{
    auto const input = noise(256, 1, 0x04000000);
    auto module = make("biquad");
    ASSERT_NE(dynamic_cast<BiQuad*>(module.get()), nullptr);
    ModuleHarness harness(module);
    EXPECT_EQ(harness.run(input), input);
    module->setParameters(filter("lopass", "24000", "0.7", "0"), 48000);
    EXPECT_EQ(harness.run(input), input);
    module->setParameters(filter("lopass", "1000", "0.7", "0"), 48000);
    EXPECT_THROW(module->setParameters(filter("LoPass", "1000", "0.7", "0"), 48000), ParsingException);
    EXPECT_NE(harness.run(input), input);
}

TEST(BiQuadTest, FrequencyResponseMeasuredWithSines)
{
    EXPECT_NEAR(measure(filter("peak", "1000", "1", "6"), 48000, 1000), 6.0, 0.1);
    EXPECT_NEAR(measure(filter("peak", "1000", "2", "-9"), 48000, 1000), -9.0, 0.1);
    EXPECT_NEAR(measure(filter("lopass", "1000", "0.707", "0"), 48000, 1000), -3.0, 0.1);
    EXPECT_NEAR(measure(filter("hipass", "1000", "0.707", "0"), 44100, 1000), -3.0, 0.1);
    EXPECT_NEAR(measure(filter("loshelf", "2000", "0", "6"), 48000, 20), 6.0, 0.1);
    EXPECT_NEAR(measure(filter("hishelf", "500", "0", "-4"), 48000, 20000), -4.0, 0.1);
    EXPECT_LT(measure(filter("notch", "1000", "1", "0"), 48000, 1000), -40.0);
    EXPECT_NEAR(measure(filter("bandpass", "1000", "1", "0"), 48000, 1000), 0.0, 0.1);
}

// Same stream, one block or two halves, with and without a kernel: the state must carry over.
TEST(BiQuadTest, StateCarriesAcrossPeriodsAndParameterChanges)
{
    auto const input = noise(1024, 3, 0x04000000);
    for (unsigned int fs : {44100u, 44000u}) {
        auto whole = make("biquad", filter("peak", "45", "2", "10"), fs);
        EXPECT_EQ(ModuleHarness(whole).run(input),
                  ModuleHarness(make("biquad", filter("peak", "45", "2", "10"), fs), true)
                      .processInPeriods({input}, 512)[0])
            << fs;
        EXPECT_EQ(static_cast<BiQuad&>(*whole).getPrecalculatedKernel(),
                  fs == 44100 ? &peak_44100_f45_q2000_g10000 : nullptr);
    }
    // A change of coefficients continues from the old state: the output right after the change equals
    // a fresh filter's output plus the old state's decay, never the fresh filter alone.
    auto changed = make("biquad", filter("lopass", "200", "0.7", "0"));
    ModuleHarness changedHarness(changed);
    changedHarness.run(std::vector<tSample>(256, tSample(0.5)));
    changed->setParameters(filter("hipass", "200", "0.7", "0"), 48000);
    auto const silence = std::vector<tSample>(4, tSample::s_Zero);
    EXPECT_EQ(ModuleHarness(make("biquad", filter("hipass", "200", "0.7", "0"))).run(silence), silence);
    EXPECT_GT(changedHarness.run(silence)[0], tSample(0.1));
}

TEST(StereoBiQuadTest, FiltersEachChannelLikeTheMonoModule)
{
    auto const left = noise(600, 4, 0x04000000), right = noise(600, 5, 0x04000000);
    auto passing = make("stereo-biquad");
    ASSERT_NE(dynamic_cast<StereoBiQuad*>(passing.get()), nullptr);
    EXPECT_EQ(ModuleHarness(passing, true).process({left, right}), (ModuleHarness::tChannels{left, right}));
    // The +7 dB design has no kernel, the -3 dB one at 4200 Hz Q 1.2 has.
    for (char const* gain : {"7", "-3"}) {
        Parameters const params = filter("peak", "4200", "1.2", gain);
        auto stereo = make("stereo-biquad", params, 44100);
        EXPECT_EQ(ModuleHarness(stereo, true).processInPeriods({left, right}, 256),
                  (ModuleHarness::tChannels{
                      ModuleHarness(make("biquad", params, 44100)).processInPeriods({left}, 256)[0],
                      ModuleHarness(make("biquad", params, 44100)).processInPeriods({right}, 256)[0]}))
            << gain;
        EXPECT_EQ(static_cast<BiQuad&>(*stereo).getPrecalculatedKernel(),
                  gain[0] == '-' ? &peak_44100_f4200_q1200_gm3000 : nullptr);
    }
}

// Both runners against each channel run on its own, section by section; odd lengths and a split that
// leaves a single frame check the leftover frame and the state carried between calls; the output
// overwrites the input, loud enough for the 6 dB boost to drive the sums past the range and wrap.
TEST(BiQuadSectionTest, StereoCascadeMatchesTheScalarRuleBitForBit)
{
    BiQuadSection const sections[3] = {section(Characteristic::LoShelf, 300, 0, 6),
                                       section(Characteristic::Peak, 1000, 0.7, -9),
                                       section(Characteristic::HiShelf, 3000, 0, 4)};
    tSample const gain(0.5);
    for (unsigned int numSections : {1u, 3u}) {
        for (auto run : {&runStereoBiQuadCascade, &runStereoBiQuadCascadeScalar}) {
            std::vector<tSample> left = noise(301, 7 + numSections),
                                 right = noise(301, 9 + numSections, 1 << 25);
            std::vector<tSample> expected[2] = {left, right};
            for (auto& channel : expected) {
                for (unsigned int k = 0; k < numSections; ++k) {
                    tSample z1, z2;
                    for (auto& s : channel)
                        s = sections[k].step(s, z1, z2);
                }
                for (auto& s : channel)
                    s = numSections == 3 ? s * gain : s;
            }
            StereoBiQuadState states[3] = {};
            for (auto const& [from, to] : {std::pair{0, 150}, {150, 151}, {151, 301}})
                run(sections, states, numSections, numSections == 3, gain, left.data() + from,
                    right.data() + from, left.data() + from, right.data() + from, to - from);
            EXPECT_TRUE(left == expected[0] && right == expected[1])
                << numSections << " sections, "
                << (run == &runStereoBiQuadCascadeScalar ? "scalar" : targetLoops());
        }
    }
}

// The mono loops carry y instead of z1 and the vector one works four frames at a time with a scalar
// tail; against the rule applied frame by frame, over lengths around the pass size, in place, split in
// two calls, with inputs loud enough to wrap. The shared rule forms z1 = z2 + (x - y) b1.
TEST(BiQuadSectionTest, MonoLoopsMatchTheRuleFrameByFrame)
{
    BiQuadSection const c = section(Characteristic::Peak, 2900, 4, 12);
    std::vector<tSample> const input = noise(203, 3);
    for (bool shared : {false, true}) {
        std::vector<tSample> expected = input;
        tSample e1, e2;
        for (auto& x : expected) {
            tSample const y = e1 + c.b0 * x;
            e1 = shared ? e2 + (x - y) * c.b1 : e2 + c.b1 * x - c.a1 * y;
            e2 = c.b2 * x - c.a2 * y;
            x = y;
        }
        for (bool vector : {true, false}) {
            for (unsigned int split : {0u, 1u, 5u, 6u, 7u, 9u, 10u, 100u, 197u, 203u}) {
                std::vector<tSample> data = input;
                tSample z1, z2;
                for (auto const& [from, to] : {std::pair{0u, split}, {split, 203u}}) {
                    tSample* at = data.data() + from;
                    if (!vector)
                        runMonoBiQuadScalar(c, shared, at, at, to - from, z1, z2);
                    else
                        (shared ? runMonoBiQuadSharedB1A1 : runMonoBiQuad)(c, at, at, to - from, z1, z2);
                }
                EXPECT_TRUE(data == expected && z1 == e1 && z2 == e2)
                    << "shared " << shared << ", " << (vector ? targetLoops() : "scalar") << ", split "
                    << split;
            }
        }
    }
}

// Lengths around the four-sample pass, gains that wrap and the most negative factor; a guard sample
// after the end must stay untouched.
TEST(VectorLoopsTest, AmplifyGivesTheScalarProducts)
{
    VectorLoops const* vector = vectorLoops();
    if (!vector)
        GTEST_SKIP() << "no vector loops on this target";
    for (tSample const gain :
         {tSample::s_Half, tSample(3.75), tSample(int32_t(INT32_MIN)), tSample(int32_t(-1))}) {
        for (unsigned int n : {0u, 1u, 4u, 7u, 9u, 64u}) {
            std::vector<tSample> samples = noise(n + 1, n, int64_t(1) << 31), expected = samples;
            for (unsigned int i = 0; i < n; ++i)
                expected[i] = expected[i] * gain;
            vector->amplify(samples.data(), n, gain);
            EXPECT_EQ(samples, expected)
                << vector->name << ", gain " << gain.getRaw() << ", " << n << " samples";
        }
    }
}

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
