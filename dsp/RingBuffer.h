#pragma once

#include <atomic>
#include <cstdint>
#include <stdexcept>
#include <vector>

namespace Zelmar {

namespace DETAIL {

// Only the low 32 bits of the position take part, so 32-bit targets divide in one instruction.
// With a capacity that is not a power of two the slot sequence jumps once every 2^32 elements
// (once a day at 48 kHz); the users accept that.
struct StandardModulo
{
    static unsigned int slot(unsigned long long position, unsigned int capacity)
    {
        return static_cast<uint32_t>(position) % capacity;
    }
};

} // namespace DETAIL

// A fixed-capacity history addressed by absolute, ever-growing element positions. Writing never
// waits: the oldest elements are overwritten. One thread uses it; OneWriterOneReaderRingBuffer adds
// the hand-over between two.
template <class T, class Modulo = DETAIL::StandardModulo> class RingBuffer
{
public:
    // The write count is published to another thread by OneWriterOneReaderRingBuffer; a lock here
    // would let the audio thread block, and a plain 64-bit word could tear on a 32-bit target.
    static_assert(std::atomic<uint64_t>::is_always_lock_free, "64-bit counters must be lock-free");

    RingBuffer() = default;
    explicit RingBuffer(unsigned int capacity) : m_buffer(capacity) {}
    virtual ~RingBuffer() = default;

    RingBuffer(RingBuffer const&) = delete;
    RingBuffer& operator=(RingBuffer const&) = delete;

    // Contents stay in memory; they are merely no longer readable.
    virtual void reset() { m_written.store(0, std::memory_order_release); }

    // Takes `storage` as the new slots and leaves the old ones in it, without allocating or freeing;
    // by the thread that uses the buffer, which then calls reset().
    void swapStorage(std::vector<T>& storage) { m_buffer.swap(storage); }

    unsigned int getCapacity() const { return static_cast<unsigned int>(m_buffer.size()); }
    unsigned long long getNumWritten() const { return m_written.load(std::memory_order_acquire); }

    // The element at an absolute position, whether or not it is still within the last N written.
    T const& at(unsigned long long position) const { return m_buffer[Modulo::slot(position, getCapacity())]; }

    // Appends n elements and returns the pointer one past the last one consumed.
    T const* write(T const* data, unsigned int n)
    {
        if (n == 0)
            return data;
        unsigned int const capacity = getCapacity();
        if (n > capacity)
            throw std::invalid_argument("too many elements delivered or buffer too small");
        unsigned long long const written = m_written.load(std::memory_order_relaxed);
        unsigned int const p = Modulo::slot(written, capacity);
        unsigned int const now = n <= capacity - p ? n : capacity - p;
        for (unsigned int i = 0; i < now; ++i)
            m_buffer[p + i] = data[i];
        // Release: a reader that sees the new count also sees the elements it covers.
        m_written.store(written + now, std::memory_order_release);
        return write(data + now, n - now);
    }

    // Copies up to n elements starting at absolute position `from`; returns how many.
    unsigned int read(T* out, unsigned int n, unsigned long long from) const
    {
        unsigned long long const written = m_written.load(std::memory_order_acquire);
        if (from >= written)
            return 0;
        unsigned int const capacity = getCapacity();
        unsigned long long const behind = written - from;
        unsigned int count = n;
        if (behind < count)
            count = static_cast<unsigned int>(behind);
        if (capacity < count)
            count = capacity;
        unsigned int done = 0;
        while (done < count) {
            unsigned int const p = Modulo::slot(from + done, capacity);
            unsigned int const now = count - done <= capacity - p ? count - done : capacity - p;
            for (unsigned int i = 0; i < now; ++i)
                out[done + i] = m_buffer[p + i];
            done += now;
        }
        return done;
    }

protected:
    std::vector<T> m_buffer;
    std::atomic<uint64_t> m_written{0};
};

} // namespace Zelmar
