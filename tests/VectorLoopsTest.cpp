// The target's vector loops that are not filters, against the scalar rule; the filter loops are
// compared in BiQuadSectionTest.
#include "dsp/VectorLoops.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

using namespace Zelmar;

namespace {

// Lengths around the four-sample pass, gains that wrap and the most negative factor; a guard sample
// after the end must stay untouched.
TEST(VectorLoopsTest, AmplifyGivesTheScalarProducts)
{
    VectorLoops const* vector = vectorLoops();
    if (!vector)
        GTEST_SKIP() << "no vector loops on this target";
    std::mt19937 random(5);
    std::uniform_int_distribution<int32_t> anyWord(INT32_MIN, INT32_MAX);
    for (tSample const gain :
         {tSample::s_Half, tSample(3.75), tSample(int32_t(INT32_MIN)), tSample(int32_t(-1))}) {
        for (unsigned int n : {0u, 1u, 4u, 7u, 9u, 64u}) {
            std::vector<tSample> samples(n + 1);
            for (auto& s : samples)
                s = tSample(anyWord(random));
            std::vector<tSample> expected = samples;
            for (unsigned int i = 0; i < n; ++i)
                expected[i] = expected[i] * gain;
            vector->amplify(samples.data(), n, gain);
            EXPECT_EQ(samples, expected)
                << vector->name << ", gain " << gain.getRaw() << ", " << n << " samples";
        }
    }
}

} // namespace
