#pragma once

#include "dsp/RingBuffer.h"

namespace Zelmar {

// Hands elements from exactly one writer thread to exactly one reader thread without locks. Each
// counter is stored by one thread only: release on the store, acquire on the other thread's load,
// so neither side sees a count that runs ahead of the elements or the free slots it covers.
template <class T, class Modulo = DETAIL::StandardModulo>
class OneWriterOneReaderRingBuffer : public RingBuffer<T, Modulo>
{
public:
    OneWriterOneReaderRingBuffer() = default;
    explicit OneWriterOneReaderRingBuffer(unsigned int capacity) : RingBuffer<T, Modulo>(capacity) {}
    ~OneWriterOneReaderRingBuffer() override = default;

    // Only while neither thread is using the buffer.
    void reset() override
    {
        RingBuffer<T, Modulo>::reset();
        m_read.store(0, std::memory_order_release);
    }

    // Writer thread: appends as many of the n elements as there is room for and returns that count.
    // Unread elements are never overwritten; what does not fit is the caller's to drop or retry.
    unsigned int push(T const* data, unsigned int n)
    {
        unsigned long long const pending =
            this->m_written.load(std::memory_order_relaxed) - m_read.load(std::memory_order_acquire);
        unsigned long long const room = this->getCapacity() - pending;
        unsigned int const count = n < room ? n : static_cast<unsigned int>(room);
        this->write(data, count);
        return count;
    }

    // Reader thread: takes up to n elements in the order they were written and returns how many.
    unsigned int pop(T* out, unsigned int n)
    {
        unsigned long long const from = m_read.load(std::memory_order_relaxed);
        unsigned int const count = this->read(out, n, from);
        // Release: the writer reuses these slots only after the copies above are complete.
        m_read.store(from + count, std::memory_order_release);
        return count;
    }

    // Reader thread, or the thread that starts one: forgets what was written and not yet taken.
    void skipUnread()
    {
        m_read.store(this->m_written.load(std::memory_order_acquire), std::memory_order_release);
    }

    // Reader thread: elements written and not yet taken.
    unsigned long long getNumReadable() const
    {
        return this->m_written.load(std::memory_order_acquire) - m_read.load(std::memory_order_relaxed);
    }

private:
    std::atomic<uint64_t> m_read{0};
};

} // namespace Zelmar
