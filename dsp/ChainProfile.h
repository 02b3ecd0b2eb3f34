#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace Zelmar {

// Where a chain's time goes: the nanoseconds each module's process() took since profiling began, by a
// steady clock read between one module and the next. The audio thread alone writes, one relaxed atomic
// word per module, so any thread may read the figures while audio runs (each word on its own).
class ChainProfile
{
public:
    explicit ChainProfile(std::size_t numModules);

    // The steady clock in nanoseconds; a vDSO call where the platform has one, no system call.
    static uint64_t now();

    // Audio thread.
    void add(std::size_t module, uint64_t nanoseconds)
    {
        auto& total = m_nanoseconds[module];
        total.store(total.load(std::memory_order_relaxed) + nanoseconds, std::memory_order_relaxed);
    }

    // Audio thread: one more process() call timed.
    void countPeriod()
    {
        m_periods.store(m_periods.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }

    uint64_t getNanoseconds(std::size_t module) const
    {
        return m_nanoseconds[module].load(std::memory_order_relaxed);
    }
    std::size_t getNumModules() const { return m_numModules; }
    uint64_t getNumPeriods() const { return m_periods.load(std::memory_order_relaxed); }

private:
    static_assert(std::atomic<uint64_t>::is_always_lock_free, "the audio thread must not take a lock");

    std::size_t m_numModules;
    std::unique_ptr<std::atomic<uint64_t>[]> m_nanoseconds;
    std::atomic<uint64_t> m_periods{0};
};

} // namespace Zelmar
