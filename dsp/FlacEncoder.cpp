#include "dsp/FlacEncoder.h"

#include "base/Assert.h"
#include "base/Tracer.h"
#include "dsp/IllegalArgumentException.h"
#include "dsp/OneWriterOneReaderRingBuffer.h"

#include <algorithm>
#include <stdexcept>
#include <string>
#include <type_traits>

namespace Zelmar {

// libFLAC reads the queued pairs in place as interleaved 32-bit samples.
static_assert(sizeof(FlacEncoder::tPair) == 2 * sizeof(FLAC__int32), "a pair must be two packed words");
static_assert(std::is_standard_layout<tSample>::value, "a sample must be its raw word");

FlacEncoder::FlacEncoder(Tools::String const& id, unsigned int capacity)
    : Module(id),
      m_ring(std::make_unique<OneWriterOneReaderRingBuffer<tPair, DETAIL::StandardModulo>>(capacity)),
      m_dropped("FlacEncoder " + id, "stereo frames"),
      m_pendingFrames([this](tFrame const& frame) { sendPendingFrame(frame); })
{
}

FlacEncoder::~FlacEncoder()
{
    stopEncoding();
    finishEncoderLib();
}

void FlacEncoder::setParameters(Parameters const& parameters, unsigned int sampleRate)
{
    // The chain service re-applies every module's set on each call; that must not restart a stream.
    bool const sameRate = m_encoder != nullptr && sampleRate == getSampleRate();
    Module::setParameters(parameters, sampleRate);
    if (sameRate)
        return;
    // The encoder thread uses the encoder; rebuild it only while that thread is parked.
    bool const wasEncoding = m_thread.joinable();
    stopEncoding();
    m_ring->reset();
    m_streamFinished = false;
    setupEncoderLib(sampleRate);
    if (wasEncoding)
        startEncoding();
}

void FlacEncoder::setupEncoderLib(unsigned int sampleRate)
{
    finishEncoderLib();
    m_encoder = FLAC__stream_encoder_new();
    ZELMAR_ASSERT(m_encoder != nullptr);
    FLAC__stream_encoder_set_compression_level(m_encoder, 2);
    FLAC__stream_encoder_set_channels(m_encoder, 2);
    FLAC__stream_encoder_set_bits_per_sample(m_encoder, 24);
    FLAC__stream_encoder_set_sample_rate(m_encoder, sampleRate);
    // A live stream: its length is unknown and the header is never rewritten.
    FLAC__stream_encoder_set_total_samples_estimate(m_encoder, 0);
    FLAC__stream_encoder_set_streamable_subset(m_encoder, true);
    FLAC__StreamEncoderInitStatus const status =
        FLAC__stream_encoder_init_stream(m_encoder, writeCB, seekCB, tellCB, nullptr, this);
    if (status != FLAC__STREAM_ENCODER_INIT_STATUS_OK) {
        FLAC__stream_encoder_delete(m_encoder);
        m_encoder = nullptr;
        throw IllegalArgumentException("FlacEncoder %0: cannot encode at %1 Hz (libFLAC init status %2)",
                                       getID(), sampleRate, static_cast<int>(status));
    }
}

void FlacEncoder::finishEncoderLib()
{
    if (m_encoder == nullptr)
        return;
    FLAC__stream_encoder_finish(m_encoder);
    FLAC__stream_encoder_delete(m_encoder);
    m_encoder = nullptr;
}

void FlacEncoder::process()
{
    State const state = m_state.load();
    if (state != State::Encoding) {
        // While stopping, the encoder thread still reads; the counts are its until it has been joined.
        if (state == State::Idle)
            m_ring->reset();
        return;
    }
    AudioBuffer const& left = inBuffer(0);
    AudioBuffer const& right = inBuffer(1);
    unsigned int const n = std::min(left.getNumSampleFrames(), right.getNumSampleFrames());
    tSample const* l = left.getRawData();
    tSample const* r = right.getRawData();

    constexpr unsigned int c_chunk = 256;
    tPair chunk[c_chunk];
    for (unsigned int done = 0; done < n; done += c_chunk) {
        unsigned int const count = std::min(c_chunk, n - done);
        for (unsigned int i = 0; i < count; ++i)
            chunk[i] = tPair(tSample(toFlacSample(l[done + i])), tSample(toFlacSample(r[done + i])));
        m_dropped.add(count - m_ring->push(chunk, count));
    }
    if (m_ring->getNumReadable() >= c_wakeThreshold)
        m_wakeup.notify();
}

Tools::Connection FlacEncoder::onFrameEncoded(std::function<void(tFrame)> subscriber)
{
    return m_frameEncoded.connect(std::move(subscriber));
}

void FlacEncoder::onSigGotFrameStateChanged(Tools::SignalState state)
{
    if (state == Tools::FramesWanted)
        startEncoding();
    else if (state == Tools::FramesNotWanted)
        stopEncoding();
}

void FlacEncoder::startEncoding()
{
    if (m_thread.joinable())
        return;
    // A finished stream, or a failed run that left libFLAC in an error state for good: a fresh stream.
    if (m_streamFinished ||
        (m_encoder != nullptr && FLAC__stream_encoder_get_state(m_encoder) != FLAC__STREAM_ENCODER_OK)) {
        m_streamFinished = false;
        setupEncoderLib(getSampleRate());
    }
    // Without a sample rate there is no encoder yet; setParameters starts it if wanted by then.
    if (m_encoder == nullptr)
        return;
    m_ring->reset();
    m_stop.store(false);
    m_state.store(State::Encoding);
    m_thread = std::thread([this] { runEncoderThread(); });
}

void FlacEncoder::stopEncoding()
{
    if (!m_thread.joinable())
        return;
    m_state.store(State::Stopping);
    notifyCondition();
    m_thread.join();
    m_stop.store(false);
    m_state.store(State::Idle);
}

void FlacEncoder::finishStream()
{
    stopEncoding();
    // The encoder thread is joined, so libFLAC runs its last frame through writeCB on this thread.
    if (m_encoder != nullptr) {
        finishEncoderLib();
        m_streamFinished = true;
    }
}

void FlacEncoder::notifyCondition()
{
    m_stop.store(true);
    m_wakeup.notify();
}

unsigned int FlacEncoder::getNumQueuedPairs() const
{
    return static_cast<unsigned int>(m_ring->getNumReadable());
}

unsigned int FlacEncoder::readOrWait(tPair* buffer, unsigned int maxPairs)
{
    unsigned int const n = m_ring->pop(buffer, maxPairs);
    if (n > 0 || m_stop.load())
        return n;
    m_wakeup.wait();
    return m_ring->pop(buffer, maxPairs);
}

void FlacEncoder::runEncoderThread()
{
    std::vector<tPair> block(c_blockPairs);
    try {
        // After a stop, whatever is still queued is encoded before the thread ends.
        for (;;) {
            unsigned int const n = readOrWait(block.data(), c_blockPairs);
            if (n > 0)
                encode(block.data(), n);
            else if (m_stop.load())
                break;
        }
    } catch (std::runtime_error const& error) {
        // The audio thread stops queueing; the next start begins a new stream.
        m_state.store(State::Stopping);
        Tools::trace(Tools::Tracer::Error, error.what());
    }
}

void FlacEncoder::encode(tPair const* pairs, unsigned int n)
{
    if (!FLAC__stream_encoder_process_interleaved(m_encoder, reinterpret_cast<FLAC__int32 const*>(pairs), n))
        throw std::runtime_error("FlacEncoder error: " +
                                 std::to_string(static_cast<int>(FLAC__stream_encoder_get_state(m_encoder))));
}

void FlacEncoder::writeEncodedFrame(uint8_t const* bytes, unsigned int size, unsigned int)
{
    m_pendingFrames.push(std::make_shared<std::vector<uint8_t>>(bytes, bytes + size));
}

void FlacEncoder::sendPendingFrame(tFrame const& frame)
{
    m_frameEncoded(frame);
}

FLAC__StreamEncoderWriteStatus FlacEncoder::writeCB(FLAC__StreamEncoder const*, FLAC__byte const buffer[],
                                                    size_t bytes, uint32_t samples, uint32_t,
                                                    void* clientData)
{
    static_cast<FlacEncoder*>(clientData)
        ->writeEncodedFrame(buffer, static_cast<unsigned int>(bytes), samples);
    return FLAC__STREAM_ENCODER_WRITE_STATUS_OK;
}

FLAC__StreamEncoderSeekStatus FlacEncoder::seekCB(FLAC__StreamEncoder const*, FLAC__uint64, void*)
{
    return FLAC__STREAM_ENCODER_SEEK_STATUS_UNSUPPORTED;
}

FLAC__StreamEncoderTellStatus FlacEncoder::tellCB(FLAC__StreamEncoder const*, FLAC__uint64* offset, void*)
{
    *offset = 0;
    return FLAC__STREAM_ENCODER_TELL_STATUS_OK;
}

} // namespace Zelmar
