#include "dsp/FlacEncoder.h"
#include "dsp/IllegalArgumentException.h"

#include "base/Tracer.h"
#include "support/LogCapture.h"
#include "support/MainLoop.h"
#include "support/ModuleHarness.h"
#include "support/Thrown.h"

#include <FLAC/stream_decoder.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <glib.h>
#include <gtest/gtest.h>
#include <mutex>
#include <thread>

using namespace Zelmar;
using Testing::ModuleHarness;
using Testing::noise;

namespace {

using tBytes = std::vector<uint8_t>;

// Decodes a whole FLAC stream held in memory into interleaved samples.
std::vector<int32_t> decode(tBytes const& stream)
{
    struct Context
    {
        tBytes const* stream;
        size_t offset = 0;
        std::vector<int32_t> samples;
    } context{&stream, 0, {}};
    auto read = [](FLAC__StreamDecoder const*, FLAC__byte buffer[], size_t* bytes, void* data) {
        auto* c = static_cast<Context*>(data);
        size_t const n = std::min(*bytes, c->stream->size() - c->offset);
        std::copy_n(c->stream->data() + c->offset, n, buffer);
        c->offset += n;
        *bytes = n;
        return n == 0 ? FLAC__STREAM_DECODER_READ_STATUS_END_OF_STREAM
                      : FLAC__STREAM_DECODER_READ_STATUS_CONTINUE;
    };
    auto write = [](FLAC__StreamDecoder const*, FLAC__Frame const* frame, FLAC__int32 const* const channels[],
                    void* data) {
        auto* c = static_cast<Context*>(data);
        for (unsigned int i = 0; i < frame->header.blocksize; ++i) {
            c->samples.push_back(channels[0][i]);
            c->samples.push_back(channels[1][i]);
        }
        return FLAC__STREAM_DECODER_WRITE_STATUS_CONTINUE;
    };
    auto error = [](FLAC__StreamDecoder const*, FLAC__StreamDecoderErrorStatus, void*) { ADD_FAILURE(); };
    FLAC__StreamDecoder* decoder = FLAC__stream_decoder_new();
    EXPECT_EQ(FLAC__stream_decoder_init_stream(decoder, read, nullptr, nullptr, nullptr, nullptr, write,
                                               nullptr, error, &context),
              FLAC__STREAM_DECODER_INIT_STATUS_OK);
    EXPECT_TRUE(FLAC__stream_decoder_process_until_end_of_stream(decoder));
    FLAC__stream_decoder_delete(decoder);
    return context.samples;
}

bool startsStream(tBytes const& piece)
{
    return piece.size() >= 4 && std::equal(piece.begin(), piece.begin() + 4, "fLaC");
}

// Left and right pairs as the encoder must deliver them.
std::vector<int32_t> expectedPairs(std::vector<tSample> const& left, std::vector<tSample> const& right)
{
    std::vector<int32_t> expected;
    for (size_t i = 0; i < left.size(); ++i) {
        expected.push_back(FlacEncoder::toFlacSample(left[i]));
        expected.push_back(FlacEncoder::toFlacSample(right[i]));
    }
    return expected;
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
    void processConstant(unsigned int frames, double left, double right)
    {
        harness.process(
            {Testing::constant(frames, tSample(left)), Testing::constant(frames, tSample(right))});
    }

    ModuleHarness harness;
    FlacEncoder& encoder;
    std::vector<tBytes> pieces;
    Tools::Connection connection;
};

// 1000 frames of 0.25 left and -0.25 right, as 24-bit pairs.
std::vector<int32_t> const c_quarterPairs =
    expectedPairs(Testing::constant(1000, tSample(0.25)), Testing::constant(1000, tSample(-0.25)));

} // namespace

TEST(FlacEncoderTest, ShiftsToTwentyFourBitsWithoutClipping)
{
    EXPECT_EQ(FlacEncoder::toFlacSample(tSample(int32_t(0x08000000))), 8388608);
    EXPECT_EQ(FlacEncoder::toFlacSample(tSample(-1.0)), -8388608);
    EXPECT_EQ(FlacEncoder::toFlacSample(tSample(int32_t(0x7fffffff))), 0x7ffffff)
        << "beyond full scale, kept";
    EXPECT_EQ(FlacEncoder::toFlacSample(tSample(int32_t(0x1f))), 1);
    EXPECT_EQ(FlacEncoder::toFlacSample(tSample(int32_t(-1))), -1) << "arithmetic shift rounds down";
    EXPECT_EQ(c_quarterPairs[0], 0x200000);
    EXPECT_EQ(c_quarterPairs[1], -0x200000);

    // libFLAC refuses 8388608 as a 24-bit sample (client error, state 5): full scale stops the encoder.
    Testing::LogCapture log;
    Encoding e;
    e.encoder.onSigGotFrameStateChanged(Tools::FramesWanted);
    e.harness.process(
        {Testing::constant(1280, tSample(int32_t(0x08000000))), Testing::constant(1280, tSample(0.0))});
    e.encoder.onSigGotFrameStateChanged(Tools::FramesNotWanted);
    EXPECT_TRUE(log.contains("FlacEncoder error: 5"));
}

