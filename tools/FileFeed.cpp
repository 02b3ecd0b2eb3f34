#include "tools/FileFeed.h"

#include "dsp/Chain.h"
#include "tools/AlsaPeriodBuffers.h"
#include "tools/ToolError.h"

#include <algorithm>
#include <cerrno>
#include <chrono>

namespace Zelmar {
namespace Host {

namespace {

constexpr unsigned int c_channels = 2;
constexpr unsigned int c_frameBytes = c_channels * 4;
// A power of two, so that the ring's slots run on evenly past 2^32 bytes (three hours of audio);
// 256 KiB hold 25 periods of the longest kind.
constexpr unsigned int c_ringBytes = 1u << 18;

} // namespace

FileFeed::FileFeed(std::string const& path, unsigned int periodFrames)
    : m_description("input " + path), m_periodFrames(periodFrames), m_reader(path, periodFrames),
      m_fileBuffers(SND_PCM_FORMAT_S32_LE, c_channels, periodFrames),
      m_readChunk(periodFrames * c_frameBytes), m_ring(c_ringBytes),
      m_period(Chain::getMaxNumFramesPerProcessCall() * c_frameBytes)
{
    for (unsigned int c = 0; c < c_channels; ++c)
        m_areas[c] = {m_period.data(), c * 32, c_frameBytes * 8};
}

FileFeed::~FileFeed()
{
    end();
}

std::string FileFeed::end()
{
    m_quit.store(true);
    if (m_thread.joinable())
        m_thread.join();
    return m_readError;
}

void FileFeed::begin()
{
    m_thread = std::thread([this] { readAhead(); });
    while (!m_ended.load() && m_ring.getNumReadable() < c_ringBytes / 2)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

void FileFeed::readAhead()
{
    // Waiting for room a quarter of a period at a time keeps the ring nearly full at little cost.
    auto const pause = std::chrono::microseconds(uint64_t(m_periodFrames) * 250000u / getSampleRate());
    try {
        while (!m_quit.load()) {
            unsigned int const frames = m_reader.readPeriod(m_fileBuffers, m_periodFrames);
            if (frames == 0)
                break;
            m_fileBuffers.interleave(m_readChunk.data(), frames);
            unsigned int const bytes = frames * c_frameBytes;
            unsigned int pushed = 0;
            while (!m_quit.load() &&
                   (pushed += m_ring.push(m_readChunk.data() + pushed, bytes - pushed)) < bytes)
                std::this_thread::sleep_for(pause);
        }
    } catch (ToolError const& e) {
        m_readError = e.what();
    }
    // Release: whoever sees the end also sees every frame pushed before it.
    m_ended.store(true, std::memory_order_release);
}

std::unique_ptr<AlsaPeriodBuffers> FileFeed::makeBuffers() const
{
    return std::make_unique<AlsaPeriodBuffers>(SND_PCM_FORMAT_S32_LE, 4, c_channels,
                                               Chain::getMaxNumFramesPerProcessCall());
}

int FileFeed::readPeriod(AlsaPeriodBuffers& capture, unsigned int frames)
{
    bool const ended = m_ended.load(std::memory_order_acquire);
    auto const readable =
        static_cast<unsigned int>(std::min<unsigned long long>(m_ring.getNumReadable(), c_ringBytes));
    unsigned int const wanted = frames * c_frameBytes;
    if (readable < wanted && !ended)
        return -EPIPE;
    unsigned int const taken =
        m_ring.pop(m_period.data(), std::min(readable, wanted) / c_frameBytes * c_frameBytes);
    unsigned int const got = taken / c_frameBytes;
    capture.setNumFrames(got);
    capture.fromDevice(m_areas, 0, 0, got);
    return int(got);
}

} // namespace Host
} // namespace Zelmar
