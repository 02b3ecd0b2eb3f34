#pragma once

#include <array>
#include <atomic>
#include <cstdint>

namespace Zelmar {
namespace Host {

// How long periods took, kept by the audio thread without locks or allocation and readable from any
// thread at any time. Bins are exact up to 2 us and then 1/1024 of their value wide, so a quantile
// reads back within 0.1 % for any time up to 18 minutes.
class PeriodTimeHistogram
{
public:
    // Audio thread only: one writer.
    void record(uint64_t nanoseconds);

    uint64_t getCount() const { return m_count.load(std::memory_order_relaxed); }
    uint64_t getMax() const { return m_max.load(std::memory_order_relaxed); }
    // The smallest time at least a fraction q (0 to 1) of the periods took no longer than, 0 when empty.
    uint64_t quantile(double q) const;

private:
    static constexpr unsigned int c_subBinBits = 10;
    static constexpr unsigned int c_maxBits = 40;
    static constexpr unsigned int c_numBins = (c_maxBits - c_subBinBits + 1) << c_subBinBits;

    static unsigned int binOf(uint64_t nanoseconds);
    static uint64_t lowestIn(unsigned int bin);

    std::array<std::atomic<uint32_t>, c_numBins> m_bins{};
    std::atomic<uint64_t> m_count{0};
    std::atomic<uint64_t> m_max{0};
};

} // namespace Host
} // namespace Zelmar
