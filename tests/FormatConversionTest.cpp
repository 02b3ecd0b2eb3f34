#include "dsp/FormatConversion.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <vector>

using namespace Zelmar;

namespace {

constexpr int32_t c_one = 0x08000000;
constexpr snd_pcm_format_t c_s16 = SND_PCM_FORMAT_S16_LE, c_s24 = SND_PCM_FORMAT_S24_3LE,
                           c_s32 = SND_PCM_FORMAT_S32_LE;

unsigned int widthOf(snd_pcm_format_t format)
{
    return format == c_s16 ? 2 : format == c_s24 ? 3 : 4;
}

// The words converted in one call, read back as signed little-endian PCM values; a guard byte behind
// the last sample must stay untouched.
std::vector<int32_t> convertTo(snd_pcm_format_t format, std::vector<int32_t> const& words)
{
    unsigned int const width = widthOf(format);
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
        for (unsigned int b = 0; b < widthOf(format); ++b)
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
}

TEST(FormatConversionTest, ZeroCountWritesNothing)
{
    for (auto format : {c_s16, c_s24, c_s32}) {
        guint8 out[4] = {1, 2, 3, 4};
        tSample in[1] = {tSample(0.5)};
        FormatConversion::convertTo(format, in, out, 0);
        FormatConversion::convertFrom(format, out, in, 0);
        EXPECT_EQ(out[0], 1);
        EXPECT_EQ(in[0], tSample(0.5));
    }
}

TEST(FormatConversionDeathTest, OtherFormatsAreUnreachable)
{
    tSample in[1];
    guint8 out[4];
    EXPECT_DEATH(FormatConversion::convertTo(SND_PCM_FORMAT_FLOAT_LE, in, out, 1), "should not be reached");
}
