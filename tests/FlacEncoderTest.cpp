#include "dsp/FlacEncoder.h"
#include "dsp/IllegalArgumentException.h"

#include "support/LogCapture.h"
#include "support/MainLoop.h"
#include "support/ModuleHarness.h"
#include "support/TemporaryDirectory.h"
#include "support/Thrown.h"

#include <FLAC/stream_encoder.h>
#include <algorithm>
#include <cstdlib>
#include <functional>
#include <future>
#include <gtest/gtest.h>
#include <thread>

using namespace Zelmar;
using Testing::ModuleHarness;
using Testing::noise;

namespace {

using tBytes = std::vector<uint8_t>;

// What libFLAC itself writes for these interleaved pairs at the encoder's fixed settings: compression
// level 2 (1152-frame blocks), two channels of 24 bits, a streamable subset and an unknown length.
// Without a seek callback the header is never rewritten, as on a live stream.
// What libFLAC itself writes for these channels, each sample shifted right by 4 into 24 bits, at the
// encoder's fixed settings: compression level 2 (1152-frame blocks), two channels of 24 bits, a streamable
// subset and an unknown length. Without a seek callback the header is never rewritten, as on a live stream.
tBytes libFlacStream(std::vector<tSample> const& left, std::vector<tSample> const& right)
{
    std::vector<int32_t> pairs;
    for (size_t i = 0; i < left.size(); ++i)
        pairs.insert(pairs.end(), {left[i].getRaw() >> 4, right[i].getRaw() >> 4});
    tBytes bytes;
    FLAC__StreamEncoder* encoder = FLAC__stream_encoder_new();
    FLAC__stream_encoder_set_compression_level(encoder, 2);
    FLAC__stream_encoder_set_channels(encoder, 2);
    FLAC__stream_encoder_set_bits_per_sample(encoder, 24);
    FLAC__stream_encoder_set_sample_rate(encoder, 48000);
    FLAC__stream_encoder_set_streamable_subset(encoder, true);
    auto const write = [](FLAC__StreamEncoder const*, FLAC__byte const buffer[], size_t size, uint32_t,
                          uint32_t, void* out) {
        static_cast<tBytes*>(out)->insert(static_cast<tBytes*>(out)->end(), buffer, buffer + size);
        return FLAC__STREAM_ENCODER_WRITE_STATUS_OK;
    };
    EXPECT_EQ(FLAC__stream_encoder_init_stream(encoder, write, nullptr, nullptr, nullptr, &bytes),
              FLAC__STREAM_ENCODER_INIT_STATUS_OK);
    EXPECT_TRUE(FLAC__stream_encoder_process_interleaved(encoder, pairs.data(), unsigned(pairs.size() / 2)));
    FLAC__stream_encoder_finish(encoder);
    FLAC__stream_encoder_delete(encoder);
    return bytes;
}

bool startsStream(tBytes const& piece)
{
    return piece.size() >= 4 && std::equal(piece.begin(), piece.begin() + 4, "fLaC");
}

// An encoder fed by a harness, with every piece it publishes collected.
struct Encoding
{
    explicit Encoding(std::shared_ptr<FlacEncoder> module = std::make_shared<FlacEncoder>("enc"))
        : harness(module), encoder(*module),
          connection(encoder.onFrameEncoded([this](FlacEncoder::tFrame frame) { pieces.push_back(*frame); }))
    {
        encoder.setParameters(Parameters{}, 48000);
    }
    // The pieces from `first` up to the header of the next stream, joined.
    tBytes stream(size_t first = 0) const
    {
        tBytes joined;
        for (size_t i = first; i < pieces.size() && (i == first || !startsStream(pieces[i])); ++i)
            joined.insert(joined.end(), pieces[i].begin(), pieces[i].end());
        return joined;
    }

    ModuleHarness harness;
    FlacEncoder& encoder;
    std::vector<tBytes> pieces;
    Tools::Connection connection;
};

std::vector<tSample> const c_quarter = Testing::constant(1000, tSample(0.25));
std::vector<tSample> const c_minusQuarter = Testing::constant(1000, tSample(-0.25));

} // namespace

