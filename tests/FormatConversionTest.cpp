#include "dsp/FormatConversion.h"

#include <gtest/gtest.h>
#include <vector>

using namespace Zelmar;

namespace {

std::vector<guint8> to(snd_pcm_format_t format, std::vector<int32_t> const& raws, unsigned int width)
{
    std::vector<tSample> in;
    for (int32_t r : raws)
        in.push_back(tSample(r));
    std::vector<guint8> out(raws.size() * width + 1, 0xAA);
    FormatConversion::convertTo(format, in.data(), out.data(), in.size());
    EXPECT_EQ(out.back(), 0xAA) << "wrote past the last sample";
    out.pop_back();
    return out;
}

std::vector<int16_t> toS16(std::vector<int32_t> const& raws)
{
    auto bytes = to(SND_PCM_FORMAT_S16_LE, raws, 2);
    std::vector<int16_t> values;
    for (size_t i = 0; i < bytes.size(); i += 2)
        values.push_back(int16_t(bytes[i] | (bytes[i + 1] << 8)));
    return values;
}

std::vector<uint32_t> toS32(std::vector<int32_t> const& raws)
{
    auto bytes = to(SND_PCM_FORMAT_S32_LE, raws, 4);
    std::vector<uint32_t> values;
    for (size_t i = 0; i < bytes.size(); i += 4)
        values.push_back(bytes[i] | bytes[i + 1] << 8 | bytes[i + 2] << 16 | uint32_t(bytes[i + 3]) << 24);
    return values;
}

int32_t fromBytes(snd_pcm_format_t format, std::vector<guint8> const& bytes)
{
    tSample out[2] = {tSample(int32_t(0x55)), tSample(int32_t(0x55))};
    FormatConversion::convertFrom(format, bytes.data(), out, 1);
    EXPECT_EQ(out[1].getRaw(), 0x55);
    return out[0].getRaw();
}

constexpr int32_t c_one = 0x08000000;

} // namespace

TEST(FormatConversionTest, SixteenBitRoundsHalfUpAndClipsToFullScale)
{
    EXPECT_EQ(toS16({c_one / 2, c_one, -c_one, INT32_MIN, 2048, 2047, c_one - 2048, c_one - 2049, -2049}),
              (std::vector<int16_t>{16384, 32767, -32768, -32768, 1, 0, 32767, 32767, -1}));
    EXPECT_EQ(toS16({0x7FFFF000, -c_one - 1}), (std::vector<int16_t>{32767, -32768}));
}

TEST(FormatConversionTest, ThirtyTwoBitNeitherRoundsNorReachesAllOnes)
{
    EXPECT_EQ(toS32({0x07FFFFFF, c_one, 0x7FFFFFFF, -c_one, -c_one - 1, INT32_MIN, 1, -1}),
              (std::vector<uint32_t>{0x7FFFFFF0, 0x7FFFFFF0, 0x7FFFFFF0, 0x80000000, 0x80000000, 0x80000000,
                                     0x10, 0xFFFFFFF0}));
}

TEST(FormatConversionTest, TwentyFourBitPacksThreeBytesAfterRounding)
{
    EXPECT_EQ(to(SND_PCM_FORMAT_S24_3LE, {c_one, -c_one, c_one / 2, 8, 7, -c_one - 9}, 3),
              (std::vector<guint8>{0xFF, 0xFF, 0x7F, 0x00, 0x00, 0x80, 0x00, 0x00, 0x40, 0x01, 0x00, 0x00,
                                   0x00, 0x00, 0x00, 0x00, 0x00, 0x80}));
}

TEST(FormatConversionTest, InputSignExtendsAndNeverSaturates)
{
    EXPECT_EQ(fromBytes(SND_PCM_FORMAT_S24_3LE, {0x00, 0x00, 0x80}), -c_one);
    EXPECT_EQ(fromBytes(SND_PCM_FORMAT_S24_3LE, {0xFF, 0xFF, 0x7F}), c_one - 16);
    EXPECT_EQ(fromBytes(SND_PCM_FORMAT_S16_LE, {0x00, 0x80}), -c_one);
    EXPECT_EQ(fromBytes(SND_PCM_FORMAT_S16_LE, {0x01, 0x00}), 4096);
    EXPECT_EQ(fromBytes(SND_PCM_FORMAT_S32_LE, {0xF0, 0xFF, 0xFF, 0x7F}), 0x07FFFFFF);
    EXPECT_EQ(fromBytes(SND_PCM_FORMAT_S32_LE, {0x0F, 0x00, 0x00, 0x80}), -c_one);
}

TEST(FormatConversionTest, ZeroCountWritesNothing)
{
    for (auto format : {SND_PCM_FORMAT_S16_LE, SND_PCM_FORMAT_S24_3LE, SND_PCM_FORMAT_S32_LE}) {
        guint8 out[4] = {1, 2, 3, 4};
        tSample in[1] = {tSample(0.5)};
        FormatConversion::convertTo(format, in, out, 0);
        EXPECT_EQ(out[0], 1);
        FormatConversion::convertFrom(format, out, in, 0);
        EXPECT_EQ(in[0], tSample(0.5));
    }
}

TEST(FormatConversionDeathTest, OtherFormatsAreUnreachable)
{
    tSample in[1];
    guint8 out[4];
    EXPECT_DEATH(FormatConversion::convertTo(SND_PCM_FORMAT_FLOAT_LE, in, out, 1), "should not be reached");
}
