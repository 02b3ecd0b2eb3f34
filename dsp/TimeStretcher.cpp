#include "dsp/TimeStretcher.h"

namespace Zelmar {

namespace {

// Absolute value of the wrapped 32-bit difference; the most negative word counts as 2^31.
uint32_t absoluteStep(tSample later, tSample earlier)
{
    int32_t const d = (later - earlier).getRaw();
    return d < 0 ? 0u - static_cast<uint32_t>(d) : static_cast<uint32_t>(d);
}

constexpr tSample c_two{tSample::tFundamental(2 << 27)};

} // namespace

void TimeStretcher::postSetup(unsigned int periodSize)
{
    // One frame more than a period, so that an inserted frame never moves the storage.
    m_reservedFrames = periodSize + 1;
    Module::postSetup(m_reservedFrames);
    for (auto& output : m_outputs)
        output->setSize(periodSize);
}

void TimeStretcher::setOutPortBuffer(unsigned int port, std::shared_ptr<AudioBuffer> buffer)
{
    // The stereo wrapper hands over buffers sized for a plain period; keep the extra frame in them too.
    if (buffer && m_reservedFrames > buffer->getNumSampleFramesCapacity())
        buffer->getUnderlyingStorage().reserve(m_reservedFrames);
    Module::setOutPortBuffer(port, std::move(buffer));
}

void TimeStretcher::process()
{
    AudioBuffer* const in = &inBuffer(0);
    AudioBuffer* const out = &outBuffer(0);
    out->setSize(in->getNumSampleFrames());
    ZELMAR_ASSERT(out->getNumSampleFrames() >= in->getNumSampleFrames());
    tSample const* const oldOutPtr = out->getRawData();
    out->copyFrom(in);

    // With one frame or none there is no inner pair to change: the order waits for a longer period.
    if (in->getNumSampleFrames() > 1) {
        TaskForNextBuffer const task = m_taskForNextBuffer.exchange(None, std::memory_order_relaxed);
        if (task == Skip)
            skip();
        else if (task == Stretch)
            stretch();
        // Checked through the audio-thread accessor; the text names the buffer as the chain sees it.
        if (oldOutPtr != out->getRawData())
            Tools::reportFailedAssertion(__FILE__, __LINE__, __PRETTY_FUNCTION__,
                                         "oldOutPtr == getOutPort(0)->getRawData()");
    }
    m_numSamplesProduced.fetch_add(out->getNumSampleFrames(), std::memory_order_relaxed);
}

unsigned int TimeStretcher::findSmallestChangeInBuffer() const
{
    AudioBuffer const& in = inBuffer(0);
    unsigned int const n = in.getNumSampleFrames();
    if (n < 3)
        return 1;
    tSample const* const x = in.getRawData();
    unsigned int best = 1;
    uint32_t smallest = absoluteStep(x[1], x[0]);
    for (unsigned int i = 2; i < n; ++i) {
        uint32_t const d = absoluteStep(x[i], x[i - 1]);
        // Strictly smaller: of equal steps the first pair wins.
        if (d < smallest) {
            best = i;
            smallest = d;
        }
    }
    return best;
}

void TimeStretcher::skip()
{
    unsigned int const bestFrame = findSmallestChangeInBuffer();
    ZELMAR_ASSERT(bestFrame > 0);
    AudioBuffer::tStorage& out = outBuffer(0).getUnderlyingStorage();
    std::size_t const oldLen = out.size();
    // The later sample of the quietest pair goes; everything behind it moves one place forward.
    out.erase(out.begin() + bestFrame);
    ZELMAR_ASSERT((oldLen - 1) == out.size());
}

void TimeStretcher::stretch()
{
    unsigned int const bestFrame = findSmallestChangeInBuffer();
    ZELMAR_ASSERT(bestFrame > 0);
    AudioBuffer::tStorage& out = outBuffer(0).getUnderlyingStorage();
    // The sum wraps in 32 bits before the halving, which rounds toward zero.
    tSample const v = (out[bestFrame - 1] + out[bestFrame]) / c_two;
    out.insert(out.begin() + bestFrame, v);
}

} // namespace Zelmar
