// The biquad modules and the loops they run (the section's rule, its vector forms and the fused
// cascades), then the designs and the precalculated kernels.
#include "dsp/BiQuadCascade.h"
#include "dsp/BiQuadSection.h"
#include "dsp/ModuleFactory.h"
#include "dsp/VectorLoops.h"
#include "dsp/precalculated/PrecalculatedBiQuadKernels.h"
#include "support/MemoryAlsaBuffers.h"
#include "support/ModuleHarness.h"
#include "support/Thrown.h"
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <random>
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

} // namespace

TEST(BiQuadTest, PassesAudioThroughBeforeParametersAndAtNyquistAndKeepsTheFilterOnAnUnknownType)
{
    auto const input = noise(256, 1, 0x04000000);
    auto module = make("biquad");
    ModuleHarness harness(module);
    EXPECT_EQ(harness.run(input), input);
    module->setParameters(filter("lopass", "24000", "0.7", "0"), 48000);
    EXPECT_EQ(harness.run(input), input);
    module->setParameters(filter("lopass", "1000", "0.7", "0"), 48000);
    // Type names are case-sensitive; the designs of every name are checked with the coefficient table.
    EXPECT_EQ(Testing::thrownMessage<ParsingException>(
                  [&] { module->setParameters(filter("LoPass", "1000", "0.7", "0"), 48000); }),
              "The type LoPass is unknown for the BiQuad module. Supported values are "
              "bandpass, hipass, hishelf, lopass, loshelf, notch, passthru, peak");
    EXPECT_NE(harness.run(input), input);
    // New coefficients continue from the old state: silence rings on where a fresh filter stays silent.
    module->setParameters(filter("hipass", "200", "0.7", "0"), 48000);
    EXPECT_NE(harness.run(std::vector<tSample>(4))[0], tSample::s_Zero);
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

// Reference values from an independent script evaluating the design formulas in Python: every
// characteristic, boosts and cuts (a cut is the boost's inverse), gain 0 and shelves of another Q.
TEST(BiQuadCoefficientsTest, DesignsMatchIndependentlyComputedTable)
{
    std::ifstream file(TEST_SOURCE_DIR "/data/biquad-designs.txt");
    int cases = 0;
    for (std::string line; std::getline(file, line);) {
        std::istringstream fields(line);
        std::string type;
        double rate, frequency, q, gain;
        std::vector<int32_t> expected(5);
        // Comment lines fail at the rate.
        if (!(fields >> type >> rate >> frequency >> q >> gain))
            continue;
        for (int32_t& word : expected)
            fields >> word;
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

// Every kernel, the dispatched mono loops and the scalar one against the transposed direct form II
// applied frame by frame with the kernel's constants. Where b1 equals a1 the kernels and the shared
// loops form z1 = z2 + (x - y) b1 with one product, which may differ from the generic form in the
// lowest bit; the mono loops carry y instead of z1. The vector loops work four frames at a time with a
// scalar tail: calls split around the pass size, in place, with full-scale inputs that make the sums wrap.
TEST(PrecalculatedBiQuadTest, KernelsAndLoopsRunTheDirectFormWithOneProductWhereB1EqualsA1)
{
    std::vector<tSample> const input = noise(203, 7, int64_t(1) << 31);
    for (unsigned int i = 0; i < c_numPrecalculatedBiQuads; ++i) {
        PrecalculatedBiQuadEntry const& e = c_precalculatedBiQuads[i];
        BiQuadSection const c{tSample(e.raw[0]), tSample(e.raw[1]), tSample(e.raw[2]), tSample(e.raw[3]),
                              tSample(e.raw[4])};
        bool const shared = e.raw[1] == e.raw[3];
        std::vector<tSample> expected = input;
        tSample r1, r2;
        for (auto& x : expected) {
            tSample const y = r1 + c.b0 * x;
            r1 = shared ? r2 + (x - y) * c.b1 : r2 + c.b1 * x - c.a1 * y;
            r2 = c.b2 * x - c.a2 * y;
            x = y;
        }
        for (char const* runner : {"kernel", "scalar", "dispatched"}) {
            for (unsigned int split : {0u, 1u, 5u, 6u, 7u, 9u, 100u, 197u}) {
                std::vector<tSample> data = input;
                tSample z1, z2;
                for (auto const& [from, to] : {std::pair{0u, split}, {split, 203u}}) {
                    tSample* at = data.data() + from;
                    if (runner[0] == 'k')
                        e.kernel(at, at, to - from, z1, z2);
                    else if (runner[0] == 's')
                        runMonoBiQuadScalar(c, shared, at, at, to - from, z1, z2);
                    else
                        (shared ? runMonoBiQuadSharedB1A1 : runMonoBiQuad)(c, at, at, to - from, z1, z2);
                }
                ASSERT_TRUE(data == expected && z1 == r1 && z2 == r2)
                    << e.name << ", " << (runner[0] == 'd' && vectorLoops() ? vectorLoops()->name : runner)
                    << ", split " << split;
            }
        }
    }
}

// Random raw coefficients, forms, states and inputs: the sums wrap all the time, which any other order
// or rounding of the arithmetic would show at once. Lengths below, around and above the pipeline's
// fill, section counts that pad registers or need several passes; in place, with guard samples after
// each channel, then a second call that must carry the state on.
TEST(BiQuadCascadeTest, TargetLoopGivesTheBitsOfSectionAfterSection)
{
    std::mt19937 random(11);
    std::uniform_int_distribution<int32_t> anyWord(INT32_MIN, INT32_MAX);
    auto const sample = [&] { return tSample(anyWord(random)); };
    char const* loop = vectorLoops() && vectorLoops()->biQuadCascade ? vectorLoops()->name : "section loops";
    for (unsigned int channels : {1u, 2u}) {
        for (unsigned int numSections : {1u, 2u, 3u, 5u, 8u, 10u, 13u, 25u, 49u}) {
            for (unsigned int frames : {0u, 1u, 2u, 7u, 26u, 101u, 1280u}) {
                // Index 0 runs the target loop, index 1 the section loops.
                std::vector<tSample> states[2] = {std::vector<tSample>(4 * numSections)}, data[2][2];
                std::generate(states[0].begin(), states[0].end(), sample);
                states[1] = states[0];
                std::vector<CascadeSection> sections[2];
                for (unsigned int k = 0; k < numSections; ++k) {
                    BiQuadSection const c{sample(), sample(), sample(), sample(), sample()};
                    bool const shared = random() % 3 == 0;
                    for (int run = 0; run < 2; ++run) {
                        tSample* z = &states[run][4 * k];
                        sections[run].push_back({c, shared, {z, z + 1}, {z + 2, z + 3}});
                    }
                }
                for (auto& channel : data[0]) {
                    channel.resize(2 * frames + 2);
                    std::generate(channel.begin(), channel.end(), sample);
                }
                std::copy(data[0], data[0] + 2, data[1]);
                for (unsigned int from : {0u, frames}) {
                    tSample* at[2][2] = {{&data[0][0][from], &data[0][1][from]},
                                         {&data[1][0][from], &data[1][1][from]}};
                    runBiQuadCascade(sections[0].data(), numSections, channels, at[0], at[0], frames);
                    runBiQuadCascadeScalar(sections[1].data(), numSections, channels, at[1], at[1], frames);
                }
                EXPECT_TRUE(states[0] == states[1] && data[0][0] == data[1][0] && data[0][1] == data[1][1])
                    << loop << ", " << channels << " channels, " << numSections << " sections, " << frames
                    << " frames";
            }
        }
    }
}

// tests/data/biquad-series.xml in two chains, one fusing the series and one running module by module,
// fed the same periods of every length. s3 gets parameters in the third period; in the fifth c changes
// from the generic loop to a kernel, which must be heard from that period on in both.
TEST(BiQuadCascadeTest, FusedSeriesSoundsAsTheModulesOneByOne)
{
    Chain chains[2] = {Chain(48000), Chain(48000)};
    Testing::MemoryAlsaBuffers capture[2] = {Testing::MemoryAlsaBuffers(2), Testing::MemoryAlsaBuffers(2)},
                               playback[2] = {Testing::MemoryAlsaBuffers(2), Testing::MemoryAlsaBuffers(2)};
    for (int fused = 0; fused < 2; ++fused) {
        chains[fused].load(TEST_SOURCE_DIR "/data/biquad-series.xml", false);
        chains[fused].addStereoModule("biquad", "s3");
        chains[fused].fuseCascades(fused == 1);
        chains[fused].enableProfile(true);
        chains[fused].compile();
        Testing::attachHostBuffers(chains[fused], capture[fused], playback[fused])->setMute(false);
    }
    std::vector<std::string> fusedIds;
    for (auto const& time : chains[1].getProfile())
        if (time.fused)
            fusedIds.push_back(time.module->getID().str());
    ASSERT_EQ(fusedIds, (std::vector<std::string>{"a", "b", "c", "s1", "s2", "s3", "s4", "s5"}));

    std::mt19937 random(5);
    std::uniform_int_distribution<int32_t> nearFullScale(-0x08000000, 0x08000000);
    unsigned int const periods[] = {1, 1280, 5, 333, 1024, 2, 1279, 64};
    for (unsigned int p = 0; p < std::size(periods); ++p) {
        for (Chain& chain : chains) {
            if (p == 2)
                chain.findModule("s3")->setParameters(filter("peak", "120", "2", "-2"), 48000);
            if (p == 4)
                chain.findModule("c")->setParameters(filter("peak", "1300", "3.5", "-11"), 48000);
        }
        for (unsigned int channel = 0; channel < 2; ++channel) {
            std::vector<tSample> input(periods[p]);
            std::generate(input.begin(), input.end(), [&] { return tSample(nearFullScale(random)); });
            for (auto& buffers : capture)
                buffers.getChannel(channel).setPeriod(input);
        }
        for (Chain& chain : chains)
            chain.process();
        for (unsigned int channel = 0; channel < 2; ++channel)
            EXPECT_EQ(playback[1].getChannel(channel).samples, playback[0].getChannel(channel).samples)
                << "period " << p << " of " << periods[p] << " frames, channel " << channel;
    }
}
