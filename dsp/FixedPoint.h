#pragma once

#include "base/Assert.h"

#include <cmath>
#include <cstdint>
#include <limits>
#include <type_traits>

namespace Zelmar {

// A number held in one 32-bit word: raw / 2^post_comma. Arithmetic is on the raw words and wraps;
// nothing saturates. Products keep the 64-bit product shifted right by post_comma, which truncates
// toward minus infinity. Conversion from floating point goes through single precision and truncates
// toward zero, so a converted value carries at most 24 significant bits.
template <int pre_comma, int post_comma, bool is_signed>
class FixedPoint
{
public:
    using tFundamental = std::conditional_t<is_signed, int32_t, uint32_t>;
    using tWide = std::conditional_t<is_signed, int64_t, uint64_t>;

    static_assert(pre_comma + post_comma == (is_signed ? 31 : 32), "one 32-bit word");

    static const FixedPoint s_Zero;
    static const FixedPoint s_Half;

    constexpr FixedPoint() : m_value(0) {}
    // A raw word keeps its bits.
    constexpr explicit FixedPoint(tFundamental raw) : m_value(raw) {}
    FixedPoint(double value) : FixedPoint(static_cast<float>(value)) {}
    FixedPoint(float value) : m_value(fromFloat(value)) {}

    constexpr tFundamental getRaw() const { return m_value; }
    void setRaw(tFundamental raw) { m_value = raw; }

    float toFloat() const { return static_cast<float>(m_value) * c_rawToFloat; }
    double toDouble() const { return static_cast<double>(m_value) * c_rawToDouble; }
    explicit operator float() const { return toFloat(); }
    explicit operator double() const { return toDouble(); }

    friend FixedPoint operator*(FixedPoint a, FixedPoint b)
    {
        tWide const product = static_cast<tWide>(a.m_value) * static_cast<tWide>(b.m_value);
        return FixedPoint(static_cast<tFundamental>(static_cast<uint32_t>(product >> post_comma)));
    }
    friend FixedPoint operator+(FixedPoint a, FixedPoint b)
    {
        return FixedPoint(static_cast<tFundamental>(static_cast<uint32_t>(a.m_value) + static_cast<uint32_t>(b.m_value)));
    }
    friend FixedPoint operator-(FixedPoint a, FixedPoint b)
    {
        return FixedPoint(static_cast<tFundamental>(static_cast<uint32_t>(a.m_value) - static_cast<uint32_t>(b.m_value)));
    }
    // Quotient of the words widened to 64 bits; rounds toward zero. A zero divisor is undefined.
    friend FixedPoint operator/(FixedPoint a, FixedPoint b)
    {
        tWide const numerator = static_cast<tWide>(a.m_value) * (tWide(1) << post_comma);
        return FixedPoint(static_cast<tFundamental>(numerator / static_cast<tWide>(b.m_value)));
    }
    FixedPoint operator-() const { return s_Zero - *this; }
    FixedPoint& operator*=(FixedPoint other) { return *this = *this * other; }
    FixedPoint& operator+=(FixedPoint other) { return *this = *this + other; }
    FixedPoint& operator-=(FixedPoint other) { return *this = *this - other; }

    friend bool operator==(FixedPoint a, FixedPoint b) { return a.m_value == b.m_value; }
    friend bool operator!=(FixedPoint a, FixedPoint b) { return a.m_value != b.m_value; }
    friend bool operator<(FixedPoint a, FixedPoint b) { return a.m_value < b.m_value; }
    friend bool operator>(FixedPoint a, FixedPoint b) { return a.m_value > b.m_value; }
    friend bool operator<=(FixedPoint a, FixedPoint b) { return a.m_value <= b.m_value; }
    friend bool operator>=(FixedPoint a, FixedPoint b) { return a.m_value >= b.m_value; }

    // Only the upper bound is checked: values below the range clamp to the most negative raw word.
    static void assertEnoughBits(tFundamental const& v) { ZELMAR_ASSERT(v < pow(2, pre_comma)); }

private:
    static constexpr float c_floatToRaw = static_cast<float>(1ull << post_comma);
    static constexpr float c_rawToFloat = 1.0f / c_floatToRaw;
    static constexpr double c_rawToDouble = 1.0 / static_cast<double>(1ull << post_comma);

    // Float to integer conversion is undefined outside the target range, so clamp explicitly.
    static tFundamental truncateToFundamental(float value)
    {
        constexpr float lowest = static_cast<float>(std::numeric_limits<tFundamental>::min());
        constexpr float beyondHighest = static_cast<float>(std::numeric_limits<tFundamental>::max()) + 1.0f;
        if (!(value > lowest))
            return std::numeric_limits<tFundamental>::min();
        if (value >= beyondHighest)
            return std::numeric_limits<tFundamental>::max();
        return static_cast<tFundamental>(value);
    }

    static tFundamental fromFloat(float value)
    {
        assertEnoughBits(truncateToFundamental(value));
        return truncateToFundamental(value * c_floatToRaw);
    }

    tFundamental m_value;
};

template <int a, int b, bool s>
const FixedPoint<a, b, s> FixedPoint<a, b, s>::s_Zero{typename FixedPoint<a, b, s>::tFundamental(0)};
template <int a, int b, bool s>
const FixedPoint<a, b, s> FixedPoint<a, b, s>::s_Half{typename FixedPoint<a, b, s>::tFundamental(1u << (b - 1))};

using tSample = FixedPoint<4, 27, true>;

} // namespace Zelmar