// 1.0 reaches libFLAC as 8388608, which it refuses as a 24-bit sample (client error, state 5).
TEST(FlacEncoderTest, FullScaleIsNotClippedAndStopsTheEncoder)
{
    Testing::LogCapture log;
    Encoding e;
    e.encoder.onSigGotFrameStateChanged(Tools::FramesWanted);
    e.harness.process({Testing::constant(1280, tSample(1.0)), Testing::constant(1280, tSample(0.0))});
    e.encoder.onSigGotFrameStateChanged(Tools::FramesNotWanted);
    EXPECT_EQ(log.count("4 FlacEncoder error: 5"), 1);
}

TEST(FlacEncoderTest, StreamIsLibFlacsOwnAndReachesSubscribersInOrderOnTheMainLoop)
{
    unsigned int const frames = 48000 + 321;
    // Closely related channels, on which the encoder's mid-side search shows its compression level.
    std::vector<tSample> const left = noise(frames, 1, 1 << 26);
    std::vector<tSample> right = noise(frames, 2, 1 << 12);
    std::transform(right.begin(), right.end(), left.begin(), right.begin(), std::plus<tSample>());
    right[100] = tSample(-1.0);
    // Room for the whole input, so the test does not depend on how fast the encoder thread runs.
    Encoding e(std::make_shared<FlacEncoder>("enc", 1u << 17));
    std::vector<FlacEncoder::tFrame> seenBySecond;
    std::thread::id const mainThread = std::this_thread::get_id();
    Tools::Connection second = e.encoder.onFrameEncoded([&](FlacEncoder::tFrame frame) {
        EXPECT_EQ(std::this_thread::get_id(), mainThread);
        EXPECT_EQ(e.pieces.size(), seenBySecond.size() + 1) << "the first subscriber runs first";
        seenBySecond.push_back(frame);
    });

    e.encoder.onSigGotFrameStateChanged(Tools::FramesWanted);
    EXPECT_TRUE(e.encoder.isEncoding());
    e.harness.processInPeriods({left, right}, 1280);
    e.encoder.onSigGotFrameStateChanged(Tools::FramesNotWanted);
    EXPECT_FALSE(e.encoder.isEncoding());
    EXPECT_EQ(e.encoder.getDroppedPairs(), 0u);
    EXPECT_TRUE(e.pieces.empty()) << "nothing is published before the main loop runs";
    Testing::runPendingMainLoopJobs();

    // All but the last block (1152 pairs of 24 bits: under 7 KB) before the stream is finished.
    tBytes const expected = libFlacStream(left, right);
    tBytes const beforeFinish = e.stream();
    ASSERT_LT(beforeFinish.size(), expected.size());
    EXPECT_LT(expected.size() - beforeFinish.size(), 7000u);
    EXPECT_TRUE(std::equal(beforeFinish.begin(), beforeFinish.end(), expected.begin()));

    // Finishing, here for a new rate, publishes the last block, then the header of the next stream.
    size_t const piecesBefore = e.pieces.size();
    e.encoder.setParameters(Parameters{}, 44100);
    Testing::runPendingMainLoopJobs();
    EXPECT_TRUE(std::any_of(e.pieces.begin() + long(piecesBefore), e.pieces.end(), startsStream));
    EXPECT_EQ(seenBySecond.size(), e.pieces.size());
    EXPECT_EQ(e.stream(), expected);

    // The real decoder accepts a stream whose header was never rewritten.
    Testing::TemporaryDirectory scratch;
    std::string const path = scratch.path("live.flac");
    g_file_set_contents(path.c_str(), reinterpret_cast<char const*>(expected.data()), gssize(expected.size()),
                        nullptr);
    EXPECT_EQ(std::system(("flac -t -s " + path).c_str()), 0);
}

