#include "dsp/FixedPoint.h"
#include "dsp/AudioBuffer.h"
#include "dsp/FixedPointClosedLoopControl.h"
#include "dsp/FormatConversion.h"
#include "dsp/LinearInterpolator.h"
#include "support/ModuleHarness.h"
#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <stdexcept>
#include <vector>

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
    EXPECT_EQ((FixedPoint<5, 27, false>(31.5).getRaw()), 4227858432u);
}

TEST(FixedPointTest, ProductsRoundTowardMinusInfinityAndNothingSaturates)
{
    // Rounding toward minus infinity shows in the amplify test below.
    EXPECT_EQ(tSample(-2.0) * tSample(-3.0), tSample(6.0));
    EXPECT_EQ((tSample(4.0) * tSample(4.0)).getRaw(), INT32_MIN) << "a product of 16 wraps to -16";
    EXPECT_LT((tSample(15.0) + tSample(15.0)).getRaw(), 0);
    using tStep = FixedPoint<5, 27, false>;
    EXPECT_EQ(tStep(2.0) * tStep(3.5), tStep(7.0));
}

// Also where the values come from a curve or a controller's set point.
TEST(FixedPointDeathTest, ValuesBeyondTheIntegerBitsAndUnreachableCasesAssert)
{
    char const* const tooLarge = "v < pow\\(2, pre_comma\\)";
    EXPECT_DEATH(tSample(16.0), tooLarge);
    EXPECT_DEATH((FixedPoint<5, 27, false>(32.0)), tooLarge);
    FixedPointClosedLoopControl control(1.0f, 0.0f, 0.0f);
    EXPECT_DEATH(control.setPoint(2048.0f), tooLarge);
    LinearInterpolator curve;
    curve.loadBreakpoint("4095.5=-4095.5");
    EXPECT_DEATH(curve.loadBreakpoint("4096=0"), tooLarge);
    EXPECT_DEATH(curve.loadBreakpoint("0=5000"), tooLarge);

    AudioBuffer a(3);
    EXPECT_DEATH(a.add(std::make_shared<AudioBuffer>(4)), "a == b");
    tSample in[1];
    guint8 out[4];
    EXPECT_DEATH(FormatConversion::convertTo(SND_PCM_FORMAT_FLOAT_LE, in, out, 1), "should not be reached");
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

namespace {

constexpr int32_t c_one = 0x08000000;
constexpr snd_pcm_format_t c_s16 = SND_PCM_FORMAT_S16_LE, c_s24 = SND_PCM_FORMAT_S24_3LE,
                           c_s32 = SND_PCM_FORMAT_S32_LE;

// The words converted in one call, read back as signed little-endian PCM values; a guard byte behind
// the last sample must stay untouched.
std::vector<int32_t> convertTo(snd_pcm_format_t format, std::vector<int32_t> const& words)
{
    unsigned int const width = snd_pcm_format_physical_width(format) / 8;
    std::vector<tSample> const samples(words.begin(), words.end());
    std::vector<guint8> bytes(words.size() * width + 1, 0xAA);
    FormatConversion::convertTo(format, samples.data(), bytes.data(), samples.size());
    EXPECT_EQ(bytes.back(), 0xAA) << "wrote past the last sample";
    std::vector<int32_t> values(words.size());
    for (size_t i = 0; i < words.size(); ++i) {
        uint32_t value = 0;
        for (unsigned int b = 0; b < width; ++b)
            value |= uint32_t(bytes[i * width + b]) << (8 * (b + 4 - width));
        values[i] = int32_t(value) >> (8 * (4 - width));
    }
    return values;
}

// The PCM values written little-endian and converted back in one call, with a guard sample behind.
std::vector<int32_t> convertFrom(snd_pcm_format_t format, std::vector<int32_t> const& values)
{
    std::vector<guint8> bytes;
    for (int32_t value : values)
        for (int b = 0; b < snd_pcm_format_physical_width(format) / 8; ++b)
            bytes.push_back(guint8(uint32_t(value) >> (8 * b)));
    std::vector<tSample> samples(values.size() + 1, tSample(0x55));
    FormatConversion::convertFrom(format, bytes.data(), samples.data(), values.size());
    EXPECT_EQ(samples.back().getRaw(), 0x55) << "wrote past the last sample";
    std::vector<int32_t> words(values.size());
    std::transform(values.begin(), values.end(), samples.begin(), words.begin(),
                   [](int32_t, tSample sample) { return sample.getRaw(); });
    return words;
}

} // namespace

TEST(FormatConversionTest, SixteenAndTwentyFourBitsRoundHalfUpAndClipToFullScale)
{
    EXPECT_EQ(convertTo(c_s16, {c_one / 2, c_one, -c_one, INT32_MIN, 2048, 2047, c_one - 2048, c_one - 2049,
                                -2049, 0x7FFFF000, -c_one - 1}),
              (std::vector<int32_t>{16384, 32767, -32768, -32768, 1, 0, 32767, 32767, -1, 32767, -32768}));
    EXPECT_EQ(convertTo(c_s24, {c_one, -c_one, c_one / 2, 8, 7, -c_one - 9}),
              (std::vector<int32_t>{0x7FFFFF, -0x800000, 0x400000, 1, 0, -0x800000}));
}

TEST(FormatConversionTest, ThirtyTwoBitNeitherRoundsNorReachesAllOnes)
{
    EXPECT_EQ(convertTo(c_s32, {0x07FFFFFF, c_one, INT32_MAX, -c_one, -c_one - 1, INT32_MIN, 1, -1}),
              (std::vector<int32_t>{0x7FFFFFF0, 0x7FFFFFF0, 0x7FFFFFF0, INT32_MIN, INT32_MIN, INT32_MIN, 0x10,
                                    -16}));
}

TEST(FormatConversionTest, InputSignExtendsAndNeverSaturates)
{
    EXPECT_EQ(convertFrom(c_s24, {-0x800000, 0x7FFFFF}), (std::vector<int32_t>{-c_one, c_one - 16}));
    EXPECT_EQ(convertFrom(c_s16, {-32768, 1}), (std::vector<int32_t>{-c_one, 4096}));
    EXPECT_EQ(convertFrom(c_s32, {0x7FFFFFF0, int32_t(0x8000000F)}),
              (std::vector<int32_t>{0x07FFFFFF, -c_one}));
    // A count of zero touches nothing: the guards behind stay.
    for (auto format : {c_s16, c_s24, c_s32})
        EXPECT_TRUE(convertTo(format, {}).empty() && convertFrom(format, {}).empty());
}
