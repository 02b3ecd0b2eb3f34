#include "dsp/BiQuadCascade.h"

#include "dsp/Chain.h"
#include "dsp/VectorLoops.h"
#include "support/MemoryAlsaBuffers.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

using namespace Zelmar;

namespace {

// Random raw coefficients, forms, states and inputs: the sums wrap all the time, which any other order
// or rounding of the arithmetic would show at once. Lengths below, around and above the pipeline's
// fill, section counts that pad registers or need several passes; in place, with a guard sample after
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
                std::vector<CascadeSection> sections[2];
                std::vector<tSample> states[2], data[2][2];
                for (int run = 0; run < 2; ++run) {
                    states[run].resize(4 * numSections);
                    sections[run].resize(numSections);
                }
                for (unsigned int k = 0; k < numSections; ++k) {
                    BiQuadSection const c{sample(), sample(), sample(), sample(), sample()};
                    bool const shared = random() % 3 == 0;
                    for (int run = 0; run < 2; ++run) {
                        tSample* z = &states[run][4 * k];
                        sections[run][k] = {c, shared, {z, z + 1}, {z + 2, z + 3}};
                    }
                }
                for (auto& z : states[0])
                    z = sample();
                states[1] = states[0];
                for (unsigned int channel = 0; channel < channels; ++channel) {
                    std::vector<tSample> input(2 * frames + 2);
                    for (auto& s : input)
                        s = sample();
                    data[0][channel] = data[1][channel] = input;
                }
                for (unsigned int from : {0u, frames}) {
                    tSample* at[2][2];
                    for (int run = 0; run < 2; ++run) {
                        for (unsigned int channel = 0; channel < channels; ++channel)
                            at[run][channel] = data[run][channel].data() + from;
                    }
                    runBiQuadCascade(sections[0].data(), numSections, channels, at[0], at[0], frames);
                    runBiQuadCascadeScalar(sections[1].data(), numSections, channels, at[1], at[1], frames);
                }
                std::string const trace = std::string(loop) + ", " + std::to_string(channels) +
                                          " channels, " + std::to_string(numSections) + " sections, " +
                                          std::to_string(frames) + " frames";
                EXPECT_EQ(states[0], states[1]) << trace;
                for (unsigned int channel = 0; channel < channels; ++channel)
                    EXPECT_EQ(data[0][channel], data[1][channel]) << trace << ", channel " << channel;
            }
        }
    }
}

// A mono series (a -> b -> c) into a stereo series (s1 ... s5), one chain fusing them and one running
// module by module, fed the same periods of every length. Among the sections: kernels with and without
// the shared b1 = a1 form, the generic loop, and one module without parameters until the third
// period; in the fifth one module changes from the generic loop to a kernel, which must be heard from
// that period on in both.
TEST(BiQuadCascadeTest, FusedSeriesSoundsAsTheModulesOneByOne)
{
    struct Band
    {
        char const* id;
        char const* type;
        char const* frequency;
        char const* q;
        char const* gain;
    };
    Band const bands[] = {
        {"a", "peak", "2900", "4", "6"},    {"b", "hipass", "60", "0.7", "0"},
        {"c", "peak", "1000", "1", "5"},    {"s1", "loshelf", "450", "0.7", "4.5"},
        {"s2", "peak", "1000", "1", "-3"},  {"s3", "", "", "", ""},
        {"s4", "peak", "7500", "2", "-14"}, {"s5", "lopass", "2510", "1", "0"},
    };
    Chain chains[2] = {Chain(48000), Chain(48000)};
    Testing::MemoryAlsaBuffers capture[2] = {Testing::MemoryAlsaBuffers(2), Testing::MemoryAlsaBuffers(2)};
    Testing::MemoryAlsaBuffers playback[2] = {Testing::MemoryAlsaBuffers(2), Testing::MemoryAlsaBuffers(2)};
    auto const parameters = [](Band const& band) {
        return Parameters{
            {"type", band.type}, {"frequency", band.frequency}, {"q", band.q}, {"gain", band.gain}};
    };
    for (int fused = 0; fused < 2; ++fused) {
        Chain& chain = chains[fused];
        chain.addModule("input", "in");
        for (Band const& band : bands) {
            auto const module = band.id[0] == 's' ? chain.addStereoModule("biquad", band.id)
                                                  : chain.addModule("biquad", band.id);
            if (*band.type)
                module->setParameters(parameters(band), 48000);
        }
        chain.addModule("output", "out")->setParameters(Parameters{{"interleave-pattern", "01"}}, 48000);
        for (auto const& [to, from] : std::vector<std::pair<char const*, char const*>>{{"a[0]", "in[0]"},
                                                                                       {"b[0]", "a[0]"},
                                                                                       {"c[0]", "b[0]"},
                                                                                       {"s1[0]", "c[0]"},
                                                                                       {"s1[1]", "in[1]"},
                                                                                       {"s2", "s1"},
                                                                                       {"s3", "s2"},
                                                                                       {"s4", "s3"},
                                                                                       {"s5", "s4"},
                                                                                       {"out", "s5"}})
            chain.pullWire(to, from);
        chain.fuseCascades(fused == 1);
        chain.enableProfile(true);
        chain.compile();
        Testing::attachHostBuffers(chain, capture[fused], playback[fused])->setMute(false);
    }
    std::vector<std::string> fusedIds;
    for (auto const& time : chains[1].getProfile()) {
        if (time.fused)
            fusedIds.push_back(time.module->getID().str());
    }
    ASSERT_EQ(fusedIds, (std::vector<std::string>{"a", "b", "c", "s1", "s2", "s3", "s4", "s5"}));

    std::mt19937 random(5);
    std::uniform_int_distribution<int32_t> nearFullScale(-0x08000000, 0x08000000);
    unsigned int const periods[] = {1, 1280, 5, 333, 1024, 2, 1279, 64};
    for (unsigned int p = 0; p < std::size(periods); ++p) {
        if (p == 2 || p == 4) {
            Band const change =
                p == 2 ? Band{"s3", "peak", "120", "2", "-2"} : Band{"c", "peak", "1300", "3.5", "-11"};
            for (Chain& chain : chains)
                chain.findModule(change.id)->setParameters(parameters(change), 48000);
        }
        std::vector<tSample> input[2] = {std::vector<tSample>(periods[p]), std::vector<tSample>(periods[p])};
        for (auto& channel : input)
            for (auto& s : channel)
                s = tSample(nearFullScale(random));
        for (int fused = 0; fused < 2; ++fused) {
            capture[fused].getChannel(0).setPeriod(input[0]);
            capture[fused].getChannel(1).setPeriod(input[1]);
            chains[fused].process();
        }
        for (unsigned int channel = 0; channel < 2; ++channel)
            EXPECT_EQ(playback[1].getChannel(channel).samples, playback[0].getChannel(channel).samples)
                << "period " << p << " of " << periods[p] << " frames, channel " << channel;
    }
}

} // namespace
