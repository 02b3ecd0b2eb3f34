#pragma once

#include "base/Signal.h"
#include "base/SignalState.h"
#include "dsp/DropReport.h"
#include "dsp/Export.h"
#include "dsp/IdleQueue.h"
#include "dsp/Module.h"
#include "dsp/WorkerWakeup.h"

#include <FLAC/stream_encoder.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

namespace Zelmar {

namespace DETAIL {
struct StandardModulo;
}
template <class T, class Modulo> class OneWriterOneReaderRingBuffer;

// Encodes the stereo signal reaching inputs 0 (left) and 1 (right) into a live 24-bit FLAC stream
// ("flac-encoder"). The audio thread only converts and queues; an encoder thread runs libFLAC; the
// encoded pieces (stream header pieces first, then one per frame) are published on the main loop.
//
// Encoding runs between onSigGotFrameStateChanged(FramesWanted) and (FramesNotWanted). Stopping
// encodes every pair queued before the stop, but libFLAC keeps back the last block it has not
// completed (at most one block, 1152 pairs at compression level 2) until the encoder is finished:
// finishStream() finishes it, publishing that last frame, and the next start begins a new stream with
// a new header, as does setParameters at another sample rate (at the rate in force it changes
// nothing); the destructor finishes it without publishing. A stop and a later start continue the
// same stream. Pairs the audio thread cannot queue because the encoder fell behind are dropped (the newest
// ones), counted and reported on the main loop.
class ORVANDELDSP_EXPORT FlacEncoder : public Module
{
public:
    using tFrame = std::shared_ptr<std::vector<uint8_t>>;
    using tPair = std::pair<tSample, tSample>;

    // 32768 pairs: 0.68 s at 48 kHz (256 KiB). The encoder is woken from 4096 queued pairs and takes up
    // to 8192 at a time, so this leaves it about half a second of slack before pairs are dropped.
    // A power of two, so the slot sequence never jumps when the 32-bit position wraps.
    static constexpr unsigned int c_defaultCapacity = 0x8000;
    static constexpr unsigned int c_wakeThreshold = 0x1000;
    static constexpr unsigned int c_blockPairs = 8192;

    explicit FlacEncoder(Tools::String const& id, unsigned int capacity = c_defaultCapacity);
    ~FlacEncoder() override;

    void setParameters(Parameters const& parameters, unsigned int sampleRate) override;
    unsigned int getNumOutPorts() const override { return 0; }
    unsigned int getNumInPorts() const override { return 2; }
    void process() override;

    // Subscribers are called on the main loop, in connection order, with each piece in stream order.
    Tools::Connection onFrameEncoded(std::function<void(tFrame)> subscriber);
    void onSigGotFrameStateChanged(Tools::SignalState state);
    void startEncoding();
    void stopEncoding();
    bool isEncoding() const { return m_state.load() == State::Encoding; }
    // Stops encoding and ends the stream: libFLAC encodes the block it held back, which is published
    // like the frames before it. The next start begins a new stream with a header of its own.
    void finishStream();
    // Pairs queued by process() that the encoder thread has not taken yet.
    unsigned int getNumQueuedPairs() const;
    // Main loop: whether encoded pieces still wait to be published to the subscribers.
    bool hasUnpublishedFrames() const { return !m_pendingFrames.isEmpty(); }
    // Pairs dropped since construction because the encoder fell behind.
    uint32_t getDroppedPairs() const { return m_dropped.getTotal(); }

    // Q4.27 to 24 bits: an arithmetic shift right by 4, so 1.0 gives 8388608. Nothing is clipped:
    // values from 1.0 up reach libFLAC out of its 24-bit range and make it fail, which is reported.
    static int32_t toFlacSample(tSample sample) { return sample.getRaw() >> 4; }

protected:
    // Encoder thread: takes up to maxPairs queued pairs; waits for a wake-up when there are none.
    // Returns the count taken, which may be 0 (woken by a stop, or with nothing new).
    virtual unsigned int readOrWait(tPair* buffer, unsigned int maxPairs);
    // Sets the stop flag and wakes the encoder thread.
    void notifyCondition();

private:
    enum class State
    {
        Idle,     // no thread; process() clears the ring buffer
        Encoding, // thread running; process() queues
        Stopping, // thread finishing or failed; process() leaves the ring buffer alone
    };

    void setupEncoderLib(unsigned int sampleRate);
    void finishEncoderLib();
    void runEncoderThread();
    void encode(tPair const* pairs, unsigned int n);
    void writeEncodedFrame(uint8_t const* bytes, unsigned int size, unsigned int samples);
    void sendPendingFrame(tFrame const& frame);

    static FLAC__StreamEncoderWriteStatus writeCB(FLAC__StreamEncoder const*, FLAC__byte const buffer[],
                                                  size_t bytes, uint32_t samples, uint32_t currentFrame,
                                                  void* clientData);
    static FLAC__StreamEncoderSeekStatus seekCB(FLAC__StreamEncoder const*, FLAC__uint64, void*);
    static FLAC__StreamEncoderTellStatus tellCB(FLAC__StreamEncoder const*, FLAC__uint64* offset, void*);

    // Held by pointer so that hosts including this header need not see the ring buffer.
    std::unique_ptr<OneWriterOneReaderRingBuffer<tPair, DETAIL::StandardModulo>> m_ring;
    std::atomic<State> m_state{State::Idle};
    std::atomic<bool> m_stop{false};
    // Set by finishStream() (main loop only): the next start sets libFLAC up again with a new header.
    bool m_streamFinished = false;
    WorkerWakeup m_wakeup;
    DropReport m_dropped;
    FLAC__StreamEncoder* m_encoder = nullptr;
    std::thread m_thread;
    Tools::Signal<void(tFrame)> m_frameEncoded;
    IdleQueue<tFrame> m_pendingFrames;
};

} // namespace Zelmar
