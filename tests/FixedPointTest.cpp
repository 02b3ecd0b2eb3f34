#include "dsp/FixedPoint.h"
#include "dsp/AudioBuffer.h"

#include "support/ModuleHarness.h"

#include <cmath>
#include <gtest/gtest.h>
#include <stdexcept>

using namespace Zelmar;
using Testing::raw;

namespace {

std::vector<int32_t> words(AudioBuffer const& buffer)
{
    std::vector<int32_t> values;
    for (unsigned int i = 0; i < buffer.getNumSampleFrames(); ++i)
        values.push_back(buffer.getRawData()[i].getRaw());
    return values;
}

} // namespace

// Division is checked where it is used: the time stretcher's halving and the controller's derivative.
TEST(FixedPointTest, ConversionGoesThroughSinglePrecisionAndTruncatesTowardZero)
{
    // 0.1 as a float is 0.100000001490116..., so 24 significant bits survive; below the range it clamps.
    std::pair<double, int32_t> const cases[] = {{0.5, 0x4000000},    {-1.0, -0x8000000}, {0.1, 13421773},
                                                {15.99, 2146141440}, {-1e-9, 0},         {-20.0, INT32_MIN}};
    for (auto const& [value, word] : cases)
        EXPECT_EQ(tSample(value).getRaw(), word) << value;
    EXPECT_EQ(tSample::s_Half.getRaw(), 0x4000000);
    EXPECT_DOUBLE_EQ(raw(1).toDouble(), 7.450580596923828e-9);
    EXPECT_FLOAT_EQ(raw(0x4000000).toFloat(), 0.5f);
    EXPECT_EQ((FixedPoint<5, 27, false>(31.5).getRaw()), 4227858432u);
    EXPECT_EQ((FixedPoint<12, 19, true>(4095.0).getRaw()), 4095 << 19);
}

TEST(FixedPointTest, ProductsRoundTowardMinusInfinityAndNothingSaturates)
{
    // Rounding toward minus infinity shows in the amplify test below.
    EXPECT_EQ(tSample(-2.0) * tSample(-3.0), tSample(6.0));
    EXPECT_EQ((tSample(4.0) * tSample(4.0)).getRaw(), INT32_MIN) << "a product of 16 wraps to -16";
    EXPECT_LT((tSample(15.0) + tSample(15.0)).getRaw(), 0);
    EXPECT_TRUE(tSample(-0.5) < tSample(0.25));
    using tStep = FixedPoint<5, 27, false>;
    EXPECT_EQ(tStep(2.0) * tStep(3.5), tStep(7.0));
}

TEST(FixedPointDeathTest, ValuesBeyondTheIntegerBitsAssert)
{
    EXPECT_DEATH(tSample(16.0), "v < pow\\(2, pre_comma\\)");
    EXPECT_DEATH((FixedPoint<5, 27, false>(32.0)), "v < pow\\(2, pre_comma\\)");
}

TEST(AudioBufferTest, CapacityIsTheLargerArgumentAndResizingKeepsFrames)
{
    AudioBuffer buffer(16, 4);
    EXPECT_EQ(words(buffer), std::vector<int32_t>(4, 0));
    buffer.getRawData()[3] = tSample(0.5);
    buffer.setSize(10);
    EXPECT_EQ(buffer.getNumSampleFramesCapacity(), 16u);
    EXPECT_EQ(words(buffer), (std::vector<int32_t>{0, 0, 0, 0x4000000, 0, 0, 0, 0, 0, 0}));
    buffer.setSize(2);
    EXPECT_EQ(buffer.getNumSampleFramesCapacity(), 16u);

    AudioBuffer larger(2, 8);
    EXPECT_EQ(larger.getNumSampleFrames(), 8u);
    EXPECT_EQ(larger.getNumSampleFramesCapacity(), 8u);
    EXPECT_THROW(AudioBuffer(0x40000000u, 0), std::length_error);
}

TEST(AudioBufferTest, LevelsAreExtremesWithWrappingAbsoluteValues)
{
    EXPECT_FLOAT_EQ(AudioBuffer().getMaxLevel(), 0.0f);
    AudioBuffer buffer(4);
    buffer.getRawData()[1] = tSample(-16.0);
    buffer.getRawData()[2] = tSample(-0.75);
    buffer.getRawData()[3] = tSample(0.5);
    EXPECT_FLOAT_EQ(buffer.getMaxLevel(), 0.5f) << "the negation of -16 stays negative and hides -0.75";
    buffer.getRawData()[1] = tSample::s_Zero;
    EXPECT_FLOAT_EQ(buffer.getMaxLevel(), 0.75f);

    // Scanned in pairs: the extremes sit at the unpaired end of an odd and of an even count.
    int const single[] = {-7}, values[] = {3, -9, 4, 13, -20};
    EXPECT_EQ(AudioBuffer::getMinMax(single, 1), std::make_pair(-7, -7));
    EXPECT_EQ(AudioBuffer::getMinMax(values, 5), std::make_pair(-20, 13));
    EXPECT_EQ(AudioBuffer::getMaxLevel(values, 4), 13);
}

TEST(AudioBufferTest, AmplifyAddCopyAndSwapWorkOnRawWords)
{
    auto a = std::make_shared<AudioBuffer>(3);
    a->getUnderlyingStorage() = {raw(-1), raw(1), tSample(15.0)};
    a->amplify(tSample::s_Half);
    EXPECT_EQ(words(*a), (std::vector<int32_t>{-1, 0, tSample(7.5).getRaw()}));
    a->getRawData()[2] = tSample(15.0);
    a->add(a);
    a->copyFrom(a.get());
    std::vector<int32_t> const sum = {-2, 0, -(2 << 27)};
    EXPECT_EQ(words(*a), sum) << "15.0 + 15.0 wraps to -2.0";

    auto small = std::make_shared<AudioBuffer>(1, 1);
    small->copyFrom(std::shared_ptr<AudioBuffer const>(a));
    auto large = std::make_shared<AudioBuffer>(1280, 2);
    tSample const* const storage = large->getRawData();
    large->swap(small);
    EXPECT_EQ(small->getRawData(), storage);
    EXPECT_EQ(small->getNumSampleFramesCapacity(), 1280u);
    EXPECT_EQ(words(*large), sum);

    tSample out[6];
    large->renderToStereoInterleaved(out);
    EXPECT_EQ(std::vector<tSample>(out, out + 6),
              (std::vector<tSample>{raw(-2), raw(-2), raw(0), raw(0), tSample(-2.0), tSample(-2.0)}));
}

TEST(AudioBufferTest, SineIsComputedInDoubleAndRoundedToFloat)
{
    AudioBuffer buffer(48);
    buffer.generateSine(1.0f, 1000.0f, 48000.0f);
    EXPECT_EQ(buffer.getRawData()[0], tSample::s_Zero);
    EXPECT_EQ(buffer.getRawData()[4], tSample(0.5f)) << "sin(30 degrees)";
    EXPECT_EQ(buffer.getRawData()[12], tSample(static_cast<float>(std::sin(12 * 6.283185307179586 / 48))));
}

TEST(AudioBufferDeathTest, AddingBuffersOfDifferentLengthAsserts)
{
    AudioBuffer a(3);
    EXPECT_DEATH(a.add(std::make_shared<AudioBuffer>(4)), "a == b");
}
