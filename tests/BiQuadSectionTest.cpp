#include "dsp/BiQuadSection.h"
#include "dsp/VectorLoops.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

using namespace Zelmar;

namespace {

using tRunner = void (*)(BiQuadSection const*, StereoBiQuadState*, unsigned int, bool, tSample,
                         tSample const*, tSample const*, tSample*, tSample*, unsigned int);

// The target's vector loops, which the dispatched runners take when the processor has them.
char const* targetLoops()
{
    return vectorLoops() ? vectorLoops()->name : "scalar (no vector loops)";
}

BiQuadSection section(AudioFilter::Characteristic type, double frequency, double q, double gainDb)
{
    BiQuadSection s;
    s.design(type, 48000, frequency, q, gainDb);
    return s;
}

// Both runners against each channel run on its own, section by section; odd lengths and a split that
// leaves a single frame check the leftover frame and the state carried between calls; the output
// overwrites the input.
TEST(BiQuadSectionTest, StereoCascadeMatchesTheScalarRuleBitForBit)
{
    using AudioFilter::Characteristic;
    BiQuadSection const sections[3] = {section(Characteristic::LoShelf, 300, 0, 6),
                                       section(Characteristic::Peak, 1000, 0.7, -9),
                                       section(Characteristic::HiShelf, 3000, 0, 4)};
    tSample const gain(0.5);
    std::mt19937 random(7);
    // Near full scale, so that the 6 dB boost drives the sums past the range and makes them wrap.
    std::uniform_int_distribution<int32_t> nearFullScale(-0x08000000, 0x08000000);
    for (unsigned int numSections : {1u, 3u}) {
        bool const applyGain = numSections == 3;
        for (tRunner run : {&runStereoBiQuadCascade, &runStereoBiQuadCascadeScalar}) {
            unsigned int const frames = 301;
            std::vector<tSample> left(frames), right(frames);
            for (unsigned int i = 0; i < frames; ++i) {
                left[i] = tSample(nearFullScale(random));
                right[i] = tSample(nearFullScale(random) / 3);
            }
            std::vector<tSample> expected[2] = {left, right};
            for (auto& channel : expected) {
                for (unsigned int k = 0; k < numSections; ++k) {
                    tSample z1, z2;
                    for (auto& s : channel)
                        s = sections[k].step(s, z1, z2);
                }
                if (applyGain)
                    for (auto& s : channel)
                        s = s * gain;
            }
            StereoBiQuadState states[3] = {};
            for (unsigned int from : {0u, 150u, 151u}) {
                unsigned int const to = from == 0 ? 150 : from == 150 ? 151 : frames;
                run(sections, states, numSections, applyGain, gain, left.data() + from, right.data() + from,
                    left.data() + from, right.data() + from, to - from);
            }
            unsigned int mismatches = 0;
            for (unsigned int i = 0; i < frames; ++i)
                mismatches += (left[i] != expected[0][i]) + (right[i] != expected[1][i]);
            EXPECT_EQ(mismatches, 0u) << numSections << " sections, "
                                      << (run == &runStereoBiQuadCascadeScalar ? "scalar" : targetLoops());
        }
    }
}

// The mono loops carry y instead of z1 and the vector one works four frames at a time with a scalar
// tail; against the rule applied frame by frame, over lengths around the pass size, in place, split in
// two calls, with inputs loud enough to wrap. The shared rule forms z1 = z2 + (x - y) b1.
TEST(BiQuadSectionTest, MonoLoopsMatchTheRuleFrameByFrame)
{
    BiQuadSection const c = section(AudioFilter::Characteristic::Peak, 2900, 4, 12);
    std::mt19937 random(3);
    std::uniform_int_distribution<int32_t> nearFullScale(-0x08000000, 0x08000000);
    std::vector<tSample> input(203);
    for (auto& s : input)
        s = tSample(nearFullScale(random));
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
                unsigned int const bounds[3] = {0, split, 203};
                for (int part = 0; part < 2; ++part) {
                    tSample* at = data.data() + bounds[part];
                    unsigned int const n = bounds[part + 1] - bounds[part];
                    if (!vector)
                        runMonoBiQuadScalar(c, shared, at, at, n, z1, z2);
                    else if (shared)
                        runMonoBiQuadSharedB1A1(c, at, at, n, z1, z2);
                    else
                        runMonoBiQuad(c, at, at, n, z1, z2);
                }
                EXPECT_EQ(data, expected) << "shared " << shared << ", "
                                          << (vector ? targetLoops() : "scalar") << ", split " << split;
                EXPECT_EQ(z1, e1) << "split " << split;
                EXPECT_EQ(z2, e2) << "split " << split;
            }
        }
    }
}

} // namespace