TEST(FlacEncoderTest, OnlyWhatArrivesWhileEncodingIsInTheStreamAndAFinishedOneHoldsAllOfIt)
{
    Encoding e;
    EXPECT_TRUE(e.encoder.hasUnpublishedFrames()) << "the header is written when the encoder is set up";
    for (int i = 0; i < 10; ++i)
        e.harness.process({noise(1280, 3), noise(1280, 4)});
    Testing::runPendingMainLoopJobs();
    size_t const headerPieces = e.pieces.size();

    // Less than one block, and below the wake-up threshold: all of it waits until the stream ends.
    e.encoder.startEncoding();
    e.harness.process({c_quarter, c_minusQuarter});
    EXPECT_EQ(e.encoder.getNumQueuedPairs(), 1000u);
    e.encoder.stopEncoding();
    e.harness.process({noise(1280, 5), noise(1280, 6)});
    Testing::runPendingMainLoopJobs();
    EXPECT_EQ(e.pieces.size(), headerPieces);
    e.encoder.finishStream();
    EXPECT_FALSE(e.encoder.isEncoding());
    Testing::runPendingMainLoopJobs();
    EXPECT_FALSE(e.encoder.hasUnpublishedFrames());
    EXPECT_EQ(e.stream(), libFlacStream(c_quarter, c_minusQuarter));
    EXPECT_EQ(e.encoder.getDroppedPairs(), 0u);

    size_t const before = e.pieces.size();
    e.encoder.startEncoding();
    Testing::runPendingMainLoopJobs();
    ASSERT_GT(e.pieces.size(), before);
    EXPECT_TRUE(startsStream(e.pieces[before])) << "the next start begins another stream";
    e.encoder.stopEncoding();
}

// Audio thread, encoder thread and main loop all at once; meant to be run under ThreadSanitizer too.
TEST(FlacEncoderTest, AudioEncoderAndMainLoopThreadsRunTogether)
{
    unsigned int const frames = 24000;
    std::vector<tSample> const left = noise(frames, 7), right = noise(frames, 8);
    Encoding e(std::make_shared<FlacEncoder>("enc", 1u << 15));
    e.encoder.startEncoding();
    std::atomic<bool> audioDone{false};
    std::thread audio([&] {
        for (unsigned int start = 0; start < frames; start += 240) {
            e.harness.process({std::vector<tSample>(left.begin() + start, left.begin() + start + 240),
                               std::vector<tSample>(right.begin() + start, right.begin() + start + 240)});
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
        audioDone = true;
        g_main_context_wakeup(nullptr);
    });
    EXPECT_TRUE(Testing::runMainLoopUntil([&] { return audioDone.load(); }));
    audio.join();
    e.encoder.stopEncoding();
    e.encoder.finishStream();
    Testing::runPendingMainLoopJobs();
    EXPECT_EQ(e.encoder.getDroppedPairs(), 0u);
    EXPECT_EQ(e.stream(), libFlacStream(left, right));
}

namespace {

// An encoder thread that does not take anything until the test lets it.
class StalledEncoder : public FlacEncoder
{
public:
    StalledEncoder() : FlacEncoder("stalled", 2048), m_released(m_release.get_future().share()) {}
    ~StalledEncoder() override
    {
        release();
        stopEncoding();
    }
    void release()
    {
        if (!m_done.exchange(true))
            m_release.set_value();
    }

protected:
    unsigned int readOrWait(tPair* buffer, unsigned int maxPairs) override
    {
        m_released.wait();
        return FlacEncoder::readOrWait(buffer, maxPairs);
    }

private:
    std::promise<void> m_release;
    std::shared_future<void> m_released;
    std::atomic<bool> m_done{false};
};

} // namespace

TEST(FlacEncoderTest, OverrunIsCountedAndReportedOnTheMainLoop)
{
    Testing::LogCapture log;
    auto stalled = std::make_shared<StalledEncoder>();
    ModuleHarness harness(stalled);
    stalled->setParameters(Parameters{}, 48000);
    stalled->startEncoding();
    for (int i = 0; i < 3; ++i)
        harness.process({Testing::constant(1000, tSample(0.1)), Testing::constant(1000, tSample(0.1))});
    EXPECT_EQ(stalled->getDroppedPairs(), 952u);
    std::string const report =
        "4 FlacEncoder stalled dropped 952 stereo frames because its worker thread fell behind";
    EXPECT_EQ(log.count(report), 0) << "reported from the main loop, not the audio thread";
    EXPECT_TRUE(Testing::runMainLoopUntil([&] { return log.count(report) == 1; }));
    stalled->release();
}

TEST(FlacEncoderTest, RejectsASampleRateLibFlacCannotEncode)
{
    FlacEncoder encoder("enc");
    EXPECT_EQ(Testing::thrownMessage<IllegalArgumentException>(
                  [&] { encoder.setParameters(Parameters{}, 2000000); }),
              "FlacEncoder enc: cannot encode at 2000000 Hz (libFLAC init status 6)");
    encoder.startEncoding();
    EXPECT_FALSE(encoder.isEncoding());
}
