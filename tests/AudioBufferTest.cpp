#include "dsp/AudioBuffer.h"

#include <gtest/gtest.h>
#include <stdexcept>

using namespace Zelmar;

TEST(AudioBufferTest, CapacityIsTheLargerArgumentAndGrowingZeroFills)
{
    AudioBuffer buffer(16, 4);
    EXPECT_EQ(buffer.getNumSampleFrames(), 4u);
    EXPECT_EQ(buffer.getNumSampleFramesCapacity(), 16u);
    buffer.getRawData()[3] = tSample(0.5);
    buffer.setSize(10);
    EXPECT_EQ(buffer.getNumSampleFramesCapacity(), 16u);
    EXPECT_EQ(buffer.getRawData()[3], tSample(0.5));
    for (unsigned int i = 4; i < 10; ++i)
        EXPECT_EQ(buffer.getRawData()[i], tSample::s_Zero);
    buffer.setSize(2);
    EXPECT_EQ(buffer.getNumSampleFramesCapacity(), 16u);

    AudioBuffer larger(2, 8);
    EXPECT_EQ(larger.getNumSampleFrames(), 8u);
    EXPECT_EQ(larger.getNumSampleFramesCapacity(), 8u);
    EXPECT_THROW(AudioBuffer(0x40000000u, 0), std::length_error);
}

TEST(AudioBufferTest, LevelsUseWrappingAbsoluteValues)
{
    AudioBuffer buffer(4);
    EXPECT_FLOAT_EQ(AudioBuffer().getMaxLevel(), 0.0f);
    buffer.getRawData()[1] = tSample(-16.0);
    EXPECT_FLOAT_EQ(buffer.getMaxLevel(), 0.0f) << "the negation of the most negative word stays negative";
    buffer.getRawData()[2] = tSample(-0.75);
    buffer.getRawData()[3] = tSample(0.5);
    EXPECT_FLOAT_EQ(buffer.getMaxLevel(), 0.5f) << "only the extremes count, and -16 hides -0.75";
    buffer.getRawData()[1] = tSample::s_Zero;
    EXPECT_FLOAT_EQ(buffer.getMaxLevel(), 0.75f);

    int const single[] = {-7};
    EXPECT_EQ(AudioBuffer::getMinMax(single, 1), std::make_pair(-7, -7));
    int const values[] = {3, -9, 12, 4, -2};
    EXPECT_EQ(AudioBuffer::getMinMax(values, 5), std::make_pair(-9, 12));
    int const values2[] = {3, -19, 12, 4};
    EXPECT_EQ(AudioBuffer::getMaxLevel(values2, 4), 19);
}

TEST(AudioBufferTest, AmplifyAddAndCopyWorkOnRawWords)
{
    AudioBuffer a(3), b(3);
    a.getRawData()[0] = tSample(int32_t(-1));
    a.getRawData()[1] = tSample(int32_t(1));
    a.getRawData()[2] = tSample(15.0);
    a.amplify(tSample::s_Half);
    EXPECT_EQ(a.getRawData()[0].getRaw(), -1);
    EXPECT_EQ(a.getRawData()[1].getRaw(), 0);
    b.getRawData()[2] = tSample(15.0);
    auto sum = std::make_shared<AudioBuffer>(3);
    sum->getRawData()[2] = tSample(15.0);
    sum->add(std::make_shared<AudioBuffer>(b));
    EXPECT_LT(sum->getRawData()[2].getRaw(), 0);

    a.copyFrom(&a);
    EXPECT_EQ(a.getRawData()[2], tSample(7.5));
    AudioBuffer small(1, 1);
    small.copyFrom(&a);
    EXPECT_EQ(small.getNumSampleFrames(), 3u);
    EXPECT_EQ(small.getRawData()[2], tSample(7.5));
}

TEST(AudioBufferTest, SwapExchangesStorageAndStereoRenderingDuplicatesFrames)
{
    auto a = std::make_shared<AudioBuffer>(1280, 2);
    auto b = std::make_shared<AudioBuffer>(5);
    a->getRawData()[1] = tSample(0.25);
    tSample const* storageOfA = a->getRawData();
    a->swap(b);
    EXPECT_EQ(b->getRawData(), storageOfA);
    EXPECT_EQ(b->getNumSampleFramesCapacity(), 1280u);
    EXPECT_EQ(a->getNumSampleFrames(), 5u);

    tSample out[4];
    b->renderToStereoInterleaved(out);
    EXPECT_EQ(out[2], tSample(0.25));
    EXPECT_EQ(out[3], tSample(0.25));
    EXPECT_EQ(out[0], tSample::s_Zero);
}

TEST(AudioBufferTest, SineIsComputedInDoubleAndRoundedToFloat)
{
    AudioBuffer buffer(48);
    buffer.generateSine(1.0f, 1000.0f, 48000.0f);
    EXPECT_EQ(buffer.getRawData()[0], tSample::s_Zero);
    EXPECT_EQ(buffer.getRawData()[12],
              tSample(static_cast<float>(std::sin(12 * 6.283185307179586 * 1000 / 48000))));
    EXPECT_EQ(buffer.getRawData()[4], tSample(0.5f)) << "sin(30 degrees)";
}

TEST(AudioBufferDeathTest, AddingBuffersOfDifferentLengthAsserts)
{
    AudioBuffer a(3);
    EXPECT_DEATH(a.add(std::make_shared<AudioBuffer>(4)), "a == b");
}
