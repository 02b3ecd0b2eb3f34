#include "tools/PeriodTimeHistogram.h"

#include <algorithm>
#include <cmath>

namespace Zelmar {
namespace Host {

namespace {

unsigned int bitLength(uint64_t value)
{
    unsigned int bits = 0;
    for (; value; value >>= 1)
        ++bits;
    return bits;
}

} // namespace

// Below 2^(c_subBinBits + 1) a bin per nanosecond; above, bins of the top c_subBinBits + 1 bits.
unsigned int PeriodTimeHistogram::binOf(uint64_t nanoseconds)
{
    uint64_t const value = std::min(nanoseconds, (uint64_t(1) << c_maxBits) - 1);
    unsigned int const bits = bitLength(value);
    if (bits <= c_subBinBits + 1)
        return unsigned(value);
    unsigned int const shift = bits - c_subBinBits - 1;
    return (shift << c_subBinBits) + unsigned(value >> shift);
}

uint64_t PeriodTimeHistogram::lowestIn(unsigned int bin)
{
    if (bin < (2u << c_subBinBits))
        return bin;
    unsigned int const shift = (bin >> c_subBinBits) - 1;
    return uint64_t(bin - (shift << c_subBinBits)) << shift;
}

void PeriodTimeHistogram::record(uint64_t nanoseconds)
{
    // Single writer: plain load and store instead of read-modify-write.
    auto& bin = m_bins[binOf(nanoseconds)];
    bin.store(bin.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    m_count.store(m_count.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    if (nanoseconds > m_max.load(std::memory_order_relaxed))
        m_max.store(nanoseconds, std::memory_order_relaxed);
}

uint64_t PeriodTimeHistogram::quantile(double q) const
{
    uint64_t const count = getCount();
    if (count == 0)
        return 0;
    auto const rank = std::max<uint64_t>(1, uint64_t(std::ceil(q * double(count))));
    uint64_t seen = 0;
    for (unsigned int bin = 0; bin < c_numBins; ++bin) {
        seen += m_bins[bin].load(std::memory_order_relaxed);
        // The last bin also holds every longer time: the longest is the best answer there.
        if (seen >= rank)
            return bin + 1 == c_numBins ? getMax() : std::min(lowestIn(bin), getMax());
    }
    return getMax();
}

} // namespace Host
} // namespace Zelmar
