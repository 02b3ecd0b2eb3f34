#include "dsp/FormatConversion.h"

#include <cstdint>

namespace Zelmar {

namespace {

// x >= 1.0: non-negative with an integer bit set; x < -1.0: negative with an integer bit clear.
constexpr uint32_t c_integerBits = 0x78000000u;

bool isAtOrAboveOne(int32_t raw)
{
    return raw >= 0 && (uint32_t(raw) & c_integerBits) != 0;
}

bool isBelowMinusOne(int32_t raw)
{
    return raw < 0 && (uint32_t(raw) & c_integerBits) != c_integerBits;
}

int32_t wrappingAdd(int32_t raw, int32_t offset)
{
    return int32_t(uint32_t(raw) + uint32_t(offset));
}

void storeLittleEndian(guint8* out, uint32_t value, unsigned int bytes)
{
    for (unsigned int b = 0; b < bytes; ++b)
        out[b] = guint8(value >> (8 * b));
}

uint32_t loadLittleEndian(guint8 const* in, unsigned int bytes)
{
    uint32_t value = 0;
    for (unsigned int b = 0; b < bytes; ++b)
        value |= uint32_t(in[b]) << (8 * b);
    return value;
}

// 32-bit output neither rounds nor reaches the all-ones maximum: 0x7FFFFFF0 is the largest
// sample below 1.0 moved up by the four headroom bits.
void toS32(tSample const* in, guint8* out, size_t count)
{
    for (size_t i = 0; i < count; ++i) {
        int32_t const x = in[i].getRaw();
        uint32_t word = uint32_t(x) << 4;
        if (isAtOrAboveOne(x))
            word = 0x7FFFFFF0u;
        else if (isBelowMinusOne(x))
            word = 0x80000000u;
        storeLittleEndian(out + 4 * i, word, 4);
    }
}

// 24 and 16 bits round half up by adding half the dropped part before the range test.
void toS24(tSample const* in, guint8* out, size_t count)
{
    for (size_t i = 0; i < count; ++i) {
        int32_t const r = wrappingAdd(in[i].getRaw(), 8);
        uint32_t word = uint32_t(r >> 4);
        if (isAtOrAboveOne(r))
            word = 0x7FFFFFu;
        else if (isBelowMinusOne(r))
            word = 0x800000u;
        storeLittleEndian(out + 3 * i, word, 3);
    }
}

void toS16(tSample const* in, guint8* out, size_t count)
{
    for (size_t i = 0; i < count; ++i) {
        int32_t const r = wrappingAdd(in[i].getRaw(), 2048);
        uint32_t word = uint32_t(r >> 12);
        if (isAtOrAboveOne(r))
            word = 0x7FFFu;
        else if (isBelowMinusOne(r))
            word = 0x8000u;
        storeLittleEndian(out + 2 * i, word, 2);
    }
}

void fromS32(guint8 const* in, tSample* out, size_t count)
{
    for (size_t i = 0; i < count; ++i)
        out[i] = tSample(int32_t(loadLittleEndian(in + 4 * i, 4)) >> 4);
}

void fromS24(guint8 const* in, tSample* out, size_t count)
{
    for (size_t i = 0; i < count; ++i) {
        // Moving bit 23 to the top and back sign-extends; the final shift leaves it 4 bits up.
        int32_t const value = int32_t(loadLittleEndian(in + 3 * i, 3) << 8) >> 4;
        out[i] = tSample(value);
    }
}

void fromS16(guint8 const* in, tSample* out, size_t count)
{
    for (size_t i = 0; i < count; ++i)
        out[i] = tSample(int32_t(uint32_t(int32_t(int16_t(loadLittleEndian(in + 2 * i, 2)))) << 12));
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
