#include "dsp/OneWriterOneReaderRingBuffer.h"

#include "support/Thrown.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <numeric>
#include <stdexcept>
#include <thread>
#include <vector>

using namespace Zelmar;

namespace {

std::vector<int> sequence(int first, unsigned int count)
{
    std::vector<int> values(count);
    std::iota(values.begin(), values.end(), first);
    return values;
}

} // namespace

TEST(RingBufferTest, WrapsAroundAndReadsByAbsolutePosition)
{
    RingBuffer<int> ring(8);
    std::vector<int> const first = sequence(0, 5), second = sequence(5, 5);
    EXPECT_EQ(ring.write(first.data(), 5), first.data() + 5);
    EXPECT_EQ(ring.write(second.data(), 5), second.data() + 5);
    EXPECT_EQ(ring.getNumWritten(), 10u);
    // Positions 8 and 9 went to slots 0 and 1, over positions 0 and 1.
    EXPECT_EQ((std::vector<int>{ring.at(0), ring.at(1), ring.at(7)}), (std::vector<int>{8, 9, 7}));

    std::vector<int> out(8, -1);
    EXPECT_EQ(ring.read(out.data(), 8, 2), 8u);
    EXPECT_EQ(out, sequence(2, 8));
    EXPECT_EQ(ring.read(out.data(), 8, 7), 3u);
    EXPECT_EQ(out[2], 9);
    for (auto const& [n, from] : {std::pair{8u, 10ull}, {8u, 11ull}, {0u, 2ull}})
        EXPECT_EQ(ring.read(out.data(), n, from), 0u) << n << " from " << from;
    EXPECT_EQ(DETAIL::StandardModulo::slot((1ull << 32) + 3, 10), 3u) << "only the low word takes part";
}

TEST(RingBufferTest, RefusesMoreThanItsCapacityAndResetForgetsContents)
{
    RingBuffer<int> ring(8);
    std::vector<int> const values = sequence(1, 9);
    ring.write(values.data(), 3);
    EXPECT_EQ(Testing::thrownMessage<std::invalid_argument>([&] { ring.write(values.data(), 9); }),
              "too many elements delivered or buffer too small");
    EXPECT_EQ(ring.getNumWritten(), 3u);
    EXPECT_THROW(RingBuffer<int>().write(values.data(), 1), std::invalid_argument);

    ring.reset();
    std::vector<int> out(4, -1);
    EXPECT_EQ(ring.read(out.data(), 4, 0), 0u);
    EXPECT_EQ(ring.at(2), 3);
}

TEST(RingBufferTest, OneWriterOneReaderNeverOverwritesUnreadElements)
{
    OneWriterOneReaderRingBuffer<int> ring(4);
    std::vector<int> const values = sequence(1, 6);
    EXPECT_EQ(ring.push(values.data(), 6), 4u);
    std::vector<int> out(6, 0);
    EXPECT_EQ(ring.pop(out.data(), 2), 2u);
    EXPECT_EQ(ring.push(values.data() + 4, 2), 2u);
    EXPECT_EQ(ring.getNumReadable(), 4u);
    EXPECT_EQ(ring.pop(out.data() + 2, 6), 4u);
    EXPECT_EQ(out, values);
    EXPECT_EQ(ring.pop(out.data(), 1), 0u);

    ring.reset();
    EXPECT_EQ(ring.getNumWritten() + ring.getNumReadable(), 0u);
    EXPECT_EQ(ring.push(values.data(), 5), 4u);
}

// Also meant to run under ThreadSanitizer: the counters are the only synchronisation. The capacity is
// not a power of two, so the slot arithmetic wraps at odd places.
TEST(RingBufferTest, OneWriterOneReaderHandsOverMillionsInOrder)
{
    constexpr uint32_t total = 4000000;
    OneWriterOneReaderRingBuffer<uint32_t> ring(1000);
    std::thread writer([&] {
        std::vector<uint32_t> chunk(97);
        for (uint32_t next = 0, size = 1; next < total; size = size % 97 + 1) {
            unsigned int const n = std::min(total - next, size);
            std::iota(chunk.begin(), chunk.begin() + n, next);
            unsigned int const pushed = ring.push(chunk.data(), n);
            next += pushed;
            if (pushed == 0)
                std::this_thread::yield();
        }
    });

    std::vector<uint32_t> out(89);
    uint32_t expected = 0, mismatches = 0;
    for (unsigned int size = 1; expected < total; size = size % 89 + 1) {
        unsigned int const got = ring.pop(out.data(), size);
        for (unsigned int i = 0; i < got; ++i)
            mismatches += out[i] != expected++;
        if (got == 0)
            std::this_thread::yield();
    }
    writer.join();
    EXPECT_EQ(mismatches, 0u);
    EXPECT_EQ(ring.getNumWritten(), total);
    EXPECT_EQ(ring.getNumReadable(), 0u);
}
