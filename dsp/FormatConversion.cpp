#include "dsp/FormatConversion.h"

#include <cstdint>
#include <cstring>

namespace Zelmar {

namespace {

// x >= 1.0 (non-negative with an integer bit set) and x < -1.0 (negative with an integer bit clear)
// are exactly the raw values outside [-2^27, 2^27 - 1]. Clamping to that range and dropping the low
// bits therefore gives the clip values of every format; without branches the loops vectorise.
constexpr int32_t c_minusOne = -0x08000000;
constexpr int32_t c_belowOne = 0x07FFFFFF;

int32_t clip(int32_t raw)
{
    return raw < c_minusOne ? c_minusOne : raw > c_belowOne ? c_belowOne : raw;
}

int32_t wrappingAdd(int32_t raw, int32_t offset)
{
    return int32_t(uint32_t(raw) + uint32_t(offset));
}

// The PCM words are little-endian, as are the targets' own: 32- and 16-bit samples are copied as
// native words, which vectorises; 24-bit ones are put together byte by byte.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "PCM words are copied as native words");

template <unsigned int Bytes> void storeLittleEndian(guint8* out, uint32_t value)
{
    if constexpr (Bytes == 4) {
        std::memcpy(out, &value, 4);
    } else if constexpr (Bytes == 2) {
        auto const word = uint16_t(value);
        std::memcpy(out, &word, 2);
    } else {
        for (unsigned int b = 0; b < Bytes; ++b)
            out[b] = guint8(value >> (8 * b));
    }
}

template <unsigned int Bytes> uint32_t loadLittleEndian(guint8 const* in)
{
    uint32_t value = 0;
    if constexpr (Bytes == 4) {
        std::memcpy(&value, in, 4);
    } else if constexpr (Bytes == 2) {
        uint16_t word;
        std::memcpy(&word, in, 2);
        value = word;
    } else {
        for (unsigned int b = 0; b < Bytes; ++b)
            value |= uint32_t(in[b]) << (8 * b);
    }
    return value;
}

// 32-bit output neither rounds nor reaches the all-ones maximum: 0x7FFFFFF0 is the largest
// sample below 1.0 moved up by the four headroom bits.
void toS32(tSample const* in, guint8* out, size_t count)
{
    for (size_t i = 0; i < count; ++i)
        storeLittleEndian<4>(out + 4 * i, uint32_t(clip(in[i].getRaw())) << 4);
}

// 24 and 16 bits round half up by adding half the dropped part before the range test.
void toS24(tSample const* in, guint8* out, size_t count)
{
    for (size_t i = 0; i < count; ++i)
        storeLittleEndian<3>(out + 3 * i, uint32_t(clip(wrappingAdd(in[i].getRaw(), 8)) >> 4));
}

void toS16(tSample const* in, guint8* out, size_t count)
{
    for (size_t i = 0; i < count; ++i)
        storeLittleEndian<2>(out + 2 * i, uint32_t(clip(wrappingAdd(in[i].getRaw(), 2048)) >> 12));
}

void fromS32(guint8 const* in, tSample* out, size_t count)
{
    for (size_t i = 0; i < count; ++i)
        out[i] = tSample(int32_t(loadLittleEndian<4>(in + 4 * i)) >> 4);
}

void fromS24(guint8 const* in, tSample* out, size_t count)
{
    for (size_t i = 0; i < count; ++i) {
        // Moving bit 23 to the top and back sign-extends; the final shift leaves it 4 bits up.
        int32_t const value = int32_t(loadLittleEndian<3>(in + 3 * i) << 8) >> 4;
        out[i] = tSample(value);
    }
}

void fromS16(guint8 const* in, tSample* out, size_t count)
{
    for (size_t i = 0; i < count; ++i)
        out[i] = tSample(int32_t(uint32_t(int32_t(int16_t(loadLittleEndian<2>(in + 2 * i)))) << 12));
}

} // namespace

void FormatConversion::convertTo(snd_pcm_format_t format, tSample const* in, guint8* out, size_t count)
{
    switch (format) {
    case SND_PCM_FORMAT_S32_LE:
        return toS32(in, out, count);
    case SND_PCM_FORMAT_S24_3LE:
        return toS24(in, out, count);
    case SND_PCM_FORMAT_S16_LE:
        return toS16(in, out, count);
    default:
        ZELMAR_UNREACHABLE();
    }
}

void FormatConversion::convertFrom(snd_pcm_format_t format, guint8 const* in, tSample* out, size_t count)
{
    switch (format) {
    case SND_PCM_FORMAT_S32_LE:
        return fromS32(in, out, count);
    case SND_PCM_FORMAT_S24_3LE:
        return fromS24(in, out, count);
    case SND_PCM_FORMAT_S16_LE:
        return fromS16(in, out, count);
    default:
        ZELMAR_UNREACHABLE();
    }
}

} // namespace Zelmar