TEST(FlacEncoderTest, StreamDecodesToTheDeliveredSamplesAndReachesSubscribersInOrder)
{
    unsigned int const frames = 3 * 48000 + 321;
    std::vector<tSample> const left = noise(frames, 1);
    std::vector<tSample> right = noise(frames, 2);
    right[100] = tSample(-1.0);
    // Room for the whole input, so the test does not depend on how fast the encoder thread runs.
    Encoding e(std::make_shared<FlacEncoder>("enc", 1u << 18));
    std::vector<FlacEncoder::tFrame> seenBySecond;
    bool offMainThread = false;
    std::thread::id const mainThread = std::this_thread::get_id();
    Tools::Connection second = e.encoder.onFrameEncoded([&](FlacEncoder::tFrame frame) {
        offMainThread |= std::this_thread::get_id() != mainThread;
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

    std::vector<int32_t> const expected = expectedPairs(left, right);
    ASSERT_FALSE(e.pieces.empty());
    EXPECT_TRUE(startsStream(e.pieces.front()));
    size_t const piecesBefore = e.pieces.size();
    std::vector<int32_t> const beforeFinish = decode(e.stream());
    // All but the block libFLAC keeps back until the stream is finished.
    EXPECT_LE(beforeFinish.size(), expected.size());
    EXPECT_LE(expected.size() - beforeFinish.size(), 2u * 1152u);
    EXPECT_TRUE(std::equal(beforeFinish.begin(), beforeFinish.end(), expected.begin()));

    // Finishing, here for a new rate, publishes the last block, then the header of the next stream.
    e.encoder.setParameters(Parameters{}, 44100);
    Testing::runPendingMainLoopJobs();
    ASSERT_NE(std::find_if(e.pieces.begin() + long(piecesBefore), e.pieces.end(), startsStream),
              e.pieces.end());
    EXPECT_EQ(seenBySecond.size(), e.pieces.size());
    tBytes const stream = e.stream();
    EXPECT_EQ(decode(stream), expected);
    EXPECT_FALSE(offMainThread);

    std::string const path =
        std::string(g_get_tmp_dir()) + "/flac-encoder-test-" + std::to_string(getpid()) + ".flac";
    std::FILE* file = std::fopen(path.c_str(), "wb");
    ASSERT_NE(file, nullptr);
    std::fwrite(stream.data(), 1, stream.size(), file);
    std::fclose(file);
    EXPECT_EQ(std::system(("flac -t -s " + path).c_str()), 0);
    std::remove(path.c_str());
}

TEST(FlacEncoderTest, StoppedEncoderOnlyClearsItsQueue)
{
    Encoding e;
    Testing::runPendingMainLoopJobs();
    size_t const headerPieces = e.pieces.size();
    EXPECT_GT(headerPieces, 0u) << "the stream header is written when the encoder is set up";
    for (int i = 0; i < 10; ++i)
        e.harness.process({noise(1280, 3), noise(1280, 4)});
    Testing::runPendingMainLoopJobs();
    EXPECT_EQ(e.pieces.size(), headerPieces);
    EXPECT_EQ(e.encoder.getDroppedPairs(), 0u);

    // Only what arrives while encoding is in the stream.
    e.encoder.startEncoding();
    e.processConstant(1000, 0.25, -0.25);
    e.encoder.stopEncoding();
    e.harness.process({noise(1280, 5), noise(1280, 6)});
    e.encoder.finishStream();
    Testing::runPendingMainLoopJobs();
    EXPECT_EQ(decode(e.stream()), c_quarterPairs);
}

TEST(FlacEncoderTest, FinishedStreamHoldsEverythingAndTheNextStartBeginsAnother)
{
    Encoding e;
    EXPECT_TRUE(e.encoder.hasUnpublishedFrames()) << "the header waits for the main loop";

    // Less than one block: libFLAC would keep all of it back until the stream ends.
    e.encoder.startEncoding();
    e.processConstant(1000, 0.25, -0.25);
    EXPECT_EQ(e.encoder.getNumQueuedPairs(), 1000u) << "below the wake-up threshold";
    e.encoder.finishStream();
    EXPECT_FALSE(e.encoder.isEncoding());
    EXPECT_TRUE(e.encoder.hasUnpublishedFrames());
    Testing::runPendingMainLoopJobs();
    EXPECT_FALSE(e.encoder.hasUnpublishedFrames());
    EXPECT_EQ(decode(e.stream()), c_quarterPairs);

    size_t const before = e.pieces.size();
    e.encoder.startEncoding();
    EXPECT_TRUE(e.encoder.isEncoding());
    Testing::runPendingMainLoopJobs();
    ASSERT_GT(e.pieces.size(), before);
    EXPECT_TRUE(startsStream(e.pieces[before]));
    e.encoder.stopEncoding();
}

// Audio thread, encoder thread and main loop all at once; meant to be run under ThreadSanitizer too.
TEST(FlacEncoderTest, AudioEncoderAndMainLoopThreadsRunTogether)
{
    unsigned int const frames = 2 * 48000;
    std::vector<tSample> const left = noise(frames, 7), right = noise(frames, 8);
    Encoding e(std::make_shared<FlacEncoder>("enc", 1u << 18));
    e.encoder.startEncoding();
    std::atomic<bool> audioDone{false};
    std::thread audio([&] {
        for (unsigned int start = 0; start < frames; start += 1280) {
            unsigned int const end = std::min(frames, start + 1280);
            e.harness.process({std::vector<tSample>(left.begin() + start, left.begin() + end),
                               std::vector<tSample>(right.begin() + start, right.begin() + end)});
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        audioDone = true;
    });
    EXPECT_TRUE(Testing::runMainLoopUntil([&] { return audioDone.load(); }, std::chrono::seconds(20)));
    audio.join();
    e.encoder.stopEncoding();
    e.encoder.finishStream();
    Testing::runPendingMainLoopJobs();
    EXPECT_EQ(e.encoder.getDroppedPairs(), 0u);
    EXPECT_EQ(decode(e.stream()), expectedPairs(left, right));
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
        "FlacEncoder stalled dropped 952 stereo frames because its worker thread fell behind";
    EXPECT_FALSE(log.contains(report)) << "reported from the main loop, not the audio thread";
    EXPECT_TRUE(Testing::runMainLoopUntil([&] { return log.contains(report); }));
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
